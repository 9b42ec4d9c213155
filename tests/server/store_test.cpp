/*
 * Stores over real sockets: what is refused, what goes straight through and what is taken in first,
 * what breaks off and how it goes on.
 */
#include "fake_store.h"
#include "session_fixture.h"

#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

namespace tirval::tests {
namespace {

using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr std::int64_t mebibyte = std::int64_t{1} << 20;
constexpr std::int64_t part = fake_part_bytes;

std::string pattern(std::int64_t size)
{
    std::string text(static_cast<std::size_t>(size), '\0');
    for (std::int64_t n = 0; n < size; ++n) {
        text[static_cast<std::size_t>(n)] = fake_byte(n);
    }
    return text;
}

/* Waits for what another process does. */
void await(const std::function<bool()> &happened)
{
    for (int n = 0; n < 10'000 && !happened(); ++n) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    ASSERT_TRUE(happened());
}

class Store : public SessionTest {
  protected:
    Store()
    {
        harness.storage.add_folder("/My files/docs");
        harness.storage.add_file("/My files/old", "old content");
    }

    static std::string allo(std::int64_t bytes) { return "ALLO " + std::to_string(bytes); }

    /* The data connection of a store that has got its 150. */
    server::unique_fd_t begin(ftp_client_t &client, std::string_view command)
    {
        auto data = client.connect_data(client.extended_passive());
        EXPECT_EQ(client.code_of(command), 150);
        return data;
    }

    /* A store of 25 MiB that was announced and broke off after 15. */
    ftp_reply_t break_off(ftp_client_t &client, const std::string &content)
    {
        EXPECT_EQ(client.code_of(allo(static_cast<std::int64_t>(content.size()))), 200);
        auto data = begin(client, "STOR big");
        send_to_peer(data.get(), std::string_view(content).substr(0, 15 * mebibyte));
        data.reset();
        return client.read_reply();
    }
};

/* Closes the connection out of order. */
void reset_connection(server::unique_fd_t &connection)
{
    const linger at_once{1, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    connection.reset();
}

/* ---- What arrives -------------------------------------------------------------------------- */

TEST_F(Store, AFileOfAnySizeIsStoredByteForByte)
{
    ftp_client_t &client = binary();
    for (const std::int64_t size :
         {std::int64_t{0}, std::int64_t{1}, 4 * mebibyte, 4 * mebibyte + 1, 25 * mebibyte}) {
        for (const bool announced : {false, true}) {
            const std::string content = pattern(size);
            if (announced) {
                EXPECT_EQ(client.code_of(allo(size)), 200);
            }
            const auto stored = client.store("STOR new", content);
            EXPECT_EQ(stored.opening_text, "150 Opening BINARY mode data connection for new.\n");
            EXPECT_EQ(stored.final_text, "226 Transfer complete.\n") << size << announced;
            EXPECT_EQ(shared().store_size, size);
            EXPECT_TRUE(shared().store_truncates);
            EXPECT_EQ(shared().store_offset, 0);
            EXPECT_TRUE(client.transfer("RETR new").data == content) << size << announced;
        }
    }
    EXPECT_EQ(shared().recvs, 10);
    EXPECT_EQ(shared().stores, 10);
    expect_orderly_end();
}

TEST_F(Store, AFileThatExistsIsReplaced)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR old", "new").final, 226);
    EXPECT_EQ(client.transfer("RETR old").data, "new");
}

TEST_F(Store, AStoreOfUnknownSizeReachesTheStorageOnlyWhenItIsWhole)
{
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), pattern(6 * mebibyte));
    EXPECT_TRUE(client.is_quiet_for(100));
    EXPECT_EQ(shared().recvs, 0);
    data.reset();
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(shared().store_size, 6 * mebibyte);
}

TEST_F(Store, AStoreOfAnnouncedSizeGoesStraightThrough)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("ALLO 10"), 200);
    auto data = begin(client, "STOR new");
    await([&] { return shared().storing.load(); });
    EXPECT_EQ(shared().store_size, 10);
    send_to_peer(data.get(), "0123456789");
    EXPECT_TRUE(client.is_quiet_for(50));
    data.reset();
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(shared().probes, 1);
    EXPECT_EQ(client.transfer("RETR new").data, "0123456789");
}

