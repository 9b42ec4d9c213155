// Simple uploads over real sockets: PUT content.
#include "upload_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace graph_sim {

namespace {

class Uploads : public UploadServer {};

} // namespace

TEST_F(Uploads, ANewFileIsCreatedWithTheBytesThatWereSent)
{
    const std::string bytes = some_bytes(100'000);
    const http_answer got = put("new.bin", bytes);
    EXPECT_EQ(got.status, 201);
    EXPECT_TRUE(got.headers.contains("location"));
    const json made = body_of(got);
    EXPECT_EQ(made.at("name").as_text(), "new.bin");
    EXPECT_EQ(made.at("size").as_integer(), 100'000);
    EXPECT_EQ(made.at("file").at("hashes").at("quickXorHash").as_text(), quick_xor_of(bytes));
    EXPECT_TRUE(made.at("@microsoft.graph.downloadUrl"));
    EXPECT_EQ(stored("new.bin"), bytes);
}

TEST_F(Uploads, AReplacedFileKeepsItsIdAndGetsNewTagsAndTimes)
{
    const json before = item("hello.txt");
    const http_answer got = put("hello.txt", "other words");
    EXPECT_EQ(got.status, 200);
    const json after = body_of(got);
    EXPECT_EQ(after.at("id").as_text(), before.at("id").as_text());
    EXPECT_EQ(after.at("createdDateTime").as_text(), before.at("createdDateTime").as_text());
    EXPECT_NE(after.at("eTag").as_text(), before.at("eTag").as_text());
    EXPECT_NE(after.at("cTag").as_text(), before.at("cTag").as_text());
    EXPECT_GT(after.at("fileSystemInfo").at("lastModifiedDateTime").as_text(), "2026");
    EXPECT_EQ(stored("hello.txt"), "other words");
}

TEST_F(Uploads, AFileIsReplacedByItsIdOnAWorkDrive)
{
    const std::string id(item("hello.txt").at("id").as_text());
    const http_answer got =
        as("alice", "PUT", base + "/v1.0/me/drive/items/" + id + "/content", "x");
    EXPECT_EQ(got.status, 200);
    EXPECT_EQ(stored("hello.txt"), "x");
}

TEST_F(Uploads, FailRefusesANameThatIsTaken)
{
    const http_answer got = put("HELLO.txt", "x", "?@microsoft.graph.conflictBehavior=fail");
    EXPECT_EQ(got.status, 409);
    EXPECT_EQ(code_of(got), "nameAlreadyExists");
    EXPECT_EQ(stored("hello.txt"), "hello world");
    EXPECT_EQ(put("free.txt", "x", "?@microsoft.graph.conflictBehavior=fail").status, 201);
}

TEST_F(Uploads, RenameFindsAFreeName)
{
    const http_answer got = put("hello.txt", "x", "?@microsoft.graph.conflictBehavior=rename");
    EXPECT_EQ(got.status, 201);
    EXPECT_EQ(body_of(got).at("name").as_text(), "hello 1.txt");
    EXPECT_EQ(stored("hello.txt"), "hello world");
    EXPECT_EQ(stored("hello%201.txt"), "x");
}

TEST_F(Uploads, ReplaceIsTheRuleAndNamesCompareWithoutCase)
{
    const http_answer got = put("HELLO.TXT", "x");
    EXPECT_EQ(got.status, 200);
    EXPECT_EQ(body_of(got).at("name").as_text(), "hello.txt");
}

TEST_F(Uploads, MissingFoldersAreMade)
{
    EXPECT_EQ(put("a/b/c.txt", "deep").status, 201);
    EXPECT_TRUE(item("a/b").at("folder"));
    EXPECT_EQ(stored("a/b/c.txt"), "deep");
}

TEST_F(Uploads, NoFolderIsMadeForANameThatIsNotAllowed)
{
    const http_answer got = put("made/CON", "x");
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(code_of(got), "invalidRequest");
    EXPECT_EQ(client.get(root_path("made"), {bearer}).status, 404);
}

TEST_F(Uploads, AFileInPlaceOfAFolderOnTheWayIsAConflict)
{
    EXPECT_EQ(put("hello.txt/below.txt", "x").status, 409);
}

TEST_F(Uploads, AFolderIsNotOverwritten)
{
    const http_answer got = put("Documents", "x");
    EXPECT_EQ(got.status, 409);
    EXPECT_EQ(code_of(got), "nameAlreadyExists");
}

TEST_F(Uploads, IfMatchProtectsAChangedFile)
{
    const std::string tag(item("hello.txt").at("eTag").as_text());
    EXPECT_EQ(put("hello.txt", "first", "", {"If-Match: " + tag}).status, 200);
    const http_answer late = put("hello.txt", "second", "", {"If-Match: " + tag});
    EXPECT_EQ(late.status, 412);
    EXPECT_EQ(code_of(late), "resourceModified");
    EXPECT_EQ(put("missing.txt", "x", "", {"If-Match: " + tag}).status, 412);
    EXPECT_EQ(stored("hello.txt"), "first");
}

TEST_F(Uploads, AnEmptyFileHasALengthOfZero)
{
    const http_answer got = put("nothing.dat", "");
    EXPECT_EQ(got.status, 201);
    EXPECT_EQ(body_of(got).at("size").as_integer(), 0);
    EXPECT_EQ(body_of(got).at("file").at("hashes").at("quickXorHash").as_text(),
              "AAAAAAAAAAAAAAAAAAAAAAAAAAA=");
}

TEST_F(Uploads, WithoutALengthAPageSaysThatOneIsRequired)
{
    raw_socket plain(running->port(0));
    plain.send("PUT /v1.0/me/drive/root:/x:/content HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" +
               std::string(bearer) + "\r\n\r\n");
    const std::string got = plain.receive();
    EXPECT_THAT(got, testing::StartsWith("HTTP/1.1 411 Length Required\r\n"));
    EXPECT_THAT(got, testing::HasSubstr("Content-Type: text/html"));
}

TEST_F(Uploads, AChunkedBodyIsTakenIn)
{
    const std::string bytes = some_bytes(3'000'000);
    const http_answer got = put("chunked.bin", bytes, "", {"Transfer-Encoding: chunked"});
    EXPECT_EQ(got.status, 201);
    EXPECT_EQ(stored("chunked.bin"), bytes);
}

TEST_F(Uploads, WhatIsTooLargeIsRefusedBeforeItIsSent)
{
    raw_socket large(running->port(0));
    large.send("PUT /v1.0/me/drive/root:/x:/content HTTP/1.1\r\nHost: x\r\nContent-Length: "
               "262144001\r\nExpect: 100-continue\r\n" +
               std::string(bearer) + "\r\n\r\n");
    EXPECT_THAT(large.receive(), testing::StartsWith("HTTP/1.1 413 "));
}

TEST_F(Uploads, AChunkedBodyIsRefusedOnceItIsTooLarge)
{
    set(R"({"largest_upload": 1000000})");
    const std::string exact = some_bytes(1'000'000);
    EXPECT_EQ(put("exact.bin", exact, "", {"Transfer-Encoding: chunked"}).status, 201);
    EXPECT_EQ(put("large.bin", exact + "x", "", {"Transfer-Encoding: chunked"}).status, 413);
    EXPECT_EQ(client.get(root_path("large.bin"), {bearer}).status, 404);
}

TEST_F(Uploads, AnAccountThatMayOnlyReadIsRefused)
{
    const std::string carol(
        body_of(client.get(base + "/v1.0/me/drive", {"Authorization: Bearer carol-token"}))
            .at("id")
            .as_text());
    const http_answer got =
        as("alice", "PUT", base + "/v1.0/drives/" + carol + "/root:/x:/content", "x");
    EXPECT_THAT(got.status, testing::AnyOf(403, 404));
}

TEST_F(Uploads, AMissingBearerIsToldBeforeTheBodyIsRead)
{
    raw_socket stranger(running->port(0));
    stranger.send("PUT /v1.0/me/drive/root:/x:/content HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n"
                  "Expect: 100-continue\r\n\r\n");
    const std::string got = stranger.receive();
    EXPECT_THAT(got, testing::StartsWith("HTTP/1.1 401 Unauthorized\r\n"));
    EXPECT_THAT(got, testing::HasSubstr("Connection: close\r\n"));
}

TEST_F(Uploads, ARefusedBodyLeavesTheConnectionUsable)
{
    const std::string url = root_path("x") + ":/content";
    EXPECT_EQ(client.send("PUT", url, {}, some_bytes(500'000)).status, 401);
    const http_answer next = client.get(root_path("hello.txt"), {bearer});
    EXPECT_EQ(next.status, 200);
    EXPECT_EQ(next.connections, 0);
}

TEST_F(Uploads, TheRecordTellsHowMuchCame)
{
    EXPECT_EQ(put("counted.bin", some_bytes(70'000)).status, 201);
    const json entry = last_ended("?kind=upload");
    EXPECT_EQ(entry.at("body_size").as_integer(), 70'000);
    EXPECT_EQ(entry.at("account").as_text(), "alice");
    EXPECT_EQ(entry.at("status").as_integer(), 201);
}

TEST_F(Uploads, ABodyThatBreaksOffStoresNothing)
{
    {
        raw_socket gone(running->port(0));
        gone.send("PUT /v1.0/me/drive/root:/half:/content HTTP/1.1\r\nHost: x\r\nContent-Length: "
                  "1000\r\n" +
                  std::string(bearer) + "\r\n\r\nhalf");
    }
    const json entry = last_ended("?kind=upload");
    EXPECT_EQ(entry.at("outcome").as_text(), "peer_closed");
    EXPECT_EQ(entry.at("body_size").as_integer(), 4);
    EXPECT_EQ(client.get(root_path("half"), {bearer}).status, 404);
}

TEST_F(Uploads, BytesBeyondTheMemoryLimitGoToAFileAndComeBackWhole)
{
    set(R"({"upload_memory": 0})");
    const std::string bytes = some_bytes(5'000'000);
    EXPECT_EQ(put("on-disk.bin", bytes).status, 201);
    const json told = body_of(client.get(base + "/__sim/uploads"));
    EXPECT_EQ(told.at("in_memory").as_integer(), 0);
    EXPECT_EQ(told.at("in_file").as_integer(), 5'000'000);
    EXPECT_EQ(stored("on-disk.bin"), bytes);
    change_item(R"({"account": "alice", "path": "/on-disk.bin", "item": {"text": ""}})");
    EXPECT_EQ(body_of(client.get(base + "/__sim/uploads")).at("in_file").as_integer(), 0);
}

TEST_F(Uploads, TheControlPathTellsTheDigestsOfWhatWasStored)
{
    const std::string bytes = some_bytes(3'000'000);
    EXPECT_EQ(put("digest.bin", bytes).status, 201);
    const std::string url = base + "/__sim/file?account=alice&path=/digest.bin";
    const json told = body_of(client.get(url));
    EXPECT_EQ(told.at("size").as_integer(), 3'000'000);
    EXPECT_EQ(told.at("sha256").as_text(), hex(bytes_of(sha256(bytes))));
    EXPECT_EQ(told.at("quick_xor").as_text(), quick_xor_of(bytes));
    EXPECT_FALSE(body_of(client.get(url + "&digest=quick_xor")).at("sha256"));
}

TEST_F(Uploads, AConsumerFileTellsItsShaDigests)
{
    const http_answer got = as("bob", "PUT", base + "/v1.0/me/drive/root:/abc.txt:/content", "abc");
    EXPECT_EQ(got.status, 201);
    EXPECT_EQ(body_of(got).at("file").at("hashes").at("sha1Hash").as_text(),
              "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST_F(Uploads, ManyClientsUploadAtOnce)
{
    std::vector<std::thread> senders;
    std::atomic<int> good{0};
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([this, i, &good] {
            http_client own;
            const std::string bytes = some_bytes(300'000, static_cast<std::uint64_t>(i));
            for (int n = 0; n < 10; ++n) {
                const std::string name = "p" + std::to_string(i) + "-" + std::to_string(n);
                const http_answer got =
                    own.send("PUT", root_path(name) + ":/content", {bearer}, bytes);
                good += got.status == 201 &&
                                body_of(got).at("file").at("hashes").at("quickXorHash").as_text() ==
                                    quick_xor_of(bytes)
                            ? 1
                            : 0;
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(good, 40);
}

// ---- rules that meet bodies ----

TEST_F(Uploads, ARuleResetsTheConnectionInTheBody)
{
    add_fault(
        R"({"match": {"kind": "upload", "nth": 1}, "action": {"reset_after_received": 100000}})");
    const http_answer got = put("victim.bin", some_bytes(8'000'000));
    EXPECT_THAT(got.result, testing::AnyOf(CURLE_SEND_ERROR, CURLE_RECV_ERROR));
    const json entry = last_ended("?kind=upload");
    EXPECT_EQ(entry.at("outcome").as_text(), "cut");
    EXPECT_EQ(entry.at("body_size").as_integer(), 100'000);
    EXPECT_EQ(client.get(root_path("victim.bin"), {bearer}).status, 404);
}

TEST_F(Uploads, ARuleAnswersBeforeTheBodyIsRead)
{
    add_fault(R"({"match": {"kind": "upload"},
                  "action": {"status": 503, "answer_after_received": 0}})");
    raw_socket early(running->port(0));
    early.send("PUT /v1.0/me/drive/root:/x:/content HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000"
               "\r\n" +
               std::string(bearer) + "\r\n\r\nonly the start");
    EXPECT_THAT(early.receive(), testing::StartsWith("HTTP/1.1 503 "));
    EXPECT_EQ(last_ended("?kind=upload").at("body_size").as_integer(), 0);
}

TEST_F(Uploads, ARuleThatAnswersEarlyNeedsAStatus)
{
    const http_answer got = client.send("POST", base + "/__sim/faults", {},
                                        R"({"action": {"answer_after_received": 0}})");
    EXPECT_EQ(got.status, 400);
}

TEST_F(Uploads, ARuleStopsReadingUntilTheClientGoes)
{
    add_fault(R"({"match": {"kind": "upload"}, "action": {"stall_after_received": 5}})");
    {
        raw_socket patient(running->port(0));
        patient.send("PUT /v1.0/me/drive/root:/x:/content HTTP/1.1\r\nHost: x\r\nContent-Length: 20"
                     "\r\n" +
                     std::string(bearer) + "\r\n\r\n01234567890123456789");
        while (json_array_size(record("?kind=upload").get()) == 0) {
            std::this_thread::yield();
        }
    }
    const json entry = last_ended("?kind=upload");
    EXPECT_EQ(entry.at("outcome").as_text(), "cut");
    EXPECT_EQ(entry.at("body_size").as_integer(), 5);
}

TEST_F(Uploads, ASlowlyReadBodyArrivesWhole)
{
    add_fault(R"({"match": {"kind": "upload"}, "action": {"receive_bytes_per_second": 200}})");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(put("slow.txt", "0123456789ABCDEFGHIJ").status, 201);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(90));
    EXPECT_EQ(stored("slow.txt"), "0123456789ABCDEFGHIJ");
}

TEST_F(Uploads, ARefusedUploadStoresNothingAndReadsItsBody)
{
    add_fault(R"({"match": {"kind": "upload", "nth": 1}, "action": {"status": 429}})");
    EXPECT_EQ(put("busy.bin", some_bytes(200'000)).status, 429);
    EXPECT_EQ(last_ended("?kind=upload").at("body_size").as_integer(), 200'000);
    EXPECT_EQ(client.get(root_path("busy.bin"), {bearer}).status, 404);
    EXPECT_EQ(put("busy.bin", "x").status, 201);
}

TEST_F(Uploads, AFileMayBeStoredAlthoughTheAnswerIsAnError)
{
    add_fault(R"({"match": {"kind": "upload"}, "action": {"status": 504, "execute": true}})");
    EXPECT_EQ(put("stored.txt", "kept").status, 504);
    EXPECT_EQ(stored("stored.txt"), "kept");
}

TEST_F(Uploads, AFileMayBeStoredAlthoughTheConnectionIsReset)
{
    add_fault(R"({"match": {"kind": "upload"}, "action": {"reset": true, "execute": true}})");
    EXPECT_NE(put("stored.txt", "kept").result, CURLE_OK);
    EXPECT_EQ(stored("stored.txt"), "kept");
}

TEST_F(Uploads, TheAnswerMayBeDelayed)
{
    add_fault(R"({"match": {"kind": "upload"}, "action": {"delay_ms": 60}})");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(put("late.txt", "x").status, 201);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(60));
}

} // namespace graph_sim
