/* Addresses that are requested. */
#include "fuzz.h"

#include "response_head.h"
#include "uri.h"

#include <algorithm>

using namespace tirval::rest;

namespace {

bool is_loopback_origin(std::string_view host)
{
    return host.starts_with("http://127.") || host.starts_with("http://[::1]") ||
           same_field_name(host.substr(0, 16), "http://localhost");
}

std::string_view authority(std::string_view uri)
{
    const std::string_view rest = uri.substr(uri.find("//") + 2);
    return rest.substr(0, rest.find_first_of("/?#"));
}

void parse(std::string_view input)
{
    const std::string text = fuzz::c_text(input);
    std::string value = text;
    tirval_dsi_rest_key_value_t pair{"$se lect", value.c_str()};
    const tirval_dsi_rest_key_array_t query{1, &pair};
    const std::string encoded = encode_query_text(text);
    fuzz::require(fuzz::percent_decoded(encoded) == text, "decoding gives the value back");
    request_uri made;
    if (make_uri(text.c_str(), &query, made)) {
        return;
    }
    fuzz::require(made.text.starts_with(text), "an address is sent as it stands");
    fuzz::require(made.text.ends_with("$se%20lect=" + encoded), "the query follows, encoded");
    fuzz::require(std::ranges::none_of(
                      made.text, [](unsigned char byte) { return byte <= ' ' || byte == 0x7F; }),
                  "no blank or control byte goes into a request line");
    fuzz::require(made.host.starts_with(made.is_https ? "https://" : "http://"),
                  "only http and https are asked");
    fuzz::require(made.is_https || is_loopback_origin(made.host),
                  "plain http goes to this machine only");
    fuzz::require(authority(text).find('@') == std::string_view::npos,
                  "no address carries a user name");
    fuzz::require(made.path.starts_with('/') && made.path.find('?') == std::string::npos,
                  "the path for messages has no query");
}

} // namespace

TIRVAL_FUZZ_ENTRY(Uri,
                  (fuzz::entry{parse,
                               {"https://graph.microsoft.com/v1.0/me/drive/root/children",
                                "https://x.sharepoint.com/a?tempauth=secret&b=%20#f",
                                "http://127.0.0.1:8080/a", "http://[::1]:1/", "http://localhost",
                                "https://user:pw@host/", "http://example.org/", "https:///three",
                                "ftp://127.0.0.1/", "HTTPS://H/%zz"},
                               40000}))
