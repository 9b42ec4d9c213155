// Pins how bodies move between a request and an operation's client.
#include "memory_backend.h"
#include "rest_fixture.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

class RestTransfer : public rest_test {
  protected:
    /* One download of `range`, with as many attempts as are told; the attempts' outcomes. */
    std::vector<rest_outcome> download(memory_range range, int attempts = 1,
                                       tirval_off_t known_size = -1)
    {
        std::vector<rest_outcome> outcomes;
        host.ranges = {range};
        host.in_send(
            [&](tirval_gfs_operation_t op) {
                tirval_gridftp_server_begin_transfer(op, 0, nullptr);
                tirval_off_t offset = 0, length = 0;
                tirval_gridftp_server_get_read_range(op, &offset, &length);
                for (int i = 0; i < attempts; ++i) {
                    tirval_dsi_rest_gridftp_op_arg_t record = {op, offset, length, false};
                    rest_call call("GET", peer.url("/download"));
                    call.callbacks.data_read_callback = tirval_dsi_rest_read_gridftp_op;
                    call.callbacks.data_read_callback_arg = &record;
                    outcomes.push_back(call.send());
                }
            },
            known_size);
        return outcomes;
    }

    /* A PUT of {offset, length} from the operation's client; an idle limit of 0 is none. */
    rest_outcome put(tirval_dsi_rest_gridftp_op_arg_t &record, intptr_t idle_limit_ms = 0)
    {
        rest_call call("PUT", peer.url("/upload"));
        call.headers = {{"Transfer-Encoding", ""},
                        {"Content-Length", std::to_string(record.length)}};
        call.callbacks.data_write_callback = tirval_dsi_rest_write_gridftp_op;
        call.callbacks.data_write_callback_arg = &record;
        call.callbacks.progress_callback = tirval_dsi_rest_progress_idle_timeout;
        call.callbacks.progress_callback_arg = reinterpret_cast<void *>(idle_limit_ms);
        json_answer body;
        body.attach(call);
        return call.send();
    }

    /* A store of `host.upload`, in which the body runs with a transfer that has begun. */
    void store(const memory_backend::body &body, tirval_off_t announced)
    {
        host.in_recv(
            [&](tirval_gfs_operation_t op) {
                tirval_gridftp_server_begin_transfer(op, 0, nullptr);
                body(op);
            },
            announced);
    }

    http_peer peer;
    memory_backend host;
};

/* Bytes that tell their place. */
static std::string pattern(size_t size)
{
    std::string data(size, '\0');
    for (size_t index = 0; index < size; ++index) {
        data[index] = static_cast<char>(index * 31 + index / 251);
    }
    return data;
}

static tirval_off_t as_offset(size_t size)
{
    return static_cast<tirval_off_t>(size);
}

TEST_F(RestTransfer, AWholeFileReachesTheClient)
{
    const std::string text(1000000, 'd');
    peer.answer(http_peer_answer::complete(200, text));
    EXPECT_TRUE(download({0, -1}).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_TRUE(host.sent_bytes() == text);
}

TEST_F(RestTransfer, AChunkedFileReachesTheClient)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\n"
                                        "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"));
    EXPECT_TRUE(download({0, -1}).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), "abcde");
}

