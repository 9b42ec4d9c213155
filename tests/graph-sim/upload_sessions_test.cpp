// Upload sessions over real sockets: opening, fragments, status, cancelling and committing.
#include "upload_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace graph_sim {

namespace {

constexpr std::uint64_t unit = 327'680;

class UploadSessions : public UploadServer {
  protected:
    http_answer create(const std::string &path, const std::string &body = {},
                       std::vector<std::string> headers = {}, const std::string &account = "alice")
    {
        headers.insert(headers.begin(), "Content-Type: application/json");
        headers.push_back("Authorization: Bearer " + account + "-token");
        if (body.empty()) {
            headers.emplace_back("Content-Length: 0");
        }
        return client.send("POST", root_path(path) + ":/createUploadSession", headers, body);
    }

    std::string opened(const std::string &path, const std::string &body = {},
                       const std::string &account = "alice")
    {
        const http_answer got = create(path, body, {}, account);
        EXPECT_EQ(got.status, 200) << got.body;
        return std::string(body_of(got).at("uploadUrl").as_text());
    }

    http_answer fragment(const std::string &url, std::uint64_t first, const std::string &bytes,
                         std::uint64_t total, std::vector<std::string> headers = {})
    {
        headers.push_back("Content-Range: bytes " + std::to_string(first) + "-" +
                          std::to_string(first + bytes.size() - 1) + "/" + std::to_string(total));
        return send("PUT", url, bytes, std::move(headers));
    }

    static std::string inner_of(const http_answer &got)
    {
        return std::string(body_of(got).at("error").at("innererror").at("code").as_text());
    }

    // The only entry of nextExpectedRanges, "" when there is none.
    static std::string next_of(const http_answer &got)
    {
        const json ranges = body_of(got).at("nextExpectedRanges");
        return std::string(json::share(json_array_get(ranges.get(), 0)).as_text());
    }

    const std::string bytes_ = some_bytes(2 * unit + 1000);
    const std::uint64_t total_ = bytes_.size();
};

} // namespace

TEST_F(UploadSessions, FragmentsOneAfterAnotherBecomeANewFile)
{
    const std::string url = opened("up/new.bin");
    const http_answer first = fragment(url, 0, bytes_.substr(0, unit), total_);
    EXPECT_EQ(first.status, 202);
    EXPECT_EQ(next_of(first), "327680-");
    EXPECT_THAT(std::string(body_of(first).at("expirationDateTime").as_text()),
                testing::EndsWith("Z"));
    EXPECT_FALSE(body_of(first).at("uploadUrl"));
    EXPECT_EQ(fragment(url, unit, bytes_.substr(unit, unit), total_).status, 202);
    const http_answer last = fragment(url, 2 * unit, bytes_.substr(2 * unit), total_);
    EXPECT_EQ(last.status, 201);
    EXPECT_EQ(body_of(last).at("file").at("hashes").at("quickXorHash").as_text(),
              quick_xor_of(bytes_));
    EXPECT_EQ(stored("up/new.bin"), bytes_);
    EXPECT_EQ(client.get(url).status, 404);
}

TEST_F(UploadSessions, AReplacedFileKeepsItsId)
{
    const std::string id(item("hello.txt").at("id").as_text());
    const std::string url =
        opened("hello.txt", R"({"item": {"@microsoft.graph.conflictBehavior": "replace"}})");
    const http_answer last = fragment(url, 0, "new bytes", 9);
    EXPECT_EQ(last.status, 200);
    EXPECT_EQ(body_of(last).at("id").as_text(), id);
    EXPECT_EQ(stored("hello.txt"), "new bytes");
}

TEST_F(UploadSessions, TheAnswerOfOpeningTellsAddressExpiryAndRange)
{
    const http_answer got = create("new.bin", "{}");
    EXPECT_EQ(got.status, 200);
    EXPECT_EQ(next_of(got), "0-");
    EXPECT_THAT(std::string(body_of(got).at("@odata.context").as_text()),
                testing::EndsWith("$metadata#microsoft.graph.uploadSession"));
    EXPECT_THAT(std::string(body_of(got).at("uploadUrl").as_text()),
                testing::StartsWith(base + "/_upload/"));
}

