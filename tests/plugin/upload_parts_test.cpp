// Large files: their parts on the wire, stores that are continued, and what becomes of the record.
#include "store_fixture.h"

#include <optional>

/* What the plug-in asked of the REST library. */
struct rest_call {
    std::string method;
    std::vector<std::pair<std::string, std::string>> headers;
    tirval_dsi_rest_write_t write_callback = nullptr;
    std::optional<tirval_dsi_rest_gridftp_op_arg_t> content; /* as it was before the call */
    intptr_t idle_ms = 0;
};
static std::vector<rest_call> rest_calls;
/* Told the content's record after each call. */
static std::function<void(tirval_dsi_rest_gridftp_op_arg_t *content)> after_put;

extern "C" TIRVAL_API tirval_result_t tirval_dsi_rest_request(
    const char *method, const char *uri, const tirval_dsi_rest_key_array_t *query,
    const tirval_dsi_rest_key_array_t *headers, const tirval_dsi_rest_callbacks_t *callbacks)
{
    rest_call call;
    call.method = method;
    for (size_t i = 0; i < headers->count; ++i) {
        call.headers.emplace_back(headers->key_value[i].key, headers->key_value[i].value);
    }
    call.write_callback = callbacks->data_write_callback;
    call.idle_ms = reinterpret_cast<intptr_t>(callbacks->progress_callback_arg);
    tirval_dsi_rest_gridftp_op_arg_t *content = nullptr;
    if (call.write_callback == tirval_dsi_rest_write_gridftp_op) {
        content =
            static_cast<tirval_dsi_rest_gridftp_op_arg_t *>(callbacks->data_write_callback_arg);
        call.content = *content;
    }
    rest_calls.push_back(call);
    const tirval_result_t result = next_definition<decltype(tirval_dsi_rest_request)>(
        "tirval_dsi_rest_request")(method, uri, query, headers, callbacks);
    if (content != nullptr && after_put) {
        after_put(content);
    }
    return result;
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

class UploadParts : public StoreFixture {
  protected:
    UploadParts()
    {
        rest_calls.clear();
        after_put = nullptr;
    }
    /* A fresh store of a file that is large enough for a session. */
    bool store_large(const std::string &file)
    {
        service.answer(session_made());
        return store(file);
    }
    std::vector<std::string> sent_ranges() const
    {
        std::vector<std::string> ranges;
        for (const auto &request : parts.requests()) {
            ranges.push_back(request.header("Content-Range").value_or("(none)"));
        }
        return ranges;
    }
    /* Whether each request of the parts' carried just the bytes that its range names. */
    void expect_ranges_of(const std::string &file) const
    {
        for (const auto &request : parts.requests()) {
            const sent_range range = range_of(request);
            EXPECT_EQ(range.total, file.size());
            EXPECT_EQ(request.body_size, range.last + 1 - range.first);
            EXPECT_TRUE(request.body == file.substr(range.first, range.last + 1 - range.first))
                << request.header("Content-Range").value_or("");
        }
    }
};

/* ---- Whole stores ---- */

struct large_file {
    std::size_t size;
    std::vector<std::string> ranges;
};

class UploadPartsSize : public UploadParts, public testing::WithParamInterface<large_file> {};

TEST_P(UploadPartsSize, AFileGoesUpInPartsByteForByte)
{
    const std::string file = content_of(GetParam().size);
    host.upload_chunk = 700001;
    EXPECT_TRUE(store_large(file)) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(host.begins, 1);
    EXPECT_EQ(service.requests().size(), 1U) << "no request sets the time";
    EXPECT_EQ(sent_ranges(), GetParam().ranges);
    expect_ranges_of(file);
    EXPECT_EQ(record(), nullptr);
    ASSERT_NE(session.cached(path), nullptr);
    EXPECT_STREQ(session.cached(path)->id, "id-stored");
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, UploadPartsSize,
    testing::Values(
        large_file{4194305, {"bytes 0-4194304/4194305"}},
        large_file{10485760, {"bytes 0-10485759/10485760"}},
        large_file{10485761, {"bytes 0-10485759/10485761", "bytes 10485760-10485760/10485761"}},
        large_file{20971520, {"bytes 0-10485759/20971520", "bytes 10485760-20971519/20971520"}},
        large_file{20971521,
                   {"bytes 0-10485759/20971521", "bytes 10485760-20971519/20971521",
                    "bytes 20971520-20971520/20971521"}}),
    [](const testing::TestParamInfo<large_file> &chosen) {
        return std::to_string(chosen.param.size);
    });

TEST_F(UploadParts, TheTimeTravelsWithTheSessionAndNotInARequestOfItsOwn)
{
    host.modification_time = 0;
    EXPECT_TRUE(store_large(content_of(simple_limit + 1))) << host.answer.text;
    ASSERT_EQ(service.requests().size(), 1U);
    EXPECT_THAT(service.requests().at(0).body, HasSubstr("1970-01-01T00:00:00Z"));
}

/* ---- The requests ---- */

TEST_F(UploadParts, APartCarriesNoTokenAndNoTypeAndIsNotChunked)
{
    enter_record(1000, 2500, parts.url("/up?tempauth=x%20y"));
    const std::string file = content_of(2500);
    EXPECT_TRUE(store_through_record(file)) << host.answer.text;
    ASSERT_EQ(parts.requests().size(), 3U);
    for (const auto &request : parts.requests()) {
        EXPECT_EQ(request.method, "PUT");
        EXPECT_EQ(request.target, "/up?tempauth=x%20y") << "the address is used as it stands";
        for (const char *name : {"Authorization", "Content-Type", "Transfer-Encoding", "Expect"}) {
            EXPECT_EQ(request.header_count(name), 0U) << name;
        }
        EXPECT_EQ(request.header_count("Content-Length"), 1U);
    }
    EXPECT_EQ(parts.requests().at(1).header("Content-Length"), "1000");
    EXPECT_EQ(parts.requests().at(2).header("Content-Length"), "500");
    expect_ranges_of(file);
}

TEST_F(UploadParts, TheLibraryIsGivenThreeHeadersInOrder)
{
    enter_record(1000, 2500, parts.url("/up"));
    EXPECT_TRUE(store_through_record(content_of(2500))) << host.answer.text;
    ASSERT_EQ(rest_calls.size(), 3U);
    EXPECT_THAT(rest_calls.at(1).headers,
                ElementsAre(Pair("Transfer-Encoding", ""), Pair("Content-Length", "1000"),
                            Pair("Content-Range", "bytes 1000-1999/2500")));
    EXPECT_THAT(rest_calls.at(2).headers,
                ElementsAre(Pair("Transfer-Encoding", ""), Pair("Content-Length", "500"),
                            Pair("Content-Range", "bytes 2000-2499/2500")));
    for (const auto &call : rest_calls) {
        EXPECT_EQ(call.idle_ms, 60000);
        ASSERT_TRUE(call.content);
        EXPECT_FALSE(call.content->eof);
    }
    EXPECT_EQ(rest_calls.at(2).content->offset, 2000);
    EXPECT_EQ(rest_calls.at(2).content->length, 500);
}

TEST_F(UploadParts, TheSessionsRequestHasItsHeadersInOrderAndTheSingleIdleTime)
{
    EXPECT_TRUE(store_large(content_of(simple_limit + 1))) << host.answer.text;
    ASSERT_EQ(rest_calls.size(), 2U);
    const std::string length = std::to_string(service.requests().at(0).body.size());
    EXPECT_THAT(rest_calls.at(0).headers, ElementsAre(Pair("Authorization", "Bearer token-1"),
                                                      Pair("Content-Type", "application/json"),
                                                      Pair("Content-Length", length)));
    EXPECT_EQ(rest_calls.at(0).write_callback, tirval_dsi_rest_write_block);
    EXPECT_EQ(rest_calls.at(0).idle_ms, 30000);
    EXPECT_EQ(rest_calls.at(1).idle_ms, 60000);
}

TEST_F(UploadParts, OffsetsBeyondFourGibibytesFitTheirHeaders)
{
    constexpr std::size_t total = 268435456000; // 25600 parts
    enter_record(part_size, total, parts.url("/up"));
    host.upload = content_of(part_size);
    host.write_range = {static_cast<tirval_off_t>(total - part_size), -1};
    EXPECT_TRUE(host.recv(path, static_cast<tirval_off_t>(total), false)) << host.answer.text;
    EXPECT_THAT(sent_ranges(), ElementsAre("bytes 268424970240-268435455999/268435456000"));
    EXPECT_TRUE(parts.requests().at(0).body == host.upload);
}

TEST_F(UploadParts, PartsAreNotMetered)
{
    enter_record(1000, 2500, parts.url("/up"));
    parts.answer(http_peer_answer::complete(429, "", {{"Retry-After", "7"}}));
    debug_trace trace;
    EXPECT_TRUE(store_through_record(content_of(2500))) << host.answer.text;
    EXPECT_EQ(trace.count("API CALL!\n"), 4U);
    EXPECT_EQ(trace.count("retry_delay"), 0U);
    EXPECT_THAT(slept, IsEmpty());
}

TEST_F(UploadParts, EachPartHasThreeAttemptsOfItsOwn)
{
    enter_record(1000, 3000, parts.url("/up"));
    std::vector<std::size_t> tried(3);
    parts.on_request([&](const http_peer_request &request) {
        return ++tried.at(range_of(request).first / 1000) < 3 ? http_peer_answer::complete(429)
                                                              : part_stored(request);
    });
    const std::string file = content_of(3000);
    EXPECT_TRUE(store_through_record(file)) << host.answer.text;
    EXPECT_THAT(tried, ElementsAre(3, 3, 3));
    expect_ranges_of(file);
    EXPECT_EQ(host.received, file.size()) << "the client sends once";
}

TEST_F(UploadParts, APartThatFailsThreeTimesEndsTheStoreAndTheRecordStays)
{
    const auto *const upload = enter_record(1000, 3000, parts.url("/up"));
    parts.on_request([&](const http_peer_request &request) {
        return range_of(request).first == 1000 ? http_peer_answer::complete(429)
                                               : part_stored(request);
    });
    EXPECT_FALSE(store_through_record(content_of(3000)));
    EXPECT_EQ(host.answer.code, 451);
    EXPECT_EQ(host.answer.tag, "TOO_BUSY");
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(parts.requests().size(), 4U);
    EXPECT_EQ(record(), upload);
    EXPECT_EQ(session.cached(path), nullptr);
}

TEST_F(UploadParts, AnEndThatAnEarlierPartHasSeenDoesNotCountForTheNext)
{
    enter_record(1000, 2000, parts.url("/up"));
    after_put = [](tirval_dsi_rest_gridftp_op_arg_t *content) { content->eof = true; };
    EXPECT_TRUE(store_through_record(content_of(2000))) << host.answer.text;
    ASSERT_EQ(rest_calls.size(), 2U);
    EXPECT_FALSE(rest_calls.at(1).content->eof);
}

TEST_F(UploadParts, AnEndThatAnEarlierAttemptHasSeenCountsForTheNext)
{
    hold_the_end_back(5);
    after_put = [](tirval_dsi_rest_gridftp_op_arg_t *content) { content->eof = true; };
    service.answer(http_peer_answer::complete(429));
    service.answer(stored());
    store("small");
    ASSERT_EQ(rest_calls.size(), 2U);
    EXPECT_FALSE(rest_calls.at(0).content->eof);
    EXPECT_TRUE(rest_calls.at(1).content->eof);
    EXPECT_EQ(host.reads_registered, 0);
}

/* ---- The answers to parts ---- */

class UploadPartsAnswer : public UploadParts {
  protected:
    UploadPartsAnswer() { enter_record(1000, 3000, parts.url("/up")); }

    /* Stores three parts, which are answered so; an unset one as it should be. */
    bool store_answered(const std::vector<std::optional<http_peer_answer>> &answers)
    {
        parts.on_request([answers](const http_peer_request &request) {
            const auto &answer = answers.at(range_of(request).first / 1000);
            return answer ? *answer : part_stored(request);
        });
        return store_through_record(content_of(3000));
    }
    static http_peer_answer without_expiration()
    {
        return http_peer_answer::json(202, R"({"nextExpectedRanges":["1-"]})");
    }
};

TEST_F(UploadPartsAnswer, AGoodLastPartReplacesWhatWasWrongBefore)
{
    const size_t errors = tirval_error_count();
    EXPECT_TRUE(store_answered({without_expiration(), {}, {}})) << host.answer.text;
    EXPECT_EQ(tirval_error_count(), errors) << "what is replaced is not kept";
    EXPECT_EQ(parts.requests().size(), 3U);
    EXPECT_EQ(record(), nullptr);
    EXPECT_NE(session.cached(path), nullptr);
}

TEST_F(UploadPartsAnswer, WhatIsWrongWithEveryPartBeforeIsReplacedToo)
{
    const auto number = http_peer_answer::json(202, R"({"expirationDateTime":5})");
    EXPECT_TRUE(store_answered({number, http_peer_answer::json(200, "[]"), {}}))
        << host.answer.text;
}

TEST_F(UploadPartsAnswer, ALaterPartsFailureStandsBeforeWhatWasWrong)
{
    EXPECT_FALSE(store_answered({without_expiration(), http_peer_answer::complete(403), {}}));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED");
    EXPECT_EQ(parts.requests().size(), 2U);
    EXPECT_NE(record(), nullptr);
}

TEST_F(UploadPartsAnswer, APartsAnswerWithoutJsonEndsTheStore)
{
    EXPECT_FALSE(store_answered({{}, http_peer_answer::complete(202), {}}));
    expect_malloc_error();
    EXPECT_EQ(parts.requests().size(), 2U);
    EXPECT_NE(record(), nullptr);
}

TEST_F(UploadPartsAnswer, TheLastPartsAnswerMustBeAnItem)
{
    EXPECT_FALSE(store_answered({{}, {}, http_peer_answer::complete(201)}));
    expect_malloc_error();
    EXPECT_NE(record(), nullptr);
}

TEST_F(UploadPartsAnswer, AnItemThatCannotBeReadEndsTheStore)
{
    EXPECT_FALSE(store_answered(
        {without_expiration(),
         {},
         http_peer_answer::json(
             201, R"({"name":"a.bin","id":"1","lastModifiedDateTime":"yesterday"})")}));
    expect_generic_error("Failed info_parse!");
    EXPECT_EQ(session.cached(path), nullptr);
    EXPECT_NE(record(), nullptr);
}

TEST_F(UploadPartsAnswer, AnItemThatCannotBeCachedEndsTheStore)
{
    EXPECT_FALSE(store_answered({{}, {}, http_peer_answer::json(201, R"({"id":"1"})")}));
    expect_generic_error("Failed cache update!");
    EXPECT_NE(record(), nullptr);
}

/* ---- Continued stores ---- */

constexpr std::size_t mebibyte = 1048576;

TEST_F(UploadParts, AStoreThatFailedAtAPartGoesOnWithThatPart)
{
    const std::string file = content_of(25 * mebibyte);
    parts.on_request([](const http_peer_request &request) {
        return range_of(request).first == part_size ? http_peer_answer::complete(429)
                                                    : part_stored(request);
    });
    EXPECT_FALSE(store_large(file));
    EXPECT_EQ(host.answer.tag, "TOO_BUSY");
    EXPECT_EQ(parts.requests().size(), 4U);
    ASSERT_NE(record(), nullptr);

    parts.on_request([](const http_peer_request &request) { return part_stored(request); });
    EXPECT_TRUE(go_on(file, part_size)) << host.answer.text;
    const auto ranges = sent_ranges();
    EXPECT_THAT(
        std::vector<std::string>(ranges.begin() + 4, ranges.end()),
        ElementsAre("bytes 10485760-20971519/26214400", "bytes 20971520-26214399/26214400"));
    expect_ranges_of(file);
    EXPECT_EQ(service.requests().size(), 1U) << "the session goes on";
    EXPECT_EQ(record(), nullptr);
    EXPECT_NE(session.cached(path), nullptr);
}

class UploadContinued : public UploadParts {
  protected:
    static constexpr std::size_t total = 5 * mebibyte;
    static constexpr std::size_t part = mebibyte;

    UploadContinued() { upload = enter_record(part, total, parts.url("/up")); }
    tirval_onedrive_upload_session_t *upload = nullptr;
    const std::string whole = content_of(total);
};

TEST_F(UploadContinued, FromTheStartSendsAllParts)
{
    EXPECT_TRUE(go_on(whole, 0)) << host.answer.text;
    EXPECT_EQ(parts.requests().size(), 5U);
    expect_ranges_of(whole);
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadContinued, AtTheLastPartSendsOnlyThat)
{
    EXPECT_TRUE(go_on(whole, 4 * part)) << host.answer.text;
    EXPECT_THAT(sent_ranges(), ElementsAre("bytes 4194304-5242879/5242880"));
    expect_ranges_of(whole);
}

TEST_F(UploadContinued, OffAPartBoundaryIsRefused)
{
    for (const std::size_t offset : {std::size_t{1}, std::size_t{1000}, part - 1, part + 1}) {
        EXPECT_FALSE(go_on(whole, offset));
        expect_refused_before_the_begin(553, "APPEND_NOT_SUPPORTED");
    }
    EXPECT_THAT(parts.requests(), IsEmpty());
    EXPECT_EQ(record(), upload);
}

TEST_F(UploadContinued, BeforeTheFileIsRefused)
{
    host.upload = whole;
    host.write_range = {-1, -1};
    EXPECT_FALSE(host.recv(path, total, false));
    expect_refused_before_the_begin(553, "APPEND_NOT_SUPPORTED");
}

TEST_F(UploadContinued, AWriteRangeThatIsNotTheWholeFileIsRefused)
{
    for (const tirval_off_t length : {tirval_off_t{0}, tirval_off_t{total - 1}, tirval_off_t{-2}}) {
        host.write_range = {0, length};
        EXPECT_FALSE(host.recv(path, total, false));
        expect_refused_before_the_begin(553, "APPEND_NOT_SUPPORTED");
    }
    host.upload = whole;
    host.write_range = {0, total};
    EXPECT_TRUE(host.recv(path, total, false)) << host.answer.text;
}

TEST_F(UploadContinued, BehindTheLastPartFailsWithoutAnErrorObject)
{
    for (const std::size_t offset : {total, total + part}) {
        host.upload = "";
        host.write_range = {static_cast<tirval_off_t>(offset), -1};
        debug_trace trace;
        EXPECT_FALSE(host.recv(path, total, false));
        EXPECT_EQ(host.answer.result, 0xFFFFFFFFU);
        EXPECT_EQ(host.answers, 1);
        EXPECT_EQ(host.begins, 1);
        EXPECT_EQ(trace.count("exit: result=0xffffffff message="), 3U);
        EXPECT_EQ(record(), upload);
    }
    EXPECT_THAT(parts.requests(), IsEmpty());
}

TEST_F(UploadContinued, ThePartsAreThoseOfTheRecordWhateverSizeIsAnnouncedNow)
{
    host.upload = whole;
    EXPECT_TRUE(host.recv(path, total - 5, false)) << host.answer.text;
    expect_ranges_of(whole);
}

TEST_F(UploadContinued, WithoutARecordThereIsNothingToContinue)
{
    host.upload = whole;
    EXPECT_FALSE(host.recv("/My files/other.bin", total, false));
    expect_refused_before_the_begin(553, "MULTI_PART_UPLOAD_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "");
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(UploadContinued, TheVirtualFoldersInTheTableAreNoUploads)
{
    for (const char *folder : {"/My files", "/Shared", "/Shared libraries"}) {
        ASSERT_NE(record(folder), nullptr);
        host.write_range = {0, -1};
        EXPECT_FALSE(host.recv(folder, total, false));
        expect_refused_before_the_begin(553, "MULTI_PART_UPLOAD_NOT_FOUND");
        EXPECT_NE(record(folder), nullptr);
    }
}

TEST_F(UploadContinued, AFreshStoreOfAPathWithARecordFailsAndTheRecordStays)
{
    EXPECT_FALSE(store_large(whole));
    expect_generic_error("Failed cache update!");
    EXPECT_EQ(host.begins, 0);
    EXPECT_EQ(host.received, 0U);
    EXPECT_EQ(record(), upload);
    EXPECT_TRUE(go_on(whole, 0)) << "the old session can still be continued";
    EXPECT_EQ(record(), nullptr);
    EXPECT_TRUE(store_large(whole)) << "and then a fresh one can be made";
}

TEST_F(UploadContinued, ASessionWithoutAnAddressFailsItsFirstPart)
{
    std::free(upload->url);
    upload->url = nullptr;
    EXPECT_FALSE(go_on(whole, 0));
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(rest_calls.size(), 1U) << "it is not tried again";
    EXPECT_EQ(record(), upload);
}

TEST_F(UploadContinued, AnAbortInAPartEndsTheStoreAtOnce)
{
    parts.on_request([](const auto &) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
        return http_peer_answer();
    });
    EXPECT_FALSE(go_on(whole, 0));
    EXPECT_EQ(host.answer.type, TIRVAL_ERROR_TYPE_CANCELLED) << host.answer.text;
    EXPECT_EQ(rest_calls.size(), 1U);
    EXPECT_EQ(record(), upload);
}

TEST_F(UploadContinued, AClientThatIsLostInAPartEndsTheStoreAtOnce)
{
    host.receive_fails_after = part + 5000;
    EXPECT_FALSE(go_on(whole, 0));
    EXPECT_EQ(host.answer.code, 426) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
    EXPECT_LE(rest_calls.size(), 2U);
    EXPECT_EQ(record(), upload);
}

TEST_F(UploadContinued, AClientWhoseDataEndsEarlyFailsTheStore)
{
    host.upload = whole.substr(0, part + 5000);
    EXPECT_FALSE(host.recv(path, total, false));
    EXPECT_EQ(host.answer.code, 451) << host.answer.text;
    EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    EXPECT_EQ(record(), upload);
}

TEST_F(UploadContinued, ItsLinesGoToTheDebugChannel)
{
    debug_trace trace;
    EXPECT_TRUE(go_on(whole, 0)) << host.answer.text;
    for (const char *function :
         {"tirval_i_onedrive_recv_chunked", "tirval_i_onedrive_upload_parts"}) {
        EXPECT_EQ(trace.count(std::string(function) + ": enter\n"), 1U) << function;
        EXPECT_EQ(trace.count(std::string(function) + ": exit: result=TIRVAL_SUCCESS\n"), 1U);
    }
    EXPECT_EQ(trace.count("API CALL!\n"), 5U);
}

} // namespace
