// The cycle of one Graph request: header, pacing, attempts, and the judgement of the answer.
#include "http_peer.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/* One request of a test's, with the defaults of a metadata request. */
class RequestCycle : public testing::Test {
  protected:
    RequestCycle() : session(peer.url(""))
    {
        request.method = "GET";
        request.paced = true;
        request.json_explains = true;
        request.success = TIRVAL_I_ONEDRIVE_BELOW_400;
        request.idle_factor = 1;
        request.repetitions = &repetitions;
        request.json_out = &json;
    }
    ~RequestCycle() override { json_decref(json); }

    tirval_result_t send(const std::string &target = "/item")
    {
        json_decref(json);
        json = nullptr;
        const std::string uri = peer.url(target);
        request.uri = uri.c_str();
        return tirval_i_onedrive_request(session.handle(), &request);
    }
    std::chrono::steady_clock::duration gap(std::size_t earlier, std::size_t later) const
    {
        const auto requests = peer.requests();
        return requests.at(later).arrived - requests.at(earlier).arrived;
    }

    http_peer peer;
    test_session session;
    int repetitions = 1;
    json_t *json = nullptr;
    tirval_i_onedrive_request_t request = {};
};

const http_peer_headers at_once = {{"Retry-After", "0"}};

/* ---- What is sent ---- */