TEST_F(RestTransfer, ARangeReachesTheClientAtItsOffset)
{
    peer.answer(http_peer_answer::complete(206, "cde", {{"Content-Range", "bytes 2-4/9"}}));
    EXPECT_TRUE(download({2, 3}).at(0).ok());
    ASSERT_EQ(host.sent.size(), 1U);
    EXPECT_EQ(host.sent[0].offset, 2);
    EXPECT_EQ(host.sent[0].bytes, "cde");
    peer.answer(http_peer_answer::complete(206, "hi", {{"Content-Range", "bytes 7-8/9"}}));
    EXPECT_TRUE(download({7, -1}).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

TEST_F(RestTransfer, AnEmptyFileIsDelivered)
{
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(download({0, -1}).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    peer.answer(http_peer_answer().send("HTTP/1.1 204 x\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_TRUE(download({0, -1}).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

TEST_F(RestTransfer, AnAnswerWithoutContentDoesNotCountAsTheFile)
{
    for (const int status : {204, 404, 405, 410, 416, 451, 503}) {
        peer.answer(http_peer_answer::complete(status, status == 204 ? "" : "<html>"));
        EXPECT_TRUE(download({0, -1}).at(0).ok()) << status;
        EXPECT_EQ(host.answer.code, 451) << status;
        EXPECT_EQ(host.sent_bytes(), "");
    }
}

TEST_F(RestTransfer, ABodyUnderAStatusThatHasNoContentIsNotTheFile)
{
    for (const int status : {201, 202, 203}) {
        peer.answer(http_peer_answer::complete(status, "accepted"));
        const auto outcome = download({0, -1}).at(0);
        EXPECT_FALSE(outcome.ok()) << status;
        EXPECT_FALSE(outcome.retryable);
        EXPECT_EQ(host.sent_bytes(), "");
        EXPECT_FALSE(host.answer.success());
    }
}

TEST_F(RestTransfer, ARangeBeyondTheEndIsLeftToTheOperation)
{
    peer.answer(http_peer_answer::complete(416, "", {{"Content-Range", "bytes */9"}}));
    EXPECT_TRUE(download({9, -1}, 1, 9).at(0).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

TEST_F(RestTransfer, AnotherRangeThanAskedForFailsAndDeliversNothing)
{
    const std::vector<http_peer_answer> answers = {
        http_peer_answer::complete(200, "abcdefghi"),
        http_peer_answer::complete(206, "abc", {{"Content-Range", "bytes 0-2/9"}}),
        http_peer_answer::complete(206, "cdef", {{"Content-Range", "bytes 2-5/9"}}),
        http_peer_answer::complete(206, "cd", {{"Content-Range", "bytes 2-3/9"}}),
        http_peer_answer::complete(206, "cde"),
        http_peer_answer::complete(302, "", {{"Location", "https://elsewhere/"}})};
    for (const auto &answer : answers) {
        peer.answer(answer);
        const auto outcome = download({2, 3}).at(0);
        EXPECT_FALSE(outcome.ok());
        EXPECT_FALSE(outcome.retryable) << outcome.text;
        EXPECT_EQ(host.sent_bytes(), "");
        EXPECT_FALSE(host.answer.success());
    }
}

TEST_F(RestTransfer, ABrokenDownloadContinuesWithoutSendingAByteTwice)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabcd")
                    .pause(50ms)
                    .reset());
    peer.answer(http_peer_answer::complete(200, "abcdefghi"));
    const auto outcomes = download({0, -1}, 2);
    EXPECT_FALSE(outcomes.at(0).ok());
    EXPECT_TRUE(outcomes.at(0).retryable) << outcomes.at(0).text;
    EXPECT_TRUE(outcomes.at(1).ok());
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), "abcdefghi");
}

TEST_F(RestTransfer, ABrokenDownloadIsNotReportedAsWhole)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabcd").close());
    EXPECT_TRUE(download({0, -1}).at(0).retryable);
    EXPECT_FALSE(host.answer.success());
}

TEST_F(RestTransfer, AChunkedDownloadThatBreaksOffIsNotReportedAsWhole)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n")
                    .close());
    EXPECT_TRUE(download({0, -1}).at(0).retryable);
    EXPECT_EQ(host.sent_bytes(), "abcd");
    EXPECT_EQ(host.answer.code, 451) << host.answer.text;
}

TEST_F(RestTransfer, ADownloadWhoseEndIsNotAnnouncedFails)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 x\r\n\r\nabcd").close());
    EXPECT_FALSE(download({0, -1}).at(0).ok());
    EXPECT_FALSE(host.answer.success());
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(RestTransfer, AClientThatIsLostEndsTheDownloadWithItsError)
{
    host.send_fails_after = 20000;
    peer.answer(http_peer_answer::complete(200, std::string(1000000, 'd')));
    const auto outcome = download({0, -1}).at(0);
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_EQ(host.answer.code, 426) << host.answer.text;
}

TEST_F(RestTransfer, AFailedBeginSendsNoRequest)
{
    host.begin_fails = true;
    EXPECT_FALSE(download({0, -1}).at(0).ok());
    EXPECT_TRUE(peer.requests().empty());
    EXPECT_EQ(host.answer.code, 425) << host.answer.text;
}

TEST_F(RestTransfer, AnUploadTakesExactlyItsLengthFromTheClient)
{
    host.upload = std::string(300000, 'u') + "rest";
    peer.answer(http_peer_answer::json(200, "{}"));
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 300000, false};
            EXPECT_TRUE(put(record).ok());
            EXPECT_FALSE(record.eof);
            EXPECT_EQ(record.offset, 0);
            EXPECT_EQ(record.length, 300000);
        },
        300004);
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.header("Content-Length"), "300000");
    EXPECT_EQ(request.header_count("Content-Length"), 1U);
    EXPECT_EQ(request.header_count("Transfer-Encoding"), 0U);
    EXPECT_TRUE(request.body == std::string(300000, 'u'));
}

