// Checks addresses with the parser that also sends them, so that both see the same host.
#include "uri.h"

#include "response_head.h"

#include <algorithm>
#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>

namespace tirval::rest {

namespace {

struct url_free {
    void operator()(CURLU *url) const { curl_url_cleanup(url); }
};
struct curl_text_free {
    void operator()(char *text) const { curl_free(text); }
};
using url_ptr = std::unique_ptr<CURLU, url_free>;

std::string part(CURLU *url, CURLUPart which)
{
    char *raw = nullptr;
    if (curl_url_get(url, which, &raw, 0) != CURLUE_OK) {
        return {};
    }
    const std::unique_ptr<char, curl_text_free> text(raw);
    return text.get();
}

bool is_loopback(const std::string &host)
{
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    return host == "[::1]" || same_field_name(host, "localhost");
}

void append_query(std::string &text, const tirval_dsi_rest_key_array_t *query)
{
    const std::size_t count = query == nullptr ? 0 : query->count;
    char separator = text.find('?') == std::string::npos ? '?' : '&';
    for (std::size_t i = 0; i < count; ++i) {
        const auto &pair = query->key_value[i];
        text += separator;
        text += encode_query_text(pair.key == nullptr ? "" : pair.key);
        text += '=';
        text += encode_query_text(pair.value == nullptr ? "" : pair.value);
        separator = '&';
    }
}

/* libcurl would also take one slash, or three, before the host. */
bool has_two_slashes(std::string_view uri)
{
    const auto colon = uri.find(':');
    return colon != std::string_view::npos && uri.substr(colon + 1, 2) == "//" &&
           uri.substr(colon + 3, 1) != "/";
}

} // namespace

std::string encode_query_text(std::string_view text)
{
    constexpr std::string_view literal = "-._~$,";
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const bool alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (alphanumeric || literal.find(c) != std::string_view::npos) {
            encoded += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded += '%';
            encoded += digits[byte >> 4];
            encoded += digits[byte & 15];
        }
    }
    return encoded;
}

problem make_uri(const char *uri, const tirval_dsi_rest_key_array_t *query, request_uri &out)
{
    out = {};
    if (uri == nullptr) {
        return problem::of(failure::bad_uri, "there is none");
    }
    out.text = uri;
    if (std::any_of(out.text.begin(), out.text.end(),
                    [](unsigned char c) { return c <= ' ' || c == 127; })) {
        return problem::of(failure::bad_uri, "a blank or control character in it");
    }
    append_query(out.text, query);
    const url_ptr url(curl_url());
    const unsigned flags = CURLU_DISALLOW_USER | CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME;
    if (url == nullptr || !has_two_slashes(out.text) ||
        curl_url_set(url.get(), CURLUPART_URL, out.text.c_str(), flags) != CURLUE_OK) {
        return problem::of(failure::bad_uri);
    }
    const auto scheme = part(url.get(), CURLUPART_SCHEME);
    const auto host = part(url.get(), CURLUPART_HOST);
    const auto port = part(url.get(), CURLUPART_PORT);
    if ((scheme != "http" && scheme != "https") || host.empty()) {
        return problem::of(failure::bad_uri, "it is neither http nor https");
    }
    out.host = scheme + "://" + host + (port.empty() ? "" : ":" + port);
    out.path = part(url.get(), CURLUPART_PATH);
    out.is_https = scheme == "https";
    return out.is_https || is_loopback(host) ? problem{} : problem::of(failure::plain_http, host);
}

} // namespace tirval::rest