TEST_F(UploadSessions, TheFilesClientTimesAreThoseOfTheSession)
{
    const std::string url = opened("timed.bin", R"({"item": {"fileSystemInfo": {
        "createdDateTime": "2020-01-02T03:04:05Z", "lastModifiedDateTime": "2021-02-03T04:05:06Z"}}})");
    const json made = body_of(fragment(url, 0, "x", 1));
    EXPECT_EQ(made.at("fileSystemInfo").at("createdDateTime").as_text(), "2020-01-02T03:04:05Z");
    EXPECT_EQ(made.at("fileSystemInfo").at("lastModifiedDateTime").as_text(),
              "2021-02-03T04:05:06Z");
}

TEST_F(UploadSessions, ABadTimeOpensNoSession)
{
    EXPECT_EQ(create("x/y", R"({"item": {"fileSystemInfo": {"createdDateTime": "soon"}}})").status,
              400);
    EXPECT_EQ(client.get(root_path("x"), {bearer}).status, 404);
}

TEST_F(UploadSessions, MissingFoldersAreMadeWhenTheSessionIsOpened)
{
    opened("later/deep/file.bin");
    EXPECT_TRUE(item("later/deep").at("folder"));
}

TEST_F(UploadSessions, TheNameInTheBodyMustBeTheOneInTheAddress)
{
    const http_answer got = create("one.bin", R"({"item": {"name": "two.bin"}})");
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(code_of(got), "invalidRequest");
    EXPECT_EQ(create("%C3%A4.bin", R"({"item": {"name": "ä.bin"}})").status, 200);
}

TEST_F(UploadSessions, AWorkDriveRefusesMembersThatItDoesNotKnow)
{
    EXPECT_EQ(create("a.bin", R"({"item": {"size": 5}})").status, 400);
    EXPECT_EQ(create("a.bin", R"({"item": {"@odata.type": "x"}})").status, 400);
    EXPECT_EQ(create("a.bin", R"({"item": {"size": 5}})", {}, "bob").status, 200);
}

TEST_F(UploadSessions, FailRefusesANameThatIsTakenAtOnce)
{
    const std::string body = R"({"item": {"@microsoft.graph.conflictBehavior": "fail"}})";
    const http_answer got = create("hello.txt", body);
    EXPECT_EQ(got.status, 409);
    EXPECT_EQ(code_of(got), "nameAlreadyExists");
}

TEST_F(UploadSessions, FailRefusesANameThatWasTakenMeanwhileAtTheLastFragment)
{
    const std::string url =
        opened("raced.bin", R"({"item": {"@microsoft.graph.conflictBehavior": "fail"}})");
    EXPECT_EQ(put("raced.bin", "other").status, 201);
    const http_answer last = fragment(url, 0, "mine", 4);
    EXPECT_EQ(last.status, 409);
    EXPECT_EQ(code_of(last), "nameAlreadyExists");
    EXPECT_EQ(stored("raced.bin"), "other");
    // The session stays, and can be committed once the name is free.
    change_item(R"({"account": "alice", "path": "/raced.bin", "remove": true})");
    EXPECT_EQ(send("POST", url).status, 201);
    EXPECT_EQ(stored("raced.bin"), "mine");
}

TEST_F(UploadSessions, RenameFindsAFreeName)
{
    const std::string url =
        opened("hello.txt", R"({"item": {"@microsoft.graph.conflictBehavior": "rename"}})");
    const http_answer last = fragment(url, 0, "mine", 4);
    EXPECT_EQ(last.status, 201);
    EXPECT_EQ(body_of(last).at("name").as_text(), "hello 1.txt");
}

TEST_F(UploadSessions, AFolderIsNotOverwritten)
{
    EXPECT_EQ(create("Documents").status, 409);
}

