/*
 * Sessions over real sockets: commands in every state, and the order of replies.
 */
#include "session_fixture.h"

#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <random>

namespace tirval::tests {
namespace {

using std::chrono::seconds;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class Session : public SessionTest {
  protected:
    Session()
    {
        harness.storage.add_file("/My files/a.txt", "hello\nworld\n");
        harness.storage.add_folder("/My files/docs");
        harness.storage.add_file("/My files/docs/b.bin", std::string("\0\1\n\xFF", 4));
    }

    ftp_client_t &connected()
    {
        session = harness.start();
        (void)session->client.read_reply();
        return session->client;
    }
};

/* ---- Log-in -------------------------------------------------------------------------------- */

TEST_F(Session, GreetsAndLogsInAndSaysGoodbye)
{
    session = harness.start();
    ftp_client_t &client = session->client;
    EXPECT_EQ(client.read_reply().code, 220);
    EXPECT_EQ(client.ask("USER anna").last(), "331 Password required for anna.");
    EXPECT_EQ(client.ask("PASS secret").last(), "230 User anna logged in.");
    EXPECT_EQ(session->login_report(), test_account().name);
    EXPECT_EQ(client.ask("PWD").last(), "257 \"/My files\" is the current directory.");
    EXPECT_EQ(client.code_of("QUIT"), 221);
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

TEST_F(Session, AnswersEveryNameAlikeAndRefusesAWrongPassword)
{
    ftp_client_t &client = connected();
    EXPECT_EQ(client.ask("USER nobody-knows").last(), "331 Password required for nobody-knows.");
    const ftp_reply_t unknown = client.ask("PASS secret");
    EXPECT_EQ(client.code_of("USER anna"), 331);
    const ftp_reply_t wrong = client.ask("PASS wrong");
    EXPECT_EQ(unknown.lines, wrong.lines);
    EXPECT_EQ(wrong.last(), "530 Login incorrect.");
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    EXPECT_EQ(session->login_report(), test_account().name);
    expect_orderly_end();
}

TEST_F(Session, ClosesAfterTheThirdWrongPassword)
{
    ftp_client_t &client = connected();
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(client.code_of("USER anna"), 331);
        EXPECT_EQ(client.code_of(n == 1 ? "PASS" : "PASS wrong"), 530);
    }
    EXPECT_EQ(client.read_reply().code, 421);
    EXPECT_TRUE(client.closed_by_server());
    EXPECT_EQ(session->login_report(), "");
    expect_orderly_end();
}

TEST_F(Session, PassNeedsUserRightBefore)
{
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("PASS secret"), 503);
    EXPECT_EQ(client.code_of("USER"), 501);
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    EXPECT_EQ(client.code_of("PASS secret"), 503);
}

TEST_F(Session, UserAfterLogInDropsTheIdentityUntilThePassword)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("TYPE I"), 200);
    EXPECT_EQ(client.code_of("USER bob"), 331);
    EXPECT_EQ(client.code_of("PWD"), 530);
    EXPECT_EQ(client.code_of("PASS hidden"), 230);
    EXPECT_EQ(client.ask("SIZE a.txt").last(), "213 12");
    EXPECT_EQ(harness.storage.shared->starts, 2);
    EXPECT_EQ(harness.storage.shared->ends, 1);
    expect_orderly_end();
}

TEST_F(Session, ALocalUserThatDoesNotExistCannotLogIn)
{
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER eve"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 530);
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
}

