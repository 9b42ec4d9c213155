// Paging, $select, and byte ranges.
#include "ranges.h"
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

constexpr std::string_view folder_of_650 =
    R"({"accounts": [{"name": "alice", "tokens": ["alice-token"],
    "drive": {"children": [
        {"name": "many", "children": [{"generate": {"count": 650, "name": "f ####", "size": 1}}]},
        {"name": "empty", "folder": true},
        {"name": "odd", "children": [
            {"name": "a&b=c%2B+d#", "text": ""}, {"name": "Ä", "text": ""}, {"name": "z", "text": ""}]}]}}]})";

// Follows the next links and returns the number of names on each page.
std::vector<size_t> page_sizes(sim &service, std::string target,
                               std::vector<std::string> *all = nullptr)
{
    std::vector<size_t> sizes;
    while (!target.empty() && sizes.size() < 100) {
        const json page = service.get_json("alice", target);
        const auto names = names_of(page);
        sizes.push_back(names.size());
        if (all != nullptr) {
            all->insert(all->end(), names.begin(), names.end());
        }
        target = page.at("@odata.nextLink").as_text();
        if (!target.empty()) {
            EXPECT_THAT(target, testing::StartsWith("http://graph.test/"));
            target = target.substr(std::string("http://graph.test").size());
        }
    }
    return sizes;
}

} // namespace

TEST(Paging, AFolderOf650ItemsTakesThreePagesOf300)
{
    sim service(folder_of_650);
    std::vector<std::string> names;
    EXPECT_THAT(
        page_sizes(service, "/v1.0/me/drive/root:/many:/children?$top=300&$select=name", &names),
        testing::ElementsAre(300, 300, 50));
    ASSERT_EQ(names.size(), 650U);
    EXPECT_EQ(names.front(), "f 0001");
    EXPECT_EQ(names.back(), "f 0650");
    EXPECT_TRUE(std::ranges::is_sorted(names));
}

TEST(Paging, TheDefaultPageHolds200AndTheLargest1000)
{
    sim service(folder_of_650);
    EXPECT_THAT(page_sizes(service, "/v1.0/me/drive/root:/many:/children"),
                testing::ElementsAre(200, 200, 200, 50));
    service.control("POST", "settings", R"({"largest_page": 100})");
    EXPECT_THAT(page_sizes(service, "/v1.0/me/drive/root:/many:/children?$top=5000"),
                testing::ElementsAre(100, 100, 100, 100, 100, 100, 50));
}

TEST(Paging, AFullLastPageHasNoNextLink)
{
    sim service(folder_of_650);
    EXPECT_THAT(page_sizes(service, "/v1.0/me/drive/root:/many:/children?$top=650"),
                testing::ElementsAre(650));
    EXPECT_THAT(page_sizes(service, "/v1.0/me/drive/root:/empty:/children"),
                testing::ElementsAre(0));
}

TEST(Paging, TheNextLinkCarriesTheOptionsAsTheyWereSent)
{
    sim service(folder_of_650);
    const json page =
        service.get_json("alice", "/v1.0/me/drive/root:/many:/children?%24top=2&%24select=name");
    EXPECT_THAT(std::string(page.at("@odata.nextLink").as_text()),
                testing::StartsWith("http://graph.test/v1.0/me/drive/root:/many:/"
                                    "children?%24top=2&%24select=name&$skiptoken="));
}

TEST(Paging, NamesThatNeedEncodingSurviveTheToken)
{
    sim service(folder_of_650);
    std::vector<std::string> names;
    page_sizes(service, "/v1.0/me/drive/root:/odd:/children?$top=1", &names);
    EXPECT_THAT(names, testing::ElementsAre("a&b=c%2B+d#", "z", "Ä"));
}

