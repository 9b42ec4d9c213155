// A small file goes up with one request; then its time is set, and the client's data must end.
#include "store_fixture.h"

#include <climits>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class RecvSimple : public StoreFixture {
  protected:
    static http_peer_answer patched()
    {
        return http_peer_answer::json(
            200, R"({"name":"a.bin","id":"id-stored","size":4,"file":{},)"
                 R"("fileSystemInfo":{"lastModifiedDateTime":"2001-02-03T04:05:06Z"}})");
    }
};

/* ---- The request ---- */

class RecvSimpleSize : public RecvSimple, public testing::WithParamInterface<std::size_t> {};

TEST_P(RecvSimpleSize, AFileGoesUpByteForByteWithOneRequest)
{
    const std::string content = content_of(GetParam());
    service.answer(stored());
    host.upload_chunk = 100003;
    EXPECT_TRUE(store(content)) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(host.begins, 1);
    ASSERT_EQ(service.requests().size(), 1U);
    const auto request = service.requests().at(0);
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/a.bin:/content");
    EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(content.size()));
    for (const char *name : {"Transfer-Encoding", "Content-Type", "Content-Range", "Expect"}) {
        EXPECT_EQ(request.header_count(name), 0U) << name;
    }
    EXPECT_TRUE(request.body_complete);
    EXPECT_TRUE(request.body == content);
    EXPECT_THAT(parts.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, RecvSimpleSize, testing::Values(0, 1, 4194303, 4194304));

TEST_F(RecvSimple, TheStoredItemEntersTheCacheAsTheServiceDescribesIt)
{
    service.answer(http_peer_answer::json(
        201, R"({"name":"A.bin","id":"id-7","size":4,"file":{"hashes":{"sha1Hash":"AB"}},)"
             R"("lastModifiedDateTime":"1970-01-01T00:01:00Z"})"));
    ASSERT_TRUE(store("data")) << host.answer.text;
    EXPECT_EQ(session.cached(path), nullptr);
    const auto *entry = session.cached("/My files/A.bin");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->id, "id-7");
    EXPECT_STREQ(entry->sha1, "ab");
    EXPECT_EQ(entry->size, 4U);
    EXPECT_EQ(entry->modtime, 60);
    EXPECT_EQ(entry->type, TIRVAL_ONEDRIVE_FILE);
}

TEST_F(RecvSimple, AnAwkwardNameIsEncodedInTheAddress)
{
    service.answer(stored());
    host.upload = "data";
    EXPECT_TRUE(host.recv("/My files/50% #1?.bin")) << host.answer.text;
    EXPECT_EQ(service.requests().at(0).target, "/v1.0/me/drive/root:/50%25%20%231%3F.bin:/content");
}

TEST_F(RecvSimple, TheAttemptsAreNotMetered)
{
    service.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    service.answer(stored());
    debug_trace trace;
    EXPECT_TRUE(store("data")) << host.answer.text;
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_EQ(trace.count("retry_delay"), 0U);
    EXPECT_THAT(slept, IsEmpty());
    EXPECT_EQ(session.handle()->retry_state.shared->last.tv_sec, 0);
}

TEST_F(RecvSimple, AServiceThatDoesNotMoveIsGivenTwiceTheIdleTime)
{
    tirval_i_onedrive_progress_timeout_ms = 60;
    service.on_request([](const auto &) { return http_peer_answer(); });
    EXPECT_FALSE(store("data"));
    EXPECT_THAT(host.answer.text, HasSubstr("120 ms"));
    EXPECT_EQ(service.requests().size(), 3U);
}

TEST_F(RecvSimple, AThirdAttemptMaySucceedAndThereIsNoFourth)
{
    service.answer(http_peer_answer::complete(429));
    service.answer(http_peer_answer().reset());
    service.answer(stored());
    EXPECT_TRUE(store("data")) << host.answer.text;
    service.on_request([](const auto &) { return http_peer_answer::complete(429); });
    EXPECT_FALSE(store("data"));
    EXPECT_EQ(host.answer.tag, "TOO_BUSY");
    EXPECT_EQ(service.requests().size(), 6U);
}

