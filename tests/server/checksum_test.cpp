/*
 * CKSM, HASH and RANG over a session's control connection, and what becomes of them when the
 * storage or the client breaks off.
 */
#include "session_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tirval::tests {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr const char *sha256_of_abc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char *md5_of_nothing = "d41d8cd98f00b204e9800998ecf8427e";

class Checksum : public SessionTest {
  protected:
    Checksum()
    {
        harness.storage.descriptor |= TIRVAL_GFS_DSI_DESCRIPTOR_CHECKSUMS;
        harness.storage.checksum_support =
            "QuickXORHex:1;SHA1:15;SHA256:15;SHA512:15;MD5:15;Dropbox:15;ADLER32:15;";
        /* What the storage answers cannot be mistaken for something computed. */
        harness.storage.add_file("/My files/twenty", "01234567890123456789").checksums = {
            {"MD5", "storage-md5"},
            {"SHA1", "storage-sha1"},
            {"SHA256", "storage-sha256"},
            {"ADLER32", "storage-adler32"}};
        harness.storage.add_file("/My files/x y.bin", "xxabcyyy");
        harness.storage.add_file("/My files/empty", "").checksums = {{"SHA256", "storage-empty"}};
        harness.storage.add_folder("/My files/docs");
        harness.storage.add_generated("/My files/large", large_size);
    }

    void TearDown() override
    {
        if (session) {
            expect_orderly_end();
        }
    }

    fake_node_t &node(const std::string &path) { return harness.storage.nodes.at(path); }

    static constexpr std::int64_t large_size = 5'200'000;
};

/* ---- CKSM: who answers --------------------------------------------------------------------- */

TEST_F(Checksum, OfAWholeFileIsTheStoragesToAnswer)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").text(), "213 storage-md5\n");
    EXPECT_EQ(shared().checksum_offset, 0);
    EXPECT_EQ(shared().checksum_length, -1);
    EXPECT_EQ(shared().sends, 0);
}

TEST_F(Checksum, OfALengthThatIsTheFilesSizeIsOfTheWholeFile)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM ADLER32 0 20 twenty").text(), "213 storage-adler32\n");
    EXPECT_EQ(shared().checksum_offset, 0);
    EXPECT_EQ(shared().checksum_length, -1);
    EXPECT_EQ(shared().sends, 0);
}

TEST_F(Checksum, OfAPartIsComputedHereAndNeverAskedOfTheStorage)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 0 19 twenty").text(), "213 b61fd0bcc895bb16c784558934586d97\n");
    EXPECT_EQ(shared().send_offset, 0);
    EXPECT_EQ(shared().send_length, 19);
    EXPECT_EQ(client.ask("CKSM SHA256 2 3 x y.bin").text(),
              std::string("213 ") + sha256_of_abc + "\n");
    EXPECT_EQ(shared().send_offset, 2);
    EXPECT_EQ(shared().send_length, 3);
    EXPECT_EQ(client.ask("CKSM MD5 18 2 twenty").text(), "213 7647966b7343c29048673252e490f736\n");
    EXPECT_EQ(shared().sends, 3);
    EXPECT_EQ(shared().checksums, 0);
}

TEST_F(Checksum, OfATailIsComputedHereToTheEndOfTheFile)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 18 -1 twenty").text(), "213 7647966b7343c29048673252e490f736\n");
    EXPECT_EQ(shared().send_offset, 18);
    EXPECT_EQ(shared().send_length, -1);
    EXPECT_EQ(shared().checksums, 0);
}

TEST_F(Checksum, OfNoBytesNeedsNoRequestForContent)
{
    ftp_client_t &client = logged_in();
    const std::string expected = std::string("213 ") + md5_of_nothing + "\n";
    EXPECT_EQ(client.ask("CKSM MD5 0 0 twenty").text(), expected);
    EXPECT_EQ(client.ask("CKSM MD5 7 0 twenty").text(), expected);
    EXPECT_EQ(client.ask("CKSM MD5 20 0 twenty").text(), expected);
    EXPECT_EQ(client.ask("CKSM MD5 20 -1 twenty").text(), expected);
    EXPECT_EQ(client.ask("CKSM MD5 0 0 empty").text(), expected);
    EXPECT_EQ(shared().sends, 0);
    EXPECT_EQ(shared().checksums, 0);
}