TEST_F(Store, AnAnnouncementIsForOneStoreWhateverBecomesOfIt)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("ALLO 5"), 200);
    EXPECT_EQ(client.code_of("STOR new"), 425);
    EXPECT_EQ(client.store("STOR new", "more than five").final, 226);
    EXPECT_EQ(client.code_of("ALLO 5"), 200);
    EXPECT_EQ(client.store("STOR docs", "").final, 550);
    EXPECT_EQ(client.store("STOR new", "more than five").final, 226);
    EXPECT_EQ(client.code_of("ALLO 5"), 200);
    EXPECT_EQ(client.store("STOR new", "12345").final, 226);
    EXPECT_EQ(client.store("STOR new", "more than five").final, 226);
}

TEST_F(Store, AsciiTypeStoresLineFeedsAndIgnoresTheAnnouncement)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("ALLO 12"), 200);
    const auto stored = client.store("STOR text", "one\r\ntwo\r\n\r!");
    EXPECT_EQ(stored.opening_text, "150 Opening ASCII mode data connection for text.\n");
    EXPECT_EQ(stored.final, 226);
    EXPECT_EQ(shared().store_size, 10);
    EXPECT_EQ(client.code_of("TYPE I"), 200);
    EXPECT_EQ(client.transfer("RETR text").data, "one\ntwo\n\r!");
}

TEST_F(Store, TheModificationTimeIsForTheNextStoreAlone)
{
    harness.storage.descriptor |= TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES;
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("SITE STORATTR modify=20240115123000;"), 200);
    EXPECT_EQ(client.store("STOR new", "x").final, 226);
    EXPECT_EQ(shared().store_modified, 1705321800);
    EXPECT_EQ(client.ask("MDTM new").last(), "213 20240115123000");
    EXPECT_EQ(client.store("STOR new", "x").final, 226);
    EXPECT_EQ(shared().store_modified, -1);
}

TEST_F(Store, OtherSessionsAreToldOfAStore)
{
    const std::string user = test_account().name;
    const auto before = harness.changes.position();
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR docs/new", "x").final, 226);
    EXPECT_TRUE(harness.changes.changed_since(user, "/My files/docs/new", 2, before));
    EXPECT_FALSE(harness.changes.changed_since(user, "/My files/docs", 2, before));
}

TEST_F(Store, TheTransferLogTellsOfStores)
{
    harness.config.log.transfer_log = harness.folder / "transfers";
    harness.folder.write("transfers", "", 0666);
    server::open_logs(harness.config.log);
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR docs/new", "four").final, 226);
    EXPECT_EQ(client.store("STOR nowhere/new", "four").final, 550);
    expect_orderly_end();
    const std::string lines = harness.folder.read("transfers");
    EXPECT_THAT(lines, HasSubstr("STOR"));
    EXPECT_THAT(lines, HasSubstr("/My files/docs/new"));
    EXPECT_THAT(lines, HasSubstr("226"));
    EXPECT_THAT(lines, HasSubstr("550"));
}

/* ---- What is refused before the data connection -------------------------------------------- */

