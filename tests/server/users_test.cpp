/* The users file and the check of passwords. */
#include "users.h"

#include "privileges.h"
#include "temp_dir.h"

#include <crypt.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace tirval::server;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

std::string hashed(const std::string &password, const char *setting = "$5$rounds=1000$salt")
{
    crypt_data room{};
    return crypt_r(password.c_str(), setting, &room);
}

/* A local user that a server started by the test's user may serve. */
std::string local_user()
{
    return getuid() == 0 ? "nobody" : find_account(getuid())->name;
}

class UsersFile : public testing::Test {
  protected:
    users_result_t load(const std::string &text, mode_t mode = 0600)
    {
        file_ = dir_.write("users", text, mode).string();
        return load_users(file_);
    }

    temp_dir_t dir_;
    std::string file_;
};

} // namespace

TEST_F(UsersFile, AUserLogsInWithThePasswordAndBecomesTheLocalUser)
{
    const auto [users, problems] =
        load("# people\n\n  \nanna:" + hashed("secret") + ":" + local_user() + "\n");
    ASSERT_THAT(problems, IsEmpty());
    EXPECT_EQ(users.size(), 1U);
    EXPECT_EQ(users.authenticate("anna", "secret"), local_user());
    EXPECT_EQ(users.authenticate("anna", "Secret"), std::nullopt);
    EXPECT_EQ(users.authenticate("anna", ""), std::nullopt);
    EXPECT_EQ(users.authenticate("Anna", "secret"), std::nullopt);
    EXPECT_EQ(users.authenticate("bert", "secret"), std::nullopt);
    EXPECT_EQ(users.authenticate("", "secret"), std::nullopt);
}

TEST_F(UsersFile, WithoutALocalUserTheNameItselfIsOne)
{
    const auto [users, problems] = load(local_user() + ":" + hashed("secret"));
    ASSERT_THAT(problems, IsEmpty());
    EXPECT_EQ(users.authenticate(local_user(), "secret"), local_user());
}

TEST_F(UsersFile, HashesOfEveryUsualKindWork)
{
    std::string text;
    const char *prefixes[] = {"$y$", "$6$", "$5$", "$2b$", "$1$"};
    for (const char *prefix : prefixes) {
        const bool rounds = prefix[1] == '5' || prefix[1] == '6';
        crypt_data room{};
        const unsigned long cost = rounds ? 1000 : prefix[1] == '2' ? 4 : prefix[1] == 'y' ? 1 : 0;
        const std::string setting = crypt_gensalt_rn(prefix, cost, nullptr, 0, room.output,
                                                     static_cast<int>(sizeof room.output));
        text += "user" + std::string{prefix} + ":" + hashed("pw", setting.c_str()) + ":" +
                local_user() + "\n";
    }
    const auto [users, problems] = load(text);
    ASSERT_THAT(problems, IsEmpty());
    for (const char *prefix : prefixes) {
        const std::string name = "user" + std::string{prefix};
        EXPECT_EQ(users.authenticate(name, "pw"), local_user()) << prefix;
        EXPECT_EQ(users.authenticate(name, "pw "), std::nullopt) << prefix;
    }
}

TEST_F(UsersFile, ALockedUserNeverLogsIn)
{
    const auto [users, problems] =
        load("anna:!:" + local_user() + "\nbert:*" + hashed("secret") + ":" + local_user() + "\n");
    ASSERT_THAT(problems, IsEmpty());
    EXPECT_EQ(users.authenticate("anna", "!"), std::nullopt);
    EXPECT_EQ(users.authenticate("anna", ""), std::nullopt);
    EXPECT_EQ(users.authenticate("bert", "secret"), std::nullopt);
}

TEST_F(UsersFile, NobodyLogsInWithoutUsers)
{
    EXPECT_EQ(users_t{}.authenticate("anna", "secret"), std::nullopt);
    const auto [users, problems] = load("");
    EXPECT_THAT(problems, IsEmpty());
    EXPECT_EQ(users.authenticate("anna", "secret"), std::nullopt);
}

TEST_F(UsersFile, APasswordThatIsTooLongForAHashIsWrong)
{
    const auto [users, problems] = load("anna:" + hashed("x") + ":" + local_user() + "\n");
    ASSERT_THAT(problems, IsEmpty());
    EXPECT_EQ(users.authenticate("anna", std::string(100'000, 'x')), std::nullopt);
}

TEST_F(UsersFile, EachBadLineIsNamedWithItsNumber)
{
    const std::string hash = hashed("pw");
    const std::string me = local_user();
    const auto result =
        load("a:" + hash + ":" + me + "\n" + "a:" + hash + ":" + me + "\n" + "no-colon\n" + ":" +
             hash + ":" + me + "\n" + "b:" + hash + ":\n" + "c:" + hash + ":" + me + ":more\n" +
             "d:secret:" + me + "\n" + "e::" + me + "\n" + "f:$99$x$y:" + me + "\n" + "g:" + hash +
             ":no-such-local-user\n" + "h:" + hash + ":root\n" + "i:" + hash + ":" + me + "\r\n");
    const std::string shape = "expected name:hash or name:hash:local user";
    const std::string no_hash = "expected a password hash, as \"openssl passwd -6\" makes it";
    EXPECT_THAT(
        result.problems,
        ElementsAre(file_ + ":2: the user \"a\" is there twice", file_ + ":3: " + shape,
                    file_ + ":4: " + shape, file_ + ":5: " + shape, file_ + ":6: " + shape,
                    file_ + ":7: " + no_hash, file_ + ":8: " + no_hash,
                    file_ + ":9: the password hash is of a kind that this system does not know",
                    file_ + ":10: there is no local user \"no-such-local-user\" on this system",
                    file_ + ":11: the local user \"root\" is root, who is never served",
                    file_ + ":12: there is a control character in it"));
}

TEST_F(UsersFile, AFileThatOthersMayReadOrWriteIsRefused)
{
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0610U}) {
        const auto problems = load("", mode).problems;
        EXPECT_THAT(
            problems,
            ElementsAre(file_ + ": group or others may read or write it; make it mode 0600"))
            << std::oct << mode;
    }
    EXPECT_THAT(load("", 0400).problems, IsEmpty());
}

TEST_F(UsersFile, AFileOfAStrangerIsRefused)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    const auto file = dir_.write("users", "");
    ASSERT_EQ(chown(file.c_str(), 4711, 0), 0);
    EXPECT_THAT(load_users(file).problems,
                ElementsAre(HasSubstr("belongs to neither root nor the server's user")));
}

TEST_F(UsersFile, WhatIsNoReadableTextFileIsRefused)
{
    EXPECT_THAT(load_users(dir_ / "missing").problems,
                ElementsAre(HasSubstr("cannot be opened: No such file or directory")));
    EXPECT_THAT(load_users(dir_.path()).problems, ElementsAre(HasSubstr("is not a file")));
    EXPECT_THAT(load("\xff\xfe:x\n").problems, ElementsAre(HasSubstr("is not UTF-8")));
}