TEST_F(UploadSessions, TagsGuardTheOpening)
{
    const std::string tag(item("hello.txt").at("eTag").as_text());
    EXPECT_EQ(create("hello.txt", "", {"If-Match: \"other\""}).status, 412);
    EXPECT_EQ(create("missing.txt", "", {"If-Match: " + tag}).status, 412);
    EXPECT_EQ(create("hello.txt", "", {"If-None-Match: *"}).status, 412);
    EXPECT_EQ(create("hello.txt", "", {"If-None-Match: " + tag}).status, 412);
    EXPECT_EQ(create("hello.txt", "", {"If-Match: " + tag}).status, 200);
}

TEST_F(UploadSessions, AFileThatChangedMeanwhileIsRefusedAtTheLastFragment)
{
    const std::string tag(item("hello.txt").at("eTag").as_text());
    const http_answer session = create("hello.txt", "", {"If-Match: " + tag});
    EXPECT_EQ(put("hello.txt", "other").status, 200);
    const http_answer last =
        fragment(std::string(body_of(session).at("uploadUrl").as_text()), 0, "mine", 4);
    EXPECT_EQ(last.status, 412);
    EXPECT_EQ(stored("hello.txt"), "other");
}

TEST_F(UploadSessions, AWorkDriveHasOneSessionForAFile)
{
    const std::string url = opened("single.bin");
    const http_answer second = create("SINGLE.bin");
    EXPECT_EQ(second.status, 409);
    EXPECT_EQ(code_of(second), "nameAlreadyExists");
    EXPECT_EQ(send("DELETE", url).status, 204);
    EXPECT_EQ(create("single.bin").status, 200);
}

TEST_F(UploadSessions, AConsumerDriveGivesANewAddressEachTime)
{
    const std::string one = opened("double.bin", "", "bob");
    EXPECT_NE(one, opened("double.bin", "", "bob"));
    EXPECT_EQ(client.get(one).status, 200);
}

TEST_F(UploadSessions, AConsumerDriveWantsTheFilesNameInTheAddress)
{
    const std::string id(body_of(client.get(base + "/v1.0/me/drive/root:/notes.txt",
                                            {"Authorization: Bearer bob-token"}))
                             .at("id")
                             .as_text());
    const std::string own(item("hello.txt").at("id").as_text());
    const std::string items = base + "/v1.0/me/drive/items/";
    const http_answer got = as("bob", "POST", items + id + "/createUploadSession");
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(body_of(got).at("error").at("message").as_text(), "File name not provided in url");
    EXPECT_EQ(as("alice", "POST", items + own + "/createUploadSession").status, 200);
}

TEST_F(UploadSessions, AnyAuthorizationIsRefusedAtTheAddress)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, "x", 1, {bearer}).status, 401);
    EXPECT_EQ(client.get(url, {bearer}).status, 401);
    EXPECT_EQ(send("DELETE", url, "", {bearer}).status, 401);
    EXPECT_EQ(fragment(url, 0, "x", 1).status, 201);
}

TEST_F(UploadSessions, TheAddressIsTakenOnlyAsItWasGiven)
{
    const std::string url = opened("new.bin");
    std::string encoded = url;
    encoded.replace(encoded.find('\''), 1, "%27");
    EXPECT_EQ(client.get(encoded).status, 401);
    EXPECT_EQ(client.get(url + "&more=1").status, 401);
    EXPECT_EQ(client.get(url.substr(0, url.find('?'))).status, 401);
    EXPECT_EQ(client.get(base + "/_upload/unknown?x=1").status, 404);
    EXPECT_EQ(client.get(url).status, 200);
}

TEST_F(UploadSessions, AMalformedContentRangeIsRefused)
{
    const std::string url = opened("new.bin");
    for (const char *range : {"bytes 0--1/0", "bytes 0-/4", "bytes 3-0/4", "bytes 0-3/3",
                              "bytes 0-3/*", "0-3/4", "bytes 0-3/4x"}) {
        const http_answer got = send("PUT", url, "four", {"Content-Range: " + std::string(range)});
        EXPECT_EQ(got.status, 400) << range;
        EXPECT_EQ(code_of(got), "invalidRequest") << range;
    }
    EXPECT_EQ(send("PUT", url, "four").status, 400);
}