TEST_F(Checksum, OfAWholeEmptyFileIsTheStoragesToAnswer)
{
    EXPECT_EQ(logged_in().ask("CKSM SHA256 0 -1 empty").text(), "213 storage-empty\n");
    EXPECT_EQ(shared().checksums, 1);
}

TEST_F(Checksum, OfAPartIsRightForEachAlgorithm)
{
    /* Of 5,000,000 bytes from 100,001 on, computed outside this project. */
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"MD5", "3fff34e0b42f32beaa2441288e57c918"},
        {"SHA1", "419caacd909695a88cf5874b1f32781cab0590d6"},
        {"SHA256", "001528140b77255d74a0781a3dd9adc5ffc101e81923d66db55941d5baa90009"},
        {"SHA512", "5f908d7e9cb2ec42c50c89fb1a7e662775e5ab293d0440ae85fd1257a8c683f5"
                   "a3ae9c920b3b495996b6b9cd6f3bc1a45568dc204df75a32413441821f978ec5"},
        {"ADLER32", "50f3b373"},
        {"QuickXORHex", "456b706d392b3546784a77655977774e7a78576a784b76695132513d"},
        {"Dropbox", "377650a53d4395ebb46cdb95da3b5f1b559d5b1875d04c0528ef1b6095af6714"}};
    const std::vector<std::pair<std::string, std::string>> of_abc = {
        {"md5", "900150983cd24fb0d6963f7d28e17f72"},
        {"sha1", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"sha256", sha256_of_abc},
        {"sha512", "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                   "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        {"adler32", "024d0127"},
        {"quickxorhex", "5952444447414141414141414141414141774141414141414141413d"},
        {"dropbox", "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"}};
    ftp_client_t &client = logged_in();
    for (const auto &[name, text] : expected) {
        EXPECT_EQ(client.ask("CKSM " + name + " 100001 5000000 large").text(), "213 " + text + "\n")
            << name;
    }
    for (const auto &[name, text] : of_abc) {
        EXPECT_EQ(client.ask("CKSM " + name + " 2 3 x y.bin").text(), "213 " + text + "\n") << name;
    }
    EXPECT_EQ(shared().checksums, 0);
}

/* ---- CKSM: refusals ------------------------------------------------------------------------ */

TEST_F(Checksum, WithBadArgumentsIsRefusedWithoutAskingTheStorage)
{
    ftp_client_t &client = logged_in();
    for (const char *command :
         {"CKSM", "CKSM MD5", "CKSM MD5 0", "CKSM MD5 0 -1", "CKSM MD5 0 -1 ",
          "CKSM MD5 -1 5 twenty", "CKSM MD5 0 -2 twenty", "CKSM MD5 x 5 twenty",
          "CKSM MD5 0 5x twenty", "CKSM MD5  0 5 twenty", "CKSM MD5 0 9223372036854775808 twenty",
          "CKSM MD5 99999999999999999999 1 twenty"}) {
        EXPECT_EQ(client.code_of(command), 501) << command;
    }
    EXPECT_EQ(client.ask("CKSM CRC32 0 -1 twenty").text(), "504 Unknown algorithm: CRC32\n");
    EXPECT_EQ(client.code_of("CKSM SHA-256 0 -1 twenty"), 504);
    EXPECT_EQ(client.code_of("CKSM MD5: 0 -1 twenty"), 504);
    EXPECT_EQ(shared().stats, 0);
}

TEST_F(Checksum, OfBytesThatTheFileDoesNotHaveIsRefused)
{
    ftp_client_t &client = logged_in();
    const std::string refusal = "550 Range beyond the end of the file: /My files/twenty\n";
    for (const char *range : {"21 0", "21 -1", "0 21", "20 1", "10 11", "1 9223372036854775807",
                              "9223372036854775807 9223372036854775807"}) {
        EXPECT_EQ(client.ask(std::string("CKSM MD5 ") + range + " twenty").text(), refusal);
    }
    EXPECT_EQ(shared().sends, 0);
    EXPECT_EQ(shared().checksums, 0);
}