TEST_F(Session, RunsAsTheLocalUserOnceLoggedIn)
{
    logged_in();
    struct stat entry = {};
    const std::string self = "/proc/" + std::to_string(session->process()) + "/task";
    ASSERT_EQ(stat(self.c_str(), &entry), 0);
    std::string status = "/proc/" + std::to_string(session->process()) + "/status";
    std::ifstream lines(status);
    std::string line;
    std::string uids;
    while (std::getline(lines, line)) {
        uids = line.starts_with("Uid:") ? line : uids;
    }
    const std::string uid = std::to_string(test_account().uid);
    EXPECT_EQ(uids, "Uid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid);
}

TEST_F(Session, WorksInTheSandbox)
{
    harness.config.server.sandbox = true;
    logged_in();
    EXPECT_EQ(session->client.transfer("RETR a.txt").final, 226);
    expect_orderly_end();
}

TEST_F(Session, AFailedStorageStartRefusesTheLogInAndSaysWhy)
{
    harness.storage.start_error = {500, "INTERNAL_ERROR", "GridFTP-Error: no such collection"};
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    const ftp_reply_t reply = client.ask("PASS secret");
    EXPECT_THAT(reply.lines, ElementsAre("530-GridFTP-Reason: INTERNAL_ERROR",
                                         "530-GridFTP-Error: no such collection",
                                         "530 The storage met an internal error"));
    EXPECT_EQ(client.code_of("PWD"), 530);
    EXPECT_EQ(client.code_of("QUIT"), 221);
    session->client.close_connection();
    EXPECT_EQ(session->wait(), 0);
    EXPECT_EQ(harness.storage.shared->ends, 0);
}

TEST_F(Session, AMissingCredentialIsNamedInTheReply)
{
    harness.storage.wants_credential = true;
    harness.config.storage.onedrive.credential = "/nonexistent/credential.json";
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    const ftp_reply_t reply = client.ask("PASS secret");
    EXPECT_EQ(reply.code, 530);
    EXPECT_THAT(reply.text(), Not(HasSubstr("wrong arguments")));
    EXPECT_THAT(reply.text(), Not(HasSubstr("/nonexistent")));
    EXPECT_EQ(reply.lines.size(), 1U);
}

TEST_F(Session, TheStorageGetsTheUsersCredentialAndThePolicy)
{
    std::filesystem::permissions(harness.folder.path(), std::filesystem::perms(0755));
    const auto file = harness.folder.write(
        "credential.json",
        R"({"access_token": "t", "token_expiry": "2099-01-01T00:00:00.000000+00:00",
            "sub": "anna", "refresh_token": "r", "client_id": "c",
            "token_endpoint": "https://example.org/token", "scope": "s"})");
    ASSERT_EQ(chown(file.c_str(), test_account().uid, test_account().gid), 0);
    harness.storage.wants_credential = true;
    harness.config.storage.onedrive.credential = file;
    harness.config.storage.onedrive.policy = R"({"user_api_rate_limit": 15})";
    logged_in();
    EXPECT_TRUE(harness.storage.shared->credential_is_clean);
    EXPECT_TRUE(harness.storage.shared->policy_given);
    expect_orderly_end();
}

TEST_F(Session, APaceThatIsNotSharedIsLoggedOnceHoweverOftenTheStorageIsOpened)
{
    std::filesystem::permissions(harness.folder.path(), std::filesystem::perms(0755));
    const auto file = harness.folder.write(
        "credential.json",
        R"({"access_token": "t", "token_expiry": "2099-01-01T00:00:00.000000+00:00",
            "sub": "nobody-has-a-record-of-this"})");
    ASSERT_EQ(chown(file.c_str(), test_account().uid, test_account().gid), 0);
    harness.storage.wants_credential = true;
    harness.config.storage.onedrive.credential = file;
    harness.config.log.file = harness.folder / "log";
    harness.folder.write("log", "", 0666);
    server::open_logs(harness.config.log);
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    expect_orderly_end();
    server::open_logs({});
    EXPECT_EQ(harness.storage.shared->starts, 2);
    const std::string log = harness.folder.read("log");
    const std::string warning = "the pacing of requests is not shared";
    ASSERT_THAT(log, HasSubstr(warning));
    EXPECT_EQ(log.find(warning), log.rfind(warning));
}

TEST_F(Session, ALogInThatFailedForItsCredentialWorksOnceThereIsOne)
{
    std::filesystem::permissions(harness.folder.path(), std::filesystem::perms(0755));
    harness.storage.wants_credential = true;
    harness.config.storage.onedrive.credential = harness.folder / "credential.json";
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 530);
    const auto file = harness.folder.write(
        "credential.json",
        R"({"access_token": "t", "token_expiry": "2099-01-01T00:00:00.000000+00:00", "sub": "a"})");
    ASSERT_EQ(chown(file.c_str(), test_account().uid, test_account().gid), 0);
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    EXPECT_EQ(session->login_report(), test_account().name);
    EXPECT_FALSE(harness.storage.shared->policy_given);
}

