// Retrieving a file: the redirect to its download address, and the download into the client.
#include "graph_script.h"
#include "library_seams.h"
#include "memory_backend.h"
#include "refusing_port.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono_literals;
using testing::IsEmpty;

const http_peer_headers at_once = {{"Retry-After", "0"}};
const char too_busy[] = "TOO_BUSY";

std::string content_of(std::size_t length)
{
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>('A' + i * 7 % 53);
    }
    return bytes;
}

/* A part of a file, as a service answers a Range. */
http_peer_answer partial(const std::string &file, std::size_t first, std::size_t length)
{
    return http_peer_answer::complete(206, file.substr(first, length),
                                      {{"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                             std::to_string(first + length - 1) +
                                                             "/" + std::to_string(file.size())}});
}

class Download : public testing::Test {
  protected:
    Download() : session(service.url("")), host(&iface())
    {
        host.session = session.handle();
        session.enter("/My files", "a.txt", "id-a", TIRVAL_ONEDRIVE_FILE);
        session.mark_listed("/My files");
    }

    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.send_func = tirval_i_onedrive_send;
        return table;
    }
    /* The Graph service redirects to the store. */
    void redirect() { service.answer(graph::redirect(store.url("/dl?tempauth=x%20y"))); }
    bool send() { return host.send("/My files/a.txt"); }

    http_peer service;
    http_peer store; /* where the content lies */
    test_session session;
    memory_backend host;
};

/* ---- One range ---- */

TEST_F(Download, AWholeFileIsFetchedInOnePassWithoutARange)
{
    const std::string file = content_of(100000);
    redirect();
    store.answer(http_peer_answer::complete(200, file));
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), file);
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(host.begins, 1);
    EXPECT_EQ(host.ranges_asked, 1);
    ASSERT_EQ(service.requests().size(), 1U);
    const auto content = service.requests().at(0);
    EXPECT_EQ(content.method, "GET");
    EXPECT_EQ(content.target, "/v1.0/me/drive/root:/a.txt:/content");
    EXPECT_EQ(content.header("Authorization"), "Bearer token-1");
    EXPECT_EQ(content.header_count("Range"), 0U);
    ASSERT_EQ(store.requests().size(), 1U);
    const auto download = store.requests().at(0);
    EXPECT_EQ(download.method, "GET");
    EXPECT_EQ(download.target, "/dl?tempauth=x%20y") << "the address is used as it stands";
    EXPECT_EQ(download.header_count("Range"), 0U);
}

TEST_F(Download, TheTokenNeverReachesTheDownloadAddress)
{
    const std::string file = content_of(300);
    redirect();
    store.on_request([&](const http_peer_request &request) {
        return request.header_count("Authorization") == 0 ? partial(file, 100, 50)
                                                          : http_peer_answer::complete(401);
    });
    host.ranges = {{100, 50}};
    EXPECT_TRUE(send()) << host.answer.text;
    ASSERT_EQ(store.requests().size(), 1U);
    EXPECT_EQ(store.requests().at(0).header_count("Authorization"), 0U);
}

TEST_F(Download, ARangeToTheEndAsksFromItsFirstByte)
{
    const std::string file = content_of(300);
    redirect();
    store.answer(partial(file, 100, 200));
    host.ranges = {{100, -1}};
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(store.requests().at(0).header("Range"), "bytes=100-");
    EXPECT_EQ(host.sent_bytes(), file.substr(100));
    EXPECT_EQ(host.ranges_asked, 1) << "it is the last range";
}

TEST_F(Download, ARangeOfKnownLengthNamesItsLastByteAndTheNextRangeIsAskedFor)
{
    const std::string file = content_of(300);
    redirect();
    store.answer(partial(file, 100, 50));
    host.ranges = {{100, 50}};
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(store.requests().at(0).header("Range"), "bytes=100-149");
    EXPECT_EQ(host.sent_bytes(), file.substr(100, 50));
    EXPECT_EQ(host.ranges_asked, 2);
}

TEST_F(Download, ARangeFromTheStartWithALengthHasARangeHeader)
{
    const std::string file = content_of(300);
    redirect();
    store.answer(partial(file, 0, 10));
    host.ranges = {{0, 10}};
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(store.requests().at(0).header("Range"), "bytes=0-9");
}

TEST_F(Download, EachRangeIsAPassOfItsOwnWithTheTokenOfThatMoment)
{
    const std::string file = content_of(300);
    redirect();
    redirect();
    store.answer(partial(file, 0, 10));
    store.answer(partial(file, 200, 20));
    host.ranges = {{0, 10}, {200, 20}};
    host.on_send = [&](size_t) {
        std::free(session.handle()->access_token);
        session.handle()->access_token = strdup("token-2");
    };
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), file.substr(0, 10) + file.substr(200, 20));
    EXPECT_EQ(host.ranges_asked, 3);
    ASSERT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(service.requests().at(0).header("Authorization"), "Bearer token-1");
    EXPECT_EQ(service.requests().at(1).header("Authorization"), "Bearer token-2");
}

