// Reading seeds and importing folders.
#include "sim_fixture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace graph_sim {

namespace {

namespace fs = std::filesystem;

std::string refusal(const std::string &seed)
{
    try {
        const sim service(seed);
    } catch (const input_error &error) {
        return error.what();
    }
    return "";
}

std::string with_children(const std::string &children)
{
    return R"({"accounts": [{"name": "alice", "tokens": ["alice-token"], "drive": {"children": [)" +
           children + "]}}]}";
}

std::string content_at(sim &service, const std::string &path)
{
    return body_bytes(service
                          .send("GET", service.download_target(
                                           "alice", "/v1.0/me/drive/root:" + path + ":/content"))
                          .reply);
}

class temporary_folder {
  public:
    temporary_folder()
    {
        std::string name = (fs::temp_directory_path() / "seed_test.XXXXXX").string();
        path_ = mkdtemp(name.data());
    }
    ~temporary_folder() { fs::remove_all(path_); }
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;
    [[nodiscard]] const std::string &path() const { return path_; }
    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(path_ + "/" + name, std::ios::binary) << text;
    }

  private:
    std::string path_;
};

} // namespace

TEST(Seed, DescribesContentInEveryForm)
{
    sim service(
        with_children(R"({"name": "t", "text": "Grüße"}, {"name": "b", "base64": "AAEC/w=="},
        {"name": "c", "size": 4}, {"name": "r", "size": 3, "pattern": "random+1"}, {"name": "z", "size": 2, "pattern": "zero"})"));
    EXPECT_EQ(content_at(service, "/t"), "Grüße");
    EXPECT_EQ(content_at(service, "/b"), std::string("\0\1\2\xFF", 4));
    EXPECT_EQ(content_at(service, "/c"), std::string("\0\1\2\3", 4));
    EXPECT_EQ(content_at(service, "/r").size(), 3U);
    EXPECT_EQ(content_at(service, "/z"), std::string(2, '\0'));
}

TEST(Seed, GeneratesNumberedItems)
{
    sim service(with_children(
        R"({"generate": {"count": 12, "name": "f-##.txt", "size": 1}}, {"generate": {"count": 2, "name": "d#", "folder": true}})"));
    const auto names = names_of(service.get_json("alice", "/v1.0/me/drive/root/children"));
    EXPECT_EQ(names.size(), 14U);
    EXPECT_THAT(names, testing::IsSupersetOf({"d1", "d2", "f-01.txt", "f-12.txt"}));
}

TEST(Seed, SetsTimesIdsTypesAndHashes)
{
    sim service(with_children(
        R"({"name": "a", "text": "x", "id": "MY-ID", "created": "2001-01-01T00:00:00Z", "modified": "2002-02-02T00:00:00Z",
        "mime_type": "x/y", "hashes": {"quickXorHash": "given"}}, {"name": "b", "text": "x", "hashes": false})"));
    const json a = service.get_json("alice", "/v1.0/me/drive/items/MY-ID");
    EXPECT_EQ(a.at("createdDateTime").as_text(), "2001-01-01T00:00:00Z");
    EXPECT_EQ(a.at("fileSystemInfo").at("lastModifiedDateTime").as_text(), "2002-02-02T00:00:00Z");
    EXPECT_EQ(a.at("file").at("mimeType").as_text(), "x/y");
    EXPECT_EQ(a.at("file").at("hashes").at("quickXorHash").as_text(), "given");
    EXPECT_FALSE(service.get_json("alice", "/v1.0/me/drive/root:/b").at("file").at("hashes"));
}

TEST(Seed, LaysExtraMembersOverAnItem)
{
    sim service(with_children(
        R"({"name": "a", "text": "x", "extra": {"name": null, "size": 99, "malware": {}}})"));
    const json whole = service.get_json("alice", "/v1.0/me/drive/root:/a");
    EXPECT_FALSE(whole.at("name"));
    EXPECT_EQ(whole.at("size").as_integer(), 99);
    EXPECT_TRUE(whole.at("malware"));
    const json selected = service.get_json("alice", "/v1.0/me/drive/root:/a?$select=size");
    EXPECT_FALSE(selected.at("malware"));
    EXPECT_EQ(selected.at("size").as_integer(), 99);
}

TEST(Seed, LaysExtraMembersOverSharedEntriesAndSites)
{
    sim service(R"({"accounts": [{"name": "alice", "tokens": ["alice-token"], "follows": ["s"],
            "shared": [{"owner": "carol", "path": "/x", "extra": {"name": "outer"}, "remote_extra": {"name": null}}]},
        {"name": "carol", "drive": {"children": [{"name": "x", "folder": true}]}}],
        "sites": [{"name": "s", "display_name": "a/b", "extra": {"name": null}}]})");
    const json shared = service.get_json("alice", "/v1.0/me/drive/sharedWithMe");
    const json entry = json::share(json_array_get(shared.at("value").get(), 0));
    EXPECT_EQ(entry.at("name").as_text(), "outer");
    EXPECT_FALSE(entry.at("remoteItem").at("name"));
    const json sites = service.get_json("alice", "/v1.0/me/followedSites");
    EXPECT_FALSE(json::share(json_array_get(sites.at("value").get(), 0)).at("name"));
}

