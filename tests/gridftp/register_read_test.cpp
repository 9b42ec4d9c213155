/*
 * Registered reads, as a storage uses them to see whether the client sends more than it announced.
 */
#include "memory_backend.h"

#include <gmock/gmock.h>

namespace {

/* Waits once, without a predicate, as the interface promises that it suffices. */
struct probe {
    probe()
    {
        tirval_mutex_init(&mutex, nullptr);
        tirval_cond_init(&cond, nullptr);
    }
    ~probe()
    {
        tirval_cond_destroy(&cond);
        tirval_mutex_destroy(&mutex);
    }
    probe(const probe &) = delete;
    probe &operator=(const probe &) = delete;

    tirval_result_t run(tirval_gfs_operation_t op, tirval_size_t length = 1)
    {
        tirval_mutex_lock(&mutex);
        tirval_result_t registered =
            tirval_gridftp_server_register_read(op, buffer, length, called, this);
        if (registered == TIRVAL_SUCCESS) {
            tirval_cond_wait(&cond, &mutex);
        }
        tirval_mutex_unlock(&mutex);
        return registered;
    }

    static void called(tirval_gfs_operation_t op, tirval_result_t result, tirval_byte_t *buffer,
                       tirval_size_t nbytes, tirval_off_t offset, bool eof, void *user_arg)
    {
        probe &self = *static_cast<probe *>(user_arg);
        tirval_mutex_lock(&self.mutex);
        ++self.calls;
        self.called_for = op;
        self.result = result;
        self.bytes.assign(reinterpret_cast<char *>(buffer), nbytes);
        self.offset = offset;
        self.eof = eof;
        self.thread = std::this_thread::get_id();
        if (self.puts) {
            self.put = tirval_error_put(tirval_gfs_ftp_response_error_construct(
                nullptr, nullptr, 451, "QUOTA_EXCEEDED", "from another thread"));
        }
        tirval_cond_signal(&self.cond);
        tirval_mutex_unlock(&self.mutex);
    }

    tirval_mutex_t mutex;
    tirval_cond_t cond;
    tirval_byte_t buffer[8] = {};
    bool puts = false;
    int calls = 0;
    tirval_gfs_operation_t called_for = nullptr;
    tirval_result_t result = TIRVAL_SUCCESS;
    std::string bytes;
    tirval_off_t offset = -1;
    bool eof = false;
    std::thread::id thread;
    tirval_result_t put = TIRVAL_SUCCESS;
};

void begin_and_read(tirval_gfs_operation_t op, const std::string &expected)
{
    tirval_gridftp_server_begin_transfer(op, 0, nullptr);
    auto length = static_cast<tirval_off_t>(expected.size());
    EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, length), TIRVAL_SUCCESS);
    std::string body(expected.size() + 1, '\0');
    size_t count = 0;
    EXPECT_EQ(tirval_gfs_stream_read(op, body.data(), body.size(), &count), TIRVAL_SUCCESS);
    EXPECT_EQ(body.substr(0, count), expected);
}

class RegisteredRead : public testing::Test {
  protected:
    ~RegisteredRead() override { tirval_gfs_cancel_clear(); }

    void expect_end(const probe &seen) const
    {
        EXPECT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.result, TIRVAL_SUCCESS);
        EXPECT_TRUE(seen.eof);
        EXPECT_EQ(seen.bytes, "");
        EXPECT_NE(seen.thread, std::this_thread::get_id());
    }

    memory_backend host;
};

TEST_F(RegisteredRead, TheEndOfTheDataIsToldWithoutBytesOnAnotherThread)
{
    host.upload = "0123";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            probe end;
            EXPECT_EQ(end.run(op), TIRVAL_SUCCESS);
            EXPECT_EQ(end.called_for, op);
            expect_end(end);
            EXPECT_TRUE(tirval_gfs_stream_at_end(op));
        },
        4);
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.reads_registered, 1);
}

TEST_F(RegisteredRead, ALateEndIsWaitedFor)
{
    host.upload = "0123";
    host.reads = memory_read::late;
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            probe end;
            EXPECT_EQ(end.run(op), TIRVAL_SUCCESS);
            expect_end(end);
        },
        4);
    EXPECT_TRUE(host.answer.success());
}

