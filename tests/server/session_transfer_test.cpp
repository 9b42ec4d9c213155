/*
 * Data connections, downloads and listings over real sockets, and what interrupts them.
 */
#include "session_fixture.h"

#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <set>

namespace tirval::tests {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class Transfer : public SessionTest {
  protected:
    Transfer()
    {
        harness.storage.add_file("/My files/a.txt", "hello\nworld\n");
        harness.storage.add_file("/My files/empty", "");
        harness.storage.add_file("/My files/twenty", "01234567890123456789");
        harness.storage.add_folder("/My files/docs");
        harness.storage.add_file("/My files/docs/b.bin", "b");
        harness.storage.add_file("/My files/docs/c.txt", "cc");
    }
};

std::string generated(std::int64_t from, std::int64_t to)
{
    std::string text;
    for (std::int64_t n = from; n < to; ++n) {
        text += fake_byte(n);
    }
    return text;
}

server::unique_fd_t listen_here(std::uint16_t &port, std::uint16_t wanted = 0)
{
    server::unique_fd_t listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto any = server::socket_address_t::parse(AF_INET, "127.0.0.1", wanted);
    EXPECT_EQ(bind(listener.get(), any->data(), any->size()), 0);
    EXPECT_EQ(listen(listener.get(), 4), 0);
    port = server::socket_address_t::local_of(listener.get()).port();
    return listener;
}

std::string port_argument(std::uint16_t port)
{
    return "127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256);
}

server::unique_fd_t accept_here(const server::unique_fd_t &listener)
{
    wait_readable(listener.get());
    return server::unique_fd_t(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

/* ---- Downloads ----------------------------------------------------------------------------- */

TEST_F(Transfer, ADownloadIsWholeAndAnnouncedWithItsLength)
{
    ftp_client_t &client = binary();
    const auto result = client.transfer("RETR a.txt");
    EXPECT_EQ(result.opening_text,
              "150 Opening BINARY mode data connection for a.txt (12 bytes).\n");
    EXPECT_EQ(result.data, "hello\nworld\n");
    EXPECT_EQ(result.final_text, "226 Transfer complete.\n");
    EXPECT_EQ(client.transfer("RETR empty").data, "");
    EXPECT_EQ(client.transfer("RETR empty").final, 226);
    expect_orderly_end();
}

TEST_F(Transfer, ALargeDownloadIsTheSameByteForByte)
{
    constexpr std::int64_t size = 5 * 1024 * 1024 + 12345;
    harness.storage.add_generated("/My files/large", size);
    ftp_client_t &client = binary();
    const auto result = client.transfer("RETR large");
    EXPECT_EQ(result.final, 226);
    ASSERT_EQ(result.data.size(), static_cast<std::size_t>(size));
    EXPECT_TRUE(result.data == generated(0, size));
}

TEST_F(Transfer, ASlowClientGetsEverything)
{
    constexpr std::int64_t size = 8 * 1024 * 1024;
    harness.storage.add_generated("/My files/large", size);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR large"), 150);
    EXPECT_TRUE(client.is_quiet_for(1000));
    EXPECT_TRUE(read_to_end(data.get()) == generated(0, size));
    EXPECT_EQ(client.read_reply().code, 226);
}

TEST_F(Transfer, AsciiTypeSendsLineFeedsAsCrLfAndTellsNoLength)
{
    ftp_client_t &client = logged_in();
    const auto result = client.transfer("RETR a.txt");
    EXPECT_EQ(result.data, "hello\r\nworld\r\n");
    EXPECT_EQ(result.opening_text, "150 Opening ASCII mode data connection for a.txt.\n");
    EXPECT_EQ(client.ask("SIZE a.txt").last(), "550 SIZE not available in ASCII mode");
    EXPECT_EQ(client.code_of("REST 3"), 350);
    EXPECT_EQ(client.transfer("RETR a.txt").final, 501);
}

TEST_F(Transfer, RestStartsWhereToldForOneTransfer)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("REST 10"), 350);
    const auto rest = client.transfer("RETR twenty");
    EXPECT_EQ(rest.data, "0123456789");
    EXPECT_THAT(rest.opening_text, Not(HasSubstr("bytes)")));
    EXPECT_EQ(client.transfer("RETR twenty").data, "01234567890123456789");
    EXPECT_EQ(client.code_of("REST 20"), 350);
    const auto at_end = client.transfer("RETR twenty");
    EXPECT_EQ(at_end.data, "");
    EXPECT_EQ(at_end.final, 226);
    EXPECT_EQ(client.code_of("REST 21"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").final, 554);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    expect_orderly_end();
}

TEST_F(Transfer, RestBeforeAListingIsForgotten)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("REST 5"), 350);
    EXPECT_EQ(client.transfer("LIST").final, 226);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    EXPECT_EQ(client.code_of("REST 5"), 350);
    EXPECT_EQ(client.code_of("RETR twenty"), 425);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
}

TEST_F(Transfer, WhatIsNoFileOrMissingIsRefusedBeforeTheDataConnection)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.transfer("RETR docs").opening_text, "550 Not a plain file: /My files/docs\n");
    EXPECT_EQ(client.transfer("RETR nowhere").opening_text,
              "550-GridFTP-Reason: PATH_NOT_FOUND\n"
              "550-GridFTP-Path: \"/My files/nowhere\"\n"
              "550 No such file or directory: /My files/nowhere\n");
    EXPECT_EQ(client.transfer("RETR a.txt").final, 226);
}

