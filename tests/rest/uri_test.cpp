// Pins which addresses are requested, and how they are completed and named.
#include "uri.h"

#include <array>
#include <gtest/gtest.h>

using tirval::rest::encode_query_text;
using tirval::rest::failure;
using tirval::rest::make_uri;
using tirval::rest::request_uri;

namespace {

failure refusal(const char *uri)
{
    request_uri out;
    return make_uri(uri, nullptr, out).what;
}

std::string completed(const char *uri, const char *key, const char *value)
{
    tirval_dsi_rest_key_value_t pair = {key, value};
    const tirval_dsi_rest_key_array_t query = {1, &pair};
    request_uri out;
    EXPECT_FALSE(make_uri(uri, &query, out));
    return out.text;
}

} // namespace

TEST(RequestUri, StaysByteForByteAsItStands)
{
    for (const char *uri : {"https://host/a/../b//c/./%41%2f?q=%20x&y=/?", "https://host",
                            "https://HOST:8443/\xC3\xBC"}) {
        request_uri out;
        EXPECT_FALSE(make_uri(uri, nullptr, out));
        EXPECT_EQ(out.text, uri);
    }
}

TEST(RequestUri, IsRefusedWhenMissingOrMalformed)
{
    EXPECT_EQ(refusal(nullptr), failure::bad_uri);
    for (const char *uri :
         {"", "host/path", "//host/path", "https://", "https:///path", "https:/host/path",
          "ftp://host/a", "file:///etc/passwd", "https://ho st/", "https://host/a b",
          "https://host/a\r\nX: y", "https://host/\x7f", "https://host:99999/",
          "https://user@host/", "https://graph.microsoft.com:x@evil.example/"}) {
        EXPECT_EQ(refusal(uri), failure::bad_uri) << uri;
    }
}

TEST(RequestUri, MaySpeakPlainHttpToThisMachineOnly)
{
    for (const char *uri : {"http://127.0.0.1/", "http://127.8.9.1:80/x", "http://[::1]:8080/",
                            "http://localhost/", "HTTP://LocalHost:1/"}) {
        EXPECT_EQ(refusal(uri), failure::none) << uri;
    }
    for (const char *uri : {"http://graph.microsoft.com/", "http://127.0.0.1.example.com/",
                            "http://localhost.example/", "http://128.0.0.1/", "http://[::2]/",
                            "http://0.0.0.0/", "http://a.localhost/"}) {
        EXPECT_EQ(refusal(uri), failure::plain_http) << uri;
    }
    EXPECT_EQ(refusal("https://graph.microsoft.com/"), failure::none);
}

TEST(RequestUri, TakesQueryParametersEncoded)
{
    EXPECT_EQ(completed("https://h/p", "$top", "300"), "https://h/p?$top=300");
    EXPECT_EQ(completed("https://h/p?a=b", "$select", "id,name"),
              "https://h/p?a=b&$select=id,name");
    EXPECT_EQ(completed("https://h/p", "k&", "a b/\xC3\xBC=+"),
              "https://h/p?k%26=a%20b%2F%C3%BC%3D%2B");
    EXPECT_EQ(completed("https://h/p", "k", nullptr), "https://h/p?k=");
}

TEST(RequestUri, AppendsParametersInOrder)
{
    std::array<tirval_dsi_rest_key_value_t, 2> pairs = {{{"b", "1"}, {"a", "2"}}};
    const tirval_dsi_rest_key_array_t query = {pairs.size(), pairs.data()};
    request_uri out;
    EXPECT_FALSE(make_uri("https://h/", &query, out));
    EXPECT_EQ(out.text, "https://h/?b=1&a=2");
}

TEST(RequestUri, IsNamedWithoutItsQuery)
{
    request_uri out;
    EXPECT_FALSE(make_uri("https://host:8443/secret/path?token=x", nullptr, out));
    EXPECT_EQ(out.host, "https://host:8443");
    EXPECT_EQ(out.path, "/secret/path");
}

TEST(EncodeQueryText, KeepsUnreservedCharactersDollarAndComma)
{
    EXPECT_EQ(encode_query_text("AZaz09-._~$,"), "AZaz09-._~$,");
    EXPECT_EQ(encode_query_text("%&=+#?/\n"), "%25%26%3D%2B%23%3F%2F%0A");
}
