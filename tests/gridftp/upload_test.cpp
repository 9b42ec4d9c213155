/*
 * Stores: bodies that can be repeated, receiving ahead, the end of the client's data, and what
 * counts as a whole one.
 */
#include "memory_backend.h"

#include <gmock/gmock.h>

#include <fstream>
#include <poll.h>
#include <tuple>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t mebibyte = size_t{1} << 20;
constexpr size_t part = 10 * mebibyte;

std::string pattern(size_t size)
{
    std::string data(size, '\0');
    for (size_t index = 0; index < size; ++index) {
        data[index] = static_cast<char>(index * 31 + index / 251);
    }
    return data;
}

void begin(tirval_gfs_operation_t op)
{
    tirval_gridftp_server_begin_transfer(op, 0, nullptr);
}

/* Reads up to `most` bytes of the open body, in pieces. */
std::string read(tirval_gfs_operation_t op, size_t most = SIZE_MAX, size_t piece = 65536)
{
    std::string all;
    std::string buffer(piece, '\0');
    size_t count = 1;
    while (all.size() < most && count > 0) {
        tirval_result_t result =
            tirval_gfs_stream_read(op, buffer.data(), std::min(piece, most - all.size()), &count);
        EXPECT_EQ(result, TIRVAL_SUCCESS) << memory_outcome::of(result).text;
        all.append(buffer, 0, count);
        if (result != TIRVAL_SUCCESS) {
            break;
        }
    }
    return all;
}

std::string body(tirval_gfs_operation_t op, size_t offset, size_t length)
{
    tirval_result_t result = tirval_gfs_stream_open_read(op, static_cast<tirval_off_t>(offset),
                                                         static_cast<tirval_off_t>(length));
    EXPECT_EQ(result, TIRVAL_SUCCESS) << memory_outcome::of(result).text;
    return read(op);
}

/* The open body, compared as it comes, so that it takes no memory here. */
void expect_body(tirval_gfs_operation_t op, std::string_view expected)
{
    static char buffer[65536];
    size_t count = 1;
    while (count > 0) {
        ASSERT_EQ(tirval_gfs_stream_read(op, buffer, sizeof buffer, &count), TIRVAL_SUCCESS);
        ASSERT_LE(count, expected.size());
        ASSERT_EQ(memcmp(buffer, expected.data(), count), 0);
        expected.remove_prefix(count);
    }
    EXPECT_EQ(expected.size(), 0u);
}

/* What this process has mapped, in bytes: unlike what is resident, it does not grow by a
 * sanitizer's shadow of it. */
size_t memory_mapped()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kibibytes = 0;
    while (status >> word) {
        if (word == "VmSize:") {
            status >> kibibytes;
        }
    }
    return kibibytes * 1024;
}

/* Waits as a request that waits for its answer does; false when there is nothing to wait for. */
bool receive_ahead(tirval_gfs_operation_t op)
{
    pollfd client = {tirval_gfs_stream_ahead_descriptor(op), POLLIN, 0};
    if (client.fd < 0 || poll(&client, 1, 0) != 1) {
        return false;
    }
    tirval_gfs_stream_receive_ahead(op);
    return true;
}

class Upload : public testing::Test {
  protected:
    ~Upload() override { tirval_gfs_cancel_clear(); }

    void store(const memory_backend::body &entry)
    {
        host.in_recv(entry, static_cast<tirval_off_t>(host.upload.size()));
    }
    void expect_incomplete() const
    {
        EXPECT_EQ(host.answer.code, 451);
        EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    }

    memory_backend host;
};

