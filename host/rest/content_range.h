/*
 * Whether an answer is the content that was asked for: the range of a request against the status
 * and the Content-Range of its answer (RFC 9110, section 14).
 */
#ifndef TIRVAL_REST_CONTENT_RANGE_H
#define TIRVAL_REST_CONTENT_RANGE_H

#include "response_head.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tirval::rest {

/* Bytes of a file; length -1: to the end. */
struct byte_range {
    std::int64_t offset = 0;
    std::int64_t length = -1;
    bool whole() const { return offset == 0 && length == -1; }
};

/* Reads a request's Range of the forms "bytes=A-" and "bytes=A-B"; empty for any other. */
std::optional<byte_range> parse_range(std::string_view value);

/* What a 2xx answer's body must be. */
struct content_plan {
    std::int64_t expected = -1; /* bytes; -1: as the framing ends it */
    bool marks_complete = true; /* a body that ends as planned is the whole range */
};

/*
 * wanted       what was asked for
 * strict       only the statuses of content (200 and 206) may carry any; otherwise each 2xx may
 * self_framed  the protocol itself tells where a body ends (HTTP/2 and later)
 */
problem plan_content(const response_head &head, const byte_range &wanted, bool strict,
                     bool self_framed, content_plan &out);

} // namespace tirval::rest

#endif
