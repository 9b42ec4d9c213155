/*
 * A filter on the system calls of a session: what no session needs is refused with "Operation not
 * permitted" (seccomp, a deny-list: name service modules run inside the process, and what they call
 * cannot be known).  Files, sockets, locks, memory and threads work as before.
 */
#ifndef TIRVAL_SERVER_SANDBOX_H
#define TIRVAL_SERVER_SANDBOX_H

namespace tirval::server {

/*
 * Sets the filter for the calling thread and those it will start, for good.  A kernel that has no
 * filters is no failure: the log warns and the process goes on without.  With TIRVAL_SECCOMP=kill
 * in the environment a denied call ends the process by SIGSYS instead, so that tests find it.
 *
 * Returns whether the filter is in force.
 */
bool enter_sandbox();

} // namespace tirval::server

#endif
