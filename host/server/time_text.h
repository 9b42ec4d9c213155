/*
 * Times as clients write them in commands, all UTC.  Pure functions.
 */
#ifndef TIRVAL_SERVER_TIME_TEXT_H
#define TIRVAL_SERVER_TIME_TEXT_H

#include <ctime>
#include <optional>
#include <string_view>

namespace tirval::server {

/*
 * Reads YYYYMMDDhhmmss with an optional fraction, which is dropped (RFC 3659, section 2.3). Nothing
 * when it is malformed, no day of the calendar, or before 1970.  A leap second counts as the one
 * after it.
 */
std::optional<std::time_t> parse_time(std::string_view text);

} // namespace tirval::server

#endif
