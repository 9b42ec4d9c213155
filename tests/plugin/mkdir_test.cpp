// Making a folder: what is checked before, the request, and what the cache holds afterwards.
#include "command_support.h"
#include "library_seams.h"
#include "refusing_port.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class MakeFolder : public command_test {
  protected:
    bool make(const std::string &path)
    {
        const bool made = host.command(TIRVAL_GFS_CMD_MKD, path);
        EXPECT_EQ(host.response, path) << "whatever the result";
        EXPECT_EQ(host.answers, 1);
        return made;
    }
    void answer_made(const std::string &name = "d", const std::string &id = "id-d")
    {
        peer.answer(http_peer_answer::json(201, graph::folder(name, id)));
    }
};

/* ---- The request ---- */

TEST_F(MakeFolder, SendsOnePostToTheParentsChildren)
{
    answer_made();
    debug_trace trace;
    EXPECT_TRUE(make("/My files/d")) << host.answer.text;
    ASSERT_EQ(peer.requests().size(), 1U);
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root/children");
    EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.body,
              R"({"name": "d", "folder": {}, "@microsoft.graph.conflictBehavior": "fail"})");
    EXPECT_EQ(trace.count("API CALL!\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_mkdir: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_mkdir: exit: result=TIRVAL_SUCCESS\n"), 1U);
}

TEST_F(MakeFolder, EntersTheFolderIntoTheCache)
{
    answer_made();
    ASSERT_TRUE(make("/My files/d"));
    const auto *const record = session.cached("/My files/d");
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->id, "id-d");
    EXPECT_EQ(record->type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_STREQ(record->parent_id, "drive-1");
    EXPECT_TRUE(host.stat("/My files/d"));
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(MakeFolder, EntersTheFolderUnderTheNameThatTheServiceGaveIt)
{
    answer_made("D");
    ASSERT_TRUE(make("/My files/d"));
    EXPECT_TRUE(is_cached("/My files/D"));
    EXPECT_FALSE(is_cached("/My files/d"));
}

TEST_F(MakeFolder, AnUnlistedParentIsListedFirst)
{
    session.enter("/My files", "p", "P");
    peer.answer(graph::page({graph::file("other")}));
    answer_made();
    ASSERT_TRUE(make("/My files/p/d")) << host.answer.text;
    EXPECT_EQ(graph::path(peer.requests().at(0)), "/v1.0/me/drive/root:/p:/children");
    EXPECT_EQ(peer.requests().at(1).method, "POST");
    EXPECT_EQ(peer.requests().at(1).target, "/v1.0/me/drive/root:/p:/children");
    EXPECT_TRUE(is_cached("/My files/p/d"));
}

TEST_F(MakeFolder, ANameIsSentAsItStands)
{
    session.enter("/My files", "p 1", "P", TIRVAL_ONEDRIVE_FOLDER, "drive-1", true);
    answer_made();
    EXPECT_TRUE(make("/My files/p 1/q\" %20#ü")) << host.answer.text;
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/p%201:/children");
    EXPECT_THAT(request.body, StartsWith(R"({"name": "q\" %20#ü", "folder")"));
}

TEST_F(MakeFolder, WorksInSharedFoldersAndLibraries)
{
    session.enter("/Shared", "Doc", "item-1", TIRVAL_ONEDRIVE_FOLDER, "drive-9", true);
    session.enter("/Shared libraries", "Site", "site-1");
    session.enter("/Shared libraries/Site", "Lib", "drive-2", TIRVAL_ONEDRIVE_FOLDER, "0", true);
    session.mark_listed("/Shared");
    session.mark_listed("/Shared libraries");
    answer_made();
    answer_made();
    EXPECT_TRUE(make("/Shared/Doc/d")) << host.answer.text;
    EXPECT_TRUE(make("/Shared libraries/Site/Lib/d")) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).target, "/v1.0/drives/drive-9/items/item-1/children");
    EXPECT_EQ(peer.requests().at(1).target, "/v1.0/drives/drive-2/root/children");
}

/* ---- What is checked before ---- */

