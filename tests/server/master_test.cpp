/* The real program: how it starts, takes care of its sessions, and ends. */
#include "server_program.h"

#include "privileges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>

using namespace tirval::tests;
using testing::AllOf;
using testing::HasSubstr;

namespace {

constexpr const char *program = TIRVAL_SERVER_PROGRAM;

program_end_t run(const server_folder_t &folder, const std::vector<std::string> &arguments)
{
    return run_server(program, folder, arguments);
}

class Master : public testing::Test {
  protected:
    server_program_t &start(const std::vector<std::string> &settings = {})
    {
        server_ = std::make_unique<server_program_t>(program, folder_, settings);
        return *server_;
    }

    server_folder_t folder_;
    std::unique_ptr<server_program_t> server_;
};

using MasterStart = Master;
using MasterSessions = Master;
using MasterSignals = Master;

} // namespace

/* ---- Start --------------------------------------------------------------------------------- */

TEST_F(MasterStart, ACheckOfGoodSettingsSaysNothing)
{
    const auto [status, text] = run(folder_, {"--check"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text, "");
}

TEST_F(MasterStart, ACheckNamesEverythingThatIsWrong)
{
    folder_.dir().write("users", "anna:no-hash\n");
    const auto [status, text] =
        run(folder_, {"--check", "--set", "storage.name=nowhere", "--set",
                      "storage.onedrive.policy=[", "--set", "storage.module_dir=/usr"});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("--set: storage.onedrive.policy: not JSON"));
    EXPECT_THAT(text,
                HasSubstr((folder_.dir() / "users").string() + ":1: expected a password hash"));
    EXPECT_THAT(text, HasSubstr("there is no libtirval_gridftp_server_nowhere.so in /usr\n"));
}

TEST_F(MasterStart, ABadConfigurationIsRefusedWithFileAndLine)
{
    folder_.dir().write("server.toml", "[server]\nlisten = 7\n");
    for (const auto &arguments : {std::vector<std::string>{}, {"--check"}}) {
        const auto [status, text] = run(folder_, arguments);
        EXPECT_EQ(status, 2);
        EXPECT_THAT(text, HasSubstr(folder_.config_file() + ":2: server.listen: expected a list"));
    }
}

TEST_F(MasterStart, AnUnknownOptionIsRefused)
{
    EXPECT_EQ(run(folder_, {"--verbose"}).status, 2);
    EXPECT_EQ(run(folder_, {"--set"}).status, 2);
}

TEST_F(MasterStart, AUsersFileThatOthersMayReadIsRefused)
{
    folder_.dir().write("users", "", 0644);
    const auto [status, text] = run(folder_, {});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("group or others may read or write it"));
}

TEST_F(MasterStart, AMissingStorageIsNamed)
{
    const auto [status, text] = run(folder_, {"--set", "storage.name=nowhere"});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("storage \"nowhere\": there is no "
                                "libtirval_gridftp_server_nowhere.so in "));
}

TEST_F(MasterStart, AFileThatIsNoStorageIsNamed)
{
    folder_.dir().write("libtirval_gridftp_server_odd.so", "not a library");
    const auto [status, text] =
        run(folder_, {"--set", "storage.name=odd", "--set",
                      "storage.module_dir=" + folder_.dir().path().string()});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("storage \"odd\": "));
}

TEST_F(MasterStart, APortInUseIsNamed)
{
    const std::string address = "127.0.0.1:" + std::to_string(start().port());
    const auto [status, text] = run(folder_, {"--set", "server.listen=[\"" + address + "\"]"});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("server.listen: " + address + ": Address already in use"));
}

TEST_F(MasterStart, ALogThatCannotBeOpenedIsNamed)
{
    std::filesystem::create_directory(folder_.dir() / "folder");
    const auto [status, text] =
        run(folder_, {"--set", "log.file=" + (folder_.dir() / "folder").string()});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr("folder: cannot be opened: Is a directory"));
}

TEST_F(MasterStart, ABadPolicyIsLoggedAndTheServerServes)
{
    start({"storage.onedrive.policy=["});
    EXPECT_THAT(server_->log(), HasSubstr("warning: --set: storage.onedrive.policy: not JSON"));
    EXPECT_EQ(server_->log_in().code_of("NOOP"), 200);
}

TEST_F(MasterStart, AnyAddressOfBothFamiliesIsServedByOneSocket)
{
    start({"server.listen=[\"[::]:0\"]"});
    EXPECT_EQ(server_->log_in().code_of("NOOP"), 200);
    EXPECT_THAT(server_->log(), HasSubstr("process " + std::to_string(server_->session_process(1)) +
                                          " for 127.0.0.1\n"));
}