TEST_F(Checksum, OfWhatIsNoFileOrMissingIsRefused)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 docs").text(), "550 Not a plain file: /My files/docs\n");
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 nowhere").text(),
              "550-GridFTP-Reason: PATH_NOT_FOUND\n"
              "550-GridFTP-Path: \"/My files/nowhere\"\n"
              "550 No such file or directory: /My files/nowhere\n");
    EXPECT_EQ(shared().checksums, 0);
}

TEST_F(Checksum, IsNotOfferedWhereTheStorageHasNone)
{
    harness.storage.descriptor &= ~TIRVAL_GFS_DSI_DESCRIPTOR_CHECKSUMS;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("CKSM MD5 0 -1 twenty"), 502);
    EXPECT_EQ(client.code_of("HASH twenty"), 502);
    EXPECT_EQ(client.code_of("OPTS HASH"), 501);
    EXPECT_THAT(client.ask("FEAT").text(), AllOf(Not(HasSubstr("CKSM")), Not(HasSubstr("HASH"))));
}

TEST_F(Checksum, ThatTheServerCannotComputeIs504ForAPartOnly)
{
    harness.storage.checksum_support = "Special:1;";
    node("/My files/twenty").checksums = {{"Special", "storage-special"}};
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM special 0 -1 twenty").text(), "213 storage-special\n");
    EXPECT_EQ(client.code_of("CKSM Special 1 2 twenty"), 504);
    EXPECT_EQ(shared().sends, 0);
}

/* ---- CKSM: failures ------------------------------------------------------------------------ */

TEST_F(Checksum, OfADownloadThatFailsIsAnErrorAndNoDigest)
{
    node("/My files/large").send = fake_send_t::fail_after_some;
    ftp_client_t &client = logged_in();
    const ftp_reply_t broken = client.ask("CKSM MD5 1 5000 large");
    EXPECT_EQ(broken.code, 550);
    EXPECT_THAT(broken.text(), AllOf(HasSubstr("the service broke off"), Not(HasSubstr("213"))));
    EXPECT_EQ(client.code_of("NOOP"), 200);
}

TEST_F(Checksum, OfADownloadThatTheStorageRepeatsCountsEachByteOnce)
{
    node("/My files/large").send = fake_send_t::repeated;
    EXPECT_EQ(logged_in().ask("CKSM MD5 100001 5000000 large").text(),
              "213 3fff34e0b42f32beaa2441288e57c918\n");
}

TEST_F(Checksum, OfADownloadThatCountsAsDoneButWasNotIsAnError)
{
    node("/My files/large").send = fake_send_t::short_of_announced;
    node("/My files/twenty").send = fake_send_t::success_without_begin;
    node("/My files/x y.bin").send = fake_send_t::fail_before_begin;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("CKSM MD5 1 5000 large"), 451);
    EXPECT_EQ(client.code_of("CKSM MD5 1 5 twenty"), 451);
    EXPECT_EQ(client.code_of("CKSM MD5 1 2 x y.bin"), 550);
}

TEST_F(Checksum, OfAFileThatHasBecomeShorterIsAnErrorAndTheNextLookIsAFreshOne)
{
    node("/My files/twenty").size_told = 30;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.ask("CKSM MD5 10 15 twenty").text(),
              "451 The file ended before the range did: /My files/twenty\n");
    EXPECT_EQ(client.code_of("SIZE twenty"), 550) << "in TYPE A";
    EXPECT_EQ(client.code_of("MDTM twenty"), 213);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Checksum, ThatTheStorageRefusesOrDoesNotGiveIsAnError)
{
    node("/My files/large").checksum = fake_checksum_t::fail;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 large").text(),
              "451-GridFTP-Reason: TOO_BUSY\n"
              "451-busy\n"
              "451 The storage service is busy, try again later: /My files/large\n");
    EXPECT_EQ(client.ask("CKSM SHA512 0 -1 twenty").text(),
              "451 Storage gave no checksum: /My files/twenty\n");
}