TEST_F(Store, WhatCannotBeStoredIsRefusedInsteadOf150)
{
    ftp_client_t &client = binary();
    const auto refused = [&](const std::string &command) {
        const auto result = client.store(command, "x");
        EXPECT_NE(result.opening, 150) << command;
        return result.opening_text;
    };
    EXPECT_EQ(refused("STOR docs"), "550 Not a plain file: /My files/docs\n");
    EXPECT_THAT(refused("STOR /new"), StartsWith("550 "));
    EXPECT_THAT(refused("STOR /"), StartsWith("550 "));
    EXPECT_THAT(refused("STOR /My files"), StartsWith("550 "));
    EXPECT_THAT(refused("STOR /My filesystem"), StartsWith("550 "));
    EXPECT_THAT(refused("STOR caf\xc3("), StartsWith("553 "));
    EXPECT_THAT(refused("STOR a\tb"), StartsWith("553 "));
    EXPECT_THAT(refused("STOR nowhere/new"), HasSubstr("550-GridFTP-Reason: PATH_NOT_FOUND\n"));
    EXPECT_EQ(refused("STOR old/new"), "553-GridFTP-Reason: NOT_A_DIRECTORY\n"
                                       "553 Not a directory: /My files/old/new\n");
    EXPECT_THAT(refused("STOU /new"), StartsWith("550 "));
    EXPECT_THAT(refused("APPE docs"), StartsWith("550 "));
    EXPECT_EQ(shared().recvs, 0);
    expect_orderly_end();
}

TEST_F(Store, NeedsALogInAndADataConnection)
{
    session = harness.start();
    EXPECT_EQ(session->client.read_reply().code, 220);
    for (const char *verb : {"STOR", "APPE", "STOU"}) {
        EXPECT_EQ(session->client.code_of(std::string(verb) + " x"), 530) << verb;
    }
    session.reset();
    ftp_client_t &client = binary();
    for (const char *verb : {"STOR", "APPE", "STOU"}) {
        EXPECT_EQ(client.code_of(std::string(verb) + " x"), 425) << verb;
    }
    EXPECT_EQ(client.code_of("STOR"), 501);
}

TEST_F(Store, AppendMakesANewFileAndRefusesAnExistingOne)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("APPE old", "x").opening_text,
              "553-GridFTP-Reason: APPEND_NOT_SUPPORTED\n"
              "553 Files cannot be appended to: /My files/old\n");
    EXPECT_EQ(shared().recvs, 0);
    EXPECT_EQ(client.store("APPE new", "fresh").final, 226);
    EXPECT_TRUE(shared().store_truncates);
    EXPECT_EQ(client.transfer("RETR new").data, "fresh");
    EXPECT_EQ(client.transfer("RETR old").data, "old content");
}

TEST_F(Store, ANameThatDiffersInCaseAloneIsTaken)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("APPE OLD", "x").opening_text,
              "553-GridFTP-Reason: APPEND_NOT_SUPPORTED\n"
              "553 Files cannot be appended to: /My files/OLD\n");
    EXPECT_THAT(client.store("STOU Old", "x").opening_text, StartsWith("150 FILE: Old."));
    EXPECT_EQ(client.store("STOR OLD", "x").final, 226);
}

/* ---- STOU ---------------------------------------------------------------------------------- */

TEST_F(Store, UniqueNamesAreToldInTheOpeningReplyAndReallyNew)
{
    ftp_client_t &client = binary();
    const auto stored = client.store("STOU old", "unique");
    EXPECT_THAT(stored.opening_text, StartsWith("150 FILE: old."));
    EXPECT_EQ(stored.final_text, "226" + stored.opening_text.substr(3));
    const std::string name = stored.opening_text.substr(10, stored.opening_text.find('\n') - 10);
    EXPECT_EQ(client.transfer("RETR " + name).data, "unique");
    EXPECT_EQ(client.transfer("RETR old").data, "old content");
}

TEST_F(Store, AUniqueNameThatIsFreeIsTakenAndWithoutOneTheServerChooses)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOU free", "x").opening_text, "150 FILE: free\n");
    EXPECT_EQ(client.store("STOU docs/free", "x").opening_text, "150 FILE: /My files/docs/free\n");
    EXPECT_EQ(client.code_of("CWD docs"), 250);
    const auto first = client.store("STOU", "1");
    const auto second = client.store("STOU", "2");
    EXPECT_EQ(first.final, 226);
    EXPECT_EQ(second.final, 226);
    EXPECT_THAT(first.opening_text, StartsWith("150 FILE: file."));
    EXPECT_NE(first.opening_text, second.opening_text);
}

