// The sockets: HTTP/1.1 over plain and TLS connections, and damaged deliveries.
#include "server_fixture.h"

#include "test_certificate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace graph_sim {

namespace {

const std::string hello = "/v1.0/me/drive/root:/hello.txt";

} // namespace

TEST_F(Server, ManyRequestsShareOneConnection)
{
    start();
    http_client client;
    EXPECT_EQ(client.get(base + hello, {bearer}).connections, 1);
    for (int i = 0; i < 20; ++i) {
        const http_answer got = client.get(base + hello, {bearer});
        EXPECT_EQ(got.status, 200);
        EXPECT_EQ(got.connections, 0);
    }
    EXPECT_EQ(last_of(record()).at("connection").as_integer(), 1);
}

TEST_F(Server, JsonComesChunkedUnlessSwitchedOff)
{
    start();
    http_client client;
    http_answer got = client.get(base + hello, {bearer});
    EXPECT_EQ(got.headers["transfer-encoding"], "chunked");
    EXPECT_EQ(got.headers.count("content-length"), 0U);
    EXPECT_EQ(json::parse(got.body, "item").at("name").as_text(), "hello.txt");
    client.send("POST", base + "/__sim/settings", {}, R"({"chunked_json": false})");
    got = client.get(base + hello, {bearer});
    EXPECT_EQ(got.headers["content-length"], std::to_string(got.body.size()));
}

TEST_F(Server, LinksNameTheHostByWhichTheClientCame)
{
    start();
    http_client client;
    http_answer got = client.get(base + hello + ":/content", {bearer, "Host: graph.test:1234"});
    EXPECT_THAT(got.headers["location"], testing::StartsWith("http://graph.test:1234/_download/"));
}

TEST_F(Server, AWholeFileArrivesByteForByte)
{
    start();
    http_client client;
    const http_answer got =
        client.get(download_url(client, "/v1.0/me/drive/root:/Data/noise-10MiB.bin"));
    EXPECT_EQ(got.result, CURLE_OK);
    ASSERT_EQ(got.body.size(), 10485760U);
    const http_answer told =
        client.get(base + "/__sim/file?account=alice&path=/Data/noise-10MiB.bin");
    EXPECT_EQ(json::parse(told.body, "file").at("sha256").as_text(),
              hex(bytes_of(sha256(got.body))));
    const json entry = last_ended("?kind=download");
    EXPECT_EQ(entry.at("bytes_sent").as_integer(), 10485760);
    EXPECT_EQ(entry.at("outcome").as_text(), "complete");
}

TEST_F(Server, ARangeOfAHugeFileIsServed)
{
    start();
    http_client client;
    const http_answer got =
        client.get(download_url(client, "/v1.0/me/drive/root:/Data/four-GiB.bin"),
                   {"Range: bytes=4294967295-"});
    EXPECT_EQ(got.status, 206);
    EXPECT_EQ(got.body, std::string(1, static_cast<char>(4294967296 % 251)));
}

TEST_F(Server, TheBearerMustNotComeAlong)
{
    start();
    http_client client;
    const std::string url = download_url(client, hello);
    EXPECT_EQ(client.get(url, {bearer}).status, 401);
    EXPECT_EQ(client.get(url).body, "hello world");
}

TEST_F(Server, ServesSeveralClientsAtOnce)
{
    start();
    std::vector<std::thread> clients;
    std::atomic<int> good{0};
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([this, &good] {
            http_client client;
            for (int n = 0; n < 25; ++n) {
                const http_answer page =
                    client.get(base + "/v1.0/me/drive/root:/Many:/children?$top=50", {bearer});
                const http_answer file = client.get(download_url(client, hello));
                good += page.status == 200 && file.body == "hello world" ? 1 : 0;
            }
        });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    EXPECT_EQ(good, 200);
}

TEST_F(Server, TlsSessionsResume)
{
    const test_certificate certificate;
    authority = certificate.certificate_file();
    server_options options;
    options.certificate_file = certificate.certificate_file();
    options.key_file = certificate.key_file();
    start(options);
    EXPECT_THAT(base, testing::StartsWith("https://127.0.0.1:"));
    http_client client(authority);
    EXPECT_EQ(client.get(download_url(client, hello)).body, "hello world");
    client.fresh_connections = true;
    EXPECT_EQ(client.get(base + hello, {bearer}).connections, 1);
    const json entries = record("?account=alice");
    EXPECT_FALSE(
        json_is_true(json::share(json_array_get(entries.get(), 0)).at("tls_resumed").get()));
    EXPECT_TRUE(json_is_true(last_of(entries).at("tls_resumed").get()));
    EXPECT_TRUE(json_is_true(last_of(entries).at("tls").get()));
}