TEST_F(UploadSessions, TheRangeMustBeAsLongAsTheBody)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(send("PUT", url, "four", {"Content-Range: bytes 0-4/5"}).status, 400);
    EXPECT_EQ(send("PUT", url, "", {"Content-Range: bytes 0-0/1"}).status, 400);
}

TEST_F(UploadSessions, AChunkedFragmentIsRefused)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, "four", 4, {"Transfer-Encoding: chunked"}).status, 400);
    EXPECT_EQ(next_of(client.get(url)), "0-");
}

TEST_F(UploadSessions, OnlyTheLastFragmentMayHaveAnyLength)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, 1000), total_).status, 400);
    EXPECT_EQ(fragment(url, 0, bytes_, total_).status, 201);
}

TEST_F(UploadSessions, AFragmentThatIsTooLargeIsRefused)
{
    set(R"({"fragment_limit": 655360})");
    const std::string url = opened("new.bin");
    const http_answer got = fragment(url, 0, bytes_.substr(0, 2 * unit), total_);
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(inner_of(got), "maxFragmentLengthExceeded");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
}

TEST_F(UploadSessions, AFileThatIsTooLargeIsRefused)
{
    set(R"({"largest_file": 1000})");
    EXPECT_EQ(create("new.bin", R"({"item": {"fileSize": 1001}})").status, 400);
    EXPECT_EQ(inner_of(fragment(opened("new.bin"), 0, "x", 1001)), "maxFileSizeExceeded");
}

TEST_F(UploadSessions, WhatWasReceivedAlreadyIsAnOverlap)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
    const http_answer again = fragment(url, 0, bytes_.substr(0, unit), total_);
    EXPECT_EQ(again.status, 416);
    EXPECT_EQ(code_of(again), "invalidRange");
    EXPECT_EQ(inner_of(again), "fragmentOverlap");
    EXPECT_EQ(next_of(client.get(url)), "327680-");
}

TEST_F(UploadSessions, AGapIsOutOfOrder)
{
    const std::string url = opened("new.bin");
    const http_answer got = fragment(url, unit, bytes_.substr(unit, unit), total_);
    EXPECT_EQ(got.status, 416);
    EXPECT_EQ(inner_of(got), "fragmentOutOfOrder");
}

TEST_F(UploadSessions, TheTotalStaysWhatItWas)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
    const http_answer got = fragment(url, unit, bytes_.substr(unit, unit), total_ + 1);
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(inner_of(got), "fragmentLengthMismatch");
    const std::string sized = opened("sized.bin", R"({"item": {"fileSize": 5}})");
    EXPECT_EQ(inner_of(fragment(sized, 0, "four", 4)), "fragmentLengthMismatch");
}

TEST_F(UploadSessions, AConsumerDriveTellsClosedRanges)
{
    const std::string url = opened("new.bin", "", "bob");
    EXPECT_EQ(next_of(fragment(url, 0, bytes_.substr(0, unit), total_)),
              "327680-" + std::to_string(total_ - 1));
}

TEST_F(UploadSessions, TheFormOfTheRangesCanBeChosen)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
    set(R"({"expected_ranges": "closed"})");
    EXPECT_EQ(next_of(client.get(url)), "327680-" + std::to_string(total_ - 1));
    set(R"({"expected_ranges": "empty"})");
    EXPECT_EQ(json_array_size(body_of(client.get(url)).at("nextExpectedRanges").get()), 0U);
    set(R"({"expected_ranges": "missing"})");
    EXPECT_FALSE(body_of(client.get(url)).at("nextExpectedRanges"));
}

