// Pins what becomes of a request whose peer breaks, lies or wedges, over real sockets.
#include "rest_fixture.h"

#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;

class RestFaults : public rest_test {
  protected:
    rest_outcome get(const http_peer_answer &answer)
    {
        peer.answer(answer);
        return rest_call("GET", peer.url()).send();
    }
    /* Leaves a kept connection behind. */
    void warm_up()
    {
        peer.answer(http_peer_answer::json(200, "{}"));
        ASSERT_TRUE(rest_call("GET", peer.url()).send().ok());
    }

    http_peer peer;
};

static void expect_failure(const rest_outcome &outcome, bool retryable, const char *text)
{
    EXPECT_FALSE(outcome.ok());
    EXPECT_EQ(outcome.retryable, retryable) << outcome.text;
    EXPECT_THAT(outcome.text, HasSubstr(text));
}

TEST_F(RestFaults, ARequestIsNeverSentTwiceWhenAKeptConnectionDies)
{
    for (const auto *method : {"GET", "POST", "PUT", "DELETE", "PATCH"}) {
        for (const bool by_reset : {false, true}) {
            warm_up();
            const auto sent = peer.requests().size();
            peer.answer(by_reset ? http_peer_answer().reset() : http_peer_answer().close());
            const auto outcome = rest_call(method, peer.url()).send();
            expect_failure(outcome, true, "the connection was lost before an answer");
            EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_NETWORK);
            EXPECT_EQ(peer.requests().size(), sent + 1) << method;
        }
    }
    EXPECT_EQ(peer.unexpected(), 0U);
}

TEST_F(RestFaults, ARequestWithABodyIsNeverSentTwiceAndTheNextOneWorks)
{
    for (const size_t size : {5UL, 300000UL}) {
        const std::string text(size, 'b');
        tirval_dsi_rest_write_block_arg_t block = {text.data(), text.size()};
        rest_call put("PUT", peer.url());
        put.callbacks.data_write_callback = tirval_dsi_rest_write_block;
        put.callbacks.data_write_callback_arg = &block;
        warm_up();
        const auto sent = peer.requests().size();
        peer.answer(http_peer_answer().close());
        expect_failure(put.send(), true, "the connection was lost before an answer");
        EXPECT_EQ(peer.requests().size(), sent + 1);
        peer.answer(http_peer_answer::json(200, "{}"));
        EXPECT_TRUE(put.send().ok());
        EXPECT_TRUE(peer.requests().back().body == text);
    }
    EXPECT_EQ(peer.unexpected(), 0U);
}

TEST_F(RestFaults, AConnectionThatDiedWhileIdleIsReplacedUnseen)
{
    warm_up();
    peer.close_connections();
    std::this_thread::sleep_for(50ms);
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_EQ(peer.connections(), 2U);
}

TEST_F(RestFaults, NoAnswerAtAllIsRetryable)
{
    expect_failure(get(http_peer_answer().close()), true, "without an answer");
    expect_failure(get(http_peer_answer().reset()), true, "could not be received");
}

TEST_F(RestFaults, ARefusedConnectionIsRetryable)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A port that is bound but does not listen refuses everybody.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&address), size), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size), 0);
    const auto url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    expect_failure(rest_call("GET", url).send(), true, "no connection could be made");
    ::close(listener);
}