TEST_F(Upload, ABodyIsWhatTheClientSent)
{
    host.upload = pattern(3 * mebibyte + 5);
    host.upload_chunk = 100000;
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_TRUE(body(op, 0, host.upload.size()) == host.upload);
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, BlocksOfTheClientAreReceivedAMebibyteAtATime)
{
    host.upload = pattern(part);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_TRUE(body(op, 0, part) == host.upload);
        EXPECT_EQ(host.receives, 10);
        EXPECT_TRUE(receive_ahead(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, ARepeatedAttemptGetsTheSameBytesWithoutTheClient)
{
    host.upload = pattern(2 * mebibyte);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        for (size_t cut : {size_t{1}, mebibyte - 1, mebibyte, mebibyte + 1, 2 * mebibyte}) {
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 2 * mebibyte), TIRVAL_SUCCESS);
            EXPECT_TRUE(read(op, cut) == host.upload.substr(0, cut)) << cut;
        }
        int receives = host.receives;
        EXPECT_TRUE(body(op, 0, 2 * mebibyte) == host.upload);
        EXPECT_EQ(host.receives, receives);
        EXPECT_TRUE(receive_ahead(op));
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.received, 2 * mebibyte);
}

TEST_F(Upload, PartsFollowOneAnotherAndEachCanBeRepeated)
{
    host.upload = pattern(2 * part + 3);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        for (size_t offset : {size_t{0}, part, 2 * part}) {
            size_t length = std::min(part, host.upload.size() - offset);
            std::string expected = host.upload.substr(offset, length);
            EXPECT_EQ(tirval_gfs_stream_open_read(op, static_cast<tirval_off_t>(offset),
                                                  static_cast<tirval_off_t>(length)),
                      TIRVAL_SUCCESS);
            read(op, 2);
            EXPECT_TRUE(body(op, offset, length) == expected);
            EXPECT_TRUE(body(op, offset, length) == expected);
        }
        EXPECT_TRUE(receive_ahead(op));
    });
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
}

TEST_F(Upload, AContinuedStoreBeginsAtTheRangesOffset)
{
    host.upload = pattern(100);
    host.write_range = {1000, -1};
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 100), TIRVAL_SUCCESS);
            EXPECT_EQ(body(op, 1000, 60), host.upload.substr(0, 60));
            EXPECT_EQ(body(op, 1060, 40), host.upload.substr(60));
            EXPECT_TRUE(receive_ahead(op));
        },
        1100);
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, ABodyThatIsNotTheNextIsRefused)
{
    host.upload = pattern(100);
    store([&](tirval_gfs_operation_t op) {
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
        begin(op);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, -1), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, part + 1), TIRVAL_SUCCESS);
        EXPECT_EQ(body(op, 0, 10).size(), 10u);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 11, 10), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 11), TIRVAL_SUCCESS);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 10, 10), TIRVAL_SUCCESS);
        EXPECT_EQ(read(op, 5).size(), 5u);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 20, 10), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
    });
    expect_incomplete();
}

TEST_F(Upload, ABodyIsReceivedAheadWhileARequestWaits)
{
    host.upload = pattern(2 * part + 10);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, part), TIRVAL_SUCCESS);
        read(op, 100);
        EXPECT_EQ(tirval_gfs_stream_ahead_descriptor(op), -1) << "the body comes first";
        read(op);
        while (receive_ahead(op)) {
        }
        EXPECT_EQ(tirval_gfs_stream_ahead_descriptor(op), -1);
        EXPECT_EQ(host.received, 2 * part);
        EXPECT_TRUE(body(op, 0, part) == host.upload.substr(0, part)) << "a repeat";
        EXPECT_TRUE(body(op, part, part) == host.upload.substr(part, part));
        EXPECT_EQ(host.received, 2 * part);
        while (receive_ahead(op)) {
        }
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        EXPECT_EQ(body(op, 2 * part, 10), host.upload.substr(2 * part));
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, OnlyWhatIsThereIsReceivedAhead)
{
    host.upload = pattern(1000);
    host.unhurried = 300;
    host.upload_chunk = 100;
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 50).size(), 50u);
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_EQ(host.received, 300u);
        EXPECT_FALSE(receive_ahead(op));
        EXPECT_TRUE(body(op, 50, 950) == host.upload.substr(50));
    });
}

