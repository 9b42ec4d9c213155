// The change feed.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

constexpr std::string_view seed = R"({"accounts": [
  {"name": "alice", "tokens": ["alice-token"], "drive": {"children": [
    {"name": "one.txt", "text": "1"},
    {"name": "dir", "children": [{"name": "two.txt", "text": "22"},
                                 {"name": "sub", "children": [{"name": "three.txt", "text": "3"}]}]}]}},
  {"name": "bob", "kind": "personal", "tokens": ["bob-token"],
   "drive": {"children": [{"name": "gone.txt", "text": "1"}]}}]})";

class Delta : public testing::Test {
  protected:
    std::string link(const json &page) const
    {
        const std::string url(page.at("@odata.deltaLink").as_text());
        return url.substr(url.find("/v1.0"));
    }

    std::string latest(const std::string &account = "alice",
                       const std::string &folder = "/v1.0/me/drive/root")
    {
        return link(service.get_json(account, folder + "/delta?token=latest"));
    }

    // "name" of an item that is there, "-id" of a deleted one.
    std::vector<std::string> told(const json &page) const
    {
        std::vector<std::string> entries;
        const json value = page.at("value");
        for (size_t i = 0; i < json_array_size(value.get()); ++i) {
            const json entry = json::share(json_array_get(value.get(), i));
            entries.push_back(entry.at("deleted") ? "-" + std::string(entry.at("id").as_text())
                                                  : std::string(entry.at("name").as_text()));
        }
        return entries;
    }

    std::string id_of(const std::string &path)
    {
        return std::string(
            service.get_json("alice", "/v1.0/me/drive/root:" + path).at("id").as_text());
    }

    sim service{seed};
};

using testing::ElementsAre;
using testing::IsEmpty;

} // namespace

TEST_F(Delta, BeginsWithEverythingThatIsThere)
{
    const json page = service.get_json("alice", "/v1.0/me/drive/root/delta");
    EXPECT_THAT(told(page), ElementsAre("root", "one.txt", "dir", "two.txt", "sub", "three.txt"));
    EXPECT_THAT(told(service.get_json("alice", link(page))), IsEmpty());
}

TEST_F(Delta, TellsNothingFromTheLatestStateOn)
{
    const json page = service.get_json("alice", "/v1.0/me/drive/root/delta?token=latest");
    EXPECT_THAT(told(page), IsEmpty());
    EXPECT_FALSE(page.at("@odata.nextLink"));
    EXPECT_THAT(told(service.get_json("alice", link(page))), IsEmpty());
}

TEST_F(Delta, TellsAnItemThatIsNewWithTheFoldersAbove)
{
    const std::string since = latest();
    service.change("alice", "POST", "/v1.0/me/drive/root:/dir:/children",
                   R"({"name": "new", "folder": {}})", 201);
    const json page = service.get_json("alice", since);
    EXPECT_THAT(told(page), ElementsAre("new", "dir", "root"));
    EXPECT_THAT(told(service.get_json("alice", link(page))), IsEmpty());
}

TEST_F(Delta, TellsAnItemOnceAtItsLastChange)
{
    const std::string since = latest();
    service.change("alice", "PATCH", "/v1.0/me/drive/root:/one.txt", R"({"name": "uno.txt"})", 200);
    service.change("alice", "PATCH", "/v1.0/me/drive/root:/uno.txt",
                   R"({"fileSystemInfo": {"lastModifiedDateTime": "2024-01-01T00:00:00Z"}})", 200);
    EXPECT_THAT(told(service.get_json("alice", since)), ElementsAre("root", "uno.txt"));
}

