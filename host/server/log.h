/*
 * The server's log and its transfer log.
 *
 * One line an entry, written at once by one append, so that lines of many processes never mix and
 * nothing is lost or doubled at a fork.  Control characters in texts become "?": a client cannot
 * forge a line.  Callers never pass tokens, passwords or pre-authenticated URLs.  Thread-safe,
 * except for opening and reopening.
 */
#ifndef TIRVAL_SERVER_LOG_H
#define TIRVAL_SERVER_LOG_H

#include "config.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tirval::server {

/* Opens the log and the transfer log.  Until then entries go to standard error.  Throws
 * std::runtime_error with a text that names the file. */
void open_logs(const log_config_t &config);

/* Opens the same files again, after they were renamed.  One that cannot be opened stays as it was,
 * and the log says so. */
void reopen_logs();

/* Entries of this process name this session from now on; 0: none. */
void set_log_session(std::uint64_t session_id);

/* printf's formats. */
void log_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Whether entries of this level are written: for texts that cost something to make. */
bool log_enabled(log_level_t level);

/* Everything written so far has left the process. */
void flush_logs();

/* One transfer, as the transfer log shows it. */
struct transfer_record_t {
    std::string user;        /* as the client logged in */
    std::string client;      /* numeric address */
    std::string verb;        /* "RETR", "STOR", ... */
    std::string path;        /* canonical */
    std::uint64_t bytes = 0; /* moved over the data connections */
    std::chrono::milliseconds duration{0};
    int code = 0; /* of the final reply */
};

/* Adds one line to the transfer log, in the log's format.  Does nothing when none is kept. */
void log_transfer(const transfer_record_t &record);

/* `text` with each control character (below 0x20, and 0x7f) as "?". */
std::string clean_text(std::string_view text);

} // namespace tirval::server

#endif
