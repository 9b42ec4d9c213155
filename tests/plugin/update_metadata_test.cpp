// Changing an item's name and modification time with one request.
#include "command_support.h"
#include "library_seams.h"
#include "refusing_port.h"

namespace {

using testing::IsEmpty;

const char modtime[] = "2021-03-04T05:06:07Z";

class UpdateMetadata : public command_test {
  protected:
    ~UpdateMetadata() override { tirval_onedrive_path_info_free(&entry); }

    tirval_result_t update(const char *time, const char *name, bool wanted = true,
                           const char *path = "/My files/a")
    {
        tirval_onedrive_path_info_free(&entry);
        entry = {};
        return tirval_i_onedrive_update_metadata(session.handle(), path, time, name,
                                                 wanted ? &entry : nullptr);
    }
    void answer_item(const std::string &name = "b")
    {
        peer.answer(http_peer_answer::json(200, graph::file(name, "id-a")));
    }

    tirval_onedrive_path_info_t entry = {};
};

/* ---- The request ---- */

TEST_F(UpdateMetadata, ANameIsSentInOnePatchAndTheNewDescriptionReturned)
{
    answer_item();
    debug_trace trace;
    EXPECT_EQ(update(nullptr, "b"), TIRVAL_SUCCESS);
    ASSERT_EQ(peer.requests().size(), 1U);
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.method, "PATCH");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/a");
    EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.body, R"({"name": "b"})");
    EXPECT_STREQ(entry.name, "b");
    EXPECT_STREQ(entry.id, "id-a");
    EXPECT_EQ(entry.size, 5U);
    EXPECT_EQ(trace.count("API CALL!\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_update_metadata: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_update_metadata: exit: result=TIRVAL_SUCCESS\n"), 1U);
}

TEST_F(UpdateMetadata, ATimeIsSentAsTheServicesOwnMember)
{
    answer_item();
    EXPECT_EQ(update(modtime, nullptr), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().at(0).body,
              R"({"fileSystemInfo": {"lastModifiedDateTime": "2021-03-04T05:06:07Z"}})");
}

TEST_F(UpdateMetadata, BothAreSentTheNameFirst)
{
    answer_item();
    EXPECT_EQ(update(modtime, "b"), TIRVAL_SUCCESS);
    EXPECT_EQ(
        peer.requests().at(0).body,
        R"({"name": "b", "fileSystemInfo": {"lastModifiedDateTime": "2021-03-04T05:06:07Z"}})");
}

TEST_F(UpdateMetadata, NeitherIsAnEmptyObject)
{
    answer_item();
    EXPECT_EQ(update(nullptr, nullptr), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().at(0).body, "{}");
}

TEST_F(UpdateMetadata, WithoutAnEntryNothingIsParsed)
{
    peer.answer(http_peer_answer::json(200, R"({"lastModifiedDateTime":"yesterday"})"));
    debug_trace trace;
    EXPECT_EQ(update(modtime, nullptr, false), TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count("tirval_onedrive_object_info_parse: enter\n"), 0U);
}

TEST_F(UpdateMetadata, WithoutAnEntryTheAnswerMustStillBeJson)
{
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(is_malloc_error(update(modtime, nullptr, false)));
}

TEST_F(UpdateMetadata, ThePathIsAddressedAsForReading)
{
    session.enter("/Shared", "Doc", "item-1", TIRVAL_ONEDRIVE_FOLDER, "drive-9");
    session.enter("/Shared libraries", "Site", "site-1");
    session.enter("/Shared libraries/Site", "Lib", "drive-2");
    const std::pair<const char *, const char *> targets[] = {
        {"/My files", "/v1.0/me/drive/root"},
        {"/My files/a b#c", "/v1.0/me/drive/root:/a%20b%23c"},
        {"/Shared", "/v1.0/me/drive/sharedWithMe"},
        {"/Shared/Doc", "/v1.0/drives/drive-9/items/item-1"},
        {"/Shared/Doc/x", "/v1.0/drives/drive-9/items/item-1:/x"},
        {"/Shared libraries/Site", "/v1.0/sites/site-1/drives"},
        {"/Shared libraries/Site/Lib", "/v1.0/drives/drive-2/root"},
        {"/Shared libraries/Site/Lib/x", "/v1.0/drives/drive-2/root:/x"},
    };
    for (const auto &[path, target] : targets) {
        answer_item();
        EXPECT_EQ(update(nullptr, "b", true, path), TIRVAL_SUCCESS) << path;
        EXPECT_EQ(peer.requests().back().target, target);
    }
}