TEST_F(Transfer, AStorageFailureBeforeTheTransferIsAnsweredInsteadOf150)
{
    harness.storage.add_file("/My files/x", "x").send = fake_send_t::fail_before_begin;
    const auto result = binary().transfer("RETR x");
    EXPECT_EQ(result.opening, 550);
    EXPECT_THAT(result.opening_text, HasSubstr("550 Permission denied: /My files/x\n"));
}

TEST_F(Transfer, AStorageFailureInTheMiddleIs451WithoutSecrets)
{
    harness.storage.add_generated("/My files/x", 5000).send = fake_send_t::fail_after_some;
    ftp_client_t &client = binary();
    const auto result = client.transfer("RETR x");
    EXPECT_EQ(result.opening, 150);
    EXPECT_EQ(result.final, 451);
    EXPECT_THAT(result.final_text, HasSubstr("the service broke off at https://cdn.example.org"));
    EXPECT_THAT(result.final_text, Not(HasSubstr("secret")));
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Transfer, ASuccessThatDidNotHappenIs451)
{
    harness.storage.add_file("/My files/half", "0123456789").send = fake_send_t::short_of_announced;
    harness.storage.add_file("/My files/none", "x").send = fake_send_t::success_without_begin;
    ftp_client_t &client = binary();
    EXPECT_EQ(client.transfer("RETR half").final, 451);
    const auto none = client.transfer("RETR none");
    EXPECT_EQ(none.opening, 451);
    expect_orderly_end();
}

/* ---- Data connections ---------------------------------------------------------------------- */

TEST_F(Transfer, PortAndEprtConnectToTheClient)
{
    ftp_client_t &client = binary();
    std::uint16_t port = 0;
    const auto listener = listen_here(port);
    EXPECT_EQ(client.code_of("PORT " + port_argument(port)), 200);
    EXPECT_EQ(client.code_of("RETR a.txt"), 150);
    EXPECT_EQ(read_to_end(accept_here(listener).get()), "hello\nworld\n");
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("EPRT |1|127.0.0.1|" + std::to_string(port) + "|"), 200);
    EXPECT_EQ(client.code_of("RETR twenty"), 150);
    EXPECT_EQ(read_to_end(accept_here(listener).get()).size(), 20U);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("RETR twenty"), 425);
    expect_orderly_end();
}

TEST_F(Transfer, APortThatNobodyListensAtIs425)
{
    ftp_client_t &client = binary();
    std::uint16_t port = 0;
    listen_here(port).reset();
    EXPECT_EQ(client.code_of("PORT " + port_argument(port)), 200);
    EXPECT_EQ(client.code_of("RETR a.txt"), 150);
    EXPECT_EQ(client.read_reply().last(), "425 The data connection was refused");
    EXPECT_EQ(harness.storage.shared->sends, 1);
    EXPECT_EQ(client.transfer("RETR a.txt").final, 226);
}