TEST_F(Server, LargeContentArrivesWholeOverTls)
{
    const test_certificate certificate;
    authority = certificate.certificate_file();
    server_options options;
    options.certificate_file = certificate.certificate_file();
    options.key_file = certificate.key_file();
    start(options);
    http_client client(authority);
    const http_answer got =
        client.get(download_url(client, "/v1.0/me/drive/root:/Data/noise-10MiB.bin"));
    const http_answer told =
        client.get(base + "/__sim/file?account=alice&path=/Data/noise-10MiB.bin");
    EXPECT_EQ(json::parse(told.body, "file").at("sha256").as_text(),
              hex(bytes_of(sha256(got.body))));
}

TEST_F(Server, ATlsListenerDropsPlainClients)
{
    const test_certificate certificate;
    authority = certificate.certificate_file();
    server_options options;
    options.certificate_file = certificate.certificate_file();
    options.key_file = certificate.key_file();
    start(options);
    raw_socket plain(running->port(0));
    plain.send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_THAT(plain.receive(), testing::Not(testing::HasSubstr("HTTP/1.1")));
    http_client client(authority);
    EXPECT_EQ(client.get(base + hello, {bearer}).status, 200);
}

TEST_F(Server, DownloadsMayHaveAListenerOfTheirOwn)
{
    server_options options;
    options.listeners.push_back({"127.0.0.1", 0, listener_role::service});
    options.listeners.push_back({"127.0.0.1", 0, listener_role::downloads});
    start(options);
    served.use_download_port(running->port(1));
    http_client client;
    const std::string url = download_url(client, hello);
    EXPECT_THAT(url, testing::StartsWith(running->origin(1) + "/_download/"));
    EXPECT_EQ(client.get(url).body, "hello world");
    EXPECT_EQ(client.get(running->origin(1) + hello, {bearer}).status, 404);
    EXPECT_EQ(client.get(base + url.substr(running->origin(1).size())).status, 404);
}

TEST_F(Server, WhatIsNotHttpIsRefusedAndOthersAreServed)
{
    start();
    raw_socket rude(running->port(0));
    rude.send("this is not HTTP\r\n\r\n");
    EXPECT_THAT(rude.receive(), testing::StartsWith("HTTP/1.1 400 Bad Request\r\n"));
    raw_socket gone(running->port(0));
    gone.send("GET / HT");
    http_client client;
    EXPECT_EQ(client.get(base + hello, {bearer}).status, 200);
}

TEST_F(Server, ABodyThatIsTooLargeIsRefused)
{
    start();
    raw_socket large(running->port(0));
    large.send("POST /v1.0/me/drive/root/children HTTP/1.1\r\nHost: x\r\nContent-Length: "
               "999999999999\r\n\r\n");
    EXPECT_THAT(large.receive(), testing::StartsWith("HTTP/1.1 413 "));
}

