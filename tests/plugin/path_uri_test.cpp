// Which Graph URI a client path becomes, and which paths must not be written.
#include "http_peer.h"
#include "library_seams.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

const std::string invalid_write = "Invalid path for a write operation.";
const std::string shared_root_write = "Can not write to the root of /Shared.";

class PathUri : public testing::Test {
  protected:
    PathUri()
    {
        session.enter("/Shared", "Doc", "item-1", TIRVAL_ONEDRIVE_FOLDER, "owner-drive");
        session.mark_listed("/Shared");
        session.enter("/Shared libraries", "Site", "site-1");
        session.mark_listed("/Shared libraries");
        session.enter("/Shared libraries/Site", "Lib", "lib-drive");
        session.mark_listed("/Shared libraries/Site");
    }

    /* The URI behind the service's base URL, or the reason of the refusal. */
    std::string uri(const char *path, const char *sub, bool is_write)
    {
        const std::string untouched = "untouched";
        char *out = const_cast<char *>(untouched.c_str());
        last = tirval_onedrive_path_to_uri(session.handle(), path, sub, &out, is_write);
        if (last == TIRVAL_SUCCESS) {
            const tirval_i_onedrive_text_t owner(out);
            const std::string whole = out;
            EXPECT_TRUE(whole.starts_with(session.graph_url() + "/v1.0/")) << whole;
            return whole.substr(session.graph_url().size());
        }
        EXPECT_EQ(out, untouched.c_str()) << "a refusal leaves the out-pointer alone";
        return info_of(last, "OneDrive-Error");
    }
    std::string read(const char *path, const char *sub) { return uri(path, sub, false); }
    std::string write(const char *path, const char *sub) { return uri(path, sub, true); }

    test_session session;
    tirval_result_t last = TIRVAL_SUCCESS;
};

TEST_F(PathUri, TheRootIsRefusedForAnyIntent)
{
    EXPECT_EQ(read("/", nullptr), invalid_write);
    EXPECT_EQ(read("/", "/children"), invalid_write);
    EXPECT_EQ(write("/", "/children"), invalid_write);
}

TEST_F(PathUri, APathOutsideOfTheVirtualFoldersIsRefusedForAnyIntent)
{
    EXPECT_EQ(read("/Other", "/content"), invalid_write);
    EXPECT_EQ(write("/Other", nullptr), invalid_write);
}

TEST_F(PathUri, ARefusalIsAPermissionErrorThatNamesPathAndReason)
{
    write("/My files", nullptr);
    EXPECT_EQ(reply_of(last), (ftp_reply{550, "PERMISSION_DENIED", std::nullopt}));
    EXPECT_EQ(info_of(last, "OneDrive-Path"), "/My files");
    EXPECT_EQ(info_of(last, "OneDrive-Error"), invalid_write);
    EXPECT_THAT(message_of(last), testing::HasSubstr("OneDrive-Path: \"/My files\"\n"
                                                     "OneDrive-Error: \"" +
                                                     invalid_write + "\""));
}

TEST_F(PathUri, TheTopOfMyFilesIsTheDriveRoot)
{
    EXPECT_EQ(read("/My files", "/children"), "/v1.0/me/drive/root/children");
    EXPECT_EQ(read("/My files", nullptr), "/v1.0/me/drive/root");
}

TEST_F(PathUri, ChildrenMayBeCreatedInMyFilesButTheFolderItselfNotDeleted)
{
    EXPECT_EQ(write("/My files", "/children"), "/v1.0/me/drive/root/children");
    EXPECT_EQ(write("/My files", nullptr), invalid_write);
}

TEST_F(PathUri, AnItemOfMyFilesIsAddressedByItsPath)
{
    EXPECT_EQ(read("/My files/a/b.txt", nullptr), "/v1.0/me/drive/root:/a/b.txt");
    EXPECT_EQ(read("/My files/a b", "/content"), "/v1.0/me/drive/root:/a%20b:/content");
    EXPECT_EQ(write("/My files/a/b.txt", nullptr), "/v1.0/me/drive/root:/a/b.txt");
    EXPECT_EQ(write("/My files/a", "/createUploadSession"),
              "/v1.0/me/drive/root:/a:/createUploadSession");
}

TEST_F(PathUri, BlankAndNumberSignAndPercentAreEncoded)
{
    EXPECT_EQ(read("/My files/#1 100%", nullptr), "/v1.0/me/drive/root:/%231%20100%25");
}

TEST_F(PathUri, NonAsciiNamesAreEncodedByteByByte)
{
    EXPECT_EQ(read("/My files/\xc3\xbc", nullptr), "/v1.0/me/drive/root:/%C3%BC");
}