TEST_F(Session, ALogInThatTakesTooLongIsEnded)
{
    harness.config.server.login_timeout = seconds(1);
    ftp_client_t &client = connected();
    EXPECT_EQ(client.read_reply().code, 421);
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

TEST_F(Session, AStorageThatHangsAtItsStartIsEndedByTheLogInLimit)
{
    harness.config.server.login_timeout = seconds(1);
    harness.storage.start_hangs = true;
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 421);
    EXPECT_EQ(session->login_report(), "");
    expect_orderly_end();
}

/* ---- Commands before and after log-in ------------------------------------------------------ */

struct row_t {
    const char *command;
    int before_login;
    int after_login; /* without a data connection */
};

TEST_F(Session, AnswersEachCommandAsItsStateDemands)
{
    const row_t rows[] = {
        {"FEAT", 211, 211},
        {"FEAT x", 501, 501},
        {"SYST", 215, 215},
        {"HELP", 214, 214},
        {"HELP RETR", 214, 214},
        {"HELP BOGUS", 501, 501},
        {"HELP SITE", 214, 214},
        {"NOOP", 200, 200},
        {"OPTS UTF8 ON", 200, 200},
        {"OPTS UTF8", 200, 200},
        {"OPTS utf-8 on", 200, 200},
        {"OPTS UTF8 OFF", 501, 501},
        {"OPTS", 501, 501},
        {"OPTS BOGUS", 501, 501},
        {"OPTS MLST type;", 200, 200},
        {"OPTS MLST type; x", 501, 501},
        {"CLNT test", 200, 200},
        {"STAT", 211, 211},
        {"ABOR", 226, 226},
        {"HOST a", 502, 502},
        {"AUTH TLS", 502, 502},
        {"PBSZ 0", 502, 502},
        {"REIN", 502, 502},
        {"", 500, 500},
        {"BOGUS", 500, 500},
        {"RETRX a", 500, 500},
        {"TYPE I", 530, 200},
        {"TYPE A", 530, 200},
        {"TYPE A N", 530, 200},
        {"TYPE A T", 530, 200},
        {"TYPE L 8", 530, 200},
        {"type i", 530, 200},
        {"TYPE A C", 530, 504},
        {"TYPE E", 530, 504},
        {"TYPE L 7", 530, 504},
        {"TYPE", 530, 501},
        {"MODE S", 530, 200},
        {"MODE E", 530, 504},
        {"MODE B", 530, 504},
        {"MODE", 530, 501},
        {"MODE XX", 530, 501},
        {"STRU F", 530, 200},
        {"STRU R", 530, 504},
        {"STRU", 530, 501},
        {"ALLO 100", 530, 200},
        {"ALLO 100 R 5", 530, 200},
        {"ALLO -1", 530, 501},
        {"ALLO x", 530, 501},
        {"ALLO 99999999999999999999", 530, 501},
        {"ALLO 1 X 2", 530, 501},
        {"PWD", 530, 257},
        {"XPWD", 530, 257},
        {"PWD x", 530, 501},
        {"CWD docs", 530, 250},
        {"XCWD ..", 530, 250},
        {"CWD", 530, 501},
        {"CWD nowhere", 530, 550},
        {"CWD a.txt", 530, 550},
        {"CDUP", 530, 250},
        {"XCUP", 530, 250},
        {"CWD /My files", 530, 250},
        {"TYPE I", 530, 200},
        {"SIZE a.txt", 530, 213},
        {"SIZE docs", 530, 550},
        {"SIZE nowhere", 530, 550},
        {"SIZE", 530, 501},
        {"MDTM a.txt", 530, 213},
        {"MDTM docs", 530, 550},
        {"MDTM 20240115123000 a.txt", 530, 550},
        {"MLST a.txt", 530, 250},
        {"MLST", 530, 250},
        {"MLST nowhere", 530, 550},
        {"REST 5", 530, 350},
        {"REST 0", 530, 350},
        {"REST -1", 530, 501},
        {"REST x", 530, 501},
        {"REST 99999999999999999999", 530, 501},
        {"REST 1-5", 530, 501},
        {"LIST", 530, 425},
        {"NLST", 530, 425},
        {"MLSD", 530, 425},
        {"RETR a.txt", 530, 425},
        {"RETR", 530, 501},
        {"STOR x", 530, 425},
        {"STAT a.txt", 530, 213},
        {"STAT docs", 530, 212},
        {"STAT nowhere", 530, 550},
        {"PORT 1,2,3", 530, 501},
        {"PORT 127,0,0,1,0,80", 530, 504},
        {"PORT 127,0,0,2,100,1", 530, 501},
        {"PORT 127,0,0,256,100,1", 530, 501},
        {"PORT 127,0,0,1,100,1", 530, 200},
        {"EPRT |1|127.0.0.1|5282|", 530, 200},
        {"EPRT |1|127.0.0.2|5282|", 530, 501},
        {"EPRT |1|127.0.0.1|80|", 530, 504},
        {"EPRT |3|x|1|", 530, 522},
        {"EPRT |2|127.0.0.1|5282|", 530, 501},
        {"EPRT |2|::1|5282|", 530, 501},
        {"EPRT x", 530, 501},
        {"EPRT |1|127.0.0.1|70000|", 530, 501},
        {"PASV", 530, 227},
        {"EPSV", 530, 229},
        {"EPSV 1", 530, 229},
        {"EPSV 2", 530, 522},
        {"EPSV 3", 530, 522},
        {"EPSV x", 530, 501},
        {"MKD x", 530, 257},
        {"SITE HELP", 530, 214},
        {"RNFR a.txt", 530, 350},
        {"RNTO docs", 530, 553},
        {"RNTO b.txt", 530, 503},
        {"DELE nowhere", 530, 550},
        {"RMD nowhere", 530, 550},
        {"SITE UTIME 20240115123000 a.txt", 530, 504}, /* nor sets it times */
        {"MFMT 20240115123000 a.txt", 530, 502},
        {"CKSM MD5 0 -1 a.txt", 530, 502}, /* this storage has no checksums */
        {"HASH a.txt", 530, 502},
        {"RANG 0 1", 530, 350},
        {"RANG 1 0", 530, 350},
        {"RANG 2 1", 530, 501},
        {"OPTS CKSM markers=5;", 200, 200},
        {"OPTS HASH", 530, 501},
    };
    ftp_client_t &before = connected();
    for (const row_t &row : rows) {
        EXPECT_EQ(before.code_of(row.command), row.before_login) << row.command;
    }
    ftp_client_t &after = logged_in();
    for (const row_t &row : rows) {
        EXPECT_EQ(after.code_of(row.command), row.after_login) << row.command;
    }
    expect_orderly_end();
}

