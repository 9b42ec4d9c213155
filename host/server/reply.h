/*
 * Replies on the control channel (RFC 959, section 4.2): text made safe for the wire and put into
 * the shape that readers expect.  Every function returns complete lines, each ended by CR LF, ready
 * to be sent.  Pure functions.
 */
#ifndef TIRVAL_SERVER_REPLY_H
#define TIRVAL_SERVER_REPLY_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

/* The longest text of a reply line that comes from elsewhere, in bytes. */
inline constexpr std::size_t max_reply_text_bytes = 1000;

/* `text` with each control byte (below 0x20, and 0x7f) and each byte that is no UTF-8 as "?", cut
 * to max_reply_text_bytes at a character's border.  Clients give up on replies that they cannot
 * decode. */
std::string safe_text(std::string_view text);

/* "NNN text". */
std::string single_reply(int code, std::string_view text);

/* The same, sent whole, however long: for texts that end in a name, which cut would be another. */
std::string whole_reply(int code, std::string_view text);

/* "NNN-line" for each of `lines` that is not empty, then "NNN last". */
std::string multi_line_reply(int code, const std::vector<std::string> &lines,
                             std::string_view last);

/*
 * The shape of RFC 2389 and RFC 3659: "NNN-first", each of `body` after one blank, "NNN last".  The
 * body's lines are sent whole, however long; they must hold no line ends.
 */
std::string body_reply(int code, std::string_view first, const std::vector<std::string> &body,
                       std::string_view last);

/* `257 "path" text` with the path's quotes doubled (RFC 959, appendix II); the path is sent
 * whole. */
std::string path_reply(std::string_view path, std::string_view text);

/* The code that a reply made by these functions begins with; 0 when it has none. */
int reply_code(std::string_view reply);

} // namespace tirval::server

#endif
