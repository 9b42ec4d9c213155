/*
 * tirval-gridftp-server: command line and configuration, then the master.
 */
#include "cli.h"
#include "config.h"
#include "log.h"
#include "master.h"

#include <sys/stat.h>

#include <cstdio>
#include <exception>

namespace {

using namespace tirval::server;

void print(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

/* Everything that --check finds, also what a server would only warn of. */
int check(const config_result_t &loaded)
{
    const std::vector<std::string> problems = start_problems(loaded.config);
    print(loaded.warnings);
    print(problems);
    return loaded.warnings.empty() && problems.empty() ? 0 : 2;
}

int run(int argc, char **argv)
{
    const command_line_t line = parse_command_line(argc, argv);
    if (line.done) {
        return *line.done;
    }
    umask(027);
    /* lives as long as the process: sessions use it after the fork */
    static const config_result_t loaded = load_config(line.config, line.overrides);
    if (!loaded.problems.empty()) {
        print(loaded.problems);
        print(loaded.warnings);
        return 2;
    }
    if (line.check) {
        return check(loaded);
    }
    return run_master(loaded.config, loaded.warnings);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tirval-gridftp-server: %s\n", error.what());
        return 2;
    }
}