TEST_F(RegisteredRead, ASurplusByteComesWithoutTheEnd)
{
    host.upload = "0123+";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            probe surplus;
            EXPECT_EQ(surplus.run(op), TIRVAL_SUCCESS);
            EXPECT_EQ(surplus.bytes, "+");
            EXPECT_FALSE(surplus.eof);
            EXPECT_EQ(surplus.offset, 4);
            EXPECT_FALSE(tirval_gfs_stream_at_end(op));
        },
        4);
    EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
}

TEST_F(RegisteredRead, AStoreMayReadAllOfTheDataThisWay)
{
    host.upload = "0123456789+";
    std::string all;
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        bool eof = false;
        while (!eof) {
            probe next;
            ASSERT_EQ(next.run(op, 4), TIRVAL_SUCCESS);
            EXPECT_EQ(next.offset, static_cast<tirval_off_t>(all.size()));
            all += next.bytes;
            eof = next.eof;
        }
    });
    EXPECT_EQ(all, host.upload);
    EXPECT_TRUE(host.answer.success());
}

TEST_F(RegisteredRead, BytesReceivedAheadComeFirst)
{
    host.upload = "0123+-";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            tirval_gfs_stream_receive_ahead(op);
            EXPECT_EQ(host.received, 5u);
            probe first;
            EXPECT_EQ(first.run(op, 8), TIRVAL_SUCCESS);
            EXPECT_EQ(first.bytes, "+");
            EXPECT_EQ(first.offset, 4);
            EXPECT_FALSE(first.eof);
            EXPECT_NE(first.thread, std::this_thread::get_id());
            EXPECT_EQ(host.reads_registered, 0);
            probe second;
            EXPECT_EQ(second.run(op), TIRVAL_SUCCESS);
            EXPECT_EQ(second.bytes, "-");
            EXPECT_EQ(host.reads_registered, 1);
        },
        4);
}

TEST_F(RegisteredRead, OffsetsCountFromTheFirstByteOfTheClientsData)
{
    host.upload = "0123+-";
    host.write_range = {1000, -1};
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            tirval_gridftp_server_begin_transfer(op, 0, nullptr);
            EXPECT_EQ(tirval_gfs_stream_open_read(op, 1000, 4), TIRVAL_SUCCESS);
            char body[4];
            size_t count = 0;
            EXPECT_EQ(tirval_gfs_stream_read(op, body, sizeof body, &count), TIRVAL_SUCCESS);
            tirval_gfs_stream_receive_ahead(op);
            probe ahead;
            ahead.run(op);
            EXPECT_EQ(ahead.offset, 4);
            probe next;
            next.run(op);
            EXPECT_EQ(next.offset, 5);
        },
        1004);
}

TEST_F(RegisteredRead, AnEndSeenBeforeIsToldWithoutTheBackEnd)
{
    host.upload = "0123";
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            tirval_gfs_stream_receive_ahead(op);
            probe end;
            EXPECT_EQ(end.run(op), TIRVAL_SUCCESS);
            expect_end(end);
        },
        4);
    EXPECT_EQ(host.reads_registered, 0);
    EXPECT_TRUE(host.answer.success());
}

TEST_F(RegisteredRead, AnErrorIsToldAndLivesUntilTheEntryReturns)
{
    host.upload = "0123";
    host.reads = memory_read::fails;
    size_t before = tirval_error_count();
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            probe broken;
            EXPECT_EQ(broken.run(op), TIRVAL_SUCCESS);
            EXPECT_FALSE(broken.eof);
            EXPECT_EQ(broken.bytes, "");
            EXPECT_EQ(memory_outcome::of(broken.result).code, 426);
            tirval_gridftp_server_finished_transfer(op, broken.result);
        },
        4);
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(tirval_error_count(), before);
}

