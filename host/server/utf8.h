/*
 * Whether outside bytes are text, and the same text.
 */
#ifndef TIRVAL_SERVER_UTF8_H
#define TIRVAL_SERVER_UTF8_H

#include <string>
#include <string_view>

namespace tirval::server {

/* Well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates. */
bool is_utf8(std::string_view text);

/* `text` with "?" for each byte that is not part of a well-formed character. */
std::string as_utf8(std::string_view text);

/* Whether the texts are equal but for the case of ASCII letters. */
bool equal_without_case(std::string_view left, std::string_view right);

} // namespace tirval::server

#endif
