/*
 * The process's cancel flag and its descriptor.
 */
#include "memory_backend.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool readable(int descriptor)
{
    pollfd one = {descriptor, POLLIN, 0};
    return poll(&one, 1, 0) == 1 && (one.revents & POLLIN) != 0;
}

class Cancel : public testing::Test {
  protected:
    ~Cancel() override { tirval_gfs_cancel_clear(); }
};

TEST_F(Cancel, TheDescriptorIsReadableWhileTheFlagIsSet)
{
    int descriptor = tirval_gfs_cancel_descriptor();
    ASSERT_GE(descriptor, 0);
    EXPECT_FALSE(readable(descriptor));
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    EXPECT_TRUE(readable(descriptor));
    EXPECT_EQ(tirval_gfs_cancel_descriptor(), descriptor);
    tirval_gfs_cancel_clear();
    EXPECT_FALSE(readable(descriptor));
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
}

TEST_F(Cancel, TheFirstReasonStays)
{
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_SHUTDOWN);
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_LOST);
}

TEST_F(Cancel, TheErrorNamesTheReason)
{
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_SHUTDOWN);
    tirval_result_t result = tirval_gfs_cancel_error();
    memory_outcome outcome = memory_outcome::of(result);
    EXPECT_EQ(outcome.type, TIRVAL_ERROR_TYPE_CANCELLED);
    EXPECT_NE(outcome.text.find("The server is shutting down."), std::string::npos);
    tirval_object_free(tirval_error_get(result));
}

TEST_F(Cancel, AnotherThreadWakesWhoeverPolls)
{
    pollfd cancel = {tirval_gfs_cancel_descriptor(), POLLIN, 0};
    std::thread client([] { tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT); });
    EXPECT_EQ(poll(&cancel, 1, -1), 1);
    client.join();
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_ABORT);
}

TEST_F(Cancel, AForkedProcessHasADescriptorOfItsOwn)
{
    int descriptor = tirval_gfs_cancel_descriptor();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
        int own = tirval_gfs_cancel_descriptor();
        _exit(own != descriptor && readable(own) && !readable(descriptor) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(readable(descriptor));
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
}

TEST_F(Cancel, ARunClearsOnlyWhatItsOwnTransferSet)
{
    memory_backend host;
    host.begin_fails = true;
    auto begin = [](tirval_gfs_operation_t op) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_NE(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
    };
    host.in_send(begin);
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_NONE);
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
    host.in_send(begin);
    EXPECT_EQ(tirval_gfs_cancelled(), TIRVAL_GFS_CANCEL_LOST);
}

} // namespace
