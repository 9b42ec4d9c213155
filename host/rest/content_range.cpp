// Compares the content that was asked for with the content that an answer announces.
#include "content_range.h"

#include <limits>

namespace tirval::rest {

namespace {

struct content_range {
    std::int64_t first;
    std::int64_t last;
    std::optional<std::int64_t> total;
};

/* "bytes FIRST-LAST/TOTAL", with "*" for an unknown total. */
std::optional<content_range> parse_content_range(std::string_view value)
{
    constexpr std::string_view unit = "bytes ";
    const auto dash = value.find('-');
    const auto slash = value.find('/');
    if (value.size() < unit.size() || !same_field_name(value.substr(0, unit.size()), unit) ||
        dash == std::string_view::npos || slash == std::string_view::npos || dash > slash) {
        return std::nullopt;
    }
    const auto first = parse_decimal(value.substr(unit.size(), dash - unit.size()));
    const auto last = parse_decimal(value.substr(dash + 1, slash - dash - 1));
    const auto total = parse_decimal(value.substr(slash + 1));
    if (!first || !last || *last < *first || *last == std::numeric_limits<std::int64_t>::max() ||
        (!total && value.substr(slash + 1) != "*") || (total && *last >= *total)) {
        return std::nullopt;
    }
    return content_range{*first, *last, total};
}

/* A range may end early only where the file does. */
bool satisfies(const content_range &got, const byte_range &wanted)
{
    if (got.first != wanted.offset) {
        return false;
    }
    const bool reaches_end = got.total && got.last == *got.total - 1;
    const std::int64_t size = got.last - got.first + 1;
    return wanted.length == -1 ? reaches_end
                               : size == wanted.length || (size < wanted.length && reaches_end);
}

problem plan_partial(const response_head &head, const byte_range &wanted,
                     const body_framing &framing, content_plan &out)
{
    const auto *const field = head.find("Content-Range");
    const auto got = field == nullptr ? std::nullopt : parse_content_range(*field);
    if (!got || !satisfies(*got, wanted)) {
        return problem::of(failure::wrong_range, field == nullptr ? "no Content-Range" : *field);
    }
    out.expected = got->last - got->first + 1;
    if (framing.length && *framing.length != out.expected) {
        return problem::of(failure::wrong_range, "its length contradicts its range");
    }
    return {};
}

bool has_no_content(int status)
{
    return status == 204 || status == 205;
}

} // namespace

std::optional<byte_range> parse_range(std::string_view value)
{
    constexpr std::string_view unit = "bytes=";
    const auto dash = value.find('-');
    if (value.substr(0, unit.size()) != unit || dash == std::string_view::npos) {
        return std::nullopt;
    }
    const auto first = parse_decimal(value.substr(unit.size(), dash - unit.size()));
    if (!first) {
        return std::nullopt;
    }
    if (dash + 1 == value.size()) {
        return byte_range{*first, -1};
    }
    const auto last = parse_decimal(value.substr(dash + 1));
    if (!last || *last < *first || *last == std::numeric_limits<std::int64_t>::max()) {
        return std::nullopt;
    }
    return byte_range{*first, *last - *first + 1};
}

problem plan_content(const response_head &head, const byte_range &wanted, bool strict,
                     bool self_framed, content_plan &out)
{
    out = {};
    body_framing framing;
    if (auto trouble = head.framing(framing)) {
        return trouble;
    }
    if (head.status() == 206) {
        return plan_partial(head, wanted, framing, out);
    }
    if (has_no_content(head.status()) || (strict && head.status() != 200)) {
        // Nothing here is content; only an empty file that is announced as one is delivered whole.
        out.expected = 0;
        out.marks_complete = wanted.whole() && framing.length == 0;
        return {};
    }
    if (!wanted.whole()) {
        return problem::of(failure::wrong_range, "the whole file");
    }
    if (!framing.announced() && !self_framed) {
        return problem::of(failure::unannounced_end);
    }
    out.expected = framing.length.value_or(-1);
    return {};
}

} // namespace tirval::rest