TEST_F(Store, RestBeforeAUniqueStoreIs450)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("REST 10"), 350);
    EXPECT_EQ(client.store("STOU new", "x").opening, 450);
    EXPECT_EQ(client.store("STOU new", "x").final, 226);
}

/* ---- What does not arrive whole ------------------------------------------------------------ */

TEST_F(Store, AnAnnouncementThatIsTooLargeStoresNothing)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("ALLO 10"), 200);
    const auto small = client.store("STOR new", "nine byte");
    EXPECT_EQ(small.final, 451);
    EXPECT_THAT(small.final_text, Not(HasSubstr("GridFTP-Restart")));
    EXPECT_EQ(client.code_of("SIZE new"), 550);
    EXPECT_EQ(client.code_of(allo(9 * mebibyte)), 200);
    EXPECT_EQ(client.store("STOR new", pattern(9 * mebibyte - 1)).final, 451);
    EXPECT_EQ(shared().stores, 0);
    EXPECT_EQ(client.store("STOR new", "after all").final, 226);
}

TEST_F(Store, MoreThanAnnouncedFailsAndContinuesNothing)
{
    ftp_client_t &client = binary();
    for (const std::int64_t size : {std::int64_t{10}, 25 * mebibyte}) {
        EXPECT_EQ(client.code_of(allo(size)), 200);
        const auto result = client.store("STOR new", pattern(size + 1));
        EXPECT_EQ(result.final, 451);
        EXPECT_THAT(result.final_text, HasSubstr("QUOTA_EXCEEDED"));
        EXPECT_THAT(result.final_text, Not(HasSubstr("GridFTP-Restart")));
    }
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR new", "x").opening, 554);
}

TEST_F(Store, AConnectionThatBreaksStoresNothing)
{
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), "some");
    await([&] { return client.ask("STAT").text().find("4 bytes so far") != std::string::npos; });
    reset_connection(data);
    EXPECT_EQ(client.read_reply().last(), "426 The client broke off the data connection");
    EXPECT_EQ(shared().recvs, 0);
    EXPECT_EQ(client.code_of("ALLO 100"), 200);
    data = begin(client, "STOR new");
    await([&] { return shared().storing.load(); });
    reset_connection(data);
    EXPECT_EQ(client.read_reply().last(), "426 The client broke off the data connection");
    EXPECT_EQ(shared().stores, 0);
    EXPECT_EQ(client.code_of("SIZE new"), 550);
}

TEST_F(Store, AClientThatNeverConnectsGets425)
{
    harness.config.server.data_timeout = std::chrono::seconds(1);
    ftp_client_t &client = binary();
    for (const bool announced : {false, true}) {
        if (announced) {
            EXPECT_EQ(client.code_of(allo(5 * mebibyte)), 200);
        }
        (void)client.extended_passive();
        EXPECT_EQ(client.code_of("STOR new"), 150);
        EXPECT_EQ(client.read_reply().last(), "425 No data connection was made in time");
    }
    EXPECT_EQ(client.code_of(allo(5 * mebibyte)), 200);
    EXPECT_EQ(client.store("STOR new", pattern(5 * mebibyte)).final, 226);
}

TEST_F(Store, AClientThatFallsSilentGets426)
{
    harness.config.server.data_timeout = std::chrono::seconds(1);
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), "some");
    EXPECT_EQ(client.read_reply().last(), "426 The client sent no data for too long");
    EXPECT_EQ(client.code_of("ALLO 4"), 200);
    data = begin(client, "STOR new");
    send_to_peer(data.get(), "four");
    EXPECT_THAT(client.read_reply().text(), HasSubstr("426 The client sent no data for too long"));
    expect_orderly_end();
}