TEST_F(RegisteredRead, AnErrorOutlivesTheBackEndsOwnHoldOfIt)
{
    tirval_gfs_backend_t backend = {};
    backend.register_read = [](void *, void *, tirval_size_t, tirval_gfs_read_done_t done,
                               void *done_arg) {
        std::thread([=] {
            tirval_result_t result = tirval_error_put(tirval_gfs_ftp_response_error_construct(
                nullptr, nullptr, 426, "CONNECTION_BROKEN", nullptr));
            done(done_arg, result, 0, 0);
            tirval_object_free(tirval_error_get(result));
        }).join();
        return TIRVAL_SUCCESS;
    };
    tirval_gfs_storage_iface_t storage = {};
    storage.recv_func = [](tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *, void *) {
        static tirval_byte_t buffer[1];
        tirval_result_t told = TIRVAL_SUCCESS;
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        tirval_gridftp_server_register_read(
            op, buffer, 1,
            [](tirval_gfs_operation_t, tirval_result_t result, tirval_byte_t *, tirval_size_t,
               tirval_off_t, bool,
               void *user_arg) { *static_cast<tirval_result_t *>(user_arg) = result; },
            &told);
        EXPECT_EQ(memory_outcome::of(told).tag, "CONNECTION_BROKEN");
        tirval_gridftp_server_finished_transfer(op, told);
    };
    tirval_gfs_transfer_info_t info = {"/a", 0, true};
    tirval_gfs_run_recv(&storage, nullptr, &info, &backend, nullptr);
}

TEST_F(RegisteredRead, AnErrorThatTheStorageKeepsToItselfIsTheOutcome)
{
    host.reads = memory_read::fails;
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        probe broken;
        broken.run(op);
    });
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answer.tag, "CONNECTION_BROKEN");
}

TEST_F(RegisteredRead, ACancellationCompletesIt)
{
    host.reads = memory_read::on_cancel;
    host.on_register = [] { tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST); };
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        probe cut;
        EXPECT_EQ(cut.run(op), TIRVAL_SUCCESS);
        EXPECT_EQ(cut.calls, 1);
        EXPECT_EQ(memory_outcome::of(cut.result).type, TIRVAL_ERROR_TYPE_CANCELLED);
    });
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answer.tag, "TRANSFER_ABORTED");
}

TEST_F(RegisteredRead, WhatACallbackPutsIsReleasedWithTheRun)
{
    size_t before = tirval_error_count();
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        probe end;
        end.puts = true;
        end.run(op);
        EXPECT_EQ(memory_outcome::of(end.put).tag, "QUOTA_EXCEEDED");
        tirval_gridftp_server_finished_transfer(op, end.put);
    });
    EXPECT_EQ(host.answer.message, "from another thread");
    EXPECT_EQ(tirval_error_count(), before);
}

TEST_F(RegisteredRead, ARefusedOneNeverCallsBack)
{
    host.upload = "0123";
    host.reads = memory_read::refused;
    host.in_recv(
        [&](tirval_gfs_operation_t op) {
            begin_and_read(op, "0123");
            probe refused;
            EXPECT_EQ(memory_outcome::of(refused.run(op)).tag, "READ_REFUSED");
            EXPECT_EQ(refused.calls, 0);
        },
        4);
    EXPECT_EQ(host.answer.tag, "READ_REFUSED");
}

TEST_F(RegisteredRead, OneThatCannotBeServedIsRefused)
{
    probe refused;
    host.upload = "0123";
    host.in_recv([&](tirval_gfs_operation_t op) {
        EXPECT_NE(refused.run(op), TIRVAL_SUCCESS) << "the transfer has not begun";
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_NE(refused.run(op, 0), TIRVAL_SUCCESS);
        EXPECT_EQ(tirval_gfs_stream_open_read(op, 0, 4), TIRVAL_SUCCESS);
        EXPECT_NE(refused.run(op), TIRVAL_SUCCESS) << "the open body comes first";
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
        EXPECT_NE(refused.run(op), TIRVAL_SUCCESS);
    });
    host.in_send([&](tirval_gfs_operation_t op) { EXPECT_NE(refused.run(op), TIRVAL_SUCCESS); });
    EXPECT_EQ(refused.calls, 0);
    EXPECT_EQ(host.reads_registered, 0);
}