TEST_F(MakeFolder, NothingIsMadeInTheVirtualRoot)
{
    for (const char *path : {"/x", "/My files", "/"}) {
        debug_trace trace;
        EXPECT_FALSE(make(path));
        EXPECT_EQ(host.answer.code, 550);
        EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
        EXPECT_EQ(host.answer.message, "");
        EXPECT_THAT(host.answer.text, HasSubstr("OneDrive-Path: \"/\"\nOneDrive-Error: \"Invalid "
                                                "path for a write operation.\""));
        EXPECT_EQ(trace.count("tirval_onedrive_path_resolve: enter\n"), 0U) << "before anything";
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

using MakeFolderDeathTest = MakeFolder;

TEST_F(MakeFolderDeathTest, APathWithoutASlashIsAProgrammingError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    tirval_gfs_command_info_t info = {};
    info.pathname = "d";
    EXPECT_DEATH(host.in_command([&](tirval_gfs_operation_t op) {
        tirval_i_onedrive_mkdir(op, &info, session.handle());
    }),
                 "name != NULL");
}

TEST_F(MakeFolder, AFolderThatIsThereIsSuccessWithoutARequest)
{
    session.enter("/My files", "d", "id-d");
    EXPECT_TRUE(make("/My files/d")) << host.answer.text;
    EXPECT_THAT(peer.requests(), IsEmpty());
    EXPECT_STREQ(session.cached("/My files/d")->id, "id-d");
}

TEST_F(MakeFolder, AFileThatIsThereIsNamedInTheAnswer)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
    EXPECT_FALSE(make("/My files/f"));
    EXPECT_EQ(host.answer.code, 553);
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/f");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(MakeFolder, AnItemOfUnknownKindIsNoFolder)
{
    session.enter("/My files", "n", "N", TIRVAL_ONEDRIVE_UNKNOWN);
    EXPECT_FALSE(make("/My files/n"));
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/n");
}

TEST_F(MakeFolder, AParentThatIsMissingOrAFileIsNamedInTheAnswer)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE, "drive-1", true);
    for (const char *parent : {"/My files/f", "/My files/none", "/My files/none/deep"}) {
        EXPECT_FALSE(make(std::string(parent) + "/d"));
        EXPECT_EQ(host.answer.code, 553);
        EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
        EXPECT_EQ(host.answer.message, std::string("GridFTP-Path: ") + parent);
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(MakeFolder, AFileAsParentIsListedAndThenRefused)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
    peer.answer(graph::page({}));
    EXPECT_FALSE(make("/My files/f/d"));
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/f");
    EXPECT_THAT(requests("POST"), IsEmpty());
}

TEST_F(MakeFolder, ATrailingSlashMakesTheFolderItselfTheParent)
{
    session.enter("/My files", "d", "id-d");
    EXPECT_FALSE(make("/My files/d/"));
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY") << "a resolved folder has no parent then";
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/d");
}

TEST_F(MakeFolder, WhereNothingCanBeWrittenAlsoAnExistingFolderIsRefused)
{
    session.enter("/Shared", "Doc", "item-1");
    session.enter("/Shared libraries", "Site", "site-1");
    session.enter("/Shared libraries/Site", "Lib", "drive-2");
    const std::pair<const char *, const char *> refusals[] = {
        {"/Shared/Doc", "Can not write to the root of /Shared."},
        {"/Shared libraries/Site", "Invalid path for a write operation."},
        {"/Shared libraries/Site/Lib", "Invalid path for a write operation."},
    };
    for (const auto &[path, reason] : refusals) {
        EXPECT_FALSE(make(path));
        EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED") << path;
        EXPECT_THAT(host.answer.text, HasSubstr(reason));
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(MakeFolder, ANameThatIsNotUtf8IsRefusedWithoutARequest)
{
    EXPECT_FALSE(make("/My files/\xff\xfe"));
    EXPECT_EQ(host.answer.code, 553);
    EXPECT_EQ(host.answer.tag, "INVALID_PATH_NAME");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: <Invalid Name>");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(MakeFolder, TextsThatCannotBeFormedAreSystemErrorsWithoutARequest)
{
    for (int call : {2, 3}) { // behind the text that the path is not there: URI, token's header
        failing_text = call;
        EXPECT_FALSE(make("/My files/d"));
        EXPECT_THAT(host.answer.text, StartsWith("System error in malloc")) << call;
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

/* ---- Faults ---- */

class MakeFolderListing : public MakeFolder, public testing::WithParamInterface<fault> {};

TEST_P(MakeFolderListing, FaultCountsAsAMissingParent)
{
    session.enter("/My files", "p", "P");
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(make("/My files/p/d"));
    EXPECT_EQ(host.answer.code, 553) << host.answer.text;
    EXPECT_EQ(host.answer.tag, "NOT_A_DIRECTORY");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/p");
    EXPECT_FALSE(session.cached("/My files/p")->listed);
    EXPECT_THAT(requests("POST"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Faults, MakeFolderListing, testing::ValuesIn(json_faults()), fault_name);

class MakeFolderPost : public MakeFolder, public testing::WithParamInterface<fault> {};

TEST_P(MakeFolderPost, FaultIsTheAnswerAndLeavesTheCache)
{
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(make("/My files/d"));
    expect_failure(GetParam());
    EXPECT_FALSE(is_cached("/My files/d"));
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
}

INSTANTIATE_TEST_SUITE_P(Faults, MakeFolderPost, testing::ValuesIn(json_faults()), fault_name);

class MakeFolderRepeated : public MakeFolder, public testing::WithParamInterface<fault> {};

TEST_P(MakeFolderRepeated, PostSucceedsWithTheSameBody)
{
    script(GetParam(), 1);
    answer_made();
    EXPECT_TRUE(make("/My files/d")) << host.answer.text;
    const auto all = peer.requests();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].body, all[1].body);
    EXPECT_TRUE(is_cached("/My files/d"));
}

INSTANTIATE_TEST_SUITE_P(Faults, MakeFolderRepeated, testing::ValuesIn(repeated(json_faults())),
                         fault_name);

TEST_F(MakeFolder, TheServicesWaitIsKeptBeforeTheSecondAttempt)
{
    tirval_i_onedrive_max_delay = 25;
    peer.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    answer_made();
    EXPECT_TRUE(make("/My files/d")) << host.answer.text;
    EXPECT_THAT(sleeps, testing::ElementsAre(7));
}

TEST_F(MakeFolder, ARefusedConnectionIsTriedTwice)
{
    const refusing_port nobody;
    const std::string url = nobody.url("");
    tirval_i_onedrive_graph_url = url.c_str();
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_FALSE(make("/My files/d"));
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_THAT(host.answer.text, HasSubstr("no connection could be made"));
    EXPECT_FALSE(is_cached("/My files/d"));
}

TEST_F(MakeFolder, AConflictThatTheServiceNamesIsToldByThatName)
{
    peer.answer(http_peer_answer::json(409, R"({"error":{"code":"item_name_in_use","message":"m"},
                 "context_info":{"conflicts":[{"name":"d"}]}})"));
    EXPECT_FALSE(make("/My files/d"));
    EXPECT_EQ(host.answer.tag, "PATH_EXISTS");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: d");
}

TEST_F(MakeFolder, AnAnswerThatCannotBeParsedIsAGenericError)
{
    peer.answer(http_peer_answer::json(
        201, R"({"name":"d","id":"1","folder":{},"lastModifiedDateTime":"yesterday"})"));
    EXPECT_FALSE(make("/My files/d"));
    EXPECT_THAT(host.answer.text, HasSubstr("Failed info_parse!"));
    EXPECT_EQ(host.answer.type, 6);
    EXPECT_FALSE(is_cached("/My files/d"));
}

TEST_F(MakeFolder, AnAnswerThatNamesNoItemIsRefusedByTheCache)
{
    for (const char *answer : {R"({})", R"([])", R"({"name":"d"})", R"({"id":"1"})"}) {
        peer.answer(http_peer_answer::json(201, answer));
        EXPECT_FALSE(make("/My files/d"));
        EXPECT_THAT(host.answer.text, HasSubstr("Failed cache update!")) << answer;
        EXPECT_EQ(host.answer.type, 6);
    }
    EXPECT_FALSE(is_cached("/My files/d"));
}

TEST_F(MakeFolder, ErrorsAboutAnswersTellTheirPlace)
{
    peer.answer(http_peer_answer::json(201, "{}"));
    EXPECT_FALSE(make("/My files/d"));
    EXPECT_EQ(answered_place.source, "command");
    EXPECT_EQ(answered_place.function, "tirval_i_onedrive_mkdir");
    EXPECT_GT(answered_place.line, 0);
}

TEST_F(MakeFolder, AFailureIsWrittenWithItsChain)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(make("/x"));
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("tirval_i_onedrive_mkdir: exit: result=0x[0-9a-f]+ "
                                       "message=(.|\n)*Invalid path for a write operation"));
}

} // namespace
