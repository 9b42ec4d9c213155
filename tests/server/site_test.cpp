/*
 * SITE and MFMT over a session's control connection, with storages that can set times and modes and
 * with one that cannot.
 */
#include "session_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tirval::tests {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class Site : public SessionTest {
  protected:
    Site()
    {
        harness.storage.add_file("/My files/a.txt", "hello");
        harness.storage.add_file("/My files/b c.txt", "hello");
    }

    /* A storage that sets what the plug-in for the service does not. */
    ftp_client_t &able()
    {
        harness.storage.descriptor |=
            TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES | TIRVAL_GFS_DSI_DESCRIPTOR_SETS_MODES;
        return logged_in();
    }

    std::vector<std::string> commands() { return harness.storage.commands(); }
};

TEST_F(Site, HelpListsWhatTheStorageCanServeOneALine)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t help = client.ask("SITE HELP");
    EXPECT_THAT(help.lines,
                ElementsAre("214-SITE commands:", " HELP", " RDEL", " STORATTR", "214 End"));
    EXPECT_EQ(client.ask("HELP SITE").lines, help.lines);
    EXPECT_EQ(client.ask("site help").lines, help.lines);
}

TEST_F(Site, HelpListsTimesAndModesOfAStorageThatSetsThem)
{
    EXPECT_THAT(able().ask("SITE HELP").lines,
                ElementsAre("214-SITE commands:", " HELP", " RDEL", " STORATTR", " UTIME", " CHMOD",
                            "214 End"));
}

TEST_F(Site, UnknownWordsAndMissingArgumentsAreRefused)
{
    ftp_client_t &client = able();
    EXPECT_EQ(client.code_of("SITE"), 501);
    EXPECT_EQ(client.code_of("SITE EXEC ls"), 500);
    EXPECT_EQ(client.code_of("SITE RDEL"), 501);
    EXPECT_EQ(client.code_of("SITE UTIME"), 501);
    EXPECT_EQ(client.code_of("SITE UTIME 20240115123000"), 501);
    EXPECT_EQ(client.code_of("SITE CHMOD 644"), 501);
    EXPECT_THAT(commands(), IsEmpty());
}

/* ---- STORATTR ------------------------------------------------------------------------------ */

TEST_F(Site, StorattrTakesAModificationTime)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("SITE STORATTR modify=20240115123000;"), 200);
    EXPECT_EQ(client.code_of("SITE STORATTR Modify=20240115123000.25"), 200);
    EXPECT_EQ(client.code_of("SITE STORATTR"), 200);
}

TEST_F(Site, StorattrNamesWhatItDoesNotKnow)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("SITE STORATTR modify=20240115123000;colour=red;").last(),
              "504 Unknown attribute: colour");
}

TEST_F(Site, StorattrRefusesWhatIsNoTime)
{
    ftp_client_t &client = logged_in();
    for (const char *value :
         {"", "20230229000000", "20240230000000", "202401151230", "yesterday", "20240115123000x",
          "20240115123000.", "19691231235959", "20241301000000", "20240100000000", "20240115240000",
          "20240115126000", "20240115123061"}) {
        EXPECT_EQ(client.code_of("SITE STORATTR modify=" + std::string(value) + ";"), 501) << value;
    }
    EXPECT_EQ(client.code_of("SITE STORATTR modify"), 501);
    EXPECT_EQ(client.code_of("SITE STORATTR modify=20240229235960;"), 200);
}

/* ---- MFMT and UTIME ------------------------------------------------------------------------ */