TEST_F(Upload, WhatWasReceivedAheadBeyondAShortBodyBelongsToTheNext)
{
    host.upload = pattern(1000);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 10), host.upload.substr(0, 10));
        while (receive_ahead(op)) {
        }
        EXPECT_EQ(host.received, 1000u);
        EXPECT_EQ(body(op, 10, 1), host.upload.substr(10, 1));
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        EXPECT_EQ(body(op, 11, 0), "");
        EXPECT_EQ(body(op, 11, 500), host.upload.substr(11, 500));
        EXPECT_EQ(body(op, 511, 489), host.upload.substr(511));
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, TheEndIsOnlySeenWhenNothingIsLeft)
{
    host.upload = "0123456789";
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
        read(op, 9);
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        read(op);
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
        EXPECT_FALSE(tirval_gfs_stream_at_end(op)) << "a repeat has begun";
        read(op);
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, AClientThatSendsTooMuchIsNotAtItsEnd)
{
    host.upload = "0123456789+";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_EQ(body(op, 0, 10), "0123456789");
            EXPECT_TRUE(receive_ahead(op));
            EXPECT_FALSE(receive_ahead(op)) << "one byte more tells all";
            EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        },
        10);
    expect_incomplete();
    EXPECT_EQ(host.received, 11u);
}

TEST_F(Upload, AnEmptyStoreEndsWithoutABody)
{
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 0), "");
        EXPECT_EQ(host.receives, 0);
        EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_TRUE(tirval_gfs_stream_at_end(op));
    });
    EXPECT_TRUE(host.answer.success());
}

TEST_F(Upload, AClientThatSendsLessThanTheBodyFailsTheStore)
{
    host.upload = "01234";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
            EXPECT_EQ(read(op, 5), "01234");
            char more[5];
            size_t count = 99;
            memory_outcome end = memory_outcome::of(tirval_gfs_stream_read(op, more, 5, &count));
            EXPECT_EQ(count, 0u);
            EXPECT_EQ(end.code, 451);
            EXPECT_EQ(end.message, "The client's data ended at byte 5 of the file, "
                                   "5 bytes before it should.");
            EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
            EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        },
        10);
    expect_incomplete();
}

TEST_F(Upload, AClientThatEndsWhileReceivedAheadFailsTheNextBody)
{
    host.upload = "0123456789";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            body(op, 0, 6);
            while (receive_ahead(op)) {
            }
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 6, 6), TIRVAL_SUCCESS);
            EXPECT_EQ(read(op, 4), "6789");
            char more[2];
            size_t count = 0;
            EXPECT_EQ(memory_outcome::of(tirval_gfs_stream_read(op, more, 2, &count)).code, 451);
        },
        12);
    expect_incomplete();
}

TEST_F(Upload, ABrokenConnectionIsTheOutcomeOfAReportedSuccess)
{
    host.upload = "0123456789";
    host.receive_fails_after = 4;
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
        EXPECT_EQ(read(op, 4), "0123");
        char more[6];
        size_t count = 99;
        EXPECT_EQ(memory_outcome::of(tirval_gfs_stream_read(op, more, 6, &count)).code, 426);
        EXPECT_EQ(count, 0u);
    });
    EXPECT_EQ(host.answer.code, 426);
}

TEST_F(Upload, AConnectionThatBreaksWhileReceivingAheadFailsTheNextBody)
{
    host.upload = "0123456789";
    host.receive_fails_after = 4;
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 4), "0123");
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_EQ(tirval_gfs_stream_ahead_descriptor(op), -1);
        EXPECT_EQ(memory_outcome::of(tirval_gfs_stream_open_read(op, 4, 6)).code, 426);
    });
    EXPECT_EQ(host.answer.code, 426);
}

