// Reading the command line; the one unit that includes CLI11.
#include "options.h"

#include <CLI/CLI.hpp>

namespace graph_sim {

std::optional<command_line> read_command_line(int argc, char **argv, int &exit_code)
{
    command_line read;
    CLI::App app("A OneDrive (Microsoft Graph v1.0) on this machine, for trying, testing and "
                 "measuring. Never for real data.",
                 "tirval-graph-sim");
    app.add_option("--listen", read.listen,
                   "Address and port to serve at; port 0 chooses a free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("--download-listen", read.download_listen,
                   "Serve file content from an address of its own")
        ->type_name("ADDRESS:PORT");
    auto *seed = app.add_option("--seed", read.seed_file, "What the service holds, as JSON")
                     ->type_name("FILE");
    app.add_option("--import", read.import_directory,
                   "Serve a directory as the drive of the account \"alice\"")
        ->type_name("DIR")
        ->excludes(seed);
    auto *certificate = app.add_option("--tls-certificate", read.certificate_file,
                                       "PEM certificate chain; turns TLS on")
                            ->type_name("FILE");
    auto *key =
        app.add_option("--tls-key", read.key_file, "PEM key of the certificate")->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
    app.add_option("--faults", read.faults_file, "Fault rules to start with, as JSON")
        ->type_name("FILE");
    app.add_option("--record", read.record, "How many of the latest requests to remember")
        ->capture_default_str();
    app.add_option("--threads", read.threads, "Threads that serve")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        exit_code = app.exit(error) == 0 ? 0 : 2;
        return std::nullopt;
    }
    return read;
}

} // namespace graph_sim
