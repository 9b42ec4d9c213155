#include "failure.h"
#include "reply.h"

#include "tirval_gridftp_server.h"

#include <gtest/gtest.h>

#include <string>

namespace tirval::server {
namespace {

TEST(Reply, ASingleLineIsCodeBlankTextCrLf)
{
    EXPECT_EQ(single_reply(220, "Service ready."), "220 Service ready.\r\n");
    EXPECT_EQ(reply_code("220 Service ready.\r\n"), 220);
    EXPECT_EQ(reply_code(""), 0);
}

TEST(Reply, ControlBytesCannotEndALineEarly)
{
    EXPECT_EQ(single_reply(331, "Password required for a\r\n230 b\x7F\t."),
              "331 Password required for a??230 b??.\r\n");
}

TEST(Reply, AnIacByteIsDoubled)
{
    EXPECT_EQ(whole_reply(213, "\xFF"), "213 \xFF\xFF\r\n");
    EXPECT_EQ(body_reply(250, "a", {"\xFF"}, "b"), "250-a\r\n \xFF\xFF\r\n250 b\r\n");
}

TEST(Reply, TextsThatAreNoUtf8StayReadable)
{
    EXPECT_EQ(single_reply(550, "caf\xE9: \xC3\xA9\xF0\x9F\x98\x80\xFF"),
              "550 caf?: \xC3\xA9\xF0\x9F\x98\x80?\r\n");
    EXPECT_EQ(single_reply(550, "\xE2\x82"), "550 ??\r\n");
    EXPECT_EQ(single_reply(550, "\xC0\xAF\xED\xA0\x80x"), "550 ?????x\r\n");
    EXPECT_EQ(failure_reply(make_failure(550, "No such file or directory"), "/My files/\xE4\xF6"),
              "550 No such file or directory: /My files/??\r\n");
}

TEST(Reply, TextIsCutAtTheLimit)
{
    const std::string reply = single_reply(550, std::string(5000, 'a'));
    EXPECT_EQ(reply.size(), 4 + max_reply_text_bytes + 2);
}

TEST(Reply, TextIsNotCutInsideACharacter)
{
    const std::string text = std::string(max_reply_text_bytes - 1, 'a') + "\xC3\xA4";
    EXPECT_EQ(safe_text(text), std::string(max_reply_text_bytes - 1, 'a'));
    const std::string raw = std::string(max_reply_text_bytes + 8, '\x85');
    EXPECT_EQ(safe_text(raw).size(), max_reply_text_bytes);
}

TEST(Reply, EveryLineButTheLastOfSeveralHasAHyphen)
{
    EXPECT_EQ(multi_line_reply(550, {"GridFTP-Reason: X", "", "550 inner"}, "No: /a"),
              "550-GridFTP-Reason: X\r\n550-550 inner\r\n550 No: /a\r\n");
    EXPECT_EQ(multi_line_reply(550, {}, "No"), "550 No\r\n");
}

TEST(Reply, ABodyHasOneBlankBeforeEachLine)
{
    EXPECT_EQ(body_reply(211, "Extensions supported:", {"UTF8", "SIZE"}, "End"),
              "211-Extensions supported:\r\n UTF8\r\n SIZE\r\n211 End\r\n");
}

TEST(Reply, ABodyLineIsSentWholeHoweverLong)
{
    const std::string name(3000, 'n');
    EXPECT_NE(body_reply(250, "a", {name}, "End").find(" " + name + "\r\n"), std::string::npos);
}

TEST(Reply, QuotesInAPathAreDoubled)
{
    EXPECT_EQ(path_reply("/a\"b", "is it"), "257 \"/a\"\"b\" is it\r\n");
    EXPECT_NE(path_reply("/" + std::string(3000, 'n'), "x").find(std::string(3000, 'n')),
              std::string::npos);
}

/* ---- Failures ------------------------------------------------------------------------------ */

tirval_object_t *ftp_error(int code, const char *tag, const char *message,
                           tirval_object_t *cause = nullptr)
{
    return tirval_gfs_ftp_response_error_construct(nullptr, cause, code, tag, "%s", message);
}

tirval_object_t *generic_error(const char *message, tirval_object_t *cause = nullptr)
{
    return tirval_error_construct_error(nullptr, cause, TIRVAL_ERROR_TYPE_NETWORK, "file", "func",
                                        1, "%s", message);
}

std::string reply_of(tirval_object_t *error, int default_code)
{
    const tirval_result_t result = tirval_error_put(error);
    const std::string reply = failure_reply(describe_result(result, default_code), "/a");
    tirval_object_free(tirval_error_get(result));
    return reply;
}

TEST(Failure, ShowsReasonMessageAndCausesAndALastLineThatStandsAlone)
{
    EXPECT_EQ(reply_of(ftp_error(550, "PATH_NOT_FOUND", "GridFTP-Path: \"/a\"",
                                 generic_error("OneDrive-Error: \"x\"\n\nmore\n")),
                       451),
              "550-GridFTP-Reason: PATH_NOT_FOUND\r\n"
              "550-GridFTP-Path: \"/a\"\r\n"
              "550-OneDrive-Error: \"x\"\r\n"
              "550-more\r\n"
              "550 No such file or directory: /a\r\n");
}

TEST(Failure, FindsTheFtpResponseFurtherDownTheChain)
{
    EXPECT_EQ(reply_of(generic_error("outer", ftp_error(553, "QUOTA_EXCEEDED", "full")), 451),
              "553-GridFTP-Reason: QUOTA_EXCEEDED\r\n"
              "553-outer\r\n"
              "553-full\r\n"
              "553 Quota exceeded: /a\r\n");
}

TEST(Failure, AnyOtherErrorGetsTheCodeOfTheSituation)
{
    EXPECT_EQ(reply_of(generic_error("connection refused"), 451),
              "451-connection refused\r\n451 connection refused: /a\r\n");
}

TEST(Failure, ACodeThatIsNoErrorIsNotPassedOn)
{
    EXPECT_EQ(describe_result(TIRVAL_FAILURE, 550).code, 550);
    const tirval_result_t result = tirval_error_put(ftp_error(226, "ODD", "odd"));
    EXPECT_EQ(describe_result(result, 451).code, 451);
    tirval_object_free(tirval_error_get(result));
}

TEST(Failure, AResultThatNamesNoErrorIsAnUnknownOne)
{
    EXPECT_EQ(failure_reply(describe_result(TIRVAL_FAILURE, 550), "/a"),
              "550 Storage reported an unknown error: /a\r\n");
}

TEST(Failure, AddressesAreCutBehindTheHost)
{
    EXPECT_EQ(reply_of(generic_error("GET https://cdn.example.org/x/y?sig=abc failed"), 451),
              "451-GET https://cdn.example.org/... failed\r\n"
              "451 GET https://cdn.example.org/... failed: /a\r\n");
    EXPECT_EQ(reply_of(generic_error("no https://host"), 451),
              "451-no https://host\r\n451 no https://host: /a\r\n");
}

TEST(Failure, NotFoundIsTold)
{
    const tirval_result_t result = tirval_error_put(ftp_error(550, "PATH_NOT_FOUND", "x"));
    EXPECT_TRUE(describe_result(result, 451).is_not_found());
    tirval_object_free(tirval_error_get(result));
    EXPECT_FALSE(make_failure(550, "Not a plain file").is_not_found());
}

} // namespace
} // namespace tirval::server