TEST_F(Transfer, AClientThatNeverConnectsGets425)
{
    harness.config.server.data_timeout = seconds(1);
    ftp_client_t &client = binary();
    (void)client.passive();
    EXPECT_EQ(client.code_of("RETR a.txt"), 150);
    EXPECT_EQ(client.read_reply().code, 425);
    (void)client.passive();
    EXPECT_EQ(client.code_of("LIST"), 150);
    EXPECT_EQ(client.read_reply().code, 425);
    EXPECT_EQ(client.transfer("RETR a.txt").final, 226);
}

TEST_F(Transfer, AStrangerOnThePassivePortIsTurnedAwayAndTheClientServed)
{
    ftp_client_t &client = binary();
    const std::uint16_t port = client.passive();
    const auto stranger = client.connect_data(port, "127.0.0.2");
    ASSERT_TRUE(stranger);
    EXPECT_EQ(client.code_of("RETR a.txt"), 150);
    EXPECT_EQ(read_to_end(stranger.get()), "");
    const auto data = client.connect_data(port);
    EXPECT_EQ(read_to_end(data.get()), "hello\nworld\n");
    EXPECT_EQ(client.read_reply().code, 226);
}

TEST_F(Transfer, ANewPassivePortClosesTheOldOne)
{
    ftp_client_t &client = logged_in();
    const std::uint16_t first = client.passive();
    const std::uint16_t second = client.passive();
    EXPECT_NE(first, second);
    EXPECT_FALSE(client.connect_data(first));
    EXPECT_TRUE(client.connect_data(second));
    EXPECT_EQ(client.code_of("ABOR"), 226);
    EXPECT_FALSE(client.connect_data(second));
}

TEST_F(Transfer, PassivePortsComeFromTheRangeUntilItIsUsedUp)
{
    std::uint16_t port = 0;
    listen_here(port).reset();
    harness.config.server.passive_ports = {port, port};
    ftp_client_t &client = logged_in();
    auto taken = listen_here(port, port);
    EXPECT_EQ(client.code_of("PASV"), 425);
    EXPECT_EQ(client.code_of("EPSV"), 425);
    taken.reset();
    EXPECT_EQ(client.passive(), port);
    EXPECT_EQ(client.extended_passive(), port);
    const auto data = client.connect_data(port);
    EXPECT_EQ(client.code_of("LIST"), 150);
    EXPECT_NE(read_to_end(data.get()), "");
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.passive(), port);
}

TEST_F(Transfer, ThePublicAddressIsToldInPassiveMode)
{
    harness.config.server.public_address = "192.0.2.7";
    EXPECT_THAT(logged_in().ask("PASV").last(),
                StartsWith("227 Entering Passive Mode (192,0,2,7,"));
}

TEST_F(Transfer, AfterEpsvAllOnlyEpsvIsTaken)
{
    ftp_client_t &client = binary();
    const std::uint16_t port = client.extended_passive();
    EXPECT_EQ(client.ask("EPSV ALL").last(), "200 EPSV ALL accepted; only EPSV from now on.");
    for (const char *command : {"PASV", "PORT 127,0,0,1,100,1", "EPRT |1|127.0.0.1|5282|"}) {
        EXPECT_EQ(client.code_of(command), 503) << command;
    }
    const auto data = client.connect_data(port);
    EXPECT_EQ(client.code_of("RETR twenty"), 150);
    EXPECT_EQ(read_to_end(data.get()).size(), 20U);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
    EXPECT_EQ(client.code_of("PASV"), 503);
}

TEST_F(Transfer, EpsvAllDropsWhatPasvHasSetUp)
{
    ftp_client_t &client = logged_in();
    const std::uint16_t port = client.passive();
    EXPECT_EQ(client.code_of("EPSV ALL"), 200);
    EXPECT_FALSE(client.connect_data(port));
    EXPECT_EQ(client.code_of("LIST"), 425);
}