TEST_F(RegisteredRead, OneThatTheStorageLeftBehindIsCompletedBeforeTheRunEnds)
{
    static std::atomic<int> calls;
    static tirval_byte_t buffer[1];
    calls = 0;
    host.upload_ends = false;
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        auto count = [](tirval_gfs_operation_t, tirval_result_t, tirval_byte_t *, tirval_size_t,
                        tirval_off_t, bool, void *) { ++calls; };
        EXPECT_EQ(tirval_gridftp_server_register_read(op, buffer, 1, count, nullptr),
                  TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gridftp_server_register_read(op, buffer, 1, count, nullptr),
                  TIRVAL_SUCCESS)
            << "one at a time";
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
}

/* Runs a store that registers one read with a back end that serves it by `serve`. */
void store_with(tirval_result_t (*serve)(void *host, void *buffer, tirval_size_t length,
                                         tirval_gfs_read_done_t done, void *done_arg))
{
    tirval_gfs_backend_t backend = {};
    backend.register_read = serve;
    tirval_gfs_storage_iface_t storage = {};
    storage.recv_func = [](tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *, void *) {
        static tirval_byte_t buffer[1];
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        tirval_gridftp_server_register_read(
            op, buffer, 1,
            [](tirval_gfs_operation_t, tirval_result_t, tirval_byte_t *, tirval_size_t,
               tirval_off_t, bool, void *) {},
            nullptr);
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
    };
    tirval_gfs_transfer_info_t info = {"/a", 0, true};
    tirval_gfs_run_recv(&storage, nullptr, &info, &backend, nullptr);
}

class RegisteredReadDeathTest : public testing::Test {
  protected:
    RegisteredReadDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(RegisteredReadDeathTest, ASecondCompletionEndsTheProcess)
{
    EXPECT_DEATH(
        store_with([](void *, void *, tirval_size_t, tirval_gfs_read_done_t done, void *done_arg) {
            std::thread([=] {
                done(done_arg, TIRVAL_SUCCESS, 0, 0);
                done(done_arg, TIRVAL_SUCCESS, 0, 0);
            }).join();
            return TIRVAL_SUCCESS;
        }),
        "completed a registered read that does not wait");
}

TEST_F(RegisteredReadDeathTest, ACompletionOnTheRegisteringThreadEndsTheProcess)
{
    EXPECT_DEATH(
        store_with([](void *, void *, tirval_size_t, tirval_gfs_read_done_t done, void *done_arg) {
            done(done_arg, TIRVAL_SUCCESS, 0, 0);
            return TIRVAL_SUCCESS;
        }),
        "on the thread that registered it");
}

TEST_F(RegisteredReadDeathTest, ACompletionOfARefusedReadEndsTheProcess)
{
    EXPECT_DEATH(
        store_with([](void *, void *, tirval_size_t, tirval_gfs_read_done_t done, void *done_arg) {
            std::thread([=] { done(done_arg, TIRVAL_SUCCESS, 0, 0); }).join();
            return TIRVAL_FAILURE;
        }),
        "completed a registered read that it refused");
}

TEST_F(RegisteredReadDeathTest, MoreBytesThanRegisteredEndTheProcess)
{
    EXPECT_DEATH(store_with([](void *, void *, tirval_size_t length, tirval_gfs_read_done_t done,
                               void *done_arg) {
                     std::thread([=] { done(done_arg, TIRVAL_SUCCESS, length + 1, 0); }).join();
                     return TIRVAL_SUCCESS;
                 }),
                 "read more than was registered");
}

TEST_F(RegisteredRead, ManyRunsInARowCompleteEachOfThem)
{
    host.upload = "0123";
    for (int round = 0; round < 300; ++round) {
        host.in_recv(
            [&](tirval_gfs_operation_t op) {
                begin_and_read(op, "0123");
                if (round % 3 == 0) {
                    tirval_gfs_stream_receive_ahead(op);
                }
                probe end;
                end.run(op);
                expect_end(end);
            },
            4);
        ASSERT_TRUE(host.answer.success()) << round;
    }
}

} // namespace