TEST_F(Download, WhenNothingIsWantedTheTransferEndsWithoutARequest)
{
    host.ranges = {};
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.begins, 1);
    EXPECT_THAT(service.requests(), IsEmpty());
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, AnEmptyFileIsDeliveredEmpty)
{
    redirect();
    store.answer(http_peer_answer::complete(200, ""));
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, AFolderIsNotRefusedHereButByTheService)
{
    session.enter("/My files", "folder", "id-f", TIRVAL_ONEDRIVE_FOLDER);
    service.answer(http_peer_answer::complete(404));
    EXPECT_FALSE(host.send("/My files/folder"));
    EXPECT_EQ(service.requests().at(0).target, "/v1.0/me/drive/root:/folder:/content");
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
}

/* ---- Before the transfer begins ---- */

TEST_F(Download, APathThatDoesNotResolveNeverBegins)
{
    EXPECT_FALSE(host.send("/My files/none"));
    EXPECT_EQ(host.answer.code, 550);
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: \"/My files/none\"");
    EXPECT_EQ(host.begins, 0);
    EXPECT_EQ(host.answers, 1);
}

TEST_F(Download, ATokenThatCannotBeRenewedNeverBegins)
{
    session.handle()->access_token_exp = 0;
    EXPECT_FALSE(send());
    EXPECT_EQ(host.begins, 0);
    EXPECT_THAT(host.answer.text, testing::HasSubstr("Error loading user credential"));
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(Download, APathThatHasNoUriFailsAfterTheBegin)
{
    EXPECT_FALSE(host.send("/"));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_EQ(host.begins, 1);
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(Download, ATransferThatCannotBeginMakesNoRequest)
{
    host.begin_fails = true;
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.code, 425);
    EXPECT_THAT(service.requests(), IsEmpty());
}

/* ---- The content request ---- */

TEST_F(Download, AContentRequestAnswered503TwiceFailsAfterTwoAttempts)
{
    service.answer(http_peer_answer::complete(503, "", at_once));
    service.answer(http_peer_answer::complete(503, "", at_once));
    debug_trace trace;
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.tag, "INTERNAL_ERROR");
    EXPECT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 2U) << "before each attempt";
    EXPECT_THAT(store.requests(), IsEmpty());
}

TEST_F(Download, AContentRequestAnswered503WithoutRetryAfterIsNotRepeated)
{
    service.answer(http_peer_answer::complete(503));
    EXPECT_FALSE(send());
    EXPECT_EQ(service.requests().size(), 1U);
}

TEST_F(Download, AContentRequestAnsweredWithContentIsRepeatedAndMeansBusy)
{
    service.answer(http_peer_answer::complete(200, "content"));
    service.answer(http_peer_answer::complete(200, "content"));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.code, 451);
    EXPECT_EQ(host.answer.tag, too_busy);
    EXPECT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, TheJsonOfAContentAnswerIsNotConsulted)
{
    service.answer(http_peer_answer::json(404, R"({"error":{"code":"trashed","message":"m"}})"));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "");
}

TEST_F(Download, ARedirectWithoutALocationIsAnErrorOfItsOwn)
{
    service.answer(http_peer_answer::complete(302));
    EXPECT_FALSE(send());
    EXPECT_THAT(host.answer.text, testing::HasSubstr("Content answer without a Location"));
    EXPECT_EQ(host.answer.type, 6);
    EXPECT_THAT(store.requests(), IsEmpty());
}

TEST_F(Download, AContentAnswerThatIsTakenAsDoneHasNoLocationEither)
{
    service.answer(http_peer_answer::complete(410));
    EXPECT_FALSE(send());
    EXPECT_THAT(host.answer.text, testing::HasSubstr("Content answer without a Location"));
}

TEST_F(Download, ALocationInThePlainToAnotherHostIsRefused)
{
    service.answer(graph::redirect("http://files.example/x"));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, HeadersAndUriThatCannotBeFormedAreSystemErrorsWithoutARequest)
{
    for (int call : {1, 2}) { // the token's header, the URI
        failing_text = call;
        EXPECT_FALSE(send());
        EXPECT_THAT(host.answer.text, testing::StartsWith("System error in malloc")) << call;
    }
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(Download, ARangeThatCannotBeFormedIsASystemErrorBeforeTheDownload)
{
    redirect();
    host.ranges = {{100, 50}};
    failing_text = 3;
    EXPECT_FALSE(send());
    EXPECT_THAT(host.answer.text, testing::StartsWith("System error in malloc"));
    EXPECT_EQ(service.requests().size(), 1U);
    EXPECT_THAT(store.requests(), IsEmpty());
}

/* ---- The shared allowance of one repetition a pass ---- */

TEST_F(Download, ADownloadThatFailedMayBeRepeatedOnce)
{
    redirect();
    store.answer(http_peer_answer::complete(503, "busy", at_once));
    store.answer(http_peer_answer::complete(200, "content"));
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), "content");
    EXPECT_EQ(store.requests().size(), 2U);
    EXPECT_EQ(service.requests().size(), 1U) << "the address is not asked for again";
}

