// Which commands are carried out, and what every one of them begins with.
#include "command_support.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class Command : public command_test {
  protected:
    bool run(uint32_t type)
    {
        tirval_gfs_command_info_t info = {};
        info.command = type;
        info.pathname = "/My files/none";
        info.from_pathname = "/My files/nothing";
        info.cksm_alg = "MD5";
        info.cksm_length = -1;
        return host.command(info);
    }
};

class UnsupportedCommand : public Command, public testing::WithParamInterface<uint32_t> {};

TEST_P(UnsupportedCommand, IsAnsweredAsNotImplementedAndTheSessionGoesOn)
{
    debug_trace trace;
    EXPECT_FALSE(run(GetParam()));
    EXPECT_EQ(host.answer.code, 500);
    EXPECT_EQ(host.answer.tag, "NOT_IMPLEMETED");
    EXPECT_EQ(host.answer.message, "");
    EXPECT_EQ(host.response, std::nullopt);
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: exit\n"), 1U);
    EXPECT_THAT(peer.requests(), IsEmpty());
    EXPECT_TRUE(host.stat("/My files"));
}

TEST_P(UnsupportedCommand, IsAnsweredWithTheTokensErrorWhenThereIsNoToken)
{
    session.handle()->access_token_exp = 0;
    EXPECT_FALSE(run(GetParam()));
    EXPECT_THAT(host.answer.text, HasSubstr("Error loading user credential"));
    EXPECT_NE(host.answer.tag, "NOT_IMPLEMETED");
    EXPECT_EQ(host.answers, 1);
}

INSTANTIATE_TEST_SUITE_P(Types, UnsupportedCommand,
                         testing::Values(0U, 4U, 7U, 9U, 10U, 16U, 22U, 0x1000U, 0xFFFFFFFFU));

class SupportedCommand : public Command,
                         public testing::WithParamInterface<std::pair<uint32_t, const char *>> {};

TEST_P(SupportedCommand, ReachesItsHandlerAndIsAnsweredByIt)
{
    const auto &[type, handler] = GetParam();
    if (type == TIRVAL_GFS_CMD_MKD) {
        session.enter("/My files", "none", "id");
    }
    debug_trace trace;
    const bool made = run(type);
    EXPECT_EQ(made, type == TIRVAL_GFS_CMD_MKD);
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(trace.count(std::string(handler) + ": enter\n"), 1U);
    EXPECT_EQ(trace.count(std::string(handler) + ": exit: result="), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: exit\n"), 1U);
    if (!made) {
        EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    }
}

TEST_P(SupportedCommand, DoesNotRunWithoutAToken)
{
    const auto &[type, handler] = GetParam();
    session.handle()->access_token_exp = 0;
    debug_trace trace;
    EXPECT_FALSE(run(type));
    EXPECT_THAT(host.answer.text, HasSubstr("Error loading user credential"));
    EXPECT_EQ(host.response, std::nullopt);
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(trace.count(std::string(handler) + ": enter\n"), 0U);
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("tirval_i_onedrive_command: exit: result=0x[0-9a-f]+ "
                                       "message=(.|\n)*Error loading user credential"));
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: exit\n"), 0U);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Types, SupportedCommand,
                         testing::Values(std::pair(1U, "tirval_i_onedrive_mkdir"),
                                         std::pair(2U, "tirval_i_onedrive_delete"),
                                         std::pair(3U, "tirval_i_onedrive_delete"),
                                         std::pair(5U, "tirval_i_onedrive_delete"),
                                         std::pair(6U, "tirval_i_onedrive_rename"),
                                         std::pair(8U, "tirval_i_onedrive_cksm")));

TEST_F(Command, ATokenThatNearsItsEndIsRenewedFirst)
{
    session.handle()->access_token_exp = std::time(nullptr) + 10;
    host.config["renew-creds"] =
        R"({"access_token":"token-2","token_expiry":"2099-01-01T00:00:00.000000+00:00",
            "sub":"user-1","tid":"tenant"})";
    session.enter("/My files", "a", "id", TIRVAL_ONEDRIVE_FILE);
    peer.answer(http_peer_answer::complete(204));
    ASSERT_TRUE(host.command(TIRVAL_GFS_CMD_DELE, "/My files/a")) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).header("Authorization"), "Bearer token-2");
    std::free(session.handle()->tid); // a session's end leaves it
}

} // namespace