TEST_F(MasterStart, JsonLogsAreJson)
{
    start({"log.format=json"});
    server_->log_in();
    std::istringstream lines{server_->log()};
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        json_t *json = json_loads(line.c_str(), 0, nullptr);
        EXPECT_TRUE(json_is_string(json_object_get(json, "message"))) << line;
        EXPECT_TRUE(json_is_string(json_object_get(json, "level"))) << line;
        EXPECT_TRUE(json_is_integer(json_object_get(json, "pid"))) << line;
        EXPECT_TRUE(json_is_integer(json_object_get(json, "session"))) << line;
        json_decref(json);
    }
    EXPECT_GE(count, 2);
}

/* ---- Sessions ------------------------------------------------------------------------------ */

TEST_F(MasterSessions, EachHasAProcessOfItsOwnAndTheMasterOneThread)
{
    start();
    ftp_client_t first = server_->log_in();
    ftp_client_t second = server_->log_in();
    EXPECT_NE(server_->session_process(1), server_->session_process(2));
    EXPECT_EQ(first.code_of("NOOP"), 200);
    EXPECT_EQ(second.code_of("NOOP"), 200);
#ifndef __SANITIZE_THREAD__
    EXPECT_EQ(process_status(server_->pid(), "Threads"), "1");
#endif
}

TEST_F(MasterSessions, TheyRunWithoutPrivilegesAndThenAsTheLocalUser)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can serve other users";
    }
    const auto uid_lines = [](uid_t real, uid_t effective, uid_t saved) {
        return std::to_string(real) + "\t" + std::to_string(effective) + "\t" +
               std::to_string(saved) + "\t" + std::to_string(effective);
    };
    start();
    ftp_client_t client = server_->connect();
    EXPECT_EQ(client.read_reply().code, 220);
    const pid_t process = server_->session_process(1);
    const uid_t nobody = tirval::server::find_account("nobody")->uid;
    EXPECT_EQ(process_status(process, "Uid"), uid_lines(0, nobody, 0));
    EXPECT_EQ(process_status(process, "CapEff"), "0000000000000000");
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    const uid_t user = tirval::server::find_account(served_local_user())->uid;
    EXPECT_EQ(process_status(process, "Uid"), uid_lines(user, user, user));
    EXPECT_EQ(process_status(process, "CapPrm"), "0000000000000000");
    EXPECT_EQ(process_status(process, "NoNewPrivs"), "1");
    EXPECT_EQ(process_status(process, "Seccomp"), "2");
}

TEST_F(MasterSessions, TheSandboxCanBeTurnedOff)
{
    start({"server.sandbox=off"});
    const ftp_client_t client = server_->log_in();
    EXPECT_EQ(process_status(server_->session_process(1), "Seccomp"), "0");
}

TEST_F(MasterSessions, WhenThereAreTooManyTheNextClientIsTurnedAway)
{
    start({"server.max_sessions=1"});
    {
        ftp_client_t first = server_->connect();
        EXPECT_EQ(first.read_reply().code, 220);
        ftp_client_t second = server_->connect();
        EXPECT_EQ(second.read_reply().last(), "421 Too many connections, try again later.");
        EXPECT_TRUE(second.closed_by_server());
        EXPECT_EQ(first.code_of("QUIT"), 221);
    }
    server_->wait_for_log("session 1 (nobody at 127.0.0.1) has ended");
    EXPECT_EQ(server_->connect().read_reply().code, 220);
}

TEST_F(MasterSessions, OneHostCannotTakeThemAll)
{
    start({"server.max_sessions_per_host=1"});
    ftp_client_t first = server_->connect();
    EXPECT_EQ(first.read_reply().code, 220);
    ftp_client_t second = server_->connect();
    EXPECT_EQ(second.read_reply().last(), "421 Too many connections from your address.");
    ftp_client_t other{ftp_client_t::connect_data(server_->port(), "127.0.0.2")};
    EXPECT_EQ(other.read_reply().code, 220);
}

TEST_F(MasterSessions, OneThatDiesIsLoggedAndTheOthersGoOn)
{
    start();
    ftp_client_t first = server_->log_in();
    ftp_client_t second = server_->log_in();
    kill(server_->session_process(1), SIGKILL);
    EXPECT_TRUE(first.closed_by_server());
    server_->wait_for_log("session 1 (" + served_local_user() +
                          " at 127.0.0.1) was ended by signal 9 (Killed)");
    EXPECT_EQ(second.code_of("NOOP"), 200);
    EXPECT_EQ(server_->log_in().code_of("NOOP"), 200);
}