TEST_F(Download, ADownloadIsNotRepeatedTwice)
{
    redirect();
    store.answer(http_peer_answer::complete(429));
    store.answer(http_peer_answer::complete(429));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.tag, too_busy);
    EXPECT_EQ(store.requests().size(), 2U);
}

TEST_F(Download, AContentRequestThatNeededTwoAttemptsLeavesTheDownloadOne)
{
    service.answer(http_peer_answer::complete(429));
    redirect();
    store.answer(http_peer_answer::complete(429));
    store.answer(http_peer_answer::complete(200, "content"));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.tag, too_busy);
    EXPECT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(store.requests().size(), 1U);
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, ALostContentRequestAlsoUsesUpTheRepetition)
{
    service.answer(http_peer_answer().reset());
    redirect();
    store.answer(http_peer_answer().reset());
    EXPECT_FALSE(send());
    EXPECT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(store.requests().size(), 1U);
}

TEST_F(Download, EachPassHasARepetitionOfItsOwn)
{
    const std::string file = content_of(40);
    service.answer(http_peer_answer::complete(429));
    redirect();
    redirect();
    store.answer(partial(file, 0, 10));
    store.answer(http_peer_answer::complete(429));
    store.answer(partial(file, 20, 10));
    host.ranges = {{0, 10}, {20, 10}};
    EXPECT_TRUE(send()) << host.answer.text;
    EXPECT_EQ(host.sent_bytes(), file.substr(0, 10) + file.substr(20, 10));
}

TEST_F(Download, AResetInTheBodyIsRepeatedAndEachByteDeliveredOnce)
{
    const std::string file = content_of(200000);
    for (const std::size_t cut : {1U, 16383U, 16384U, 100000U, 199999U}) {
        redirect();
        store.answer(
            http_peer_answer()
                .send("HTTP/1.1 200 OK\r\nContent-Length: 200000\r\n\r\n" + file.substr(0, cut))
                .pause(20ms)
                .reset());
        store.answer(http_peer_answer::complete(200, file));
        EXPECT_TRUE(send()) << cut << ": " << host.answer.text;
        EXPECT_TRUE(host.sent_bytes() == file) << cut;
    }
}

TEST_F(Download, ABodyThatEndsEarlyIsRepeatedAndThenFails)
{
    const auto truncated =
        http_peer_answer().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345").close();
    redirect();
    store.answer(truncated);
    store.answer(truncated);
    EXPECT_FALSE(send());
    EXPECT_EQ(store.requests().size(), 2U);
    EXPECT_EQ(host.sent_bytes(), "12345") << "what was delivered stays delivered";
}

TEST_F(Download, ARefusedConnectionFailsTheTransfer)
{
    const refusing_port nobody;
    service.answer(graph::redirect(nobody.url("/file")));
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_FALSE(send());
    EXPECT_EQ(host.sent_bytes(), "");
    EXPECT_GE(trace.count("API CALL!\n"), 2U);
    EXPECT_LE(trace.count("API CALL!\n"), 3U);
}

/* ---- Error pages are not content ---- */

TEST_F(Download, AnErrorPageIsNeverDelivered)
{
    redirect();
    store.answer(http_peer_answer::complete(503, "<html>Service Unavailable</html>"));
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.code, 500);
    EXPECT_EQ(host.answer.tag, "INTERNAL_ERROR");
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, AStatusThatIsTakenAsDoneDeliversNothingAndTheHostSaysSo)
{
    for (int status : {410, 416, 405}) {
        redirect();
        store.answer(http_peer_answer::complete(status, "<html>gone</html>"));
        EXPECT_FALSE(send()) << status;
        EXPECT_EQ(host.answer.code, 451) << status;
        EXPECT_EQ(host.sent_bytes(), "");
    }
}

TEST_F(Download, ARedirectOfTheDownloadIsNotFollowed)
{
    redirect();
    store.on_request([&](const auto &) { return graph::redirect(store.url("/again")); });
    EXPECT_FALSE(send());
    EXPECT_EQ(host.sent_bytes(), "");
    for (const auto &request : store.requests()) {
        EXPECT_EQ(graph::path(request), "/dl");
    }
}