TEST_F(RestTransfer, AnUploadNotesTheEndOfTheClientsData)
{
    // The end is seen while the service takes its time over the answer.
    host.upload = "content";
    peer.answer(
        http_peer_answer().pause(500ms).send("HTTP/1.1 201 x\r\nContent-Length: 2\r\n\r\n{}"));
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 7, false};
            EXPECT_TRUE(put(record).ok());
            EXPECT_TRUE(record.eof);
        },
        7);
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).body, "content");
}

TEST_F(RestTransfer, TheNextPartIsReceivedWhileTheServiceAnswers)
{
    host.upload = std::string(100000, '1') + std::string(100000, '2');
    peer.answer(
        http_peer_answer().pause(500ms).send("HTTP/1.1 202 x\r\nContent-Length: 2\r\n\r\n{}"));
    peer.answer(http_peer_answer::json(201, "{}"));
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            tirval_dsi_rest_gridftp_op_arg_t first = {op, 0, 100000, false};
            EXPECT_TRUE(put(first).ok());
            EXPECT_EQ(host.received, 200000U);
            tirval_dsi_rest_gridftp_op_arg_t second = {op, 100000, 100000, false};
            EXPECT_TRUE(put(second).ok());
        },
        200000);
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_TRUE(peer.requests().at(1).body == std::string(100000, '2'));
}

TEST_F(RestTransfer, ARepeatedPartSendsTheSameBytes)
{
    host.upload = std::string(200000, 'p') + "q";
    peer.answer(http_peer_answer().close());
    peer.answer(http_peer_answer::json(200, "{}"));
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 200001, false};
            EXPECT_TRUE(put(record).retryable);
            EXPECT_TRUE(put(record).ok());
        },
        200001);
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_TRUE(requests[0].body == host.upload);
    EXPECT_TRUE(requests[1].body == host.upload);
}

TEST_F(RestTransfer, AnUploadWhoseClientEndsEarlyIsFinal)
{
    host.upload = "short";
    peer.answer(http_peer_answer().await_close());
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 100, false};
            const auto outcome = put(record);
            EXPECT_FALSE(outcome.ok());
            EXPECT_FALSE(outcome.retryable);
        },
        100);
    EXPECT_FALSE(host.answer.success());
}

TEST_F(RestTransfer, AnEmptyUploadAnnouncesLengthZero)
{
    peer.answer(http_peer_answer::json(201, "{}"));
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 0, false};
        EXPECT_TRUE(put(record).ok());
    });
    EXPECT_EQ(peer.requests().at(0).header("Content-Length"), "0");
}

TEST_F(RestTransfer, ARecordWithoutItsOperationIsRefused)
{
    tirval_dsi_rest_gridftp_op_arg_t record = {nullptr, 0, -1, false};
    rest_call get("GET", peer.url());
    get.callbacks.data_read_callback = tirval_dsi_rest_read_gridftp_op;
    get.callbacks.data_read_callback_arg = &record;
    EXPECT_EQ(get.send().type, TIRVAL_ERROR_TYPE_ARGUMENT);
    EXPECT_EQ(put(record).type, TIRVAL_ERROR_TYPE_ARGUMENT);
    EXPECT_TRUE(peer.requests().empty());
}