/* ---- Failures ---- */

TEST_F(UpdateMetadata, APathOutsideOfTheVirtualFoldersIsRefused)
{
    const tirval_result_t result = update(nullptr, "b", true, "/");
    EXPECT_EQ(reply_of(result).tag, "PERMISSION_DENIED");
    EXPECT_EQ(info_of(result, "OneDrive-Error"), "Invalid path for a write operation.");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(UpdateMetadata, ATextThatIsNotUtf8IsRefusedWithoutARequest)
{
    const ftp_reply refused = {553, "INVALID_PATH_NAME", "GridFTP-Path: <Invalid Name>"};
    EXPECT_EQ(reply_of(update(nullptr, "\xff")), refused);
    EXPECT_EQ(reply_of(update("\xff", nullptr)), refused);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(UpdateMetadata, TextsThatCannotBeFormedAreSystemErrorsWithoutARequest)
{
    for (int call : {1, 2}) { // the URI, the token's header
        failing_text = call;
        EXPECT_TRUE(is_malloc_error(update(nullptr, "b"))) << call;
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(UpdateMetadata, AnAnswerThatCannotBeParsedIsAGenericError)
{
    peer.answer(
        http_peer_answer::json(200, R"({"name":"b","id":"1","lastModifiedDateTime":"yesterday"})"));
    const tirval_result_t result = update(nullptr, "b");
    EXPECT_TRUE(is_generic_error(result, "Failed info_parse!"));
    EXPECT_EQ(place_of(result).source, "command");
    EXPECT_EQ(place_of(result).function, "tirval_i_onedrive_update_metadata");
    EXPECT_STREQ(entry.name, "b") << "what was read stays, for the caller to free";
}

class UpdateMetadataFault : public UpdateMetadata, public testing::WithParamInterface<fault> {};

TEST_P(UpdateMetadataFault, IsTheResult)
{
    script(GetParam(), GetParam().attempts);
    const tirval_result_t result = update(modtime, "b");
    EXPECT_NE(result, TIRVAL_SUCCESS);
    EXPECT_EQ(reply_of(result).code, GetParam().code) << message_of(result);
    EXPECT_EQ(reply_of(result).tag, GetParam().tag);
    EXPECT_THAT(message_of(result), testing::HasSubstr(GetParam().text));
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
    EXPECT_EQ(entry.name, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Faults, UpdateMetadataFault, testing::ValuesIn(json_faults()), fault_name);

class UpdateMetadataRepeated : public UpdateMetadata, public testing::WithParamInterface<fault> {};

TEST_P(UpdateMetadataRepeated, RequestSucceedsWithTheSameBody)
{
    script(GetParam(), 1);
    answer_item();
    EXPECT_EQ(update(modtime, "b"), TIRVAL_SUCCESS);
    const auto all = peer.requests();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].body, all[1].body);
    EXPECT_STREQ(entry.name, "b");
}

INSTANTIATE_TEST_SUITE_P(Faults, UpdateMetadataRepeated, testing::ValuesIn(repeated(json_faults())),
                         fault_name);

TEST_F(UpdateMetadata, TheServicesWaitIsKeptBeforeTheSecondAttempt)
{
    tirval_i_onedrive_max_delay = 25;
    peer.answer(http_peer_answer::complete(503, "", {{"Retry-After", "120"}}));
    answer_item();
    EXPECT_EQ(update(modtime, nullptr), TIRVAL_SUCCESS);
    EXPECT_THAT(sleeps, testing::ElementsAre(25));
}

TEST_F(UpdateMetadata, ARefusedConnectionIsTriedTwice)
{
    const refusing_port nobody;
    const std::string url = nobody.url("");
    tirval_i_onedrive_graph_url = url.c_str();
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_THAT(message_of(update(modtime, nullptr)),
                testing::HasSubstr("no connection could be made"));
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
}

} // namespace
