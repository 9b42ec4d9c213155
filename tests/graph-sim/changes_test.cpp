// Folders made, items changed and deleted, and who may do so.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

constexpr std::string_view seed = R"({"accounts": [
  {"name": "alice", "tokens": ["alice-token"], "drive": {"quota": 100, "children": [
    {"name": "one.txt", "text": "12345"},
    {"name": "dir", "children": [{"name": "two.txt", "text": "22"}, {"name": "sub", "children": [
      {"name": "three.txt", "text": "333"}]}]},
    {"name": "locked.txt", "text": "", "locked": true},
    {"name": "read", "children": [{"name": "r.txt", "text": "r"}]},
    {"name": "write", "children": [{"name": "w.txt", "text": "w"}]}]},
   "follows": ["team"]},
  {"name": "bob", "kind": "personal", "tokens": ["bob-token"], "drive": {"children": [
    {"name": "one.txt", "text": "12345"}, {"name": "dir", "folder": true}]}},
  {"name": "dora", "kind": "personal-new", "tokens": ["dora-token"], "drive": {"children": [
    {"name": "one.txt", "text": "12345"}, {"name": "dir", "folder": true}]}},
  {"name": "carol", "tokens": ["carol-token"],
   "shared": [{"owner": "alice", "path": "/read", "role": "read"},
              {"owner": "alice", "path": "/write"}]}],
 "sites": [{"name": "team", "visitors": ["carol"], "libraries": [{"name": "Documents", "children": [
   {"name": "plan.txt", "text": "plan"}]}]},
   {"name": "other", "tenant": "99999999-2222-3333-4444-555555555555", "members": ["alice"],
    "libraries": [{"name": "Documents"}]}]})";

const std::string root = "/v1.0/me/drive/root";

class Changes : public testing::Test {
  protected:
    json item_at(const std::string &path, const std::string &account = "alice",
                 unsigned status = 200)
    {
        return service.get_json(account, root + (path.empty() ? "" : ":" + path), status);
    }
    std::string text_at(const std::string &path, const char *member,
                        const std::string &account = "alice")
    {
        return std::string(item_at(path, account).at(member).as_text());
    }
    std::string id_of(const std::string &path, const std::string &account = "alice")
    {
        return text_at(path, "id", account);
    }
    std::string drive_id(const std::string &address = "/me/drive")
    {
        return std::string(service.get_json("alice", "/v1.0" + address).at("id").as_text());
    }
    std::vector<std::string> children(const std::string &path, const std::string &account = "alice")
    {
        return names_of(service.get_json(account, path.empty() ? root + "/children"
                                                               : root + ":" + path + ":/children"));
    }
    json make(const std::string &body, unsigned status, const std::string &account = "alice")
    {
        return service.change(account, "POST", root + "/children", body, status);
    }
    json patch(const std::string &path, const std::string &body, unsigned status,
               const std::string &account = "alice")
    {
        return service.change(account, "PATCH", root + ":" + path, body, status);
    }
    // The code of the error that a change meets.
    std::string refusal(const std::string &method, const std::string &target,
                        const std::string &body, unsigned status,
                        const std::string &account = "alice", header_list headers = {})
    {
        return std::string(service.change(account, method, target, body, status, headers)
                               .at("error")
                               .at("code")
                               .as_text());
    }
    static std::string code_of(const json &reply)
    {
        return std::string(reply.at("error").at("code").as_text());
    }
    static std::string moved_to(const std::string &parent_id)
    {
        return R"({"parentReference": {"id": ")" + parent_id + R"("}})";
    }

    sim service{seed};
};

using MakingFolders = Changes;
using Updating = Changes;
using Moving = Changes;
using Deleting = Changes;
using Rights = Changes;
using Locks = Changes;
using Quota = Changes;
using Ordering = Changes;

using testing::ElementsAre;

} // namespace

TEST_F(MakingFolders, AnswersTheWholeItemAndItsAddress)
{
    header_list headers{{"Authorization", "Bearer alice-token"},
                        {"Content-Type", "application/json"}};
    const response reply =
        service.send("POST", root + ":/dir:/children", headers, R"({"name": "new", "folder": {}})")
            .reply;
    EXPECT_EQ(reply.status, 201U);
    const json made = json::parse(reply.body, "reply");
    EXPECT_EQ(made.at("name").as_text(), "new");
    EXPECT_EQ(made.at("folder").at("childCount").as_integer(), 0);
    EXPECT_EQ(made.at("parentReference").at("id").as_text(), id_of("/dir"));
    EXPECT_EQ(made.at("id").as_text(), id_of("/dir/new"));
    const std::string *location = reply.headers.find("Location");
    ASSERT_NE(location, nullptr);
    EXPECT_NE(location->find(std::string(made.at("id").as_text())), std::string::npos);
}

