/* The storage policy: what it says about the request rate, and what is done about a bad one. */
#include "frame_support.h"

#include <gmock/gmock.h>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int32_t untouched = 4711;

int32_t rate_of(const char *policy)
{
    int32_t rate = untouched;
    EXPECT_EQ(tirval_onedrive_config_parse_json(policy, &rate), TIRVAL_SUCCESS) << policy;
    return rate;
}

struct failure_t {
    std::string text;
    int code = 0;
    std::string tag;
    int type = TIRVAL_ERROR_TYPE_UNKNOWN;
};

failure_t failure_of(const char *policy)
{
    const error_scope scope;
    int32_t rate = untouched;
    const tirval_result_t result = tirval_onedrive_config_parse_json(policy, &rate);
    EXPECT_NE(result, TIRVAL_SUCCESS);
    EXPECT_EQ(rate, untouched);
    failure_t failure;
    failure.text = message_of(result);
    const char *tag = nullptr;
    tirval_object_t *const error = tirval_error_peek(result);
    if (tirval_gfs_ftp_response_error_get(error, &failure.code, &tag, nullptr)) {
        failure.tag = tag;
    }
    failure.type = tirval_error_get_type(error);
    return failure;
}

TEST(Policy, SetsTheRate)
{
    EXPECT_EQ(rate_of(R"({"user_api_rate_limit": 7})"), 7);
}

TEST(Policy, IgnoresOtherMembers)
{
    EXPECT_EQ(rate_of(R"({"other": "x", "user_api_rate_limit": 7, "more": [1]})"), 7);
}

TEST(Policy, AnEmptyObjectLeavesTheRate)
{
    EXPECT_EQ(rate_of("{}"), untouched);
}

TEST(Policy, ZeroLeavesTheRate)
{
    EXPECT_EQ(rate_of(R"({"user_api_rate_limit": 0})"), untouched);
}

TEST(Policy, ANegativeRateIsStoredAsItStands)
{
    EXPECT_EQ(rate_of(R"({"user_api_rate_limit": -3})"), -3);
}

TEST(Policy, TwoToTheThirtySecondReadsAsZeroAndLeavesTheRate)
{
    EXPECT_EQ(rate_of(R"({"user_api_rate_limit": 4294967296})"), untouched);
}

TEST(Policy, AMissingTextIsAnErrorOfItsOwnAndLeavesTheRate)
{
    const failure_t failure = failure_of(nullptr);
    EXPECT_THAT(failure.text, StartsWith("Error loading collection storage policy: "));
    EXPECT_EQ(failure.code, 0);
    EXPECT_EQ(failure.type, TIRVAL_ERROR_TYPE_SERVICE_ANSWER);
}

TEST(Policy, ATextThatIsNotJsonIsAnErrorWithTheParsersReason)
{
    const failure_t failure = failure_of("{");
    EXPECT_THAT(failure.text, StartsWith("Error loading collection storage policy: "));
    EXPECT_THAT(failure.text, HasSubstr("end of file"));
    EXPECT_EQ(failure.code, 0);
}

TEST(Policy, ARateThatIsNotAnIntegerIsAnInternalErrorReply)
{
    for (const char *policy : {R"({"user_api_rate_limit": "7"})", R"({"user_api_rate_limit": 7.5})",
                               R"({"user_api_rate_limit": null})"}) {
        const failure_t failure = failure_of(policy);
        EXPECT_EQ(failure.code, 500) << policy;
        EXPECT_EQ(failure.tag, "INTERNAL_ERROR") << policy;
        EXPECT_THAT(failure.text,
                    HasSubstr("GridFTP-Error: Error unpacking collection storage policy: "))
            << policy;
        EXPECT_THAT(failure.text, HasSubstr("Expected integer")) << policy;
    }
}

TEST(Policy, ATopLevelThatIsNotAnObjectIsAnInternalErrorReply)
{
    const failure_t failure = failure_of("[1]");
    EXPECT_EQ(failure.code, 500);
    EXPECT_EQ(failure.tag, "INTERNAL_ERROR");
    EXPECT_THAT(failure.text, HasSubstr("Expected object, got array"));
}

TEST(Policy, AFailureIsWrittenAsTheErrorExitLine)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
    (void)failure_of(nullptr);
    EXPECT_THAT(channel.text(), HasSubstr(": tirval_onedrive_config_parse_json: exit: result=0x"));
    EXPECT_THAT(channel.text(), HasSubstr("message=Error loading collection storage policy: "));
}

} // namespace
