/*
 * Runs of entries: one answer each, what an answer may carry, and what surrounds an entry.
 */
#include "memory_backend.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

using testing::ElementsAre;

tirval_result_t put_reply(int code, const char *tag, const char *message)
{
    return tirval_error_put(
        tirval_gfs_ftp_response_error_construct(nullptr, nullptr, code, tag, "%s", message));
}

tirval_gridftp_server_control_stat_t record(char *name, tirval_off_t size)
{
    tirval_gridftp_server_control_stat_t one = {};
    one.mode = 0100600;
    one.nlink = 1;
    one.name = name;
    one.size = size;
    one.mtime = 1700000000;
    one.ino = 7;
    return one;
}

TEST(Operation, AStatDeliversItsRecordsBeforeItsAnswer)
{
    memory_backend host;
    host.in_stat([](tirval_gfs_operation_t op) {
        char name[] = "/My files/a.txt";
        auto one = record(name, 42);
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, &one, 1);
        memset(name, 'x', sizeof name - 1);
    });
    ASSERT_TRUE(host.answer.success());
    ASSERT_EQ(host.records.size(), 1u);
    EXPECT_EQ(host.records[0].name, "/My files/a.txt");
    EXPECT_EQ(host.records[0].size, 42);
    EXPECT_EQ(host.records[0].mode, 0100600u);
    EXPECT_EQ(host.records[0].mtime, 1700000000);
    EXPECT_EQ(host.records[0].ino, 7u);
    EXPECT_FALSE(host.records[0].symlink_target.has_value());
}

TEST(Operation, PartialBatchesKeepTheirOrderAndSizes)
{
    memory_backend host;
    host.in_stat([](tirval_gfs_operation_t op) {
        char names[][2] = {"a", "b", "c"};
        tirval_gridftp_server_control_stat_t all[] = {record(names[0], 1), record(names[1], 2),
                                                      record(names[2], 3)};
        tirval_gridftp_server_finished_stat_partial(op, TIRVAL_SUCCESS, all, 2);
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, all + 2, 1);
    });
    EXPECT_THAT(host.batches, ElementsAre(2, 1));
    ASSERT_EQ(host.records.size(), 3u);
    EXPECT_EQ(host.records[2].name, "c");
}

TEST(Operation, AFailedStatDeliversNoRecordWhateverItsCount)
{
    memory_backend host;
    host.in_stat([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_control_stat_t zeroed = {};
        tirval_gridftp_server_finished_stat(op, put_reply(550, "PATH_NOT_FOUND", "gone"), &zeroed,
                                            1);
    });
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_THAT(host.records, testing::IsEmpty());
    host.in_stat([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_stat_partial(op, TIRVAL_FAILURE, nullptr, 100);
        tirval_gridftp_server_finished_stat(op, TIRVAL_FAILURE, nullptr, 100);
    });
    EXPECT_THAT(host.batches, testing::IsEmpty());
}

