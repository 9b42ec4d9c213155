/*
 * Downloads: ranges, repeated attempts, and what counts as a whole one.
 */
#include "memory_backend.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

constexpr tirval_off_t to_end = -1;

/* One attempt at {offset, length} that brings `bytes` in blocks and ends as told.  Returns the
 * first failure. */
tirval_result_t attempt(tirval_gfs_operation_t op, tirval_off_t offset, tirval_off_t length,
                        const std::string &bytes, bool complete, size_t block = 3)
{
    tirval_result_t result = tirval_gfs_stream_open_write(op, offset, length);
    for (size_t place = 0; result == TIRVAL_SUCCESS && place < bytes.size(); place += block) {
        size_t size = std::min(block, bytes.size() - place);
        result = tirval_gfs_stream_write(op, bytes.data() + place, size);
    }
    tirval_result_t closed =
        tirval_gfs_stream_close_write(op, complete && result == TIRVAL_SUCCESS);
    return result != TIRVAL_SUCCESS ? result : closed;
}

void begin(tirval_gfs_operation_t op)
{
    tirval_gridftp_server_begin_transfer(op, 0, nullptr);
}

memory_range next(tirval_gfs_operation_t op)
{
    memory_range range = {77, 77};
    tirval_gridftp_server_get_read_range(op, &range.offset, &range.length);
    return range;
}

class Download : public testing::Test {
  protected:
    ~Download() override { tirval_gfs_cancel_clear(); }

    void expect_incomplete() const
    {
        EXPECT_EQ(host.answer.code, 451);
        EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    }

    memory_backend host;
};

TEST_F(Download, AWholeFileIsOneRangeToTheEnd)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        memory_range range = next(op);
        EXPECT_EQ(range.offset, 0);
        EXPECT_EQ(range.length, to_end);
        EXPECT_EQ(attempt(op, 0, to_end, "hello world", true), TIRVAL_SUCCESS);
        EXPECT_EQ(next(op).length, 0);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.begins, 1);
    EXPECT_EQ(host.ranges_asked, 1);
    EXPECT_EQ(host.flushes, 1);
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_EQ(host.sent[0].offset, 0);
    EXPECT_EQ(host.sent[0].bytes, "hello world");
}

TEST_F(Download, BlocksReachTheBackEndAsTheyCome)
{
    static const char block[] = "unbuffered";
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        tirval_gfs_stream_open_write(op, 0, to_end);
        tirval_gfs_stream_write(op, block, 4);
        tirval_gfs_stream_write(op, block, 0);
        tirval_gfs_stream_write(op, block, 7);
        tirval_gfs_stream_close_write(op, true);
    });
    EXPECT_THAT(host.sent_blocks, ElementsAre(4u, 7u));
}

TEST_F(Download, RangesRepeatUntilThereAreNoMore)
{
    host.ranges = {{100, 5}, {7, 2}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        for (memory_range range = next(op); range.length != 0; range = next(op)) {
            std::string bytes(static_cast<size_t>(range.length), 'x');
            EXPECT_EQ(attempt(op, range.offset, range.length, bytes, true), TIRVAL_SUCCESS);
        }
        memory_range none = next(op);
        EXPECT_EQ(none.offset, 0);
        EXPECT_EQ(none.length, 0);
    });
    EXPECT_TRUE(host.answer.success());
    ASSERT_EQ(host.sent.size(), 2u);
    EXPECT_EQ(host.sent[0].offset, 100);
    EXPECT_EQ(host.sent[0].bytes, "xxxxx");
    EXPECT_EQ(host.sent[1].offset, 7);
    EXPECT_EQ(host.sent[1].bytes, "xx");
}

TEST_F(Download, ARangeToTheEndIsTheLastOne)
{
    host.ranges = {{4, to_end}, {0, 9}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(next(op).length, to_end);
        EXPECT_EQ(attempt(op, 4, to_end, "tail", true), TIRVAL_SUCCESS);
        EXPECT_EQ(next(op).length, 0);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.ranges_asked, 1);
    EXPECT_EQ(host.sent[0].offset, 4);
}

TEST_F(Download, NoRangeAtAllIsAWholeDownload)
{
    host.ranges = {};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(next(op).length, 0);
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Download, ARepeatedAttemptContinuesAfterWhatTheClientHas)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        EXPECT_EQ(attempt(op, 0, to_end, "hell", false), TIRVAL_SUCCESS);
        EXPECT_EQ(attempt(op, 0, to_end, "hello ", false, 5), TIRVAL_SUCCESS);
        EXPECT_EQ(attempt(op, 0, to_end, "hello world", true, 4), TIRVAL_SUCCESS);
    });
    EXPECT_TRUE(host.answer.success());
    ASSERT_EQ(host.sent.size(), 1u);
    EXPECT_EQ(host.sent[0].bytes, "hello world");
}

