/*
 * The master process: loads what all sessions share, listens, and forks a session for each control
 * connection.  It has one thread, always: a child forked beside a second thread would hang on the
 * locks that this thread held.
 */
#ifndef TIRVAL_SERVER_MASTER_H
#define TIRVAL_SERVER_MASTER_H

#include "config.h"

#include <string>
#include <vector>

namespace tirval::server {

/* What would keep a server with this configuration from serving: the users file's problems, and a
 * storage library that is not there. */
std::vector<std::string> start_problems(const config_t &config);

/*
 * Serves until SIGTERM or SIGINT, then lets the sessions end within the shutdown time-out.  SIGHUP
 * reads users and certificates again and opens the logs anew.
 *
 * Returns the exit status: 0, or 2 when it could not start; the log then says why.  In a session's
 * process it does not return.  To be called once, with `config` alive until the process ends.
 *
 * warnings  of the configuration, for the log
 */
int run_master(const config_t &config, const std::vector<std::string> &warnings);

} // namespace tirval::server

#endif