TEST_F(RecvSimple, EveryAttemptSendsTheContentFromItsFirstByte)
{
    const std::string content = content_of(300000);
    service.answer(http_peer_answer::complete(429));
    service.answer(http_peer_answer::complete(503, "", {{"Retry-After", "0"}}));
    service.answer(stored());
    EXPECT_TRUE(store(content)) << host.answer.text;
    ASSERT_EQ(service.requests().size(), 3U);
    for (const auto &request : service.requests()) {
        EXPECT_TRUE(request.body == content);
    }
    EXPECT_EQ(host.received, content.size());
}

/* ---- Before the transfer begins ---- */

TEST_F(RecvSimple, AWriteRangeOfTheAnnouncedLengthIsAccepted)
{
    host.write_range = {0, 4};
    service.answer(stored());
    EXPECT_TRUE(store("data")) << host.answer.text;
}

TEST_F(RecvSimple, AnyOtherLengthOfTheWriteRangeIsRefused)
{
    for (const tirval_off_t length : {0, 3, 5, -2}) {
        host.write_range = {0, length};
        EXPECT_FALSE(store("data"));
        expect_refused_before_the_begin(553, "APPEND_NOT_SUPPORTED");
        EXPECT_EQ(host.answer.message, "");
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvSimple, ARestartMarkerIsRefused)
{
    for (const tirval_off_t offset : {1, 100, -1}) {
        host.write_range = {offset, -1};
        EXPECT_FALSE(store("data"));
        expect_refused_before_the_begin(553, "APPEND_NOT_SUPPORTED");
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvSimple, TheLengthIsLookedAtFirstThenTheFolderThenThePlaceThenTheOffset)
{
    session.enter("/My files", "f", "id-f", TIRVAL_ONEDRIVE_FILE, "drive-1", true);
    host.upload = "data";
    host.write_range = {100, 5};
    EXPECT_FALSE(host.recv("/My files/f/a"));
    EXPECT_EQ(host.answer.tag, "APPEND_NOT_SUPPORTED");
    host.write_range = {100, -1};
    EXPECT_FALSE(host.recv("/My files/f/a"));
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
    EXPECT_FALSE(host.recv("/a"));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
}

TEST_F(RecvSimple, TextsThatCannotBeFormedAreSystemErrorsWithoutARequest)
{
    session.enter("/My files", "a.bin", "id-old", TIRVAL_ONEDRIVE_FILE);
    for (const int call : {1, 2}) { // the address, the token's header
        failing_text = call;
        EXPECT_FALSE(store("data"));
        EXPECT_EQ(failing_text, 0);
        expect_malloc_error();
        EXPECT_EQ(host.begins, 0);
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvSimple, ATransferThatCannotBeginSendsNothing)
{
    host.begin_fails = true;
    EXPECT_FALSE(store("data"));
    EXPECT_EQ(host.answer.code, 425);
    EXPECT_EQ(host.answers, 1);
    EXPECT_THAT(service.requests(), IsEmpty());
}

/* ---- The answer ---- */

TEST_F(RecvSimple, SuccessWithoutAnItemIsASystemErrorAndIsNotRepeated)
{
    for (const auto &answer :
         {http_peer_answer::complete(201), http_peer_answer::complete(200, "<html>"),
          http_peer_answer::json(200, "{\"name\":"), http_peer_answer::complete(302)}) {
        service.answer(answer);
        EXPECT_FALSE(store("data"));
        expect_malloc_error();
    }
    EXPECT_EQ(service.requests().size(), 4U);
    EXPECT_EQ(session.cached(path), nullptr);
}

TEST_F(RecvSimple, AStatusThatIsTakenAsDoneHasNoItemEither)
{
    for (const int status : {412, 423, 416}) {
        service.answer(http_peer_answer::complete(status));
        EXPECT_FALSE(store("data"));
        expect_malloc_error();
    }
    EXPECT_EQ(service.requests().size(), 3U);
}

TEST_F(RecvSimple, AnItemThatCannotBeReadIsAnError)
{
    service.answer(http_peer_answer::json(
        201, R"({"name":"a.bin","id":"1","lastModifiedDateTime":"yesterday"})"));
    EXPECT_FALSE(store("data"));
    expect_generic_error("Failed info_parse!");
    EXPECT_EQ(session.cached(path), nullptr);
}

TEST_F(RecvSimple, AnItemWithoutANameCannotBeCached)
{
    service.answer(http_peer_answer::json(201, R"({"id":"1","file":{}})"));
    EXPECT_FALSE(store("data"));
    expect_generic_error("Failed cache update!");
}

TEST_F(RecvSimple, ACacheThatTakesNoEntryIsAnError)
{
    service.answer(stored());
    table_insert_fails = true;
    EXPECT_FALSE(store("data"));
    expect_generic_error("Failed cache update!");
    EXPECT_EQ(session.cached(path), nullptr);
}

/* ---- The modification time ---- */

struct time_case {
    time_t time;
    const char *text;
};

class RecvSimpleTime : public RecvSimple, public testing::WithParamInterface<time_case> {};

TEST_P(RecvSimpleTime, IsSetInUtcByASecondRequest)
{
    host.modification_time = GetParam().time;
    service.answer(stored());
    service.answer(patched());
    EXPECT_TRUE(store("data")) << host.answer.text;
    ASSERT_EQ(service.requests().size(), 2U);
    const auto request = service.requests().at(1);
    EXPECT_EQ(request.method, "PATCH");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/a.bin");
    EXPECT_EQ(request.body, std::string(R"({"fileSystemInfo": {"lastModifiedDateTime": ")") +
                                GetParam().text + "\"}}");
    EXPECT_EQ(session.cached(path)->modtime, 981173106) << "as the second answer has it";
}

INSTANTIATE_TEST_SUITE_P(Times, RecvSimpleTime,
                         testing::Values(time_case{0, "1970-01-01T00:00:00Z"},
                                         time_case{-2, "1969-12-31T23:59:58Z"},
                                         time_case{951782400, "2000-02-29T00:00:00Z"},
                                         time_case{1614834367, "2021-03-04T05:06:07Z"},
                                         time_case{253402300799, "9999-12-31T23:59:59Z"},
                                         time_case{253402300800, "10000-01-01T00:00:00Z"}));

TEST_F(RecvSimple, WithoutATimeThereIsNoSecondRequest)
{
    service.answer(stored());
    EXPECT_TRUE(store("data")) << host.answer.text;
    EXPECT_EQ(service.requests().size(), 1U);
    EXPECT_EQ(session.cached(path)->modtime, 1614834367);
}

TEST_F(RecvSimple, ATimeThatNoCalendarHasIsAnErrorAfterTheContent)
{
    host.modification_time = LONG_MAX;
    service.answer(stored());
    EXPECT_FALSE(store("data"));
    EXPECT_THAT(host.answer.text, StartsWith("System error in gmtime_r"));
    EXPECT_EQ(service.requests().size(), 1U);
    EXPECT_NE(session.cached(path), nullptr);
}

TEST_F(RecvSimple, ATimeThatCannotBeSetLeavesTheContentStored)
{
    host.modification_time = 0;
    hold_the_end_back(4);
    service.answer(stored());
    service.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(store("data"));
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(session.cached(path)->modtime, 1614834367) << "nothing is rolled back";
    EXPECT_EQ(host.reads_registered, 0) << "the client's data does not matter any more";
}

TEST_F(RecvSimple, AnItemWithoutANameCannotReplaceTheCachedOne)
{
    host.modification_time = 0;
    service.answer(stored());
    service.answer(http_peer_answer::json(200, R"({"id":"1","file":{}})"));
    EXPECT_FALSE(store("data"));
    expect_generic_error("Failed cache update!");
    EXPECT_STREQ(session.cached(path)->id, "id-stored");
}

TEST_F(RecvSimple, ASecondAnswerThatCannotBeReadIsAnError)
{
    host.modification_time = 0;
    service.answer(stored());
    service.answer(http_peer_answer::json(
        200, R"({"name":"a.bin","id":"1","lastModifiedDateTime":"yesterday"})"));
    EXPECT_FALSE(store("data"));
    EXPECT_THAT(host.answer.text, HasSubstr("Failed info_parse!"));
}

} // namespace
