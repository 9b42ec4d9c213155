// What the host is told about one item, and about a folder and its children.
#include "graph_script.h"
#include "memory_backend.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/* One answer as the plug-in gave it: the host drops a failed answer's records. */
struct raw_answer {
    bool final_answer = false;
    bool success = false;
    bool has_records = false;
    std::vector<std::string> names; /* "(none)" for a record without a name */
};
std::vector<raw_answer> raw_answers;

void note(bool final_answer, tirval_result_t result,
          const tirval_gridftp_server_control_stat_t *records, int count)
{
    raw_answer answer = {final_answer, result == TIRVAL_SUCCESS, records != nullptr, {}};
    for (int i = 0; records != nullptr && i < count; ++i) {
        answer.names.push_back(records[i].name == nullptr ? "(none)" : records[i].name);
    }
    raw_answers.push_back(answer);
}

} // namespace

/* These stand before the host's own, note the call and hand it on. */
extern "C" TIRVAL_API void
tirval_gridftp_server_finished_stat(tirval_gfs_operation_t op, tirval_result_t result,
                                    const tirval_gridftp_server_control_stat_t *records, int count)
{
    note(true, result, records, count);
    next_definition<decltype(tirval_gridftp_server_finished_stat)>(
        "tirval_gridftp_server_finished_stat")(op, result, records, count);
}
extern "C" TIRVAL_API void
tirval_gridftp_server_finished_stat_partial(tirval_gfs_operation_t op, tirval_result_t result,
                                            const tirval_gridftp_server_control_stat_t *records,
                                            int count)
{
    note(false, result, records, count);
    next_definition<decltype(tirval_gridftp_server_finished_stat_partial)>(
        "tirval_gridftp_server_finished_stat_partial")(op, result, records, count);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Stat : public testing::Test {
  protected:
    Stat() : session(peer.url("")), host(&iface())
    {
        host.session = session.handle();
        raw_answers.clear();
    }

    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.stat_func = tirval_i_onedrive_stat;
        return table;
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        all.reserve(host.records.size());
        for (const auto &record : host.records) {
            all.push_back(record.name.value_or("(none)"));
        }
        return all;
    }
    static std::vector<std::size_t> raw_counts()
    {
        std::vector<std::size_t> counts;
        counts.reserve(raw_answers.size());
        for (const auto &answer : raw_answers) {
            counts.push_back(answer.names.size());
        }
        return counts;
    }

    http_peer peer;
    test_session session;
    memory_backend host;
};

/* ---- One item ---- */

TEST_F(Stat, TheRootAloneIsOneFolder)
{
    ASSERT_TRUE(host.stat("/"));
    EXPECT_THAT(names(), ElementsAre("/"));
    EXPECT_EQ(host.records.at(0).mode, 040700U);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Stat, AnItemIsNamedByItsFullPath)
{
    peer.answer(graph::page({graph::file("a.txt")}));
    ASSERT_TRUE(host.stat("/My files/a.txt")) << host.answer.text;
    EXPECT_THAT(names(), ElementsAre("/My files/a.txt"));
    EXPECT_EQ(host.records.at(0).mode, 0100700U);
    EXPECT_EQ(host.records.at(0).size, 5);
    EXPECT_EQ(host.records.at(0).mtime, 1614834367);
    EXPECT_EQ(host.answers, 1);
}

TEST_F(Stat, AMissingItemIsAnsweredWithOneEmptyRecordAndTheError)
{
    session.mark_listed("/My files");
    EXPECT_FALSE(host.stat("/My files/none"));
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: \"/My files/none\"");
    ASSERT_EQ(raw_answers.size(), 1U);
    EXPECT_THAT(raw_answers[0].names, ElementsAre("(none)"));
}

TEST_F(Stat, ATokenThatCannotBeRenewedIsAnsweredWithoutRecords)
{
    session.handle()->access_token_exp = 0;
    EXPECT_FALSE(host.stat("/"));
    EXPECT_THAT(host.answer.text, testing::HasSubstr("Error loading user credential"));
    ASSERT_EQ(raw_answers.size(), 1U);
    EXPECT_FALSE(raw_answers[0].has_records);
    EXPECT_THAT(raw_answers[0].names, IsEmpty());
}