TEST_F(Store, OutOfSpaceIs452AndStoresNothing)
{
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit lower = before;
    lower.rlim_cur = 6 * mebibyte;
    setrlimit(RLIMIT_FSIZE, &lower);
    ftp_client_t &client = binary();
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(client.store("STOR new", pattern(8 * mebibyte)).final_text,
              "452 The server has no space for the file's data: /My files/new\n");
    EXPECT_EQ(shared().recvs, 0);
    EXPECT_EQ(client.store("STOR new", pattern(5 * mebibyte)).final, 226);
    EXPECT_EQ(client.code_of(allo(8 * mebibyte)), 200);
    EXPECT_EQ(client.store("STOR new", pattern(8 * mebibyte)).final, 226);
    expect_orderly_end();
}

TEST_F(Store, WhatIsTakenInHasNoName)
{
    const std::filesystem::path spool = harness.folder / "spool";
    std::filesystem::create_directory(spool);
    chmod(harness.folder.path().c_str(), 0755);
    chmod(spool.c_str(), 0777);
    harness.config.spool.directory = spool;
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), pattern(8 * mebibyte));
    await([&] {
        return client.ask("STAT").text().find("8388608 bytes so far") != std::string::npos;
    });
    EXPECT_TRUE(std::filesystem::is_empty(spool));
    data.reset();
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_TRUE(std::filesystem::is_empty(spool));
    std::filesystem::remove(spool);
    EXPECT_EQ(client.store("STOR new", pattern(5 * mebibyte)).final, 451);
    EXPECT_EQ(client.store("STOR new", pattern(3 * mebibyte)).final, 226);
}

/* ---- What interrupts ----------------------------------------------------------------------- */

TEST_F(Store, AborEndsAStoreAtOnceAndNothingIsStored)
{
    harness.storage.store_plans["/My files/silent"].silent = true;
    ftp_client_t &client = binary();
    const auto abort = [&] {
        EXPECT_EQ(client.code_of("ABOR"), 426);
        EXPECT_EQ(client.read_reply().code, 226);
        EXPECT_EQ(client.code_of("NOOP"), 200);
    };
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), "some");
    abort();
    EXPECT_EQ(client.code_of("ALLO 100"), 200);
    data = begin(client, "STOR new");
    send_to_peer(data.get(), "some");
    await([&] { return shared().storing.load(); });
    abort();
    data = begin(client, "STOR silent");
    data.reset();
    await([&] { return shared().recvs == 2; });
    abort();
    EXPECT_EQ(shared().stores, 0);
    EXPECT_EQ(client.store("STOR new", "x").final, 226);
    expect_orderly_end();
}

TEST_F(Store, AClientThatVanishesStoresNothing)
{
    for (const bool announced : {false, true}) {
        ftp_client_t &client = binary();
        if (announced) {
            EXPECT_EQ(client.code_of("ALLO 100"), 200);
        }
        auto data = begin(client, "STOR new");
        send_to_peer(data.get(), "some");
        client.close_connection();
        data.reset();
        EXPECT_EQ(session->wait(), 0);
    }
    EXPECT_EQ(shared().stores, 0);
    EXPECT_EQ(shared().starts, shared().ends);
}

TEST_F(Store, AClientThatHasSaidQuitMayCloseItsSideBeforeTheEnd)
{
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), "all");
    client.send_line("QUIT");
    client.close_sending_side();
    data.reset();
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.read_reply().code, 221);
    EXPECT_EQ(session->wait(), 0);
    EXPECT_EQ(shared().stores, 1);
}

TEST_F(Store, AShutdownWaitsForAStoreAndEndsItAtItsLimit)
{
    harness.config.server.shutdown_timeout = std::chrono::seconds(1);
    ftp_client_t &client = binary();
    auto data = begin(client, "STOR new");
    send_to_peer(data.get(), "some");
    session->signal(SIGTERM);
    EXPECT_EQ(client.read_reply().code, 421);
    EXPECT_EQ(session->wait(), 0);
    EXPECT_EQ(shared().stores, 0);
}

