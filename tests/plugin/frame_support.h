/* What the tests of the plug-in's frame share: temporary folders, error scopes, child processes,
 * and a debug channel that writes into memory. */
#ifndef TIRVAL_TESTS_FRAME_SUPPORT_H
#define TIRVAL_TESTS_FRAME_SUPPORT_H

#include "tirval_onedrive_common.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/* A folder of the test's own, removed with all that is in it. */
class temporary_folder {
  public:
    temporary_folder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tirval-XXXXXX").string();
        path_ = mkdtemp(name.data());
    }
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;
    ~temporary_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string &name) const
    {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

/* Releases at its end every error that the test's thread put meanwhile. */
class error_scope {
  public:
    error_scope() : scope_(tirval_error_scope_create()), before_(tirval_error_scope_enter(scope_))
    {
    }
    error_scope(const error_scope &) = delete;
    error_scope &operator=(const error_scope &) = delete;
    ~error_scope()
    {
        (void)tirval_error_scope_enter(before_);
        tirval_error_scope_destroy(scope_);
    }

  private:
    tirval_error_scope_t *scope_;
    tirval_error_scope_t *before_;
};

inline std::string taken(char *text)
{
    const tirval_i_onedrive_text_t owner(text);
    return text != nullptr ? text : "(none)";
}

/* The printed chain of what a result names. */
inline std::string message_of(tirval_result_t result)
{
    return taken(tirval_error_print_chain(tirval_error_peek(result)));
}

inline mode_t mode_of(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

inline off_t size_of(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

/* Runs a function in a process of its own, whose exit status it gives. */
class child_process {
  public:
    explicit child_process(const std::function<int()> &run) : pid_(fork())
    {
        if (pid_ == 0) {
            _exit(run());
        }
    }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;
    ~child_process()
    {
        if (!waited_) {
            (void)wait();
        }
    }
    /* The exit status, or -1 when a signal ended the process. */
    int wait()
    {
        int status = 0;
        waited_ = true;
        const bool exited = waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status);
        return exited ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_;
    bool waited_ = false;
};

/* One process tells another to go on. */
class gate {
  public:
    gate()
    {
        if (pipe(ends_) != 0) {
            abort();
        }
    }
    gate(const gate &) = delete;
    gate &operator=(const gate &) = delete;
    ~gate()
    {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }
    void open() const
    {
        if (write(ends_[1], "x", 1) != 1) {
            abort();
        }
    }
    [[nodiscard]] bool passable_within(int milliseconds) const
    {
        pollfd end = {.fd = ends_[0], .events = POLLIN, .revents = 0};
        return poll(&end, 1, milliseconds) == 1;
    }
    void pass() const
    {
        char byte = 0;
        if (read(ends_[0], &byte, 1) != 1) {
            abort();
        }
    }

  private:
    int ends_[2] = {-1, -1};
};

/* Directs the debug channel into memory for the test's duration. */
class memory_channel {
  public:
    explicit memory_channel(uint32_t levels, uint32_t timestamps = 0, bool thread_ids = false)
        : before_(tirval_i_TIRVAL_ONEDRIVE_debug_handle)
    {
        tirval_i_TIRVAL_ONEDRIVE_debug_handle = {.levels = levels,
                                                 .timestamp_levels = timestamps,
                                                 .file = open_memstream(&text_, &size_),
                                                 .thread_ids = thread_ids,
                                                 .using_file = false};
        file_ = tirval_i_TIRVAL_ONEDRIVE_debug_handle.file;
    }
    memory_channel(const memory_channel &) = delete;
    memory_channel &operator=(const memory_channel &) = delete;
    ~memory_channel()
    {
        (void)fclose(file_);
        free(text_);
        tirval_i_TIRVAL_ONEDRIVE_debug_handle = before_;
    }
    [[nodiscard]] std::string text() const
    {
        (void)fflush(file_);
        return {text_, size_};
    }
    /* The lines without "OneDrive: ", their process number and the blanks before a level. */
    [[nodiscard]] std::vector<std::string> lines() const
    {
        const std::string all = text();
        const std::string process = ": " + std::to_string(getpid()) + ":";
        std::vector<std::string> found;
        for (size_t at = 0, end = 0; (end = all.find('\n', at)) != std::string::npos;
             at = end + 1) {
            std::string line = all.substr(at, end - at);
            if (line.starts_with("OneDrive: ")) {
                line.erase(0, line.find_first_not_of(' ', strlen("OneDrive:")));
                if (const size_t number = line.find(process); number != std::string::npos) {
                    line.erase(number, process.size());
                }
            }
            found.push_back(line);
        }
        return found;
    }

  private:
    tirval_debug_handle_t before_;
    char *text_ = nullptr;
    size_t size_ = 0;
    FILE *file_ = nullptr;
};

/* The definition that a function of this program's stands in front of. */
template <typename Function> Function *next_definition(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

#endif