TEST_F(Upload, ACancelledReadEndsWithTheCancellation)
{
    host.upload = "0123";
    host.upload_ends = false;
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
            EXPECT_EQ(read(op, 4), "0123");
            std::thread client([] { tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT); });
            char more[6];
            size_t count = 99;
            memory_outcome end = memory_outcome::of(tirval_gfs_stream_read(op, more, 6, &count));
            EXPECT_EQ(end.type, TIRVAL_ERROR_TYPE_CANCELLED);
            EXPECT_EQ(count, 0u);
            client.join();
        },
        10);
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answer.tag, "TRANSFER_ABORTED");
}

TEST_F(Upload, SuccessWithoutBeginningIsIncomplete)
{
    store([](tirval_gfs_operation_t) {});
    expect_incomplete();
    EXPECT_EQ(host.begins, 0);
}

TEST_F(Upload, SuccessWithoutHavingSeenTheEndIsIncomplete)
{
    host.upload = "0123";
    store([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 4), "0123");
    });
    expect_incomplete();
}

TEST_F(Upload, SuccessWithBytesThatNoBodyTookIsIncomplete)
{
    host.upload = "0123456789";
    store([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 4), "0123");
        while (receive_ahead(op)) {
        }
    });
    expect_incomplete();
}

TEST_F(Upload, SuccessWithABodyThatNoAttemptReadWholeIsIncomplete)
{
    host.upload = "0123456789";
    store([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(body(op, 0, 4), "0123");
        while (receive_ahead(op)) {
        }
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 4, 6), TIRVAL_SUCCESS);
        EXPECT_EQ(read(op, 5), "45678");
    });
    expect_incomplete();
}

TEST_F(Upload, AFailedBeginIsTheOutcomeAndNothingCanBeRead)
{
    host.upload = "0123";
    host.begin_fails = true;
    store([](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 0, 4), TIRVAL_SUCCESS);
        EXPECT_EQ(tirval_gfs_stream_ahead_descriptor(op), -1);
    });
    EXPECT_EQ(host.answer.code, 425);
    EXPECT_EQ(host.received, 0u);
}

TEST_F(Upload, TheWriteRangeIsTheClients)
{
    host.write_range = {320, 640};
    store([](tirval_gfs_operation_t op) {
        tirval_off_t offset = 0;
        tirval_off_t length = 0;
        tirval_gridftp_server_get_write_range(op, &offset, &length);
        EXPECT_EQ(offset, 320);
        EXPECT_EQ(length, 640);
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
    });
    EXPECT_EQ(host.answer.result, TIRVAL_FAILURE);
}

/* ---- What is stored ------------------------------------------------------------------------ */

TEST_F(Upload, TheNextBodyTellsThatEverythingBeforeItIsStored)
{
    host.upload = pattern(30);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        body(op, 0, 10);
        body(op, 0, 10);
        EXPECT_THAT(host.stored_up_to, IsEmpty()) << "nothing is before the first";
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 10, 10), TIRVAL_SUCCESS);
        EXPECT_THAT(host.stored_up_to, ElementsAre(10));
        read(op, 3);
        body(op, 10, 10);
        EXPECT_THAT(host.stored_up_to, ElementsAre(10)) << "a repeat tells nothing new";
        body(op, 20, 10);
        receive_ahead(op);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_THAT(host.stored_up_to, ElementsAre(10, 20));
}

TEST_F(Upload, AContinuedStoreTellsNothingOfItsFirstBody)
{
    host.upload = pattern(20);
    host.write_range = {1000, -1};
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin(op);
            body(op, 1000, 12);
            EXPECT_THAT(host.stored_up_to, IsEmpty());
            body(op, 1012, 8);
        },
        1020);
    EXPECT_THAT(host.stored_up_to, ElementsAre(1012));
}