TEST_F(RestFaults, ABodyShorterThanAnnouncedIsRetryable)
{
    expect_failure(
        get(http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc").close()),
        true, "the answer broke off");
    expect_failure(get(http_peer_answer()
                           .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nab")
                           .close()),
                   true, "the answer broke off");
}

TEST_F(RestFaults, AResetWithinHeadersOrBodyIsRetryable)
{
    expect_failure(get(http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Le").pause(50ms).reset()),
                   true, "could not be received");
    EXPECT_EQ(tirval_dsi_rest_last_status(), 0);
    expect_failure(get(http_peer_answer()
                           .send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc")
                           .pause(50ms)
                           .reset()),
                   true, "could not be received");
    EXPECT_EQ(tirval_dsi_rest_last_status(), 200);
}

TEST_F(RestFaults, AnAnswerThatEndsWithinItsHeadersIsRetryable)
{
    for (const auto *head : {"HTTP/1.1 200 OK\r\nContent-Le", "HTTP/1.1 200 OK\r\nA: b\r\n",
                             "HTTP/1.1 100 Continue\r\n\r\n"}) {
        expect_failure(get(http_peer_answer().send(head).close()), true, "");
        EXPECT_EQ(tirval_dsi_rest_last_status(), 0);
    }
}

TEST_F(RestFaults, BadChunkingIsRetryable)
{
    expect_failure(get(http_peer_answer()
                           .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nab\r\n")
                           .await_close()),
                   true, "could not be received");
}

TEST_F(RestFaults, ABrokenAnswerIsNotRetryableOnceACallbackKeptAPart)
{
    for (const bool by_reset : {false, true}) {
        auto answer =
            http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc").pause(100ms);
        peer.answer(by_reset ? answer.reset() : answer.close());
        rest_call call("GET", peer.url());
        collected_body body;
        body.attach(call);
        expect_failure(call.send(), false, "cannot be asked for again");
        EXPECT_EQ(body.bytes, "abc");
    }
}

TEST_F(RestFaults, AnAnswerThatIsNotHttpIsFinal)
{
    expect_failure(get(http_peer_answer().send("SSH-2.0-OpenSSH_9.2\r\n").close()), false,
                   "not HTTP");
    expect_failure(get(http_peer_answer().send("HTTP/1.1 banana\r\n\r\n").close()), false,
                   "not HTTP");
}

TEST_F(RestFaults, ContradictingLengthsAreFinalForContent)
{
    peer.answer(http_peer_answer().send(
        "HTTP/1.1 200 x\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd"));
    rest_call call("GET", peer.url());
    collected_body body;
    body.attach(call);
    expect_failure(call.send(), false, "Content-Length");
    EXPECT_EQ(body.bytes, "");
}

TEST_F(RestFaults, EndlessHeaderLinesEndInAClearError)
{
    expect_failure(get(http_peer_answer().send("HTTP/1.1 200 x\r\n").repeat("A: b\r\n", 100000000)),
                   false, "too many headers");
    expect_failure(get(http_peer_answer()
                           .send("HTTP/1.1 200 x\r\n")
                           .repeat("A: " + std::string(30000, 'b') + "\r\n", 100000000)),
                   false, "too many headers");
}

TEST_F(RestFaults, AnEndlessHeaderLineEndsInAClearError)
{
    const auto outcome = get(
        http_peer_answer().send("HTTP/1.1 200 x\r\nA: ").repeat(std::string(10000, 'b'), 1000000));
    expect_failure(outcome, false, "header line is too long");
}

TEST_F(RestFaults, EndlessInterimAnswersEndInAClearError)
{
    expect_failure(get(http_peer_answer().repeat("HTTP/1.1 100 Continue\r\n\r\n", 100000000)),
                   false, "too many headers");
}

TEST_F(RestFaults, EndlessTrailersEndInAClearError)
{
    const auto outcome =
        get(http_peer_answer()
                .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\nTrailer: A\r\n\r\n0\r\n")
                .repeat("A: b\r\n", 100000000));
    expect_failure(outcome, false, "too many headers");
}

TEST_F(RestFaults, AnEarlyRefusalOfALongBodyIsTaken)
{
    peer.answer(http_peer_answer::json(413, R"({"error":{"code":"tooLarge"}})").before_body());
    const std::string text(4UL * 1024 * 1024, 'x');
    tirval_dsi_rest_write_block_arg_t block = {text.data(), text.size()};
    rest_call call("PUT", peer.url());
    call.callbacks.data_write_callback = tirval_dsi_rest_write_block;
    call.callbacks.data_write_callback_arg = &block;
    json_answer body;
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(tirval_dsi_rest_last_status(), 413);
    EXPECT_TRUE(json_is_object(body.json));
}

/* ---- Cancelling ------------------------------------------------------------------------------ */

TEST_F(RestFaults, ACancelledOperationSendsNothing)
{
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
    const auto outcome = rest_call("GET", peer.url()).send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_CANCELLED);
    EXPECT_TRUE(peer.requests().empty());
    EXPECT_EQ(rest_call("GET", "no address").send().type, TIRVAL_ERROR_TYPE_CANCELLED)
        << "a cancelled call is not even looked at";
    tirval_gfs_cancel_clear();
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
}

TEST_F(RestFaults, ACancelEndsTheWaitForAnAnswer)
{
    std::thread canceller([this] {
        EXPECT_TRUE(peer.wait_for_requests(1));
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    });
    const auto outcome = get(http_peer_answer().await_close());
    canceller.join();
    EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_CANCELLED);
    EXPECT_FALSE(outcome.retryable);
}

TEST_F(RestFaults, ACancelEndsABodyInTheMiddle)
{
    peer.answer(
        http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 999\r\n\r\nabc").await_close());
    rest_call call("GET", peer.url());
    collected_body body;
    body.after_each = [] {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
        return TIRVAL_SUCCESS;
    };
    body.attach(call);
    EXPECT_EQ(call.send().type, TIRVAL_ERROR_TYPE_CANCELLED);
}

TEST_F(RestFaults, ACancelEndsAnUploadThatThePeerDoesNotRead)
{
    http_peer_options options;
    options.receive_buffer = 4096;
    http_peer wedged(options);
    wedged.answer(http_peer_answer().before_body().pause(60s));
    std::thread canceller([&] {
        EXPECT_TRUE(wedged.wait_for_requests(1));
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    });
    given_body body;
    body.bytes = std::string(16UL * 1024 * 1024, 'u');
    body.block = 65536;
    rest_call call("PUT", wedged.url());
    call.headers = {{"Content-Length", std::to_string(body.bytes.size())}};
    body.attach(call);
    const auto outcome = call.send();
    canceller.join();
    EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_CANCELLED);
}

