/*
 * Identities: the local accounts that sessions run as, and the way from the master's privileges to
 * theirs.
 *
 * Started as root, the server serves any local user but root.  A session process first lowers
 * itself (lower_privileges), so that nothing that a stranger sends is read with privileges, and
 * after the log-in becomes the local user for good (become_user).  Started by an ordinary user, the
 * server serves that user alone.
 *
 * All functions act on the calling process and need it to have one thread.
 */
#ifndef TIRVAL_SERVER_PRIVILEGES_H
#define TIRVAL_SERVER_PRIVILEGES_H

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace tirval::server {

/* An entry of the user database. */
struct account_t {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string home; /* absolute, or empty when the database tells none */
};

/* The account of a local user's name, or of a user id; nothing when there is none. */
std::optional<account_t> find_account(const std::string &name);
std::optional<account_t> find_account(uid_t uid);

/* Why this server may not serve the account: its user is root, or is another one than the ordinary
 * user who started the server.  Empty: it may. */
std::string account_problem(const account_t &account);

/* The drop of privileges failed: the process must end at once without doing anything else. */
class privileges_error_t : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/*
 * Right after the fork: keeps only what become_user() needs, and that asleep.  The effective user
 * is "nobody" from then on.  Nothing for an ordinary user's server.
 *
 * Throws privileges_error_t.
 */
void lower_privileges();

/*
 * Becomes the local user for good: groups, user, no capabilities, no new privileges, not readable
 * by debuggers; proves that there is no way back; then, with `sandbox`, gives up the system calls
 * that no session needs.  To be called once, after the log-in and before a second thread exists.
 *
 * Throws privileges_error_t.
 */
void become_user(const account_t &account, bool sandbox);

/* Ends the process of a session: at once, or where a sanitizer or a coverage count must report at
 * its end, with the exit handlers. */
[[noreturn]] void leave_process(int status);

} // namespace tirval::server

#endif