TEST_F(Transfer, ProtocolRefusalsNameTheFamiliesThatWork)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("EPSV 3").last(), "522 Network protocol not supported, use (1,2)");
    EXPECT_EQ(client.ask("EPSV 2").last(), "522 Network protocol not supported, use (1)");
    EXPECT_EQ(client.ask("EPRT |3|x|1|").last(), "522 Network protocol not supported, use (1,2)");
}

TEST_F(Transfer, OverIpv6OnlyExtendedCommandsWork)
{
    harness.ipv6 = true;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("PASV").last(), "522 Network protocol not supported, use (2)");
    EXPECT_EQ(client.code_of("PORT 127,0,0,1,100,1"), 501);
    EXPECT_EQ(client.code_of("EPRT |2|::1|5282|"), 200);
    const std::uint16_t port = client.extended_passive();
    const server::unique_fd_t data(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto target = server::socket_address_t::parse(AF_INET6, "::1", port);
    ASSERT_EQ(connect(data.get(), target->data(), target->size()), 0);
    EXPECT_EQ(client.code_of("NLST docs"), 150);
    EXPECT_EQ(read_to_end(data.get()), "docs/b.bin\r\ndocs/c.txt\r\n");
    EXPECT_EQ(client.read_reply().code, 226);
}

TEST_F(Transfer, AnIpv4ClientOnASocketForBothFamiliesIsAnIpv4Client)
{
    harness.mapped_ipv4 = true;
    ftp_client_t &client = binary();
    EXPECT_THAT(client.ask("PASV").last(), StartsWith("227 Entering Passive Mode (127,0,0,1,"));
    EXPECT_EQ(client.code_of("EPSV 1"), 229);
    EXPECT_EQ(client.code_of("EPSV 2"), 522);
    EXPECT_EQ(client.transfer("RETR a.txt").final, 226);
    std::uint16_t port = 0;
    const auto listener = listen_here(port);
    EXPECT_EQ(client.code_of("PORT " + port_argument(port)), 200);
    EXPECT_EQ(client.code_of("RETR a.txt"), 150);
    EXPECT_EQ(read_to_end(accept_here(listener).get()), "hello\nworld\n");
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("EPRT |2|::ffff:127.0.0.1|" + std::to_string(port) + "|"), 200);
    EXPECT_EQ(client.code_of("PORT 127,0,0,2,100,1"), 501);
}

TEST_F(Transfer, AClientThatStopsReadingIsGivenUp)
{
    harness.config.server.data_timeout = seconds(1);
    harness.storage.add_generated("/My files/large", std::int64_t{1} << 40);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR large"), 150);
    EXPECT_EQ(client.read_reply().last(), "426 The client took no data for too long");
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Transfer, AClientThatClosesTheDataConnectionEarlyGets426)
{
    harness.storage.add_generated("/My files/large", std::int64_t{1} << 40);
    ftp_client_t &client = binary();
    auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR large"), 150);
    char byte = 0;
    EXPECT_EQ(recv(data.get(), &byte, 1, 0), 1);
    data.reset();
    EXPECT_EQ(client.read_reply().last(), "426 The client closed the data connection");
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
}

/* ---- ABOR and what waits ------------------------------------------------------------------- */

TEST_F(Transfer, AborInTheMiddleIs426And226AndTheSessionGoesOn)
{
    harness.storage.add_generated("/My files/large", std::int64_t{1} << 40);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR large"), 150);
    wait_readable(data.get());
    EXPECT_EQ(client.ask("ABOR").last(), "426 Transfer aborted; data connection closed.");
    EXPECT_EQ(client.read_reply().last(), "226 Abort successful.");
    EXPECT_GT(read_to_end(data.get()).size(), 0U);
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
    EXPECT_EQ(client.code_of("ABOR"), 226);
    EXPECT_TRUE(client.is_quiet_for(50));
    expect_orderly_end();
}