/* ---- Idle time ------------------------------------------------------------------------------- */

static void limit_idle_time(rest_call &call, intptr_t ms)
{
    call.callbacks.progress_callback = tirval_dsi_rest_progress_idle_timeout;
    call.callbacks.progress_callback_arg = reinterpret_cast<void *>(ms);
}

TEST_F(RestFaults, APeerThatIsIdleTooLongIsRetryable)
{
    const std::array answers = {
        http_peer_answer().await_close(),
        http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Le").await_close(),
        http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc").await_close()};
    for (const auto &answer : answers) {
        peer.answer(answer);
        rest_call call("GET", peer.url());
        limit_idle_time(call, 300);
        const auto outcome = call.send();
        expect_failure(outcome, true, "has moved no data for too long (300 ms)");
        EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_NETWORK);
    }
}

TEST_F(RestFaults, IdlenessIsNotRetryableOnceACallbackKeptAPart)
{
    peer.answer(
        http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc").await_close());
    rest_call call("GET", peer.url());
    limit_idle_time(call, 300);
    collected_body body;
    body.attach(call);
    expect_failure(call.send(), false, "has moved no data for too long");
}

TEST_F(RestFaults, APeerThatKeepsMovingIsNotIdle)
{
    auto answer = http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 8\r\n\r\n");
    for (int i = 0; i < 8; ++i) {
        answer.pause(200ms).send("x");
    }
    peer.answer(answer);
    rest_call call("GET", peer.url());
    limit_idle_time(call, 900);
    EXPECT_TRUE(call.send().ok());
}

TEST_F(RestFaults, ALimitOfZeroIsNone)
{
    peer.answer(http_peer_answer().pause(500ms).send("HTTP/1.1 204 x\r\n\r\n"));
    rest_call call("GET", peer.url());
    limit_idle_time(call, 0);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(tirval_dsi_rest_progress_idle_timeout(nullptr, 0, 0, 1000000), TIRVAL_SUCCESS);
}

TEST_F(RestFaults, ASlowReceiverOfContentDoesNotMakeThePeerIdle)
{
    // The peer's next bytes come only after the receiver has taken its time.
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nContent-Length: 4\r\n\r\nab")
                    .pause(1700ms)
                    .send("cd"));
    rest_call call("GET", peer.url());
    limit_idle_time(call, 1000);
    collected_body body;
    body.after_each = [&] {
        std::this_thread::sleep_for(body.bytes.size() == 2 ? 1500ms : 0ms);
        return TIRVAL_SUCCESS;
    };
    body.attach(call);
    const auto outcome = call.send();
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    EXPECT_EQ(body.bytes, "abcd");
}

TEST_F(RestFaults, ASlowSourceOfABodyDoesNotMakeThePeerIdle)
{
    peer.answer(http_peer_answer::complete(200));
    rest_call call("PUT", peer.url());
    call.headers = {{"Content-Length", "3"}};
    limit_idle_time(call, 600);
    given_body body;
    body.bytes = "abc";
    body.block = 1;
    body.before_each = [] {
        std::this_thread::sleep_for(700ms);
        return TIRVAL_SUCCESS;
    };
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(peer.requests().at(0).body, "abc");
}

TEST_F(RestFaults, APeerThatTakesABodySlowlyIsNotIdle)
{
    // Everything fits into this side's socket buffer at once; the peer takes 3 s to read it.
    http_peer_options options;
    options.receive_buffer = 65536;
    http_peer slow(options);
    slow.answer(http_peer_answer::complete(200).read_slowly(32768, 50ms));
    const std::string text(2000000, 's');
    tirval_dsi_rest_write_block_arg_t block = {text.data(), text.size()};
    rest_call call("PUT", slow.url());
    call.callbacks.data_write_callback = tirval_dsi_rest_write_block;
    call.callbacks.data_write_callback_arg = &block;
    limit_idle_time(call, 1500);
    const auto outcome = call.send();
    EXPECT_TRUE(outcome.ok()) << outcome.text;
}

TEST_F(RestFaults, AProgressCallbacksFailureEndsTheRequest)
{
    peer.answer(http_peer_answer().await_close());
    rest_call call("GET", peer.url());
    call.callbacks.progress_callback = [](void *, uint64_t, uint64_t, uint64_t) {
        return TIRVAL_FAILURE;
    };
    EXPECT_EQ(call.send().result, TIRVAL_FAILURE);
}

/* ---- Processes ------------------------------------------------------------------------------- */

TEST_F(RestFaults, AForkedProcessLeavesItsParentsConnectionsAlone)
{
    peer.on_request([](const auto &) { return http_peer_answer::complete(200); });
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    const pid_t child = fork();
    if (child == 0) {
        ::_exit(rest_call("GET", peer.url("/child")).send().ok() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(rest_call("GET", peer.url("/parent")).send().ok());
    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[1].connection, 1U);
    EXPECT_EQ(requests[2].connection, 0U);
}
