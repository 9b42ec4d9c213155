/* The access token: reading a credential, and when it is asked for anew. */
#include "frame_support.h"

#include "memory_backend.h"

#include <ctime>
#include <gmock/gmock.h>
#include <optional>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr time_t first_of_2030 = 1893456000;
std::optional<time_t> the_time;

} // namespace

extern "C" TIRVAL_API time_t time(time_t *out) noexcept
{
    const time_t now = the_time.value_or(0);
    if (the_time.has_value()) {
        if (out != nullptr) {
            *out = now;
        }
        return now;
    }
    timespec real = {};
    (void)clock_gettime(CLOCK_REALTIME, &real);
    if (out != nullptr) {
        *out = real.tv_sec;
    }
    return real.tv_sec;
}

namespace {

std::string credential(const std::string &expiry, const std::string &members = "")
{
    return R"({"access_token": "T", "sub": "S", "token_expiry": ")" + expiry + "\"" + members + "}";
}

std::string credential_with_tid(const std::string &tid)
{
    return credential("2030-01-01T00:00:00.000000+00:00", R"(, "tid": ")" + tid + "\"");
}

/* Runs the update inside operations of a host that has the test's credentials. */
class Token : public ::testing::Test {
  protected:
    void TearDown() override
    {
        the_time.reset();
        free(handle.access_token);
        free(handle.tid);
        free(handle.userid);
    }

    bool update()
    {
        host.in_stat([this](tirval_gfs_operation_t op) {
            outcome = memory_outcome::of(tirval_onedrive_update_token(&handle, op));
        });
        asked.insert(asked.end(), host.config_asked.begin(), host.config_asked.end());
        return outcome.result == TIRVAL_SUCCESS;
    }

    bool update(const std::string &creds)
    {
        host.config["creds"] = creds;
        return update();
    }

    tirval_onedrive_handle_t handle = {};
    memory_backend host;
    memory_outcome outcome;
    std::vector<std::string> asked;
};

TEST_F(Token, IsTakenFromTheCredentialAtFirst)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000+00:00", R"(, "tid": "X", "z": 1)")));
    EXPECT_THAT(asked, ElementsAre("creds"));
    EXPECT_STREQ(handle.access_token, "T");
    EXPECT_STREQ(handle.userid, "S");
    EXPECT_STREQ(handle.tid, "X");
    EXPECT_EQ(handle.access_token_exp, first_of_2030);
}

/* ---- Expiry ---- */

TEST_F(Token, AnExpiryInUtcIsTheTimeItShows)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000+00:00")));
    EXPECT_EQ(handle.access_token_exp, first_of_2030);
}

TEST_F(Token, AnExpiryEastOfGreenwichIsEarlierThanItsClockReading)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000+05:30")));
    EXPECT_EQ(handle.access_token_exp, first_of_2030 - (5 * 60 + 30) * 60);
}

TEST_F(Token, AnExpiryWestOfGreenwichIsLaterThanItsClockReading)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000-05:30")));
    EXPECT_EQ(handle.access_token_exp, first_of_2030 + (5 * 60 + 30) * 60);
}

TEST_F(Token, AnExpiryAtMinusZeroHoursCountsItsMinutesAsPositive)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000-00:30")));
    EXPECT_EQ(handle.access_token_exp, first_of_2030 - 30 * 60);
}

TEST_F(Token, AnExpiryWithoutAFractionIsRefused)
{
    EXPECT_FALSE(update(credential("2030-01-01T00:00:00+00:00")));
    EXPECT_EQ(outcome.text, "Error parsing time string: 2030-01-01T00:00:00+00:00\n");
    EXPECT_EQ(outcome.code, 0);
}

TEST_F(Token, AnExpiryWithAZoneLetterIsRefused)
{
    EXPECT_FALSE(update(credential("2030-01-01T00:00:00.000000Z")));
    EXPECT_EQ(outcome.text, "Error parsing time string: 2030-01-01T00:00:00.000000Z\n");
}

TEST_F(Token, AnExpiryThatIsNoTimeIsRefused)
{
    for (const char *expiry : {"", "soon", "2030-01-01", "2030-01-01T00:00:00.000000+00"}) {
        EXPECT_FALSE(update(credential(expiry)));
        EXPECT_THAT(outcome.text, StartsWith("Error parsing time string: ")) << expiry;
    }
}

/* ---- Personal accounts ---- */

TEST_F(Token, AnAccountWithoutATenantIsPersonal)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000+00:00")));
    EXPECT_EQ(handle.tid, nullptr);
    EXPECT_TRUE(handle.personal);
}

TEST_F(Token, AnAccountOfTheConsumerTenantIsPersonal)
{
    ASSERT_TRUE(update(credential_with_tid("9188040d-6c67-4c5b-b112-36a304b66dad")));
    EXPECT_TRUE(handle.personal);
}

TEST_F(Token, AnAccountOfAnotherTenantIsNotPersonal)
{
    ASSERT_TRUE(update(credential_with_tid("11111111-6c67-4c5b-b112-36a304b66dad")));
    EXPECT_FALSE(handle.personal);
}

TEST_F(Token, ATenantThatDiffersFromTheConsumersByCaseIsNotPersonal)
{
    ASSERT_TRUE(update(credential_with_tid("9188040D-6c67-4c5b-b112-36a304b66dad")));
    EXPECT_FALSE(handle.personal);
}

/* ---- Renewal ---- */

TEST_F(Token, IsKeptWhileItLivesForMoreThanNinetyNineSeconds)
{
    ASSERT_TRUE(update(credential("2030-01-01T00:00:00.000000+00:00")));
    asked.clear();
    the_time = first_of_2030 - 100;
    EXPECT_TRUE(update());
    EXPECT_THAT(asked, IsEmpty());
    EXPECT_STREQ(handle.access_token, "T");
}