TEST_F(Transfer, AborIsHeardInEveryFormThatClientsSendItIn)
{
    harness.storage.add_generated("/My files/large", std::int64_t{1} << 40);
    ftp_client_t &client = binary();
    const auto aborted = [&](auto send_abort) {
        const auto data = client.connect_data(client.passive());
        EXPECT_EQ(client.code_of("RETR large"), 150);
        send_abort();
        EXPECT_EQ(client.read_reply().code, 426);
        EXPECT_EQ(client.read_reply().code, 226);
        EXPECT_EQ(client.code_of("NOOP"), 200);
    };
    aborted([&] {
        client.send_raw("\xFF\xF4\xFF");
        client.send_urgent("\xF2");
        client.send_line("ABOR");
    });
    aborted([&] { client.send_urgent("ABOR\r\n"); });
    aborted([&] {
        client.send_raw("\xF2"
                        "ABOR\r\n");
    });
    aborted([&] { client.send_raw("abor\n"); });
}

TEST_F(Transfer, AborWhileTheDataConnectionIsAwaitedIsHeardAtOnce)
{
    ftp_client_t &client = binary();
    (void)client.passive();
    EXPECT_EQ(client.code_of("RETR twenty"), 150);
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
}

TEST_F(Transfer, AborIsAnsweredAlsoWhileTheStorageSleeps)
{
    harness.storage.add_file("/My files/deaf", "x").send = fake_send_t::deaf_sleep;
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR deaf"), 150);
    while (!harness.storage.shared->sleeping) {
        usleep(1000);
    }
    client.send_line("ABOR");
    client.send_line("NOOP");
    EXPECT_EQ(client.read_reply().code, 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_TRUE(harness.storage.shared->sleeping); /* the client did not wait for it */
    EXPECT_EQ(client.read_reply().code, 200);
    EXPECT_FALSE(harness.storage.shared->sleeping); /* the next command did */
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
    expect_orderly_end();
}

TEST_F(Transfer, AborInOneSegmentWithTheTransferStopsIt)
{
    harness.storage.add_generated("/My files/large", std::int64_t{1} << 40);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    client.send_raw("RETR large\r\nABOR\r\nNOOP\r\n");
    ftp_reply_t reply = client.read_reply();
    if (reply.code == 150) {
        reply = client.read_reply();
    }
    EXPECT_EQ(reply.code, 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.read_reply().code, 200);
}

TEST_F(Transfer, AborEndsAListingWithoutEnd)
{
    harness.storage.add_folder("/My files/endless").list = fake_list_t::endless;
    ftp_client_t &client = logged_in();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("MLSD endless"), 150);
    char byte = 0;
    EXPECT_EQ(recv(data.get(), &byte, 1, 0), 1);
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("STAT"), 211);
    client.send_line("STAT endless");
    EXPECT_TRUE(client.is_quiet_for(100));
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    expect_orderly_end();
}

TEST_F(Transfer, AClientThatLeavesAListingEndsItToo)
{
    harness.storage.add_folder("/My files/endless").list = fake_list_t::endless;
    ftp_client_t &client = logged_in();
    auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("LIST endless"), 150);
    char byte = 0;
    EXPECT_EQ(recv(data.get(), &byte, 1, 0), 1);
    data.reset();
    EXPECT_EQ(client.read_reply().code, 426);
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Transfer, CommandsWaitForTheTransferAndStatDoesNot)
{
    constexpr std::int64_t size = 16 * 1024 * 1024;
    harness.storage.add_generated("/My files/large", size);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR large"), 150);
    client.send_raw("NOOP\r\nPWD\r\nQUIT\r\n");
    EXPECT_TRUE(client.is_quiet_for(100));
    const ftp_reply_t status = client.ask("STAT");
    EXPECT_EQ(status.code, 211);
    EXPECT_THAT(status.text(), HasSubstr(" Transfer running, "));
    EXPECT_EQ(read_to_end(data.get()).size(), static_cast<std::size_t>(size));
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.read_reply().code, 200);
    EXPECT_EQ(client.read_reply().code, 257);
    EXPECT_EQ(client.read_reply().code, 221);
    EXPECT_TRUE(client.closed_by_server());
    expect_orderly_end();
}

