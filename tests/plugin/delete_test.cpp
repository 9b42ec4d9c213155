// Deleting: one request whatever the item is, and the cache forgets it.
#include "command_support.h"
#include "library_seams.h"
#include "refusing_port.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Delete : public command_test {
  protected:
    Delete()
    {
        session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
        session.enter("/My files", "d", "D");
    }
    bool remove(const std::string &path, tirval_gfs_command_type_t type = TIRVAL_GFS_CMD_DELE)
    {
        const bool removed = host.command(type, path);
        EXPECT_EQ(host.response, std::nullopt);
        EXPECT_EQ(host.answers, 1);
        return removed;
    }
};

/* ---- The request ---- */

class DeleteCommand : public Delete,
                      public testing::WithParamInterface<tirval_gfs_command_type_t> {};

TEST_P(DeleteCommand, SendsOneRequestWhateverTheItemIs)
{
    for (const char *name : {"f", "d"}) {
        const std::string path = std::string("/My files/") + name;
        peer.answer(http_peer_answer::complete(204));
        EXPECT_TRUE(remove(path, GetParam())) << host.answer.text;
        EXPECT_FALSE(is_cached(path));
        const auto request = peer.requests().back();
        EXPECT_EQ(request.method, "DELETE");
        EXPECT_EQ(request.target, std::string("/v1.0/me/drive/root:/") + name);
        EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
        EXPECT_EQ(request.header_count("Content-Type"), 0U);
        EXPECT_EQ(request.body_size, 0U);
    }
    EXPECT_EQ(peer.requests().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Types, DeleteCommand,
                         testing::Values(TIRVAL_GFS_CMD_RMD, TIRVAL_GFS_CMD_DELE,
                                         TIRVAL_GFS_CMD_SITE_RDEL));

TEST_F(Delete, AFolderWithContentGoesWithASingleRequest)
{
    session.enter("/My files/d", "inner", "I", TIRVAL_ONEDRIVE_FILE);
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(remove("/My files/d", TIRVAL_GFS_CMD_RMD)) << host.answer.text;
    EXPECT_EQ(peer.requests().size(), 1U);
    EXPECT_FALSE(host.stat("/My files/d/inner"));
}

TEST_F(Delete, TheItemIsGoneForTheNextAccess)
{
    peer.answer(http_peer_answer::complete(204));
    ASSERT_TRUE(remove("/My files/f"));
    EXPECT_FALSE(host.stat("/My files/f"));
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_FALSE(remove("/My files/f"));
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(Delete, AnUnlistedFolderIsListedFirst)
{
    peer.answer(graph::page({graph::file("x")}));
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(remove("/My files/d/x")) << host.answer.text;
    EXPECT_EQ(graph::path(peer.requests().at(0)), "/v1.0/me/drive/root:/d:/children");
    EXPECT_EQ(peer.requests().at(1).target, "/v1.0/me/drive/root:/d/x");
    EXPECT_FALSE(is_cached("/My files/d/x"));
    EXPECT_TRUE(is_cached("/My files/d"));
}

TEST_F(Delete, APathWithATrailingSlashForgetsTheFoldersRecord)
{
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(remove("/My files/d/")) << host.answer.text;
    EXPECT_FALSE(is_cached("/My files/d"));
}

TEST_F(Delete, TheAnswersBodyIsNotRead)
{
    peer.answer(http_peer_answer::json(200, "{"));
    EXPECT_TRUE(remove("/My files/f")) << host.answer.text;
}

TEST_F(Delete, ItsLinesGoToTheDebugChannel)
{
    peer.answer(http_peer_answer::complete(204));
    debug_trace trace;
    ASSERT_TRUE(remove("/My files/f"));
    for (const char *function : {"tirval_i_onedrive_delete", "tirval_i_onedrive_delete_object"}) {
        EXPECT_EQ(trace.count(std::string(function) + ": enter\n"), 1U);
        EXPECT_EQ(trace.count(std::string(function) + ": exit: result=TIRVAL_SUCCESS\n"), 1U);
    }
    EXPECT_EQ(trace.count("API CALL!\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 1U);
}

/* ---- What is refused ---- */

TEST_F(Delete, WhatDoesNotExistIsNotAskedFor)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(remove("/My files/none"));
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: \"/My files/none\"");
    EXPECT_THAT(peer.requests(), IsEmpty());
    EXPECT_THAT(
        trace.text(),
        testing::ContainsRegex(
            "tirval_i_onedrive_delete: exit: result=0x[0-9a-f]+ message=(.|\n)*/My files/none"));
}

TEST_F(Delete, WhatMustNotBeWrittenStaysInTheCache)
{
    session.enter("/Shared", "Doc", "item-1");
    session.enter("/Shared libraries", "Site", "site-1");
    session.enter("/Shared libraries/Site", "Lib", "drive-2");
    session.enter("/Shared libraries/Site/Lib", "a", "A", TIRVAL_ONEDRIVE_FILE);
    const char *const invalid = "Invalid path for a write operation.";
    const std::pair<const char *, const char *> refusals[] = {
        {"/", invalid},
        {"/My files", invalid},
        {"/Shared", "Can not write to the root of /Shared."},
        {"/Shared/Doc", "Can not write to the root of /Shared."},
        {"/Shared libraries", invalid},
        {"/Shared libraries/Site", invalid},
        {"/Shared libraries/Site/Lib", invalid},
        {"/Shared libraries/Site/Lib/a", invalid},
    };
    for (const auto &[path, reason] : refusals) {
        EXPECT_FALSE(remove(path));
        EXPECT_EQ(host.answer.code, 550);
        EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED") << path;
        EXPECT_THAT(host.answer.text, HasSubstr(reason));
        EXPECT_TRUE(is_cached(path));
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Delete, InsideASharedFolderItemsAreDeleted)
{
    session.enter("/Shared", "Doc", "item-1", TIRVAL_ONEDRIVE_FOLDER, "drive-9");
    session.enter("/Shared/Doc", "x y", "X", TIRVAL_ONEDRIVE_FILE);
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(remove("/Shared/Doc/x y")) << host.answer.text;
    EXPECT_EQ(peer.requests().at(0).target, "/v1.0/drives/drive-9/items/item-1:/x%20y");
}

TEST_F(Delete, TextsThatCannotBeFormedAreSystemErrorsAndTheCacheStays)
{
    for (int call : {1, 2}) { // the URI, the token's header
        failing_text = call;
        EXPECT_FALSE(remove("/My files/f"));
        EXPECT_THAT(host.answer.text, StartsWith("System error in malloc")) << call;
        EXPECT_TRUE(is_cached("/My files/f"));
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

/* ---- Faults ---- */

class DeleteListing : public Delete, public testing::WithParamInterface<fault> {};

TEST_P(DeleteListing, FaultIsTheAnswerAndNothingIsDeleted)
{
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(remove("/My files/d/x"));
    expect_failure(GetParam());
    EXPECT_TRUE(is_cached("/My files/d"));
    EXPECT_THAT(requests("DELETE"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Faults, DeleteListing, testing::ValuesIn(json_faults()), fault_name);

/* An answered request is never sent again, a lost one is once. */
std::vector<fault> delete_faults()
{
    std::vector<fault> all = common_faults();
    for (fault &row : all) {
        row.attempts = row.code == 0 ? row.attempts : 1;
    }
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n";
    all.push_back({"ResetBehindTheHeaders", cut_off(head), 2, 0, "", "failed\n", false});
    all.push_back({"BodyEndsEarly", http_peer_answer().send(head + "{").close(), 2, 0, "",
                   "broke off", false});
    return all;
}

class DeleteRequest : public Delete, public testing::WithParamInterface<fault> {};

TEST_P(DeleteRequest, FaultIsTheAnswerAndTheCacheForgetsTheItem)
{
    script(GetParam(), GetParam().attempts);
    const bool removed = remove("/My files/f");
    EXPECT_EQ(removed, GetParam().done) << host.answer.text;
    if (!GetParam().done) {
        expect_failure(GetParam());
    }
    EXPECT_FALSE(is_cached("/My files/f"));
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
    EXPECT_THAT(sleeps, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Faults, DeleteRequest, testing::ValuesIn(delete_faults()), fault_name);

class DeleteRepeated : public Delete, public testing::WithParamInterface<fault> {};

TEST_P(DeleteRepeated, RequestSucceeds)
{
    script(GetParam(), 1);
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(remove("/My files/f")) << host.answer.text;
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_FALSE(is_cached("/My files/f"));
}

INSTANTIATE_TEST_SUITE_P(Faults, DeleteRepeated, testing::ValuesIn(repeated(delete_faults())),
                         fault_name);

TEST_F(Delete, AThrottledDeleteIsNotSentAgainHoweverShortTheWait)
{
    for (int status : {429, 503}) {
        session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
        peer.answer(http_peer_answer::complete(status, "", {{"Retry-After", "1"}}));
        EXPECT_FALSE(remove("/My files/f"));
        EXPECT_FALSE(is_cached("/My files/f"));
    }
    EXPECT_EQ(peer.requests().size(), 2U);
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(Delete, AStatusThatIsTakenAsDoneCountsAlsoWithAJsonErrorBehindIt)
{
    for (int status : {410, 412, 423, 451}) {
        session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
        peer.answer(http_peer_answer::json(
            status, R"({"error":{"code":"resourceLocked","message":"open"}})"));
        EXPECT_TRUE(remove("/My files/f")) << status << ": " << host.answer.text;
        EXPECT_FALSE(is_cached("/My files/f"));
    }
}

TEST_F(Delete, TheJsonOfAnErrorIsNotConsulted)
{
    peer.answer(http_peer_answer::json(404, R"({"error":{"code":"trashed","message":"m"}})"));
    EXPECT_FALSE(remove("/My files/f"));
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "");
}

TEST_F(Delete, ARefusedConnectionIsTriedTwiceAndTheCacheForgetsTheItem)
{
    const refusing_port nobody;
    const std::string url = nobody.url("");
    tirval_i_onedrive_graph_url = url.c_str();
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_FALSE(remove("/My files/f"));
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_THAT(host.answer.text, HasSubstr("no connection could be made"));
    EXPECT_FALSE(is_cached("/My files/f"));
}

TEST_F(Delete, AnObjectIsDeletedForOtherOperationsToo)
{
    tirval_gfs_command_info_t info = {};
    info.pathname = "/My files/f";
    peer.answer(http_peer_answer::complete(204));
    EXPECT_EQ(
        tirval_i_onedrive_delete_object(session.handle(), session.cached("/My files/f"), &info),
        TIRVAL_SUCCESS);
    EXPECT_FALSE(is_cached("/My files/f"));
}

} // namespace
