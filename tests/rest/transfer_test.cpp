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

    /* A PUT of {offset, length} from the operation's client. */
    rest_outcome put(tirval_dsi_rest_gridftp_op_arg_t &record)
    {
        rest_call call("PUT", peer.url("/upload"));
        call.headers = {{"Transfer-Encoding", ""},
                        {"Content-Length", std::to_string(record.length)}};
        call.callbacks.data_write_callback = tirval_dsi_rest_write_gridftp_op;
        call.callbacks.data_write_callback_arg = &record;
        json_answer body;
        body.attach(call);
        return call.send();
    }

    http_peer peer;
    memory_backend host;
};

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
