// What the service answers to Graph requests and downloads.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

std::string text_at(const json &value, std::initializer_list<const char *> path)
{
    json at = value;
    for (const char *key : path) {
        at = at.at(key);
    }
    return std::string(at.as_text());
}

} // namespace

TEST(Authorization, IsNeededAndCheckedBeforeAnythingElse)
{
    sim service;
    for (const header_list &headers : {header_list{}, header_list{{"Authorization", "Bearer "}},
                                       header_list{{"Authorization", "Basic YTpi"}},
                                       header_list{{"Authorization", "Bearer nonsense"}}}) {
        const response reply = service.send("GET", "/v1.0/me/drive/root:/nowhere", headers).reply;
        EXPECT_EQ(reply.status, 401U);
        ASSERT_NE(reply.headers.find("WWW-Authenticate"), nullptr);
        EXPECT_THAT(*reply.headers.find("WWW-Authenticate"),
                    testing::StartsWith("Bearer realm=\"\""));
        EXPECT_THAT(reply.body, testing::HasSubstr(R"("code":"InvalidAuthenticationToken")"));
    }
}

TEST(Authorization, AnExpiredTokenSaysSo)
{
    sim service;
    service.control("POST", "token", R"({"expire": "alice"})");
    const response reply = service.get("alice", "/v1.0/me");
    EXPECT_EQ(reply.status, 401U);
    EXPECT_THAT(reply.body, testing::HasSubstr("the token is expired"));
    EXPECT_EQ(service.get("bob", "/v1.0/me").status, 200U);
}

TEST(Errors, HaveTheServicesShape)
{
    sim service;
    const response reply =
        service.get("alice", "/v1.0/me/drive/root:/nowhere", {{"client-request-id", "my-id"}});
    EXPECT_EQ(reply.status, 404U);
    EXPECT_EQ(*reply.headers.find("Content-Type"), "application/json");
    EXPECT_EQ(*reply.headers.find("client-request-id"), "my-id");
    const json error = json::parse(reply.body, "error").at("error");
    EXPECT_EQ(text_at(error, {"code"}), "itemNotFound");
    EXPECT_EQ(text_at(error, {"message"}), "The resource could not be found.");
    EXPECT_EQ(text_at(error, {"innerError", "client-request-id"}), "my-id");
    EXPECT_EQ(text_at(error, {"innerError", "date"}).size(), 19U);
    EXPECT_EQ(
        text_at(service.get_json("bob", "/v1.0/me/drive/root:/nowhere", 404), {"error", "message"}),
        "Item does not exist");
}

TEST(Items, OneItemIsReachedByEveryForm)
{
    sim service;
    const std::string id = text_at(
        service.get_json("alice", "/v1.0/me/drive/root:/Documents/100%25%20done.txt"), {"id"});
    const std::string drive = text_at(service.get_json("alice", "/v1.0/me/drive"), {"id"});
    const std::string folder =
        text_at(service.get_json("alice", "/v1.0/me/drive/root:/documents:"), {"id"});
    for (const std::string &path : {"/me/drive/items/" + id, "/drives/" + drive + "/items/" + id,
                                    "/drives/" + drive + "/root:/DOCUMENTS/100%25%20DONE.TXT:",
                                    "/drives/" + drive + "/items/" + folder + ":/100%25%20done.txt",
                                    "/users/alice@contoso.example/drive/items/" + id}) {
        EXPECT_EQ(text_at(service.get_json("alice", "/v1.0" + path), {"id"}), id) << path;
    }
}