TEST(Seed, TokensMayHaveExpired)
{
    sim service(
        R"({"accounts": [{"name": "alice", "tokens": ["alice-token", {"token": "old-token", "expires": "2020-01-01T00:00:00Z"}]}]})");
    EXPECT_EQ(service.get("old", "/v1.0/me").status, 401U);
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 200U);
}

TEST(Seed, AnAccountMayHaveNoDrive)
{
    sim service(R"({"accounts": [{"name": "alice", "tokens": ["alice-token"], "drive": null}]})");
    EXPECT_EQ(service.error_code("alice", "/v1.0/me/drive/root", 404), "ResourceNotFound");
}

TEST(Seed, MistakesAreNamedWithTheirPlace)
{
    EXPECT_EQ(refusal("{"), "seed:1:1: string or '}' expected near end of file");
    EXPECT_EQ(refusal("{}"), "seed: /: \"accounts\" needs at least one account");
    EXPECT_EQ(refusal(R"({"accounts": [{}]})"), "seed: /accounts/0: \"name\" is missing or empty");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a"}, {"name": "a"}]})"),
              "seed: /accounts/1: \"name\" is used twice");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a", "colour": 1}]})"),
              "seed: /accounts/0: \"colour\" is not known here");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a", "kind": "work"}]})"),
              "seed: /accounts/0: \"kind\" is \"business\", \"personal\" or \"personal-new\"");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a", "follows": ["x"]}]})"),
              "seed: /accounts/0/follows/0: the name of a site is needed");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a", "shared": [{"owner": "a", "path": "/x"}]}]})"),
              "seed: /accounts/0/shared/0: \"path\" is not there in the owner's drive");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a", "shared":
                  [{"owner": "a", "path": "/", "role": "own"}]}]})"),
              "seed: /accounts/0/shared/0: \"role\" is \"write\" or \"read\"");
    EXPECT_EQ(
        refusal(R"({"accounts": [{"name": "a"}], "sites": [{"name": "s", "visitors": ["b"]}]})"),
        "seed: /sites/0/visitors/0: the name of an account is needed");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a"}], "settings": {"default_page": 0}})"),
              "seed: /settings: \"default_page\" a whole number from 1 to 100000 is needed");
    EXPECT_EQ(refusal(R"({"accounts": [{"name": "a"}], "sites": [{"name": "s", "site_id": "x"}]})"),
              "seed: /sites/0: \"site_id\" is a GUID such as 48d31887-5fad-4d73-a9f5-3c356e68a038");
    EXPECT_THAT(refusal(R"({"accounts": [{"name": "a"}], "faults": {"rules": [{}]}})"),
                testing::StartsWith("seed: /faults/rules/0: "));
}