TEST_F(Session, TellsWhatItOffersAndNothingElse)
{
    ftp_client_t &client = logged_in();
    EXPECT_THAT(client.ask("FEAT").lines,
                ElementsAre("211-Extensions supported:", " UTF8", " TVFS", " EPSV", " EPRT",
                            " SIZE", " MDTM", " CLNT", " REST STREAM", " RANG STREAM",
                            " MLST type*;size*;modify*;perm*;unique*;UNIX.mode*;UNIX.owner*;"
                            "UNIX.group*;",
                            "211 End"));
    EXPECT_EQ(client.ask("OPTS MLST size;Type;bogus;").last(), "200 MLST OPTS type;size;");
    EXPECT_THAT(client.ask("FEAT").lines,
                Contains(" MLST type*;size*;modify;perm;unique;UNIX.mode;UNIX.owner;UNIX.group;"));
    EXPECT_EQ(client.code_of("OPTS MLST type; size"), 501);
    EXPECT_THAT(client.ask("MLST a.txt").lines,
                ElementsAre("250-Listing /My files/a.txt", " type=file;size=12; /My files/a.txt",
                            "250 End"));
    EXPECT_EQ(client.ask("OPTS MLST").last(), "200 MLST OPTS");
    EXPECT_THAT(client.ask("MLST a.txt").lines, Contains("  /My files/a.txt"));
    const ftp_reply_t help = client.ask("HELP");
    EXPECT_THAT(help.lines, Contains(" RETR"));
    EXPECT_THAT(help.lines, Not(Contains(" AUTH")));
    EXPECT_EQ(client.ask("SYST").last(), "215 UNIX Type: L8");
}

