/*
 * A request's header fields: the caller's, checked, less those that frame the body, which are the
 * library's own.
 */
#ifndef TIRVAL_REST_REQUEST_HEADERS_H
#define TIRVAL_REST_REQUEST_HEADERS_H

#include "content_range.h"
#include "curl_handle.h"
#include "tirval_dsi_rest.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tirval::rest {

struct request_headers {
    list_ptr list;                              /* for libcurl */
    std::optional<std::int64_t> content_length; /* the caller's Content-Length */
    bool chunking_refused = false;              /* "Transfer-Encoding" with an empty value */
    std::optional<byte_range> range;            /* the caller's Range */
    bool authorized = false;                    /* the caller sends credentials of its own */
};

/* `headers` may be null. */
problem make_headers(const tirval_dsi_rest_key_array_t *headers, request_headers &out);

/* Whether a text is a token (RFC 9110, section 5.6.2): a method or a field name. */
bool is_token(std::string_view text);

} // namespace tirval::rest

#endif
