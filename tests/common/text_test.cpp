/* Formatted and percent-encoded texts. */
#include "support.h"

#include <gtest/gtest.h>

namespace {

TEST(CreateString, FormatsIntoANewText)
{
    EXPECT_EQ(take(tirval_common_create_string("%s/%d%%", "a", 7)), "a/7%");
    EXPECT_EQ(take(tirval_common_create_string("%s", std::string(100'000, 'x').c_str())).size(),
              100'000U);
}

TEST(CreateString, IsNullWithoutAFormat)
{
    EXPECT_EQ(tirval_common_create_string(no_text()), nullptr);
}

TEST(CreateString, PrintsANullTextAsNull)
{
    EXPECT_EQ(take(tirval_common_create_string("[%s]", no_text())), "[(null)]");
}

TEST(HexEncode, AlwaysEncodesWhatNoUrlPathMayHold)
{
    EXPECT_EQ(take(tirval_url_string_hex_encode("\"<>\\^{|}[]`%?", "")),
              "%22%3C%3E%5C%5E%7B%7C%7D%5B%5D%60%25%3F");
    EXPECT_EQ(take(tirval_url_string_hex_encode("\x01\n\x1f\x7f", "")), "%01%0A%1F%7F");
    EXPECT_EQ(take(tirval_url_string_hex_encode("é\x80\xff", "")), "%C3%A9%80%FF");
}

TEST(HexEncode, EncodesTheGivenSetToo)
{
    EXPECT_EQ(take(tirval_url_string_hex_encode("a b#c", " #")), "a%20b%23c");
    EXPECT_EQ(take(tirval_url_string_hex_encode("a/b", "/")), "a%2Fb");
}

TEST(HexEncode, KeepsEverythingElse)
{
    const char *kept = "/AZaz09-._~!$&'()*+,;=:@ #";
    EXPECT_EQ(take(tirval_url_string_hex_encode(kept, "")), kept);
    EXPECT_EQ(take(tirval_url_string_hex_encode(kept, nullptr)), kept);
    EXPECT_EQ(take(tirval_url_string_hex_encode("", " ")), "");
}

TEST(HexEncode, EncodesAPercentSignSoThatANameAddressesItself)
{
    EXPECT_EQ(take(tirval_url_string_hex_encode("100%25.txt", " #")), "100%2525.txt");
}

TEST(HexEncode, OfNullIsNull)
{
    EXPECT_EQ(tirval_url_string_hex_encode(nullptr, " "), nullptr);
}

} // namespace