TEST(Seed, MistakesInItemsAreNamedWithTheirPlace)
{
    const std::string place = "seed: /accounts/0/drive/children/0: ";
    EXPECT_EQ(refusal(with_children(R"({"name": "a:b", "text": ""})")),
              place + "\"name\" is not a name that the service allows");
    EXPECT_EQ(refusal(with_children(R"({"name": "a"})")),
              place + R"(needs either a content, or "children", "import" or "folder": true)");
    EXPECT_EQ(refusal(with_children(R"({"name": "a", "text": "", "size": 1})")),
              place + R"(a content is "text", "base64", or "size" with "pattern")");
    EXPECT_EQ(refusal(with_children(R"({"name": "a", "size": 1, "pattern": "x"})")),
              place + R"("pattern" is "zero", "cycle", "cycle+K", "random" or "random+K")");
    EXPECT_EQ(refusal(with_children(R"({"name": "a", "base64": "?"})")),
              place + "\"base64\" is not base64");
    EXPECT_EQ(refusal(with_children(R"({"name": "a", "text": "", "modified": "yesterday"})")),
              place + "\"modified\" is a time such as 2024-05-02T09:12:03Z");
    EXPECT_EQ(refusal(with_children(R"({"name": "a", "text": ""}, {"name": "A", "text": ""})")),
              "seed: /accounts/0/drive/children/1: \"name\" or its \"id\" is there already");
    EXPECT_THAT(refusal(with_children(R"({"name": "a", "import": "/no/such/folder"})")),
                testing::HasSubstr("/no/such/folder: cannot be read"));
}

TEST(Seed, TheSampleHoldsWhatItsPagePromises)
{
    sim service;
    EXPECT_EQ(service.get_json("alice", "/v1.0/me/drive/root:/Many")
                  .at("folder")
                  .at("childCount")
                  .as_integer(),
              1000);
    EXPECT_EQ(
        service.get_json("alice", "/v1.0/me/drive/root:/Data/four-GiB.bin").at("size").as_integer(),
        4294967296);
    EXPECT_EQ(names_of(service.get_json("bob", "/v1.0/me/drive/sharedWithMe")),
              (std::vector<std::string>{"Holiday photos", "recipe.md"}));
    EXPECT_EQ(
        json_array_size(service.get_json("alice", "/v1.0/me/followedSites").at("value").get()), 2U);
}

TEST(Import, ServesADirectory)
{
    const temporary_folder folder;
    folder.write("a b.txt", "hello");
    fs::create_directories(folder.path() + "/sub/deep");
    folder.write("sub/deep/ä#.bin", std::string(3'000'000, 'x'));
    sim service(import_seed(folder.path()).dump());
    EXPECT_THAT(names_of(service.get_json("alice", "/v1.0/me/drive/root/children")),
                testing::ElementsAre("a b.txt", "sub"));
    EXPECT_EQ(content_at(service, "/a%20b.txt"), "hello");
    EXPECT_EQ(content_at(service, "/sub/deep/%C3%A4%23.bin"), std::string(3'000'000, 'x'));
}

TEST(Import, KeepsTheModificationTime)
{
    const temporary_folder folder;
    folder.write("a", "x");
    const timespec times[2] = {{1614834367, 0}, {1614834367, 500'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, (folder.path() + "/a").c_str(), times, 0), 0);
    sim service(import_seed(folder.path()).dump());
    EXPECT_EQ(service.get_json("alice", "/v1.0/me/drive/root:/a")
                  .at("fileSystemInfo")
                  .at("lastModifiedDateTime")
                  .as_text(),
              "2021-03-04T05:06:07Z");
}

TEST(Import, LeavesOutWhatTheServiceCannotHold)
{
    const temporary_folder folder;
    folder.write("good", "x");
    folder.write("bad:name", "x");
    folder.write("bad\xFFname", "x");
    fs::create_directory_symlink(folder.path(), folder.path() + "/circle");
    fs::create_symlink(folder.path() + "/good", folder.path() + "/link");
    testing::internal::CaptureStderr();
    sim service(import_seed(folder.path()).dump());
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, testing::HasSubstr("bad:name is left out"));
    EXPECT_THAT(said, testing::HasSubstr("circle is left out"));
    EXPECT_THAT(names_of(service.get_json("alice", "/v1.0/me/drive/root/children")),
                testing::ElementsAre("good", "link"));
}

} // namespace graph_sim
