/*
 * Where an answer's body goes.  Which sink it is follows from the status and the caller's data
 * callback: content goes to the callback, JSON of any status to the JSON reader, and everything
 * else is dropped, so that no error page is ever taken for content.
 */
#ifndef TIRVAL_REST_ANSWER_SINK_H
#define TIRVAL_REST_ANSWER_SINK_H

#include "content_range.h"
#include "idle_clock.h"
#include "tirval_dsi_rest.h"

#include <memory>
#include <optional>
#include <string_view>

namespace tirval::rest {

/* The most of a body that is taken to be dropped, and so that its connection can be kept. */
constexpr std::size_t max_dropped_bytes = 1024UL * 1024;
constexpr std::size_t max_json_bytes = 8UL * 1024 * 1024;

class answer_sink {
  public:
    virtual ~answer_sink() = default;

    virtual problem take(std::string_view bytes, idle_clock &idle) = 0;
    /* The rest of the body is not worth receiving. */
    virtual bool has_enough() const { return false; }
    /* The body has ended, or broke off (`whole` false). */
    virtual problem end(bool whole, idle_clock &idle) = 0;
    /* Bytes went to a callback that cannot take them back. */
    virtual bool caller_keeps_bytes() const { return false; }
};

/* What decides about the sink. */
struct sink_choice {
    const tirval_dsi_rest_callbacks_t &callbacks;
    std::optional<byte_range> range; /* the request's Range */
    bool no_body;                    /* the answer to a HEAD request */
    bool self_framed;                /* the protocol itself tells where a body ends */
};

problem make_sink(const sink_choice &choice, const response_head &head,
                  std::unique_ptr<answer_sink> &out);

} // namespace tirval::rest

#endif