TEST_F(Transfer, EachIsWrittenToTheTransferLog)
{
    harness.config.log.transfer_log = harness.folder / "transfers";
    harness.folder.write("transfers", "", 0666);
    server::open_logs(harness.config.log);
    ftp_client_t &client = binary();
    EXPECT_EQ(client.transfer("RETR twenty").final, 226);
    EXPECT_EQ(client.transfer("RETR nowhere").final, 550);
    expect_orderly_end();
    const std::string log = harness.folder.read("transfers");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
    EXPECT_THAT(log, HasSubstr("/My files/twenty"));
    EXPECT_THAT(log, HasSubstr("550"));
}

TEST_F(Transfer, OneThatTheLostControlConnectionBreaksOffIsLoggedToo)
{
    harness.storage.add_file("/My files/slow", "x").send = fake_send_t::silent_until_cancelled;
    harness.config.log.transfer_log = harness.folder / "transfers";
    harness.folder.write("transfers", "", 0666);
    server::open_logs(harness.config.log);
    ftp_client_t &client = binary();
    const auto data = client.connect_data(client.passive());
    EXPECT_EQ(client.code_of("RETR slow"), 150);
    expect_orderly_end();
    const std::string log = harness.folder.read("transfers");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
    EXPECT_THAT(log, HasSubstr("/My files/slow"));
    EXPECT_THAT(log, HasSubstr("code=426"));
}

/* ---- Listings ------------------------------------------------------------------------------ */

TEST_F(Transfer, AListingLooksLikeLs)
{
    const std::string user = test_account().name;
    ftp_client_t &client = logged_in();
    const auto result = client.transfer("LIST docs");
    EXPECT_EQ(result.opening_text, "150 Opening ASCII mode data connection for listing.\n");
    EXPECT_EQ(result.final, 226);
    EXPECT_THAT(result.data, StartsWith("-rwx------   1 " + user));
    EXPECT_THAT(result.data, HasSubstr(" 1 Jan 15  2024 b.bin\r\n"));
    EXPECT_THAT(result.data, HasSubstr(" 2 Jan 15  2024 c.txt\r\n"));
    for (const char *command : {"LIST -a docs", "LIST -la docs", "LIST -a -L docs", "LIST docs/"}) {
        EXPECT_EQ(client.transfer(command).data, result.data) << command;
    }
    EXPECT_EQ(client.code_of("CWD docs"), 250);
    EXPECT_EQ(client.transfer("LIST").data, result.data);
    EXPECT_EQ(client.transfer("LIST -al").data, result.data);
    EXPECT_EQ(client.transfer("LIST .").data, result.data);
    expect_orderly_end();
}

TEST_F(Transfer, AListingOfAFileIsItsOneLine)
{
    ftp_client_t &client = logged_in();
    const auto list = client.transfer("LIST docs/c.txt");
    EXPECT_EQ(std::count(list.data.begin(), list.data.end(), '\n'), 1);
    EXPECT_TRUE(list.data.ends_with(" c.txt\r\n"));
    EXPECT_EQ(client.transfer("NLST docs/c.txt").data, "docs/c.txt\r\n");
    EXPECT_EQ(client.transfer("MLSD docs/c.txt").opening_text,
              "501 Not a directory: /My files/docs/c.txt\n");
    EXPECT_EQ(harness.storage.shared->lists, 0);
}

TEST_F(Transfer, NamesInANameListingAreAsTheClientCanUseThem)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.transfer("NLST docs").data, "docs/b.bin\r\ndocs/c.txt\r\n");
    EXPECT_EQ(client.transfer("NLST docs/").data, "docs/b.bin\r\ndocs/c.txt\r\n");
    EXPECT_EQ(client.transfer("NLST /My files/docs").data,
              "/My files/docs/b.bin\r\n/My files/docs/c.txt\r\n");
    EXPECT_EQ(client.code_of("CWD docs"), 250);
    EXPECT_EQ(client.transfer("NLST").data, "b.bin\r\nc.txt\r\n");
    EXPECT_EQ(client.transfer("NLST -1").data, "b.bin\r\nc.txt\r\n");
    EXPECT_EQ(client.transfer("NLST .").data, "b.bin\r\nc.txt\r\n");
}

