/*
 * One client's session, in a process of its own: what the master hands to it, and its entry.
 */
#ifndef TIRVAL_SERVER_SESSION_H
#define TIRVAL_SERVER_SESSION_H

#include "change_ring.h"
#include "config.h"
#include "unique_fd.h"
#include "users.h"

#include "tirval_gfs_host.h"

#include <cstdint>
#include <string>

namespace tirval::server {

/* References and pointers live as long as the process. */
struct session_context_t {
    const config_t &config;
    const users_t &users;
    change_ring_t &changes;
    const tirval_gfs_storage_iface_t *storage; /* loaded and activated; never null */
    std::uint64_t id;                          /* of the session, from 1, unique in this server */
    std::string client;                        /* the client's numeric address, for logs and info */
    unique_fd_t control; /* the accepted control connection, non-blocking, close-on-exec */
    /*
     * Write end of a pipe.  Once the client is logged in and the storage session has started, the
     * session writes the local user's name to it and closes it.  The master ends a session that has
     * not done so within login_timeout and two seconds; the session itself answers 421 at
     * login_timeout.
     */
    unique_fd_t login_report;
    /* Read end of a pipe that nobody writes to: end of file means that the master is gone. */
    unique_fd_t master_alive;
};

/*
 * Serves the client until it leaves.  Runs in the child after the fork, outside any event loop,
 * with one thread, lowered privileges, SIGTERM at its default, SIGINT, SIGHUP and SIGPIPE ignored,
 * and the log naming the session.  The session:
 *
 *   - authenticates by users.authenticate(), finds the account by find_account(), checks it by
 *     account_problem(), and then calls become_user(account, config.server.sandbox) before it
 *     starts a second thread or makes a credential_source_t;
 *   - takes SIGTERM as the master's shutdown: an idle session answers 421 and leaves at once, a
 *     running transfer may end first; the master sends SIGKILL after shutdown_timeout;
 *   - returns the process's exit status, 0 for an orderly end.  The caller leaves the process.
 */
int run_session(session_context_t &&context);

} // namespace tirval::server

#endif