TEST(Operation, ANegativeCountOrMissingRecordsDeliverNothing)
{
    memory_backend host;
    host.in_stat([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_control_stat_t zeroed = {};
        tirval_gridftp_server_finished_stat_partial(op, TIRVAL_SUCCESS, &zeroed, -1);
        tirval_gridftp_server_finished_stat_partial(op, TIRVAL_SUCCESS, nullptr, 2147483647);
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, nullptr, 3);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_THAT(host.batches, testing::IsEmpty());
}

TEST(Operation, ACommandAnswersWithItsResponseAndReportsProgress)
{
    memory_backend host;
    host.update_interval = 5;
    int interval = -1;
    host.in_command([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_get_update_interval(op, &interval);
        char text[] = "100";
        tirval_gridftp_server_intermediate_command(op, TIRVAL_SUCCESS, text);
        memcpy(text, "250", 3);
        tirval_gridftp_server_intermediate_command(op, TIRVAL_SUCCESS, text);
        tirval_gridftp_server_intermediate_command(op, TIRVAL_SUCCESS, nullptr);
        tirval_gridftp_server_finished_command(op, TIRVAL_SUCCESS, text);
    });
    EXPECT_EQ(interval, 5);
    EXPECT_THAT(host.progress, ElementsAre("100", "250"));
    EXPECT_EQ(host.response, "250");
}

TEST(Operation, AFailedCommandMayCarryAResponseAndAResultThatNamesNoError)
{
    memory_backend host;
    host.in_command([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_command(op, TIRVAL_FAILURE, "/a/path");
    });
    EXPECT_FALSE(host.answer.success());
    EXPECT_EQ(host.answer.result, TIRVAL_FAILURE);
    EXPECT_EQ(host.answer.code, 0);
    EXPECT_EQ(host.response, "/a/path");
}

TEST(Operation, AStartedSessionWithoutAHomeBeginsInTheRoot)
{
    memory_backend host;
    int handle = 0;
    host.in_start([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_session_start(op, TIRVAL_SUCCESS, &handle, nullptr, nullptr);
    });
    EXPECT_TRUE(host.answer.success());
    EXPECT_EQ(host.session, &handle);
    EXPECT_EQ(host.home_dir, "/");
    EXPECT_FALSE(host.username.has_value());
    host.in_start([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_session_start(op, TIRVAL_SUCCESS, &handle, "bob",
                                                     "/My files");
    });
    EXPECT_EQ(host.home_dir, "/My files");
    EXPECT_EQ(host.username, "bob");
}

TEST(Operation, AFailedStartHandsOutNoSession)
{
    memory_backend host;
    int handle = 0;
    host.in_start([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_session_start(op, TIRVAL_FAILURE, &handle, "bob", "/home");
    });
    EXPECT_FALSE(host.answer.success());
    EXPECT_EQ(host.session, nullptr);
    EXPECT_FALSE(host.username.has_value());
    EXPECT_FALSE(host.home_dir.has_value());
}

TEST(Operation, EveryKindOfOperationMayAskForConfiguration)
{
    memory_backend host;
    host.config["creds"] = "{}";
    auto ask = [](tirval_gfs_operation_t op) {
        char *known = nullptr;
        char unset[] = "unset";
        char *unknown = unset;
        tirval_gridftp_server_get_config_data(op, "creds", &known);
        tirval_gridftp_server_get_config_data(op, "other", &unknown);
        EXPECT_STREQ(known, "{}");
        EXPECT_EQ(unknown, nullptr);
        tirval_gridftp_server_get_config_data(op, nullptr, &known);
        EXPECT_EQ(known, nullptr);
    };
    host.in_start(ask);
    EXPECT_THAT(host.config_asked, ElementsAre("creds", "other"));
    host.in_stat(ask);
    host.in_command(ask);
    host.in_send(ask);
    host.in_recv(ask);
    EXPECT_THAT(host.config_asked, ElementsAre("creds", "other"));
}

TEST(Operation, ConfigurationTextsStayUntilTheEntryReturns)
{
    memory_backend host;
    int asked = 0;
    host.on_config = [&](const std::string &key) { return key + std::to_string(++asked); };
    host.in_stat([](tirval_gfs_operation_t op) {
        char *first = nullptr;
        char *second = nullptr;
        tirval_gridftp_server_get_config_data(op, "creds", &first);
        tirval_gridftp_server_get_config_data(op, "creds", &second);
        EXPECT_STREQ(first, "creds1");
        EXPECT_STREQ(second, "creds2");
    });
}

TEST(Operation, TheChecksumSupportTextIsHandedOn)
{
    memory_backend host;
    host.in_start([](tirval_gfs_operation_t op) {
        EXPECT_EQ(tirval_gridftp_server_set_checksum_support(op, "MD5:15;"), TIRVAL_SUCCESS);
        EXPECT_NE(tirval_gridftp_server_set_checksum_support(op, nullptr), TIRVAL_SUCCESS);
    });
    EXPECT_EQ(host.checksum_support, "MD5:15;");
}

TEST(Operation, ABackEndWithoutFunctionsGivesTheDefaults)
{
    static const tirval_gfs_backend_t nothing = {};
    tirval_gfs_storage_iface_t iface = {};
    iface.recv_func = [](tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *, void *) {
        char *data = nullptr;
        int seconds = -1;
        time_t modified = 0;
        tirval_off_t offset = 5;
        tirval_off_t length = 5;
        tirval_gridftp_server_get_config_data(op, "creds", &data);
        tirval_gridftp_server_get_update_interval(op, &seconds);
        EXPECT_EQ(tirval_gridftp_server_get_recv_modification_time(op, &modified), TIRVAL_SUCCESS);
        tirval_gridftp_server_get_write_range(op, &offset, &length);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(seconds, 0);
        EXPECT_EQ(modified, -1);
        EXPECT_EQ(offset, 0);
        EXPECT_EQ(length, -1);
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
    };
    tirval_gfs_transfer_info_t info = {"/a", 0, true};
    tirval_gfs_run_recv(&iface, nullptr, &info, &nothing, nullptr);
}

TEST(Operation, TheModificationTimeThatTheClientAskedForIsHandedOn)
{
    memory_backend host;
    host.modification_time = 1234567890;
    time_t modified = 0;
    host.in_recv([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_get_recv_modification_time(op, &modified);
    });
    EXPECT_EQ(modified, 1234567890);
    host.in_send([&](tirval_gfs_operation_t op) {
        tirval_gridftp_server_get_recv_modification_time(op, &modified);
    });
    EXPECT_EQ(modified, -1);
}

TEST(Operation, AnEmptySlotOfTheTableAnswersThatItIsNotImplemented)
{
    const tirval_gfs_storage_iface_t nothing = {};
    memory_backend host(&nothing);
    EXPECT_FALSE(host.start());
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_EQ(host.answer.tag, "NOT_IMPLEMENTED");
    EXPECT_EQ(host.answer.text, "502 NOT_IMPLEMENTED: The storage does not offer this operation.");
    EXPECT_FALSE(host.stat("/"));
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_FALSE(host.command(TIRVAL_GFS_CMD_MKD, "/a"));
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_FALSE(host.send("/a"));
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_FALSE(host.recv("/a"));
    EXPECT_EQ(host.answer.code, 502);
}

TEST(Operation, ASessionEndsAlsoWhenTheStorageHasNothingToDestroy)
{
    const tirval_gfs_storage_iface_t nothing = {};
    int handle = 0;
    tirval_gfs_run_session_end(&nothing, &handle);
    tirval_gfs_storage_iface_t destroying = {};
    destroying.destroy_func = [](void *session) {
        *static_cast<int *>(session) = 1;
        put_reply(451, "LEFT", "behind");
    };
    size_t before = tirval_error_count();
    tirval_gfs_run_session_end(&destroying, &handle);
    EXPECT_EQ(handle, 1);
    EXPECT_EQ(tirval_error_count(), before);
}

TEST(OperationScope, AResultStaysPrintableUntilTheEntryReturnsAndIsReleasedThen)
{
    memory_backend host;
    size_t before = tirval_error_count();
    tirval_result_t result = TIRVAL_SUCCESS;
    host.in_stat([&](tirval_gfs_operation_t op) {
        result = put_reply(550, "PATH_NOT_FOUND", "nothing here");
        tirval_gridftp_server_finished_stat(op, result, nullptr, 0);
        char *text = tirval_error_print_chain(tirval_error_peek(result));
        EXPECT_STREQ(text, "550 PATH_NOT_FOUND: nothing here");
        free(text);
    });
    EXPECT_EQ(tirval_error_peek(result), nullptr);
    EXPECT_EQ(tirval_error_count(), before);
    EXPECT_EQ(host.answer.message, "nothing here");
}

TEST(OperationScope, ResultsThatNobodyAnswersWithAreReleasedToo)
{
    memory_backend host;
    size_t before = tirval_error_count();
    host.in_command([&](tirval_gfs_operation_t) {
        for (int count = 0; count < 100; ++count) {
            put_reply(451, "TOO_BUSY", "once more");
        }
        EXPECT_EQ(tirval_error_count(), before + 100);
    });
    EXPECT_EQ(tirval_error_count(), before);
}

TEST(OperationSignals, AnEntryRunsWithSignalsBlockedAndTheMaskIsRestored)
{
    memory_backend host;
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_EQ(sigismember(&before, SIGTERM), 0);
    host.in_stat([](tirval_gfs_operation_t) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        for (int number : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE, SIGPROF}) {
            EXPECT_EQ(sigismember(&mask, number), 1) << number;
        }
        EXPECT_EQ(sigismember(&mask, SIGSEGV), 0);
        EXPECT_EQ(sigismember(&mask, SIGABRT), 0);
    });
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), 0);
    EXPECT_EQ(sigismember(&after, SIGPIPE), 0);
}