TEST_F(MakingFolders, CountsOnTheFoldersAbove)
{
    const std::string ctag = text_at("/dir", "cTag", "bob");
    const std::string etag = text_at("/dir", "eTag", "bob");
    const std::string modified = text_at("/dir", "lastModifiedDateTime", "bob");
    service.change("bob", "POST", root + ":/dir:/children", R"({"name": "new", "folder": {}})",
                   201);
    EXPECT_NE(text_at("/dir", "cTag", "bob"), ctag);
    EXPECT_EQ(text_at("/dir", "eTag", "bob"), etag);
    EXPECT_GT(text_at("/dir", "lastModifiedDateTime", "bob"), modified);
    EXPECT_EQ(item_at("/dir", "bob").at("folder").at("childCount").as_integer(), 1);
}

TEST_F(MakingFolders, ATakenNameIsAConflictInWorkStores)
{
    for (const char *behavior : {R"(, "@microsoft.graph.conflictBehavior": "fail")",
                                 R"(, "@microsoft.graph.conflictBehavior": "replace")", ""}) {
        EXPECT_EQ(
            code_of(make(R"({"name": "DIR", "folder": {})" + std::string(behavior) + "}", 409)),
            "nameAlreadyExists")
            << behavior;
    }
}

TEST_F(MakingFolders, ATakenNameGivesTheFolderThatIsThereInConsumerStores)
{
    for (const char *account : {"bob", "dora"}) {
        for (const char *behavior : {R"(, "@microsoft.graph.conflictBehavior": "replace")", ""}) {
            const json there =
                make(R"({"name": "dir", "folder": {})" + std::string(behavior) + "}", 200, account);
            EXPECT_EQ(there.at("id").as_text(), id_of("/dir", account)) << behavior;
        }
        EXPECT_EQ(code_of(make(R"({"name": "dir", "folder": {},
                               "@microsoft.graph.conflictBehavior": "fail"})",
                               409, account)),
                  "nameAlreadyExists");
    }
}

TEST_F(MakingFolders, AFileOfThatNameIsAConflictInAllStores)
{
    for (const char *account : {"alice", "bob"}) {
        EXPECT_EQ(code_of(make(R"({"name": "one.txt", "folder": {}})", 409, account)),
                  "nameAlreadyExists");
    }
}

TEST_F(MakingFolders, RenameTakesTheFirstFreeNumber)
{
    const std::string body = R"({"name": "dir", "folder": {}, "@name.conflictBehavior": "rename"})";
    EXPECT_EQ(make(body, 201).at("name").as_text(), "dir 1");
    EXPECT_EQ(make(body, 201).at("name").as_text(), "dir 2");
    EXPECT_EQ(make(body, 201, "bob").at("name").as_text(), "dir 1");
}

TEST_F(MakingFolders, ADecomposedFormOfATakenNameIsAConflict)
{
    make("{\"name\": \"B\u00FCcher\", \"folder\": {}}", 201);
    EXPECT_EQ(code_of(make("{\"name\": \"bu\u0308cher\", \"folder\": {}}", 409)),
              "nameAlreadyExists");
    EXPECT_EQ(text_at("/BU%CC%88CHER", "name"), "B\u00FCcher") << "kept as it was sent";
}

TEST_F(MakingFolders, ParentsAreNotMade)
{
    EXPECT_EQ(refusal("POST", root + ":/no/such:/children", R"({"name": "x", "folder": {}})", 404),
              "itemNotFound");
    EXPECT_EQ(item_at("/no", "alice", 404).at("error").at("code").as_text(), "itemNotFound");
}

TEST_F(MakingFolders, AFileTakesNoChildren)
{
    EXPECT_EQ(refusal("POST", root + ":/one.txt:/children", R"({"name": "x", "folder": {}})", 400),
              "invalidRequest");
}