TEST(Items, ABusinessFileHasTheDocumentedMembers)
{
    sim service;
    const json file = service.get_json("alice", "/v1.0/me/drive/root:/hello.txt");
    EXPECT_EQ(text_at(file, {"name"}), "hello.txt");
    EXPECT_EQ(file.at("size").as_integer(), 11);
    EXPECT_EQ(text_at(file, {"file", "hashes", "quickXorHash"}), "aCgDG9jwBhDc4Q1yawMZAAAAAAA=");
    EXPECT_FALSE(file.at("file").at("hashes").at("sha1Hash"));
    EXPECT_EQ(text_at(file, {"file", "mimeType"}), "text/plain");
    EXPECT_EQ(text_at(file, {"fileSystemInfo", "lastModifiedDateTime"}), "2024-04-30T20:00:00Z");
    EXPECT_EQ(text_at(file, {"parentReference", "driveType"}), "business");
    EXPECT_THAT(text_at(file, {"parentReference", "path"}), testing::EndsWith("/root:"));
    EXPECT_THAT(text_at(file, {"eTag"}), testing::MatchesRegex("\"\\{[0-9A-F-]{36}\\},1\""));
    EXPECT_FALSE(file.at("folder"));
}

TEST(Items, APersonalFileHasFractionsAndMoreHashes)
{
    sim service;
    const json file = service.get_json("bob", "/v1.0/me/drive/root:/notes.txt");
    EXPECT_EQ(text_at(file, {"fileSystemInfo", "lastModifiedDateTime"}),
              "2024-03-01T00:00:00.753Z");
    EXPECT_THAT(text_at(file, {"file", "hashes", "sha1Hash"}),
                testing::MatchesRegex("[0-9A-F]{40}"));
    EXPECT_THAT(text_at(file, {"file", "hashes", "sha256Hash"}),
                testing::MatchesRegex("[0-9A-F]{64}"));
    EXPECT_THAT(text_at(file, {"id"}), testing::MatchesRegex("[0-9A-F]{16}![0-9]+"));
    EXPECT_THAT(text_at(file, {"eTag"}), testing::Not(testing::HasSubstr("\"")));
    EXPECT_EQ(text_at(file, {"parentReference", "path"}), "/drive/root:");
}

TEST(Items, ABusinessRootHasNoTagsAndAPersonalOneHas)
{
    sim service;
    const json root = service.get_json("alice", "/v1.0/me/drive/root");
    EXPECT_FALSE(root.at("eTag"));
    EXPECT_FALSE(root.at("parentReference").at("id"));
    EXPECT_TRUE(root.at("root"));
    EXPECT_EQ(text_at(root, {"name"}), "root");
    EXPECT_TRUE(service.get_json("bob", "/v1.0/me/drive/root").at("eTag"));
}

TEST(Items, PathEncodingComesBackInTheParentsPath)
{
    sim service;
    const json nested = service.get_json(
        "alice", "/v1.0/me/drive/root:/Documents/Deep/deeper/and%20deeper/bottom.txt");
    EXPECT_THAT(text_at(nested, {"parentReference", "path"}),
                testing::EndsWith("/root:/Documents/Deep/deeper/and%20deeper"));
}

TEST(Items, AnEmptyPathBehindTheRootDependsOnTheStore)
{
    sim service;
    EXPECT_EQ(service.error_code("alice", "/v1.0/me/drive/root:/:/children", 400),
              "invalidRequest");
    EXPECT_EQ(service.get("bob", "/v1.0/me/drive/root:/:/children").status, 200U);
}

TEST(Items, AnUnchangedItemIsNotSentAgain)
{
    sim service;
    const std::string tag =
        text_at(service.get_json("alice", "/v1.0/me/drive/root:/hello.txt"), {"cTag"});
    for (const char *target :
         {"/v1.0/me/drive/root:/hello.txt", "/v1.0/me/drive/root:/hello.txt:/content"}) {
        const response reply = service.get("alice", target, {{"If-None-Match", tag}});
        EXPECT_EQ(reply.status, 304U);
        EXPECT_TRUE(reply.body.empty());
    }
}

TEST(Items, ListingsTellFilesFromFolders)
{
    sim service;
    const json page = service.get_json("alice", "/v1.0/me/drive/root/children");
    EXPECT_THAT(names_of(page), testing::ElementsAre("Data", "Documents", "empty.dat", "hello.txt",
                                                     "Many", "Small files", "Welcome.txt"));
    const json data = json::share(json_array_get(page.at("value").get(), 0));
    EXPECT_EQ(data.at("folder").at("childCount").as_integer(), 4);
    EXPECT_EQ(data.at("size").as_integer(), 5379194909);
}