TEST_F(Session, PathsAreCanonicalBeforeTheyReachTheStorage)
{
    ftp_client_t &client = logged_in();
    for (const char *command :
         {"CWD /My files/", "CWD .//docs/../docs/", "CWD ../docs/.", "CWD /",
          "CWD ../../../My files", "STAT //My files//a.txt/", "MLST ./", "SIZE docs/b.bin/"}) {
        const int code = client.code_of(command);
        EXPECT_TRUE(code == 250 || code == 213 || code == 550) << command << " " << code;
    }
    EXPECT_EQ(client.code_of("CWD /"), 250);
    EXPECT_EQ(client.code_of("CDUP"), 250);
    EXPECT_EQ(client.ask("PWD").last(), "257 \"/\" is the current directory.");
    EXPECT_EQ(client.code_of("CWD ../../etc"), 550);
    client.send_raw(std::string_view("CWD a\r\0b\r\n", 10));
    EXPECT_EQ(client.read_reply().code, 550);
    expect_orderly_end();
}

TEST_F(Session, NamesHoldAnyByteThatFtpCanCarry)
{
    const std::string names[] = {" a",
                                 "a ",
                                 "say \"x\"",
                                 "\xC3\xA4\xE2\x82\xAC",
                                 "raw\xE4\xFF\x01",
                                 std::string(200, 'n'),
                                 "-x",
                                 "a -> b",
                                 "it's;=%25"};
    for (const std::string &name : names) {
        harness.storage.add_folder("/My files/" + name);
        harness.storage.add_file("/My files/" + name + "/f", "x");
    }
    ftp_client_t &client = logged_in();
    for (const std::string &name : names) {
        std::string wire = name;
        for (std::size_t at = 0; (at = wire.find('\xFF', at)) != std::string::npos; at += 2) {
            wire.insert(at, 1, '\xFF');
        }
        EXPECT_EQ(client.code_of("CWD /My files/" + wire), 250) << name;
        EXPECT_EQ(client.transfer("RETR f").data, "x") << name;
        EXPECT_THAT(client.transfer("NLST").data, "f\r\n") << name;
        EXPECT_EQ(client.transfer("NLST /My files/" + wire).data, "/My files/" + name + "/f\r\n");
    }
    EXPECT_EQ(client.code_of("CWD /My files/say \"x\""), 250);
    EXPECT_EQ(client.ask("PWD").last(),
              "257 \"/My files/say \"\"x\"\"\" is the current directory.");
    EXPECT_THAT(client.transfer("MLSD /My files").data, HasSubstr("; raw\xE4\xFF\x01\r\n"));
    expect_orderly_end();
}

/* ---- The control line ---------------------------------------------------------------------- */

TEST_F(Session, TakesBytesOneAtATimeAndSeveralCommandsAtOnce)
{
    ftp_client_t &client = logged_in();
    for (const char byte : std::string("NOOP\r\n")) {
        client.send_raw({&byte, 1});
    }
    EXPECT_EQ(client.read_reply().code, 200);
    client.send_raw("NOOP\nPWD\r\nSIZE a.txt\r\nSYST\r\n");
    EXPECT_EQ(client.read_reply().code, 200);
    EXPECT_EQ(client.read_reply().code, 257);
    EXPECT_EQ(client.read_reply().code, 550);
    EXPECT_EQ(client.read_reply().code, 215);
}

TEST_F(Session, KeepsTheOrderOfHundredsOfPipelinedCommands)
{
    ftp_client_t &client = logged_in();
    std::string commands;
    for (int n = 0; n < 500; ++n) {
        commands += n % 2 == 0 ? "CWD docs\r\n" : "CDUP\r\n";
    }
    client.send_raw(commands + "PWD\r\n");
    for (int n = 0; n < 500; ++n) {
        ASSERT_EQ(client.read_reply().code, 250);
    }
    EXPECT_EQ(client.read_reply().last(), "257 \"/My files\" is the current directory.");
}

