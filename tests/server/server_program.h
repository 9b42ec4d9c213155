/*
 * The real server program, run by a test: its configuration, its log, its end.
 */
#ifndef TIRVAL_TESTS_SERVER_SERVER_PROGRAM_H
#define TIRVAL_TESTS_SERVER_SERVER_PROGRAM_H

#include "ftp_client.h"
#include "temp_dir.h"

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tirval::tests {

/* The local user that the users of these tests are mapped to: the test's own, or where that is root
 * an account that every system has. */
std::string served_local_user();

/* A folder with a configuration, a users file (user "anna", password "secret") and a credential
 * that lasts, for a server on a free port of 127.0.0.1. */
class server_folder_t {
  public:
    server_folder_t();

    const temp_dir_t &dir() const { return dir_; }
    std::string config_file() const { return dir_ / "server.toml"; }
    /* The users file with these users, all with the password "secret". */
    void write_users(const std::vector<std::string> &names) const;

  private:
    temp_dir_t dir_;
};

/* How a program ended that was run to its end. */
struct program_end_t {
    int status = -1;  /* exit status, or -1 after a signal */
    std::string text; /* standard error */
};

/* Runs `program` with the folder's configuration and these arguments, to its end. */
program_end_t run_server(const std::string &program, const server_folder_t &folder,
                         const std::vector<std::string> &arguments);

class server_program_t {
  public:
    /* Starts the server and waits until it listens.  `settings` are given by --set.  Its log goes
     * to `log_file`, when one is named, else to standard error. */
    server_program_t(const std::string &program, const server_folder_t &folder,
                     std::vector<std::string> settings = {}, const std::string &log_file = {});
    server_program_t(const server_program_t &) = delete;
    server_program_t &operator=(const server_program_t &) = delete;
    /* Ends it by SIGTERM if it still runs, and then by SIGKILL. */
    ~server_program_t();

    pid_t pid() const { return pid_; }
    std::uint16_t port() const { return port_; }
    void signal(int number) const;
    /* The exit status, or -1 after a signal; throws when it does not end within 20 seconds. */
    int wait();

    /* A new control connection, with nothing read from it. */
    ftp_client_t connect() const;
    /* The same, greeted and logged in. */
    ftp_client_t log_in(const std::string &user = "anna") const;

    std::string log() const;
    /* Waits until the log holds the text; throws after 20 seconds. */
    void wait_for_log(const std::string &text) const;
    /* The process of the session with this number. */
    pid_t session_process(int session) const;

  private:
    std::string log_file_;
    pid_t pid_ = -1;
    std::uint16_t port_ = 0;
};

/* One line of a process's status in /proc; empty when there is none. */
std::string process_status(pid_t pid, const std::string &key);

} // namespace tirval::tests

#endif