TEST_F(Download, ARepeatMayBreakOffEarlierThanTheAttemptBefore)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, to_end, "hello w", false);
        EXPECT_EQ(attempt(op, 0, to_end, "he", false), TIRVAL_SUCCESS);
        EXPECT_EQ(attempt(op, 0, to_end, "hello world", true), TIRVAL_SUCCESS);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.sent_bytes(), "hello world");
}

TEST_F(Download, ARepeatThatEndsShorterThanTheAttemptBeforeFailsTheTransfer)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, to_end, "hello", false);
        memory_outcome closed = memory_outcome::of(attempt(op, 0, to_end, "hell", true));
        EXPECT_EQ(closed.code, 451);
        EXPECT_EQ(closed.message, "The repeated download ended after 4 bytes, of which the client "
                                  "already has 5.");
        EXPECT_EQ(next(op).length, 0);
    });
    expect_incomplete();
    EXPECT_EQ(host.sent_bytes(), "hello");
    EXPECT_EQ(host.flushes, 0);
}

TEST_F(Download, ARepeatInTheSecondRangeStartsAtThatRangesFirstByte)
{
    host.ranges = {{0, 4}, {10, 4}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, 4, "abcd", true);
        next(op);
        attempt(op, 10, 4, "kl", false);
        EXPECT_EQ(attempt(op, 10, 4, "klmn", true), TIRVAL_SUCCESS);
        next(op);
    });
    EXPECT_TRUE(host.answer.success());
    ASSERT_EQ(host.sent.size(), 2u);
    EXPECT_EQ(host.sent[1].offset, 10);
    EXPECT_EQ(host.sent[1].bytes, "klmn");
}

TEST_F(Download, MoreBytesThanAskedForFailWithoutReachingTheClient)
{
    host.ranges = {{0, 4}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        EXPECT_EQ(tirval_gfs_stream_open_write(op, 0, 4), TIRVAL_SUCCESS);
        EXPECT_EQ(tirval_gfs_stream_write(op, "abc", 3), TIRVAL_SUCCESS);
        memory_outcome surplus = memory_outcome::of(tirval_gfs_stream_write(op, "de", 2));
        EXPECT_EQ(surplus.type, TIRVAL_ERROR_TYPE_SERVICE_ANSWER);
        tirval_gfs_stream_close_write(op, false);
    });
    expect_incomplete();
    EXPECT_EQ(host.sent_bytes(), "abc");
}

TEST_F(Download, ARangeThatTheClientDidNotAskForIsRefused)
{
    host.ranges = {{0, 4}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_NE(tirval_gfs_stream_open_write(op, 0, 4), TIRVAL_SUCCESS);
        next(op);
        EXPECT_NE(tirval_gfs_stream_open_write(op, 1, 4), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_write(op, 0, to_end), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_write(op, "a", 1), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_close_write(op, true), TIRVAL_SUCCESS);
    });
    expect_incomplete();
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, SuccessWithoutBeginningIsIncomplete)
{
    host.in_send([](tirval_gfs_operation_t) {});
    expect_incomplete();
    EXPECT_EQ(host.begins, 0);
}

TEST_F(Download, SuccessWithoutDeliveringTheRangeIsIncomplete)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
    });
    expect_incomplete();
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, to_end, "half", false);
    });
    expect_incomplete();
}

TEST_F(Download, SuccessAfterARangeThatWasLeftBehindIsIncomplete)
{
    host.ranges = {{0, 4}, {10, 4}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        next(op);
        EXPECT_EQ(attempt(op, 10, 4, "klmn", true), TIRVAL_SUCCESS);
        next(op);
    });
    expect_incomplete();
}

TEST_F(Download, SuccessWithoutAskingForTheFurtherRangesIsIncomplete)
{
    host.ranges = {{0, 4}, {10, 4}};
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        EXPECT_EQ(attempt(op, 0, 4, "abcd", true), TIRVAL_SUCCESS);
    });
    expect_incomplete();
}

TEST_F(Download, ARangeAtOrBeyondTheKnownEndNeedsNoBytes)
{
    host.ranges = {{100, to_end}};
    auto nothing = [](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
    };
    host.in_send(nothing, 100);
    EXPECT_TRUE(host.answer.success());
    host.in_send(nothing, 50);
    EXPECT_TRUE(host.answer.success());
    host.in_send(nothing, 101);
    expect_incomplete();
    host.in_send(nothing, -1);
    expect_incomplete();
}

