// Reading addresses.
#include "routing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace graph_sim {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Status and message of a refusal, "" when the address is accepted.
std::string refusal(std::string_view method, std::string_view path)
{
    try {
        parse_route(method, path);
    } catch (const api_error &error) {
        return std::to_string(error.status()) + " " + error.code() + ": " + error.what();
    }
    return "";
}

} // namespace

TEST(Routing, ReadsTheFormsOfTheRoot)
{
    for (const char *path :
         {"/v1.0/me/drive/root", "/v1.0/me/drive/items/root", "/v1.0/me/drive/root/"}) {
        const route found = parse_route("GET", path);
        EXPECT_EQ(found.kind, request_kind::item) << path;
        EXPECT_EQ(found.item.id, "root");
        EXPECT_THAT(found.item.path, IsEmpty());
    }
}

TEST(Routing, TheClosingColonIsOptional)
{
    for (const char *path :
         {"/v1.0/me/drive/root:/a/b", "/v1.0/me/drive/root:/a/b:", "/v1.0/me/drive/root:/a/b:/"}) {
        const route found = parse_route("GET", path);
        EXPECT_EQ(found.kind, request_kind::item) << path;
        EXPECT_THAT(found.item.path, ElementsAre("a", "b"));
    }
}

TEST(Routing, ReadsResourcesBehindIdsAndPaths)
{
    EXPECT_EQ(parse_route("GET", "/v1.0/me/drive/root/children").kind, request_kind::listing);
    EXPECT_EQ(parse_route("GET", "/v1.0/me/drive/root:/a:/children").kind, request_kind::listing);
    EXPECT_EQ(parse_route("GET", "/v1.0/me/drive/root/delta").kind, request_kind::changes);
    EXPECT_EQ(parse_route("GET", "/v1.0/drives/b!x/items/01A/content").kind, request_kind::content);
    EXPECT_EQ(parse_route("GET", "/v1.0/drives/b!x/items/01A:/b:/content").kind,
              request_kind::content);
    EXPECT_EQ(parse_route("PUT", "/v1.0/me/drive/root:/a:/content").kind, request_kind::upload);
    EXPECT_EQ(parse_route("POST", "/v1.0/me/drive/root:/a:/createUploadSession").kind,
              request_kind::upload_session);
    EXPECT_EQ(parse_route("POST", "/v1.0/me/drive/root/children").kind, request_kind::create);
    EXPECT_EQ(parse_route("PATCH", "/v1.0/me/drive/items/01A").kind, request_kind::update);
    EXPECT_EQ(parse_route("DELETE", "/v1.0/me/drive/root:/a").kind, request_kind::remove);
}

TEST(Routing, APathRelativeToAnItemKeepsTheItem)
{
    const route found = parse_route("GET", "/v1.0/drives/b!x/items/01A:/x%20y/z");
    EXPECT_EQ(found.drive.how, drive_address::by::id);
    EXPECT_EQ(found.drive.value, "b!x");
    EXPECT_EQ(found.item.id, "01A");
    EXPECT_THAT(found.item.path, ElementsAre("x y", "z"));
}

TEST(Routing, DecodesOnceAndOnlyThenSplits)
{
    EXPECT_THAT(parse_route("GET", "/v1.0/me/drive/root:/a%2Fb").item.path, ElementsAre("a", "b"));
    EXPECT_THAT(parse_route("GET", "/v1.0/me/drive/root:/100%2525").item.path,
                ElementsAre("100%25"));
    EXPECT_THAT(parse_route("GET", "/v1.0/me/drive/root%3A/a%23b").item.path, ElementsAre("a#b"));
    EXPECT_THAT(parse_route("GET", "/v1.0/me/drive/root:/a+b").item.path, ElementsAre("a+b"));
}

TEST(Routing, ADotSegmentIsDroppedAndTwoDotsAreRefused)
{
    EXPECT_THAT(parse_route("GET", "/v1.0/me/drive/root:/.%2Fa").item.path, ElementsAre("a"));
    EXPECT_THAT(refusal("GET", "/v1.0/me/drive/root:/a/../b"),
                testing::StartsWith("400 invalidRequest"));
}

