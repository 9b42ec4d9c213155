// Encodings and the comparison of names.
#include "text.h"
#include "times.h"

#include <gtest/gtest.h>

namespace graph_sim {

TEST(PercentDecoding, HappensExactlyOnce)
{
    EXPECT_EQ(percent_decode("a%2546%20b"), "a%46 b");
}

TEST(PercentDecoding, RefusesMalformedEscapes)
{
    for (const char *text : {"%", "a%2", "%G1", "%1G", "100%"}) {
        EXPECT_FALSE(percent_decode(text)) << text;
    }
}

TEST(PercentDecoding, LeavesPlusAlone)
{
    EXPECT_EQ(percent_decode("a+b"), "a+b");
}

TEST(PercentEncoding, KeepsUnreservedCharactersOnly)
{
    EXPECT_EQ(percent_encode("aZ9-._~ #%/ä"), "aZ9-._~%20%23%25%2F%C3%A4");
    EXPECT_EQ(percent_encode("/a b/c", true), "/a%20b/c");
}

TEST(Query, DecodesNamesAndValuesAndBlanks)
{
    const auto pairs = parse_query("%24top=2&a=b+c%2Bd&&empty=&alone");
    ASSERT_EQ(pairs.size(), 4U);
    EXPECT_EQ(pairs[0], (std::pair<std::string, std::string>("$top", "2")));
    EXPECT_EQ(pairs[1].second, "b c+d");
    EXPECT_EQ(pairs[2].second, "");
    EXPECT_EQ(pairs[3], (std::pair<std::string, std::string>("alone", "")));
}

TEST(Utf8, RefusesOverlongFormsSurrogatesAndCutSequences)
{
    EXPECT_TRUE(is_utf8("aä報😀"));
    for (const char *text : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC3",
                             "\x80", "\xF5\x80\x80\x80"}) {
        EXPECT_FALSE(is_utf8(text));
    }
    EXPECT_FALSE(is_utf8(std::string_view("a\0b", 3)));
}

TEST(CaseFolding, TreatsLettersOfSeveralScriptsAsEqual)
{
    EXPECT_EQ(fold_case("HELLO.TXT"), "hello.txt");
    EXPECT_EQ(fold_case("ÄÖÜ ÉŠŸŽ"), fold_case("äöü éšÿž"));
    EXPECT_EQ(fold_case("ΣΊΣΥΦΟΣ"), fold_case("σίσυφος"));
    EXPECT_EQ(fold_case("ОТЧЁТ"), fold_case("отчёт"));
    EXPECT_EQ(fold_case("Ａ"), fold_case("ａ"));
}

TEST(CaseFolding, LeavesOtherCharactersAlone)
{
    for (const char *text : {"×÷", "ß", "ıĸ", "報告", "1.2-3_", "\xFF\xFE"}) {
        EXPECT_EQ(fold_case(text), text);
    }
}

TEST(Base64, AgreesWithTheVectorsOfRfc4648)
{
    EXPECT_EQ(base64(bytes_of("")), "");
    EXPECT_EQ(base64(bytes_of("f")), "Zg==");
    EXPECT_EQ(base64(bytes_of("fo")), "Zm8=");
    EXPECT_EQ(base64(bytes_of("foobar")), "Zm9vYmFy");
    EXPECT_EQ(base64_decode("Zm8="), "fo");
    EXPECT_EQ(base64url(bytes_of("\xFB\xEF")), "--8");
    EXPECT_EQ(base32(bytes_of("fooba")), "MZXW6YTB");
}

TEST(Base64, RefusesWhatIsNotBase64)
{
    for (const char *text : {"Zg", "Z===", "Zm8!", "Zh=="}) {
        EXPECT_FALSE(base64_decode(text)) << text;
    }
}

TEST(IsoTime, ReadsAndWritesTheSameInstant)
{
    const auto time = parse_iso_time("2021-03-04T05:06:07.123Z");
    ASSERT_TRUE(time);
    EXPECT_EQ(time->time_since_epoch().count(), 1614834367123);
    EXPECT_EQ(iso_time(*time), "2021-03-04T05:06:07Z");
    EXPECT_EQ(iso_time(*time, true), "2021-03-04T05:06:07.123Z");
    EXPECT_EQ(iso_time(*parse_iso_time("2021-03-04T05:06:07.75Z"), true),
              "2021-03-04T05:06:07.75Z");
    EXPECT_EQ(http_date(*time), "Thu, 04 Mar 2021 05:06:07 GMT");
}

TEST(IsoTime, RefusesWhatIsNoTime)
{
    for (const char *text : {"", "2021-03-04", "2021-13-04T05:06:07Z", "2021-02-30T05:06:07Z",
                             "2021-03-04T24:06:07Z", "2021-03-04T05:06:07", "2021-03-04T05:06:07.Z",
                             "2021-03-04T05:06:07+01:00", "-021-03-04T05:06:07Z"}) {
        EXPECT_FALSE(parse_iso_time(text)) << text;
    }
}

} // namespace graph_sim
