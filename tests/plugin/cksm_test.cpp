// Checksums: stored ones, and those that are computed over a download.
#include "command_support.h"
#include "library_seams.h"
#include "refusing_port.h"

#include <climits>

namespace {

int checksums_running = 0;
bool update_fails = false;
bool finalize_fails = false;
const char *long_text = nullptr; /* what the engine gives in place of its own text */

} // namespace

/* These stand before the host's own: what is begun must be ended, and each may fail. */
extern "C" TIRVAL_API tirval_result_t tirval_gfs_checksum_init(const char *algorithm,
                                                               tirval_gfs_checksum_t *checksum)
{
    const tirval_result_t result = next_definition<decltype(tirval_gfs_checksum_init)>(
        "tirval_gfs_checksum_init")(algorithm, checksum);
    checksums_running += result == TIRVAL_SUCCESS ? 1 : 0;
    return result;
}
extern "C" TIRVAL_API tirval_result_t tirval_gfs_checksum_update(tirval_gfs_checksum_t checksum,
                                                                 const void *data,
                                                                 tirval_size_t length)
{
    if (update_fails) {
        return tirval_i_onedrive_system_error("update");
    }
    return next_definition<decltype(tirval_gfs_checksum_update)>("tirval_gfs_checksum_update")(
        checksum, data, length);
}
extern "C" TIRVAL_API tirval_result_t tirval_gfs_checksum_finalize(tirval_gfs_checksum_t checksum,
                                                                   char **text)
{
    --checksums_running;
    const tirval_result_t result = next_definition<decltype(tirval_gfs_checksum_finalize)>(
        "tirval_gfs_checksum_finalize")(checksum, text);
    if (finalize_fails || long_text != nullptr) {
        std::free(*text);
        *text = finalize_fails ? nullptr : strdup(long_text);
    }
    return finalize_fails ? tirval_i_onedrive_system_error("finalize") : result;
}

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const char path[] = "/My files/a";
const char content[] = "The quick brown fox jumps over the lazy dog";
const char content_md5[] = "9e107d9d372bb6826bd81d3542a419d6";
const char content_sha1[] = "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12";
const char empty_md5[] = "d41d8cd98f00b204e9800998ecf8427e";

class Checksum : public command_test {
  protected:
    Checksum()
    {
        record = session.enter("/My files", "a", "id-a", TIRVAL_ONEDRIVE_FILE);
        record->size = sizeof content - 1;
        update_fails = finalize_fails = false;
        long_text = nullptr;
    }
    ~Checksum() override
    {
        EXPECT_EQ(checksums_running, 0);
        EXPECT_EQ(store.unexpected(), 0U);
        EXPECT_EQ(store.unused(), 0U);
    }

    bool ask(const std::string &algorithm, tirval_off_t offset = 0, tirval_off_t length = -1)
    {
        const bool answered = host.checksum(path, algorithm, offset, length);
        EXPECT_EQ(host.answers, 1);
        EXPECT_EQ(host.response.has_value(), answered) << "no text without a checksum";
        return answered;
    }
    /* The service redirects to the store, which then gives these bytes of the content. */
    void redirect() { peer.answer(graph::redirect(store.url("/dl?tempauth=x%20y"))); }
    void give(std::size_t first = 0, std::size_t length = std::string::npos)
    {
        redirect();
        const std::string all = content;
        if (first == 0 && length == std::string::npos) {
            store.answer(http_peer_answer::complete(200, all));
            return;
        }
        const std::string part = all.substr(first, length);
        store.answer(http_peer_answer::complete(
            206, part,
            {{"Content-Range", "bytes " + std::to_string(first) + "-" +
                                   std::to_string(first + part.size() - 1) + "/" +
                                   std::to_string(all.size())}}));
    }
    static void set(char **field, const char *text) { *field = strdup(text); }

    http_peer store; /* where the content lies */
    tirval_onedrive_path_info_t *record;
};

/* ---- Stored checksums ---- */

