// Reading Range headers.
#include "ranges.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace graph_sim {

namespace {

std::optional<std::uint64_t> read_number(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

} // namespace

byte_range parse_range(std::string_view value, std::uint64_t size)
{
    constexpr std::string_view unit = "bytes=";
    if (!value.starts_with(unit) || value.find(',') != std::string_view::npos ||
        value.starts_with("bytes=-")) {
        return {byte_range::kind::whole, 0, size};
    }
    value.remove_prefix(unit.size());
    const size_t dash = value.find('-');
    const auto first = read_number(value.substr(0, dash));
    if (dash == std::string_view::npos || !first) {
        return {byte_range::kind::malformed, 0, 0};
    }
    const std::string_view rest = value.substr(dash + 1);
    const auto last = rest.empty() ? std::optional(UINT64_MAX) : read_number(rest);
    if (!last || *last < *first) {
        return {byte_range::kind::malformed, 0, 0};
    }
    if (*first >= size) {
        return {byte_range::kind::unsatisfiable, 0, 0};
    }
    const std::uint64_t end = std::min(*last, size - 1);
    return {byte_range::kind::part, *first, end - *first + 1};
}

} // namespace graph_sim
