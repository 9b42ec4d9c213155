// Listing a folder's children through Graph into the path cache.
#include "graph_script.h"
#include "library_seams.h"
#include "test_session.h"
#include "tirval_gfs_host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const char item_fields[] = "file,folder,id,name,size,fileSystemInfo,lastModifiedDateTime,deleted,"
                           "parentReference,driveType";

struct seen_child {
    std::string base_path;
    std::string name;
    std::string id;
    bool operator==(const seen_child &) const = default;
};

/* Keeps the children it is told, and fails on the one named `fail_on`. */
struct child_log {
    std::vector<seen_child> children;
    std::string fail_on;
    tirval_result_t failure = TIRVAL_FAILURE;
    std::function<void()> on_child;

    static tirval_result_t note(tirval_onedrive_handle_t *, const char *base_path,
                                const tirval_onedrive_path_info_t *entry, void *callback_arg)
    {
        auto *self = static_cast<child_log *>(callback_arg);
        self->children.push_back({base_path, entry->name, entry->id});
        if (self->on_child) {
            self->on_child();
        }
        return self->fail_on == entry->name ? self->failure : TIRVAL_SUCCESS;
    }
};

class FolderListing : public testing::Test {
  protected:
    FolderListing() : session(peer.url("")) {}

    tirval_result_t list(const char *path, child_log *log = nullptr)
    {
        return tirval_onedrive_get_folder_items(session.handle(), "not used", path,
                                                log == nullptr ? nullptr : child_log::note, log);
    }
    http_peer_request request(std::size_t index) const { return peer.requests().at(index); }

    http_peer peer;
    test_session session;
};

/* ---- What is asked ---- */

TEST_F(FolderListing, MyFilesIsListedFromTheDriveRoot)
{
    peer.answer(graph::page({graph::file("a.txt", "1")}));
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_EQ(request(0).method, "GET");
    EXPECT_EQ(graph::path(request(0)), "/v1.0/me/drive/root/children");
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"), Pair("$select", item_fields)));
    EXPECT_EQ(request(0).header("Authorization"), "Bearer token-1");
    ASSERT_NE(session.cached("/My files/a.txt"), nullptr);
    EXPECT_STREQ(session.cached("/My files/a.txt")->id, "1");
    EXPECT_EQ(session.cached("/My files/a.txt")->size, 5U);
}

TEST_F(FolderListing, AFolderOfTheDriveIsListedByItsPath)
{
    peer.answer(graph::page({graph::folder("d")}));
    ASSERT_EQ(list("/My files/a b"), TIRVAL_SUCCESS);
    EXPECT_EQ(graph::path(request(0)), "/v1.0/me/drive/root:/a%20b:/children");
    EXPECT_NE(session.cached("/My files/a b/d"), nullptr);
}

TEST_F(FolderListing, SharedItemsAreTakenFromTheirRemoteItems)
{
    peer.answer(graph::page({R"({"id":"link","name":"Link","remoteItem":{"id":"far","name":"Doc",
        "folder":{},"parentReference":{"driveId":"owner-drive","id":"p"}}})"}));
    ASSERT_EQ(list("/Shared"), TIRVAL_SUCCESS);
    EXPECT_EQ(graph::path(request(0)), "/v1.0/me/drive/sharedWithMe");
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"), Pair("$select", "remoteItem")));
    EXPECT_EQ(session.cached("/Shared/Link"), nullptr);
    ASSERT_NE(session.cached("/Shared/Doc"), nullptr);
    EXPECT_STREQ(session.cached("/Shared/Doc")->id, "far");
    EXPECT_STREQ(session.cached("/Shared/Doc")->parent_id, "owner-drive");
}

TEST_F(FolderListing, FollowedSitesAreCachedByTheirDisplayNames)
{
    peer.answer(graph::page({R"({"displayName":"Team","sharepointIds":{"siteId":"site-1"}})"}));
    ASSERT_EQ(list("/Shared libraries"), TIRVAL_SUCCESS);
    EXPECT_EQ(graph::path(request(0)), "/v1.0/me/followedSites");
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "100"), Pair("$select", "displayName,sharepointIds")));
    ASSERT_NE(session.cached("/Shared libraries/Team"), nullptr);
    EXPECT_STREQ(session.cached("/Shared libraries/Team")->id, "site-1");
}