TEST_F(Server, AWaitingBodyIsAskedFor)
{
    start();
    raw_socket polite(running->port(0));
    polite.send("POST /__sim/settings HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\nExpect: "
                "100-continue\r\n\r\n");
    EXPECT_EQ(polite.receive(25), "HTTP/1.1 100 Continue\r\n\r\n");
    polite.send("{}");
    EXPECT_THAT(polite.receive(10), testing::StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(Server, TheConnectionEndsWhenTheClientAsksForIt)
{
    start();
    raw_socket last(running->port(0));
    last.send("GET /__sim/health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(last.receive(), testing::HasSubstr("\"status\":\"ok\""));
    EXPECT_EQ(last.error, 0);
}

TEST_F(Server, AResetBeforeTheAnswerIsAReset)
{
    start();
    add_fault(R"({"match": {"kind": "item", "count": 1}, "action": {"reset": true}})");
    raw_socket victim(running->port(0));
    victim.send("GET " + hello + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(victim.receive(), "");
    EXPECT_EQ(victim.error, ECONNRESET);
    EXPECT_EQ(last_ended("?kind=item").at("outcome").as_text(), "cut");
}

TEST_F(Server, ADropIsAnOrderlyEndWithoutAnAnswer)
{
    start();
    add_fault(R"({"match": {"kind": "item", "count": 1}, "action": {"drop": true}})");
    raw_socket victim(running->port(0));
    victim.send("GET " + hello + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(victim.receive(), "");
    EXPECT_EQ(victim.error, 0);
}

TEST_F(Server, ATruncatedBodyEndsAfterItsBytes)
{
    start();
    http_client client;
    const std::string url = download_url(client, hello);
    add_fault(R"({"match": {"kind": "download"}, "action": {"truncate_at": 4}})");
    const http_answer got = client.get(url);
    EXPECT_EQ(got.result, CURLE_PARTIAL_FILE);
    EXPECT_EQ(got.body, "hell");
    EXPECT_EQ(last_ended("?kind=download").at("bytes_sent").as_integer(), 4);
}

TEST_F(Server, AResetInTheBodyFailsTheTransfer)
{
    start();
    http_client client;
    const std::string url = download_url(client, "/v1.0/me/drive/root:/Data/noise-10MiB.bin");
    add_fault(R"({"match": {"kind": "download"}, "action": {"reset_after": 5000}})");
    const http_answer got = client.get(url);
    EXPECT_THAT(got.result, testing::AnyOf(CURLE_RECV_ERROR, CURLE_PARTIAL_FILE));
    EXPECT_LE(got.body.size(), 5000U);
}

TEST_F(Server, AStallLastsUntilTheClientGoes)
{
    start();
    add_fault(R"({"match": {"kind": "item", "count": 1}, "action": {"stall": true}})");
    {
        raw_socket patient(running->port(0));
        patient.send("GET " + hello + " HTTP/1.1\r\nHost: x\r\n\r\n");
        while (json_array_size(record("?kind=item").get()) == 0) {
            std::this_thread::yield();
        }
        EXPECT_EQ(last_of(record("?kind=item")).at("outcome").as_text(), "running");
    }
    EXPECT_EQ(last_ended("?kind=item").at("outcome").as_text(), "cut");
}

TEST_F(Server, AStallInTheBodyKeepsWhatWasSent)
{
    start();
    http_client client;
    const std::string url = download_url(client, hello);
    add_fault(R"({"match": {"kind": "download"}, "action": {"stall_after": 5}})");
    raw_socket patient(running->port(0));
    patient.send("GET " + url.substr(base.size()) + " HTTP/1.1\r\nHost: x\r\n\r\n");
    std::string got;
    while (!got.ends_with("hello")) {
        got += patient.receive(1);
    }
    EXPECT_THAT(got, testing::HasSubstr("Content-Length: 11\r\n"));
}

TEST_F(Server, ADelayComesBeforeTheAnswer)
{
    start();
    add_fault(R"({"match": {"kind": "item"}, "action": {"delay_ms": 60}})");
    http_client client;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(client.get(base + hello, {bearer}).status, 200);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(60));
}

TEST_F(Server, ASlowBodyArrivesWhole)
{
    start();
    http_client client;
    const std::string url = download_url(client, hello);
    add_fault(R"({"match": {"kind": "download"}, "action": {"bytes_per_second": 100}})");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(client.get(url).body, "hello world");
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(40));
}

TEST_F(Server, AClosedConnectionIsRepeatedOnAnother)
{
    start();
    add_fault(R"({"match": {"kind": "item"}, "action": {"close": true}})");
    http_client client;
    EXPECT_EQ(client.get(base + hello, {bearer}).status, 200);
    const http_answer second = client.get(base + hello, {bearer});
    EXPECT_EQ(second.status, 200);
    EXPECT_EQ(second.connections, 1);
}

TEST_F(Server, GarbageBreaksTheProtocol)
{
    start();
    http_client client;
    add_fault(R"({"match": {"count": 1}, "action": {"garbage": "status_line"}})");
    EXPECT_NE(client.get(base + hello, {bearer}).result, CURLE_OK);
    add_fault(R"({"match": {"count": 1}, "action": {"garbage": "chunk_size"}})");
    EXPECT_NE(client.get(base + hello, {bearer}).result, CURLE_OK);
}

TEST_F(Server, EndlessHeadersAndBodiesGoOnUntilTheClientLeaves)
{
    start();
    for (const char *kind : {"endless_headers", "endless_header_line", "endless_body"}) {
        add_fault(std::string(R"({"match": {"count": 1}, "action": {"garbage": ")") + kind +
                  "\"}}");
        {
            raw_socket patient(running->port(0));
            patient.send("GET " + hello + " HTTP/1.1\r\nHost: x\r\n\r\n");
            EXPECT_GE(patient.receive(5'000'000).size(), 5'000'000U) << kind;
        }
    }
    http_client client;
    EXPECT_EQ(client.get(base + "/__sim/health").status, 200);
}

TEST_F(Server, StopsWhileClientsAreServed)
{
    start();
    http_client client;
    const std::string url = download_url(client, "/v1.0/me/drive/root:/Data/four-GiB.bin");
    add_fault(R"({"match": {"kind": "item"}, "action": {"stall": true}})");
    raw_socket stalled(running->port(0));
    stalled.send("GET " + hello + " HTTP/1.1\r\nHost: x\r\n\r\n");
    raw_socket loading(running->port(0));
    loading.send("GET " + url.substr(base.size()) + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_GE(loading.receive(100'000).size(), 100'000U);
    running.reset();
    loading.receive();
    stalled.receive();
}

TEST(ListenAddress, IsReadWithBothFamilies)
{
    EXPECT_EQ(listen_address::parse("127.0.0.1:8080").port, 8080);
    EXPECT_EQ(listen_address::parse("[::1]:0").address, "::1");
    for (const char *text : {"", "127.0.0.1", "localhost:80", "127.0.0.1:", "127.0.0.1:99999",
                             "127.0.0.1:8x", "::1", ":80"}) {
        EXPECT_THROW(listen_address::parse(text), input_error) << text;
    }
}

} // namespace graph_sim
