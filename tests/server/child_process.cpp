#include "child_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

child_process_t::child_process_t(const std::function<std::string()> &body)
{
    int ends[2];
    std::fflush(nullptr);
    if (pipe(ends) != 0 || (pid_ = fork()) < 0) {
        throw std::runtime_error("no child process");
    }
    if (pid_ == 0) {
        close(ends[0]);
        std::string text;
        try {
            text = body();
        } catch (const std::exception &error) {
            text = std::string{"exception: "} + error.what();
        }
        const auto written = write(ends[1], text.data(), text.size());
        _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(ends[1]);
    output_ = ends[0];
}

child_process_t::~child_process_t()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(output_);
    }
}

child_result_t child_process_t::wait()
{
    child_result_t result;
    char block[4096];
    for (ssize_t got = 0; (got = read(output_, block, sizeof block)) > 0;) {
        result.text.append(block, static_cast<std::size_t>(got));
    }
    close(output_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}
