/* The drop of privileges, each case in a process of its own. */
#include "privileges.h"

#include "child_process.h"
#include "temp_dir.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

using namespace tirval::server;

namespace {

/* One line of /proc/self/status. */
std::string status_of_self(const std::string &key)
{
    std::ifstream status{"/proc/self/status"};
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":\t")) {
            return line.substr(key.size() + 2);
        }
    }
    return "no " + key;
}

std::string number_text(unsigned long number)
{
    return std::to_string(number);
}

constexpr const char *no_capabilities = "0000000000000000";

class AsRoot : public testing::Test {
  protected:
    void SetUp() override
    {
        if (getuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
    }
};

using LoweredPrivileges = AsRoot;
using BecomingAUser = AsRoot;

} // namespace

TEST(Accounts, TheyAreFoundByNameAndByNumber)
{
    const auto root = find_account("root");
    ASSERT_TRUE(root.has_value());
    EXPECT_EQ(root->uid, 0U);
    EXPECT_EQ(root->name, "root");
    EXPECT_EQ(root->home, "/root");
    EXPECT_EQ(find_account(uid_t{0})->name, "root");
    EXPECT_FALSE(find_account("no-such-local-user").has_value());
    EXPECT_FALSE(find_account(uid_t{3'999'999'999}).has_value());
}

TEST(Accounts, RootIsNeverServed)
{
    EXPECT_NE(account_problem(*find_account("root")), "");
}

TEST_F(BecomingAUser, ServersStartedByRootServeOthers)
{
    EXPECT_EQ(account_problem(*find_account("daemon")), "");
}

TEST_F(LoweredPrivileges, FilesOfRootAreOutOfReach)
{
    const temp_dir_t dir;
    const auto secret = dir.write("secret", "x");
    const auto result = run_in_child([&] {
        lower_privileges();
        const int fd = open(secret.c_str(), O_RDONLY);
        return std::string{fd >= 0 ? "read" : std::strerror(errno)};
    });
    EXPECT_EQ(result.text, "Permission denied");
}

TEST_F(LoweredPrivileges, OnlyTheWayToTheUserIsKeptAndThatAsleep)
{
    const auto nobody = find_account("nobody");
    ASSERT_TRUE(nobody.has_value());
    const auto result = run_in_child([] {
        lower_privileges();
        return number_text(geteuid()) + " " + number_text(getegid()) + " " +
               number_text(static_cast<unsigned long>(getgroups(0, nullptr))) + " " +
               status_of_self("CapEff") + " " + status_of_self("CapPrm");
    });
    /* capabilities 6 and 7 change groups and users */
    EXPECT_EQ(result.text, number_text(nobody->uid) + " " + number_text(nobody->gid) + " 0 " +
                               no_capabilities + " 00000000000000c0");
}

TEST_F(BecomingAUser, AllIdentitiesAreTheUsers)
{
    const auto daemon = find_account("daemon");
    const auto result = run_in_child([&] {
        lower_privileges();
        become_user(*daemon, false);
        return status_of_self("Uid") + " " + status_of_self("Gid");
    });
    const std::string uid = number_text(daemon->uid);
    const std::string gid = number_text(daemon->gid);
    EXPECT_EQ(result.text, uid + "\t" + uid + "\t" + uid + "\t" + uid + " " + gid + "\t" + gid +
                               "\t" + gid + "\t" + gid);
}

TEST_F(BecomingAUser, TheGroupsAreTheUsersOwn)
{
    const auto daemon = find_account("daemon");
    std::vector<gid_t> expected(64);
    int count = static_cast<int>(expected.size());
    ASSERT_GE(getgrouplist("daemon", daemon->gid, expected.data(), &count), 0);
    expected.resize(static_cast<std::size_t>(count));
    std::ranges::sort(expected);
    const auto result = run_in_child([&] {
        const gid_t odd[] = {0, 4242};
        std::string text;
        if (setgroups(2, odd) != 0) {
            return std::string{"no groups could be set"};
        }
        lower_privileges();
        become_user(*daemon, false);
        gid_t groups[64];
        const int got = getgroups(64, groups);
        std::sort(groups, groups + got);
        for (int i = 0; i < got; ++i) {
            text += number_text(groups[i]) + " ";
        }
        return text;
    });
    std::string text;
    for (const gid_t group : expected) {
        text += number_text(group) + " ";
    }
    EXPECT_EQ(result.text, text);
}

TEST_F(BecomingAUser, ThereIsNoWayBack)
{
    const auto result = run_in_child([] {
        lower_privileges();
        become_user(*find_account("daemon"), false);
        std::string open_ways;
        const gid_t root_group = 0;
        open_ways += setuid(0) == 0 ? "setuid " : "";
        open_ways += seteuid(0) == 0 ? "seteuid " : "";
        open_ways += setresuid(0, 0, 0) == 0 ? "setresuid " : "";
        open_ways += setresgid(0, 0, 0) == 0 ? "setresgid " : "";
        open_ways += setgroups(1, &root_group) == 0 ? "setgroups " : "";
        return open_ways + status_of_self("CapPrm") + " " + status_of_self("CapEff") + " " +
               status_of_self("CapInh") + " " + status_of_self("CapAmb");
    });
    const std::string none = no_capabilities;
    EXPECT_EQ(result.text, none + " " + none + " " + none + " " + none);
}

TEST_F(BecomingAUser, NothingCanGivePrivilegesAgainOrReadTheMemory)
{
    const auto result = run_in_child([] {
        lower_privileges();
        become_user(*find_account("daemon"), false);
        return status_of_self("NoNewPrivs") + " " + std::to_string(prctl(PR_GET_DUMPABLE));
    });
    EXPECT_EQ(result.text, "1 0");
}

TEST_F(BecomingAUser, TheFilterIsSetWhenItIsWanted)
{
    for (const bool sandbox : {false, true}) {
        const auto result = run_in_child([&] {
            lower_privileges();
            become_user(*find_account("daemon"), sandbox);
            return status_of_self("Seccomp");
        });
        EXPECT_EQ(result.text, sandbox ? "2" : "0");
    }
}

TEST_F(BecomingAUser, AnOrdinaryUsersServerServesThatUserAlone)
{
    const auto result = run_in_child([] {
        const auto daemon = *find_account("daemon");
        const auto nobody = *find_account("nobody");
        if (setgroups(0, nullptr) != 0 || setresgid(4242, 4242, 4242) != 0 ||
            setresuid(daemon.uid, daemon.uid, daemon.uid) != 0) {
            return std::string{"no ordinary user"};
        }
        std::string text = account_problem(daemon) + "|" + account_problem(nobody) + "|";
        lower_privileges();
        become_user(daemon, true);
        return text + status_of_self("Gid").substr(0, 4) + "|" + status_of_self("NoNewPrivs");
    });
    EXPECT_EQ(result.text, "|the local user \"nobody\" is not the one who started the server, and "
                           "only root can serve others|4242|1");
}

TEST_F(BecomingAUser, WithoutPrivilegesNobodyElseCanBeBecome)
{
    const auto result = run_in_child([] {
        const auto daemon = *find_account("daemon");
        if (setresuid(daemon.uid, daemon.uid, daemon.uid) != 0) {
            return std::string{"no ordinary user"};
        }
        become_user(*find_account("nobody"), false);
        return std::string{"became nobody"};
    });
    EXPECT_EQ(result.text, "exception: the way back from nobody's identity is open");
}

TEST_F(BecomingAUser, AWayBackThatIsOpenIsFound)
{
    const auto result = run_in_child([] {
        account_t root = *find_account("root");
        become_user(root, false);
        return std::string{"became root"};
    });
    EXPECT_EQ(result.text, "exception: the way back from root's identity is open");
}

TEST_F(LoweredPrivileges, TheProcessCanBeLeftFromThere)
{
    const auto result = run_in_child([]() -> std::string {
        lower_privileges();
        leave_process(7);
    });
    EXPECT_EQ(result.exit_status, 7);
}
