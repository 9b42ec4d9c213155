// What each answer of the service means to the client, and whether it may be asked again.
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

struct translation {
    tirval_result_t result;
    bool retryable;
    uint64_t retry_after;
};

class TranslateResponse : public testing::Test {
  protected:
    /* Null: no such header, no JSON. */
    static translation translate(int status, const char *json, const char *retry_after = nullptr)
    {
        tirval_dsi_rest_key_value_t wanted[] = {{"Retry-After", retry_after}};
        const tirval_dsi_rest_response_arg_t response = {status, {1, wanted}};
        const tirval_i_onedrive_json_t body(
            json == nullptr ? nullptr : json_loads(json, JSON_DECODE_ANY, nullptr));
        EXPECT_EQ(body == nullptr, json == nullptr) << json;
        translation out = {TIRVAL_SUCCESS, true, 99};
        out.result = tirval_onedrive_translate_response(&response, body.get(), &out.retryable,
                                                        &out.retry_after);
        return out;
    }
    static ftp_reply reply(int status) { return reply_of(translate(status, nullptr).result); }
    static translation translate_code(const std::string &code, const std::string &context = "{}")
    {
        return translate(400, (R"({"error":{"code":")" + code +
                               R"(","message":"why"},"context_info":)" + context + "}")
                                  .c_str());
    }

    test_session session;
};

const std::optional<std::string> no_message;

/* ---- Without JSON the status decides ---- */

TEST_F(TranslateResponse, ANonRedirectBelow400MeansBusyAndMayBeAskedAgain)
{
    for (int status : {0, 200, 304, 399}) {
        const translation out = translate(status, nullptr);
        EXPECT_EQ(reply_of(out.result), (ftp_reply{451, "TOO_BUSY", no_message})) << status;
        EXPECT_TRUE(out.retryable);
        EXPECT_EQ(out.retry_after, 0U);
    }
}

TEST_F(TranslateResponse, Status400IsAGenericErrorOfTheServicesAnswers)
{
    const translation out = translate(400, nullptr);
    EXPECT_TRUE(is_generic_error(out.result, "Bad OneDrive request"));
    EXPECT_FALSE(out.retryable);
    EXPECT_EQ(place_of(out.result).source, "translate_response");
    EXPECT_EQ(place_of(out.result).function, "tirval_onedrive_translate_response");
    EXPECT_EQ(place_of(out.result).line, 47);
}

TEST_F(TranslateResponse, Status401And403MeanNoPermission)
{
    EXPECT_EQ(reply(401), (ftp_reply{550, "PERMISSION_DENIED", no_message}));
    EXPECT_EQ(reply(403), (ftp_reply{550, "PERMISSION_DENIED", no_message}));
}

TEST_F(TranslateResponse, Status404MeansNotFoundWithAnEmptyMessage)
{
    EXPECT_EQ(reply(404), (ftp_reply{550, "PATH_NOT_FOUND", ""}));
}

TEST_F(TranslateResponse, Status409MeansExistsAndNamesNoPath)
{
    EXPECT_EQ(reply(409), (ftp_reply{553, "PATH_EXISTS", "GridFTP-Path: (null)"}));
}

TEST_F(TranslateResponse, Status429MeansBusyAndMayBeAskedAgain)
{
    const translation out = translate(429, nullptr);
    EXPECT_EQ(reply_of(out.result), (ftp_reply{451, "TOO_BUSY", no_message}));
    EXPECT_TRUE(out.retryable);
}

TEST_F(TranslateResponse, AnyOther4xxIsTakenAsDone)
{
    for (int status : {402, 405, 408, 410, 412, 416, 423, 428, 430, 451, 499}) {
        const translation out = translate(status, nullptr);
        EXPECT_EQ(out.result, TIRVAL_SUCCESS) << status;
        EXPECT_FALSE(out.retryable);
    }
}

TEST_F(TranslateResponse, Status500AndAboveIsAnInternalErrorNotAskedAgain)
{
    for (int status : {500, 502, 503, 507, 599, 999}) {
        const translation out = translate(status, nullptr);
        EXPECT_EQ(reply_of(out.result), (ftp_reply{500, "INTERNAL_ERROR", ""})) << status;
        EXPECT_FALSE(out.retryable);
        EXPECT_EQ(out.retry_after, 0U);
    }
}

/* ---- Retry-After ---- */