TEST_F(MakingFolders, RefusesBodiesThatDescribeNoFolder)
{
    for (const char *body :
         {R"({"name": "x"})", R"({"folder": {}})", R"({"name": 7, "folder": {}})",
          R"({"name": "x", "folder": true})", R"({"name": "", "folder": {}})",
          R"({"name": "x", "folder": {}, "@microsoft.graph.conflictBehavior": "maybe"})"}) {
        EXPECT_EQ(code_of(make(body, 400)), "invalidRequest") << body;
    }
    for (const char *body : {"[]", "\"x\"", "{\"name\": ", "7"}) {
        EXPECT_EQ(code_of(make(body, 400)), "BadRequest") << body;
    }
}

TEST_F(MakingFolders, WantsJsonToBeCalledJson)
{
    const response reply =
        service
            .send("POST", root + "/children",
                  {{"Authorization", "Bearer alice-token"}, {"Content-Type", "text/plain"}},
                  R"({"name": "x", "folder": {}})")
            .reply;
    EXPECT_EQ(reply.status, 415U);
}

TEST_F(MakingFolders, RefusesNamesThatTheStoreDoesNotAllow)
{
    EXPECT_EQ(code_of(make(R"({"name": "a*b", "folder": {}})", 400)), "invalidRequest");
    EXPECT_EQ(code_of(make(R"({"name": "Forms", "folder": {}})", 400)), "invalidRequest");
    EXPECT_EQ(make(R"({"name": "a ", "folder": {}})", 400, "bob")
                  .at("error")
                  .at("innerError")
                  .at("code")
                  .as_text(),
              "nameContainsInvalidCharacters");
}

TEST_F(MakingFolders, OnlyTheOlderConsumerStoreTakesTimes)
{
    const std::string body = R"({"name": "new", "folder": {}, "fileSystemInfo":
        {"lastModifiedDateTime": "2020-01-02T03:04:05.678Z"}})";
    const auto modified = [&](const char *account) {
        return std::string(
            make(body, 201, account).at("fileSystemInfo").at("lastModifiedDateTime").as_text());
    };
    EXPECT_EQ(modified("bob"), "2020-01-02T03:04:05.678Z");
    EXPECT_GT(modified("alice"), "2026");
    EXPECT_GT(modified("dora"), "2026");
}

TEST_F(Updating, AnEmptyObjectChangesNothing)
{
    const std::string etag = text_at("/one.txt", "eTag");
    EXPECT_EQ(patch("/one.txt", "{}", 200).at("eTag").as_text(), etag);
}

TEST_F(Updating, RenamesAndKeepsTheId)
{
    const std::string id = id_of("/one.txt");
    const std::string etag = text_at("/one.txt", "eTag");
    const json renamed = patch("/one.txt", R"({"name": "uno.csv"})", 200);
    EXPECT_EQ(renamed.at("id").as_text(), id);
    EXPECT_EQ(renamed.at("name").as_text(), "uno.csv");
    EXPECT_EQ(renamed.at("file").at("mimeType").as_text(), "text/csv");
    EXPECT_NE(renamed.at("eTag").as_text(), etag);
    EXPECT_EQ(code_of(item_at("/one.txt", "alice", 404)), "itemNotFound");
}

TEST_F(Updating, ARenameResetsTheClientsTimeUnlessItIsSentAgain)
{
    EXPECT_GT(patch("/one.txt", R"({"name": "a.txt"})", 200)
                  .at("fileSystemInfo")
                  .at("lastModifiedDateTime")
                  .as_text(),
              "2026");
    EXPECT_EQ(patch("/a.txt",
                    R"({"name": "b.txt", "fileSystemInfo":
                        {"lastModifiedDateTime": "2024-01-01T00:00:00Z"}})",
                    200)
                  .at("fileSystemInfo")
                  .at("lastModifiedDateTime")
                  .as_text(),
              "2024-01-01T00:00:00Z");
}

TEST_F(Updating, ATakenNameIsAConflictAndChangesNothing)
{
    EXPECT_EQ(code_of(patch("/one.txt", R"({"name": "DIR"})", 409)), "nameAlreadyExists");
    EXPECT_EQ(
        code_of(patch("/one.txt",
                      R"({"name": "dir", "@microsoft.graph.conflictBehavior": "replace"})", 409)),
        "nameAlreadyExists");
    EXPECT_EQ(text_at("/one.txt", "name"), "one.txt");
}

