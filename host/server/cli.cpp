/*
 * The command line, over CLI11.
 */
#include "cli.h"

#include <CLI/CLI.hpp>

namespace tirval::server {

command_line_t parse_command_line(int argc, char **argv)
{
    command_line_t line;
    CLI::App app{"Serves a cloud drive to FTP and GridFTP clients.", "tirval-gridftp-server"};
    app.add_option("--config", line.config, "The configuration file")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_flag("--check", line.check,
                 "Check the configuration and the users file, print what is wrong, and leave");
    app.add_option("--set", line.overrides, "Use VALUE for a key; repeatable")
        ->type_name("SECTION.KEY=VALUE")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.set_version_flag("--version", "tirval-gridftp-server " TIRVAL_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        line.done = app.exit(error) == 0 ? 0 : 2;
    }
    return line;
}

} // namespace tirval::server
