// Upload sessions: the request that opens one, and the record that is kept of it.
#include "store_fixture.h"

#include <climits>

/* Whether any path has an address. */
static bool any_path = false;

extern "C" TIRVAL_API tirval_result_t tirval_onedrive_path_to_uri(tirval_onedrive_handle_t *handle,
                                                                  const char *path, const char *sub,
                                                                  char **uri_out, bool is_write)
{
    if (any_path) {
        *uri_out = strdup("http://127.0.0.1:1/");
        return TIRVAL_SUCCESS;
    }
    return next_definition<decltype(tirval_onedrive_path_to_uri)>("tirval_onedrive_path_to_uri")(
        handle, path, sub, uri_out, is_write);
}

/* Whether the parsing of a session's description fails, which it never does by itself. */
static bool parse_fails = false;

extern "C" TIRVAL_API tirval_result_t
tirval_onedrive_upload_session_parse(json_t *json, tirval_onedrive_upload_session_t *info)
{
    return parse_fails ? TIRVAL_FAILURE
                       : next_definition<decltype(tirval_onedrive_upload_session_parse)>(
                             "tirval_onedrive_upload_session_parse")(json, info);
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class UploadSession : public StoreFixture {
  protected:
    ~UploadSession() override
    {
        parse_fails = false;
        any_path = false;
    }

    /* Opens a session for a file.  After a failure the host's answer tells it. */
    bool open(tirval_off_t size = 25000000, const std::string &of = path,
              const std::string &folder = "/My files")
    {
        tirval_result_t result = TIRVAL_FAILURE;
        opened = nullptr;
        host.in_recv(
            [&](tirval_gfs_operation_t op) {
                tirval_gfs_transfer_info_t info = {of.c_str(), size, true};
                result = tirval_i_onedrive_create_upload_session(session.handle(), op, &info,
                                                                 session.cached(folder), &opened);
                tirval_gridftp_server_finished_transfer(op, result);
            },
            size);
        return result == TIRVAL_SUCCESS;
    }
    std::string sent_body() const { return service.requests().back().body; }
    tirval_onedrive_upload_session_t *opened = nullptr;
    std::size_t records() const
    {
        return tirval_hashtable_size(&session.handle()->upload_state) - 4; // the virtual folders
    }
};

/* ---- The request ---- */

TEST_F(UploadSession, IsAskedForAtTheItemWithTheTokenAndAJsonBody)
{
    service.answer(session_made());
    ASSERT_TRUE(open()) << host.answer.text;
    ASSERT_EQ(service.requests().size(), 1U);
    const auto request = service.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/a.bin:/createUploadSession");
    EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    EXPECT_EQ(request.header_count("Content-Length"), 1U);
    EXPECT_EQ(request.body,
              R"({"item": {"@microsoft.graph.conflictBehavior": "replace", "name": "a.bin"}})");
    EXPECT_EQ(host.begins, 0);
}

TEST_F(UploadSession, TheClientsTimeTravelsInTheBody)
{
    host.modification_time = 1614834367;
    service.answer(session_made());
    ASSERT_TRUE(open()) << host.answer.text;
    EXPECT_EQ(sent_body(), R"({"item": {"@microsoft.graph.conflictBehavior": "replace", )"
                           R"("fileSystemInfo": {"lastModifiedDateTime": "2021-03-04T05:06:07Z"}, )"
                           R"("name": "a.bin"}})");
}

TEST_F(UploadSession, TheEpochIsATimeLikeAnyOther)
{
    host.modification_time = 0;
    service.answer(session_made());
    ASSERT_TRUE(open()) << host.answer.text;
    EXPECT_THAT(sent_body(), HasSubstr("\"1970-01-01T00:00:00Z\""));
}

TEST_F(UploadSession, TheNameIsTheLastComponentAsTheClientWroteIt)
{
    service.answer(session_made());
    ASSERT_TRUE(open(25000000, "/My files/f/\xC3\xA9 \"x\".bin")) << host.answer.text;
    EXPECT_THAT(sent_body(), HasSubstr("\"name\": \"\xC3\xA9 \\\"x\\\".bin\""));
    EXPECT_EQ(service.requests().at(0).target,
              "/v1.0/me/drive/root:/f/%C3%A9%20%22x%22.bin:/createUploadSession");
}

TEST_F(UploadSession, ItsAttemptsAreMeteredAndARetryAfterIsSlept)
{
    tirval_i_onedrive_max_delay = 25;
    service.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    service.answer(http_peer_answer().reset());
    service.answer(session_made());
    debug_trace trace;
    EXPECT_TRUE(open()) << host.answer.text;
    EXPECT_EQ(trace.count("API CALL!\n"), 3U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 3U);
    EXPECT_THAT(slept, ElementsAre(7, 7));
    ASSERT_EQ(service.requests().size(), 3U);
    for (const auto &request : service.requests()) {
        EXPECT_EQ(request.body, sent_body());
    }
}

TEST_F(UploadSession, ThereAreThreeAttempts)
{
    service.on_request([](const auto &) { return http_peer_answer::complete(429); });
    EXPECT_FALSE(open());
    EXPECT_EQ(host.answer.tag, "TOO_BUSY");
    EXPECT_EQ(service.requests().size(), 3U);
}

TEST_F(UploadSession, AServiceThatDoesNotMoveIsGivenTheIdleTimeOnce)
{
    tirval_i_onedrive_progress_timeout_ms = 90;
    service.on_request([](const auto &) { return http_peer_answer(); });
    EXPECT_FALSE(open());
    EXPECT_THAT(host.answer.text, HasSubstr("(90 ms)"));
    EXPECT_EQ(service.requests().size(), 3U);
}

/* ---- What is refused before the request ---- */

TEST_F(UploadSession, NeedsAFolder)
{
    session.enter("/My files", "f", "id-f", TIRVAL_ONEDRIVE_FILE);
    EXPECT_FALSE(open(25000000, "/My files/f/a.bin", "/My files/f"));
    EXPECT_EQ(host.answer.code, 553);
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/f");
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadSession, NeedsAPlaceThatCanBeWritten)
{
    EXPECT_FALSE(open(25000000, "/a.bin", "/"));
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadSession, ANameThatIsNoTextCannotBeAskedFor)
{
    for (const time_t time : {-1, 0}) {
        host.modification_time = time;
        EXPECT_FALSE(open(25000000, "/My files/\xFF.bin"));
        expect_refused_before_the_begin(553, "INVALID_PATH_NAME");
        EXPECT_EQ(host.answer.message, "GridFTP-Path: <Invalid Name>");
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadSession, ATimeThatNoCalendarHasCannotBeAskedFor)
{
    host.modification_time = LONG_MAX;
    EXPECT_FALSE(open());
    EXPECT_THAT(host.answer.text, StartsWith("System error in gmtime_r"));
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadSession, TextsThatCannotBeFormedAreSystemErrors)
{
    for (const int call : {1, 2}) { // the address, the token's header
        failing_text = call;
        EXPECT_FALSE(open());
        EXPECT_EQ(failing_text, 0);
        expect_malloc_error();
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

using UploadSessionDeathTest = UploadSession;

TEST_F(UploadSessionDeathTest, APathWithoutASlashIsAProgrammingError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    any_path = true;
    EXPECT_DEATH(open(25000000, "My files"), "name != NULL");
}

/* ---- The record ---- */

TEST_F(UploadSession, ItsRecordIsTheTablesUnderThePath)
{
    service.answer(session_made());
    ASSERT_TRUE(open(25000000)) << host.answer.text;
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened, record());
    EXPECT_EQ(records(), 1U);
    EXPECT_EQ(opened->url, parts.url("/up?tempauth=x%20y"));
    EXPECT_STREQ(opened->exp, "2031-01-29T09:21:55Z");
    EXPECT_STREQ(opened->name, path);
    EXPECT_EQ(opened->num_parts, 3);
    EXPECT_EQ(opened->part_size, 10485760U);
    EXPECT_EQ(opened->total_size, 25000000U);
    EXPECT_TRUE(json_is_array(opened->part_array));
    EXPECT_EQ(json_array_size(opened->part_array), 0U);
}

struct count_case {
    tirval_off_t size;
    int32_t parts;
};

class UploadSessionParts : public UploadSession, public testing::WithParamInterface<count_case> {};

TEST_P(UploadSessionParts, AreTheSizeByTenMebibytesRoundedUp)
{
    service.answer(session_made());
    ASSERT_TRUE(open(GetParam().size)) << host.answer.text;
    EXPECT_EQ(opened->num_parts, GetParam().parts);
    EXPECT_EQ(opened->total_size, static_cast<uint64_t>(GetParam().size));
}

INSTANTIATE_TEST_SUITE_P(Sizes, UploadSessionParts,
                         testing::Values(count_case{4194305, 1}, count_case{10485760, 1},
                                         count_case{10485761, 2}, count_case{20971520, 2},
                                         count_case{20971521, 3}, count_case{268435456000, 25600}));

TEST_F(UploadSession, WhatTheServiceDoesNotTellStaysEmpty)
{
    service.answer(http_peer_answer::json(200, R"({"expirationDateTime":5})"));
    ASSERT_TRUE(open()) << host.answer.text;
    EXPECT_EQ(opened->url, nullptr);
    EXPECT_EQ(opened->exp, nullptr);
}

TEST_F(UploadSession, AnAnswerThatIsNoObjectTellsNothing)
{
    service.answer(http_peer_answer::json(200, "[]"));
    ASSERT_TRUE(open()) << host.answer.text;
    EXPECT_EQ(opened->url, nullptr);
}

TEST_F(UploadSession, AnAnswerWithoutJsonIsASystemErrorAndLeavesNoRecord)
{
    for (const auto &answer : {http_peer_answer::complete(200), http_peer_answer::complete(412),
                               http_peer_answer::complete(200, "<html>")}) {
        service.answer(answer);
        EXPECT_FALSE(open());
        expect_malloc_error();
    }
    EXPECT_EQ(records(), 0U);
    EXPECT_EQ(service.requests().size(), 3U);
}

TEST_F(UploadSession, ADescriptionThatCannotBeParsedLeavesNoRecord)
{
    parse_fails = true;
    service.answer(session_made());
    EXPECT_FALSE(open());
    expect_generic_error("Failed to parse session info!");
    EXPECT_EQ(records(), 0U);
}

TEST_F(UploadSession, ATableThatTakesNoRecordIsAnError)
{
    table_insert_fails = true;
    service.answer(session_made());
    EXPECT_FALSE(open());
    expect_generic_error("Failed cache update!");
    EXPECT_EQ(opened, nullptr);
    EXPECT_EQ(records(), 0U);
}

TEST_F(UploadSession, APathThatHasARecordKeepsItAndTheNewOneIsRefused)
{
    service.answer(session_made());
    ASSERT_TRUE(open()) << host.answer.text;
    const auto *const first = opened;
    service.answer(http_peer_answer::json(200, R"({"uploadUrl":"http://127.0.0.1:1/second"})"));
    EXPECT_FALSE(open());
    expect_generic_error("Failed cache update!");
    EXPECT_EQ(record(), first);
    EXPECT_EQ(first->url, parts.url("/up?tempauth=x%20y"));
    EXPECT_EQ(service.requests().size(), 2U) << "the service has made a second session";
}

TEST_F(UploadSession, AnotherPathHasARecordOfItsOwn)
{
    service.answer(session_made());
    service.answer(session_made());
    ASSERT_TRUE(open()) << host.answer.text;
    ASSERT_TRUE(open(25000000, "/My files/b.bin")) << host.answer.text;
    EXPECT_EQ(records(), 2U);
    EXPECT_STREQ(record("/My files/b.bin")->name, "/My files/b.bin");
}

/* ---- Parsing ---- */

class UploadSessionParse : public UploadSession {
  protected:
    ~UploadSessionParse() override
    {
        std::free(info.url);
        std::free(info.exp);
    }
    void parse(const char *text)
    {
        const tirval_i_onedrive_json_t json(json_loads(text, JSON_DECODE_ANY, nullptr));
        EXPECT_EQ(tirval_onedrive_upload_session_parse(json.get(), &info), TIRVAL_SUCCESS);
    }
    tirval_onedrive_upload_session_t info = {};
};

TEST_F(UploadSessionParse, TakesTheTwoTexts)
{
    parse(R"({"uploadUrl":"https://x.example/1","expirationDateTime":"soon","other":1})");
    EXPECT_STREQ(info.url, "https://x.example/1");
    EXPECT_STREQ(info.exp, "soon");
}

TEST_F(UploadSessionParse, AMissingMemberLeavesItsField)
{
    parse(R"({"uploadUrl":"u1","expirationDateTime":"e1"})");
    parse(R"({"uploadUrl":"u2"})");
    EXPECT_STREQ(info.url, "u2");
    EXPECT_STREQ(info.exp, "e1");
    parse(R"({"expirationDateTime":"e3"})");
    EXPECT_STREQ(info.url, "u2");
    EXPECT_STREQ(info.exp, "e3");
}

TEST_F(UploadSessionParse, AMemberThatIsNoTextIsMissing)
{
    parse(R"({"uploadUrl":7,"expirationDateTime":null})");
    EXPECT_EQ(info.url, nullptr);
    EXPECT_EQ(info.exp, nullptr);
}

TEST_F(UploadSessionParse, NoAnswerAndNoObjectAreSuccessWithoutTexts)
{
    parse("[]");
    EXPECT_EQ(tirval_onedrive_upload_session_parse(nullptr, &info), TIRVAL_SUCCESS);
    EXPECT_EQ(info.url, nullptr);
}

} // namespace
