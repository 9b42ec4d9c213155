// The command line of tirval-graph-sim.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace graph_sim {

struct command_line {
    std::string listen = "127.0.0.1:0";
    std::string download_listen; // "": downloads come from the same listener
    std::string seed_file;
    std::string import_directory;
    std::string certificate_file;
    std::string key_file;
    std::string faults_file;
    std::size_t record = 100'000;
    unsigned threads = 2;
};

// Reads the arguments.  Without a result the program ends with `exit_code`, everything being said:
// 0 after --help, 2 after an error.
std::optional<command_line> read_command_line(int argc, char **argv, int &exit_code);

} // namespace graph_sim
