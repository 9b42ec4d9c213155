// Fault rules: which requests they meet, and what they do.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

// The requests, of ten alike, that a rule meets.
std::vector<int> met_of_ten(const std::string &match)
{
    fault_set set;
    const json rule =
        json::parse(R"({"match": )" + match + R"(, "action": {"status": 500}})", "rule");
    set.add(rule.get(), "rule: /");
    std::vector<int> met;
    for (int i = 1; i <= 10; ++i) {
        if (set.pick({"GET", "/v1.0/me/drive/root:/a b:/children",
                      "/v1.0/me/drive/root:/a%20b:/children?$top=1", request_kind::listing,
                      "alice"})) {
            met.push_back(i);
        }
    }
    return met;
}

std::string refusal(const std::string &text)
{
    fault_set set;
    try {
        set.add(json::parse(text, "rules").get(), "rules: /");
    } catch (const input_error &error) {
        return error.what();
    }
    return "";
}

constexpr const char *hello = "/v1.0/me/drive/root:/hello.txt:/content";

} // namespace

TEST(FaultMatch, CountsRequestsFromTheFirst)
{
    using testing::ElementsAre;
    EXPECT_EQ(met_of_ten("{}").size(), 10U);
    EXPECT_THAT(met_of_ten(R"({"nth": 3})"), ElementsAre(3));
    EXPECT_THAT(met_of_ten(R"({"nth": 3, "count": 2})"), ElementsAre(3, 4));
    EXPECT_THAT(met_of_ten(R"({"count": 2})"), ElementsAre(1, 2));
    EXPECT_THAT(met_of_ten(R"({"every": 4})"), ElementsAre(1, 5, 9));
    EXPECT_THAT(met_of_ten(R"({"nth": 2, "every": 4})"), ElementsAre(2, 6, 10));
}

TEST(FaultMatch, LooksAtEveryPartOfTheRequest)
{
    for (const char *match :
         {R"({"method": "GET"})", R"({"kind": "listing"})", R"({"kind": ["item", "listing"]})",
          R"({"account": "alice"})", R"({"path": "a b:/children$"})", R"({"target": "top=1"})",
          R"({"glob": "*/root:/a b:*"})"}) {
        EXPECT_EQ(met_of_ten(match).size(), 10U) << match;
    }
    for (const char *match :
         {R"({"method": "PUT"})", R"({"kind": "item"})", R"({"account": "bob"})",
          R"({"path": "a%20b"})", R"({"target": "a b"})", R"({"glob": "*/root:/a"})",
          R"({"method": "GET", "kind": "item"})"}) {
        EXPECT_EQ(met_of_ten(match).size(), 0U) << match;
    }
}

TEST(FaultMatch, ChanceIsRepeatable)
{
    const auto first = met_of_ten(R"({"probability": 0.5})");
    EXPECT_EQ(first, met_of_ten(R"({"probability": 0.5})"));
    EXPECT_THAT(first.size(), testing::AllOf(testing::Gt(0U), testing::Lt(10U)));
    EXPECT_TRUE(met_of_ten(R"({"probability": 0})").empty());
}

TEST(FaultMatch, TheFirstRuleThatIsDueFires)
{
    fault_set set;
    set.add(json::parse(
                R"({"rules": [{"name": "once", "match": {"count": 1}, "action": {"status": 500}},
                                      {"action": {"status": 503}}]})",
                "rules")
                .get(),
            "rules: /");
    const fault_subject subject{"GET", "/", "/", request_kind::other, ""};
    EXPECT_EQ(set.pick(subject)->rule, "once");
    EXPECT_EQ(set.pick(subject)->rule, "rule-2");
    EXPECT_EQ(json_array_size(set.list().at("rules").get()), 2U);
    set.clear();
    EXPECT_FALSE(set.pick(subject));
}

