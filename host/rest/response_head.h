/*
 * An answer's head, taken line by line as it comes: interim answers (1xx) are passed over, the
 * final answer's status and fields are kept, trailers are dropped.  Everything together is bounded,
 * so that a peer that sends headers without end is found out.
 */
#ifndef TIRVAL_REST_RESPONSE_HEAD_H
#define TIRVAL_REST_RESPONSE_HEAD_H

#include "failure.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tirval::rest {

/* How far the body is announced (RFC 9112, section 6). */
struct body_framing {
    std::optional<std::int64_t> length; /* Content-Length; empty when chunked */
    bool chunked = false;
    bool announced() const { return chunked || length.has_value(); }
};

class response_head {
  public:
    static constexpr std::size_t max_lines = 100;
    static constexpr std::size_t max_bytes = 65536;

    /* Takes the next line with its line end. */
    problem add(std::string_view line);

    /* Whether the final answer's head is complete. */
    bool complete() const { return is_complete; }
    int status() const { return code; }
    const std::string &reason() const { return phrase; }
    const std::vector<std::pair<std::string, std::string>> &fields() const { return all; }
    /* The first field of that name (compared without case), or null. */
    const std::string *find(std::string_view name) const;

    /* Reads Content-Length and Transfer-Encoding; a contradiction is a problem. */
    problem framing(body_framing &out) const;

  private:
    problem start(std::string_view line);
    problem add_field(std::string_view line);

    std::size_t lines = 0;
    std::size_t bytes = 0;
    bool begun = false; /* a status line came, its head has not ended */
    bool is_complete = false;
    int code = 0;
    std::string phrase;
    std::vector<std::pair<std::string, std::string>> all;
};

/* Whether two field names are the same (RFC 9110, section 5.1). */
bool same_field_name(std::string_view a, std::string_view b);

/* A decimal number without sign or anything around it; empty when it is none or does not fit. */
std::optional<std::int64_t> parse_decimal(std::string_view text);

} // namespace tirval::rest

#endif