TEST_F(Upload, WhatIsStoredIsToldAlsoWhenTheClientIsLostMeanwhile)
{
    host.upload = pattern(10);
    host.receive_fails_after = 6;
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        body(op, 0, 4);
        EXPECT_TRUE(receive_ahead(op));
        EXPECT_THAT(host.stored_up_to, IsEmpty());
        EXPECT_NE(tirval_gfs_stream_open_read(op, 4, 6), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 4, 6), TIRVAL_SUCCESS);
    });
    EXPECT_THAT(host.stored_up_to, ElementsAre(4));
    EXPECT_EQ(host.answer.code, 426);
}

TEST_F(Upload, ARefusedBodyTellsNothing)
{
    host.upload = pattern(20);
    store([&](tirval_gfs_operation_t op) {
        begin(op);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 10), TIRVAL_SUCCESS);
        read(op, 9);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 10, 10), TIRVAL_SUCCESS) << "a byte is unread";
        read(op);
        EXPECT_NE(tirval_gfs_stream_open_read(op, 11, 9), TIRVAL_SUCCESS);
    });
    EXPECT_THAT(host.stored_up_to, IsEmpty());
}

/* ---- Repeats ------------------------------------------------------------------------------- */

class RepeatedBody : public Upload, public testing::WithParamInterface<std::tuple<size_t, bool>> {
  protected:
    const size_t length = std::get<0>(GetParam());
    const bool receives_ahead = std::get<1>(GetParam());
};

TEST_P(RepeatedBody, IsTheSameWhereverTheFirstAttemptBrokeOff)
{
    host.upload = pattern(length + 2 * mebibyte);
    const std::string_view all = host.upload;
    for (size_t cut : {size_t{0}, size_t{1}, length / 2, mebibyte,
                       length - std::min(length, size_t{1}), length}) {
        if (cut > length) {
            continue;
        }
        store([&](tirval_gfs_operation_t op) {
            begin(op);
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, static_cast<tirval_off_t>(length)),
                      TIRVAL_SUCCESS);
            EXPECT_TRUE(read(op, cut) == all.substr(0, cut)) << cut;
            while (receives_ahead && receive_ahead(op)) {
            }
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, static_cast<tirval_off_t>(length)),
                      TIRVAL_SUCCESS);
            expect_body(op, all.substr(0, length));
            EXPECT_TRUE(body(op, length, 2 * mebibyte) == all.substr(length)) << cut;
            receive_ahead(op);
            EXPECT_TRUE(tirval_gfs_stream_at_end(op));
        });
        EXPECT_TRUE(host.answer.success()) << cut << host.answer.text;
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, RepeatedBody,
                         testing::Combine(testing::Values(0, 1, mebibyte - 1, mebibyte,
                                                          mebibyte + 1, part),
                                          testing::Bool()));

/* ---- Memory -------------------------------------------------------------------------------- */

TEST_F(Upload, BodiesTakeTheMemoryOfTwoPartsAndGiveItBack)
{
    host.upload = pattern(5 * part);
    const std::string_view all = host.upload;
    for (int run = 0; run < 3; ++run) {
        const size_t before = memory_mapped();
        size_t highest = before;
        store([&](tirval_gfs_operation_t op) {
            begin(op);
            for (size_t offset = 0; offset < all.size(); offset += part) {
                for (int attempt = 0; attempt < 2; ++attempt) {
                    EXPECT_EQ(tirval_gfs_stream_open_read(op, static_cast<tirval_off_t>(offset),
                                                          static_cast<tirval_off_t>(part)),
                              TIRVAL_SUCCESS);
                    expect_body(op, all.substr(offset, part));
                    while (receive_ahead(op)) {
                    }
                }
                highest = std::max(highest, memory_mapped());
            }
        });
        EXPECT_TRUE(host.answer.success()) << host.answer.text;
        EXPECT_GE(highest - before, 2 * part - mebibyte);
        EXPECT_LE(highest - before, 2 * part + mebibyte);
        EXPECT_LE(memory_mapped(), before + mebibyte) << "after run " << run;
    }
}

} // namespace
