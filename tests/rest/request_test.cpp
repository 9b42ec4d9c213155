// Pins what one request puts on the wire and what its answer becomes, over real sockets.
#include "rest_fixture.h"

#include <gmock/gmock.h>
#include <thread>

using testing::HasSubstr;
using testing::Not;

class RestRequest : public rest_test {
  protected:
    http_peer peer;
};

TEST_F(RestRequest, SendsMethodAndAddressByteForByte)
{
    peer.answer(http_peer_answer::complete(200));
    rest_call call("GET", peer.url("/a/../b/./%41%2f:/x?q=%20y&$z"));
    EXPECT_TRUE(call.send().ok());
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/a/../b/./%41%2f:/x?q=%20y&$z");
    EXPECT_FALSE(request.header("Authorization"));
    EXPECT_FALSE(request.header("Expect"));
    EXPECT_FALSE(request.header("Content-Length"));
}

TEST_F(RestRequest, AppendsTheQueryParametersEncodedAndInOrder)
{
    peer.answer(http_peer_answer::complete(200));
    rest_call call("GET", peer.url("/list"));
    call.query = {{"$top", "300"}, {"$select", "id,name"}, {"q", "a b"}};
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(peer.requests().at(0).target, "/list?$top=300&$select=id,name&q=a%20b");
}

TEST_F(RestRequest, TakesNullForEverythingOptional)
{
    peer.answer(http_peer_answer::complete(200));
    const auto url = peer.url("/");
    EXPECT_EQ(tirval_dsi_rest_request("GET", url.c_str(), nullptr, nullptr, nullptr),
              TIRVAL_SUCCESS);
}

TEST_F(RestRequest, SendsTheCallersHeadersAndTakesAwayThoseWithoutValue)
{
    peer.answer(http_peer_answer::complete(200));
    rest_call call("GET", peer.url());
    call.headers = {{"Authorization", "Bearer abc"}, {"X-Test", "a: b; c"}, {"Accept", ""}};
    EXPECT_TRUE(call.send().ok());
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.header("authorization"), "Bearer abc");
    EXPECT_EQ(request.header("X-Test"), "a: b; c");
    EXPECT_FALSE(request.header("Accept"));
}

TEST_F(RestRequest, RefusesLineEndsAndOtherInjections)
{
    const rest_pairs bad_headers[] = {
        {{"X-A", "b\r\nX-C: d"}}, {{"X-A\r\nX-C", "d"}}, {{"X-A", "b\nc"}},
        {{"X-A: b", "c"}},        {{"", "b"}},           {{"X A", "b"}}};
    for (const auto &headers : bad_headers) {
        rest_call call("GET", peer.url());
        call.headers = headers;
        const auto outcome = call.send();
        EXPECT_FALSE(outcome.ok());
        EXPECT_FALSE(outcome.retryable);
        EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_ARGUMENT);
    }
    for (const auto *method : {"", "GET /x HTTP/1.1\r\nX:", "G T"}) {
        EXPECT_FALSE(rest_call(method, peer.url()).send().ok()) << method;
    }
    EXPECT_FALSE(rest_call("GET", peer.url("/a\r\nX: y")).send().ok());
    EXPECT_EQ(tirval_dsi_rest_error_is_retryable(
                  tirval_dsi_rest_request(nullptr, nullptr, nullptr, nullptr, nullptr)),
              false);
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(RestRequest, ReportsAnErrorStatusAsASuccessfulCall)
{
    peer.answer(http_peer_answer::json(503, R"({"error":{"code":"x"}})", {{"Retry-After", "7"}}));
    rest_call call("GET", peer.url());
    wanted_headers wanted({"retry-after", "Location"});
    wanted.attach(call);
    json_answer body;
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(wanted.status(), 503);
    EXPECT_EQ(wanted.value(0), "7");
    EXPECT_EQ(wanted.value(1), "(null)");
    EXPECT_TRUE(json_is_object(body.json));
    EXPECT_EQ(tirval_dsi_rest_last_status(), 503);
}

TEST_F(RestRequest, ClearsWantedHeadersBeforeEachRequest)
{
    peer.answer(http_peer_answer::complete(503));
    peer.answer(http_peer_answer().close());
    rest_call call("GET", peer.url());
    wanted_headers wanted({"Retry-After"});
    wanted.attach(call);
    const char *const stale = "9";
    wanted.preset(0, stale);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(wanted.value(0), "(null)");
    wanted.preset(0, stale);
    EXPECT_FALSE(call.send().ok());
    EXPECT_EQ(wanted.value(0), "(null)");
    EXPECT_EQ(wanted.status(), 0);
    EXPECT_EQ(tirval_dsi_rest_last_status(), 0);
}