/* ---- Repeated parts -------------------------------------------------------------------------- */

constexpr size_t mebibyte = 1024UL * 1024;

class RestRepeatedPart : public RestTransfer, public testing::WithParamInterface<size_t> {
  protected:
    /* What the service gets when it resets the first attempt after so many bytes of its body. */
    void expect_same_bytes(size_t cut, bool more_follows)
    {
        const size_t length = GetParam();
        host.upload = pattern(length + (more_follows ? 2 * mebibyte : 0));
        const std::string_view whole = host.upload;
        const size_t earlier = peer.requests().size();
        // The pause lets the client's next bytes be received while the answer is awaited.
        peer.answer(http_peer_answer().stop_body_after(cut).pause(30ms).reset());
        peer.answer(http_peer_answer::json(202, "{}"));
        peer.answer(http_peer_answer::json(201, "{}"));
        store(
            [&](tirval_gfs_operation_t op) {
                tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, as_offset(length), false};
                const auto first = put(record);
                EXPECT_TRUE(first.retryable) << first.text;
                EXPECT_EQ(record.offset, 0);
                EXPECT_EQ(record.length, as_offset(length));
                EXPECT_TRUE(put(record).ok());
                tirval_dsi_rest_gridftp_op_arg_t rest = {op, as_offset(length),
                                                         as_offset(whole.size() - length), false};
                EXPECT_TRUE(put(rest).ok());
            },
            as_offset(whole.size()));
        const auto requests = peer.requests();
        ASSERT_EQ(requests.size(), earlier + 3);
        EXPECT_TRUE(whole.starts_with(requests[earlier].body));
        EXPECT_TRUE(requests[earlier + 1].body == whole.substr(0, length));
        EXPECT_TRUE(requests[earlier + 2].body == whole.substr(length));
    }
};

TEST_P(RestRepeatedPart, IsTheSameWhereverTheServiceBrokeOff)
{
    const size_t length = GetParam();
    for (const size_t cut :
         {0UL, 1UL, length / 2, mebibyte, length - std::min(length, 1UL), length}) {
        if (cut <= length) {
            SCOPED_TRACE(cut);
            expect_same_bytes(cut, false);
            expect_same_bytes(cut, true);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, RestRepeatedPart,
                         testing::Values(0UL, 1UL, mebibyte - 1, mebibyte + 1, 10 * mebibyte));

TEST_F(RestTransfer, TheEndOfTheClientsDataIsNeverForgotten)
{
    host.upload = "content";
    peer.answer(http_peer_answer().pause(500ms).close());
    peer.answer(http_peer_answer::json(503, "{}"));
    peer.answer(http_peer_answer::json(201, "{}"));
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 7, false};
            EXPECT_TRUE(put(record).retryable);
            EXPECT_TRUE(record.eof) << "seen while the answer was awaited";
            EXPECT_TRUE(put(record).ok());
            EXPECT_TRUE(record.eof);
            EXPECT_TRUE(put(record).ok());
            EXPECT_TRUE(record.eof);
        },
        7);
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

TEST_F(RestTransfer, ThereIsNoEndWhileReceivedBytesAreLeft)
{
    // The whole of the client's data, and its end, are seen during the first part.
    host.upload = "firstsecond";
    peer.answer(
        http_peer_answer().pause(500ms).send("HTTP/1.1 202 x\r\nContent-Length: 2\r\n\r\n{}"));
    peer.answer(http_peer_answer::json(201, "{}"));
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t first = {op, 0, 5, false};
            EXPECT_TRUE(put(first).ok());
            EXPECT_FALSE(first.eof);
            tirval_dsi_rest_gridftp_op_arg_t second = {op, 5, 6, false};
            EXPECT_TRUE(put(second).ok());
            EXPECT_TRUE(second.eof);
        },
        11);
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

/* ---- How a part is framed -------------------------------------------------------------------- */

