// tirval-graph-sim: reads what to serve, serves it, and stops on SIGTERM or SIGINT.
#include "options.h"
#include "server.h"

#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

namespace {

using namespace graph_sim;

void fill(service &served, const command_line &chosen)
{
    if (!chosen.seed_file.empty()) {
        const std::string folder = std::filesystem::path(chosen.seed_file).parent_path().string();
        read_seed(json::load(chosen.seed_file), chosen.seed_file, folder.empty() ? "." : folder,
                  served.target());
    } else if (!chosen.import_directory.empty()) {
        read_seed(import_seed(chosen.import_directory), "--import", ".", served.target());
    } else {
        read_seed(json::parse(sample_seed(), "the sample"), "the sample", ".", served.target());
    }
    if (!chosen.faults_file.empty()) {
        served.target().faults.add(json::load(chosen.faults_file).get(),
                                   chosen.faults_file + ": /");
    }
}

server_options options_of(const command_line &chosen)
{
    server_options options;
    options.threads = chosen.threads;
    options.certificate_file = chosen.certificate_file;
    options.key_file = chosen.key_file;
    options.listeners.push_back(listen_address::parse(chosen.listen));
    if (!chosen.download_listen.empty()) {
        options.listeners.front().role = listener_role::service;
        options.listeners.push_back(listen_address::parse(chosen.download_listen));
        options.listeners.back().role = listener_role::downloads;
    }
    return options;
}

void announce(const server &running, bool separate_downloads)
{
    std::printf("%s\n", running.origin(0).c_str());
    std::printf("This is a test and trial tool: a simulated OneDrive without any protection.\n");
    if (separate_downloads) {
        std::printf("downloads: %s\n", running.origin(1).c_str());
    }
    std::fflush(stdout);
}

int run(const command_line &chosen)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    // Blocked before the first thread starts, so that only sigwait() below receives them.
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    service served(chosen.record);
    fill(served, chosen);
    const server running(served, options_of(chosen));
    const bool separate_downloads = !chosen.download_listen.empty();
    if (separate_downloads) {
        served.use_download_port(running.port(1));
    }
    announce(running, separate_downloads);
    int signal = 0;
    sigwait(&signals, &signal);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    int exit_code = 0;
    const auto chosen = graph_sim::read_command_line(argc, argv, exit_code);
    if (!chosen) {
        return exit_code;
    }
    try {
        return run(*chosen);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tirval-graph-sim: %s\n", error.what());
        return 2;
    }
}