TEST_F(TranslateResponse, ARetryAfterMakesAnyAnswerRetryable)
{
    for (int status : {200, 400, 401, 404, 409, 412, 429, 500, 503}) {
        const translation out = translate(status, nullptr, "7");
        EXPECT_TRUE(out.retryable) << status;
        EXPECT_EQ(out.retry_after, 7U);
    }
}

TEST_F(TranslateResponse, A4xxTakenAsDoneStaysSoWithARetryAfter)
{
    EXPECT_EQ(translate(423, nullptr, "7").result, TIRVAL_SUCCESS);
}

TEST_F(TranslateResponse, OnlyTheLeadingDigitsOfARetryAfterCount)
{
    EXPECT_EQ(translate(503, nullptr, "3.5").retry_after, 3U);
    EXPECT_EQ(translate(503, nullptr, " 12 seconds").retry_after, 12U);
}

TEST_F(TranslateResponse, ADateInRetryAfterMeansAtOnce)
{
    const translation out = translate(503, nullptr, "Wed, 21 Oct 2026 07:28:00 GMT");
    EXPECT_TRUE(out.retryable);
    EXPECT_EQ(out.retry_after, 0U);
}

TEST_F(TranslateResponse, WithoutWantedHeadersNothingIsRetryable)
{
    const tirval_dsi_rest_response_arg_t response = {503, {0, nullptr}};
    bool retryable = true;
    uint64_t retry_after = 9;
    tirval_onedrive_translate_response(&response, nullptr, &retryable, &retry_after);
    EXPECT_FALSE(retryable);
    EXPECT_EQ(retry_after, 0U);
}

TEST_F(TranslateResponse, WithoutARoomForItTheRetryAfterIsNotRead)
{
    tirval_dsi_rest_key_value_t wanted[] = {{"Retry-After", "7"}};
    const tirval_dsi_rest_response_arg_t response = {503, {1, wanted}};
    bool retryable = true;
    tirval_onedrive_translate_response(&response, nullptr, &retryable, nullptr);
    EXPECT_FALSE(retryable);
}

TEST_F(TranslateResponse, BothOutPointersMayBeNull)
{
    const tirval_dsi_rest_response_arg_t response = {404, {0, nullptr}};
    EXPECT_EQ(
        reply_of(tirval_onedrive_translate_response(&response, nullptr, nullptr, nullptr)).code,
        550);
}

/* ---- With JSON the code decides ---- */

TEST_F(TranslateResponse, ANameInUseNamesTheConflict)
{
    const translation out =
        translate_code("item_name_in_use", R"({"conflicts":[{"name":"a.txt"},{"name":"b"}]})");
    EXPECT_EQ(reply_of(out.result), (ftp_reply{553, "PATH_EXISTS", "GridFTP-Path: a.txt"}));
    EXPECT_FALSE(out.retryable);
}

TEST_F(TranslateResponse, ANameInUseWithoutAConflictNamesNone)
{
    for (const char *context : {"{}", "null", R"({"conflicts":[]})", R"({"conflicts":{}})",
                                R"({"conflicts":[{"name":7}]})"}) {
        EXPECT_EQ(reply_of(translate_code("item_name_in_use", context).result),
                  (ftp_reply{553, "PATH_EXISTS", "GridFTP-Path: (null)"}))
            << context;
    }
}

TEST_F(TranslateResponse, NotFoundQuotesThePath)
{
    EXPECT_EQ(reply_of(translate_code("not_found", R"({"errors":[{"name":"a b"}]})").result),
              (ftp_reply{550, "PATH_NOT_FOUND", "GridFTP-Path: \"a b\""}));
}

TEST_F(TranslateResponse, NotFoundWithoutANameHasAnEmptyMessage)
{
    for (const char *context : {"{}", R"({"errors":[]})", R"({"conflicts":[{"name":"x"}]})"}) {
        EXPECT_EQ(reply_of(translate_code("not_found", context).result),
                  (ftp_reply{550, "PATH_NOT_FOUND", ""}))
            << context;
    }
}

TEST_F(TranslateResponse, TrashedIsNotFound)
{
    EXPECT_EQ(reply_of(translate_code("trashed").result),
              (ftp_reply{550, "PATH_NOT_FOUND", "GridFTP-Path: \"<Trashed Item>\""}));
}

TEST_F(TranslateResponse, AnInvalidNameIsAnInvalidPath)
{
    EXPECT_EQ(reply_of(translate_code("item_name_invalid").result),
              (ftp_reply{553, "INVALID_PATH_NAME", "GridFTP-Path: <Invalid Name>"}));
}