TEST_F(Updating, TheCaseAndTheFormOfANameMayBeChanged)
{
    EXPECT_EQ(patch("/one.txt", R"({"name": "ONE.txt"})", 200).at("name").as_text(), "ONE.txt");
    patch("/one.txt", "{\"name\": \"u\u0308.txt\"}", 200);
    EXPECT_EQ(patch("/%C3%BC.txt", "{\"name\": \"\u00FC.txt\"}", 200).at("name").as_text(),
              "\u00FC.txt");
}

TEST_F(Updating, RefusesNamesThatTheStoreDoesNotAllow)
{
    EXPECT_EQ(code_of(patch("/one.txt", R"({"name": "a|b"})", 400)), "invalidRequest");
    EXPECT_EQ(code_of(patch("/one.txt", R"({"name": null})", 400)), "invalidRequest");
    EXPECT_EQ(code_of(patch("/dir", R"({"name": "~dir"})", 400)), "invalidRequest");
}

TEST_F(Updating, CutsTimesToWhatTheStoreKeeps)
{
    const std::string body = R"({"fileSystemInfo": {"createdDateTime": "2020-01-01T00:00:00.5Z",
        "lastModifiedDateTime": "2021-02-03T04:05:06.789Z"}})";
    const auto times = [&](const char *account) {
        const json info = patch("/one.txt", body, 200, account).at("fileSystemInfo");
        return std::string(info.at("createdDateTime").as_text()) + " " +
               std::string(info.at("lastModifiedDateTime").as_text());
    };
    EXPECT_EQ(times("alice"), "2020-01-01T00:00:00Z 2021-02-03T04:05:06Z");
    EXPECT_EQ(times("dora"), "2020-01-01T00:00:00Z 2021-02-03T04:05:06Z");
    EXPECT_EQ(times("bob"), "2020-01-01T00:00:00.5Z 2021-02-03T04:05:06.789Z");
}

TEST_F(Updating, TheClientsTimeIsTheItemsInWorkStoresOnly)
{
    const std::string body =
        R"({"fileSystemInfo": {"lastModifiedDateTime": "2021-02-03T04:05:06Z"}})";
    const std::string before = text_at("/one.txt", "lastModifiedDateTime", "bob");
    EXPECT_EQ(patch("/one.txt", body, 200).at("lastModifiedDateTime").as_text(),
              "2021-02-03T04:05:06Z");
    EXPECT_EQ(patch("/one.txt", body, 200, "bob").at("lastModifiedDateTime").as_text(), before);
}

TEST_F(Updating, RefusesWhatIsNoTimeBeforeAnythingChanges)
{
    EXPECT_EQ(
        code_of(patch("/one.txt",
                      R"({"name": "x", "fileSystemInfo": {"lastModifiedDateTime": "now"}})", 400)),
        "invalidRequest");
    EXPECT_EQ(code_of(patch("/one.txt", R"({"fileSystemInfo": "2020"})", 400)), "invalidRequest");
    EXPECT_EQ(text_at("/one.txt", "name"), "one.txt");
}

TEST_F(Updating, OnlyTheOlderConsumerStoreKeepsADescription)
{
    const std::string body = R"({"description": "mine"})";
    EXPECT_EQ(patch("/one.txt", body, 200, "bob").at("description").as_text(), "mine");
    EXPECT_FALSE(patch("/one.txt", body, 200, "dora").at("description"));
    EXPECT_FALSE(patch("/one.txt", body, 200).at("description"));
}

TEST_F(Updating, TheRootIsRefused)
{
    EXPECT_EQ(refusal("PATCH", root, R"({"name": "x"})", 403), "accessDenied");
    EXPECT_EQ(refusal("PATCH", root, R"({"name": "x"})", 403, "bob"), "accessDenied");
}

TEST_F(Updating, IfMatchTakesEitherTag)
{
    const auto with = [&](const std::string &tag, unsigned status) {
        return service.change("alice", "PATCH", root + ":/one.txt", "{}", status,
                              {{"If-Match", tag}});
    };
    with(text_at("/one.txt", "eTag"), 200);
    with(text_at("/one.txt", "cTag"), 200);
    with("*", 200);
    EXPECT_EQ(code_of(with("\"{0},1\"", 412)), "resourceModified");
}

TEST_F(Updating, WhatIsNotThereIsNotFound)
{
    EXPECT_EQ(code_of(patch("/nowhere.txt", "{}", 404)), "itemNotFound");
}