TEST_F(Stat, ATokenThatNearsItsEndIsRenewedFirst)
{
    session.handle()->access_token_exp = std::time(nullptr) + 10;
    host.config["renew-creds"] =
        R"({"access_token":"token-2","token_expiry":"2099-01-01T00:00:00.000000+00:00",
            "sub":"user-1","tid":"tenant"})";
    peer.answer(graph::page({graph::file("a")}));
    ASSERT_TRUE(host.stat("/My files/a")) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).header("Authorization"), "Bearer token-2");
    std::free(session.handle()->tid); // a session's end leaves it
}

/* ---- The root's children ---- */

TEST_F(Stat, TheRootHoldsTheVirtualFoldersAndMakesNoRequest)
{
    ASSERT_TRUE(host.list("/"));
    EXPECT_THAT(names(), ElementsAre(".", "My files", "Shared", "Shared libraries"));
    for (const auto &record : host.records) {
        EXPECT_EQ(record.mode, 040700U);
        EXPECT_EQ(record.mtime, 0);
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Stat, APersonalAccountHasNoSharedLibraries)
{
    session.handle()->personal = true;
    ASSERT_TRUE(host.list("/"));
    EXPECT_THAT(names(), ElementsAre(".", "My files", "Shared"));
}

TEST_F(Stat, TheRootUnderAnotherSpellingIsStillTheRoot)
{
    ASSERT_TRUE(host.list("//"));
    EXPECT_THAT(names(), ElementsAre(".", "My files", "Shared", "Shared libraries"));
}

/* ---- A folder's children ---- */

TEST_F(Stat, AFolderComesFirstAsADotThenItsChildrenByPlainName)
{
    peer.answer(graph::page({graph::file("a.txt"), graph::folder("d")}));
    ASSERT_TRUE(host.list("/My files")) << host.answer.text;
    EXPECT_THAT(names(), ElementsAre(".", "a.txt", "d"));
    EXPECT_EQ(host.records.at(0).mode, 040700U);
    EXPECT_EQ(host.records.at(1).mode, 0100700U);
    EXPECT_EQ(host.records.at(2).mode, 040700U);
    EXPECT_NE(host.records.at(0).ino, 5381U * 33 + '.') << "its inode is that of the full path";
}

TEST_F(Stat, ChildrenOfUnknownKindAreNotShownButCached)
{
    peer.answer(graph::page({R"({"name":"notebook","id":"n","package":{}})", graph::file("a")}));
    ASSERT_TRUE(host.list("/My files"));
    EXPECT_THAT(names(), ElementsAre(".", "a"));
    EXPECT_NE(session.cached("/My files/notebook"), nullptr);
}

TEST_F(Stat, TwoHundredAndFiftyChildrenGoOutInBatchesOfAHundred)
{
    peer.answer(graph::page(graph::files(0, 250)));
    ASSERT_TRUE(host.list("/My files")) << host.answer.text;
    EXPECT_THAT(raw_counts(), ElementsAre(100, 100, 51));
    EXPECT_FALSE(raw_answers[0].final_answer);
    EXPECT_FALSE(raw_answers[1].final_answer);
    EXPECT_TRUE(raw_answers[2].final_answer);
    EXPECT_EQ(raw_answers[0].names.front(), ".");
    EXPECT_EQ(raw_answers[0].names.back(), "f98");
    EXPECT_EQ(raw_answers[1].names.front(), "f99");
    EXPECT_EQ(raw_answers[2].names.back(), "f249");
    EXPECT_EQ(host.records.size(), 251U);
}

TEST_F(Stat, AFullBatchLeavesAnEmptyFinalAnswer)
{
    peer.answer(graph::page(graph::files(0, 99)));
    ASSERT_TRUE(host.list("/My files"));
    EXPECT_THAT(raw_counts(), ElementsAre(100, 0));
}

TEST_F(Stat, NinetyEightChildrenNeedNoPartialAnswer)
{
    peer.answer(graph::page(graph::files(0, 98)));
    ASSERT_TRUE(host.list("/My files"));
    EXPECT_THAT(raw_counts(), ElementsAre(99));
}

TEST_F(Stat, AnItemThatCannotBeAddressedIsNotShown)
{
    peer.answer(graph::page({R"({"remoteItem":{"id":"1","folder":{}}})",
                             R"({"remoteItem":{"id":"2","name":"Doc","folder":{}}})"}));
    ASSERT_TRUE(host.list("/Shared"));
    EXPECT_THAT(names(), ElementsAre(".", "Doc"));
}

/* ---- What a listing leaves behind ---- */

TEST_F(Stat, AListedFoldersChildrenNeedNoFurtherRequest)
{
    peer.answer(graph::page({graph::file("a")}));
    ASSERT_TRUE(host.list("/My files"));
    EXPECT_TRUE(session.cached("/My files")->listed);
    EXPECT_TRUE(host.stat("/My files/a"));
    EXPECT_FALSE(host.stat("/My files/b"));
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(Stat, ADirectoryStatAlwaysAsksAgain)
{
    peer.answer(graph::page({graph::file("a")}));
    peer.answer(graph::page({graph::file("b")}));
    ASSERT_TRUE(host.list("/My files"));
    ASSERT_TRUE(host.list("/My files"));
    EXPECT_THAT(names(), ElementsAre(".", "b"));
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(Stat, AFileIsListedLikeAFolder)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
    peer.answer(graph::page({}));
    ASSERT_TRUE(host.list("/My files/f"));
    EXPECT_THAT(names(), ElementsAre("."));
    EXPECT_EQ(graph::path(peer.requests().at(0)), "/v1.0/me/drive/root:/f:/children");
}

/* ---- Failures ---- */

TEST_F(Stat, AMissingFolderIsAnsweredWithoutRecords)
{
    session.mark_listed("/My files");
    EXPECT_FALSE(host.list("/My files/none"));
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    ASSERT_EQ(raw_answers.size(), 1U);
    EXPECT_THAT(raw_answers[0].names, IsEmpty());
}

TEST_F(Stat, AListingThatFailsMidwayKeepsItsBatchesAndEndsWithTheError)
{
    peer.answer(graph::page(graph::files(0, 150), peer.url("/page2")));
    peer.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(host.list("/My files"));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_THAT(raw_counts(), ElementsAre(100, 51));
    EXPECT_TRUE(raw_answers[0].success);
    EXPECT_FALSE(raw_answers[1].success);
    EXPECT_FALSE(session.cached("/My files")->listed);
    EXPECT_EQ(host.answers, 1);
}

TEST_F(Stat, AListingThatFailsAtOnceEndsWithTheFoldersOwnRecord)
{
    peer.answer(http_peer_answer::complete(500));
    EXPECT_FALSE(host.list("/My files"));
    EXPECT_EQ(host.answer.tag, "INTERNAL_ERROR");
    ASSERT_EQ(raw_answers.size(), 1U);
    EXPECT_THAT(raw_answers[0].names, ElementsAre("."));
}

TEST_F(Stat, AnErrorWithAnEmptyMessageIsAnswered)
{
    peer.answer(http_peer_answer::json(400, R"({"error":{"code":"x","message":""}})"));
    EXPECT_FALSE(host.stat("/My files/a"));
    EXPECT_EQ(host.answer.text, "code: \"x\"");
    EXPECT_EQ(host.answers, 1);
}

/* ---- Lines ---- */

TEST_F(Stat, TheEntrysSuccessEndsWithAPlainExitLine)
{
    debug_trace trace;
    ASSERT_TRUE(host.list("/"));
    EXPECT_EQ(trace.count("tirval_i_onedrive_stat: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_stat: exit\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_stat_multi: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_stat_multi: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_stat_entry: enter\n"), 3U);
    ASSERT_TRUE(host.stat("/"));
    EXPECT_EQ(trace.count("tirval_i_onedrive_stat_single: exit: result=TIRVAL_SUCCESS\n"), 1U);
}

TEST_F(Stat, AFailedTokenEndsTheEntryWithAnErrorLine)
{
    session.handle()->access_token_exp = 0;
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(host.stat("/"));
    EXPECT_THAT(trace.text(), testing::ContainsRegex(
                                  "tirval_i_onedrive_stat: exit: result=0x[0-9a-f]+ message="));
}

} // namespace
