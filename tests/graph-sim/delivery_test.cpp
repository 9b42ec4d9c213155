// How answers are cut into bytes.
#include "delivery.h"

#include "content.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace graph_sim {

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

struct sent_bytes {
    std::string text;
    bool whole = false;
    std::uint64_t body = 0;
    std::size_t writes = 0;
};

sent_bytes send_all(const answer &told, std::size_t most = std::size_t{1} << 20)
{
    answer_bytes bytes(told);
    sent_bytes sent;
    for (std::string_view piece = bytes.next(most); !piece.empty(); piece = bytes.next(most)) {
        sent.text += piece;
        ++sent.writes;
    }
    sent.whole = bytes.whole();
    sent.body = bytes.body_given();
    return sent;
}

answer with_body(std::string body, bool chunked = false)
{
    answer told;
    told.reply.body = std::move(body);
    told.reply.chunked = chunked;
    return told;
}

answer with_content(std::uint64_t size)
{
    answer told;
    told.reply.data = pattern_content(size, "cycle");
    told.reply.length = size;
    return told;
}

} // namespace

TEST(Delivery, ASmallAnswerLeavesInOneWrite)
{
    const sent_bytes sent = send_all(with_body("hello"));
    EXPECT_EQ(sent.writes, 1U);
    EXPECT_TRUE(sent.whole);
    EXPECT_EQ(sent.body, 5U);
    EXPECT_THAT(sent.text, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(sent.text, HasSubstr("Content-Length: 5\r\n"));
    EXPECT_THAT(sent.text, EndsWith("\r\n\r\nhello"));
}

TEST(Delivery, ChunkedBodiesHaveSizesAndAnEnd)
{
    EXPECT_THAT(send_all(with_body("hello", true)).text,
                EndsWith("\r\n\r\n5\r\nhello\r\n0\r\n\r\n"));
    const sent_bytes empty = send_all(with_body("", true));
    EXPECT_THAT(empty.text,
                EndsWith("Transfer-Encoding: chunked\r\nDate: " +
                         empty.text.substr(empty.text.size() - 38, 29) + "\r\n\r\n0\r\n\r\n"));
    const std::string large(200'000, 'x');
    const sent_bytes sent = send_all(with_body(large, true), 65536);
    EXPECT_GT(sent.writes, 1U);
    EXPECT_TRUE(sent.whole);
    EXPECT_THAT(sent.text, EndsWith("\r\n0\r\n\r\n"));
    EXPECT_EQ(sent.body, large.size());
}

TEST(Delivery, AnswersWithoutABodyAnnounceNone)
{
    answer told;
    told.reply.status = 304;
    const sent_bytes sent = send_all(told);
    EXPECT_TRUE(sent.whole);
    EXPECT_THAT(sent.text, testing::Not(HasSubstr("Content-Length")));
}

TEST(Delivery, ContentGoesOutInBlocks)
{
    const sent_bytes sent = send_all(with_content(3'000'000));
    EXPECT_TRUE(sent.whole);
    EXPECT_EQ(sent.body, 3'000'000U);
    const std::string body = sent.text.substr(sent.text.find("\r\n\r\n") + 4);
    ASSERT_EQ(body.size(), 3'000'000U);
    for (size_t i = 0; i < body.size(); i += 977) {
        ASSERT_EQ(static_cast<unsigned char>(body[i]), i % 251) << i;
    }
}

TEST(Delivery, ACutAnswerAnnouncesMoreThanItGives)
{
    for (const std::uint64_t limit : {0U, 1U, 4U, 70'000U, 2'999'999U, 3'000'000U}) {
        answer told = with_content(3'000'000);
        told.how.close_after = limit;
        const sent_bytes sent = send_all(told);
        EXPECT_FALSE(sent.whole) << limit;
        EXPECT_EQ(sent.body, limit);
        EXPECT_THAT(sent.text, HasSubstr("Content-Length: 3000000\r\n"));
        EXPECT_EQ(sent.text.size() - sent.text.find("\r\n\r\n") - 4, limit);
    }
}

TEST(Delivery, ACutBehindTheEndChangesNothing)
{
    answer told = with_body("hello");
    told.how.reset_after = 6;
    EXPECT_TRUE(send_all(told).whole);
}

TEST(Delivery, ACutChunkedAnswerHasNoLastChunk)
{
    answer told = with_body("hello", true);
    told.how.close_after = 3;
    const sent_bytes sent = send_all(told);
    EXPECT_FALSE(sent.whole);
    EXPECT_THAT(sent.text, EndsWith("3\r\nhel\r\n"));
}

TEST(Delivery, AFileThatShrankEndsEarly)
{
    answer told;
    told.reply.data = disk_content(100, "/no/such/file");
    told.reply.length = 100;
    const sent_bytes sent = send_all(told);
    EXPECT_FALSE(sent.whole);
    EXPECT_THAT(sent.text, EndsWith("\r\n\r\n"));
}

TEST(Garbage, IsWhatItsNameSays)
{
    const response reply;
    EXPECT_THAT(garbage_for(damage::status_line, reply).start, testing::Not(StartsWith("HTTP/")));
    EXPECT_THAT(garbage_for(damage::chunk_size, reply).start, HasSubstr("\r\n\r\nzz\r\n"));
    EXPECT_THAT(garbage_for(damage::endless_headers, reply).repeat, EndsWith("\r\n"));
    EXPECT_THAT(garbage_for(damage::endless_header_line, reply).repeat,
                testing::Not(HasSubstr("\n")));
    EXPECT_THAT(garbage_for(damage::endless_body, reply).start,
                HasSubstr("Transfer-Encoding: chunked\r\n"));
}

} // namespace graph_sim