TEST_F(Moving, GoesByTheIdOfTheNewFolder)
{
    const std::string id = id_of("/one.txt");
    patch("/one.txt", moved_to(id_of("/dir")), 200);
    EXPECT_EQ(id_of("/dir/one.txt"), id);
    EXPECT_EQ(item_at("/dir").at("size").as_integer(), 10);
    EXPECT_THAT(children("/dir"), ElementsAre("one.txt", "sub", "two.txt"));
}

TEST_F(Moving, GoesByPathInItsVariousForms)
{
    const std::string drive = "/drives/" + drive_id();
    for (const std::string &path :
         {std::string("/drive/root:/dir/sub"), drive + "/root:/dir/sub",
          std::string("/drive/root:"), drive + "/root", std::string("/drive/root:/dir/s%75b")}) {
        const json moved =
            service.change("alice", "PATCH", root + ":/dir/two.txt",
                           R"({"parentReference": {"path": ")" + path + R"("}})", 200);
        const std::string parent = path.ends_with("b") ? "/dir/sub" : "";
        EXPECT_EQ(moved.at("parentReference").at("id").as_text(), id_of(parent)) << path;
        service.change("alice", "PATCH",
                       "/v1.0/me/drive/items/" + std::string(moved.at("id").as_text()),
                       moved_to(id_of("/dir")), 200);
    }
}

TEST_F(Moving, RefusesPathsOfOtherFormsAndThoseThatLeadNowhere)
{
    const auto to = [&](const char *path, unsigned status) {
        return code_of(patch("/one.txt",
                             R"({"parentReference": {"path": ")" + std::string(path) + R"("}})",
                             status));
    };
    EXPECT_EQ(to("/dir", 400), "invalidRequest");
    EXPECT_EQ(to("dir", 400), "invalidRequest");
    EXPECT_EQ(to("/drive/root:/nowhere", 404), "itemNotFound");
    EXPECT_EQ(to("/drive/root:/%zz", 404), "itemNotFound");
    EXPECT_EQ(to("/drives/none/root:/dir", 404), "itemNotFound");
}

TEST_F(Moving, MayRenameAtOnce)
{
    patch("/one.txt", R"({"name": "new", "parentReference": {"id": ")" + id_of("/dir/sub") + "\"}}",
          200);
    EXPECT_THAT(children("/dir/sub"), ElementsAre("new", "three.txt"));
}

TEST_F(Moving, AnUnknownFolderIsPassedOverSilently)
{
    EXPECT_EQ(patch("/one.txt", R"({"name": "a", "parentReference": {"id": "01NONE"}})", 200)
                  .at("parentReference")
                  .at("id")
                  .as_text(),
              id_of(""));
    EXPECT_EQ(patch("/dir/two.txt", moved_to("root"), 200).at("parentReference").at("id").as_text(),
              id_of("/dir"))
        << "the word root is no id";
}

TEST_F(Moving, ATakenNameInTheNewFolderIsAConflict)
{
    patch("/one.txt", R"({"name": "TWO.txt"})", 200);
    EXPECT_EQ(code_of(patch("/TWO.txt", moved_to(id_of("/dir")), 409)), "nameAlreadyExists");
}

TEST_F(Moving, AFolderCannotGoIntoItselfOrBelow)
{
    EXPECT_EQ(code_of(patch("/dir", moved_to(id_of("/dir")), 400)), "invalidRequest");
    EXPECT_EQ(code_of(patch("/dir", moved_to(id_of("/dir/sub")), 400)), "invalidRequest");
    EXPECT_EQ(code_of(patch("/dir", moved_to(id_of("/one.txt")), 400)), "invalidRequest");
}

TEST_F(Moving, AWholeFolderMustFitIntoTheLongestPath)
{
    const std::string long_name(250, 'a');
    make(R"({"name": ")" + long_name + R"(", "folder": {}})", 201);
    patch("/dir/sub", R"({"name": ")" + std::string(130, 'b') + "\"}", 200);
    EXPECT_EQ(patch("/dir", moved_to(id_of("/" + long_name)), 200).at("name").as_text(), "dir");
    patch("/" + long_name + "/dir/" + std::string(130, 'b'),
          R"({"name": ")" + std::string(135, 'b') + "\"}", 200);
    EXPECT_EQ(patch("/" + long_name + "/dir/" + std::string(135, 'b'),
                    R"({"name": ")" + std::string(136, 'b') + "\"}", 400)
                  .at("error")
                  .at("innerError")
                  .at("code")
                  .as_text(),
              "pathIsTooLong");
}