TEST_F(Transfer, WildcardsInTheLastNameAreMatched)
{
    harness.storage.add_file("/My files/docs/[x].txt", "literal");
    harness.storage.add_file("/My files/docs/x.txt", "");
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.transfer("NLST docs/*.txt").data,
              "docs/[x].txt\r\ndocs/c.txt\r\ndocs/x.txt\r\n");
    EXPECT_EQ(client.transfer("NLST docs/?.bin").data, "docs/b.bin\r\n");
    EXPECT_EQ(client.transfer("NLST docs/[bc].*").data, "docs/b.bin\r\ndocs/c.txt\r\n");
    EXPECT_EQ(client.transfer("NLST docs/[x].txt").data, "docs/[x].txt\r\n");
    EXPECT_EQ(client.transfer("NLST *.txt").data, "a.txt\r\n");
    EXPECT_THAT(client.transfer("LIST docs/c*").data, HasSubstr(" c.txt\r\n"));
    const auto none = client.transfer("NLST docs/*.gif");
    EXPECT_EQ(none.opening, 550);
    EXPECT_EQ(client.transfer("NLST nowhere/*").opening, 550);
    EXPECT_EQ(client.transfer("MLSD d*").opening, 550);
}

TEST_F(Transfer, MachineListingsHaveExactFacts)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("OPTS MLST type;size;modify;perm;"), 200);
    const auto result = client.transfer("MLSD docs");
    EXPECT_EQ(result.data, "type=cdir;perm=cdeflmp; .\r\n"
                           "type=pdir;perm=celmp; ..\r\n"
                           "type=file;size=1;modify=20240115123000;perm=dfrw; b.bin\r\n"
                           "type=file;size=2;modify=20240115123000;perm=dfrw; c.txt\r\n");
    EXPECT_EQ(result.final, 226);
    EXPECT_EQ(client.code_of("OPTS MLST type;"), 200);
    EXPECT_EQ(client.transfer("MLSD /").data, "type=cdir; .\r\ntype=dir; My files\r\n");
    EXPECT_EQ(client.code_of("OPTS MLST unique;"), 200);
    const std::string single = client.ask("MLST docs").lines.at(1);
    EXPECT_THAT(client.transfer("MLSD docs").data,
                StartsWith(single.substr(1, single.find(';')) + " .\r\n"));
}

TEST_F(Transfer, AnEmptyFolderIsAnEmptyListing)
{
    harness.storage.add_folder("/My files/nothing");
    ftp_client_t &client = logged_in();
    for (const char *command : {"LIST nothing", "NLST nothing"}) {
        const auto result = client.transfer(command);
        EXPECT_EQ(result.opening, 150) << command;
        EXPECT_EQ(result.data, "") << command;
        EXPECT_EQ(result.final, 226) << command;
    }
}

TEST_F(Transfer, ALongListingIsComplete)
{
    harness.storage.add_folder("/My files/many");
    for (int n = 0; n < 1234; ++n) {
        harness.storage.add_file("/My files/many/file" + std::to_string(n), "x");
    }
    const auto result = logged_in().transfer("NLST many");
    EXPECT_EQ(std::count(result.data.begin(), result.data.end(), '\n'), 1234);
    EXPECT_EQ(result.final, 226);
}

TEST_F(Transfer, AMissingFolderIs550BeforeTheDataConnection)
{
    ftp_client_t &client = logged_in();
    for (const char *command : {"LIST nowhere", "NLST nowhere", "MLSD nowhere"}) {
        EXPECT_EQ(client.transfer(command).opening, 550) << command;
    }
}

TEST_F(Transfer, AListingThatFailsAtOnceIs550AndOneThatFailsLaterIs451)
{
    harness.storage.add_folder("/My files/refused").list = fake_list_t::fail_at_once;
    harness.storage.add_folder("/My files/broken").list = fake_list_t::fail_after_two_batches;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.transfer("LIST refused").opening_text,
              "550-listing failed\n550 listing failed: /My files/refused\n");
    const auto broken = client.transfer("LIST broken");
    EXPECT_EQ(broken.opening, 150);
    EXPECT_EQ(std::count(broken.data.begin(), broken.data.end(), '\n'), 199);
    EXPECT_EQ(broken.final, 451);
    EXPECT_THAT(broken.final_text, HasSubstr("451-GridFTP-Reason: PERMISSION_DENIED\n"));
    EXPECT_EQ(client.code_of("STAT broken"), 550);
}