TEST_F(TranslateResponse, InsufficientPermissionsAreAPermissionError)
{
    EXPECT_EQ(reply_of(translate_code("access_denied_insufficient_permissions").result),
              (ftp_reply{550, "PERMISSION_DENIED", no_message}));
}

TEST_F(TranslateResponse, ATooLongNameIsAnInvalidPath)
{
    EXPECT_EQ(reply_of(translate_code("item_name_too_long").result),
              (ftp_reply{553, "INVALID_PATH_NAME", "GridFTP-Path: <Invalid Name>"}));
}

TEST_F(TranslateResponse, ABadDigestHasTwoLinesOfFixedWords)
{
    EXPECT_EQ(
        reply_of(translate_code("bad_digest", R"({"computed":"1","expected":"2"})").result),
        (ftp_reply{550, "INCORRECT_CHECKSUM",
                   "GridFTP-Computed-Checksum: computed\nGridFTP-Expected-Checksum: expected"}));
}

TEST_F(TranslateResponse, EveryTranslatedCodeKeepsWhatTheServiceSaidAsItsCause)
{
    for (const char *code :
         {"item_name_in_use", "not_found", "trashed", "item_name_invalid",
          "access_denied_insufficient_permissions", "item_name_too_long", "bad_digest"}) {
        const translation out = translate_code(code);
        EXPECT_EQ(info_of(out.result, "code"), code);
        EXPECT_EQ(info_of(out.result, "message"), "why");
    }
}

TEST_F(TranslateResponse, AnyOtherCodeIsItselfTheError)
{
    const translation out =
        translate(503, R"({"error":{"code":"serviceNotAvailable","message":"later"}})", "3");
    EXPECT_EQ(reply_of(out.result).code, 0);
    EXPECT_NE(
        tirval_object_upcast(tirval_error_peek(out.result), TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION),
        nullptr);
    EXPECT_EQ(info_of(out.result, "code"), "serviceNotAvailable");
    EXPECT_EQ(info_of(out.result, "message"), "later");
    EXPECT_TRUE(out.retryable);
    EXPECT_EQ(out.retry_after, 3U);
}

TEST_F(TranslateResponse, CodesCompareExactly)
{
    EXPECT_EQ(reply_of(translate_code("Not_Found").result).code, 0);
    EXPECT_EQ(reply_of(translate_code("itemNotFound").result).code, 0);
    EXPECT_EQ(reply_of(translate_code("not_found ").result).code, 0);
}

TEST_F(TranslateResponse, WithJsonTheStatusIsNotConsulted)
{
    const char *json = R"({"error":{"code":"unauthenticated","message":"m"}})";
    for (int status : {401, 404, 412, 429, 500}) {
        const translation out = translate(status, json);
        EXPECT_EQ(info_of(out.result, "code"), "unauthenticated") << status;
        EXPECT_FALSE(out.retryable) << "not even 429";
    }
}

TEST_F(TranslateResponse, WithoutACodeTheAnswerIsAnInternalErrorWithoutACause)
{
    for (const char *json : {"{}", "[]", "\"text\"", "null", R"({"error":"text"})",
                             R"({"error":{"message":"m"}})", R"({"error":{"code":7}})"}) {
        const translation out = translate(404, json, "2");
        EXPECT_EQ(reply_of(out.result), (ftp_reply{500, "INTERNAL_ERROR", ""})) << json;
        EXPECT_EQ(tirval_error_get_cause(tirval_error_peek(out.result)), nullptr);
        EXPECT_TRUE(out.retryable);
        EXPECT_EQ(out.retry_after, 2U);
    }
}

TEST_F(TranslateResponse, AMissingMessageLeavesOnlyTheCode)
{
    const translation out = translate(400, R"({"error":{"code":"x"}})");
    EXPECT_EQ(info_of(out.result, "code"), "x");
    EXPECT_EQ(info_of(out.result, "message"), "(absent)");
    EXPECT_EQ(message_of(out.result), "code: \"x\"");
}

TEST_F(TranslateResponse, AnEmptyMessageCountsAsMissingAndPrints)
{
    const translation out = translate(400, R"({"error":{"code":"x","message":""}})");
    EXPECT_EQ(info_of(out.result, "message"), "(absent)");
    EXPECT_EQ(message_of(out.result), "code: \"x\"");
}

TEST_F(TranslateResponse, AnEmptyCodeCountsAsMissing)
{
    EXPECT_EQ(reply_of(translate(400, R"({"error":{"code":"","message":"m"}})").result),
              (ftp_reply{500, "INTERNAL_ERROR", ""}));
}

} // namespace