TEST_F(Moving, ReachesAnotherDriveOfTheTenantUnderANewId)
{
    const std::string library = drive_id("/sites/contoso.sharepoint.com:/sites/team:/drive");
    const std::string address = "/v1.0/drives/" + library + "/root";
    const std::string parent(service.get_json("alice", address).at("id").as_text());
    const std::string id = id_of("/dir");
    const json moved = patch(
        "/dir",
        R"({"parentReference": {"driveId": ")" + library + R"(", "id": ")" + parent + "\"}}", 200);
    EXPECT_NE(moved.at("id").as_text(), id);
    EXPECT_EQ(moved.at("parentReference").at("driveId").as_text(), library);
    EXPECT_EQ(service.get_json("alice", address + ":/dir/sub/three.txt").at("size").as_integer(),
              3);
    EXPECT_EQ(code_of(item_at("/dir", "alice", 404)), "itemNotFound");
    EXPECT_EQ(item_at("").at("size").as_integer(), 7);
}

TEST_F(Moving, DoesNotReachADriveWithoutItsIdOrOfAnotherTenant)
{
    const std::string library = drive_id("/sites/contoso.sharepoint.com:/sites/team:/drive");
    const std::string parent(
        service.get_json("alice", "/v1.0/drives/" + library + "/root").at("id").as_text());
    EXPECT_EQ(patch("/dir", moved_to(parent), 200).at("parentReference").at("id").as_text(),
              id_of(""));
    const std::string foreign = drive_id("/sites/contoso.sharepoint.com:/sites/other:/drive");
    const std::string other(
        service.get_json("alice", "/v1.0/drives/" + foreign + "/root").at("id").as_text());
    EXPECT_EQ(code_of(patch("/dir",
                            R"({"parentReference": {"driveId": ")" + foreign + R"(", "id": ")" +
                                other + "\"}}",
                            400)),
              "invalidRequest");
}

TEST_F(Deleting, TakesAFolderWithEverythingInIt)
{
    const header_list bearer{{"Authorization", "Bearer alice-token"}};
    const std::string three = id_of("/dir/sub/three.txt");
    const response reply = service.send("DELETE", root + ":/dir", bearer).reply;
    EXPECT_EQ(reply.status, 204U);
    EXPECT_EQ(reply.body, "");
    EXPECT_EQ(code_of(service.get_json("alice", "/v1.0/me/drive/items/" + three, 404)),
              "itemNotFound");
    EXPECT_EQ(item_at("").at("size").as_integer(), 7);
    EXPECT_EQ(item_at("").at("folder").at("childCount").as_integer(), 4);
}

TEST_F(Deleting, AgainIsNotFound)
{
    service.change("alice", "DELETE", root + ":/one.txt", "", 204);
    EXPECT_EQ(refusal("DELETE", root + ":/one.txt", "", 404), "itemNotFound");
}

TEST_F(Deleting, TheRootIsRefused)
{
    EXPECT_EQ(refusal("DELETE", root, "", 403), "accessDenied");
    EXPECT_EQ(refusal("DELETE", "/v1.0/me/drive/items/" + id_of(""), "", 403), "accessDenied");
}

TEST_F(Deleting, KeepsAnItemThatHasChangedMeanwhile)
{
    EXPECT_EQ(refusal("DELETE", root + ":/one.txt", "", 412, "alice", {{"If-Match", "x"}}),
              "resourceModified");
    service.change("alice", "DELETE", root + ":/one.txt", "", 204,
                   {{"If-Match", text_at("/one.txt", "eTag")}});
}

TEST_F(Deleting, ForGoodWorksInWorkStoresOnly)
{
    service.change("alice", "POST", root + ":/one.txt:/permanentDelete", "", 204);
    EXPECT_EQ(item_at("/one.txt", "alice", 404).at("error").at("code").as_text(), "itemNotFound");
    EXPECT_EQ(service.get_json("alice", "/v1.0/me/drive").at("quota").at("deleted").as_integer(),
              0);
    EXPECT_EQ(refusal("POST", root + ":/one.txt:/permanentDelete", "", 400, "bob"), "notSupported");
}

