// Checks the caller's header fields and writes them as libcurl takes them.
#include "request_headers.h"

#include <algorithm>
#include <new>
#include <string>

namespace tirval::rest {

namespace {

void append(list_ptr &list, const std::string &line)
{
    curl_slist *const longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    (void)list.release();
    list.reset(longer);
}

bool is_field_value(std::string_view text)
{
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return (c < ' ' && c != '\t') || c == 127; });
}

/* Takes a field that the library must know of; false when it is to be sent as it stands. */
problem note_field(std::string_view name, std::string_view value, request_headers &out, bool &send)
{
    send = true;
    if (same_field_name(name, "Content-Length")) {
        send = false;
        out.content_length = parse_decimal(value);
        return value.empty() || out.content_length
                   ? problem{}
                   : problem::of(failure::bad_argument, "Content-Length is no number");
    }
    if (same_field_name(name, "Transfer-Encoding")) {
        send = false;
        out.chunking_refused = value.empty();
    } else if (same_field_name(name, "Range") && !value.empty()) {
        out.range = parse_range(value);
        return out.range ? problem{}
                         : problem::of(failure::bad_argument, "Range is of an unknown form");
    } else if (same_field_name(name, "Authorization")) {
        out.authorized = !value.empty();
    }
    return {};
}

} // namespace

bool is_token(std::string_view text)
{
    constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               marks.find(c) != std::string_view::npos;
    });
}

problem make_headers(const tirval_dsi_rest_key_array_t *headers, request_headers &out)
{
    out = {};
    bool expects = false;
    const std::size_t count = headers == nullptr ? 0 : headers->count;
    for (std::size_t i = 0; i < count; ++i) {
        const auto &pair = headers->key_value[i];
        const std::string name = pair.key == nullptr ? "" : pair.key;
        const std::string value = pair.value == nullptr ? "" : pair.value;
        if (!is_token(name) || !is_field_value(value)) {
            return problem::of(failure::bad_argument, "a header is malformed");
        }
        bool send = true;
        if (auto trouble = note_field(name, value, out, send)) {
            return trouble;
        }
        if (send) {
            append(out.list, std::string(name).append(value.empty() ? ":" : ": ").append(value));
            expects = expects || same_field_name(name, "Expect");
        }
    }
    // Waiting for "100 Continue" costs a round trip for each body.
    if (!expects) {
        append(out.list, "Expect:");
    }
    return {};
}

} // namespace tirval::rest