TEST(Items, ListingAFileGivesAnEmptyPage)
{
    sim service;
    EXPECT_TRUE(
        names_of(service.get_json("alice", "/v1.0/me/drive/root:/hello.txt:/children")).empty());
    EXPECT_EQ(service.error_code("alice", "/v1.0/me/drive/root:/nowhere:/children", 404),
              "itemNotFound");
}

TEST(Sharing, TheSharedItemIsReachedThroughItsOwnersDrive)
{
    sim service;
    const json page = service.get_json("alice", "/v1.0/me/drive/sharedWithMe?$select=remoteItem");
    const json remote = json::share(json_array_get(page.at("value").get(), 0)).at("remoteItem");
    EXPECT_EQ(text_at(remote, {"name"}), "Projects");
    EXPECT_TRUE(remote.at("folder"));
    const std::string start = "/v1.0/drives/" + text_at(remote, {"parentReference", "driveId"}) +
                              "/items/" + text_at(remote, {"id"});
    EXPECT_THAT(names_of(service.get_json("alice", start + "/children")),
                testing::ElementsAre("Phase 1", "plan.md", "raw.bin"));
    EXPECT_EQ(service.get("alice", start + ":/Phase%201/results%20%231.csv:/content").status, 302U);
}

TEST(Sharing, TheRestOfTheOwnersDriveStaysHidden)
{
    sim service;
    const std::string drive = text_at(service.get_json("carol", "/v1.0/me/drive"), {"id"});
    const std::string secret =
        text_at(service.get_json("carol", "/v1.0/me/drive/root:/private.txt"), {"id"});
    EXPECT_EQ(service.error_code("alice", "/v1.0/drives/" + drive + "/root:/private.txt", 404),
              "itemNotFound");
    EXPECT_EQ(service.error_code("alice", "/v1.0/drives/" + drive + "/root/children", 404),
              "itemNotFound");
    EXPECT_EQ(service.error_code("alice", "/v1.0/drives/" + drive + "/items/" + secret, 404),
              "itemNotFound");
    EXPECT_EQ(service.error_code("bob", "/v1.0/drives/" + drive + "/root", 403), "accessDenied");
    EXPECT_EQ(service.error_code("bob", "/v1.0/users/carol@contoso.example/drive", 403),
              "accessDenied");
    EXPECT_EQ(service.error_code("alice", "/v1.0/drives/b!nothing/root", 404), "itemNotFound");
}

TEST(Sharing, ADeletedItemLeavesTheList)
{
    sim service;
    service.control("POST", "items",
                    R"({"account": "carol", "path": "/Projects", "remove": true})");
    const json page = service.get_json("alice", "/v1.0/me/drive/sharedWithMe");
    EXPECT_THAT(names_of(page), testing::ElementsAre("Budget 2024.csv"));
}

TEST(Sites, LeadFromTheFollowedSiteToItsLibraries)
{
    sim service;
    const json page = service.get_json(
        "alice", "/v1.0/me/followedSites?$select=displayName,sharepointIds&$top=100");
    const json site = json::share(json_array_get(page.at("value").get(), 0));
    EXPECT_EQ(text_at(site, {"displayName"}), "Team A");
    EXPECT_FALSE(site.at("name"));
    const std::string id = text_at(site, {"sharepointIds", "siteId"});
    const json drives = service.get_json(
        "alice", "/v1.0/sites/" + id + "/drives?$select=id,lastmodifiedDateTime,name,driveType");
    EXPECT_THAT(names_of(drives), testing::ElementsAre("Documents", "Archive"));
    const json library = json::share(json_array_get(drives.at("value").get(), 0));
    EXPECT_EQ(text_at(library, {"driveType"}), "documentLibrary");
    EXPECT_EQ(text_at(library, {"lastModifiedDateTime"}), "2024-05-02T09:12:03Z");
    EXPECT_THAT(names_of(service.get_json("alice", "/v1.0/drives/" + text_at(library, {"id"}) +
                                                       "/root/children")),
                testing::ElementsAre("Agenda.md", "Minutes"));
    EXPECT_EQ(text_at(service.get_json("alice", "/v1.0/sites/" + id + "/drive"), {"name"}),
              "Documents");
    EXPECT_EQ(text_at(service.get_json("alice", "/v1.0/sites/contoso.sharepoint.com:/sites/team-a"),
                      {"displayName"}),
              "Team A");
}

