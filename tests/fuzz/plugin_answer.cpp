/* An answer of the service that is translated into an error.  An input is the status, on the next
 * line the Retry-After header ("-": none), and then the body. */
#include "fuzz.h"

#include "frame_support.h"
#include "tirval_gfs_host.h"

#include <cstdlib>

namespace {

bool is_done(int status)
{
    return status > 400 && status < 500 && status != 401 && status != 403 && status != 404 &&
           status != 409 && status != 429;
}

void require_reply(tirval_result_t result)
{
    int code = 0;
    const char *tag = nullptr;
    const char *message = nullptr;
    fuzz::require(!message_of(result).empty() || tirval_error_peek(result) != nullptr,
                  "a failure names an error");
    if (tirval_gfs_ftp_response_error_get(tirval_error_peek(result), &code, &tag, &message)) {
        fuzz::require(code >= 400 && code <= 599, "an error has the code of an error");
        fuzz::require(tag != nullptr && *tag != '\0', "an error has its reason");
    }
}

void parse(std::string_view input)
{
    const int status = static_cast<int>(
        std::strtol(fuzz::c_text(fuzz::take_line(input)).c_str(), nullptr, 10) % 1000);
    std::string retry_after = fuzz::c_text(fuzz::take_line(input));
    const bool has_header = retry_after != "-";
    tirval_dsi_rest_key_value_t wanted{"Retry-After", has_header ? retry_after.c_str() : nullptr};
    const tirval_dsi_rest_response_arg_t response{status, {1, &wanted}};
    const tirval_i_onedrive_json_t json(json_loadb(input.data(), input.size(), 0, nullptr));
    const error_scope errors;
    bool retryable = false;
    uint64_t seconds = 77;
    const tirval_result_t result =
        tirval_onedrive_translate_response(&response, json.get(), &retryable, &seconds);
    fuzz::require(has_header || seconds == 0, "without the header nothing is waited for");
    fuzz::require(retryable || !has_header, "an answer with the header may be repeated");
    if (json == nullptr) {
        fuzz::require(retryable == (has_header || status < 400 || status == 429),
                      "what may be repeated follows from the status");
        fuzz::require((result == TIRVAL_SUCCESS) == is_done(status),
                      "the statuses that are taken as done succeed, and no other");
    } else {
        fuzz::require(result != TIRVAL_SUCCESS, "an answer that explains itself is a failure");
    }
    if (result != TIRVAL_SUCCESS) {
        require_reply(result);
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Answer,
    (fuzz::entry{parse,
                 {"404\n-\n", "429\n3\n", "503\n99999999999999999999\n", "302\n-\n", "423\n-\n",
                  "409\n-\n{\"error\":{\"code\":\"item_name_in_use\",\"message\":\"m\"},"
                  "\"context_info\":{\"conflicts\":[{\"name\":\"a\"}]}}",
                  "404\n-\n{\"error\":{\"code\":\"not_found\",\"message\":\"\"},"
                  "\"context_info\":{\"errors\":[{\"name\":\"%s%n\"}]}}",
                  "500\n-\n{\"error\":{\"code\":\"UnknownError\",\"message\":\"%s\"}}",
                  "400\n1\n{\"error\":{\"code\":\"\",\"message\":\"no code\"}}",
                  "412\n-\n{\"error\":\"text\"}", "200\n-\n[]",
                  "403\n-\n{\"error\":{\"code\":\"bad_digest\"}}"},
                 60000}))
