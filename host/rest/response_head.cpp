// Parses an answer's status line and header fields (RFC 9110 and 9112) within bounds.
#include "response_head.h"

#include <algorithm>
#include <charconv>

namespace tirval::rest {

namespace {

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

} // namespace

bool same_field_name(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

std::optional<std::int64_t> parse_decimal(std::string_view text)
{
    std::int64_t value = 0;
    const char *const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || text.front() == '-' || error != std::errc() || stopped != end) {
        return std::nullopt;
    }
    return value;
}

problem response_head::start(std::string_view line)
{
    const auto space = line.find(' ');
    const auto rest = space == std::string_view::npos ? line : trim(line.substr(space));
    const auto number = parse_decimal(rest.substr(0, 3));
    const bool delimited = rest.size() == 3 || (rest.size() > 3 && rest[3] == ' ');
    if (line.substr(0, 5) != "HTTP/" || !number || *number < 100 || !delimited) {
        return problem::of(failure::malformed_answer, "bad status line");
    }
    code = static_cast<int>(*number);
    phrase = trim(rest.substr(3));
    all.clear();
    begun = true;
    return {};
}

problem response_head::add_field(std::string_view line)
{
    if (line.front() == ' ' || line.front() == '\t') {
        // A folded line belongs to the field before (RFC 9112, section 5.2).
        if (!all.empty()) {
            all.back().second.append(" ").append(trim(line));
        }
        return {};
    }
    const auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        all.emplace_back(line.substr(0, colon), trim(line.substr(colon + 1)));
    }
    return {};
}

problem response_head::add(std::string_view line)
{
    ++lines;
    bytes += line.size();
    if (lines > max_lines || bytes > max_bytes) {
        return problem::of(failure::headers_too_large);
    }
    if (line.find('\0') != std::string_view::npos) {
        return problem::of(failure::malformed_answer, "a null byte in a header");
    }
    if (is_complete) {
        return {};
    }
    if (!begun) {
        return start(trim(line));
    }
    if (!trim(line).empty()) {
        return add_field(line);
    }
    begun = false;
    is_complete = code >= 200;
    return {};
}

const std::string *response_head::find(std::string_view name) const
{
    const auto field = std::find_if(all.begin(), all.end(), [name](const auto &each) {
        return same_field_name(each.first, name);
    });
    return field == all.end() ? nullptr : &field->second;
}

problem response_head::framing(body_framing &out) const
{
    out = {};
    for (const auto &[name, value] : all) {
        if (same_field_name(name, "Transfer-Encoding")) {
            out.chunked = out.chunked || same_field_name(value, "chunked");
        } else if (same_field_name(name, "Content-Length")) {
            const auto length = parse_decimal(value);
            if (!length || (out.length && *out.length != *length)) {
                return problem::of(failure::malformed_answer, "bad Content-Length");
            }
            out.length = length;
        }
    }
    if (out.chunked) {
        out.length.reset();
    }
    return {};
}

} // namespace tirval::rest
