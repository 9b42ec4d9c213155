/*
 * Whether outside bytes are text.
 */
#ifndef TIRVAL_SERVER_UTF8_H
#define TIRVAL_SERVER_UTF8_H

#include <string_view>

namespace tirval::server {

/* Well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates. */
bool is_utf8(std::string_view text);

} // namespace tirval::server

#endif