TEST_F(Transfer, NamesThatNoClientCouldUseAreNotListed)
{
    harness.storage.add_folder("/My files/odd").odd_names = {
        "good", "a/b", "..", ".", "x\r\nevil", "", "good", "also good"};
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.transfer("NLST odd").data, "odd/good\r\nodd/also good\r\n");
    EXPECT_EQ(client.code_of("OPTS MLST"), 200);
    EXPECT_EQ(client.transfer("MLSD odd").data, " .\r\n ..\r\n good\r\n also good\r\n");
}

TEST_F(Transfer, StatusOfAPathIsAListingOnTheControlConnection)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t folder = client.ask("STAT -l docs");
    ASSERT_EQ(folder.lines.size(), 4U);
    EXPECT_EQ(folder.lines.front(), "212-Status of /My files/docs:");
    EXPECT_THAT(folder.lines[1], StartsWith(" -rwx------"));
    EXPECT_TRUE(folder.lines[2].ends_with(" c.txt"));
    EXPECT_EQ(folder.lines.back(), "212 End of status");
    EXPECT_EQ(client.ask("STAT docs/c.txt").lines.size(), 3U);
}

/* ---- A fresh view of the drive ------------------------------------------------------------- */

TEST_F(Transfer, WhatAnotherSessionMadeIsSeenAtOnce)
{
    harness.storage.add_file("/My files/new", "new").hidden = true;
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("SIZE new"), 550);
    harness.storage.shared->reveal = true;
    EXPECT_EQ(client.code_of("SIZE new"), 550); /* the storage remembers what was missing */
    harness.changes.note_change(test_account().name, "/My files/new", 2);
    EXPECT_EQ(client.ask("SIZE new").last(), "213 3");
    EXPECT_EQ(harness.storage.shared->starts, 2);
    EXPECT_EQ(harness.storage.shared->ends, 1);
    EXPECT_EQ(client.transfer("RETR new").data, "new");
    EXPECT_EQ(harness.storage.shared->starts, 2);
    expect_orderly_end();
}

TEST_F(Transfer, AChangeOfAFolderAboveCountsAndOthersDoNot)
{
    ftp_client_t &client = binary();
    harness.changes.note_change(test_account().name, "/My files/docs", 1); /* its own */
    harness.changes.note_change("somebody-else", "/My files/docs", 2);
    harness.changes.note_change(test_account().name, "/My files/other", 2);
    EXPECT_EQ(client.code_of("SIZE docs/b.bin"), 213);
    EXPECT_EQ(harness.storage.shared->starts, 1);
    harness.changes.note_change(test_account().name, "/My files/docs", 2);
    EXPECT_EQ(client.code_of("SIZE docs/b.bin"), 213);
    EXPECT_EQ(harness.storage.shared->starts, 2);
}

TEST_F(Transfer, ANotFoundThatFollowsAChangeIsTriedOnceMore)
{
    ftp_client_t &client = binary();
    harness.changes.note_change(test_account().name, "/My files/gone", 2);
    const int before = harness.storage.shared->stats;
    EXPECT_EQ(client.code_of("SIZE gone"), 550);
    EXPECT_EQ(harness.storage.shared->stats - before, 2);
    EXPECT_EQ(client.code_of("SIZE gone"), 550);
    EXPECT_EQ(harness.storage.shared->stats - before, 3);
}

TEST_F(Transfer, AnOldStorageSessionIsReplaced)
{
    harness.config.storage.refresh_after = seconds(1);
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
    EXPECT_EQ(harness.storage.shared->starts, 1);
    usleep(1'100'000);
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
    EXPECT_EQ(harness.storage.shared->starts, 2);
    expect_orderly_end();
}

TEST_F(Transfer, ARefreshIntervalOfZeroNeverReplacesIt)
{
    harness.config.storage.refresh_after = seconds(0);
    ftp_client_t &client = binary();
    usleep(50'000);
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
    EXPECT_EQ(harness.storage.shared->starts, 1);
}

} // namespace
} // namespace tirval::tests