TEST(FaultRules, ThatAreWrongAreRefusedWithTheirPlace)
{
    EXPECT_EQ(refusal(R"({"rules": [{"action": {}}, {"match": {}}]})"),
              "rules: /rules/1: \"action\" is missing");
    EXPECT_EQ(refusal(R"({"rules": [{"action": {"stauts": 500}}]})"),
              "rules: /rules/0/action: \"stauts\" is not known here");
    EXPECT_EQ(refusal(R"({"rules": [{"action": {"status": 99}}]})"),
              "rules: /rules/0/action: \"status\" a whole number from 200 to 599 is needed");
    EXPECT_THAT(refusal(R"({"rules": [{"match": {"kind": "lsiting"}, "action": {}}]})"),
                testing::HasSubstr("names no kind of request: \"lsiting\""));
    EXPECT_THAT(refusal(R"({"match": {"path": "("}, "action": {}})"),
                testing::HasSubstr("\"path\" is not a regular expression"));
    EXPECT_THAT(refusal(R"({"match": {"probability": 2}, "action": {}})"),
                testing::HasSubstr("\"probability\" a number from 0 to 1"));
    EXPECT_THAT(refusal(R"({"action": {"garbage": "rubbish"}})"),
                testing::HasSubstr("names no kind of damage"));
    EXPECT_THAT(refusal(R"({"action": {"headers": {"A": 1}}})"),
                testing::HasSubstr("\"headers\" holds texts"));
    EXPECT_THAT(refusal(R"([])"), testing::HasSubstr("an object is needed here"));
}

TEST(FaultRules, AWrongOneAddsNoneOfItsList)
{
    sim service;
    service.control("POST", "faults",
                    R"({"rules": [{"action": {"status": 500}}, {"action": {"x": 1}}]})", 400);
    EXPECT_EQ(service.get("alice", "/v1.0/me").status, 200U);
}

TEST(FaultActions, AStatusBringsTheUsualBodyOfTheService)
{
    sim service;
    service.control(
        "POST", "faults",
        R"({"match": {"kind": "listing", "count": 1}, "action": {"status": 503, "headers": {"Retry-After": "7"}}})");
    const response reply = service.get("alice", "/v1.0/me/drive/root/children");
    EXPECT_EQ(reply.status, 503U);
    EXPECT_EQ(*reply.headers.find("Retry-After"), "7");
    EXPECT_THAT(reply.body, testing::HasSubstr("serviceNotAvailable"));
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root/children").status, 200U);
}

TEST(FaultActions, ATransferHostFailsWithoutABodyUnlessOneIsGiven)
{
    sim service;
    const std::string target = service.download_target("alice", hello);
    service.control(
        "POST", "faults",
        R"({"rules": [{"match": {"kind": "download", "count": 1}, "action": {"status": 410}},
        {"match": {"kind": "download"}, "action": {"status": 503, "html": true}}]})");
    const response bare = service.send("GET", target).reply;
    EXPECT_EQ(bare.status, 410U);
    EXPECT_EQ(bare.body_size(), 0U);
    const response page = service.send("GET", target).reply;
    EXPECT_EQ(page.status, 503U);
    EXPECT_THAT(page.body, testing::StartsWith("<!DOCTYPE html>"));
    EXPECT_EQ(*page.headers.find("Content-Type"), "text/html; charset=utf-8");
}

TEST(FaultActions, AHeaderCanBeTakenAwayOrReplaced)
{
    sim service;
    service.control(
        "POST", "faults",
        R"({"rules": [{"match": {"kind": "content", "count": 1}, "action": {"headers": {"Location": null}}},
        {"match": {"kind": "content"}, "action": {"headers": {"location": "http://elsewhere.test/"}}}]})");
    const response missing = service.get("alice", hello);
    EXPECT_EQ(missing.status, 302U);
    EXPECT_EQ(missing.headers.find("Location"), nullptr);
    EXPECT_EQ(*service.get("alice", hello).headers.find("Location"), "http://elsewhere.test/");
}

TEST(FaultActions, ABodyReplacesTheAnswersOwn)
{
    sim service;
    service.control(
        "POST", "faults",
        R"({"rules": [{"match": {"count": 1}, "action": {"body": {"value": {}}}}, {"match": {"count": 1}, "action": {"body": ""}},
        {"match": {"count": 1}, "action": {"body_repeat": {"text": "[", "times": 1000}}}]})");
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root/children").body, R"({"value":{}})");
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root/children").body, "");
    EXPECT_EQ(service.get("alice", "/v1.0/me/drive/root/children").body, std::string(1000, '['));
}

TEST(FaultActions, BadJsonIsCutInTheMiddle)
{
    sim service;
    service.control("POST", "faults", R"({"action": {"bad_json": true}})");
    const response reply = service.get("alice", "/v1.0/me/drive/root/children");
    EXPECT_EQ(reply.status, 200U);
    EXPECT_THROW(json::parse(reply.body, "body"), input_error);
}