TEST_F(PathUri, ANameThatOnlyBeginsLikeMyFilesIsStillFormed)
{
    EXPECT_EQ(read("/My filesX", nullptr), "/v1.0/me/drive/root:X");
}

TEST_F(PathUri, SharedIsListedWithoutTheSubResource)
{
    EXPECT_EQ(read("/Shared", "/children"), "/v1.0/me/drive/sharedWithMe");
    EXPECT_EQ(read("/Shared", nullptr), "/v1.0/me/drive/sharedWithMe");
}

TEST_F(PathUri, SharedItselfIsNeverWritten)
{
    EXPECT_EQ(write("/Shared", "/children"), shared_root_write);
    EXPECT_EQ(write("/Shared", nullptr), shared_root_write);
}

TEST_F(PathUri, ASharedItemIsAddressedInItsOwnersDrive)
{
    EXPECT_EQ(read("/Shared/Doc", "/children"), "/v1.0/drives/owner-drive/items/item-1/children");
    EXPECT_EQ(read("/Shared/Doc", "/content"), "/v1.0/drives/owner-drive/items/item-1/content");
}

TEST_F(PathUri, ASharedItemWithoutSubResourceEndsWithItsId)
{
    EXPECT_EQ(read("/Shared/Doc", nullptr), "/v1.0/drives/owner-drive/items/item-1");
}

TEST_F(PathUri, ASharedItemTakesNewChildrenAndNoOtherWrite)
{
    EXPECT_EQ(write("/Shared/Doc", "/children"), "/v1.0/drives/owner-drive/items/item-1/children");
    EXPECT_EQ(write("/Shared/Doc", "/content"), shared_root_write);
    EXPECT_EQ(write("/Shared/Doc", "/createUploadSession"), shared_root_write);
    EXPECT_EQ(write("/Shared/Doc", nullptr), shared_root_write);
    EXPECT_EQ(info_of(last, "OneDrive-Path"), "/Shared/Doc");
}

TEST_F(PathUri, ThePathBelowASharedItemIsEncodedAndWritable)
{
    EXPECT_EQ(read("/Shared/Doc/x y", "/content"),
              "/v1.0/drives/owner-drive/items/item-1:/x%20y:/content");
    EXPECT_EQ(read("/Shared/Doc/x#y", nullptr), "/v1.0/drives/owner-drive/items/item-1:/x%23y");
    EXPECT_EQ(write("/Shared/Doc/x", "/content"),
              "/v1.0/drives/owner-drive/items/item-1:/x:/content");
    EXPECT_EQ(write("/Shared/Doc/x", nullptr), "/v1.0/drives/owner-drive/items/item-1:/x");
}

TEST_F(PathUri, SharedLibrariesIsTheListOfFollowedSites)
{
    EXPECT_EQ(read("/Shared libraries", "/children"), "/v1.0/me/followedSites");
    EXPECT_EQ(write("/Shared libraries", "/children"), invalid_write);
    EXPECT_EQ(write("/Shared libraries", nullptr), invalid_write);
}

TEST_F(PathUri, ASiteIsTheListOfItsDrives)
{
    EXPECT_EQ(read("/Shared libraries/Site", "/children"), "/v1.0/sites/site-1/drives");
    EXPECT_EQ(read("/Shared libraries/Site", nullptr), "/v1.0/sites/site-1/drives");
    EXPECT_EQ(write("/Shared libraries/Site", "/children"), invalid_write);
    EXPECT_EQ(write("/Shared libraries/Site", nullptr), invalid_write);
}

TEST_F(PathUri, ALibraryIsAddressedByItsDrive)
{
    EXPECT_EQ(read("/Shared libraries/Site/Lib", "/children"),
              "/v1.0/drives/lib-drive/root/children");
    EXPECT_EQ(read("/Shared libraries/Site/Lib", nullptr), "/v1.0/drives/lib-drive/root");
    EXPECT_EQ(write("/Shared libraries/Site/Lib", "/children"),
              "/v1.0/drives/lib-drive/root/children");
}

TEST_F(PathUri, ThePathBelowALibraryIsEncoded)
{
    EXPECT_EQ(read("/Shared libraries/Site/Lib/a b", nullptr),
              "/v1.0/drives/lib-drive/root:/a%20b");
    EXPECT_EQ(read("/Shared libraries/Site/Lib/a/b", "/content"),
              "/v1.0/drives/lib-drive/root:/a/b:/content");
}