TEST(Routing, ADoubledSlashInAPathIsRefused)
{
    EXPECT_THAT(refusal("GET", "/v1.0/me/drive/root:/a//b"),
                testing::StartsWith("400 invalidRequest"));
    EXPECT_THAT(refusal("GET", "/v1.0/drives/b!x/items/01A://b"),
                testing::StartsWith("400 invalidRequest"));
    EXPECT_EQ(refusal("GET", "/v1.0/me/drive/root:/a/:/children"), "") << "one at the end is not";
}

TEST(Routing, AThirdColonIsRefused)
{
    EXPECT_EQ(refusal("GET", "/v1.0/me/drive/root:/a:/b:/content"),
              "400 invalidRequest: Paths can only contain at most two colons");
}

TEST(Routing, AColonWithoutAPathIsRefused)
{
    EXPECT_EQ(refusal("GET", "/v1.0/me/drive/root:"),
              "400 BadRequest: Resource not found for the segment 'root:'.");
    EXPECT_EQ(refusal("GET", "/v1.0/me/drive/root:a"),
              "400 BadRequest: Resource not found for the segment 'root:'.");
}

TEST(Routing, MalformedEscapesAndBytesAreRefused)
{
    for (const char *path : {"/v1.0/me/drive/root:/%", "/v1.0/me/drive/root:/%zz",
                             "/v1.0/me/drive/root:/%FF", "/v1.0/me/drive/root:/a%00b"}) {
        EXPECT_THAT(refusal("GET", path), testing::StartsWith("400 BadRequest")) << path;
    }
}

TEST(Routing, UnknownSegmentsAreRefusedByName)
{
    EXPECT_EQ(refusal("GET", "/v1.0/me/drive/root/kids"),
              "400 BadRequest: Resource not found for the segment 'kids'.");
    EXPECT_EQ(refusal("GET", "/v1.0/Me/drive"),
              "400 BadRequest: Resource not found for the segment 'Me'.");
    EXPECT_THAT(refusal("GET", "/v1.0/me/drive/items"),
                testing::HasSubstr("The 'filter' query option"));
    EXPECT_THAT(refusal("GET", "/v2.0/me"), testing::StartsWith("400"));
    EXPECT_THAT(refusal("GET", "/"), testing::StartsWith("400"));
}

TEST(Routing, AMethodThatDoesNotFitIsRefused)
{
    EXPECT_THAT(refusal("DELETE", "/v1.0/me/drive/root/children"), testing::StartsWith("405"));
    EXPECT_THAT(refusal("POST", "/v1.0/me/followedSites"), testing::StartsWith("405"));
    EXPECT_THAT(refusal("HEAD", "/v1.0/me/drive/root/content"), testing::StartsWith("405"));
}

TEST(Routing, ReadsSitesByIdAndByAddress)
{
    const route by_id =
        parse_route("GET", "/v1.0/sites/4ed1565e-2f35-405e-b677-4e4ae8784b50/drives");
    EXPECT_EQ(by_id.kind, request_kind::libraries);
    EXPECT_EQ(by_id.drive.value, "4ed1565e-2f35-405e-b677-4e4ae8784b50");
    const route by_address =
        parse_route("GET", "/v1.0/sites/contoso.sharepoint.com:/sites/team-a:/drives");
    EXPECT_EQ(by_address.kind, request_kind::libraries);
    EXPECT_EQ(by_address.drive.value, "contoso.sharepoint.com:/sites/team-a");
    EXPECT_EQ(parse_route("GET", "/v1.0/sites/a,b,c").kind, request_kind::site);
    const route item = parse_route("GET", "/v1.0/sites/a,b,c/drive/root:/x:/content");
    EXPECT_EQ(item.kind, request_kind::content);
    EXPECT_EQ(item.drive.how, drive_address::by::site);
}

TEST(Routing, EveryKindHasAName)
{
    for (int i = 0; i <= static_cast<int>(request_kind::other); ++i) {
        const auto kind = static_cast<request_kind>(i);
        request_kind again{};
        ASSERT_TRUE(kind_by_name(kind_name(kind), again)) << i;
        EXPECT_EQ(again, kind);
    }
}

} // namespace graph_sim