TEST_F(RestRequest, TakesWantedHeadersFromTheFinalAnswerOnly)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 103 Early Hints\r\nRetry-After: 9\r\n\r\n"
                                        "HTTP/1.1 200 OK\r\nLocation: first\r\nLocation: second\r\n"
                                        "Content-Length: 0\r\n\r\n"));
    rest_call call("GET", peer.url());
    wanted_headers wanted({"Retry-After", "LOCATION"});
    wanted.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(wanted.status(), 200);
    EXPECT_EQ(wanted.value(0), "(null)");
    EXPECT_EQ(wanted.value(1), "first");
}

TEST_F(RestRequest, HandsAForeignResponseCallbackStatusPhraseAndAllHeaders)
{
    peer.answer(http_peer_answer().send(
        "HTTP/1.1 418 I'm a teapot\r\nA: 1\r\nB: 2\r\nContent-Length: 0\r\n\r\n"));
    std::string seen;
    rest_call call("GET", peer.url());
    call.callbacks.response_callback = [](void *arg, int code, const char *phrase,
                                          const tirval_dsi_rest_key_array_t *headers) {
        auto &out = *static_cast<std::string *>(arg);
        out = std::to_string(code) + " " + phrase;
        for (size_t i = 0; i < headers->count; ++i) {
            out += std::string("|") + headers->key_value[i].key + "=" + headers->key_value[i].value;
        }
        return TIRVAL_SUCCESS;
    };
    call.callbacks.response_callback_arg = &seen;
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(seen, "418 I'm a teapot|A=1|B=2|Content-Length=0");
}

TEST_F(RestRequest, FollowsNoRedirect)
{
    peer.answer(http_peer_answer::complete(302, "", {{"Location", peer.url("/elsewhere")}}));
    rest_call call("GET", peer.url("/content"));
    call.headers = {{"Authorization", "Bearer abc"}};
    wanted_headers wanted({"Retry-After", "Location"});
    wanted.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(wanted.status(), 302);
    EXPECT_EQ(wanted.value(1), peer.url("/elsewhere"));
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(RestRequest, DoesNotCarryHeadersOverToTheNextRequest)
{
    peer.answer(http_peer_answer::complete(200));
    peer.answer(http_peer_answer::complete(200));
    rest_call first("GET", peer.url());
    first.headers = {{"Authorization", "Bearer abc"}, {"Range", "bytes=0-1"}};
    EXPECT_TRUE(first.send().ok());
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    const auto second = peer.requests().at(1);
    EXPECT_FALSE(second.header("Authorization"));
    EXPECT_FALSE(second.header("Range"));
}

TEST_F(RestRequest, KeepsConnectionsForTheThreadsNextRequests)
{
    peer.on_request([](const auto &) { return http_peer_answer::json(200, "{}"); });
    for (const auto *method : {"GET", "DELETE", "POST", "PATCH", "PUT"}) {
        EXPECT_TRUE(rest_call(method, peer.url()).send().ok());
    }
    EXPECT_EQ(peer.connections(), 1U);
    std::thread([this] { EXPECT_TRUE(rest_call("GET", peer.url()).send().ok()); }).join();
    EXPECT_EQ(peer.connections(), 2U);
}

TEST_F(RestRequest, AnnouncesAnEmptyBodyWhereTheMethodExpectsOne)
{
    peer.on_request([](const auto &) { return http_peer_answer::complete(200); });
    for (const auto *method : {"POST", "PUT", "PATCH"}) {
        EXPECT_TRUE(rest_call(method, peer.url()).send().ok());
        EXPECT_EQ(peer.requests().back().header("Content-Length"), "0") << method;
    }
    EXPECT_TRUE(rest_call("DELETE", peer.url()).send().ok());
    EXPECT_EQ(peer.requests().back().method, "DELETE");
    EXPECT_FALSE(peer.requests().back().header("Content-Length"));
}

TEST_F(RestRequest, SendsABlockWithItsLengthOnceWhateverTheCallerSays)
{
    peer.on_request([](const auto &) { return http_peer_answer::json(200, "{}"); });
    const std::string text(3 * 1024 * 1024 + 17, 'x');
    for (const auto *method : {"POST", "PATCH", "PUT", "DELETE"}) {
        tirval_dsi_rest_write_block_arg_t block = {text.data(), text.size()};
        rest_call call(method, peer.url());
        call.headers = {{"Content-Length", "5"}, {"Content-Type", "application/json"}};
        call.callbacks.data_write_callback = tirval_dsi_rest_write_block;
        call.callbacks.data_write_callback_arg = &block;
        EXPECT_TRUE(call.send().ok());
        const auto request = peer.requests().back();
        EXPECT_EQ(request.method, method);
        EXPECT_EQ(request.header_count("Content-Length"), 1U);
        EXPECT_EQ(request.header("Content-Length"), std::to_string(text.size()));
        EXPECT_EQ(request.header("Content-Type"), "application/json");
        EXPECT_EQ(request.header_count("Transfer-Encoding"), 0U);
        EXPECT_EQ(request.header_count("Expect"), 0U);
        EXPECT_TRUE(request.body == text) << method;
    }
}

TEST_F(RestRequest, SendsAnEmptyBlockAsLengthZero)
{
    peer.answer(http_peer_answer::json(200, "{}"));
    tirval_dsi_rest_write_block_arg_t block = {nullptr, 0};
    rest_call call("PUT", peer.url());
    call.callbacks.data_write_callback = tirval_dsi_rest_write_block;
    call.callbacks.data_write_callback_arg = &block;
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(peer.requests().at(0).header("Content-Length"), "0");
    EXPECT_EQ(peer.requests().at(0).header_count("Transfer-Encoding"), 0U);
}

TEST_F(RestRequest, TakesAForeignBodysLengthFromContentLength)
{
    peer.answer(http_peer_answer::complete(200));
    given_body body;
    body.bytes = std::string(5000, 'a') + "end, and what is not announced";
    rest_call call("PUT", peer.url());
    call.headers = {{"Transfer-Encoding", ""}, {"Content-Length", "5003"}};
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.header_count("Content-Length"), 1U);
    EXPECT_EQ(request.header_count("Transfer-Encoding"), 0U);
    EXPECT_EQ(request.body, std::string(5000, 'a') + "end");
}