TEST_F(PathUri, InALibraryUploadsAreAllowedAndDeletesRefusedEverywhere)
{
    EXPECT_EQ(write("/Shared libraries/Site/Lib/a", "/content"),
              "/v1.0/drives/lib-drive/root:/a:/content");
    EXPECT_EQ(write("/Shared libraries/Site/Lib/a", nullptr), invalid_write);
    EXPECT_EQ(write("/Shared libraries/Site/Lib", nullptr), invalid_write);
}

TEST_F(PathUri, AMissingSharedItemIsTheResolutionsError)
{
    read("/Shared/None/x", "/content");
    EXPECT_EQ(reply_of(last), (ftp_reply{550, "PATH_NOT_FOUND", "GridFTP-Path: \"/Shared/None\""}));
}

TEST_F(PathUri, AMissingSiteIsNotFoundBeforeTheWriteIsRefused)
{
    write("/Shared libraries/None", nullptr);
    EXPECT_EQ(reply_of(last).tag, "PATH_NOT_FOUND");
    write("/Shared libraries/Site/None", nullptr);
    EXPECT_EQ(reply_of(last).tag, "PATH_NOT_FOUND");
}

TEST_F(PathUri, AWriteToASharedItemItselfIsRefusedBeforeItIsLookedUp)
{
    write("/Shared/None", "/content");
    EXPECT_EQ(reply_of(last).tag, "PERMISSION_DENIED");
}

TEST_F(PathUri, AUriThatCannotBeFormedIsASystemErrorAndANullUri)
{
    for (const char *path : {"/My files", "/My files/a", "/Shared", "/Shared libraries"}) {
        char untouched[] = "x";
        char *out = untouched;
        failing_text = 1;
        EXPECT_TRUE(is_malloc_error(
            tirval_onedrive_path_to_uri(session.handle(), path, "/children", &out, false)));
        EXPECT_EQ(out, nullptr) << path;
    }
    /* Behind the ancestor's path come the drive's part and the whole. */
    for (const char *path : {"/Shared/Doc", "/Shared libraries/Site/Lib"}) {
        for (int call : {2, 3}) {
            char untouched[] = "x";
            char *out = untouched;
            failing_text = call;
            EXPECT_TRUE(is_malloc_error(
                tirval_onedrive_path_to_uri(session.handle(), path, "/children", &out, false)));
            EXPECT_EQ(out, nullptr) << path << " " << call;
        }
    }
    EXPECT_EQ(failing_text, 0);
}

TEST_F(PathUri, NoDebugLineIsItsOwn)
{
    debug_trace trace;
    read("/My files/a", "/content");
    EXPECT_EQ(trace.count("tirval_onedrive_path_to_uri"), 0U);
}

TEST(PathUriLookUps, MyFilesNeedNoRequest)
{
    http_peer peer;
    test_session session(peer.url(""));
    char *uri = nullptr;
    ASSERT_EQ(
        tirval_onedrive_path_to_uri(session.handle(), "/My files/a/b", "/content", &uri, false),
        TIRVAL_SUCCESS);
    const tirval_i_onedrive_text_t owner(uri);
    EXPECT_EQ(uri, session.graph_url() + "/v1.0/me/drive/root:/a/b:/content");
    EXPECT_THAT(peer.requests(), testing::IsEmpty());
}

TEST(PathUriLookUps, ASharedItemIsFoundByListingShared)
{
    http_peer peer;
    test_session session(peer.url(""));
    peer.answer(http_peer_answer::json(
        200, R"({"value":[{"id":"mine","name":"Link","remoteItem":{"id":"far","name":"Doc",
                 "folder":{},"parentReference":{"driveId":"owner"}}}]})"));
    char *uri = nullptr;
    ASSERT_EQ(
        tirval_onedrive_path_to_uri(session.handle(), "/Shared/Doc/f", "/content", &uri, false),
        TIRVAL_SUCCESS);
    const tirval_i_onedrive_text_t owner(uri);
    EXPECT_EQ(uri, session.graph_url() + "/v1.0/drives/owner/items/far:/f:/content");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST(PathUriLookUps, AListingsFailureComesBackUnchanged)
{
    http_peer peer;
    test_session session(peer.url(""));
    peer.answer(http_peer_answer::complete(403));
    char *uri = nullptr;
    const tirval_result_t result =
        tirval_onedrive_path_to_uri(session.handle(), "/Shared/Doc", "/children", &uri, false);
    EXPECT_EQ(reply_of(result), (ftp_reply{550, "PERMISSION_DENIED", std::nullopt}));
    EXPECT_EQ(uri, nullptr);
}

} // namespace