TEST_F(Checksum, OfADownloadThatTheServiceRefusedIsAnErrorAndIsForgotten)
{
    node("/My files/twenty").checksum_statuses = {412, 302, 206};
    ftp_client_t &client = logged_in();
    const std::string refused =
        "451 The storage service did not deliver the file's content: /My files/twenty\n";
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").text(), refused);
    EXPECT_EQ(client.ask("HASH twenty").text(), refused);
    EXPECT_EQ(shared().starts, 2);
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").last(), "213 storage-md5");
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").last(), "213 storage-md5");
    EXPECT_EQ(shared().starts, 3);
}

TEST_F(Checksum, OfARefusedDownloadIsForgottenThoughAStoreWaitsToBeContinued)
{
    node("/My files/twenty").checksum_statuses = {410};
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("ALLO 26214400"), 200);
    EXPECT_THAT(client.store("STOR big", std::string(15'000'000, 'x')).final_text,
                HasSubstr("GridFTP-Restart"));
    EXPECT_EQ(client.code_of("CKSM MD5 0 -1 twenty"), 451);
    EXPECT_EQ(shared().lists, 1);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").last(), "213 storage-md5");
}

TEST_F(Checksum, StopsAtAbor)
{
    node("/My files/large").send = fake_send_t::until_cancelled;
    node("/My files/large").checksum = fake_checksum_t::silent_until_cancelled;
    node("/My files/twenty").send = fake_send_t::silent_until_cancelled;
    ftp_client_t &client = logged_in();
    for (const char *command :
         {"CKSM MD5 0 -1 large", "CKSM MD5 1 5000000 large", "CKSM MD5 1 5 twenty", "HASH large"}) {
        client.send_line(command);
        EXPECT_TRUE(client.is_quiet_for(100)) << command;
        EXPECT_EQ(client.ask("ABOR").code, 426) << command;
        EXPECT_EQ(client.read_reply().code, 226) << command;
        EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").last(), "213 storage-md5") << command;
    }
}

/* ---- Status markers ------------------------------------------------------------------------ */

void expect_marker(const ftp_reply_t &marker, const std::string &bytes)
{
    EXPECT_THAT(marker.lines,
                ElementsAre("113-Status Marker", MatchesRegex(" Timestamp: [0-9]+\\.[0-9]"),
                            MatchesRegex(" Bytes Processed: " + bytes), "113 End."));
}

TEST_F(Checksum, SendsStatusMarkersOnlyWhenTheClientHasAskedForThem)
{
    node("/My files/twenty").checksum_progress = {5, 12};
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").code, 213);
    EXPECT_EQ(client.ask("OPTS CKSM markers=5;").code, 200);
    expect_marker(client.ask("CKSM MD5 0 -1 twenty"), "5");
    expect_marker(client.read_reply(), "12");
    EXPECT_EQ(client.read_reply().text(), "213 storage-md5\n");
    EXPECT_EQ(client.ask("HASH twenty").code, 213) << "which has no markers";
    EXPECT_EQ(client.ask("OPTS CKSM markers=0;").code, 200);
    EXPECT_EQ(client.ask("CKSM MD5 0 -1 twenty").code, 213);
}

TEST_F(Checksum, SendsStatusMarkersOfADownload)
{
    node("/My files/large").send = fake_send_t::deaf_sleep;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("OPTS CKSM Markers=1").code, 200);
    expect_marker(client.ask("CKSM MD5 100001 5000000 large"), "[1-9][0-9]*");
    ftp_reply_t last = client.read_reply();
    while (last.code == 113) {
        last = client.read_reply();
    }
    EXPECT_EQ(last.text(), "213 3fff34e0b42f32beaa2441288e57c918\n");
    EXPECT_EQ(client.ask("OPTS CKSM markers=0;").code, 200);
    EXPECT_EQ(client.ask("CKSM MD5 100001 5000000 large").code, 213);
}

TEST_F(Checksum, WithMarkersIsNoTransferForStat)
{
    node("/My files/twenty").checksum_progress = {5};
    node("/My files/twenty").checksum = fake_checksum_t::wait;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("OPTS CKSM markers=5;").code, 200);
    expect_marker(client.ask("CKSM MD5 0 -1 twenty"), "5");
    client.send_line("STAT");
    EXPECT_TRUE(client.is_quiet_for(100));
    shared().proceed = true;
    EXPECT_EQ(client.read_reply().text(), "213 storage-md5\n");
    EXPECT_THAT(client.read_reply().lines, Contains(" No transfer running"));
}