TEST_F(RequestCycle, TheBearerHeaderComesFirstAndTheOperationsOwnBehindIt)
{
    tirval_dsi_rest_key_value_t own[] = {{"Content-Type", "application/json"}, {"X-Own", "1"}};
    const tirval_dsi_rest_key_array_t headers = {2, own};
    const tirval_i_onedrive_text_t bearer(tirval_i_onedrive_bearer(session.handle()));
    request.bearer = bearer.get();
    request.headers = &headers;
    peer.answer(http_peer_answer::json(200, "{}"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    const http_peer_request seen = peer.requests().at(0);
    EXPECT_EQ(seen.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(seen.header("Content-Type"), "application/json");
    std::vector<std::string> order;
    for (const auto &[name, value] : seen.headers) {
        if (name == "Authorization" || name == "Content-Type" || name == "X-Own") {
            order.push_back(name);
        }
    }
    EXPECT_THAT(order, testing::ElementsAre("Authorization", "Content-Type", "X-Own"));
}

TEST_F(RequestCycle, WithoutABearerNoTokenTravels)
{
    peer.answer(http_peer_answer::json(200, "{}"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().at(0).header_count("Authorization"), 0U);
}

TEST_F(RequestCycle, ABodyIsSentAgainUnchanged)
{
    tirval_dsi_rest_write_block_arg_t block = {"{\"name\":\"a\"}", 12};
    request.method = "POST";
    request.write_callback = tirval_dsi_rest_write_block;
    request.write_arg = &block;
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::json(201, "{}"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    ASSERT_EQ(peer.requests().size(), 2U);
    EXPECT_EQ(peer.requests().at(0).body, "{\"name\":\"a\"}");
    EXPECT_EQ(peer.requests().at(1).body, "{\"name\":\"a\"}");
    EXPECT_EQ(peer.requests().at(1).method, "POST");
}

/* ---- Success ---- */

TEST_F(RequestCycle, AnAnswerBelow400HandsItsJsonOut)
{
    peer.answer(http_peer_answer::json(200, R"({"id":"1"})"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_STREQ(json_string_value(json_object_get(json, "id")), "1");
    EXPECT_EQ(repetitions, 1) << "nothing was repeated";
}

TEST_F(RequestCycle, AnAnswerWithoutABodyIsSuccessWithoutJson)
{
    peer.answer(http_peer_answer::complete(204));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(json, nullptr);
}

TEST_F(RequestCycle, ABodyThatIsNoJsonIsSuccessWithoutJson)
{
    peer.answer(http_peer_answer::complete(200, "<html>"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(json, nullptr);
}

TEST_F(RequestCycle, ARedirectIsBelow400AndNotFollowed)
{
    peer.answer(http_peer_answer::complete(302, "", {{"Location", peer.url("/elsewhere")}}));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(RequestCycle, AStatusThatIsTakenAsDoneEndsTheCycle)
{
    peer.answer(http_peer_answer::complete(412));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 1U);
}

/* ---- Where a redirect is asked for ---- */

TEST_F(RequestCycle, Only302IsSuccessWhereARedirectIsAskedForAndItsLocationIsHandedOut)
{
    char *location = nullptr;
    request.success = TIRVAL_I_ONEDRIVE_ONLY_302;
    request.json_out = nullptr;
    request.location_out = &location;
    peer.answer(
        http_peer_answer::complete(302, "", {{"Location", "https://far.example/x?y=%20z"}}));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    const tirval_i_onedrive_text_t owner(location);
    EXPECT_STREQ(location, "https://far.example/x?y=%20z");
}

TEST_F(RequestCycle, A200WhereARedirectIsAskedForMeansBusyAndIsRepeated)
{
    request.success = TIRVAL_I_ONEDRIVE_ONLY_302;
    request.json_explains = false;
    peer.answer(http_peer_answer::json(200, "{}"));
    peer.answer(http_peer_answer::json(200, "{}"));
    EXPECT_EQ(reply_of(send()), (ftp_reply{451, "TOO_BUSY", std::nullopt}));
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_EQ(repetitions, 0);
}

TEST_F(RequestCycle, TheLocationOfAnEarlierAttemptIsForgotten)
{
    char *location = nullptr;
    request.success = TIRVAL_I_ONEDRIVE_ONLY_302;
    request.location_out = &location;
    peer.answer(http_peer_answer::complete(
        503, "", {{"Retry-After", "0"}, {"Location", "https://old.example/"}}));
    peer.answer(http_peer_answer::complete(302));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    const tirval_i_onedrive_text_t owner(location);
    EXPECT_EQ(location, nullptr);
}

/* ---- Repetition ---- */

TEST_F(RequestCycle, ABusyAnswerIsRepeatedOnceAndThenStands)
{
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::complete(429));
    EXPECT_EQ(reply_of(send()), (ftp_reply{451, "TOO_BUSY", std::nullopt}));
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_EQ(peer.unused(), 0U);
}

TEST_F(RequestCycle, AsManyRepetitionsAsAllowedAreMade)
{
    repetitions = 2;
    peer.on_request([](const auto &) { return http_peer_answer::complete(429); });
    EXPECT_EQ(reply_of(send()).tag, "TOO_BUSY");
    EXPECT_EQ(peer.requests().size(), 3U);
    EXPECT_EQ(repetitions, 0);
}

TEST_F(RequestCycle, WithoutARepetitionThereIsOneAttempt)
{
    repetitions = 0;
    peer.answer(http_peer_answer::complete(429));
    EXPECT_EQ(reply_of(send()).tag, "TOO_BUSY");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(RequestCycle, ASecondAttemptMaySucceed)
{
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::json(200, R"({"id":"2"})"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_STREQ(json_string_value(json_object_get(json, "id")), "2");
}

TEST_F(RequestCycle, TheLastAnswersErrorStands)
{
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::complete(403));
    EXPECT_EQ(reply_of(send()), (ftp_reply{550, "PERMISSION_DENIED", std::nullopt}));
}

TEST_F(RequestCycle, A503WithoutRetryAfterIsNotRepeated)
{
    peer.answer(http_peer_answer::complete(503));
    EXPECT_EQ(reply_of(send()), (ftp_reply{500, "INTERNAL_ERROR", ""}));
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(RequestCycle, A503WithRetryAfterIsRepeated)
{
    peer.answer(http_peer_answer::complete(503, "", at_once));
    peer.answer(http_peer_answer::json(200, "{}"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(RequestCycle, AnErrorPageReachesTheTranslationWithItsRetryAfter)
{
    peer.answer(http_peer_answer::complete(503, "<html>Service Unavailable</html>", at_once));
    peer.answer(http_peer_answer::complete(503, "<html>Service Unavailable</html>"));
    EXPECT_EQ(reply_of(send()), (ftp_reply{500, "INTERNAL_ERROR", ""}));
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(RequestCycle, ARetryAfterOfAnEarlierAnswerDoesNotMakeTheNextRetryable)
{
    repetitions = 2;
    peer.answer(http_peer_answer::complete(503, "", at_once));
    peer.answer(http_peer_answer::complete(503));
    EXPECT_EQ(reply_of(send()).tag, "INTERNAL_ERROR");
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(RequestCycle, ARetryAfterIsSleptBeforeTheNextAttempt)
{
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    peer.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    peer.answer(http_peer_answer::json(200, "{}"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_THAT(trace.text(), HasSubstr("retry_after=7 sleep=1\n"));
    EXPECT_GE(gap(0, 1), 900ms);
}

TEST_F(RequestCycle, ARetryAfterStandsUntilAnotherAnswerReplacesIt)
{
    repetitions = 3;
    request.paced = true;
    tirval_i_onedrive_max_delay = 0; /* told in the trace, but not slept */
    peer.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    peer.answer(http_peer_answer().reset());
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::json(200, "{}"));
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count("API CALL!\n"), 4U);
    EXPECT_EQ(trace.count("retry_after=7 sleep=0\n"), 2U) << "a lost connection tells nothing new";
    EXPECT_EQ(trace.count("retry_after="), 2U);
}

TEST_F(RequestCycle, WhereErrorAnswersAreFinalNoneIsRepeated)
{
    request.success = TIRVAL_I_ONEDRIVE_ANY_ANSWERED;
    request.json_explains = false;
    request.json_out = nullptr;
    peer.answer(http_peer_answer::complete(503, "", at_once));
    EXPECT_EQ(reply_of(send()), (ftp_reply{500, "INTERNAL_ERROR", ""}));
    peer.answer(http_peer_answer::complete(429));
    EXPECT_EQ(reply_of(send()), (ftp_reply{451, "TOO_BUSY", std::nullopt}));
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_EQ(repetitions, 1);
}

TEST_F(RequestCycle, WhereErrorAnswersAreFinalALostConnectionIsStillRepeated)
{
    request.success = TIRVAL_I_ONEDRIVE_ANY_ANSWERED;
    peer.answer(http_peer_answer().reset());
    peer.answer(http_peer_answer::complete(204));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 2U);
}

/* ---- Transport failures ---- */

TEST_F(RequestCycle, ALostConnectionIsRepeated)
{
    peer.answer(http_peer_answer().reset());
    peer.answer(http_peer_answer::json(200, R"({"id":"1"})"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_NE(json, nullptr);
    EXPECT_EQ(repetitions, 0);
}

TEST_F(RequestCycle, ALostConnectionTwiceIsTheFailure)
{
    peer.on_request([](const auto &) { return http_peer_answer().reset(); });
    const tirval_result_t result = send();
    EXPECT_NE(result, TIRVAL_SUCCESS);
    EXPECT_TRUE(tirval_dsi_rest_error_is_retryable(result));
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(RequestCycle, ARefusedConnectionIsAttemptedAsOftenAsTheLibraryAllows)
{
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    request.uri = "http://127.0.0.1:1/";
    const tirval_result_t result = tirval_i_onedrive_request(session.handle(), &request);
    ASSERT_NE(result, TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count("API CALL!\n"), tirval_dsi_rest_error_is_retryable(result) ? 2U : 1U);
}

TEST_F(RequestCycle, ASilentServiceIsGivenUpAfterTheIdleTimeAndAskedAgain)
{
    const int before = tirval_i_onedrive_progress_timeout_ms;
    tirval_i_onedrive_progress_timeout_ms = 200;
    peer.answer(http_peer_answer());
    peer.answer(http_peer_answer::json(200, "{}"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    tirval_i_onedrive_progress_timeout_ms = before;
    ASSERT_EQ(peer.requests().size(), 2U);
    EXPECT_GE(gap(0, 1), 150ms);
}

TEST_F(RequestCycle, TheIdleTimeGrowsWithItsFactor)
{
    const int before = tirval_i_onedrive_progress_timeout_ms;
    tirval_i_onedrive_progress_timeout_ms = 200;
    request.idle_factor = 3;
    peer.answer(http_peer_answer());
    peer.answer(http_peer_answer::json(200, "{}"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    tirval_i_onedrive_progress_timeout_ms = before;
    EXPECT_GE(gap(0, 1), 500ms);
}

TEST_F(RequestCycle, WithoutAUriTheRequestFails)
{
    request.uri = nullptr;
    EXPECT_NE(tirval_i_onedrive_request(session.handle(), &request), TIRVAL_SUCCESS);
    EXPECT_THAT(peer.requests(), testing::IsEmpty());
}

/* ---- JSON of an error answer ---- */

TEST_F(RequestCycle, TheAnswersJsonExplainsTheError)
{
    peer.answer(http_peer_answer::json(404, R"({"error":{"code":"trashed","message":"gone"}})"));
    const tirval_result_t result = send();
    EXPECT_EQ(reply_of(result),
              (ftp_reply{550, "PATH_NOT_FOUND", "GridFTP-Path: \"<Trashed Item>\""}));
    EXPECT_EQ(info_of(result, "message"), "gone");
}

TEST_F(RequestCycle, WhereJsonDoesNotExplainTheStatusDecides)
{
    request.json_explains = false;
    peer.answer(http_peer_answer::json(409, R"({"error":{"code":"trashed","message":"gone"}})"));
    EXPECT_EQ(reply_of(send()).tag, "PATH_EXISTS");
}

TEST_F(RequestCycle, AnEmptyErrorMessageDoesNotEndTheProcess)
{
    debug_trace trace;
    peer.answer(http_peer_answer::json(400, R"({"error":{"code":"invalidRequest","message":""}})"));
    EXPECT_EQ(message_of(send()), "code: \"invalidRequest\"");
    EXPECT_THAT(trace.text(), HasSubstr("code: \"invalidRequest\""));
}

TEST_F(RequestCycle, TheJsonOfAnEarlierAttemptIsForgotten)
{
    peer.answer(http_peer_answer::json(429, R"({"error":{"code":"x"}})", at_once));
    peer.answer(http_peer_answer::complete(204));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(json, nullptr);
}

/* ---- Bodies and attempts ---- */

TEST_F(RequestCycle, ABodySinkGetsTheContentAndIsPreparedBeforeEachAttempt)
{
    struct sink_t {
        std::string bytes;
        int prepared = 0;
    } sink;
    request.json_out = nullptr;
    request.json_explains = false;
    request.read_arg = &sink;
    request.read_callback = [](void *arg, void *buffer, size_t length) -> tirval_result_t {
        static_cast<sink_t *>(arg)->bytes.append(static_cast<const char *>(buffer), length);
        return TIRVAL_SUCCESS;
    };
    request.attempt_arg = &sink;
    request.before_attempt = [](void *arg) {
        ++static_cast<sink_t *>(arg)->prepared;
        static_cast<sink_t *>(arg)->bytes.clear();
    };
    peer.answer(http_peer_answer::complete(429, "an error page"));
    peer.answer(http_peer_answer::complete(200, "content"));
    EXPECT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(sink.bytes, "content");
    EXPECT_EQ(sink.prepared, 2);
}

TEST_F(RequestCycle, EachAttemptWritesALineAtTheDebugLevel)
{
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::json(200, "{}"));
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count(": API CALL!\n"), 2U);
    EXPECT_EQ(trace.count("OneDrive: DEBUG: "), trace.count("\n"));
}

TEST_F(RequestCycle, AnAttemptsLineComesBeforeItsDelay)
{
    request.paced = true;
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::json(200, "{}"));
    debug_trace trace;
    ASSERT_EQ(send(), TIRVAL_SUCCESS);
    const std::string text = trace.text();
    const auto call = text.find("API CALL!\n");
    const auto delay = text.find("tirval_i_onedrive_retry_delay: enter\n");
    ASSERT_NE(delay, std::string::npos);
    EXPECT_LT(call, delay);
    EXPECT_LT(text.find("API CALL!\n", call + 1),
              text.find("tirval_i_onedrive_retry_delay: enter\n", delay + 1));
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 2U);
}

/* ---- Pacing ---- */

class PacedRequest : public testing::Test {
  protected:
    static constexpr auto spacing = 200ms;
    PacedRequest() : session(peer.url(""), 5)
    {
        peer.on_request([](const auto &) { return http_peer_answer::complete(204); });
    }
    void send(bool paced)
    {
        const std::string uri = peer.url("/x");
        int repetitions = 1;
        tirval_i_onedrive_request_t request = {};
        request.method = "GET";
        request.uri = uri.c_str();
        request.paced = paced;
        request.idle_factor = 1;
        request.repetitions = &repetitions;
        EXPECT_EQ(tirval_i_onedrive_request(session.handle(), &request), TIRVAL_SUCCESS);
    }
    tirval_abstime_t last() const { return session.handle()->retry_state.shared->last; }

    http_peer peer;
    test_session session;
};

TEST_F(PacedRequest, KeepsTheUsersSpacing)
{
    send(true);
    send(true);
    send(true);
    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_GE(requests[1].arrived - requests[0].arrived, spacing - 50ms);
    EXPECT_GE(requests[2].arrived - requests[1].arrived, spacing - 50ms);
}

TEST_F(PacedRequest, OneThatIsNotPacedLeavesTheUsersSpacingAlone)
{
    send(true);
    const tirval_abstime_t before = last();
    send(false);
    const tirval_abstime_t after = last();
    EXPECT_EQ(tirval_abstime_cmp(&before, &after), 0);
    send(true);
    const tirval_abstime_t later = last();
    EXPECT_EQ(tirval_abstime_cmp(&before, &later), -1);
}

} // namespace
