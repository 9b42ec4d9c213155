// Pins for every failure whether the request may be sent again.
#include "failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>

using tirval::rest::curl_rows;
using tirval::rest::failure;
using tirval::rest::failure_rows;
using tirval::rest::judge;

namespace {

const std::map<failure, bool> expected_conditions = {
    {failure::none, false},
    {failure::bad_argument, false},
    {failure::bad_uri, false},
    {failure::plain_http, false},
    {failure::no_certificates, false},
    {failure::cancelled, false},
    {failure::callback_failed, false},
    {failure::short_request_body, false},
    {failure::idle, true},
    {failure::sent_twice, true},
    {failure::headers_too_large, false},
    {failure::malformed_answer, false},
    {failure::short_head, true},
    {failure::body_too_large, false},
    {failure::json_too_deep, false},
    {failure::redirect, false},
    {failure::wrong_range, false},
    {failure::surplus_body, false},
    {failure::short_body, true},
    {failure::unannounced_end, false},
    {failure::partial_body_taken, false},
    {failure::out_of_memory, false},
    {failure::internal, false},
};

const std::set<CURLcode> retryable_codes = {
    CURLE_COULDNT_RESOLVE_PROXY,
    CURLE_COULDNT_RESOLVE_HOST,
    CURLE_COULDNT_CONNECT,
    CURLE_HTTP2,
    CURLE_PARTIAL_FILE,
    CURLE_OPERATION_TIMEDOUT,
    CURLE_SSL_CONNECT_ERROR,
    CURLE_GOT_NOTHING,
    CURLE_SEND_ERROR,
    CURLE_RECV_ERROR,
    CURLE_SEND_FAIL_REWIND,
    CURLE_SSL_SHUTDOWN_FAILED,
    CURLE_AGAIN,
    CURLE_NO_CONNECTION_AVAILABLE,
    CURLE_HTTP2_STREAM,
    CURLE_HTTP3,
    CURLE_QUIC_CONNECT_ERROR,
    CURLE_PROXY,
};

} // namespace

TEST(RestFailures, EachConditionOfTheLibraryIsRetryableAsListed)
{
    EXPECT_EQ(failure_rows().size(), expected_conditions.size());
    for (const auto &[what, retryable] : expected_conditions) {
        EXPECT_EQ(judge(what).retryable, retryable) << static_cast<int>(what);
    }
}

TEST(RestFailures, ExactlyTheTransientCodesOfLibcurlAreRetryable)
{
    for (int code = 1; code < CURL_LAST; ++code) {
        const auto each = static_cast<CURLcode>(code);
        EXPECT_EQ(judge(each).judged.retryable, retryable_codes.count(each) == 1) << code;
    }
}

TEST(RestFailures, EachRowStandsOnceAndHasWords)
{
    std::set<failure> conditions;
    for (const auto &row : failure_rows()) {
        EXPECT_TRUE(conditions.insert(row.what).second) << static_cast<int>(row.what);
        EXPECT_THAT(row.judged.text, testing::Not(testing::StrEq("")));
    }
    std::set<CURLcode> codes;
    for (const auto &row : curl_rows()) {
        EXPECT_TRUE(codes.insert(row.code).second) << row.code;
        EXPECT_THAT(row.judged.text, testing::Not(testing::StrEq("")));
    }
}

TEST(RestFailures, ACodeOfALaterLibcurlIsNotRetryable)
{
    EXPECT_FALSE(judge(static_cast<CURLcode>(CURL_LAST + 7)).judged.retryable);
}