TEST_F(FolderListing, ASitesLibrariesAreAskedForWithTheirOwnSpelling)
{
    session.enter("/Shared libraries", "Team", "site-1");
    peer.answer(graph::page({R"({"name":"Documents","id":"b!1","driveType":"documentLibrary"})"}));
    ASSERT_EQ(list("/Shared libraries/Team"), TIRVAL_SUCCESS);
    EXPECT_EQ(graph::path(request(0)), "/v1.0/sites/site-1/drives");
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"),
                            Pair("$select", "id,lastmodifiedDateTime,name,driveType")));
    ASSERT_NE(session.cached("/Shared libraries/Team/Documents"), nullptr);
    EXPECT_EQ(session.cached("/Shared libraries/Team/Documents")->type, TIRVAL_ONEDRIVE_FOLDER);
}

TEST_F(FolderListing, TheInsideOfASharedItemIsAFolderLikeAnyOther)
{
    session.enter("/Shared", "Doc", "far", TIRVAL_ONEDRIVE_FOLDER, "owner-drive");
    peer.answer(graph::page({graph::file("x")}));
    ASSERT_EQ(list("/Shared/Doc"), TIRVAL_SUCCESS);
    EXPECT_EQ(graph::path(request(0)), "/v1.0/drives/owner-drive/items/far/children");
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"), Pair("$select", item_fields)));
    EXPECT_NE(session.cached("/Shared/Doc/x"), nullptr);
}

TEST_F(FolderListing, TheKindIsToldFromTheUrisTextWhereverItStands)
{
    peer.answer(graph::page({graph::file("x")}));
    ASSERT_EQ(list("/My files/me/drive/sharedWithMe"), TIRVAL_SUCCESS);
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"), Pair("$select", "remoteItem")));
    peer.answer(graph::page({}));
    ASSERT_EQ(list("/My files/me/followedSites/me/drive/sharedWithMe"), TIRVAL_SUCCESS);
    EXPECT_THAT(graph::query(request(1)),
                ElementsAre(Pair("$top", "100"), Pair("$select", "displayName,sharepointIds")));
}

TEST_F(FolderListing, OnlyBehindTheBaseUrlAreSitesRecognised)
{
    peer.answer(graph::page({}));
    ASSERT_EQ(list("/My files/v1.0/sites/x"), TIRVAL_SUCCESS);
    EXPECT_THAT(graph::query(request(0)),
                ElementsAre(Pair("$top", "300"), Pair("$select", item_fields)));
}

/* ---- Pages ---- */

TEST_F(FolderListing, SixHundredAndFiftyChildrenTakeThreePages)
{
    peer.answer(graph::page(graph::files(0, 300), peer.url("/page2")));
    peer.answer(graph::page(graph::files(300, 300), peer.url("/page3?$skiptoken=a%20b")));
    peer.answer(graph::page(graph::files(600, 50)));
    child_log log;
    ASSERT_EQ(list("/My files", &log), TIRVAL_SUCCESS);
    ASSERT_EQ(peer.requests().size(), 3U);
    EXPECT_EQ(request(1).target, "/page2") << "a next link is asked for as it stands";
    EXPECT_EQ(request(2).target, "/page3?$skiptoken=a%20b");
    EXPECT_EQ(log.children.size(), 650U);
    EXPECT_NE(session.cached("/My files/f0"), nullptr);
    EXPECT_NE(session.cached("/My files/f649"), nullptr);
}

TEST_F(FolderListing, TheTokenOfTheFirstPageServesTheWholeListing)
{
    peer.answer(graph::page({graph::file("a")}, peer.url("/page2")));
    peer.answer(graph::page({}));
    child_log log;
    log.on_child = [&] {
        std::free(session.handle()->access_token);
        session.handle()->access_token = strdup("token-2");
    };
    ASSERT_EQ(list("/My files", &log), TIRVAL_SUCCESS);
    EXPECT_EQ(request(1).header("Authorization"), "Bearer token-1");
}

