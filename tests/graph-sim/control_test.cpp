// The control paths.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

TEST(Control, HealthListsTheAccounts)
{
    sim service;
    const json health = service.control("GET", "health");
    EXPECT_EQ(health.at("status").as_text(), "ok");
    const json alice = json::share(json_array_get(health.at("accounts").get(), 0));
    EXPECT_EQ(alice.at("name").as_text(), "alice");
    EXPECT_EQ(alice.at("tenant").as_text(), work_tenant);
}

TEST(Control, RequestsOfItsOwnAreNotRecorded)
{
    sim service;
    service.control("GET", "health");
    EXPECT_EQ(json_array_size(service.control("GET", "requests").at("requests").get()), 0U);
}

TEST(Control, TellsAFilesSizeAndDigest)
{
    sim service;
    const json file = service.control("GET", "file?account=alice&path=/hello.txt");
    EXPECT_EQ(file.at("size").as_integer(), 11);
    EXPECT_EQ(file.at("sha256").as_text(),
              "b94d27b9934d3e08a52e52d7da7dabfac484efe37a5380ee9088f7ace2efcde9");
    EXPECT_EQ(service.control("GET", "file?site=team-a&library=Documents&path=/Agenda.md")
                  .at("size")
                  .as_integer(),
              9);
    service.control("GET", "file?account=alice&path=/nowhere", {}, 404);
    service.control("GET", "file?account=nobody&path=/hello.txt", {}, 404);
    service.control("GET", "file?account=alice&path=/Documents", {}, 404);
}

TEST(Control, AddsReplacesMovesAndRemovesItems)
{
    sim service;
    service.control(
        "POST", "items",
        R"({"account": "alice", "path": "/Documents/new.txt", "item": {"text": "one"}})");
    const json before = service.get_json("alice", "/v1.0/me/drive/root:/Documents/new.txt");
    service.control(
        "POST", "items",
        R"({"account": "alice", "path": "/Documents/NEW.txt", "item": {"text": "three"}})");
    const json after = service.get_json("alice", "/v1.0/me/drive/root:/Documents/new.txt");
    EXPECT_EQ(after.at("id").as_text(), before.at("id").as_text());
    EXPECT_EQ(after.at("size").as_integer(), 5);
    EXPECT_NE(after.at("cTag").as_text(), before.at("cTag").as_text());
    EXPECT_NE(after.at("fileSystemInfo").at("lastModifiedDateTime").as_text(),
              before.at("fileSystemInfo").at("lastModifiedDateTime").as_text());
    service.control(
        "POST", "items",
        R"({"account": "alice", "path": "/Documents/new.txt", "move_to": "/Data/moved.txt"})");
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root:/Documents/new.txt").status, 404U);
    EXPECT_EQ(service.get_json("alice", "/v1.0/me/drive/root:/Data/moved.txt").at("id").as_text(),
              before.at("id").as_text());
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/Data/moved.txt", "remove": true})");
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root:/Data/moved.txt").status, 404U);
}

TEST(Control, AddsFoldersWithChildren)
{
    sim service;
    service.control(
        "POST", "items",
        R"({"site": "team-a", "library": "Archive", "path": "/x", "item": {"children": [{"name": "y", "text": "z"}]}})");
    EXPECT_EQ(service.control("GET", "file?site=team-a&library=Archive&path=/x/y")
                  .at("size")
                  .as_integer(),
              1);
}

TEST(Control, RefusesImpossibleChanges)
{
    sim service;
    for (const char *body :
         {R"({"account": "alice", "path": "/x"})",
          R"({"account": "alice", "path": "/", "remove": true})",
          R"({"account": "alice", "path": "/hello.txt", "item": {"folder": true}})",
          R"({"account": "alice", "path": "/Documents", "item": {"text": ""}})",
          R"({"account": "alice", "path": "/hello.txt", "move_to": "/Data"})",
          R"({"account": "alice", "path": "/hello.txt", "remove": true, "move_to": "/x"})",
          R"({"account": "alice", "path": "/a:b", "item": {"text": ""}})", "[]", "", "{"}) {
        service.control("POST", "items", body, 400);
    }
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/no/such/folder", "item": {"text": ""}})",
                    404);
    service.control("POST", "items", R"({"account": "alice", "path": "/nothing", "remove": true})",
                    404);
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root:/hello.txt").status, 200U);
}

TEST(Control, TokensAreAddedWithALifetime)
{
    sim service;
    service.control("POST", "token",
                    R"({"add": "fresh-token", "account": "alice", "expires_in_s": 100})");
    service.control("POST", "token",
                    R"({"add": "stale-token", "account": "alice", "expires_in_s": 0})");
    EXPECT_EQ(service.get("fresh", "/v1.0/me").status, 200U);
    EXPECT_EQ(service.get("stale", "/v1.0/me").status, 401U);
    EXPECT_EQ(
        service.control("POST", "token", R"({"expire": "fresh-token"})").at("changed").as_integer(),
        1);
    EXPECT_EQ(service.get("fresh", "/v1.0/me").status, 401U);
}

TEST(Control, SettingsAreShownAndABadOneChangesNothing)
{
    sim service;
    EXPECT_EQ(service.control("GET", "settings").at("default_page").as_integer(), 200);
    service.control("POST", "settings", R"({"default_page": 3, "colour": 1})", 400);
    EXPECT_EQ(service.control("GET", "settings").at("default_page").as_integer(), 200);
    EXPECT_EQ(service.control("POST", "settings", R"({"default_page": 3})")
                  .at("default_page")
                  .as_integer(),
              3);
    EXPECT_EQ(names_of(service.get_json("alice", "/v1.0/me/drive/root:/Many:/children")).size(),
              3U);
}

TEST(Control, BytesThatAreNotTextDoNoHarm)
{
    sim service;
    service.control("GET", "file?account=alice&path=/%FF", {}, 404);
    EXPECT_EQ(service.get("alice", "/v1.0/me", {{"client-request-id", "\xFF"}}).status, 200U);
    EXPECT_EQ(
        service.get("alice", "/v1.0/me/drive/root:/%FF", {{"client-request-id", "\xFF"}}).status,
        400U);
    EXPECT_EQ(service.send("POST", "/%FF/oauth2/v2.0/token", {}, "client_id=%FF&grant_type=%FF")
                  .reply.status,
              400U);
    EXPECT_EQ(
        service.send("POST", "/common/oauth2/v2.0/devicecode", {}, "client_id=%FF&scope=openid%FF")
            .reply.status,
        200U);
    service.control("GET", "device");
}

TEST(Control, UnknownPathsAndMethodsAreRefused)
{
    sim service;
    service.control("GET", "nothing", {}, 404);
    service.control("PUT", "faults", {}, 405);
}

} // namespace graph_sim
