/*
 * What the place of a path allows.
 */
#include "path_rules.h"

#include "reply.h"

#include <gtest/gtest.h>

namespace tirval::server {
namespace {

int refusal(const std::string &path)
{
    const auto reply = refuse_new_path(path);
    return reply ? reply_code(*reply) : 0;
}

TEST(PathRules, TellThePlacesOfTheTreeApart)
{
    EXPECT_EQ(place_of("/"), place_t::root);
    EXPECT_EQ(place_of("/My files"), place_t::virtual_folder);
    EXPECT_EQ(place_of("/My filesX"), place_t::virtual_folder);
    EXPECT_EQ(place_of("/Shared libraries/Team"), place_t::site);
    EXPECT_EQ(place_of("/Shared libraries/Team/Documents"), place_t::library);
    EXPECT_EQ(place_of("/Shared libraries/Team/Documents/a"), place_t::library_item);
    EXPECT_EQ(place_of("/Shared libraries/Team/Documents/a/b"), place_t::library_item);
    EXPECT_EQ(place_of("/Shared/plans"), place_t::shared_item);
    EXPECT_EQ(place_of("/Shared/plans/a"), place_t::item);
    EXPECT_EQ(place_of("/My files/a"), place_t::item);
    EXPECT_EQ(place_of("/My files/Shared/a/b"), place_t::item);
}

TEST(PathRules, VirtualFoldersSitesAndLibrariesAreFixed)
{
    for (const char *path :
         {"/", "/Shared", "/nothing", "/Shared libraries/T", "/Shared libraries/T/D"}) {
        EXPECT_TRUE(is_fixed_place(path)) << path;
    }
    for (const char *path : {"/My files/a", "/Shared/a", "/Shared libraries/T/D/a"}) {
        EXPECT_FALSE(is_fixed_place(path)) << path;
    }
}

TEST(PathRules, RefuseNewNamesInTheRootAndNamesThatAreNoText)
{
    EXPECT_EQ(refusal("/new"), 550);
    EXPECT_EQ(refusal("/"), 550);
    EXPECT_EQ(refusal("/My files/caf\xE9"), 553);
    EXPECT_EQ(refusal("/My files/a\x1F"), 553);
    EXPECT_EQ(refusal("/My files/a\x7F"), 553);
    EXPECT_EQ(refusal("/My files/\xF0\x9F\x98\x80 \xE2\x82\xAC"), 0);
    EXPECT_EQ(refusal("/My files/old\x01/new"), 0); /* only the new name counts */
}

TEST(PathRules, PermissionsFollowThePlace)
{
    EXPECT_EQ(permissions_of("/", true), "el");
    EXPECT_EQ(permissions_of("/My files", true), "celmp");
    EXPECT_EQ(permissions_of("/Shared", true), "el");
    EXPECT_EQ(permissions_of("/Shared libraries", true), "el");
    EXPECT_EQ(permissions_of("/Shared libraries/T", true), "el");
    EXPECT_EQ(permissions_of("/Shared libraries/T/D", true), "celm");
    EXPECT_EQ(permissions_of("/Shared libraries/T/D/a", true), "ceflm");
    EXPECT_EQ(permissions_of("/Shared libraries/T/D/a", false), "frw");
    EXPECT_EQ(permissions_of("/Shared/plans", true), "ceflmp");
    EXPECT_EQ(permissions_of("/Shared/plans", false), "fr");
    EXPECT_EQ(permissions_of("/Shared/plans/a", false), "dfrw");
    EXPECT_EQ(permissions_of("/My files/a", true), "cdeflmp");
    EXPECT_EQ(permissions_of("/My files/a", false), "dfrw");
}

} // namespace
} // namespace tirval::server