TEST_F(Site, TimesAreNotOfferedWithAStorageThatSetsNone)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("MFMT 20240115123000 a.txt"), 502);
    EXPECT_EQ(client.code_of("SITE UTIME 20240115123000 a.txt"), 504);
    EXPECT_EQ(client.code_of("SITE CHMOD 644 a.txt"), 504);
    EXPECT_THAT(client.ask("FEAT").lines, Not(Contains(" MFMT")));
    EXPECT_THAT(client.ask("HELP").lines, Not(Contains(" MFMT")));
    EXPECT_EQ(client.ask("HELP MFMT").last(), "214 MFMT is not offered.");
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Site, MfmtSetsTheTimeAndEchoesIt)
{
    ftp_client_t &client = able();
    EXPECT_THAT(client.ask("FEAT").lines, Contains(" MFMT"));
    EXPECT_THAT(client.ask("HELP").lines, Contains(" MFMT"));
    EXPECT_EQ(client.ask("MFMT 20240115123000 b c.txt").last(),
              "213 Modify=20240115123000; b c.txt");
    EXPECT_EQ(client.ask("MFMT 20240229000000.5 a.txt").last(), "213 Modify=20240229000000; a.txt");
    EXPECT_THAT(commands(), ElementsAre("UTIME 1705321800 /My files/b c.txt",
                                        "UTIME 1709164800 /My files/a.txt"));
}

TEST_F(Site, MfmtRefusesWhatIsNoTimeOrNoFile)
{
    ftp_client_t &client = able();
    EXPECT_EQ(client.ask("MFMT 20230229000000 a.txt").last(), "501 Invalid time value.");
    EXPECT_EQ(client.code_of("MFMT 202401151230 a.txt"), 501);
    EXPECT_EQ(client.code_of("MFMT 20240115123000"), 501);
    EXPECT_EQ(client.code_of("MFMT 20240115123000 nothing"), 550);
}

TEST_F(Site, UtimeTakesBothForms)
{
    ftp_client_t &client = able();
    EXPECT_EQ(client.code_of("SITE UTIME 20240115123001 a.txt"), 200);
    EXPECT_EQ(client.code_of("SITE UTIME 202401151230 b c.txt"), 200);
    EXPECT_EQ(client.code_of("SITE UTIME b c.txt 20200101000000 20240115123002 20200101000000 UTC"),
              200);
    EXPECT_EQ(client.code_of("SITE UTIME a.txt 202001010000 202401151230 202001010000 UTC"), 200);
    EXPECT_EQ(client.code_of("SITE UTIME a.txt 20200101000000 20240230000000 20200101000000 UTC"),
              501);
    EXPECT_THAT(commands(), ElementsAre("UTIME 1705321801 /My files/a.txt",
                                        "UTIME 1705321800 /My files/b c.txt",
                                        "UTIME 1705321802 /My files/b c.txt",
                                        "UTIME 1705321800 /My files/a.txt"));
}

/* ---- CHMOD --------------------------------------------------------------------------------- */

TEST_F(Site, ChmodTakesOctalModes)
{
    ftp_client_t &client = able();
    EXPECT_EQ(client.code_of("SITE CHMOD 644 a.txt"), 200);
    EXPECT_EQ(client.code_of("SITE CHMOD 0755 b c.txt"), 200);
    for (const char *mode : {"648", "u+x", "64", "07777x", "77777"}) {
        EXPECT_EQ(client.code_of("SITE CHMOD " + std::string(mode) + " a.txt"), 501) << mode;
    }
    EXPECT_EQ(client.code_of("SITE CHMOD 644 nothing"), 550);
    EXPECT_THAT(commands(), ElementsAre("CHMOD 420 /My files/a.txt", "CHMOD 493 /My files/b c.txt",
                                        "CHMOD 420 /My files/nothing"));
}

TEST_F(Site, AChangeOfATimeIsToldToTheUsersOtherSessions)
{
    ftp_client_t &client = able();
    auto watching = harness.start_logged_in(2);
    const int before = harness.storage.shared->starts;
    EXPECT_EQ(client.code_of("MFMT 20240115123000 a.txt"), 213);
    EXPECT_EQ(watching->client.code_of("MDTM a.txt"), 213);
    EXPECT_EQ(harness.storage.shared->starts, before + 1);
}

} // namespace
} // namespace tirval::tests
