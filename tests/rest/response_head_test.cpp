// Pins how an answer's head is read.
#include "response_head.h"

#include <gtest/gtest.h>

using tirval::rest::body_framing;
using tirval::rest::failure;
using tirval::rest::parse_decimal;
using tirval::rest::response_head;

namespace {

/* Feeds lines until one is refused; that refusal. */
failure feed(response_head &head, const std::vector<std::string> &lines)
{
    for (const auto &line : lines) {
        if (const auto trouble = head.add(line + "\r\n")) {
            return trouble.what;
        }
    }
    return failure::none;
}

failure framing_of(const std::vector<std::string> &fields, body_framing &out)
{
    response_head head;
    std::vector<std::string> lines = {"HTTP/1.1 200 OK"};
    lines.insert(lines.end(), fields.begin(), fields.end());
    lines.emplace_back("");
    EXPECT_EQ(feed(head, lines), failure::none);
    return head.framing(out).what;
}

} // namespace

TEST(ResponseHead, KeepsStatusReasonAndTrimmedFields)
{
    response_head head;
    EXPECT_EQ(feed(head, {"HTTP/1.1 404 Not Found", "Retry-After:  7 \t", "X-Empty:"}),
              failure::none);
    EXPECT_FALSE(head.complete());
    EXPECT_EQ(feed(head, {""}), failure::none);
    EXPECT_TRUE(head.complete());
    EXPECT_EQ(head.status(), 404);
    EXPECT_EQ(head.reason(), "Not Found");
    ASSERT_NE(head.find("retry-AFTER"), nullptr);
    EXPECT_EQ(*head.find("retry-AFTER"), "7");
    EXPECT_EQ(*head.find("X-Empty"), "");
    EXPECT_EQ(head.find("Absent"), nullptr);
}

TEST(ResponseHead, PassesInterimAnswersOver)
{
    response_head head;
    EXPECT_EQ(feed(head, {"HTTP/1.1 103 Early Hints", "Retry-After: 9", "", "HTTP/1.1 200 OK", ""}),
              failure::none);
    EXPECT_TRUE(head.complete());
    EXPECT_EQ(head.status(), 200);
    EXPECT_EQ(head.find("Retry-After"), nullptr);
}

TEST(ResponseHead, ReadsStatusLinesWithoutReason)
{
    for (const auto *line : {"HTTP/2 204", "HTTP/1.1 204", "HTTP/1.1 204 "}) {
        response_head head;
        EXPECT_EQ(feed(head, {line, ""}), failure::none) << line;
        EXPECT_EQ(head.status(), 204);
        EXPECT_EQ(head.reason(), "");
    }
}

TEST(ResponseHead, RefusesStatusLinesThatAreNone)
{
    for (const auto *line : {"", "HTTP/1.1", "HTTP/1.1 abc", "HTTP/1.1 20", "HTTP/1.1 2000",
                             "ICY 200 OK", "HTTP/1.1 099 x", "HTTP/1.1 -20"}) {
        response_head head;
        EXPECT_EQ(feed(head, {line}), failure::malformed_answer) << line;
    }
}

TEST(ResponseHead, DropsTrailers)
{
    response_head head;
    EXPECT_EQ(feed(head, {"HTTP/1.1 200 OK", "", "Retry-After: 5"}), failure::none);
    EXPECT_EQ(head.find("Retry-After"), nullptr);
}

TEST(ResponseHead, JoinsFoldedLines)
{
    response_head head;
    EXPECT_EQ(feed(head, {"HTTP/1.1 200 OK", "Location: https://a", "\t/b", ""}), failure::none);
    EXPECT_EQ(*head.find("Location"), "https://a /b");
}

TEST(ResponseHead, TakesAHundredLinesAndNoMore)
{
    response_head head;
    std::vector<std::string> lines = {"HTTP/1.1 200 OK"};
    lines.resize(response_head::max_lines, "A: b");
    EXPECT_EQ(feed(head, lines), failure::none);
    EXPECT_EQ(feed(head, {"A: b"}), failure::headers_too_large);
}

TEST(ResponseHead, CountsInterimAnswersAndTrailersToo)
{
    response_head head;
    failure met = failure::none;
    for (int i = 0; i < 60 && met == failure::none; ++i) {
        met = feed(head, {"HTTP/1.1 100 Continue", ""});
    }
    EXPECT_EQ(met, failure::headers_too_large);
    EXPECT_TRUE(head.fields().empty());

    response_head other;
    EXPECT_EQ(feed(other, {"HTTP/1.1 200 OK", ""}), failure::none);
    EXPECT_EQ(feed(other, std::vector<std::string>(200, "T: r")), failure::headers_too_large);
}

TEST(ResponseHead, Takes64KibAndNoMore)
{
    response_head head;
    const std::string start = "HTTP/1.1 200 OK\r\n";
    EXPECT_FALSE(head.add(start));
    const std::string exact =
        "A: " + std::string(response_head::max_bytes - start.size() - 5, 'x') + "\r\n";
    EXPECT_FALSE(head.add(exact));
    EXPECT_EQ(head.add("\r\n").what, failure::headers_too_large);
}

TEST(ResponseHead, RefusesANullByte)
{
    response_head head;
    EXPECT_FALSE(head.add("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(head.add(std::string_view("A: b\0c\r\n", 8)).what, failure::malformed_answer);
}

TEST(ResponseHead, TellsHowTheBodyIsFramed)
{
    body_framing framing;
    EXPECT_EQ(framing_of({"Content-Length: 12"}, framing), failure::none);
    EXPECT_EQ(framing.length, 12);
    EXPECT_TRUE(framing.announced());
    EXPECT_EQ(framing_of({"Transfer-Encoding: Chunked", "Content-Length: 12"}, framing),
              failure::none);
    EXPECT_TRUE(framing.chunked);
    EXPECT_FALSE(framing.length);
    EXPECT_EQ(framing_of({}, framing), failure::none);
    EXPECT_FALSE(framing.announced());
    EXPECT_EQ(framing_of({"Content-Length: 5", "Content-Length: 5"}, framing), failure::none);
}

TEST(ResponseHead, RefusesContradictingLengths)
{
    body_framing framing;
    EXPECT_EQ(framing_of({"Content-Length: 5", "Content-Length: 6"}, framing),
              failure::malformed_answer);
    EXPECT_EQ(framing_of({"Content-Length: -5"}, framing), failure::malformed_answer);
    EXPECT_EQ(framing_of({"Content-Length: 5x"}, framing), failure::malformed_answer);
}

TEST(ParseDecimal, TakesPlainNumbersOnly)
{
    EXPECT_EQ(parse_decimal("0"), 0);
    EXPECT_EQ(parse_decimal("9223372036854775807"), INT64_MAX);
    for (const auto *text : {"", "-1", "+1", " 1", "1 ", "0x1", "9223372036854775808", "*"}) {
        EXPECT_FALSE(parse_decimal(text)) << text;
    }
}