TEST_F(Checksum, TakesAReasonableMarkerIntervalOnly)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("OPTS CKSM markers=300;"), 200);
    for (const char *setting : {"", " ", " markers", " markers=", " markers=301;", " markers=-1;",
                                " markers=1;x", " MD5", " marker=1;", " markers x=1;"}) {
        EXPECT_EQ(client.code_of(std::string("OPTS CKSM") + setting), 501) << setting;
    }
}

/* ---- HASH ---------------------------------------------------------------------------------- */

TEST_F(Checksum, HashTellsTheAlgorithmTheRangeAndTheNameAsGiven)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 SHA-256 0-19 storage-sha256 twenty\n");
    EXPECT_EQ(client.ask("HASH ../My files//twenty").text(),
              "213 SHA-256 0-19 storage-sha256 ../My files//twenty\n");
    EXPECT_EQ(client.ask("HASH empty").text(), "213 SHA-256 0-0 storage-empty empty\n");
    EXPECT_EQ(shared().sends, 0);
}

TEST_F(Checksum, HashUsesTheChosenAlgorithm)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("OPTS HASH").text(), "200 SHA-256\n");
    EXPECT_EQ(client.ask("OPTS HASH sha-1").text(), "200 SHA-1\n");
    EXPECT_EQ(client.ask("OPTS HASH").text(), "200 SHA-1\n");
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 SHA-1 0-19 storage-sha1 twenty\n");
    for (const char *unknown : {"SHA1", "CRC32", "SHA-1 ", "*"}) {
        EXPECT_EQ(client.ask(std::string("OPTS HASH ") + unknown).code, 501) << unknown;
    }
    EXPECT_EQ(client.ask("OPTS HASH").text(), "200 SHA-1\n");
    EXPECT_EQ(client.ask("OPTS HASH adler32").text(), "200 ADLER32\n");
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 ADLER32 0-19 storage-adler32 twenty\n");
}

TEST_F(Checksum, HashOfARangeIsComputedHereAndTheRangeIsUsedOnce)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("RANG 2 4"), 350);
    EXPECT_EQ(client.ask("HASH x y.bin").text(),
              std::string("213 SHA-256 2-4 ") + sha256_of_abc + " x y.bin\n");
    EXPECT_EQ(shared().send_offset, 2);
    EXPECT_EQ(shared().send_length, 3);
    EXPECT_EQ(shared().checksums, 0);
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 SHA-256 0-19 storage-sha256 twenty\n");
    EXPECT_EQ(client.code_of("RANG 2 4"), 350);
    EXPECT_EQ(client.code_of("HASH nowhere"), 550);
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 SHA-256 0-19 storage-sha256 twenty\n");
}

TEST_F(Checksum, HashOfARangeTellsWhatExistsOfIt)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("OPTS HASH MD5"), 200);
    EXPECT_EQ(client.code_of("RANG 18 9223372036854775807"), 350);
    EXPECT_EQ(client.ask("HASH twenty").text(),
              "213 MD5 18-19 7647966b7343c29048673252e490f736 twenty\n");
    EXPECT_EQ(client.code_of("RANG 0 1000"), 350);
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 MD5 0-19 storage-md5 twenty\n");
    EXPECT_EQ(client.code_of("RANG 20 30"), 350);
    EXPECT_EQ(client.ask("HASH twenty").text(),
              "550 Range beyond the end of the file: /My files/twenty\n");
    EXPECT_EQ(client.code_of("RANG 0 0"), 350);
    EXPECT_EQ(client.code_of("HASH empty"), 550);
}

TEST_F(Checksum, HashRefusesFoldersMissingFilesAndRangesOfText)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("HASH docs").text(), "553 Not a plain file: /My files/docs\n");
    EXPECT_EQ(client.code_of("HASH nowhere"), 550);
    EXPECT_EQ(client.code_of("HASH"), 501);
    EXPECT_EQ(client.code_of("RANG 2 4"), 350);
    EXPECT_EQ(client.ask("HASH twenty").text(), "504 RANG needs TYPE I.\n");
    EXPECT_EQ(client.code_of("HASH twenty"), 213);
}