/* ---- What the storage says ----------------------------------------------------------------- */

TEST_F(Store, ARefusalOfTheStorageIsAnsweredWithItsCode)
{
    harness.storage.store_plans["/My files/new"].refusal = {553, "INVALID_PATH_NAME", "no"};
    ftp_client_t &client = binary();
    const auto taken_in = client.store("STOR new", "x");
    EXPECT_EQ(taken_in.opening, 150);
    EXPECT_EQ(taken_in.final_text, "553-GridFTP-Reason: INVALID_PATH_NAME\n553-no\n"
                                   "553 Name not allowed: /My files/new\n");
    EXPECT_EQ(client.code_of("ALLO 1"), 200);
    EXPECT_EQ(client.store("STOR new", "x").opening, 553);
}

TEST_F(Store, AnotherUploadOfTheFileIsATemporaryObstacle)
{
    fake_store_plan_t &plan = harness.storage.store_plans["/My files/busy"];
    plan.refusal = {0, "", "code: \"nameAlreadyExists\""};
    plan.status = 409;
    harness.storage.store_plans["/My files/denied"].refusal = {550, "PERMISSION_DENIED", "no"};
    harness.storage.store_plans["/My files/denied"].status = 403;
    ftp_client_t &client = binary();
    for (const bool announced : {false, true}) {
        if (announced) {
            EXPECT_EQ(client.code_of("ALLO 4"), 200);
        }
        EXPECT_THAT(client.store("STOR busy", "data").final_text,
                    AllOf(StartsWith("450-"), HasSubstr("nameAlreadyExists"),
                          HasSubstr("450 The storage service still holds another upload")));
    }
    EXPECT_EQ(client.store("STOR denied", "data").final, 550);
}

TEST_F(Store, AFailureThatNamesNoErrorIsAnsweredInWords)
{
    harness.storage.store_plans["/My files/new"].nameless = true;
    ftp_client_t &client = binary();
    for (const bool announced : {false, true}) {
        if (announced) {
            EXPECT_EQ(client.code_of("ALLO 1"), 200);
        }
        EXPECT_EQ(client.store("STOR new", "x").final_text,
                  "451 Storage reported an unknown error: /My files/new\n");
    }
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Store, ASuccessThatDidNotHappenIs451)
{
    harness.storage.store_plans["/My files/new"].without_begin = true;
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR new", "x").final, 451);
    EXPECT_EQ(client.code_of("ALLO 1"), 200);
    EXPECT_EQ(client.store("STOR new", "x").opening, 451);
}

TEST_F(Store, AFailureIsAnsweredAtOnceThoughTheClientHasMoreToSend)
{
    harness.storage.store_plans["/My files/new"].fail_at = {0};
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of(allo(25 * mebibyte)), 200);
    auto data = begin(client, "STOR new");
    std::thread sender([&] { send_to_peer(data.get(), pattern(25 * mebibyte)); });
    EXPECT_EQ(client.read_reply().code, 451);
    sender.join();
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Store, AfterAFailureTheStorageSessionIsOpenedAnew)
{
    harness.storage.store_plans["/My files/new"].refusal = {451, "TOO_BUSY", "busy"};
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR new", "x").final, 451);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("SIZE old"), 213);
    EXPECT_EQ(shared().starts, 2);
}

/* ---- What breaks off and goes on ----------------------------------------------------------- */

TEST_F(Store, AStoreThatTheServerHasTakenInIsContinuedByItself)
{
    harness.storage.store_plans["/My files/big"].fail_at = {part, 2 * part};
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(client.store("STOR big", content).final, 226);
    EXPECT_EQ(shared().recvs, 3);
    EXPECT_EQ(shared().store_offset, 2 * part);
    EXPECT_EQ(shared().store_size, 25 * mebibyte);
    EXPECT_FALSE(shared().store_truncates);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
    EXPECT_EQ(shared().starts, 1);
}