TEST_F(RestRequest, SendsAForeignBodyWithoutLengthInChunks)
{
    peer.answer(http_peer_answer::complete(200));
    given_body body;
    body.bytes = std::string(5000, 'a') + "end";
    rest_call call("POST", peer.url());
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.header("Transfer-Encoding"), "chunked");
    EXPECT_FALSE(request.header("Content-Length"));
    EXPECT_EQ(request.body, body.bytes);
}

TEST_F(RestRequest, RefusesABodyThatCannotBeFramed)
{
    given_body body;
    rest_call unframed("POST", peer.url());
    unframed.headers = {{"Transfer-Encoding", ""}};
    body.attach(unframed);
    EXPECT_FALSE(unframed.send().ok());
    rest_call no_number("POST", peer.url());
    no_number.headers = {{"Content-Length", "12a"}};
    body.attach(no_number);
    EXPECT_FALSE(no_number.send().ok());
    rest_call no_body("POST", peer.url());
    no_body.headers = {{"Content-Length", "12"}};
    EXPECT_FALSE(no_body.send().ok());
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(RestRequest, FailsForGoodWhenTheBodyEndsEarly)
{
    peer.answer(http_peer_answer().await_close());
    given_body body;
    body.bytes = "four";
    rest_call call("PUT", peer.url());
    call.headers = {{"Content-Length", "5"}};
    body.attach(call);
    const auto outcome = call.send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("ended before its announced length"));
}

TEST_F(RestRequest, ReturnsACallbacksOwnFailureUnchanged)
{
    peer.on_request([](const auto &) { return http_peer_answer::complete(200, "content"); });
    static const auto own = [] {
        return tirval_error_put(
            tirval_error_construct_error(nullptr, nullptr, 3, nullptr, nullptr, 0, "%s", "mine"));
    };
    const auto expect_own = [](const rest_outcome &outcome) {
        EXPECT_EQ(outcome.text, "mine");
        EXPECT_FALSE(outcome.retryable);
    };
    rest_call writing("PUT", peer.url());
    given_body given;
    given.bytes = "text";
    given.before_each = own;
    given.attach(writing);
    expect_own(writing.send());

    rest_call reading("GET", peer.url());
    collected_body collected;
    collected.after_each = own;
    collected.attach(reading);
    expect_own(reading.send());

    rest_call answered("GET", peer.url());
    answered.callbacks.response_callback =
        [](void *, int, const char *, const tirval_dsi_rest_key_array_t *) { return own(); };
    expect_own(answered.send());
}

