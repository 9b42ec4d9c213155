/* When the sessions of a user are known not to keep to one pace. */
#include "pacing.h"

#include "temp_dir.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tirval::tests {
namespace {

using server::pacing_problem;

class Pacing : public ::testing::Test {
  protected:
    Pacing()
    {
        account.name = "anna";
        account.uid = geteuid();
        account.home = folder.path();
    }
    void make_record(std::size_t bytes) const
    {
        std::filesystem::create_directories(folder / ".tirval/onedrive-r");
        folder.write(".tirval/onedrive-r/anna-sub", std::string(bytes, '\0'));
    }

    temp_dir_t folder;
    server::account_t account;
    const std::string path = folder / ".tirval/onedrive-r/anna-sub";
};

TEST_F(Pacing, IsSharedThroughTheUsersOwnRecord)
{
    make_record(24);
    EXPECT_EQ(pacing_problem(account, "anna-sub"), "");
}

TEST_F(Pacing, IsNotSharedWithoutARecord)
{
    EXPECT_EQ(pacing_problem(account, "anna-sub"), path + ": No such file or directory");
    make_record(24);
    EXPECT_NE(pacing_problem(account, "bob-sub"), "");
}

TEST_F(Pacing, IsNotSharedThroughARecordOfAnotherSize)
{
    make_record(23);
    EXPECT_EQ(pacing_problem(account, "anna-sub"),
              path + ": it has not the size that it should have");
}

TEST_F(Pacing, IsNotSharedThroughTheRecordOfAnotherUser)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can make files of others";
    }
    make_record(24);
    ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
    EXPECT_EQ(pacing_problem(account, "anna-sub"), path + ": it belongs to another user");
}

TEST_F(Pacing, IsNotSharedWithoutAHome)
{
    account.home.clear();
    EXPECT_EQ(pacing_problem(account, "anna-sub"), "the user has no home");
}

} // namespace
} // namespace tirval::tests