TEST_F(MasterSessions, OneThatHangsBeforeTheLogInIsEnded)
{
    start({"server.login_timeout=1"});
    ftp_client_t client = server_->connect();
    EXPECT_EQ(client.read_reply().code, 220);
    kill(server_->session_process(1), SIGSTOP);
    server_->wait_for_log("session 1 from 127.0.0.1 did not log in in time and is ended");
    EXPECT_TRUE(client.closed_by_server());
    EXPECT_EQ(server_->log_in().code_of("NOOP"), 200);
}

TEST_F(MasterSessions, OneThatHasLoggedInMayStay)
{
    start({"server.login_timeout=1"});
    ftp_client_t client = server_->log_in();
    EXPECT_TRUE(client.is_quiet_for(3500));
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(MasterSessions, TheyEndWhenTheMasterDies)
{
    start();
    ftp_client_t client = server_->log_in();
    server_->signal(SIGKILL);
    EXPECT_EQ(server_->wait(), -1);
    while (!client.closed_by_server()) {
        client.read_reply();
    }
}

/* ---- Signals ------------------------------------------------------------------------------- */

TEST_F(MasterSignals, WithoutSessionsItEndsAtOnce)
{
    for (const int number : {SIGTERM, SIGINT}) {
        start().signal(number);
        EXPECT_EQ(server_->wait(), 0);
        EXPECT_THAT(server_->log(), HasSubstr("the server ends\n"));
    }
}

TEST_F(MasterSignals, IdleSessionsAreToldThatTheServerEnds)
{
    start();
    ftp_client_t waiting = server_->connect();
    EXPECT_EQ(waiting.read_reply().code, 220);
    ftp_client_t idle = server_->log_in();
    server_->signal(SIGTERM);
    EXPECT_EQ(idle.read_reply().code, 421);
    EXPECT_TRUE(idle.closed_by_server());
    EXPECT_EQ(waiting.read_reply().code, 421);
    EXPECT_EQ(server_->wait(), 0);
}

TEST_F(MasterSignals, SessionsThatDoNotEndInTimeAreKilled)
{
    start({"server.shutdown_timeout=1"});
    ftp_client_t client = server_->log_in();
    const pid_t process = server_->session_process(1);
    kill(process, SIGSTOP);
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->wait(), 0);
    EXPECT_TRUE(client.closed_by_server());
    EXPECT_NE(kill(process, 0), 0);
}

TEST_F(MasterSignals, ASecondRequestToEndDoesNotWait)
{
    start({"server.shutdown_timeout=3600"});
    const ftp_client_t client = server_->log_in();
    kill(server_->session_process(1), SIGSTOP);
    server_->signal(SIGTERM);
    server_->wait_for_log("the server ends; 1 sessions have 3600 seconds to end");
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->wait(), 0);
}

TEST_F(MasterSignals, UsersAreReadAgainOnHangup)
{
    start();
    folder_.write_users({"bert"});
    EXPECT_EQ(server_->log_in("anna").code_of("NOOP"), 200);
    server_->signal(SIGHUP);
    server_->wait_for_log("1 users are read");
    EXPECT_EQ(server_->log_in("bert").code_of("NOOP"), 200);
    ftp_client_t client = server_->connect();
    EXPECT_EQ(client.read_reply().code, 220);
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 530);
}

TEST_F(MasterSignals, UsersThatCannotBeReadLeaveTheOldOnes)
{
    start();
    folder_.dir().write("users", "bert\n");
    server_->signal(SIGHUP);
    server_->wait_for_log("the users stay as they were");
    EXPECT_THAT(server_->log(), HasSubstr("users:1: expected name:hash"));
    EXPECT_EQ(server_->log_in("anna").code_of("NOOP"), 200);
}

TEST_F(MasterSignals, TheLogIsOpenedAnewOnHangup)
{
    const auto file = folder_.dir() / "named.log";
    const auto old_file = folder_.dir() / "named.log.1";
    server_ = std::make_unique<server_program_t>(program, folder_, std::vector<std::string>{},
                                                 file.string());
    EXPECT_THAT(folder_.dir().read("named.log"), HasSubstr("listening on "));
    std::filesystem::rename(file, old_file);
    server_->signal(SIGHUP);
    server_->wait_for_log("1 users are read");
    EXPECT_THAT(folder_.dir().read("named.log.1"), testing::Not(HasSubstr("users are read")));
}