TEST_F(Download, AFailureOfTheStorageIsHandedOn)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, to_end, "all", true);
        tirval_gridftp_server_finished_transfer(
            op, tirval_error_put(tirval_gfs_ftp_response_error_construct(
                    nullptr, nullptr, 550, "PATH_NOT_FOUND", nullptr)));
    });
    EXPECT_EQ(host.answer.code, 550);
    host.in_send([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
    });
    EXPECT_EQ(host.answer.result, TIRVAL_FAILURE);
}

TEST_F(Download, AFailedBeginIsTheOutcomeWhateverIsReported)
{
    host.begin_fails = true;
    for (bool reports_success : {true, false}) {
        host.in_send([&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_TRANSFER);
            memory_range range = next(op);
            EXPECT_EQ(range.offset, 0);
            EXPECT_EQ(range.length, 0);
            EXPECT_NE(tirval_gfs_stream_open_write(op, 0, to_end), TIRVAL_SUCCESS);
            tirval_gridftp_server_finished_transfer(op, reports_success ? TIRVAL_SUCCESS
                                                                        : TIRVAL_FAILURE);
        });
        EXPECT_EQ(host.answer.code, 425);
        EXPECT_EQ(host.answer.message, "Can't open data connection.");
        EXPECT_EQ(host.ranges_asked, 0);
        EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
    }
}

TEST_F(Download, ABrokenConnectionIsTheOutcomeOfAReportedSuccess)
{
    host.send_fails_after = 5;
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        EXPECT_EQ(memory_outcome::of(attempt(op, 0, to_end, "hello world", true)).code, 426);
        EXPECT_NE(tirval_gfs_stream_open_write(op, 0, to_end), TIRVAL_SUCCESS);
    });
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answer.tag, "CONNECTION_BROKEN");
    EXPECT_EQ(host.sent_bytes(), "hel");
}

TEST_F(Download, AFailedFlushIsTheOutcomeOfAReportedSuccess)
{
    host.flush_fails = true;
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        EXPECT_NE(attempt(op, 0, to_end, "hello", true), TIRVAL_SUCCESS);
    });
    EXPECT_EQ(host.answer.code, 426);
}

TEST_F(Download, ACancelledDownloadMovesNothingMoreAndIsAborted)
{
    host.on_send = [](size_t total) {
        if (total >= 6) {
            tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
        }
    };
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        memory_outcome cut = memory_outcome::of(attempt(op, 0, to_end, "hello world", true));
        EXPECT_EQ(cut.type, TIRVAL_ERROR_TYPE_CANCELLED);
    });
    EXPECT_EQ(host.sent_bytes(), "hello ");
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answer.tag, "TRANSFER_ABORTED");
    EXPECT_NE(host.answer.text.find("The client aborted the operation."), std::string::npos);
}

TEST_F(Download, ARangeWithheldByACancellationIsNoWholeDownload)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
        EXPECT_EQ(next(op).length, 0);
    });
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.ranges_asked, 0);
}

TEST_F(Download, ACancellationAfterTheLastByteLeavesAWholeDownload)
{
    host.in_send([](tirval_gfs_operation_t op) {
        begin(op);
        next(op);
        attempt(op, 0, to_end, "all", true);
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Download, ACancelledOperationDoesNotBegin)
{
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_SHUTDOWN);
    host.in_send([](tirval_gfs_operation_t op) { begin(op); });
    EXPECT_EQ(host.begins, 0);
    EXPECT_EQ(host.answer.code, 426);
}

TEST_F(Download, AnOutcomeOfTheHostsOwnIsReleasedWithTheRun)
{
    size_t before = tirval_error_count();
    host.in_send([](tirval_gfs_operation_t) {});
    expect_incomplete();
    host.begin_fails = true;
    host.in_send([](tirval_gfs_operation_t op) { begin(op); });
    EXPECT_EQ(tirval_error_count(), before);
}

TEST_F(Download, AnOperationThatIsNoTransferHasNoStream)
{
    host.in_command([](tirval_gfs_operation_t op) {
        EXPECT_NE(tirval_gfs_stream_open_write(op, 0, to_end), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 1), TIRVAL_SUCCESS);
        EXPECT_EQ(next(op).length, 0);
        EXPECT_EQ(tirval_gfs_stream_ahead_descriptor(op), -1);
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
    });
}

} // namespace