TEST_F(Session, AnOverlongLineIsOneErrorAndThreeEndTheSession)
{
    ftp_client_t &client = logged_in();
    client.send_line(std::string(9000, 'x'));
    EXPECT_EQ(client.read_reply().code, 500);
    EXPECT_EQ(client.code_of("NOOP"), 200);
    client.send_line("CWD " + std::string(20000, 'x'));
    EXPECT_EQ(client.read_reply().code, 500);
    client.send_line(std::string(9000, 'y'));
    EXPECT_EQ(client.read_reply().code, 500);
    EXPECT_EQ(client.read_reply().code, 421);
    EXPECT_TRUE(client.closed_by_server());
}

TEST_F(Session, GarbageIsAnErrorAndTheSessionGoesOn)
{
    ftp_client_t &client = logged_in();
    client.send_raw(std::string_view("NO\0OP\r\n", 7));
    EXPECT_EQ(client.read_reply().code, 501);
    client.send_raw("\x80\x90\xFE\r\n");
    EXPECT_EQ(client.read_reply().code, 500);
    EXPECT_EQ(client.code_of("CWD " + std::string(5000, 'a')), 550);
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Session, NoPasswordReachesTheLogHoweverTheCommandIsGarbled)
{
    harness.config.log.level = server::log_level_t::debug;
    harness.config.log.file = harness.folder / "log";
    harness.folder.write("log", "", 0666);
    server::open_logs(harness.config.log);
    ftp_client_t &client = connected();
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of(" PASS verborgen"), 500);
    EXPECT_EQ(client.code_of("\tpass verborgen"), 500);
    EXPECT_EQ(client.code_of("verborgen"), 500);
    EXPECT_EQ(client.code_of("ACCT verborgen"), 502);
    EXPECT_EQ(client.code_of("pass secret"), 230);
    EXPECT_EQ(client.code_of("CWD docs"), 250);
    expect_orderly_end();
    server::open_logs({});
    const std::string log = harness.folder.read("log");
    EXPECT_THAT(log, HasSubstr("USER anna"));
    EXPECT_THAT(log, HasSubstr("CWD docs"));
    EXPECT_THAT(log, Not(HasSubstr("verborgen")));
    EXPECT_THAT(log, Not(HasSubstr("secret")));
}

TEST_F(Session, RepliesCannotBeSplitByClientText)
{
    ftp_client_t &client = connected();
    client.send_raw(std::string_view("USER a\r\0b\r\n", 11));
    EXPECT_EQ(client.read_reply().last(), "331 Password required for a?b.");
    EXPECT_TRUE(client.is_quiet_for(50));
}

TEST_F(Session, RandomBytesBeforeAndAfterLogInNeverEndTheProcessInDisorder)
{
    std::mt19937 random(20);
    const std::vector<std::string> words = {"USER ", "PASS",       "LIST ", "RETR ",      "CWD ",
                                            "EPRT ", "PORT ",      "REST ", "OPTS MLST ", "STAT ",
                                            "ABOR",  "MLSD ",      "\r\n",  "\n",         "../",
                                            "|1|",   "127,0,0,1,", "%s%n",  "\xFF\xFA"};
    for (const bool with_login : {false, true}) {
        ftp_client_t &client = with_login ? logged_in() : connected();
        std::string bytes;
        for (int n = 0; n < 3000; ++n) {
            if (random() % 3 == 0) {
                bytes += static_cast<char>(random() & 0xFF);
            } else {
                bytes += words[random() % words.size()];
            }
        }
        client.send_raw(bytes + "x\xFF\xF0\r\nQUIT\r\n");
        client.close_sending_side();
        const std::string replies = read_to_end(client.descriptor());
        EXPECT_THAT(replies, AnyOf(HasSubstr("\r\n221 "), HasSubstr("\r\n421 ")));
        EXPECT_EQ(session->wait(), 0);
    }
    EXPECT_EQ(harness.storage.shared->paths_not_canonical, 0);
}