TEST_F(Checksum, HashTakesQuotesOffOnlyWhenNoNameHasThem)
{
    harness.storage.add_file("/My files/\"quoted\"", "1").checksums = {{"SHA256", "with"}};
    harness.storage.add_file("/My files/quoted", "22").checksums = {{"SHA256", "without"}};
    harness.storage.add_file("/My files/a b", "333").checksums = {{"SHA256", "blank"}};
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("HASH \"quoted\"").text(), "213 SHA-256 0-0 with \"quoted\"\n");
    EXPECT_EQ(client.ask("HASH \"a b\"").text(), "213 SHA-256 0-2 blank \"a b\"\n");
    EXPECT_EQ(client.ask("HASH \"nowhere\"").last(),
              "550 No such file or directory: /My files/\"nowhere\"");
    EXPECT_EQ(client.code_of("HASH \"\""), 550);
}

TEST_F(Checksum, HashSendsLongNamesWholeAndControlBytesAsQuestionMarks)
{
    std::string folder = "/My files";
    for (int n = 0; n < 8; ++n) {
        folder += "/" + std::string(200, static_cast<char>('a' + n));
        harness.storage.add_folder(folder);
    }
    const std::string path = folder + "/a\tb";
    harness.storage.add_file(path, "1").checksums = {{"SHA256", "long"}};
    EXPECT_EQ(logged_in().ask("HASH " + path).text(), "213 SHA-256 0-0 long " + folder + "/a?b\n");
}

TEST_F(Checksum, HashUsesAnotherAlgorithmWhereTheStorageHasNoSha256)
{
    harness.storage.checksum_support = "Special:1;MD5:2";
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("HASH twenty").text(), "213 MD5 0-19 storage-md5 twenty\n");
    EXPECT_THAT(client.ask("FEAT").lines,
                AllOf(Contains(" CKSM Special:1;MD5:2"), Contains(" HASH MD5*;Special;")));
}

/* ---- What is announced --------------------------------------------------------------------- */

TEST_F(Checksum, FeaturesAreToldAfterTheLogInThatMadeThemKnown)
{
    session = harness.start();
    ftp_client_t &client = session->client;
    EXPECT_EQ(client.read_reply().code, 220);
    EXPECT_THAT(client.ask("FEAT").text(),
                AllOf(Not(HasSubstr("CKSM")), Not(HasSubstr("HASH")), HasSubstr("RANG STREAM")));
    EXPECT_EQ(client.code_of("OPTS HASH"), 530);
    EXPECT_EQ(client.code_of("OPTS HASH SHA-1"), 530);
    EXPECT_EQ(client.code_of("HASH twenty"), 530);
    EXPECT_EQ(client.code_of("CKSM MD5 0 -1 twenty"), 530);
    EXPECT_EQ(client.code_of("RANG 0 1"), 530);
    EXPECT_EQ(client.code_of("USER anna"), 331);
    EXPECT_EQ(client.code_of("PASS secret"), 230);
    EXPECT_THAT(
        client.ask("FEAT").lines,
        AllOf(Contains(
                  " CKSM QuickXORHex:1;SHA1:15;SHA256:15;SHA512:15;MD5:15;Dropbox:15;ADLER32:15;"),
              Contains(" HASH SHA-256*;SHA-512;SHA-1;MD5;QuickXORHex;Dropbox;ADLER32;"),
              Contains(" RANG STREAM")));
    EXPECT_EQ(client.code_of("OPTS HASH MD5"), 200);
    EXPECT_THAT(client.ask("FEAT").lines,
                Contains(" HASH SHA-256;SHA-512;SHA-1;MD5*;QuickXORHex;Dropbox;ADLER32;"));
}

TEST_F(Checksum, AStorageThatAnnouncesNothingHasNoneToOffer)
{
    harness.storage.checksum_support = "";
    ftp_client_t &client = logged_in();
    EXPECT_THAT(client.ask("FEAT").text(), AllOf(Not(HasSubstr("CKSM")), Not(HasSubstr("HASH"))));
    EXPECT_EQ(client.code_of("CKSM MD5 0 -1 twenty"), 504);
    EXPECT_EQ(client.code_of("HASH twenty"), 502);
    EXPECT_EQ(client.code_of("OPTS HASH"), 501);
}