TEST(FaultActions, PagesAreShortenedEmptiedAndMisdirected)
{
    sim service;
    service.control("POST", "faults", R"({"rules": [
        {"match": {"kind": "listing", "count": 1}, "action": {"page_size": 2}},
        {"match": {"kind": "listing", "count": 1}, "action": {"empty_page": true}},
        {"match": {"kind": "listing", "count": 1}, "action": {"next_link": "self"}},
        {"match": {"kind": "listing", "count": 1}, "action": {"next_link": "other_host"}},
        {"match": {"kind": "listing", "count": 1}, "action": {"page_size": 1, "next_link": "none"}},
        {"match": {"kind": "listing", "count": 1}, "action": {"next_link": "http://x.test/"}}]})");
    const std::string target = "/v1.0/me/drive/root/children?$top=300";
    const json shortened = service.get_json("alice", target);
    EXPECT_THAT(names_of(shortened), testing::ElementsAre("Data", "Documents"));
    const std::string link(shortened.at("@odata.nextLink").as_text());
    const json empty = service.get_json("alice", link.substr(17));
    EXPECT_TRUE(names_of(empty).empty());
    EXPECT_EQ(empty.at("@odata.nextLink").as_text(), link)
        << "the next page starts where the empty one did";
    EXPECT_EQ(service.get_json("alice", target).at("@odata.nextLink").as_text(),
              "http://graph.test" + target);
    EXPECT_THAT(std::string(service.get_json("alice", target).at("@odata.nextLink").as_text()),
                testing::StartsWith("https://other-host.invalid/v1.0/"));
    EXPECT_FALSE(service.get_json("alice", target).at("@odata.nextLink"));
    EXPECT_EQ(service.get_json("alice", target).at("@odata.nextLink").as_text(), "http://x.test/");
}

TEST(FaultActions, AnEmptyFirstPageLosesNothing)
{
    sim service;
    service.control(
        "POST", "faults",
        R"({"match": {"kind": "listing", "count": 1}, "action": {"empty_page": true}})");
    const json empty = service.get_json("alice", "/v1.0/me/drive/root/children");
    EXPECT_TRUE(names_of(empty).empty());
    EXPECT_EQ(names_of(service.get_json(
                           "alice", std::string(empty.at("@odata.nextLink").as_text()).substr(17)))
                  .size(),
              7U);
}

TEST(FaultActions, DownloadsIgnoreRangesAndChangeTheirLength)
{
    sim service;
    const std::string target = service.download_target("alice", hello);
    service.control("POST", "faults",
                    R"({"rules": [{"match": {"count": 1}, "action": {"ignore_range": true}},
        {"match": {"count": 1}, "action": {"length_change": 3}}, {"match": {"count": 1}, "action": {"length_change": -1}},
        {"match": {"count": 1}, "action": {"headers": {"Content-Range": "bytes 5-7/11"}}}]})");
    const header_list range{{"Range", "bytes=2-4"}};
    const response whole = service.send("GET", target, range).reply;
    EXPECT_EQ(whole.status, 200U);
    EXPECT_EQ(body_bytes(whole), "hello world");
    EXPECT_EQ(body_bytes(service.send("GET", target, range).reply), "llo wo");
    EXPECT_EQ(body_bytes(service.send("GET", target, range).reply), "ll");
    const response wrong = service.send("GET", target, range).reply;
    EXPECT_EQ(wrong.status, 206U);
    EXPECT_EQ(*wrong.headers.find("Content-Range"), "bytes 5-7/11");
    EXPECT_EQ(body_bytes(wrong), "llo");
}

TEST(FaultActions, WithoutExecuteTheRequestIsNotCarriedOut)
{
    sim service;
    const std::string body = "grant_type=refresh_token&client_id=c&refresh_token=alice-refresh";
    service.control("POST", "settings", R"({"old_refresh_token_works": false})");
    service.control(
        "POST", "faults",
        R"({"rules": [{"match": {"kind": "token", "count": 1}, "action": {"status": 503}},
        {"match": {"kind": "token", "count": 1}, "action": {"status": 503, "execute": true}}]})");
    const auto renew = [&] {
        return service.send("POST", "/common/oauth2/v2.0/token", {}, body).reply;
    };
    EXPECT_EQ(renew().status, 503U);
    EXPECT_EQ(renew().status, 503U);
    EXPECT_THAT(renew().body, testing::HasSubstr("invalid_grant"))
        << "the second one used the token up";
}

TEST(FaultActions, TheRecordNamesTheRule)
{
    sim service;
    service.control("POST", "faults", R"({"name": "busy", "action": {"status": 429}})");
    service.get("alice", "/v1.0/me");
    const json record = service.control("GET", "requests");
    const json entry = json::share(json_array_get(record.at("requests").get(), 0));
    EXPECT_EQ(entry.at("fault").as_text(), "busy");
    EXPECT_EQ(entry.at("status").as_integer(), 429);
}

} // namespace graph_sim