class OperationDeathTest : public testing::Test {
  protected:
    OperationDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
    memory_backend host;
};

TEST_F(OperationDeathTest, ASecondAnswerEndsTheProcess)
{
    EXPECT_DEATH(host.in_stat([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, nullptr, 0);
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, nullptr, 0);
    }),
                 "entry stat_func answered a second time");
}

TEST_F(OperationDeathTest, ASecondTransferAnswerEndsTheProcess)
{
    EXPECT_DEATH(host.in_recv([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
        tirval_gridftp_server_finished_transfer(op, TIRVAL_FAILURE);
    }),
                 "entry recv_func answered a second time");
}

TEST_F(OperationDeathTest, NoAnswerEndsTheProcess)
{
    tirval_gfs_storage_iface_t mute = {};
    mute.command_func = [](tirval_gfs_operation_t, tirval_gfs_command_info_t *, void *) {};
    host.iface = &mute;
    EXPECT_DEATH(host.command(TIRVAL_GFS_CMD_DELE, "/a"),
                 "entry command_func returned without an answer");
}

TEST_F(OperationDeathTest, TheAnswerOfAnotherKindEndsTheProcess)
{
    EXPECT_DEATH(host.in_send([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_command(op, TIRVAL_SUCCESS, nullptr);
    }),
                 "entry send_func gave the answer of another kind");
}

TEST_F(OperationDeathTest, RecordsAfterTheAnswerEndTheProcess)
{
    EXPECT_DEATH(host.in_stat([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, nullptr, 0);
        tirval_gridftp_server_finished_stat_partial(op, TIRVAL_SUCCESS, nullptr, 0);
    }),
                 "entry stat_func reported something after its answer");
}

TEST_F(OperationDeathTest, ATransferThatBeginsTwiceEndsTheProcess)
{
    EXPECT_DEATH(host.in_send([](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
    }),
                 "entry send_func began its transfer a second time");
}

} // namespace