TEST_F(Rights, AShareForReadingRefusesEveryChange)
{
    const std::string shared = "/v1.0/drives/" + drive_id() + "/items/" + id_of("/read");
    const std::string folder = R"({"name": "new", "folder": {}})";
    EXPECT_EQ(service.get_json("carol", shared + ":/r.txt").at("name").as_text(), "r.txt");
    EXPECT_EQ(refusal("POST", shared + "/children", folder, 403, "carol"), "accessDenied");
    EXPECT_EQ(refusal("PATCH", shared + ":/r.txt", R"({"name": "x"})", 403, "carol"),
              "accessDenied");
    EXPECT_EQ(refusal("DELETE", shared + ":/r.txt", "", 403, "carol"), "accessDenied");
}

TEST_F(Rights, AShareForWritingTakesChangesBelowIt)
{
    const std::string shared = "/v1.0/drives/" + drive_id() + "/items/" + id_of("/write");
    service.change("carol", "POST", shared + "/children", R"({"name": "new", "folder": {}})", 201);
    service.change("carol", "PATCH", shared + ":/w.txt", moved_to(id_of("/write/new")), 200);
    service.change("carol", "DELETE", shared + ":/new/w.txt", "", 204);
    EXPECT_EQ(item_at("/write/new").at("folder").at("childCount").as_integer(), 0);
}

TEST_F(Rights, NothingMovesIntoAShareForReading)
{
    const std::string shared = "/v1.0/drives/" + drive_id() + "/items/" + id_of("/write");
    EXPECT_EQ(refusal("PATCH", shared + ":/w.txt", moved_to(id_of("/read")), 403, "carol"),
              "accessDenied");
    EXPECT_EQ(service.change("carol", "PATCH", shared + ":/w.txt", moved_to(id_of("/dir")), 200)
                  .at("parentReference")
                  .at("id")
                  .as_text(),
              id_of("/write"))
        << "a folder that is not seen is an unknown one";
}

TEST_F(Rights, ALibraryIsWrittenByFollowersAndNotByVisitors)
{
    const std::string library = "/v1.0/sites/contoso.sharepoint.com:/sites/team:/drive";
    const std::string id(service.get_json("alice", library).at("id").as_text());
    const std::string folder = R"({"name": "new", "folder": {}})";
    EXPECT_EQ(
        service.get_json("carol", "/v1.0/drives/" + id + "/root:/plan.txt").at("size").as_integer(),
        4);
    EXPECT_EQ(refusal("POST", "/v1.0/drives/" + id + "/root/children", folder, 403, "carol"),
              "accessDenied");
    service.change("alice", "POST", "/v1.0/drives/" + id + "/root/children", folder, 201);
}

TEST_F(Rights, WhatIsNotSharedIsNotThere)
{
    EXPECT_EQ(refusal("DELETE", "/v1.0/drives/" + drive_id() + "/items/" + id_of("/dir"), "", 404,
                      "carol"),
              "itemNotFound");
    EXPECT_EQ(
        refusal("DELETE", "/v1.0/drives/" + drive_id() + "/items/" + id_of("/dir"), "", 403, "bob"),
        "accessDenied");
}

TEST_F(Locks, KeepAnItemAsItIs)
{
    EXPECT_EQ(code_of(patch("/locked.txt", R"({"name": "x"})", 423)), "notAllowed");
    EXPECT_EQ(refusal("DELETE", root + ":/locked.txt", "", 423), "notAllowed");
    EXPECT_EQ(text_at("/locked.txt", "name"), "locked.txt");
}

TEST_F(Locks, HoldForTheFoldersAboveAndWhatIsBelow)
{
    service.control("POST", "items", R"({"account": "alice", "path": "/dir/sub", "locked": true})");
    EXPECT_EQ(refusal("DELETE", root + ":/dir", "", 423), "notAllowed");
    EXPECT_EQ(code_of(patch("/dir", R"({"name": "x"})", 423)), "notAllowed");
    EXPECT_EQ(code_of(patch("/dir/sub/three.txt", R"({"name": "x"})", 423)), "notAllowed");
    EXPECT_EQ(refusal("POST", root + ":/dir/sub:/children", R"({"name": "x", "folder": {}})", 423),
              "notAllowed");
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/dir/sub", "locked": false})");
    service.change("alice", "DELETE", root + ":/dir", "", 204);
}

TEST_F(Quota, FollowsTheUse)
{
    const auto quota = [&](const char *member) {
        return service.get_json("alice", "/v1.0/me/drive").at("quota").at(member).as_integer();
    };
    EXPECT_EQ(quota("used"), 12);
    EXPECT_EQ(quota("remaining"), 88);
    service.change("alice", "DELETE", root + ":/one.txt", "", 204);
    EXPECT_EQ(quota("used"), 7);
    EXPECT_EQ(quota("remaining"), 93);
    EXPECT_EQ(quota("deleted"), 5);
    EXPECT_EQ(quota("total"), 100);
}

