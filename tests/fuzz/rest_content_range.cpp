/* Whether an answer is the content that was asked for.  An input is the request's Range and, from
 * the next line on, the answer's head. */
#include "fuzz.h"

#include "content_range.h"

#include <algorithm>

using namespace tirval::rest;

namespace {

void require_plan(const response_head &head, const byte_range &wanted, bool strict,
                  bool self_framed)
{
    content_plan plan;
    if (plan_content(head, wanted, strict, self_framed, plan)) {
        return;
    }
    fuzz::require(plan.expected >= -1, "an expectation is a number of bytes, or none");
    if (head.status() == 206) {
        fuzz::require(plan.expected >= 1, "a partial answer has content");
        fuzz::require(wanted.length == -1 || plan.expected <= wanted.length,
                      "no more is taken than was asked for");
        fuzz::require(plan.marks_complete, "an accepted part is all that there is");
    } else if (plan.expected != 0) {
        fuzz::require(wanted.whole(), "a part of a file is never taken from a whole answer");
        fuzz::require(!strict || head.status() == 200, "content comes with 200 or 206 alone");
    } else if (!wanted.whole()) {
        fuzz::require(!plan.marks_complete, "an answer without content is no part of a file");
    }
}

void parse(std::string_view input)
{
    const auto range = parse_range(fuzz::take_line(input));
    if (range) {
        fuzz::require(range->offset >= 0, "a range starts in the file");
        fuzz::require(range->length == -1 || range->length >= 1, "a range is not empty");
    }
    response_head head;
    while (!input.empty() && !head.complete()) {
        const std::size_t end = std::min(input.find('\n'), input.size() - 1) + 1;
        if (head.add(input.substr(0, end))) {
            return;
        }
        input.remove_prefix(end);
    }
    if (!head.complete()) {
        return;
    }
    const byte_range wanted = range.value_or(byte_range{});
    for (const bool strict : {false, true}) {
        for (const bool self_framed : {false, true}) {
            require_plan(head, wanted, strict, self_framed);
        }
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    ContentRange,
    (fuzz::entry{parse,
                 {"bytes=0-9\nHTTP/1.1 206 P\r\nContent-Range: bytes 0-9/10\r\nContent-Length: "
                  "10\r\n\r\n",
                  "bytes=5-\nHTTP/1.1 206 P\r\nContent-Range: bytes 5-9/10\r\n\r\n",
                  "bytes=5-99\nHTTP/1.1 206 P\r\nContent-Range: bytes 5-9/10\r\n\r\n",
                  "\nHTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n",
                  "bytes=1-\nHTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n",
                  "\nHTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                  "\nHTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n",
                  "bytes=0-9223372036854775807\nHTTP/1.1 206 P\r\nContent-Range: bytes "
                  "0-9223372036854775806/*\r\n\r\n"},
                 60000}))