TEST_F(UploadSessions, ACancelledSessionIsGone)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
    EXPECT_EQ(send("DELETE", url).status, 204);
    EXPECT_EQ(client.get(url).status, 404);
    const http_answer late = fragment(url, unit, bytes_.substr(unit, unit), total_);
    EXPECT_EQ(late.status, 404);
    EXPECT_EQ(code_of(late), "itemNotFound");
    EXPECT_EQ(client.get(root_path("new.bin"), {bearer}).status, 404);
    EXPECT_EQ(body_of(client.get(base + "/__sim/uploads")).at("in_memory").as_integer(), 0);
}

TEST_F(UploadSessions, ASessionExpires)
{
    set(R"({"session_lifetime_s": 0.05})");
    const std::string url = opened("new.bin");
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(client.get(url).status, 404);
    EXPECT_EQ(create("new.bin").status, 200);
}

TEST_F(UploadSessions, EachFragmentMovesTheExpiry)
{
    set(R"({"session_lifetime_s": 100})");
    const http_answer session = create("new.bin");
    set(R"({"session_lifetime_s": 5000})");
    const http_answer got = fragment(std::string(body_of(session).at("uploadUrl").as_text()), 0,
                                     bytes_.substr(0, unit), total_);
    EXPECT_GT(body_of(got).at("expirationDateTime").as_text(),
              body_of(session).at("expirationDateTime").as_text());
}

TEST_F(UploadSessions, AllSessionsCanBeEnded)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(client.send("DELETE", base + "/__sim/uploads", {}, "").status, 200);
    EXPECT_EQ(client.get(url).status, 404);
}

TEST_F(UploadSessions, ADeferredFileIsMadeByACommit)
{
    const std::string url = opened("deferred.bin", R"({"deferCommit": true})");
    const http_answer early = send("POST", url);
    EXPECT_EQ(early.status, 400);
    EXPECT_EQ(inner_of(early), "uploadSessionIncomplete");
    const http_answer last = fragment(url, 0, "all", 3);
    EXPECT_EQ(last.status, 202);
    EXPECT_EQ(next_of(last), "");
    EXPECT_EQ(client.get(root_path("deferred.bin"), {bearer}).status, 404);
    EXPECT_EQ(send("POST", url).status, 201);
    EXPECT_EQ(stored("deferred.bin"), "all");
    EXPECT_EQ(client.get(url).status, 404);
}

TEST_F(UploadSessions, AFragmentThatBreaksOffIsDiscarded)
{
    const std::string url = opened("new.bin");
    add_fault(
        R"({"match": {"kind": "fragment", "nth": 1}, "action": {"reset_after_received": 5000}})");
    // libcurl would repeat the request by itself had the connection been used before.
    client.fresh_connections = true;
    EXPECT_NE(fragment(url, 0, bytes_, total_).result, CURLE_OK);
    EXPECT_EQ(last_ended("?kind=fragment").at("body_size").as_integer(), 5000);
    EXPECT_EQ(next_of(client.get(url)), "0-");
    EXPECT_EQ(fragment(url, 0, bytes_, total_).status, 201);
    EXPECT_EQ(stored("new.bin"), bytes_);
}

TEST_F(UploadSessions, AFragmentThatBreaksOffMayBeKept)
{
    set(R"({"keep_partial_fragments": true})");
    const std::string url = opened("new.bin");
    add_fault(
        R"({"match": {"kind": "fragment", "nth": 1}, "action": {"reset_after_received": 5000}})");
    // libcurl would repeat the request by itself had the connection been used before.
    client.fresh_connections = true;
    EXPECT_NE(fragment(url, 0, bytes_, total_).result, CURLE_OK);
    last_ended("?kind=fragment");
    EXPECT_EQ(next_of(client.get(url)), "5000-");
    EXPECT_EQ(fragment(url, 5000, bytes_.substr(5000), total_).status, 201);
    EXPECT_EQ(stored("new.bin"), bytes_);
}

TEST_F(UploadSessions, AFragmentMayBeStoredAlthoughTheAnswerIsAnError)
{
    const std::string url = opened("new.bin");
    add_fault(
        R"({"match": {"kind": "fragment", "nth": 1}, "action": {"status": 503, "execute": true}})");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 503);
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 416);
    EXPECT_EQ(next_of(client.get(url)), "327680-");
}