TEST_F(Download, AWholeFileInAnswerToARangeIsNotDelivered)
{
    redirect();
    store.on_request([](const auto &) { return http_peer_answer::complete(200, content_of(300)); });
    host.ranges = {{100, 50}};
    EXPECT_FALSE(send());
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, AnotherRangeThanTheOneAskedForIsNotDelivered)
{
    redirect();
    store.on_request([](const auto &) { return partial(content_of(300), 110, 50); });
    host.ranges = {{100, 50}};
    EXPECT_FALSE(send());
    EXPECT_EQ(host.sent_bytes(), "");
}

TEST_F(Download, AClientThatLeavesEndsTheTransfer)
{
    redirect();
    store.on_request(
        [](const auto &) { return http_peer_answer::complete(200, content_of(1000000)); });
    host.send_fails_after = 1000;
    EXPECT_FALSE(send());
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answers, 1);
}

/* ---- Lines ---- */

TEST_F(Download, ItsLinesGoToTheDebugChannel)
{
    redirect();
    store.answer(http_peer_answer::complete(200, "x"));
    debug_trace trace;
    ASSERT_TRUE(send());
    EXPECT_EQ(trace.count("tirval_i_onedrive_send: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_send: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 1U)
        << "the download does not go to Graph";
}

TEST_F(Download, AFailuresChainIsWrittenAtTheErrorLevel)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(host.send("/My files/none"));
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("tirval_i_onedrive_send: exit: result=0x[0-9a-f]+ "
                                       "message=.*GridFTP-Path: \"/My files/none\""));
    EXPECT_THAT(trace.text(), testing::Not(testing::HasSubstr("token-1")));
}

/* ---- What callers choose: pacing, and what is done before an attempt ---- */

class PacedContent : public testing::Test {
  protected:
    PacedContent() : session(peer.url(""), 5)
    {
        peer.on_request([this](const http_peer_request &request) {
            return request.target == "/dl" ? http_peer_answer::complete(200, "content")
                                           : graph::redirect(peer.url("/dl"));
        });
        content.length = -1;
        content.read_arg = &bytes;
        content.read_callback = [](void *arg, void *buffer, size_t length) -> tirval_result_t {
            static_cast<std::string *>(arg)->append(static_cast<const char *>(buffer), length);
            return TIRVAL_SUCCESS;
        };
        content.attempt_arg = this;
        content.before_attempt = [](void *arg) {
            auto *self = static_cast<PacedContent *>(arg);
            ++self->attempts;
            self->before_download = self->session.handle()->retry_state.shared->last;
        };
    }
    tirval_result_t fetch()
    {
        return tirval_i_onedrive_fetch_content(session.handle(), "/My files/a", &content);
    }
    /* Whether the last download request took its turn among the user's requests. */
    bool download_took_a_turn() const
    {
        const tirval_abstime_t after = session.handle()->retry_state.shared->last;
        return tirval_abstime_cmp(&before_download, &after) != 0;
    }

    http_peer peer;
    test_session session;
    tirval_i_onedrive_content_t content = {};
    std::string bytes;
    int attempts = 0;
    tirval_abstime_t before_download = {};
};

TEST_F(PacedContent, ContentRequestsKeepTheUsersSpacingAndDownloadsDoNot)
{
    ASSERT_EQ(fetch(), TIRVAL_SUCCESS);
    EXPECT_FALSE(download_took_a_turn());
    ASSERT_EQ(fetch(), TIRVAL_SUCCESS);
    EXPECT_FALSE(download_took_a_turn());
    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 4U);
    EXPECT_GE(requests[2].arrived - requests[0].arrived, 150ms);
    EXPECT_EQ(bytes, "contentcontent");
    EXPECT_EQ(attempts, 2) << "only the downloads";
}

TEST_F(PacedContent, APacedDownloadKeepsTheUsersSpacing)
{
    content.paced_download = true;
    ASSERT_EQ(fetch(), TIRVAL_SUCCESS);
    EXPECT_TRUE(download_took_a_turn());
    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_GE(requests[1].arrived - requests[0].arrived, 150ms);
}

TEST_F(PacedContent, EachDownloadAttemptIsPrepared)
{
    int downloads = 0;
    peer.on_request([&](const http_peer_request &request) {
        if (request.target != "/dl") {
            return graph::redirect(peer.url("/dl"));
        }
        return ++downloads == 1 ? http_peer_answer::complete(429)
                                : http_peer_answer::complete(200, "content");
    });
    ASSERT_EQ(fetch(), TIRVAL_SUCCESS);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(bytes, "content");
}

TEST_F(PacedContent, AStatusThatIsTakenAsDoneIsSuccessWithoutBytes)
{
    peer.on_request([&](const http_peer_request &request) {
        return request.target == "/dl" ? http_peer_answer::complete(416, "error page")
                                       : graph::redirect(peer.url("/dl"));
    });
    EXPECT_EQ(fetch(), TIRVAL_SUCCESS);
    EXPECT_EQ(bytes, "");
}

} // namespace