TEST(Sites, AreClosedToThoseWhoDoNotFollowAndToConsumers)
{
    sim service;
    EXPECT_EQ(service.error_code("carol",
                                 "/v1.0/sites/contoso.sharepoint.com:/sites/research:/drives", 403),
              "accessDenied");
    EXPECT_EQ(service.error_code("alice", "/v1.0/sites/nothing/drives", 404), "itemNotFound");
    EXPECT_EQ(service.error_code("bob", "/v1.0/me/followedSites", 400), "BadRequest");
}

TEST(Drives, TellTheirKindAndQuota)
{
    sim service;
    const json drive = service.get_json("alice", "/v1.0/me/drive");
    EXPECT_EQ(text_at(drive, {"driveType"}), "business");
    EXPECT_EQ(drive.at("quota").at("remaining").as_integer() +
                  drive.at("quota").at("used").as_integer(),
              1'099'511'627'776);
    EXPECT_EQ(text_at(service.get_json("bob", "/v1.0/me/drive"), {"driveType"}), "personal");
    EXPECT_EQ(json_array_size(service.get_json("alice", "/v1.0/me/drives").at("value").get()), 1U);
    EXPECT_EQ(text_at(service.get_json("alice", "/v1.0/me"), {"userPrincipalName"}),
              "alice@contoso.example");
}

TEST(Drives, APersonalDriveIdMatchesWithoutCase)
{
    sim service;
    const std::string id = text_at(service.get_json("dora", "/v1.0/me/drive"), {"id"});
    EXPECT_EQ(service.get("dora", "/v1.0/drives/" + to_lower(id) + "/root").status, 200U);
}

TEST(Content, RedirectsToAnAddressThatServesTheBytes)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    EXPECT_THAT(target, testing::StartsWith("/_download/"));
    const response reply = service.send("GET", target).reply;
    EXPECT_EQ(reply.status, 200U);
    EXPECT_EQ(body_bytes(reply), "hello world");
    EXPECT_EQ(reply.body_size(), 11U);
}

TEST(Content, RangesAreHonoured)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/Data/four-GiB.bin:/content");
    const response reply =
        service.send("GET", target, {{"Range", "bytes=4294967290-4294967299"}}).reply;
    EXPECT_EQ(reply.status, 206U);
    EXPECT_EQ(*reply.headers.find("Content-Range"), "bytes 4294967290-4294967295/4294967296");
    std::string expected;
    for (std::uint64_t i = 4294967290; i < 4294967296; ++i) {
        expected += static_cast<char>((i + 1) % 251);
    }
    EXPECT_EQ(body_bytes(reply), expected);
}

TEST(Content, ARangeBehindTheEndIs416)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    const response reply = service.send("GET", target, {{"Range", "bytes=11-"}}).reply;
    EXPECT_EQ(reply.status, 416U);
    EXPECT_EQ(*reply.headers.find("Content-Range"), "bytes */11");
}

TEST(Content, TheDownloadAddressRefusesABearer)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    EXPECT_EQ(service.get("alice", target).status, 401U);
    service.control("POST", "settings", R"({"download_refuses_bearer": false})");
    EXPECT_EQ(service.get("alice", target).status, 200U);
}

TEST(Content, TheDownloadAddressIsTakenOnlyAsItWasGiven)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    std::string changed = target;
    changed.replace(changed.find("Translate=false&"), 16, "");
    EXPECT_EQ(service.send("GET", changed + "&Translate=false").reply.status, 401U);
    EXPECT_EQ(service.send("GET", target + "&x=1").reply.status, 401U);
    EXPECT_EQ(service.send("GET", "/_download/" + std::string("YWJj")).reply.status, 401U);
    EXPECT_EQ(service.send("GET", "/_download/").reply.status, 401U);
    EXPECT_EQ(service.send("GET", target).reply.status, 200U);
}