TEST_F(UploadSessions, ARefusedFragmentIsNotStored)
{
    const std::string url = opened("new.bin");
    add_fault(R"({"match": {"kind": "fragment", "nth": 1}, "action": {"status": 404}})");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 404);
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
}

TEST_F(UploadSessions, TheRecordTellsFragmentsFromOtherRequests)
{
    const std::string url = opened("new.bin");
    EXPECT_EQ(fragment(url, 0, bytes_.substr(0, unit), total_).status, 202);
    EXPECT_EQ(fragment(url, unit, bytes_.substr(unit), total_).status, 201);
    EXPECT_EQ(client.get(url).status, 404);
    EXPECT_EQ(json_array_size(record("?kind=upload_session").get()), 1U);
    EXPECT_EQ(json_array_size(record("?kind=upload_status").get()), 1U);
    const json fragments = record("?kind=fragment");
    ASSERT_EQ(json_array_size(fragments.get()), 2U);
    const json entry = json::share(json_array_get(fragments.get(), 0));
    EXPECT_EQ(entry.at("body_size").as_integer(), static_cast<std::int64_t>(unit));
    EXPECT_EQ(entry.at("account").as_text(), "alice");
}

TEST_F(UploadSessions, AWaitingFragmentIsAskedForOnlyWhenItIsWanted)
{
    const std::string url = opened("new.bin");
    const std::string head = "PUT " + url.substr(base.size()) +
                             " HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n"
                             "Expect: 100-continue\r\nContent-Range: bytes ";
    raw_socket wrong(running->port(0));
    wrong.send(head + "4-7/8\r\n\r\n");
    EXPECT_THAT(wrong.receive(), testing::StartsWith("HTTP/1.1 416 "));
    raw_socket right(running->port(0));
    right.send(head + "0-3/4\r\n\r\n");
    EXPECT_EQ(right.receive(25), "HTTP/1.1 100 Continue\r\n\r\n");
    right.send("four");
    EXPECT_THAT(right.receive(10), testing::StartsWith("HTTP/1.1 201 Created\r\n"));
}

TEST_F(UploadSessions, TwoSendersOfOneFragmentAreToldApart)
{
    const std::string url = opened("new.bin");
    const std::string target = url.substr(base.size());
    const std::string head = "PUT " + target +
                             " HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n"
                             "Content-Range: bytes 0-3/4\r\n\r\n";
    // The first sender hangs in the middle; the second is served all the same.
    raw_socket slow(running->port(0));
    slow.send(head + "fo");
    while (json_array_size(record("?kind=fragment").get()) == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(fragment(url, 0, "fast", 4).status, 201);
    slow.send("ur");
    EXPECT_THAT(slow.receive(10), testing::StartsWith("HTTP/1.1 404 "));
    EXPECT_EQ(stored("new.bin"), "fast");
}

TEST_F(UploadSessions, AFolderThatIsGoneAtTheEndRefusesTheFile)
{
    const std::string url = opened("folder/new.bin");
    change_item(R"({"account": "alice", "path": "/folder", "remove": true})");
    EXPECT_EQ(fragment(url, 0, "x", 1).status, 404);
}

TEST_F(UploadSessions, AddressesLieOnTheListenerForTransfers)
{
    server_options options;
    options.listeners.push_back({"127.0.0.1", 0, listener_role::service});
    options.listeners.push_back({"127.0.0.1", 0, listener_role::downloads});
    start(options);
    served.use_download_port(running->port(1));
    const std::string url = opened("new.bin");
    EXPECT_THAT(url, testing::StartsWith(running->origin(1) + "/_upload/"));
    EXPECT_EQ(client.get(base + url.substr(running->origin(1).size())).status, 404);
    EXPECT_EQ(fragment(url, 0, "x", 1).status, 201);
}

} // namespace graph_sim