TEST_F(Delta, TellsEachDeletedItemBelowAFolder)
{
    const std::string dir = id_of("/dir");
    const std::string two = id_of("/dir/two.txt");
    const std::string sub = id_of("/dir/sub");
    const std::string three = id_of("/dir/sub/three.txt");
    const std::string since = latest();
    service.change("alice", "DELETE", "/v1.0/me/drive/root:/dir", "", 204);
    const json page = service.get_json("alice", since);
    EXPECT_THAT(told(page), ElementsAre("-" + three, "-" + sub, "-" + two, "-" + dir, "root"));
    const json entry = json::share(json_array_get(page.at("value").get(), 3));
    EXPECT_EQ(entry.at("deleted").at("state").as_text(), "deleted");
    EXPECT_EQ(entry.at("parentReference").at("id").as_text(),
              service.get_json("alice", "/v1.0/me/drive/root").at("id").as_text());
}

TEST_F(Delta, NamesADeletedItemOnTheConsumerStoreOnly)
{
    const std::string since = latest("bob");
    service.change("bob", "DELETE", "/v1.0/me/drive/root:/gone.txt", "", 204);
    const json page = service.get_json("bob", since);
    const json entry = json::share(json_array_get(page.at("value").get(), 0));
    EXPECT_EQ(entry.at("name").as_text(), "gone.txt");
    EXPECT_FALSE(entry.at("size"));
}

TEST_F(Delta, LeavesThePathOutOfTheFolder)
{
    const json page = service.get_json("alice", "/v1.0/me/drive/root/delta");
    const json entry = json::share(json_array_get(page.at("value").get(), 3));
    EXPECT_EQ(entry.at("parentReference").at("name").as_text(), "dir");
    EXPECT_FALSE(entry.at("parentReference").at("path"));
}

TEST_F(Delta, ComesInPagesOfWhichTheLastCarriesTheLink)
{
    json page = service.get_json("alice", "/v1.0/me/drive/root/delta?$top=4");
    EXPECT_FALSE(page.at("@odata.deltaLink"));
    EXPECT_THAT(told(page), ElementsAre("root", "one.txt", "dir", "two.txt"));
    const std::string next(page.at("@odata.nextLink").as_text());
    page = service.get_json("alice", next.substr(next.find("/v1.0")));
    EXPECT_THAT(told(page), ElementsAre("sub", "three.txt"));
    EXPECT_THAT(told(service.get_json("alice", link(page))), IsEmpty());
}

TEST_F(Delta, OfAFolderKeepsToWhatIsBelowIt)
{
    const std::string since = latest("alice", "/v1.0/me/drive/root:/dir:");
    const std::string two = id_of("/dir/two.txt");
    service.change("alice", "DELETE", "/v1.0/me/drive/root:/one.txt", "", 204);
    service.change("alice", "DELETE", "/v1.0/me/drive/root:/dir/two.txt", "", 204);
    EXPECT_THAT(told(service.get_json("alice", since)), ElementsAre("-" + two, "dir"));
}

TEST_F(Delta, TellsWhatTheControlPathsChange)
{
    const std::string since = latest();
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/made.txt", "item": {"text": "x"}})");
    EXPECT_THAT(told(service.get_json("alice", since)), ElementsAre("made.txt", "root"));
}

TEST_F(Delta, SendsWhoeverBringsAForeignTokenBackToTheStart)
{
    for (const char *token : {"now", "00000000.3", "", "x.99"}) {
        const response reply =
            service.get("alice", std::string("/v1.0/me/drive/root/delta?token=") + token);
        EXPECT_EQ(reply.status, 410U) << token;
        const json error = json::parse(reply.body, "error").at("error");
        EXPECT_EQ(error.at("code").as_text(), "resyncRequired");
        EXPECT_EQ(error.at("innerError").at("code").as_text(), "resyncChangesApplyDifferences");
        const std::string *location = reply.headers.find("Location");
        ASSERT_NE(location, nullptr);
        EXPECT_EQ(told(service.get_json("alice", location->substr(location->find("/v1.0")))).size(),
                  6U);
    }
    const std::string since = latest();
    EXPECT_EQ(service.error_code("alice", since + "9", 410), "resyncRequired") << "from the future";
}

} // namespace graph_sim
