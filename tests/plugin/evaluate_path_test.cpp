/* Path evaluation: "$HOME" and "$LOGNAME" of the real user. */
#include "faked_user.h"
#include "frame_support.h"

#include <gmock/gmock.h>

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class EvaluatePath : public ::testing::Test {
  protected:
    void SetUp() override { user = {}; }

    static std::string evaluated(const char *path)
    {
        char *updated = nullptr;
        EXPECT_EQ(tirval_onedrive_evaluate_path(path, &updated), TIRVAL_SUCCESS);
        return taken(updated);
    }

    /* The failure's text; what was there before must be gone. */
    static std::string failure(const char *path)
    {
        const error_scope scope;
        char before[] = "before";
        char *updated = before;
        const tirval_result_t result = tirval_onedrive_evaluate_path(path, &updated);
        EXPECT_NE(result, TIRVAL_SUCCESS);
        EXPECT_EQ(updated, nullptr);
        return message_of(result);
    }
};

TEST_F(EvaluatePath, ReplacesHomeByTheHomeDirectory)
{
    EXPECT_EQ(evaluated("$HOME/.tirval"), "/home/u/.tirval");
}

TEST_F(EvaluatePath, ReplacesEveryLognameByTheUsersName)
{
    EXPECT_EQ(evaluated("/x/$LOGNAME/$LOGNAME"), "/x/u/u");
}

TEST_F(EvaluatePath, ReplacesBothVariablesInAnyOrder)
{
    user.name = "somebody-with-a-long-name";
    EXPECT_EQ(evaluated("$LOGNAME$HOME/$LOGNAME-$HOME$HOME"),
              "somebody-with-a-long-name/home/u/somebody-with-a-long-name-/home/u/home/u");
}

TEST_F(EvaluatePath, ReplacesAVariableWhateverFollowsIt)
{
    EXPECT_EQ(evaluated("$HOMEX"), "/home/uX");
    EXPECT_EQ(evaluated("$LOGNAMES"), "uS");
}

TEST_F(EvaluatePath, ReturnsATemplateWithoutVariablesAsANewText)
{
    const char *const path = "/var/~/${HOME}/$USER/$home/$HOM/$";
    char *updated = nullptr;
    ASSERT_EQ(tirval_onedrive_evaluate_path(path, &updated), TIRVAL_SUCCESS);
    EXPECT_NE(updated, path);
    EXPECT_EQ(taken(updated), path);
    EXPECT_EQ(evaluated(""), "");
}

TEST_F(EvaluatePath, ReplacesAnAbsentNameOrHomeByNothing)
{
    user.name = nullptr;
    EXPECT_EQ(evaluated("a$LOGNAME/$HOME$LOGNAME"), "a//home/u");
    user.has_home = false;
    EXPECT_EQ(evaluated("$HOME/$LOGNAME."), "/.");
}

TEST_F(EvaluatePath, ReplacesByTextsThatLookLikeVariablesOnlyOnce)
{
    user.home = "$LOGNAME/$HOME";
    EXPECT_EQ(evaluated("$HOME/x"), "$LOGNAME/$HOME/x");
}

TEST_F(EvaluatePath, DoublesItsBufferUntilTheEntryFits)
{
    user.entry_size = 1000;
    EXPECT_EQ(evaluated("$HOME"), "/home/u");
    EXPECT_THAT(user.buffers, ElementsAre(64, 128, 256, 512, 1024));
}

TEST_F(EvaluatePath, AnEntryThatFitsAtOnceIsLookedUpOnce)
{
    user.entry_size = 64;
    EXPECT_EQ(evaluated("$HOME"), "/home/u");
    EXPECT_THAT(user.buffers, ElementsAre(64));
}

TEST_F(EvaluatePath, AsksForTheRealUserNotTheEffectiveOne)
{
    ASSERT_EQ(getuid(), 0U) << "this test changes its effective user";
    EXPECT_EQ(child_process([] {
                  if (seteuid(65534) != 0) {
                      return 1;
                  }
                  (void)evaluated("$HOME");
                  return user.asked == std::vector<uid_t>{0} ? 0 : 2;
              }).wait(),
              0);
}

TEST_F(EvaluatePath, AFailedLookUpIsASystemErrorInMalloc)
{
    user.failure = EIO;
    EXPECT_EQ(failure("$HOME"), "System error in malloc: Input/output error");
    EXPECT_EQ(failure("/no/variable"), "System error in malloc: Input/output error");
}

TEST_F(EvaluatePath, AUserWithoutAnEntryIsASystemError)
{
    user.known = false;
    EXPECT_THAT(failure("$HOME"), HasSubstr("System error in malloc"));
}

TEST_F(EvaluatePath, AFailureIsWrittenAsTheFunctionsErrorExitLine)
{
    user.failure = EIO;
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    (void)failure("$HOME");
    const std::vector<std::string> lines = channel.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], ::testing::MatchesRegex(
                              "ERROR tirval_onedrive_evaluate_path: exit: result=0x[0-9a-f]+ "
                              "message=System error in malloc: Input/output error"));
}

} // namespace