TEST_F(Store, AContinuationThatGetsNoFurtherIsGivenUp)
{
    harness.storage.store_plans["/My files/big"].fail_at = {part, part};
    ftp_client_t &client = binary();
    const auto result = client.store("STOR big", pattern(25 * mebibyte));
    EXPECT_EQ(result.final, 451);
    EXPECT_THAT(result.final_text, HasSubstr("the service broke off"));
    EXPECT_THAT(result.final_text, Not(HasSubstr("GridFTP-Restart")));
    EXPECT_EQ(shared().recvs, 2);
    EXPECT_EQ(client.store("STOR big", pattern(25 * mebibyte)).final, 226);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Store, AStoreIsContinuedThreeTimesAtMost)
{
    harness.storage.store_plans["/My files/big"].fail_at = {part, 2 * part, 3 * part, 4 * part};
    ftp_client_t &client = binary();
    EXPECT_EQ(client.store("STOR big", pattern(45 * mebibyte)).final, 451);
    EXPECT_EQ(shared().recvs, 4);
}

TEST_F(Store, AnInterruptedStoreGoesOnWhereTheReplySays)
{
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    const ftp_reply_t broken = break_off(client, content);
    EXPECT_EQ(broken.code, 451);
    EXPECT_THAT(broken.text(),
                HasSubstr("451-GridFTP-Restart: REST 10485760 and STOR continue this store\n"));
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", content.substr(10 * mebibyte)).final, 226);
    EXPECT_EQ(shared().store_offset, part);
    EXPECT_EQ(shared().store_size, 25 * mebibyte);
    EXPECT_FALSE(shared().store_truncates);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", "x").opening, 554);
    expect_orderly_end();
}

TEST_F(Store, AppendAfterRestContinuesToo)
{
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(break_off(client, content).code, 451);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("APPE big", content.substr(10 * mebibyte)).final, 226);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
}

TEST_F(Store, AContinuationMustBeOfTheSameSize)
{
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(break_off(client, content).code, 451);
    const auto go_on = [&](std::int64_t announced, std::string_view data) {
        if (announced > 0) {
            EXPECT_EQ(client.code_of(allo(announced)), 200);
        }
        EXPECT_EQ(client.code_of("REST 10485760"), 350);
        return client.store("STOR big", data);
    };
    const std::string rest = content.substr(10 * mebibyte);
    EXPECT_EQ(go_on(24 * mebibyte, rest).opening, 554);
    EXPECT_EQ(go_on(0, rest + "x").final, 554);
    EXPECT_THAT(go_on(0, rest.substr(1)).final_text, HasSubstr("GridFTP-Restart: REST 10485760"));
    EXPECT_EQ(shared().recvs, 1);
    EXPECT_EQ(go_on(25 * mebibyte, rest).final, 226);
    EXPECT_EQ(break_off(client, content).code, 451);
    EXPECT_EQ(go_on(15 * mebibyte, rest).final, 226);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
}

TEST_F(Store, AContinuationCanBreakOffAndBeContinuedAgain)
{
    harness.storage.store_plans["/My files/big"].fail_at = {part, part, 2 * part, 2 * part};
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(client.code_of(allo(25 * mebibyte)), 200);
    EXPECT_THAT(client.store("STOR big", content).final_text, HasSubstr("REST 10485760 and STOR"));
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_THAT(client.store("STOR big", content.substr(10 * mebibyte)).final_text,
                HasSubstr("REST 10485760 and STOR"));
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_THAT(client.store("STOR big", content.substr(10 * mebibyte)).final_text,
                HasSubstr("REST 20971520 and STOR"));
    EXPECT_EQ(client.code_of("REST 1000"), 350);
    EXPECT_THAT(client.store("STOR big", content.substr(1000)).final_text,
                HasSubstr("APPEND_NOT_SUPPORTED"));
    EXPECT_EQ(client.code_of("REST 20971520"), 350);
    EXPECT_EQ(client.store("STOR big", content.substr(20 * mebibyte)).final, 226);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
}