TEST_F(RestTransfer, APartIsFramedByItsLengthAloneAndSentWithoutBeingAskedFor)
{
    for (const size_t length : {0UL, 1UL, 3 * mebibyte}) {
        host.upload = std::string(length, 'f');
        peer.answer(http_peer_answer::json(201, "{}"));
        store(
            [&](tirval_gfs_operation_t op) {
                tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, as_offset(length), false};
                EXPECT_TRUE(put(record).ok());
            },
            as_offset(length));
        const auto request = peer.requests().back();
        EXPECT_EQ(request.header_count("Content-Length"), 1U);
        EXPECT_EQ(request.header("Content-Length"), std::to_string(length));
        EXPECT_EQ(request.header_count("Transfer-Encoding"), 0U);
        EXPECT_EQ(request.header_count("Expect"), 0U);
        EXPECT_EQ(request.header_count("Content-Type"), 0U);
        EXPECT_EQ(request.body_size, length);
        EXPECT_TRUE(request.body_complete);
    }
}

TEST_F(RestTransfer, AnEarlyAnswerDoesNotCutAPartShort)
{
    // The service answers, and only then reads the part: it gets all of it.
    host.upload = pattern(8 * mebibyte);
    peer.answer(http_peer_answer::json(202, "{}").before_body());
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, as_offset(host.upload.size()), false};
            EXPECT_TRUE(put(record).ok());
        },
        as_offset(host.upload.size()));
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_EQ(peer.connections(), 1U) << "the part was read before the next request";
    EXPECT_TRUE(peer.requests().at(0).body == host.upload);
}

TEST_F(RestTransfer, ARefusedPartCanBeRepeatedFromItsFirstByte)
{
    host.upload = pattern(8 * mebibyte);
    peer.answer(http_peer_answer::json(503, "{}").before_body());
    peer.answer(http_peer_answer::json(201, "{}"));
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, as_offset(host.upload.size()), false};
            EXPECT_TRUE(put(record).ok());
            EXPECT_EQ(tirval_dsi_rest_last_status(), 503);
            EXPECT_TRUE(put(record).ok());
        },
        as_offset(host.upload.size()));
    EXPECT_TRUE(peer.requests().back().body == host.upload);
}

/* ---- Who is waited for ----------------------------------------------------------------------- */

TEST_F(RestTransfer, AClientThatPausesIsNotAnIdleService)
{
    host.upload = "abcd";
    host.upload_chunk = 1;
    host.on_receive = [] { std::this_thread::sleep_for(700ms); };
    peer.answer(http_peer_answer::json(201, "{}"));
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 4, false};
            const auto outcome = put(record, 600);
            EXPECT_TRUE(outcome.ok()) << outcome.text;
        },
        4);
    EXPECT_EQ(peer.requests().at(0).body, "abcd");
}

TEST_F(RestTransfer, AServiceIsIdleThoughTheClientKeepsSending)
{
    // More is to be received ahead than there is time for.
    host.upload = std::string(10 * mebibyte, 'a');
    host.upload_chunk = 1;
    peer.answer(http_peer_answer().await_close());
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 4, false};
            const auto outcome = put(record, 300);
            EXPECT_TRUE(outcome.retryable) << outcome.text;
            EXPECT_THAT(outcome.text, HasSubstr("has moved no data for too long"));
        },
        as_offset(host.upload.size()));
    EXPECT_GT(host.received, 4U);
}

TEST_F(RestTransfer, ASilentClientIsNotWaitedForWhileTheServiceAnswers)
{
    host.upload = "abcd";
    host.upload_ends = false;
    int waits = 0;
    host.on_receive = [&] { ++waits; };
    peer.answer(
        http_peer_answer().pause(200ms).send("HTTP/1.1 202 x\r\nContent-Length: 2\r\n\r\n{}"));
    store(
        [&](tirval_gfs_operation_t op) {
            tirval_dsi_rest_gridftp_op_arg_t record = {op, 0, 4, false};
            EXPECT_TRUE(put(record).ok());
        },
        8);
    EXPECT_EQ(waits, 1) << "for the part itself";
}
