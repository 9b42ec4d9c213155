// Pins which answers are the content that was asked for.
#include "content_range.h"

#include <gtest/gtest.h>

using tirval::rest::byte_range;
using tirval::rest::content_plan;
using tirval::rest::failure;
using tirval::rest::parse_range;
using tirval::rest::plan_content;
using tirval::rest::response_head;

namespace {

struct planned {
    failure what;
    std::int64_t expected;
    bool marks_complete;
};

planned plan(byte_range wanted, int status, const std::vector<std::string> &fields,
             bool strict = true, bool self_framed = false)
{
    response_head head;
    EXPECT_FALSE(head.add("HTTP/1.1 " + std::to_string(status) + " x\r\n"));
    for (const auto &field : fields) {
        EXPECT_FALSE(head.add(field + "\r\n"));
    }
    EXPECT_FALSE(head.add("\r\n"));
    content_plan out;
    const auto what = plan_content(head, wanted, strict, self_framed, out).what;
    return {what, out.expected, out.marks_complete};
}

} // namespace

TEST(Range, IsReadInItsTwoForms)
{
    const auto open = parse_range("bytes=100-");
    ASSERT_TRUE(open);
    EXPECT_EQ(open->offset, 100);
    EXPECT_EQ(open->length, -1);
    const auto closed = parse_range("bytes=100-149");
    ASSERT_TRUE(closed);
    EXPECT_EQ(closed->offset, 100);
    EXPECT_EQ(closed->length, 50);
}

TEST(Range, IsRefusedInAnyOtherForm)
{
    for (const auto *value : {"", "bytes=", "bytes=-5", "bytes=9-3", "bytes=0-1,5-6", "items=0-1",
                              "bytes=a-b", "bytes=0-9223372036854775807"}) {
        EXPECT_FALSE(parse_range(value)) << value;
    }
}

TEST(ContentPlan, AWholeFileIsAWholeAnswer)
{
    const auto counted = plan({0, -1}, 200, {"Content-Length: 7"});
    EXPECT_EQ(counted.what, failure::none);
    EXPECT_EQ(counted.expected, 7);
    EXPECT_TRUE(counted.marks_complete);
    const auto chunked = plan({0, -1}, 200, {"Transfer-Encoding: chunked"});
    EXPECT_EQ(chunked.what, failure::none);
    EXPECT_EQ(chunked.expected, -1);
    EXPECT_EQ(plan({0, -1}, 206, {"Content-Range: bytes 0-6/7"}).expected, 7);
}

TEST(ContentPlan, AWholeFileIsNotAPart)
{
    EXPECT_EQ(plan({0, -1}, 206, {"Content-Range: bytes 0-5/7"}).what, failure::wrong_range);
    EXPECT_EQ(plan({0, -1}, 206, {"Content-Range: bytes 1-6/7"}).what, failure::wrong_range);
    EXPECT_EQ(plan({0, -1}, 206, {"Content-Range: bytes 0-6/*"}).what, failure::wrong_range);
}

TEST(ContentPlan, AnEndThatIsNotAnnouncedCannotBeTrusted)
{
    EXPECT_EQ(plan({0, -1}, 200, {}).what, failure::unannounced_end);
    EXPECT_EQ(plan({0, -1}, 200, {}, true, true).what, failure::none);
}

TEST(ContentPlan, ARangeMustBeAnsweredWithItself)
{
    EXPECT_EQ(plan({100, 50}, 206, {"Content-Range: bytes 100-149/1000"}).expected, 50);
    EXPECT_EQ(plan({100, 50}, 206, {"Content-Range: bytes 100-149/*"}).expected, 50);
    EXPECT_EQ(plan({100, 50}, 206, {"content-range: Bytes 100-149/150"}).expected, 50);
    EXPECT_EQ(plan({100, -1}, 206, {"Content-Range: bytes 100-999/1000"}).expected, 900);
}

TEST(ContentPlan, ARangeMayEndEarlyOnlyWhereTheFileDoes)
{
    EXPECT_EQ(plan({100, 50}, 206, {"Content-Range: bytes 100-119/120"}).expected, 20);
    EXPECT_EQ(plan({100, 50}, 206, {"Content-Range: bytes 100-119/1000"}).what,
              failure::wrong_range);
    EXPECT_EQ(plan({100, 50}, 206, {"Content-Range: bytes 100-119/*"}).what, failure::wrong_range);
}

TEST(ContentPlan, AnyOtherRangeFails)
{
    for (const auto *field :
         {"Content-Range: bytes 0-49/1000", "Content-Range: bytes 100-150/1000",
          "Content-Range: bytes */1000", "Content-Range: bytes 149-100/1000",
          "Content-Range: bytes 100-149/149", "Content-Range: 100-149/1000", "X: y",
          "Content-Range: bytes 100-149", "Content-Range: bytes -100-149/1000"}) {
        EXPECT_EQ(plan({100, 50}, 206, {field}).what, failure::wrong_range) << field;
    }
    EXPECT_EQ(plan({100, 50}, 200, {"Content-Length: 1000"}).what, failure::wrong_range);
    EXPECT_EQ(
        plan({100, 50}, 206, {"Content-Range: bytes 100-149/1000", "Content-Length: 49"}).what,
        failure::wrong_range);
}

TEST(ContentPlan, AStatusWithoutContentDeliversAtMostAnEmptyFile)
{
    const auto announced = plan({0, -1}, 204, {"Content-Length: 0"});
    EXPECT_EQ(announced.what, failure::none);
    EXPECT_EQ(announced.expected, 0);
    EXPECT_TRUE(announced.marks_complete);
    EXPECT_FALSE(plan({0, -1}, 204, {}).marks_complete);
    EXPECT_FALSE(plan({100, 50}, 204, {"Content-Length: 0"}).marks_complete);
    EXPECT_EQ(plan({0, -1}, 202, {"Content-Length: 9"}).expected, 0);
}

TEST(ContentPlan, WithoutARangeEachSuccessMayCarryContent)
{
    EXPECT_EQ(plan({0, -1}, 201, {"Content-Length: 9"}, false).expected, 9);
    EXPECT_EQ(plan({0, -1}, 204, {}, false).expected, 0);
}