TEST_F(RestRequest, ReturnsACallbackResultThatNamesNoObject)
{
    peer.answer(http_peer_answer::complete(200, "content"));
    rest_call call("GET", peer.url());
    collected_body body;
    body.after_each = [] { return TIRVAL_FAILURE; };
    body.attach(call);
    const auto outcome = call.send();
    EXPECT_EQ(outcome.result, TIRVAL_FAILURE);
    EXPECT_FALSE(outcome.retryable);
}

TEST_F(RestRequest, TellsTheCompleteCallbackTheResult)
{
    peer.answer(http_peer_answer::complete(200));
    std::vector<tirval_result_t> told;
    const auto note = [](void *arg, tirval_result_t result) {
        static_cast<std::vector<tirval_result_t> *>(arg)->push_back(result);
        return TIRVAL_SUCCESS;
    };
    rest_call good("GET", peer.url()), bad("GET", "nonsense");
    for (auto *call : {&good, &bad}) {
        call->callbacks.complete_callback = note;
        call->callbacks.complete_callback_arg = &told;
    }
    EXPECT_TRUE(good.send().ok());
    const auto failed = bad.send();
    EXPECT_THAT(told, testing::ElementsAre(TIRVAL_SUCCESS, failed.result));
}

TEST_F(RestRequest, MakesACompleteCallbacksFailureTheResultOfASuccess)
{
    peer.answer(http_peer_answer::complete(200));
    rest_call call("GET", peer.url());
    call.callbacks.complete_callback = [](void *, tirval_result_t) { return TIRVAL_FAILURE; };
    EXPECT_EQ(call.send().result, TIRVAL_FAILURE);
}

TEST_F(RestRequest, RefusesARequestFromWithinAnother)
{
    peer.answer(http_peer_answer::complete(200, "content"));
    rest_outcome inner;
    rest_call call("GET", peer.url());
    collected_body body;
    body.after_each = [&] {
        inner = rest_call("GET", peer.url("/inner")).send();
        return TIRVAL_SUCCESS;
    };
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_FALSE(inner.ok());
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(RestRequest, NamesTheRequestInErrorsButNoSecret)
{
    peer.on_request([](const auto &) { return http_peer_answer().close(); });
    rest_call bearer("GET", peer.url("/v1.0/me/drive?sig=querysecret"));
    bearer.headers = {{"Authorization", "Bearer tokensecret"}};
    const auto named = bearer.send();
    EXPECT_THAT(named.text, HasSubstr("GET " + peer.url("/v1.0/me/drive") + " failed"));
    EXPECT_THAT(named.text, Not(HasSubstr("secret")));

    rest_call preauthenticated("PUT", peer.url("/pathsecret?tempauth=querysecret"));
    const auto host_only = preauthenticated.send();
    EXPECT_THAT(host_only.text, HasSubstr("PUT " + peer.url("") + " failed"));
    EXPECT_THAT(host_only.text, Not(HasSubstr("secret")));
    EXPECT_THAT(rest_call("GET", "https://user:passsecret@h/pathsecret").send().text,
                Not(HasSubstr("secret")));
}

TEST_F(RestRequest, CallsTheProgressCallbackWhileItWaits)
{
    peer.answer(http_peer_answer()
                    .pause(1500ms)
                    .send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nab")
                    .pause(600ms)
                    .send("cd"));
    struct seen_progress {
        int calls = 0;
        uint64_t received = 0;
        uint64_t longest_idle = 0;
    } seen;
    rest_call call("GET", peer.url());
    call.callbacks.progress_callback = [](void *arg, uint64_t, uint64_t received, uint64_t idle) {
        auto &me = *static_cast<seen_progress *>(arg);
        ++me.calls;
        me.received = received;
        me.longest_idle = std::max(me.longest_idle, idle);
        return TIRVAL_SUCCESS;
    };
    call.callbacks.progress_callback_arg = &seen;
    EXPECT_TRUE(call.send().ok());
    EXPECT_GE(seen.calls, 4);
    EXPECT_EQ(seen.received, 2U);
    EXPECT_GE(seen.longest_idle, 1000U);
}

TEST_F(RestRequest, AnswersAHeadRequestWithoutABody)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n"));
    rest_call call("HEAD", peer.url());
    collected_body body;
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(body.bytes, "");
    EXPECT_EQ(tirval_dsi_rest_last_status(), 200);
}

TEST_F(RestRequest, SpeaksToThisMachineDirectlyWhateverProxyIsSet)
{
    peer.answer(http_peer_answer::complete(200));
    ::setenv("http_proxy", "http://127.0.0.1:9", 1);
    EXPECT_TRUE(rest_call("GET", peer.url("/direct")).send().ok());
    ::unsetenv("http_proxy");
    EXPECT_EQ(peer.requests().at(0).target, "/direct");
}