TEST_F(Session, TelnetOptionsAreRefused)
{
    ftp_client_t &client = logged_in();
    client.send_raw("\xFF\xFD\x06"
                    "NOOP\r\n");
    EXPECT_EQ(client.read_reply().last(), "\xFF\xFC\x06"
                                          "200 OK.");
}

TEST_F(Session, AClientThatReadsNothingDoesNotFillTheMemory)
{
    ftp_client_t &client = logged_in();
    timeval limit{1, 0};
    setsockopt(client.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::string commands;
    for (int n = 0; n < 1000; ++n) {
        commands += "FEAT\r\n";
    }
    bool held_up = false;
    for (int n = 0; n < 4000 && !held_up; ++n) {
        try {
            client.send_raw(commands);
        } catch (const std::runtime_error &) {
            held_up = true;
        }
    }
    EXPECT_TRUE(held_up);
}

TEST_F(Session, AQuitIsHeardAlsoWhenTheClientClosesItsSideRightAfter)
{
    ftp_client_t &client = connected();
    client.send_raw("USER anna\r\nPASS secret\r\nPWD\r\nQUIT\r\n");
    client.close_sending_side();
    EXPECT_EQ(client.read_reply().code, 331);
    EXPECT_EQ(client.read_reply().code, 230);
    EXPECT_EQ(client.read_reply().code, 257);
    EXPECT_EQ(client.read_reply().code, 221);
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

/* ---- Ends ---------------------------------------------------------------------------------- */

TEST_F(Session, EndsWhenTheClientIsGone)
{
    logged_in();
    expect_orderly_end();
    EXPECT_EQ(harness.storage.shared->starts, 1);
}

TEST_F(Session, AnIdleClientIsSentAway)
{
    harness.config.server.idle_timeout = seconds(1);
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.read_reply().last(), "421 Idle timeout, closing control connection.");
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

TEST_F(Session, IsNotIdleWhileATransferRuns)
{
    harness.config.server.idle_timeout = seconds(1);
    harness.storage.add_file("/My files/slow", "x").send = fake_send_t::deaf_sleep;
    harness.storage.add_generated("/My files/slower", 3).send = fake_send_t::until_cancelled;
    ftp_client_t &client = logged_in();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR slower"), 150);
    EXPECT_TRUE(client.is_quiet_for(1500));
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Session, AnIdleSessionLeavesAtOnceAtShutdown)
{
    ftp_client_t &client = logged_in();
    session->signal(SIGTERM);
    EXPECT_EQ(client.read_reply().code, 421);
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

TEST_F(Session, LeavesWhenTheMasterIsGone)
{
    ftp_client_t &client = logged_in();
    session->drop_master();
    EXPECT_EQ(client.read_reply().code, 421);
    expect_orderly_end();
}

TEST_F(Session, ATransferMayEndBeforeTheShutdown)
{
    harness.storage.add_file("/My files/slow", "late").send = fake_send_t::deaf_sleep;
    ftp_client_t &client = logged_in();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR slow"), 150);
    session->signal(SIGTERM);
    EXPECT_EQ(read_to_end(data.get()), "late");
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.read_reply().code, 421);
    expect_orderly_end();
}

TEST_F(Session, ATransferThatDoesNotEndIsBrokenOffAtTheShutdownLimit)
{
    harness.config.server.shutdown_timeout = seconds(1);
    harness.storage.add_file("/My files/slow", "x").send = fake_send_t::until_cancelled;
    ftp_client_t &client = logged_in();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR slow"), 150);
    session->signal(SIGTERM);
    EXPECT_EQ(client.read_reply().code, 421);
    (void)read_to_end(data.get());
    expect_orderly_end();
}

TEST_F(Session, ALostControlConnectionEndsTheTransfer)
{
    harness.storage.add_file("/My files/slow", "x").send = fake_send_t::silent_until_cancelled;
    ftp_client_t &client = logged_in();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR slow"), 150);
    client.close_connection();
    EXPECT_EQ(read_to_end(data.get()), "");
    expect_orderly_end();
}

} // namespace
} // namespace tirval::tests
