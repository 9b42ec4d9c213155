/*
 * The program's command line.
 */
#ifndef TIRVAL_SERVER_CLI_H
#define TIRVAL_SERVER_CLI_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tirval::server {

struct command_line_t {
    std::filesystem::path config = "/etc/tirval/gridftp-server.toml";
    std::vector<std::string> overrides; /* of --set, in order */
    bool check = false;
    /* The program is done, with this exit status: help or the version was printed, or what is
     * wrong with the command line. */
    std::optional<int> done;
};

command_line_t parse_command_line(int argc, char **argv);

} // namespace tirval::server

#endif