TEST_F(Store, AContinuationThatTheStorageRefusesForGoodIsForgotten)
{
    fake_store_plan_t &plan = harness.storage.store_plans["/My files/big"];
    plan.fail_at = {part};
    plan.part_error = {550, "PATH_NOT_FOUND", "the upload has expired"};
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(break_off(client, content).code, 451);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    const auto refused = client.store("STOR big", content.substr(10 * mebibyte));
    EXPECT_EQ(refused.final, 550);
    EXPECT_THAT(refused.final_text, Not(HasSubstr("GridFTP-Restart")));
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", "x").opening, 554);
    EXPECT_EQ(client.store("STOR big", content).final, 226);
}

TEST_F(Store, RestWithoutABrokenStoreIs554AtOnce)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("REST 3"), 350);
    EXPECT_EQ(client.store("STOR old", "x").opening_text,
              "554 No store of this file can be continued: /My files/old\n");
    EXPECT_EQ(client.code_of("REST 3"), 350);
    EXPECT_EQ(client.store("APPE old", "x").opening, 554);
    EXPECT_EQ(client.code_of("REST 0"), 350);
    EXPECT_EQ(client.store("STOR old", "x").final, 226);
    EXPECT_EQ(client.code_of("TYPE A"), 200);
    EXPECT_EQ(client.code_of("REST 3"), 350);
    EXPECT_EQ(client.store("STOR old", "x").opening, 501);
}

TEST_F(Store, AFreshStoreOfABrokenOneBeginsAnew)
{
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(break_off(client, content).code, 451);
    EXPECT_EQ(client.store("STOR big", content).final, 226);
    EXPECT_EQ(shared().starts, 2);
    EXPECT_TRUE(client.transfer("RETR big").data == content);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", "x").opening, 554);
}

TEST_F(Store, AFailureBesideABrokenStoreDoesNotBlockThePath)
{
    harness.storage.store_plans["/My files/taken in"].fail_at = {0};
    harness.storage.store_plans["/My files/streamed"].fail_at = {0};
    ftp_client_t &client = binary();
    const std::string content = pattern(5 * mebibyte);
    for (const std::string name : {"taken in", "streamed"}) {
        EXPECT_EQ(break_off(client, pattern(25 * mebibyte)).code, 451);
        const int starts = shared().starts;
        if (name == "streamed") {
            EXPECT_EQ(client.code_of(allo(5 * mebibyte)), 200);
        }
        const auto failed = client.store("STOR " + name, content);
        EXPECT_EQ(failed.final, 451);
        EXPECT_THAT(failed.final_text, Not(HasSubstr("GridFTP-Restart")));
        EXPECT_EQ(client.code_of("REST 10485760"), 350);
        EXPECT_EQ(client.store("STOR " + name, "x").opening, 554);
        EXPECT_EQ(shared().starts, starts);
        EXPECT_EQ(client.store("STOR " + name, content).final, 226);
        EXPECT_EQ(shared().starts, starts + 1);
    }
    expect_orderly_end();
}

TEST_F(Store, AFailureBesideABrokenStoreLeavesThatToBeContinued)
{
    harness.storage.store_plans["/My files/other"].fail_at = {0};
    ftp_client_t &client = binary();
    const std::string content = pattern(25 * mebibyte);
    EXPECT_EQ(break_off(client, content).code, 451);
    EXPECT_EQ(client.store("STOR other", pattern(5 * mebibyte)).final, 451);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", content.substr(10 * mebibyte)).final, 226);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.store("STOR other", pattern(5 * mebibyte)).final, 226);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Store, AnAbortedStoreIsNotContinued)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of(allo(25 * mebibyte)), 200);
    auto data = begin(client, "STOR big");
    send_to_peer(data.get(), pattern(12 * mebibyte));
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("REST 10485760"), 350);
    EXPECT_EQ(client.store("STOR big", "x").opening, 554);
}

} // namespace
} // namespace tirval::tests
