// The record of requests.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

std::vector<std::int64_t> numbers(const json &record)
{
    std::vector<std::int64_t> found;
    const json entries = record.at("requests");
    for (size_t i = 0; i < json_array_size(entries.get()); ++i) {
        found.push_back(json::share(json_array_get(entries.get(), i)).at("number").as_integer());
    }
    return found;
}

request numbered_request(int i)
{
    request got;
    got.method = "GET";
    got.target = "/" + std::to_string(i);
    return got;
}

} // namespace

TEST(Record, TellsWhatARequestWas)
{
    sim service;
    service.get("alice", "/v1.0/me/drive/root:/a%20b:?$top=1", {{"X-Test", "yes"}});
    const json record = service.control("GET", "requests");
    ASSERT_EQ(json_array_size(record.at("requests").get()), 1U);
    const json entry = json::share(json_array_get(record.at("requests").get(), 0));
    EXPECT_EQ(entry.at("method").as_text(), "GET");
    EXPECT_EQ(entry.at("target").as_text(), "/v1.0/me/drive/root:/a%20b:?$top=1");
    EXPECT_EQ(entry.at("path").as_text(), "/v1.0/me/drive/root:/a b:");
    EXPECT_EQ(entry.at("query").as_text(), "$top=1");
    EXPECT_EQ(entry.at("kind").as_text(), "item");
    EXPECT_EQ(entry.at("account").as_text(), "alice");
    EXPECT_EQ(entry.at("status").as_integer(), 404);
    EXPECT_EQ(entry.at("headers").at("X-Test").as_text(), "yes");
    EXPECT_EQ(entry.at("connection").as_integer(), 1);
    EXPECT_GT(entry.at("wall_us").as_integer(), 1'600'000'000'000'000);
}

TEST(Record, KeepsTheLatestOnly)
{
    recorder kept(3);
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(kept.begin(numbered_request(i), request_kind::other, ""),
                  static_cast<unsigned>(i));
    }
    const json record = kept.list({});
    EXPECT_THAT(numbers(record), testing::ElementsAre(3, 4, 5));
    EXPECT_EQ(record.at("forgotten").as_integer(), 2);
    EXPECT_EQ(record.at("last").as_integer(), 5);
}

TEST(Record, ALateEndOfAForgottenRequestChangesNoOther)
{
    recorder kept(2);
    kept.begin(numbered_request(1), request_kind::other, "");
    kept.begin(numbered_request(2), request_kind::other, "");
    kept.begin(numbered_request(3), request_kind::other, "");
    kept.sent(1, 999, outcome::complete);
    kept.status(1, 500, "");
    kept.sent(3, 5, outcome::cut);
    const json record = kept.list({});
    const json last = json::share(json_array_get(record.at("requests").get(), 1));
    EXPECT_EQ(last.at("bytes_sent").as_integer(), 5);
    EXPECT_EQ(last.at("outcome").as_text(), "cut");
    EXPECT_EQ(last.at("status").as_integer(), 0);
}

TEST(Record, GoesOnCountingAfterItWasCleared)
{
    sim service;
    service.get("alice", "/v1.0/me");
    service.control("DELETE", "requests");
    EXPECT_TRUE(numbers(service.control("GET", "requests")).empty());
    service.get("alice", "/v1.0/me");
    EXPECT_THAT(numbers(service.control("GET", "requests")), testing::ElementsAre(2));
}

TEST(Record, CanBeFiltered)
{
    sim service;
    service.get("alice", "/v1.0/me");
    service.get("bob", "/v1.0/me/drive/root");
    service.get("alice", "/v1.0/me/drive/root/children");
    EXPECT_THAT(numbers(service.control("GET", "requests?account=alice")),
                testing::ElementsAre(1, 3));
    EXPECT_THAT(numbers(service.control("GET", "requests?kind=item")), testing::ElementsAre(2));
    EXPECT_THAT(numbers(service.control("GET", "requests?path=/root")), testing::ElementsAre(2, 3));
    EXPECT_THAT(numbers(service.control("GET", "requests?since=1&limit=1")),
                testing::ElementsAre(2));
    EXPECT_THAT(numbers(service.control("GET", "requests?method=PUT")), testing::IsEmpty());
}

TEST(Record, CanBeTurnedOff)
{
    recorder none(0);
    EXPECT_EQ(none.begin(numbered_request(1), request_kind::other, ""), 0U);
    none.status(0, 200, "");
    none.sent(0, 1, outcome::complete);
    EXPECT_TRUE(numbers(none.list({})).empty());
}

TEST(Record, SurvivesTargetsThatAreNotText)
{
    recorder kept(1);
    request got;
    got.method = "GET";
    got.target = "/\xFF?\xFE";
    got.headers.add("X", "\xFF");
    kept.begin(got, request_kind::other, "");
    const json entry = json::share(json_array_get(kept.list({}).at("requests").get(), 0));
    EXPECT_EQ(entry.at("headers").at("X").as_text(), "%FF");
    EXPECT_EQ(entry.at("query").as_text(), "%FE");
}

} // namespace graph_sim
