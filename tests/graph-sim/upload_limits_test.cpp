// Uploads that rights, locks and the quota refuse.
#include "sim_fixture.h"

#include <gtest/gtest.h>

namespace graph_sim {

namespace {

constexpr const char *seed = R"({"accounts": [
  {"name": "alice", "tokens": ["alice-token"], "drive": {"quota": 100, "children": [
    {"name": "old.txt", "text": "0123456789"},
    {"name": "locked.txt", "text": "", "locked": true},
    {"name": "read", "children": [{"name": "a.txt", "text": "a"}]}]}},
  {"name": "bob", "tokens": ["bob-token"],
   "shared": [{"owner": "alice", "path": "/read", "role": "read"}]}]})";

const std::string root = "/v1.0/me/drive/root:/";

class UploadLimits : public testing::Test {
  protected:
    response put(const std::string &target, const std::string &body,
                 const std::string &account = "alice")
    {
        return service
            .send("PUT", target,
                  {{"Authorization", "Bearer " + account + "-token"},
                   {"Content-Length", std::to_string(body.size())}},
                  body)
            .reply;
    }

    static std::string code_of(const response &reply)
    {
        return std::string(json::parse(reply.body, "answer").at("error").at("code").as_text());
    }

    response create(const std::string &path, const std::string &body = "{}")
    {
        return service
            .send("POST", root + path + ":/createUploadSession",
                  {{"Authorization", "Bearer alice-token"}, {"Content-Type", "application/json"}},
                  body)
            .reply;
    }

    std::string opened(const std::string &path)
    {
        const std::string url(json::parse(create(path).body, "session").at("uploadUrl").as_text());
        return url.substr(std::string("http://graph.test").size());
    }

    response fragment(const std::string &target, const std::string &bytes)
    {
        const std::string size = std::to_string(bytes.size());
        return service
            .send("PUT", target,
                  {{"Content-Range", "bytes 0-" + std::to_string(bytes.size() - 1) + "/" + size},
                   {"Content-Length", size}},
                  bytes)
            .reply;
    }

    sim service{seed};
};

} // namespace

TEST_F(UploadLimits, AFileThatDoesNotFitIntoTheQuotaIsRefused)
{
    const response reply = put(root + "big.bin:/content", std::string(90, 'x'));
    EXPECT_EQ(reply.status, 507U);
    EXPECT_EQ(code_of(reply), "quotaLimitReached");
    EXPECT_EQ(put(root + "fits.bin:/content", std::string(89, 'x')).status, 201U);
}

TEST_F(UploadLimits, ALockedFileIsNotReplaced)
{
    EXPECT_EQ(put(root + "locked.txt:/content", "x").status, 423U);
    EXPECT_EQ(create("locked.txt").status, 423U);
}

TEST_F(UploadLimits, AShareForReadingTakesNoUploads)
{
    const json shared = service.get_json("bob", "/v1.0/me/drive/sharedWithMe");
    const json remote = json::share(json_array_get(shared.at("value").get(), 0)).at("remoteItem");
    const std::string folder = "/v1.0/drives/" +
                               std::string(remote.at("parentReference").at("driveId").as_text()) +
                               "/items/" + std::string(remote.at("id").as_text());
    const response reply = put(folder + ":/new.txt:/content", "x", "bob");
    EXPECT_EQ(reply.status, 403U);
    EXPECT_EQ(code_of(reply), "accessDenied");
}

TEST_F(UploadLimits, ASessionForMoreThanTheQuotaIsNotOpened)
{
    EXPECT_EQ(create("big.bin", R"({"item": {"fileSize": 90}})").status, 507U);
    EXPECT_EQ(create("big.bin", R"({"item": {"fileSize": 89}})").status, 200U);
}

TEST_F(UploadLimits, AFragmentThatNoLongerFitsIsRefusedAndTheSessionStays)
{
    const std::string target = opened("new.bin");
    EXPECT_EQ(put(root + "other.bin:/content", std::string(80, 'x')).status, 201U);
    const response reply = fragment(target, std::string(20, 'y'));
    EXPECT_EQ(reply.status, 507U);
    EXPECT_EQ(code_of(reply), "quotaLimitReached");
    service.control("POST", "items",
                    R"({"account": "alice", "path": "/other.bin", "remove": true})");
    EXPECT_EQ(fragment(target, std::string(20, 'y')).status, 201U);
}

TEST_F(UploadLimits, ATargetThatWasLockedMeanwhileIsRefusedAtTheLastFragment)
{
    const std::string target = opened("old.txt");
    service.control("POST", "items", R"({"account": "alice", "path": "/old.txt", "locked": true})");
    EXPECT_EQ(fragment(target, "new").status, 423U);
}

} // namespace graph_sim