TEST(Paging, ItemsThatVanishBetweenPagesCostNoOther)
{
    sim service(folder_of_650);
    const json page = service.get_json("alice", "/v1.0/me/drive/root:/odd:/children?$top=1");
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/odd/a&b=c%2B+d#", "remove": true})");
    const std::string link(page.at("@odata.nextLink").as_text());
    EXPECT_THAT(names_of(service.get_json("alice", link.substr(17))), testing::ElementsAre("z"));
}

TEST(Paging, ABadTopOrTokenIsRefused)
{
    sim service(folder_of_650);
    for (const char *query :
         {"$top=0", "$top=-1", "$top=x", "$top=", "$skiptoken=MjAx", "$skip=10"}) {
        EXPECT_EQ(
            service.error_code("alice", std::string("/v1.0/me/drive/root/children?") + query, 400),
            "invalidRequest")
            << query;
    }
}

TEST(Paging, ListsWithoutNamesPageToo)
{
    sim service;
    const json page = service.get_json("alice", "/v1.0/me/followedSites?$top=1");
    EXPECT_EQ(json_array_size(page.at("value").get()), 1U);
    const std::string link(page.at("@odata.nextLink").as_text());
    const json second = service.get_json("alice", link.substr(17));
    EXPECT_THAT(names_of(second), testing::ElementsAre("research"));
    EXPECT_FALSE(second.at("@odata.nextLink"));
}

TEST(Select, GivesTheNamedMembersAndTheId)
{
    sim service;
    const json got =
        service.get_json("alice", "/v1.0/me/drive/root:/hello.txt:?$select=size,NAME,unknown");
    std::vector<std::string> members;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(got.get(), key, value)
    {
        members.emplace_back(key);
    }
    EXPECT_THAT(members, testing::UnorderedElementsAre("@odata.context", "id", "name", "size"));
}

TEST(Select, LeavesTheDownloadAddressOut)
{
    sim service;
    EXPECT_TRUE(service.get_json("alice", "/v1.0/me/drive/root:/hello.txt")
                    .at("@microsoft.graph.downloadUrl"));
    EXPECT_FALSE(service.get_json("alice", "/v1.0/me/drive/root:/hello.txt?select=file")
                     .at("@microsoft.graph.downloadUrl"));
}

TEST(Ranges, AreCutAtTheEnd)
{
    const byte_range range = parse_range("bytes=5-99", 10);
    EXPECT_EQ(range.what, byte_range::kind::part);
    EXPECT_EQ(range.offset, 5U);
    EXPECT_EQ(range.length, 5U);
    EXPECT_EQ(parse_range("bytes=0-0", 10).length, 1U);
    EXPECT_EQ(parse_range("bytes=9-", 10).length, 1U);
    EXPECT_EQ(parse_range("bytes=4294967296-4294967297", std::uint64_t{1} << 40).offset,
              std::uint64_t{1} << 32);
}

TEST(Ranges, StartingAtTheEndCannotBeSatisfied)
{
    EXPECT_EQ(parse_range("bytes=10-", 10).what, byte_range::kind::unsatisfiable);
    EXPECT_EQ(parse_range("bytes=10-20", 10).what, byte_range::kind::unsatisfiable);
    EXPECT_EQ(parse_range("bytes=0-", 0).what, byte_range::kind::unsatisfiable);
}

TEST(Ranges, OtherFormsAreIgnoredAndNonsenseIsRefused)
{
    for (const char *text : {"bytes=-5", "bytes=0-1,3-4", "lines=1-2", ""}) {
        EXPECT_EQ(parse_range(text, 10).what, byte_range::kind::whole) << text;
        EXPECT_EQ(parse_range(text, 10).length, 10U) << text;
    }
    for (const char *text : {"bytes=0--1", "bytes=a-b", "bytes=5", "bytes=5-4", "bytes=1-2x",
                             "bytes= 1-2", "bytes=99999999999999999999-"}) {
        EXPECT_EQ(parse_range(text, 10).what, byte_range::kind::malformed) << text;
    }
}

} // namespace graph_sim