TEST_F(Token, IsRenewedWhenItExpiresInNinetyNineSeconds)
{
    ASSERT_TRUE(update(credential_with_tid("X")));
    asked.clear();
    host.config["renew-creds"] = R"({"access_token": "T2", "sub": "S2", "tid": "X2",
        "token_expiry": "2030-01-02T00:00:00.000000+00:00"})";
    the_time = first_of_2030 - 99;
    EXPECT_TRUE(update());
    EXPECT_THAT(asked, ElementsAre("renew-creds"));
    EXPECT_STREQ(handle.access_token, "T2");
    EXPECT_STREQ(handle.userid, "S2");
    EXPECT_STREQ(handle.tid, "X2");
    EXPECT_FALSE(handle.personal);
    EXPECT_EQ(handle.access_token_exp, first_of_2030 + 86400);
}

TEST_F(Token, IsRenewedWhenItHasExpired)
{
    ASSERT_TRUE(update(credential("2001-01-01T00:00:00.000000+00:00")));
    asked.clear();
    host.config["renew-creds"] = credential("2001-01-02T00:00:00.000000+00:00");
    EXPECT_TRUE(update()) << "also when the new one is as old";
    EXPECT_THAT(asked, ElementsAre("renew-creds"));
}

TEST_F(Token, ARenewalWithoutATenantMakesTheAccountPersonal)
{
    ASSERT_TRUE(update(credential_with_tid("X")));
    host.config["renew-creds"] = credential("2030-01-01T00:00:00.000000+00:00");
    the_time = first_of_2030;
    EXPECT_TRUE(update());
    EXPECT_EQ(handle.tid, nullptr);
    EXPECT_TRUE(handle.personal);
}

TEST_F(Token, AfterAFailedRenewalTheAccountCountsAsPersonalAndTheFirstCredentialIsAskedForAgain)
{
    ASSERT_TRUE(update(credential_with_tid("X")));
    EXPECT_FALSE(handle.personal);
    asked.clear();
    the_time = first_of_2030;
    EXPECT_FALSE(update());
    EXPECT_EQ(handle.access_token, nullptr);
    EXPECT_EQ(handle.userid, nullptr);
    EXPECT_EQ(handle.tid, nullptr);
    EXPECT_TRUE(handle.personal);
    EXPECT_TRUE(update());
    EXPECT_THAT(asked, ElementsAre("renew-creds", "creds"));
    EXPECT_STREQ(handle.access_token, "T");
}

/* ---- Bad credentials ---- */

TEST_F(Token, AMissingCredentialIsAnErrorLoadingIt)
{
    EXPECT_FALSE(update());
    EXPECT_THAT(outcome.text, StartsWith("Error loading user credential: "));
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(handle.access_token, nullptr);
}

TEST_F(Token, ACredentialThatIsNotJsonIsAnErrorWithTheParsersReason)
{
    EXPECT_FALSE(update("{"));
    EXPECT_THAT(outcome.text, StartsWith("Error loading user credential: "));
    EXPECT_THAT(outcome.text, HasSubstr("end of file"));
    EXPECT_TRUE(outcome.text.ends_with('\n'));
}

TEST_F(Token, ARequiredMemberThatIsMissingOrNoTextIsAnInternalErrorReply)
{
    for (const char *creds :
         {R"({"token_expiry": "2030-01-01T00:00:00.000000+00:00", "sub": "S"})",
          R"({"access_token": "T", "sub": "S"})",
          R"({"access_token": "T", "token_expiry": "2030-01-01T00:00:00.000000+00:00"})",
          R"({"access_token": 1, "token_expiry": "2030-01-01T00:00:00.000000+00:00", "sub": "S"})",
          R"({"access_token": "T", "token_expiry": "2030-01-01T00:00:00.000000+00:00", "sub": []})",
          R"({"access_token": "T", "token_expiry": 1, "sub": "S"})", "[]"}) {
        EXPECT_FALSE(update(creds)) << creds;
        EXPECT_EQ(outcome.code, 500) << creds;
        EXPECT_EQ(outcome.tag, "INTERNAL_ERROR") << creds;
        EXPECT_THAT(outcome.text,
                    HasSubstr("GridFTP-Error: Error unpacking collection storage policy: "))
            << creds;
        EXPECT_EQ(handle.userid, nullptr) << creds;
    }
}

TEST_F(Token, ATenantThatIsNoTextIsAnInternalErrorReply)
{
    EXPECT_FALSE(update(credential("2030-01-01T00:00:00.000000+00:00", R"(, "tid": 1)")));
    EXPECT_EQ(outcome.code, 500);
}

TEST_F(Token, AFailureIsWrittenAsTheExitLinesOfParsingAndUpdating)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(update("{}"));
    const std::string lines = channel.text();
    EXPECT_THAT(lines, HasSubstr(": tirval_l_onedrive_parse_token_json: exit: result=0x"));
    EXPECT_THAT(lines, HasSubstr(": tirval_onedrive_update_token: exit: result=0x"));
}

TEST_F(Token, NeverAppearsOnTheDebugChannel)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    EXPECT_FALSE(update(R"({"access_token": "SECRET", "sub": "S"})"));
    EXPECT_TRUE(update(R"({"access_token": "SECRET", "sub": "S",
        "token_expiry": "2030-01-01T00:00:00.000000+00:00"})"));
    EXPECT_THAT(channel.text(), HasSubstr("tirval_onedrive_update_token: exit"));
    EXPECT_THAT(channel.text(), ::testing::Not(HasSubstr("SECRET")));
}

} // namespace
