/*
 * Sessions as the master runs them, with the storage in memory: each in a forked process, with a
 * real control connection to the test.
 */
#ifndef TIRVAL_TESTS_SERVER_SESSION_HARNESS_H
#define TIRVAL_TESTS_SERVER_SESSION_HARNESS_H

#include "fake_storage.h"
#include "ftp_client.h"
#include "temp_dir.h"

#include "privileges.h"
#include "session.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tirval::tests {

/* A running session and the test's end of it. */
class running_session_t {
  public:
    running_session_t(pid_t process, server::unique_fd_t control, server::unique_fd_t login_report,
                      server::unique_fd_t master_alive);
    /* Ends the process if it still runs. */
    ~running_session_t();
    running_session_t(const running_session_t &) = delete;
    running_session_t &operator=(const running_session_t &) = delete;

    ftp_client_t client;

    pid_t process() const { return process_; }
    /* What the session reports of its log-in; waits for the report's end. */
    std::string login_report();
    /* As if the master had died. */
    void drop_master() { master_alive_.reset(); }
    void signal(int number) const;
    /* Waits for the end; the exit status, or -1 after a signal or ten seconds. */
    int wait();

  private:
    pid_t process_;
    server::unique_fd_t login_report_;
    server::unique_fd_t master_alive_;
};

/* The local user that sessions of the tests run as. */
server::account_t test_account();

struct session_harness_t {
    session_harness_t();

    std::unique_ptr<running_session_t> start(std::uint64_t id = 1);
    /* The same, with the user "anna" logged in. */
    std::unique_ptr<running_session_t> start_logged_in(std::uint64_t id = 1);

    fake_storage_t storage;
    server::config_t config;
    server::users_t users;
    server::change_ring_t changes;
    bool ipv6 = false;        /* the control connection's family */
    bool mapped_ipv4 = false; /* an IPv4 client on a socket that takes both families */
    temp_dir_t folder;
};

} // namespace tirval::tests

#endif