TEST_F(FolderListing, ANextLinkThatIsNoTextEndsTheListing)
{
    peer.answer(http_peer_answer::json(200, R"({"value":[],"@odata.nextLink":null})"));
    EXPECT_EQ(list("/My files"), TIRVAL_SUCCESS);
    peer.answer(http_peer_answer::json(200, R"({"value":[],"@odata.nextLink":7})"));
    EXPECT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(FolderListing, ANextLinkInThePlainToAnotherHostIsNotFollowed)
{
    peer.answer(graph::page({graph::file("a")}, "http://graph.example/next"));
    EXPECT_NE(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_NE(session.cached("/My files/a"), nullptr);
}

TEST_F(FolderListing, ANextLinkThatNamesItselfEndsWhenTheOperationIsCancelled)
{
    int answered = 0;
    peer.on_request([&](const auto &) {
        if (++answered == 5) {
            tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
        }
        return graph::page({graph::file("a")}, peer.url("/same"));
    });
    const tirval_result_t result = list("/My files");
    tirval_gfs_cancel_clear();
    EXPECT_NE(result, TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_error_get_type(tirval_error_peek(result)), TIRVAL_ERROR_TYPE_CANCELLED);
    EXPECT_EQ(peer.requests().size(), 5U);
}

TEST_F(FolderListing, EachPageMayBeRepeatedOnce)
{
    const http_peer_headers at_once = {{"Retry-After", "0"}};
    peer.answer(http_peer_answer::complete(503, "", at_once));
    peer.answer(graph::page({graph::file("a")}, peer.url("/page2")));
    peer.answer(http_peer_answer::complete(503, "", at_once));
    peer.answer(graph::page({graph::file("b")}));
    EXPECT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_EQ(peer.requests().size(), 4U);
    EXPECT_NE(session.cached("/My files/b"), nullptr);
}

/* ---- The cache ---- */

TEST_F(FolderListing, TheFoldersListedFlagIsLeftToTheCaller)
{
    peer.answer(graph::page({}));
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_FALSE(session.cached("/My files")->listed);
}

TEST_F(FolderListing, ARepeatedListingReplacesChildrenAndKeepsVanishedOnes)
{
    peer.answer(graph::page({graph::folder("kept", "old"), graph::folder("gone", "g")}));
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    session.mark_listed("/My files/kept");
    peer.answer(graph::page({graph::folder("kept", "new")}));
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_STREQ(session.cached("/My files/kept")->id, "new");
    EXPECT_FALSE(session.cached("/My files/kept")->listed);
    EXPECT_NE(session.cached("/My files/gone"), nullptr);
}

TEST_F(FolderListing, OfTwoChildrenOfOneNameTheLastIsCached)
{
    peer.answer(graph::page({graph::file("a", "first"), graph::file("a", "second")}));
    child_log log;
    ASSERT_EQ(list("/My files", &log), TIRVAL_SUCCESS);
    EXPECT_EQ(log.children.size(), 2U);
    EXPECT_STREQ(session.cached("/My files/a")->id, "second");
}

/* ---- The callback ---- */

TEST_F(FolderListing, TheCallbackIsToldEachChildByItsPlainName)
{
    peer.answer(graph::page({graph::file("a", "1"), graph::folder("b", "2")}));
    child_log log;
    ASSERT_EQ(list("/My files", &log), TIRVAL_SUCCESS);
    EXPECT_THAT(log.children,
                ElementsAre(seen_child{"/My files", "a", "1"}, seen_child{"/My files", "b", "2"}));
}

TEST_F(FolderListing, AFailingCallbackStopsTheListingWithItsResult)
{
    peer.answer(graph::page({graph::file("a"), graph::file("b")}, peer.url("/page2")));
    child_log log;
    log.fail_on = "a";
    log.failure = 0xFFFFFFFF;
    EXPECT_EQ(list("/My files", &log), 0xFFFFFFFFU);
    EXPECT_EQ(log.children.size(), 1U);
    EXPECT_NE(session.cached("/My files/a"), nullptr) << "it was cached before";
    EXPECT_EQ(session.cached("/My files/b"), nullptr);
    EXPECT_EQ(peer.requests().size(), 1U);
}

/* ---- What cannot be addressed ---- */

TEST_F(FolderListing, AnItemWithoutANameOrAnIdIsLeftOutWithAWarning)
{
    peer.answer(graph::page({R"({"id":"1","file":{}})", R"({"name":"noid","file":{}})",
                             R"({"name":"","id":"2","file":{}})", "\"text\"", "null",
                             graph::file("good")}));
    debug_trace trace(TIRVAL_ONEDRIVE_WARN);
    child_log log;
    ASSERT_EQ(list("/My files", &log), TIRVAL_SUCCESS);
    EXPECT_THAT(log.children, ElementsAre(seen_child{"/My files", "good", "id"}));
    EXPECT_EQ(trace.count("OneDrive:  WARN: "), 5U);
    EXPECT_EQ(session.cached("/My files/noid"), nullptr);
}

TEST_F(FolderListing, ASharedItemWithoutARemoteItemOrItsNameIsLeftOut)
{
    peer.answer(graph::page({R"({"id":"1","name":"plain","file":{}})",
                             R"({"id":"2","remoteItem":{"id":"3","folder":{}}})",
                             R"({"remoteItem":{"id":"4","name":"good","folder":{}}})"}));
    child_log log;
    ASSERT_EQ(list("/Shared", &log), TIRVAL_SUCCESS);
    EXPECT_THAT(log.children, ElementsAre(seen_child{"/Shared", "good", "4"}));
}

/* ---- Failures ---- */

TEST_F(FolderListing, ARefusedPathSendsNoRequest)
{
    EXPECT_EQ(reply_of(list("/")).tag, "PERMISSION_DENIED");
    EXPECT_EQ(reply_of(list("/Other")).tag, "PERMISSION_DENIED");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(FolderListing, APathWhoseSharedItemIsMissingIsNotFound)
{
    session.mark_listed("/Shared");
    EXPECT_EQ(reply_of(list("/Shared/None/x")).tag, "PATH_NOT_FOUND");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(FolderListing, ARequestThatFailsTwiceIsItsLastError)
{
    peer.answer(http_peer_answer::complete(429));
    peer.answer(http_peer_answer::complete(429));
    EXPECT_EQ(reply_of(list("/My files")), (ftp_reply{451, "TOO_BUSY", std::nullopt}));
    EXPECT_EQ(peer.requests().size(), 2U);
}

TEST_F(FolderListing, AFailureThatIsNotRetryableIsNotRepeated)
{
    peer.answer(http_peer_answer::complete(403));
    EXPECT_EQ(reply_of(list("/My files")).tag, "PERMISSION_DENIED");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(FolderListing, AnErrorAnswersJsonExplainsIt)
{
    peer.answer(http_peer_answer::json(404, R"({"error":{"code":"itemNotFound","message":""}})"));
    EXPECT_EQ(info_of(list("/My files/none"), "code"), "itemNotFound");
}

TEST_F(FolderListing, SuccessWithoutABodyIsReportedAsASystemError)
{
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(is_malloc_error(list("/My files")));
    peer.answer(http_peer_answer::complete(200, "{\"value\": [tru"));
    EXPECT_TRUE(is_malloc_error(list("/My files")));
    peer.answer(http_peer_answer::complete(412));
    EXPECT_TRUE(is_malloc_error(list("/My files"))) << "also after a status taken as done";
}

TEST_F(FolderListing, AValueThatIsNoArrayFailsAfterEarlierPagesWereCached)
{
    peer.answer(graph::page({graph::file("a")}, peer.url("/page2")));
    peer.answer(http_peer_answer::json(200, R"({"value":{"name":"b"}})"));
    const tirval_result_t result = list("/My files");
    EXPECT_TRUE(is_generic_error(result, "Json object not array when it was expected"));
    EXPECT_NE(session.cached("/My files/a"), nullptr);
}

TEST_F(FolderListing, AMissingValueFails)
{
    for (const char *text : {"{}", "[]", R"({"value":null})"}) {
        peer.answer(http_peer_answer::json(200, text));
        EXPECT_TRUE(
            is_generic_error(list("/My files"), "Json object not array when it was expected"))
            << text;
    }
}

TEST_F(FolderListing, AnEntryThatDoesNotParseFailsTheListing)
{
    peer.answer(graph::page({graph::file("a"),
                             R"({"name":"b","id":"2","lastModifiedDateTime":"yesterday"})",
                             graph::file("c")}));
    const tirval_result_t result = list("/My files");
    EXPECT_TRUE(is_generic_error(result, "Failed info_parse!"));
    EXPECT_NE(session.cached("/My files/a"), nullptr) << "what came before stays";
    EXPECT_EQ(session.cached("/My files/c"), nullptr);
}

TEST_F(FolderListing, AnEntryThatCannotBeCachedFailsTheListingWithTheSameText)
{
    peer.answer(graph::page({graph::file("a")}));
    child_log log;
    table_insert_fails = true;
    const tirval_result_t result = list("/My files", &log);
    table_insert_fails = false;
    EXPECT_TRUE(is_generic_error(result, "Failed info_parse!"));
    EXPECT_THAT(log.children, IsEmpty());
}

TEST_F(FolderListing, ItsFailuresNameTheListingAsTheirPlace)
{
    peer.answer(graph::page({R"({"name":"b","id":"2","lastModifiedDateTime":"yesterday"})"}));
    peer.answer(http_peer_answer::json(200, "{}"));
    for (int i = 0; i < 2; ++i) {
        const error_place place = place_of(list("/My files"));
        EXPECT_EQ(place.source, "get_folder_items");
        EXPECT_EQ(place.function, "tirval_onedrive_get_folder_items");
        EXPECT_GT(place.line, 0);
    }
}

TEST_F(FolderListing, AUriOrABearerThatCannotBeFormedIsASystemErrorWithoutARequest)
{
    for (int call = 1; call <= 2; ++call) {
        failing_text = call;
        EXPECT_TRUE(is_malloc_error(list("/My files"))) << call;
        EXPECT_EQ(failing_text, 0) << call;
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(FolderListing, TheUsersSpacingIsKeptBeforeEachAttempt)
{
    const http_peer_headers at_once = {{"Retry-After", "0"}};
    peer.answer(http_peer_answer::complete(503, "", at_once));
    peer.answer(graph::page({}, peer.url("/page2")));
    peer.answer(graph::page({}));
    debug_trace trace;
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 3U);
}

TEST_F(FolderListing, AFollowedSiteWithoutANameFailsTheListing)
{
    peer.answer(graph::page({R"({"sharepointIds":{"siteId":"s"}})"}));
    EXPECT_TRUE(is_generic_error(list("/Shared libraries"), "Failed info_parse!"));
}

TEST_F(FolderListing, AnErrorOnALaterPageIsTheListings)
{
    peer.answer(graph::page({graph::file("a")}, peer.url("/page2")));
    peer.answer(http_peer_answer::complete(500));
    child_log log;
    EXPECT_EQ(reply_of(list("/My files", &log)).tag, "INTERNAL_ERROR");
    EXPECT_EQ(log.children.size(), 1U);
}

TEST_F(FolderListing, ItsLinesGoToTheDebugChannel)
{
    debug_trace trace;
    peer.answer(graph::page({}));
    ASSERT_EQ(list("/My files"), TIRVAL_SUCCESS);
    EXPECT_EQ(trace.count("tirval_onedrive_get_folder_items: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_get_folder_items: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(trace.count("API CALL!\n"), 1U);
}

} // namespace