/* ---- RANG ---------------------------------------------------------------------------------- */

TEST_F(Checksum, RangDeliversTheBytesOfTheRangeThatExist)
{
    struct row_t {
        const char *range;
        const char *data;
    };
    ftp_client_t &client = binary();
    for (const row_t &row :
         {row_t{"0 0", "0"}, row_t{"3 7", "34567"}, row_t{"18 100", "89"}, row_t{"19 19", "9"},
          row_t{"20 20", ""}, row_t{"50 60", ""}, row_t{"0 19", "01234567890123456789"},
          row_t{"10 9223372036854775807", "0123456789"}}) {
        EXPECT_EQ(client.code_of(std::string("RANG ") + row.range), 350);
        const auto result = client.transfer("RETR twenty");
        EXPECT_EQ(result.data, row.data) << row.range;
        EXPECT_EQ(result.final, 226) << row.range;
        EXPECT_THAT(result.opening_text, Not(HasSubstr("bytes)"))) << row.range;
    }
    EXPECT_EQ(client.code_of("RANG 0 5"), 350);
    EXPECT_EQ(client.transfer("RETR empty").data, "");
}

TEST_F(Checksum, RangAsksTheStorageForNoMoreThanTheRange)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("RANG 100001 100010"), 350);
    EXPECT_EQ(client.transfer("RETR large").data.size(), 10U);
    EXPECT_EQ(shared().send_offset, 100001);
    EXPECT_EQ(shared().send_length, 10);
}

TEST_F(Checksum, RangHoldsForOneTransferAndIsResetByOneZero)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data, "34567");
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.code_of("RETR nowhere"), 425);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.code_of("RANG 1 0"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.transfer("LIST").final, 226);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
}

TEST_F(Checksum, OfRestAndRangTheLaterOneHolds)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("REST 15"), 350);
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data, "34567");
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.code_of("REST 15"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data, "56789");
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.code_of("REST 0"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
    EXPECT_EQ(client.code_of("REST 15"), 350);
    EXPECT_EQ(client.code_of("RANG 1 0"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
}

TEST_F(Checksum, RangRefusesWhatIsNoRangeAndKeepsTheOneBefore)
{
    ftp_client_t &client = binary();
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    for (const char *argument : {"", " 5", " 5 4", " 2 1", " x 4", " 4 x", " -1 4", " 1  4",
                                 " 1 4 5", " 0 -1", " 0 99999999999999999999"}) {
        EXPECT_EQ(client.code_of(std::string("RANG") + argument), 501) << argument;
    }
    EXPECT_EQ(client.transfer("RETR twenty").data, "34567");
}

TEST_F(Checksum, RangBeforeAStoreIsRefusedOnce)
{
    ftp_client_t &client = binary();
    for (const char *command : {"STOR twenty", "APPE new", "STOU new"}) {
        EXPECT_EQ(client.code_of("RANG 0 5"), 350);
        const auto refused = client.transfer(command);
        EXPECT_EQ(refused.opening_text, "554 A range cannot be stored.\n") << command;
    }
    EXPECT_EQ(shared().recvs, 0);
    EXPECT_EQ(client.transfer("RETR twenty").data, "01234567890123456789");
}

TEST_F(Checksum, RangOfTextIsRefused)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RANG 3 7"), 350);
    EXPECT_EQ(client.transfer("RETR twenty").final, 501);
    EXPECT_EQ(client.transfer("RETR twenty").data.size(), 20U);
}

TEST_F(Checksum, RangIsRefusedWhereTheStorageHasNoRanges)
{
    harness.storage.descriptor &= ~TIRVAL_GFS_DSI_DESCRIPTOR_RANGES;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RANG 0 1"), 504);
    EXPECT_EQ(client.code_of("RANG 1 0"), 350);
    EXPECT_THAT(client.ask("FEAT").text(), Not(HasSubstr("RANG")));
}

} // namespace
} // namespace tirval::tests