TEST_F(Quota, RefusesWhatAnotherDriveBringsTooMuch)
{
    service.control("POST", "items", R"({"site": "team", "library": "Documents", "path": "/big",
                                         "item": {"size": 89, "pattern": "zero"}})");
    const std::string library = drive_id("/sites/contoso.sharepoint.com:/sites/team:/drive");
    const std::string body = R"({"parentReference": {"driveId": ")" + drive_id() + R"(", "id": ")" +
                             id_of("/dir") + "\"}}";
    EXPECT_EQ(refusal("PATCH", "/v1.0/drives/" + library + "/root:/big", body, 507),
              "quotaLimitReached");
    EXPECT_EQ(
        service.get_json("alice", "/v1.0/drives/" + library + "/root:/big").at("size").as_integer(),
        89);
}

TEST_F(Ordering, ListsComeInTheOrderThatIsAskedFor)
{
    const auto listed = [&](const std::string &order) {
        return names_of(service.get_json("alice", root + "/children?$orderby=" + order));
    };
    EXPECT_THAT(listed("name%20desc"),
                ElementsAre("write", "read", "one.txt", "locked.txt", "dir"));
    EXPECT_THAT(listed("size"), ElementsAre("locked.txt", "read", "write", "dir", "one.txt"));
    EXPECT_THAT(listed("size%20desc"),
                ElementsAre("one.txt", "dir", "write", "read", "locked.txt"));
    patch("/dir", R"({"fileSystemInfo": {"lastModifiedDateTime": "2000-01-01T00:00:00Z"}})", 200);
    EXPECT_EQ(listed("lastModifiedDateTime%20asc").front(), "dir");
    EXPECT_EQ(service.error_code("alice", root + "/children?$orderby=eTag", 400), "invalidRequest");
}

TEST_F(Ordering, GoesThroughAllPages)
{
    const json page = service.get_json("alice", root + "/children?$orderby=size%20desc&$top=3");
    EXPECT_THAT(names_of(page), ElementsAre("one.txt", "dir", "write"));
    const std::string next(page.at("@odata.nextLink").as_text());
    EXPECT_THAT(names_of(service.get_json("alice", next.substr(next.find("/v1.0")))),
                ElementsAre("read", "locked.txt"));
}

TEST_F(Ordering, ExpandingBringsWhatIsInAFolderAlong)
{
    service.control("POST", "settings", R"({"default_page": 1})");
    const json shown = service.get_json("alice", root + ":/dir?$expand=children");
    const json inside = shown.at("children");
    ASSERT_EQ(json_array_size(inside.get()), 1U);
    EXPECT_EQ(json::share(json_array_get(inside.get(), 0)).at("name").as_text(), "sub");
    const std::string next(shown.at("children@odata.nextLink").as_text());
    EXPECT_THAT(names_of(service.get_json("alice", next.substr(next.find("/v1.0")))),
                ElementsAre("two.txt"));
    EXPECT_FALSE(service.get_json("alice", root + ":/one.txt?$expand=children").at("children"));
}

TEST_F(Changes, AreRecordedByTheirKinds)
{
    make(R"({"name": "new", "folder": {}})", 201);
    patch("/new", R"({"name": "newer"})", 200);
    service.change("alice", "DELETE", root + ":/newer", "", 204);
    const json record = service.control("GET", "requests").at("requests");
    std::vector<std::string> kinds;
    for (size_t i = 0; i < json_array_size(record.get()); ++i) {
        kinds.emplace_back(json::share(json_array_get(record.get(), i)).at("kind").as_text());
    }
    EXPECT_THAT(kinds, ElementsAre("create", "update", "remove"));
}

TEST_F(Changes, AreMetByFaultRulesOfTheirKinds)
{
    service.control("POST", "faults",
                    R"({"match": {"kind": "remove", "nth": 1}, "action": {"status": 503}})");
    EXPECT_EQ(refusal("DELETE", root + ":/one.txt", "", 503), "serviceNotAvailable");
    EXPECT_EQ(text_at("/one.txt", "name"), "one.txt");
    service.change("alice", "DELETE", root + ":/one.txt", "", 204);
}

} // namespace graph_sim
