// Renaming: both paths are looked up, one request changes the name, and the cache moves the record.
#include "command_support.h"
#include "refusing_port.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class Rename : public command_test {
  protected:
    Rename()
    {
        session.enter("/My files", "a", "id-a", TIRVAL_ONEDRIVE_FILE);
        session.enter("/My files", "p", "P", TIRVAL_ONEDRIVE_FOLDER, "drive-1", true);
    }
    bool rename(const std::string &from, const std::string &to)
    {
        const bool renamed = host.rename(from, to);
        EXPECT_EQ(host.response, std::nullopt);
        EXPECT_EQ(host.answers, 1);
        return renamed;
    }
    void answer_item(const std::string &name, const std::string &id = "id-a")
    {
        peer.answer(http_peer_answer::json(200, graph::file(name, id)));
    }
};

/* ---- The request and the cache ---- */

TEST_F(Rename, SendsOnePatchWithTheNameAloneAndMovesTheRecord)
{
    answer_item("b");
    debug_trace trace;
    EXPECT_TRUE(rename("/My files/a", "/My files/b")) << host.answer.text;
    ASSERT_EQ(peer.requests().size(), 1U);
    EXPECT_EQ(peer.requests().at(0).method, "PATCH");
    EXPECT_EQ(peer.requests().at(0).target, "/v1.0/me/drive/root:/a");
    EXPECT_EQ(peer.requests().at(0).body, R"({"name": "b"})");
    EXPECT_FALSE(is_cached("/My files/a"));
    ASSERT_TRUE(is_cached("/My files/b"));
    EXPECT_STREQ(session.cached("/My files/b")->id, "id-a");
    EXPECT_EQ(trace.count("tirval_i_onedrive_rename: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_rename: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_FALSE(host.stat("/My files/a"));
    EXPECT_TRUE(host.stat("/My files/b"));
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(Rename, IntoAnotherFolderSendsOnlyTheNameAndTheCacheFollowsThePath)
{
    answer_item("b");
    EXPECT_TRUE(rename("/My files/a", "/My files/p/b")) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).target, "/v1.0/me/drive/root:/a");
    EXPECT_EQ(peer.requests().at(0).body, R"({"name": "b"})");
    EXPECT_FALSE(is_cached("/My files/a"));
    EXPECT_TRUE(is_cached("/My files/p/b"));
}

TEST_F(Rename, TheRecordTakesTheNameThatTheServiceGave)
{
    answer_item("B");
    EXPECT_TRUE(rename("/My files/a", "/My files/b"));
    EXPECT_TRUE(is_cached("/My files/B"));
    EXPECT_FALSE(is_cached("/My files/b"));
}

TEST_F(Rename, UnlistedFoldersOfBothPathsAreListedFirst)
{
    session.enter("/My files", "q", "Q");
    session.enter("/My files", "r", "R");
    peer.answer(graph::page({graph::file("x")}));
    peer.answer(graph::page({graph::file("y")}));
    answer_item("z");
    EXPECT_TRUE(rename("/My files/q/x", "/My files/r/z")) << host.answer.text;
    const auto all = peer.requests();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(graph::path(all[0]), "/v1.0/me/drive/root:/q:/children");
    EXPECT_EQ(graph::path(all[1]), "/v1.0/me/drive/root:/r:/children");
    EXPECT_EQ(all[2].target, "/v1.0/me/drive/root:/q/x");
    EXPECT_FALSE(is_cached("/My files/q/x"));
    EXPECT_TRUE(is_cached("/My files/r/z"));
}

TEST_F(Rename, AFolderIsRenamedLikeAFile)
{
    peer.answer(http_peer_answer::json(200, graph::folder("r", "P")));
    EXPECT_TRUE(rename("/My files/p", "/My files/r")) << host.answer.text;
    EXPECT_EQ(session.cached("/My files/r")->type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_FALSE(session.cached("/My files/r")->listed) << "its children have new paths";
    EXPECT_FALSE(is_cached("/My files/p"));
}

TEST_F(Rename, AnOldPathWithATrailingSlashForgetsTheFoldersRecord)
{
    peer.answer(http_peer_answer::json(200, graph::folder("r", "P")));
    EXPECT_TRUE(rename("/My files/p/", "/My files/r")) << host.answer.text;
    EXPECT_FALSE(is_cached("/My files/p"));
}

/* ---- Records that go meanwhile ---- */

TEST_F(Rename, TheOldRecordMayBeReplacedWhileTheNewPathIsLookedUp)
{
    const auto listing = [&](const std::string &element) { peer.answer(graph::page({element})); };
    listing(graph::folder("s", "S"));
    ASSERT_TRUE(host.list("/My files/p"));
    listing(graph::file("a", "id-a"));
    ASSERT_TRUE(host.stat("/My files/p/s/a"));
    listing(graph::folder("s", "S"));
    ASSERT_TRUE(host.list("/My files/p"));
    ASSERT_TRUE(is_cached("/My files/p/s/a"));
    ASSERT_FALSE(session.cached("/My files/p/s")->listed) << "so that it is listed once more";

    listing(graph::file("a", "id-a"));
    answer_item("b");
    EXPECT_TRUE(rename("/My files/p/s/a", "/My files/p/s/b")) << host.answer.text;
    EXPECT_EQ(peer.requests().size(), 5U);
    EXPECT_FALSE(is_cached("/My files/p/s/a"));
    ASSERT_TRUE(is_cached("/My files/p/s/b"));
    EXPECT_TRUE(session.cached("/My files/p/s")->listed);
}

TEST_F(Rename, AnAnswerWithTheOldNameLeavesNeitherPathInTheCache)
{
    answer_item("a");
    EXPECT_TRUE(rename("/My files/a", "/My files/b")) << host.answer.text;
    EXPECT_FALSE(is_cached("/My files/a")) << "the new record took the old one's place, and went";
    EXPECT_FALSE(is_cached("/My files/b"));
}

TEST_F(Rename, AFolderMayBeNamedAsItsOwnChild)
{
    peer.answer(http_peer_answer::json(200, graph::folder("r", "P")));
    EXPECT_TRUE(rename("/My files/p", "/My files/p/r")) << host.answer.text;
    EXPECT_FALSE(is_cached("/My files/p"));
    EXPECT_TRUE(is_cached("/My files/p/r"));
}

TEST_F(Rename, SharedItemsOfTwoFoldersAreFoundTogether)
{
    peer.answer(graph::page({R"({"remoteItem":)" + graph::folder("X", "item-x") + "}",
                             R"({"remoteItem":)" + graph::folder("Y", "item-y") + "}"}));
    peer.answer(graph::page({graph::file("a")}));
    peer.answer(graph::page({}));
    answer_item("b");
    EXPECT_TRUE(rename("/Shared/X/a", "/Shared/Y/b")) << host.answer.text;
    EXPECT_EQ(peer.requests().back().target, "/v1.0/drives/drive-1/items/item-x:/a");
    EXPECT_TRUE(is_cached("/Shared/Y/b"));
    EXPECT_FALSE(is_cached("/Shared/X/a"));
}

/* ---- What is checked before ---- */

TEST_F(Rename, AnOldPathThatDoesNotExistIsTheAnswer)
{
    EXPECT_FALSE(rename("/My files/none", "/x")) << "it is looked up first";
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: \"/My files/none\"");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Rename, NothingIsMovedIntoTheVirtualRoot)
{
    for (const char *to : {"/b", "/My files", "/"}) {
        EXPECT_FALSE(rename("/My files/a", to));
        EXPECT_EQ(host.answer.code, 550);
        EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
        EXPECT_THAT(host.answer.text, HasSubstr("OneDrive-Path: \"/\"\nOneDrive-Error: \"Invalid "
                                                "path for a write operation.\""));
    }
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Rename, ANewParentThatIsMissingOrAFileIsNamedInTheAnswer)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE, "drive-1", true);
    for (const char *parent : {"/My files/f", "/My files/none", "/My files/none/deep"}) {
        EXPECT_FALSE(rename("/My files/a", std::string(parent) + "/b"));
        EXPECT_EQ(host.answer.code, 553);
        EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
        EXPECT_EQ(host.answer.message, std::string("GridFTP-Path: ") + parent);
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

using RenameDeathTest = Rename;

TEST_F(RenameDeathTest, ANewPathWithoutASlashIsAProgrammingError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    tirval_gfs_command_info_t info = {};
    info.from_pathname = "/My files/a";
    info.pathname = "b";
    EXPECT_DEATH(host.in_command([&](tirval_gfs_operation_t op) {
        tirval_i_onedrive_rename(op, &info, session.handle());
    }),
                 "name != NULL");
}

TEST_F(Rename, NothingIsOverwritten)
{
    for (const char *to : {"/My files/p", "/My files/a"}) {
        EXPECT_FALSE(rename("/My files/a", to));
        EXPECT_EQ(host.answer.code, 553);
        EXPECT_EQ(host.answer.tag, "PATH_EXISTS");
        EXPECT_EQ(host.answer.message, std::string("GridFTP-Path: ") + to);
    }
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Rename, ANameThatIsNotUtf8IsRefusedWithoutARequest)
{
    EXPECT_FALSE(rename("/My files/a", "/My files/\xff"));
    EXPECT_EQ(host.answer.tag, "INVALID_PATH_NAME");
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_THAT(peer.requests(), IsEmpty());
}

/* ---- Faults ---- */

class RenameOldListing : public Rename, public testing::WithParamInterface<fault> {};

TEST_P(RenameOldListing, FaultIsTheAnswer)
{
    session.enter("/My files", "q", "Q");
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(rename("/My files/q/x", "/My files/b"));
    expect_failure(GetParam());
    EXPECT_THAT(requests("PATCH"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Faults, RenameOldListing, testing::ValuesIn(json_faults()), fault_name);

class RenameNewListing : public Rename, public testing::WithParamInterface<fault> {};

TEST_P(RenameNewListing, FaultCountsAsAMissingParent)
{
    session.enter("/My files", "q", "Q");
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(rename("/My files/a", "/My files/q/b"));
    EXPECT_EQ(host.answer.code, 553) << host.answer.text;
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/q");
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_THAT(requests("PATCH"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Faults, RenameNewListing, testing::ValuesIn(json_faults()), fault_name);

class RenamePatch : public Rename, public testing::WithParamInterface<fault> {};

TEST_P(RenamePatch, FaultIsTheAnswerAndTheCacheStays)
{
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(rename("/My files/a", "/My files/b"));
    expect_failure(GetParam());
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_FALSE(is_cached("/My files/b"));
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
}

INSTANTIATE_TEST_SUITE_P(Faults, RenamePatch, testing::ValuesIn(json_faults()), fault_name);

class RenameRepeated : public Rename, public testing::WithParamInterface<fault> {};

TEST_P(RenameRepeated, RequestSucceeds)
{
    script(GetParam(), 1);
    answer_item("b");
    EXPECT_TRUE(rename("/My files/a", "/My files/b")) << host.answer.text;
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_TRUE(is_cached("/My files/b"));
    EXPECT_FALSE(is_cached("/My files/a"));
}

INSTANTIATE_TEST_SUITE_P(Faults, RenameRepeated, testing::ValuesIn(repeated(json_faults())),
                         fault_name);

TEST_F(Rename, ARefusedConnectionIsTriedTwice)
{
    const refusing_port nobody;
    const std::string url = nobody.url("");
    tirval_i_onedrive_graph_url = url.c_str();
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_FALSE(rename("/My files/a", "/My files/b"));
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_THAT(host.answer.text, HasSubstr("no connection could be made"));
    EXPECT_TRUE(is_cached("/My files/a"));
}

TEST_F(Rename, AnAnswerThatCannotBeParsedIsAGenericErrorOfTheUpdate)
{
    peer.answer(
        http_peer_answer::json(200, R"({"name":"b","id":"1","lastModifiedDateTime":"yesterday"})"));
    EXPECT_FALSE(rename("/My files/a", "/My files/b"));
    EXPECT_THAT(host.answer.text, HasSubstr("Failed info_parse!"));
    EXPECT_EQ(host.answer.type, 6);
    EXPECT_EQ(answered_place.function, "tirval_i_onedrive_update_metadata");
    EXPECT_TRUE(is_cached("/My files/a"));
}

TEST_F(Rename, AnAnswerThatNamesNoItemLeavesTheOldRecord)
{
    peer.answer(http_peer_answer::json(200, R"({"name":"b"})"));
    EXPECT_FALSE(rename("/My files/a", "/My files/b"));
    EXPECT_THAT(host.answer.text, HasSubstr("Failed cache update!"));
    EXPECT_EQ(host.answer.type, 6);
    EXPECT_EQ(answered_place.source, "command");
    EXPECT_EQ(answered_place.function, "tirval_i_onedrive_rename");
    EXPECT_TRUE(is_cached("/My files/a"));
    EXPECT_FALSE(is_cached("/My files/b"));
}

TEST_F(Rename, AFailureIsWrittenWithItsChain)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(rename("/My files/a", "/b"));
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("tirval_i_onedrive_rename: exit: result=0x[0-9a-f]+ "
                                       "message=(.|\n)*Invalid path for a write operation"));
}

} // namespace