TEST(Content, TheDownloadAddressExpires)
{
    sim service;
    service.control("POST", "settings", R"({"download_lifetime_s": 0})");
    EXPECT_EQ(service
                  .send("GET",
                        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content"))
                  .reply.status,
              401U);
    service.control("POST", "settings", R"({"download_lifetime_s": 60})");
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    EXPECT_EQ(service.send("GET", target).reply.status, 200U);
    service.control("POST", "settings", R"({"revoke_downloads": true})");
    EXPECT_EQ(service.send("GET", target).reply.status, 401U);
}

TEST(Content, TheDownloadAddressOfARemovedFileIs404)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/hello.txt", "remove": true})");
    EXPECT_EQ(service.send("GET", target).reply.status, 404U);
}

TEST(Content, FoldersAndPackagesHaveNone)
{
    sim service(
        R"({"accounts": [{"name": "alice", "tokens": ["alice-token"], "drive": {"children": [
        {"name": "folder", "folder": true},
        {"name": "book", "children": [], "extra": {"package": {"type": "oneNote"}, "folder": null}}]}}]})");
    EXPECT_EQ(service.error_code("alice", "/v1.0/me/drive/root:/folder:/content", 404),
              "itemNotFound");
    EXPECT_EQ(service.error_code("alice", "/v1.0/me/drive/root:/book:/content", 404),
              "itemNotFound");
    const json book = service.get_json("alice", "/v1.0/me/drive/root:/book");
    EXPECT_FALSE(book.at("folder"));
    EXPECT_EQ(text_at(book, {"package", "type"}), "oneNote");
}

TEST(Content, AZeroByteFileIsServedAsNothing)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/empty.dat:/content");
    const response reply = service.send("GET", target).reply;
    EXPECT_EQ(reply.status, 200U);
    EXPECT_EQ(reply.body_size(), 0U);
    EXPECT_EQ(service.send("GET", target, {{"Range", "bytes=0-0"}}).reply.status, 416U);
}

TEST(Listeners, ADownloadListenerServesNothingElse)
{
    sim service;
    const std::string target =
        service.download_target("alice", "/v1.0/me/drive/root:/hello.txt:/content");
    service.role = listener_role::service;
    EXPECT_EQ(service.send("GET", target).reply.status, 404U);
    service.role = listener_role::downloads;
    EXPECT_EQ(service.send("GET", target).reply.status, 200U);
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 404U);
}

TEST(Listeners, TheDownloadAddressNamesTheOtherListener)
{
    sim service;
    service.served.use_download_port(4711);
    EXPECT_THAT(
        *service.get("alice", "/v1.0/me/drive/root:/hello.txt:/content").headers.find("Location"),
        testing::StartsWith("http://graph.test:4711/_download/"));
    service.control("POST", "settings", R"({"download_origin": "https://transfer.test"})");
    EXPECT_THAT(
        *service.get("alice", "/v1.0/me/drive/root:/hello.txt:/content").headers.find("Location"),
        testing::StartsWith("https://transfer.test/_download/"));
}

TEST(Throttling, AnswersWhatIsOverTheLimitWith429)
{
    sim service;
    service.control(
        "POST", "throttle",
        R"({"account": "alice", "requests_per_second": 0.001, "burst": 2, "retry_after": "2.128"})");
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 200U);
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 200U);
    const response reply = service.get("alice", "/v1.0/me");
    EXPECT_EQ(reply.status, 429U);
    EXPECT_EQ(*reply.headers.find("Retry-After"), "2.128");
    EXPECT_THAT(reply.body, testing::HasSubstr("activityLimitReached"));
    EXPECT_EQ(service.get("bob", "/v1.0/me").status, 200U);
    service.control("POST", "throttle", R"({"account": "alice"})");
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 200U);
}

} // namespace graph_sim
