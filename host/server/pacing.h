/*
 * Whether the OneDrive storage paces this session's requests together with those of the user's
 * other sessions.  It does so through a small file in the user's home; where it cannot use that
 * file it paces each session by itself and says nothing, and the service throttles the user.
 */
#ifndef TIRVAL_SERVER_PACING_H
#define TIRVAL_SERVER_PACING_H

#include "privileges.h"

#include <string>

namespace tirval::server {

/*
 * Why the pacing is not shared, for the log; empty: it is.  To be asked once the storage session
 * has started, by a process that runs as the user.  `sub` is the credential's.  The file is looked
 * at without being opened: closing a descriptor of it would drop the storage's lock.
 */
std::string pacing_problem(const account_t &account, const std::string &sub);

} // namespace tirval::server

#endif
