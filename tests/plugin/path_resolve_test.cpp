// From client paths to cached records, listing folders on the way.
#include "graph_script.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PathResolve : public testing::Test {
  protected:
    PathResolve() : session(peer.url("")) {}

    /* Resolves, leaving the records in `entry` and `parent`. */
    tirval_result_t resolve(const char *path)
    {
        entry = &marker;
        parent = &marker;
        return tirval_onedrive_path_resolve(session.handle(), path, &entry, &parent);
    }
    std::vector<std::string> requested() const
    {
        std::vector<std::string> paths;
        for (const auto &request : peer.requests()) {
            paths.push_back(graph::path(request));
        }
        return paths;
    }
    static std::string name(const tirval_onedrive_path_info_t *info)
    {
        return info == nullptr ? "(none)" : info->name;
    }
    static ftp_reply missing(const std::string &path)
    {
        return {550, "PATH_NOT_FOUND", "GridFTP-Path: \"" + path + "\""};
    }

    http_peer peer;
    test_session session;
    tirval_onedrive_path_info_t marker = {};
    tirval_onedrive_path_info_t *entry = nullptr;
    tirval_onedrive_path_info_t *parent = nullptr;
};

TEST_F(PathResolve, TheVirtualFoldersMakeNoRequest)
{
    EXPECT_EQ(resolve("/"), TIRVAL_SUCCESS);
    EXPECT_EQ(name(entry), "/");
    EXPECT_EQ(parent, nullptr);
    for (const char *path : {"/My files", "/Shared", "/Shared libraries"}) {
        EXPECT_EQ(resolve(path), TIRVAL_SUCCESS);
        EXPECT_EQ(name(entry), path);
        EXPECT_EQ(name(parent), "/");
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(PathResolve, AnUnknownNameInTheRootIsMissingWithoutARequest)
{
    EXPECT_EQ(reply_of(resolve("/Other")), missing("/Other"));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(name(parent), "/");
    EXPECT_EQ(reply_of(resolve("/Other/x")), missing("/Other/x"));
    EXPECT_EQ(parent, nullptr);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(PathResolve, AFreshCacheListsEachFolderOnTheWay)
{
    peer.answer(graph::page({graph::folder("a")}));
    peer.answer(graph::page({graph::file("b", "B")}));
    EXPECT_EQ(resolve("/My files/a/b"), TIRVAL_SUCCESS);
    EXPECT_EQ(name(entry), "/My files/a/b");
    EXPECT_STREQ(entry->id, "B");
    EXPECT_EQ(name(parent), "/My files/a");
    EXPECT_THAT(requested(),
                ElementsAre("/v1.0/me/drive/root/children", "/v1.0/me/drive/root:/a:/children"));
    EXPECT_TRUE(session.cached("/My files")->listed);
    EXPECT_TRUE(session.cached("/My files/a")->listed);
}

TEST_F(PathResolve, WhatIsCachedIsFoundWithoutAListing)
{
    session.enter("/My files", "a", "A");
    session.enter("/My files/a", "b", "B", TIRVAL_ONEDRIVE_FILE);
    EXPECT_EQ(resolve("/My files/a/b"), TIRVAL_SUCCESS);
    EXPECT_STREQ(entry->id, "B");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(PathResolve, AMissingNameOfAListedFolderIsMissingWithoutARequest)
{
    peer.answer(graph::page({}));
    EXPECT_EQ(reply_of(resolve("/My files/x")), missing("/My files/x"));
    EXPECT_EQ(peer.requests().size(), 1U);
    EXPECT_EQ(reply_of(resolve("/My files/x")), missing("/My files/x"));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(name(parent), "/My files");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(PathResolve, AMissingInnerComponentHasNoParent)
{
    peer.answer(graph::page({}));
    EXPECT_EQ(reply_of(resolve("/My files/x/y/z")), missing("/My files/x/y/z"));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(parent, nullptr);
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(PathResolve, ATrailingSlashIsTheFolderWithoutAParent)
{
    EXPECT_EQ(resolve("/My files/"), TIRVAL_SUCCESS);
    EXPECT_EQ(name(entry), "/My files");
    EXPECT_EQ(parent, nullptr);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(PathResolve, AnEmptyComponentIsNeverFound)
{
    peer.answer(graph::page({graph::file("x")}));
    EXPECT_EQ(reply_of(resolve("/My files//x")), missing("/My files//x"));
    EXPECT_EQ(parent, nullptr);
}

TEST_F(PathResolve, AFileIsListedLikeAFolderWhenSomethingBelowItIsAskedFor)
{
    session.enter("/My files", "f", "F", TIRVAL_ONEDRIVE_FILE);
    peer.answer(http_peer_answer::complete(404));
    EXPECT_EQ(reply_of(resolve("/My files/f/x")), (ftp_reply{550, "PATH_NOT_FOUND", ""}));
    EXPECT_THAT(requested(), ElementsAre("/v1.0/me/drive/root:/f:/children"));
}

TEST_F(PathResolve, AFailedListingIsReturnedAndLeavesTheOutPointersAlone)
{
    peer.answer(http_peer_answer::complete(403));
    EXPECT_EQ(reply_of(resolve("/My files/a")),
              (ftp_reply{550, "PERMISSION_DENIED", std::nullopt}));
    EXPECT_EQ(entry, &marker);
    EXPECT_EQ(parent, &marker);
    EXPECT_FALSE(session.cached("/My files")->listed);
    peer.answer(http_peer_answer::complete(403));
    EXPECT_EQ(reply_of(resolve("/My files/a/b")).tag, "PERMISSION_DENIED");
    EXPECT_EQ(entry, &marker);
    EXPECT_EQ(parent, &marker);
}

TEST_F(PathResolve, AFolderWhoseListingFailedIsListedAgain)
{
    peer.answer(http_peer_answer::complete(500));
    EXPECT_NE(resolve("/My files/a"), TIRVAL_SUCCESS);
    peer.answer(graph::page({graph::file("a")}));
    EXPECT_EQ(resolve("/My files/a"), TIRVAL_SUCCESS);
}

TEST_F(PathResolve, ALibrarysFilesAreReachedThroughSitesAndDrives)
{
    peer.answer(graph::page({R"({"displayName":"Team","sharepointIds":{"siteId":"S"}})"}));
    peer.answer(graph::page({R"({"name":"Docs","id":"D","driveType":"documentLibrary"})"}));
    peer.answer(graph::page({graph::file("f", "F")}));
    EXPECT_EQ(resolve("/Shared libraries/Team/Docs/f"), TIRVAL_SUCCESS);
    EXPECT_STREQ(entry->id, "F");
    EXPECT_THAT(requested(), ElementsAre("/v1.0/me/followedSites", "/v1.0/sites/S/drives",
                                         "/v1.0/drives/D/root/children"));
}

TEST_F(PathResolve, ASharedFoldersFilesAreReachedThroughItsOwnersDrive)
{
    peer.answer(graph::page({R"({"remoteItem":{"id":"R","name":"Doc","folder":{},
                                 "parentReference":{"driveId":"O"}}})"}));
    peer.answer(graph::page({graph::folder("sub")}));
    peer.answer(graph::page({graph::file("f", "F")}));
    EXPECT_EQ(resolve("/Shared/Doc/sub/f"), TIRVAL_SUCCESS);
    EXPECT_THAT(requested(),
                ElementsAre("/v1.0/me/drive/sharedWithMe", "/v1.0/drives/O/items/R/children",
                            "/v1.0/drives/O/items/R:/sub:/children"));
}

TEST_F(PathResolve, ANameWithASlashFromTheServiceIsNeverFound)
{
    peer.answer(graph::page({R"({"displayName":"A/B","sharepointIds":{"siteId":"S"}})"}));
    EXPECT_EQ(reply_of(resolve("/Shared libraries/A/B")), missing("/Shared libraries/A/B"));
}

TEST_F(PathResolve, TheOutPointersMayBeNull)
{
    EXPECT_EQ(tirval_onedrive_path_resolve(session.handle(), "/My files", nullptr, nullptr),
              TIRVAL_SUCCESS);
    EXPECT_EQ(reply_of(tirval_onedrive_path_resolve(session.handle(), "/x", nullptr, nullptr)),
              missing("/x"));
}

TEST_F(PathResolve, TheRootIsAlwaysTakenAsListed)
{
    session.cached("/")->listed = false;
    EXPECT_EQ(reply_of(resolve("/x")), missing("/x"));
    EXPECT_TRUE(session.cached("/")->listed);
}

TEST_F(PathResolve, ItsExitLineHasTheResult)
{
    debug_trace trace;
    resolve("/My files");
    resolve("/x");
    EXPECT_EQ(trace.count("tirval_onedrive_path_resolve: enter\n"), 2U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_resolve: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("ERROR: [0-9]+: tirval_onedrive_path_resolve: exit: "
                                       "result=0x[0-9a-f]+ message=.*GridFTP-Path: \"/x\""));
}

TEST(PathResolveDeath, ARelativePathEndsTheProcess)
{
    test_session session;
    EXPECT_DEATH(tirval_onedrive_path_resolve(session.handle(), "My files", nullptr, nullptr),
                 "\\*part == '/'");
}

} // namespace