TEST_F(Checksum, AStoredHashOfTheWholeFileIsTheAnswer)
{
    set(&record->md5, "0123456789abcdef");
    set(&record->sha1, "ABCDEF0123");
    set(&record->sha256, "feDC");
    const std::pair<const char *, const char *> answers[] = {
        {"MD5", "0123456789abcdef"}, {"md5", "0123456789abcdef"}, {"SHA1", "ABCDEF0123"},
        {"Sha1", "ABCDEF0123"},      {"SHA256", "feDC"},          {"sha256", "feDC"}};
    for (const auto &[algorithm, answer] : answers) {
        EXPECT_TRUE(ask(algorithm)) << host.answer.text;
        EXPECT_EQ(host.response, answer) << algorithm;
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Checksum, AHashOfTheListingIsTheAnswer)
{
    session.enter("/My files", "q", "Q");
    peer.answer(
        graph::page({R"({"name":"x","id":"X","size":9,"file":{"hashes":{"sha1Hash":"ABCDEF",)"
                     R"("quickXorHash":"aB+/="}}})"}));
    EXPECT_TRUE(host.checksum("/My files/q/x", "SHA1"));
    EXPECT_EQ(host.response, "abcdef");
    EXPECT_TRUE(host.checksum("/My files/q/x", "QuickXORHex"));
    EXPECT_EQ(host.response, "61422b2f3d");
    EXPECT_EQ(peer.requests().size(), 1U);
}

TEST_F(Checksum, AStoredHashIsCutAt256Characters)
{
    set(&record->sha1, std::string(300, 'a').c_str());
    EXPECT_TRUE(ask("SHA1"));
    EXPECT_EQ(host.response, std::string(256, 'a'));
    set(&record->qxr, std::string(200, 'J').c_str());
    EXPECT_TRUE(ask("QuickXORHex"));
    std::string spelt;
    for (int i = 0; i < 128; ++i) {
        spelt += "4a";
    }
    EXPECT_EQ(host.response, spelt);
}

TEST_F(Checksum, AQuickXorHashIsSpeltCharacterByCharacter)
{
    set(&record->qxr, "Zz09+/=\xff");
    for (const char *name : {"QuickXORHex", "quickxorhex", "QUICKXORHEX"}) {
        EXPECT_TRUE(ask(name));
        EXPECT_EQ(host.response, "5a7a30392b2f3dff");
    }
    EXPECT_STREQ(record->qxr, "Zz09+/=\xff");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Checksum, TheQuickXorHashOfAnEmptyItemIsKnownAndKept)
{
    record->size = 0;
    EXPECT_TRUE(ask("QuickXORHex"));
    EXPECT_EQ(host.response, "4141414141414141414141414141414141414141414141414141413d");
    EXPECT_STREQ(record->qxr, "AAAAAAAAAAAAAAAAAAAAAAAAAAA=");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Checksum, TheEnginesQuickXorTextOfNothingIsTheSame)
{
    EXPECT_TRUE(ask("QuickXORHex", 0, 0));
    EXPECT_EQ(host.response, "4141414141414141414141414141414141414141414141414141413d");
    EXPECT_EQ(record->qxr, nullptr) << "nothing is kept of it";
}

TEST_F(Checksum, TheStoredQuickXorHashOfAnEmptyItemGoesFirst)
{
    record->size = 0;
    set(&record->qxr, "B");
    EXPECT_TRUE(ask("QuickXORHex"));
    EXPECT_EQ(host.response, "42");
}

TEST_F(Checksum, AStoredHashIsNotTheAnswerOfARange)
{
    set(&record->md5, "0123");
    give(4);
    EXPECT_TRUE(ask("MD5", 4, -1)) << host.answer.text;
    EXPECT_EQ(host.response, "bc65894ee30bffb0006d084f5a4b3ae3");
    EXPECT_EQ(store.requests().at(0).header("Range"), "bytes=4-");
}

/* ---- Computed checksums ---- */

TEST_F(Checksum, AWholeFileIsDownloadedOnceWithoutARange)
{
    give();
    debug_trace trace;
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_EQ(host.response, content_md5);
    ASSERT_EQ(peer.requests().size(), 1U);
    const auto request = peer.requests().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/v1.0/me/drive/root:/a:/content");
    EXPECT_EQ(request.header("Authorization"), "Bearer token-1");
    ASSERT_EQ(store.requests().size(), 1U);
    const auto download = store.requests().at(0);
    EXPECT_EQ(download.method, "GET");
    EXPECT_EQ(download.target, "/dl?tempauth=x%20y") << "the address is used as it stands";
    EXPECT_EQ(download.header_count("Authorization"), 0U) << "the token never goes there";
    EXPECT_EQ(download.header_count("Range"), 0U);
    EXPECT_EQ(trace.count("API CALL!\n"), 2U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_cksm: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_cksm_cb: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_cksm: exit: result=TIRVAL_SUCCESS\n"), 1U);
}

struct algorithm {
    const char *name;
    const char *text;
    char *tirval_onedrive_path_info_t::*kept; /* null: not kept */
};

class ChecksumAlgorithm : public Checksum, public testing::WithParamInterface<algorithm> {};

TEST_P(ChecksumAlgorithm, IsComputedAndKeptWhereTheRecordHasAPlaceForIt)
{
    give();
    EXPECT_TRUE(ask(GetParam().name)) << host.answer.text;
    EXPECT_EQ(host.response, GetParam().text);
    for (const auto field :
         {&tirval_onedrive_path_info_t::md5, &tirval_onedrive_path_info_t::sha1,
          &tirval_onedrive_path_info_t::sha256, &tirval_onedrive_path_info_t::qxr}) {
        EXPECT_STREQ(record->*field, field == GetParam().kept ? GetParam().text : nullptr);
    }
    const bool kept = GetParam().kept != nullptr;
    if (!kept) {
        give();
    }
    EXPECT_TRUE(ask(GetParam().name)) << host.answer.text;
    EXPECT_EQ(host.response, GetParam().text);
    EXPECT_EQ(store.requests().size(), kept ? 1U : 2U);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ChecksumAlgorithm,
    testing::Values(algorithm{"MD5", content_md5, &tirval_onedrive_path_info_t::md5},
                    algorithm{"md5", content_md5, &tirval_onedrive_path_info_t::md5},
                    algorithm{"SHA1", content_sha1, &tirval_onedrive_path_info_t::sha1},
                    algorithm{"SHA256",
                              "d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592",
                              &tirval_onedrive_path_info_t::sha256},
                    algorithm{"SHA512",
                              "07e547d9586f6a73f73fbac0435ed76951218fb7d0c8d788a309d785436bbb64"
                              "2e93a252a954f23912547d1e8a3b5ed6e1bfd7097821233fa0538f3db854fee6",
                              nullptr},
                    algorithm{"ADLER32", "5bdc0fda", nullptr},
                    algorithm{"QuickXORHex",
                              "624d536c6279736d784a4c365337355877664d63515a4f706372343d", nullptr},
                    algorithm{"Dropbox",
                              "6d37795021e544d82b41850edf7aabab9a0ebe274e54a519840c4666f35b3937",
                              nullptr}));

TEST_F(Checksum, AnUnknownAlgorithmIsTheEnginesError)
{
    EXPECT_FALSE(ask("CRC64"));
    EXPECT_EQ(host.answer.code, 504);
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Checksum, AnEmptyFileIsDownloadedForAnAlgorithmWithoutAStoredHash)
{
    record->size = 0;
    redirect();
    store.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_EQ(host.response, empty_md5);
}

TEST_F(Checksum, ALengthOfZeroDownloadsNothing)
{
    EXPECT_TRUE(ask("MD5", 0, 0)) << host.answer.text;
    EXPECT_EQ(host.response, empty_md5);
    EXPECT_THAT(peer.requests(), IsEmpty());
    EXPECT_STREQ(record->md5, empty_md5) << "a range's checksum is kept, too";
}

TEST_F(Checksum, ATailIsOnePassAndItsHashReplacesTheKeptOne)
{
    set(&record->sha1, "old");
    give(40);
    EXPECT_TRUE(ask("SHA1", 40, -1)) << host.answer.text;
    EXPECT_EQ(store.requests().size(), 1U);
    EXPECT_EQ(store.requests().at(0).header("Range"), "bytes=40-");
    EXPECT_EQ(host.response, "e49512524f47b4138d850c9d9d85972927281da0");
    EXPECT_STREQ(record->sha1, "e49512524f47b4138d850c9d9d85972927281da0");
}

TEST_F(Checksum, APositiveLengthRepeatsTheSameRangeUntilADownloadFails)
{
    give(10, 5);
    give(10, 5);
    redirect();
    store.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(ask("MD5", 10, 5));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_EQ(peer.requests().size(), 3U);
    ASSERT_EQ(store.requests().size(), 3U);
    for (const auto &request : store.requests()) {
        EXPECT_EQ(request.header("Range"), "bytes=10-14");
    }
    EXPECT_EQ(record->md5, nullptr);
}

TEST_F(Checksum, ARangeMayReachToTheEndOfTheNumbersButNotBeyond)
{
    const std::tuple<tirval_off_t, tirval_off_t, const char *> ranges[] = {
        {INT64_MAX, -1, "bytes=9223372036854775807-"},
        {1, INT64_MAX - 1, "bytes=1-9223372036854775806"},
        {INT64_MAX - 5, 5, "bytes=9223372036854775802-9223372036854775806"},
    };
    for (const auto &[offset, length, text] : ranges) {
        redirect();
        store.answer(http_peer_answer::complete(403));
        EXPECT_FALSE(ask("MD5", offset, length));
        EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED") << host.answer.text;
        EXPECT_EQ(store.requests().back().header("Range"), text);
    }
    const size_t asked = store.requests().size();
    const std::pair<tirval_off_t, tirval_off_t> impossible[] = {
        {INT64_MAX, 5}, {INT64_MAX, INT64_MAX}, {-3, INT64_MIN}, {5, -7}};
    for (const auto &[offset, length] : impossible) {
        redirect();
        EXPECT_FALSE(ask("MD5", offset, length));
        EXPECT_THAT(host.answer.text, HasSubstr("Range is of an unknown form"));
    }
    EXPECT_EQ(store.requests().size(), asked);
}

TEST_F(Checksum, EachPassHasARepetitionAndTheTokenOfItsMoment)
{
    peer.answer(http_peer_answer::complete(429));
    give(0, 5);
    redirect();
    store.answer(http_peer_answer::complete(429));
    store.answer(http_peer_answer::complete(206, "The q", {{"Content-Range", "bytes 0-4/43"}}));
    peer.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(ask("MD5", 0, 5));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_EQ(peer.requests().size(), 4U);
    EXPECT_EQ(store.requests().size(), 3U);
}

TEST_F(Checksum, WhatIsComputedOfSharedItemsAndInLibrariesIsKept)
{
    peer.answer(graph::page({R"({"remoteItem":)" + graph::folder("X", "item-x") + "}"}));
    peer.answer(graph::page({graph::file("a")}));
    give();
    EXPECT_TRUE(host.checksum("/Shared/X/a", "MD5")) << host.answer.text;
    EXPECT_EQ(peer.requests().back().target, "/v1.0/drives/drive-1/items/item-x:/a:/content");
    EXPECT_STREQ(session.cached("/Shared/X/a")->md5, content_md5);

    session.enter("/Shared libraries", "Site", "site-1");
    session.enter("/Shared libraries/Site", "Lib", "drive-2");
    peer.answer(graph::page({graph::file("a")}));
    give();
    const std::string in_library = "/Shared libraries/Site/Lib/a";
    EXPECT_TRUE(host.checksum(in_library, "MD5")) << host.answer.text;
    EXPECT_EQ(peer.requests().back().target, "/v1.0/drives/drive-2/root:/a:/content");
    EXPECT_STREQ(session.cached(in_library)->md5, content_md5);
}

TEST_F(Checksum, TheEnginesTextIsCutAt256CharactersAndKeptWhole)
{
    const std::string text(300, 'f');
    long_text = text.c_str();
    give();
    EXPECT_TRUE(ask("MD5"));
    EXPECT_EQ(host.response, text.substr(0, 256));
    EXPECT_EQ(record->md5, text);
}

/* ---- Pacing ---- */

TEST_F(Checksum, BothRequestsTakeTheUsersTurn)
{
    give();
    debug_trace trace;
    ASSERT_TRUE(ask("MD5"));
    EXPECT_EQ(trace.count("tirval_i_onedrive_retry_delay: enter\n"), 2U);
}

TEST_F(Checksum, TheDownloadKeepsTheUsersSpacingAfterTheContentRequest)
{
    session.handle()->retry_state.delay = 200000;
    give();
    ASSERT_TRUE(ask("MD5"));
    EXPECT_GE(store.requests().at(0).arrived - peer.requests().at(0).arrived, 150ms);
}

TEST_F(Checksum, TheServicesWaitsAreKept)
{
    tirval_i_onedrive_max_delay = 25;
    redirect();
    store.answer(http_peer_answer::complete(429, "", {{"Retry-After", "9"}}));
    store.answer(http_peer_answer::complete(200, content));
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_THAT(sleeps, ElementsAre(9));
    std::free(record->md5);
    record->md5 = nullptr;
    sleeps.clear();
    peer.answer(http_peer_answer::complete(503, "", {{"Retry-After", "8"}}));
    give();
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_THAT(sleeps, ElementsAre(8)) << "not again before the download";
}

/* ---- Progress ---- */

TEST_F(Checksum, WithoutAnIntervalNoProgressIsTold)
{
    for (int interval : {0, -1}) {
        host.update_interval = interval;
        give();
        EXPECT_TRUE(ask("ADLER32"));
        EXPECT_THAT(host.progress, IsEmpty());
    }
}

TEST_F(Checksum, BeforeTheFirstReportIsDueNothingIsTold)
{
    host.update_interval = 3600;
    give();
    EXPECT_TRUE(ask("MD5"));
    EXPECT_THAT(host.progress, IsEmpty());
}

TEST_F(Checksum, ADownloadThatTakesLongIsReportedInBetween)
{
    host.update_interval = 1;
    redirect();
    store.answer(http_peer_answer()
                     .send("HTTP/1.1 200 OK\r\nContent-Length: 43\r\n\r\n")
                     .send(std::string(content, 10))
                     .pause(1100ms)
                     .send(std::string(content + 10)));
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    ASSERT_FALSE(host.progress.empty());
    EXPECT_EQ(host.progress.back(), "43");
    EXPECT_EQ(host.response, content_md5);
}

TEST_F(Checksum, AReportThatIsDueGoesOutBeforeADownloadIsAttempted)
{
    host.update_interval = 1;
    peer.answer(http_peer_answer().pause(1100ms).send(
        "HTTP/1.1 302 Found\r\nLocation: " + store.url("/dl") + "\r\nContent-Length: 0\r\n\r\n"));
    store.answer(http_peer_answer::complete(200, content));
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    ASSERT_FALSE(host.progress.empty());
    EXPECT_EQ(host.progress.front(), "0");
}

class ChecksumBlock : public Checksum {
  protected:
    /* Feeds blocks to a checksum that is under way. */
    void feed(int32_t frequency, int32_t due, const std::vector<std::string> &blocks)
    {
        host.in_command([&](tirval_gfs_operation_t op) {
            state = {op, frequency, due, 0, nullptr};
            ASSERT_EQ(tirval_gfs_checksum_init("MD5", &state.ctx), TIRVAL_SUCCESS);
            for (std::string block : blocks) {
                last = tirval_i_onedrive_cksm_cb(&state, block.data(), block.size());
            }
            char *computed = nullptr;
            EXPECT_EQ(tirval_gfs_checksum_finalize(state.ctx, &computed), TIRVAL_SUCCESS);
            text = taken(computed);
        });
    }
    tirval_i_onedrive_cksm_state_t state = {};
    tirval_result_t last = TIRVAL_FAILURE;
    std::string text;
};

TEST_F(ChecksumBlock, IsCountedAndFed)
{
    feed(0, 0, {std::string(content, 20), std::string(content + 20)});
    EXPECT_EQ(last, TIRVAL_SUCCESS);
    EXPECT_EQ(state.total_bytes, 43);
    EXPECT_EQ(text, content_md5);
    EXPECT_THAT(host.progress, IsEmpty());
    EXPECT_EQ(state.response_due, 0);
}

TEST_F(ChecksumBlock, IsReportedWithItsOwnBytesWhenAReportIsDue)
{
    const auto before = std::time(nullptr);
    feed(500, 1, {"12345", "678"});
    EXPECT_THAT(host.progress, ElementsAre("5")) << "the next report is due later";
    EXPECT_GE(state.response_due, before + 500);
    EXPECT_LE(state.response_due, std::time(nullptr) + 500);
    EXPECT_EQ(state.total_bytes, 8);
}

TEST_F(ChecksumBlock, IsReportedExactlyWhenDue)
{
    feed(0, static_cast<int32_t>(std::time(nullptr)), {"1", "23"});
    EXPECT_THAT(host.progress, ElementsAre("1", "3")) << "an interval of nothing is over at once";
}

TEST_F(ChecksumBlock, IsNotReportedBeforeItIsDue)
{
    feed(1, INT32_MAX, {"12345"});
    EXPECT_THAT(host.progress, IsEmpty());
    EXPECT_EQ(state.response_due, INT32_MAX);
}

TEST_F(ChecksumBlock, ThatTheEngineRefusesIsTheEnginesError)
{
    update_fails = true;
    feed(0, 0, {"12345"});
    EXPECT_NE(last, TIRVAL_SUCCESS);
    EXPECT_EQ(state.total_bytes, 5);
}

/* ---- Failures ---- */

TEST_F(Checksum, APathThatDoesNotExistIsTheAnswer)
{
    EXPECT_FALSE(host.checksum("/My files/none", "MD5"));
    EXPECT_EQ(host.answer.tag, "PATH_NOT_FOUND");
    EXPECT_EQ(host.response, std::nullopt);
    EXPECT_EQ(host.answers, 1);
}

TEST_F(Checksum, APathWithoutAUriIsRefused)
{
    EXPECT_FALSE(host.checksum("/", "MD5"));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(Checksum, AnEngineThatFailsIsTheAnswerAndNothingIsKept)
{
    redirect();
    store.answer(http_peer_answer::complete(200, content));
    update_fails = true;
    EXPECT_FALSE(ask("MD5"));
    EXPECT_THAT(host.answer.text, StartsWith("System error in update"));
    EXPECT_EQ(store.requests().size(), 1U) << "it is not downloaded again";
    update_fails = false;
    give();
    finalize_fails = true;
    EXPECT_FALSE(ask("MD5"));
    EXPECT_THAT(host.answer.text, StartsWith("System error in finalize"));
    EXPECT_EQ(record->md5, nullptr);
}

TEST_F(Checksum, TextsThatCannotBeFormedAreSystemErrors)
{
    for (int call : {1, 2}) { // the token's header, the URI
        failing_text = call;
        EXPECT_FALSE(ask("MD5", 10, -1));
        EXPECT_THAT(host.answer.text, StartsWith("System error in malloc")) << call;
    }
    EXPECT_THAT(peer.requests(), IsEmpty());
    redirect();
    failing_text = 3; // the range
    EXPECT_FALSE(ask("MD5", 10, -1));
    EXPECT_THAT(host.answer.text, StartsWith("System error in malloc"));
    EXPECT_THAT(store.requests(), IsEmpty());
}

TEST_F(Checksum, AFailureIsWrittenWithItsChain)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(host.checksum("/My files/none", "MD5"));
    EXPECT_THAT(
        trace.text(),
        testing::ContainsRegex(
            "tirval_i_onedrive_cksm: exit: result=0x[0-9a-f]+ message=(.|\n)*/My files/none"));
}

/* ---- Faults ---- */

class ChecksumListing : public Checksum, public testing::WithParamInterface<fault> {};

TEST_P(ChecksumListing, FaultIsTheAnswer)
{
    session.enter("/My files", "q", "Q");
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(host.checksum("/My files/q/x", "MD5"));
    expect_failure(GetParam());
    EXPECT_EQ(host.response, std::nullopt);
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
}

INSTANTIATE_TEST_SUITE_P(Faults, ChecksumListing, testing::ValuesIn(json_faults()), fault_name);

/* What is no redirect means that the service is busy, what is taken as done has no address. */
std::vector<fault> content_faults()
{
    std::vector<fault> all = common_faults();
    for (fault &row : all) {
        row.text = row.done ? "Content answer without a Location" : row.text;
    }
    all.push_back({"ContentInsteadOfARedirect", http_peer_answer::complete(200, content), 2, 451,
                   "TOO_BUSY", "", false});
    all.push_back({"NoContent", http_peer_answer::complete(204), 2, 451, "TOO_BUSY", "", false});
    all.push_back({"RedirectWithoutALocation", http_peer_answer::complete(302), 1, 0, "",
                   "Content answer without a Location", false});
    return all;
}

class ChecksumContent : public Checksum, public testing::WithParamInterface<fault> {};

TEST_P(ChecksumContent, FaultIsTheAnswerAndNothingIsKept)
{
    script(GetParam(), GetParam().attempts);
    EXPECT_FALSE(ask("MD5"));
    expect_failure(GetParam());
    EXPECT_EQ(peer.requests().size(), static_cast<size_t>(GetParam().attempts));
    EXPECT_THAT(store.requests(), IsEmpty());
    EXPECT_EQ(record->md5, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Faults, ChecksumContent, testing::ValuesIn(content_faults()), fault_name);

class ChecksumContentRepeated : public Checksum, public testing::WithParamInterface<fault> {};

TEST_P(ChecksumContentRepeated, RequestSucceedsAndUsesUpTheDownloadsRepetition)
{
    script(GetParam(), 1);
    give();
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_EQ(host.response, content_md5);
    std::free(record->md5);
    record->md5 = nullptr;
    script(GetParam(), 1);
    redirect();
    store.answer(http_peer_answer::complete(429));
    EXPECT_FALSE(ask("MD5"));
    EXPECT_EQ(host.answer.tag, "TOO_BUSY");
    EXPECT_EQ(store.requests().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Faults, ChecksumContentRepeated,
                         testing::ValuesIn(repeated(content_faults())), fault_name);

/* Content that was fed to the checksum already cannot be asked for again. */
std::vector<fault> download_faults()
{
    std::vector<fault> all;
    for (const fault &row : common_faults()) {
        if (!row.done) {
            all.push_back(row);
        }
    }
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 43\r\n\r\n";
    const std::string part(content, 10);
    const std::string used = "a part of the content was used already";
    const std::vector<fault> more = {
        {"ResetBehindTheHeaders", cut_off(head), 2, 0, "", "failed\n", false},
        {"ResetWithinTheContent", cut_off(head + part), 1, 0, "", used, false},
        {"ContentEndsEarly", http_peer_answer().send(head + part).close(), 1, 0, "", used, false},
        {"StalledWithinTheContent", http_peer_answer().send(head + part).await_close(), 1, 0, "",
         used, false},
        {"RedirectedAgain", graph::redirect("http://127.0.0.1:9/again"), 1, 0, "",
         "redirect instead of content", false},
    };
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

class ChecksumDownload : public Checksum, public testing::WithParamInterface<fault> {
  protected:
    void script_download(int times)
    {
        if (std::string(GetParam().name).starts_with("Stalled")) {
            tirval_i_onedrive_progress_timeout_ms = 400;
        }
        redirect();
        for (int i = 0; i < times; ++i) {
            store.answer(GetParam().answer);
        }
    }
};

TEST_P(ChecksumDownload, FaultIsTheAnswerAndNothingIsKept)
{
    script_download(GetParam().attempts);
    EXPECT_FALSE(ask("MD5"));
    expect_failure(GetParam());
    EXPECT_EQ(peer.requests().size(), 1U);
    EXPECT_EQ(store.requests().size(), static_cast<size_t>(GetParam().attempts));
    EXPECT_EQ(record->md5, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Faults, ChecksumDownload, testing::ValuesIn(download_faults()),
                         fault_name);

class ChecksumDownloadRepeated : public ChecksumDownload {};

TEST_P(ChecksumDownloadRepeated, RequestGivesTheRightChecksum)
{
    script_download(1);
    store.answer(http_peer_answer::complete(200, content));
    EXPECT_TRUE(ask("MD5")) << host.answer.text;
    EXPECT_EQ(host.response, content_md5);
    EXPECT_EQ(peer.requests().size(), 1U) << "the address is not asked for again";
    EXPECT_EQ(store.requests().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Faults, ChecksumDownloadRepeated,
                         testing::ValuesIn(repeated(download_faults())), fault_name);

TEST_F(Checksum, AStatusOfTheDownloadThatIsTakenAsDoneGivesTheChecksumOfNothing)
{
    for (int status : {410, 412, 416, 423}) {
        redirect();
        store.answer(http_peer_answer::complete(status, "<html>gone</html>"));
        EXPECT_TRUE(ask("SHA512")) << status << ": " << host.answer.text;
        EXPECT_THAT(host.response.value_or(""), StartsWith("cf83e1357eefb8bd")) << status;
    }
}

TEST_F(Checksum, AWholeFileInAnswerToARangeIsNotTaken)
{
    redirect();
    store.answer(http_peer_answer::complete(200, content));
    EXPECT_FALSE(ask("MD5", 10, -1));
    EXPECT_EQ(record->md5, nullptr);
}

TEST_F(Checksum, RefusedConnectionsAreTriedTwice)
{
    const refusing_port nobody;
    peer.answer(graph::redirect(nobody.url("/file")));
    debug_trace trace(TIRVAL_ONEDRIVE_DEBUG);
    EXPECT_FALSE(ask("MD5"));
    EXPECT_EQ(trace.count("API CALL!\n"), 3U);
    EXPECT_THAT(host.answer.text, HasSubstr("no connection could be made"));
    const std::string url = nobody.url("");
    tirval_i_onedrive_graph_url = url.c_str();
    EXPECT_FALSE(ask("MD5"));
    EXPECT_EQ(trace.count("API CALL!\n"), 5U);
    EXPECT_EQ(record->md5, nullptr);
}

} // namespace
