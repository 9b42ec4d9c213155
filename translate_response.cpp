/*
 * Turns an answer of the Graph service into an error for the client, and tells whether and when the
 * request may be sent again.  What each status and each error code becomes stands in two tables;
 * the first row that fits decides.
 */
#include "tirval_onedrive_common.h"

#include <climits>
#include <cstring>

namespace {

/* An FTP response error's message.  Values that the format does not use are ignored. */
struct tirval_l_onedrive_message_t {
    const char *format; /* null: no message */
    const char *values[3];
};

enum tirval_l_onedrive_outcome_t {
    TIRVAL_L_ONEDRIVE_REPLY,       /* an FTP response error */
    TIRVAL_L_ONEDRIVE_BAD_REQUEST, /* a generic error: the plug-in sent something wrong */
    TIRVAL_L_ONEDRIVE_DONE         /* no error */
};

struct tirval_l_onedrive_status_row_t {
    int first;
    int last;
    tirval_l_onedrive_outcome_t outcome;
    int ftp_code;
    const char *tag;
    tirval_l_onedrive_message_t message;
    bool retryable; /* also without a Retry-After */
};

const tirval_l_onedrive_message_t tirval_l_onedrive_no_message = {nullptr, {}};
const tirval_l_onedrive_message_t tirval_l_onedrive_no_path = {"%s%s%s", {"", "", ""}};

/* For answers without JSON.  A status below 400 comes here only where a redirect was needed and
 * something else came: the service is then taken to be busy. */
const tirval_l_onedrive_status_row_t tirval_l_onedrive_status_table[] = {
    {INT_MIN, 399, TIRVAL_L_ONEDRIVE_REPLY, 451, "TOO_BUSY", tirval_l_onedrive_no_message, true},
    {400, 400, TIRVAL_L_ONEDRIVE_BAD_REQUEST, 0, nullptr, tirval_l_onedrive_no_message, false},
    {401, 401, TIRVAL_L_ONEDRIVE_REPLY, 550, "PERMISSION_DENIED", tirval_l_onedrive_no_message,
     false},
    {403, 403, TIRVAL_L_ONEDRIVE_REPLY, 550, "PERMISSION_DENIED", tirval_l_onedrive_no_message,
     false},
    {404, 404, TIRVAL_L_ONEDRIVE_REPLY, 550, "PATH_NOT_FOUND", tirval_l_onedrive_no_path, false},
    {409, 409, TIRVAL_L_ONEDRIVE_REPLY, 553, "PATH_EXISTS", {"GridFTP-Path: %s", {nullptr}}, false},
    {429, 429, TIRVAL_L_ONEDRIVE_REPLY, 451, "TOO_BUSY", tirval_l_onedrive_no_message, true},
    {400, 499, TIRVAL_L_ONEDRIVE_DONE, 0, nullptr, tirval_l_onedrive_no_message, false},
    {500, INT_MAX, TIRVAL_L_ONEDRIVE_REPLY, 500, "INTERNAL_ERROR", {"%s%s", {"", ""}}, false},
};

struct tirval_l_onedrive_code_row_t {
    const char *code;
    int ftp_code;
    const char *tag;
    tirval_l_onedrive_message_t message;
    const char *named_in; /* the list in "context_info" whose first element names the path */
    size_t name_position; /* of that name among the message's values */
};

const tirval_l_onedrive_message_t tirval_l_onedrive_invalid_name = {"GridFTP-Path: %s",
                                                                    {"<Invalid Name>"}};

const tirval_l_onedrive_code_row_t tirval_l_onedrive_code_table[] = {
    {"item_name_in_use", 553, "PATH_EXISTS", {"GridFTP-Path: %s", {}}, "conflicts", 0},
    {"not_found",
     550,
     "PATH_NOT_FOUND",
     {"%s%s%s", {"GridFTP-Path: \"", nullptr, "\""}},
     "errors",
     1},
    {"trashed",
     550,
     "PATH_NOT_FOUND",
     {"%s%s%s", {"GridFTP-Path: \"", "<Trashed Item>", "\""}},
     nullptr,
     0},
    {"item_name_invalid", 553, "INVALID_PATH_NAME", tirval_l_onedrive_invalid_name, nullptr, 0},
    {"access_denied_insufficient_permissions", 550, "PERMISSION_DENIED",
     tirval_l_onedrive_no_message, nullptr, 0},
    {"item_name_too_long", 553, "INVALID_PATH_NAME", tirval_l_onedrive_invalid_name, nullptr, 0},
    {"bad_digest",
     550,
     "INCORRECT_CHECKSUM",
     {"GridFTP-Computed-Checksum: %s\nGridFTP-Expected-Checksum: %s", {"computed", "expected"}},
     nullptr,
     0},
};

} // namespace

static tirval_result_t tirval_l_onedrive_reply(tirval_object_t *cause, int ftp_code,
                                               const char *tag,
                                               const tirval_l_onedrive_message_t &message)
{
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, cause, ftp_code, tag, message.format, message.values[0], message.values[1],
        message.values[2]));
}

/* The line is a fixed mark of this error, not the place in this source. */
static tirval_result_t tirval_l_onedrive_bad_request(void)
{
    return tirval_i_onedrive_answer_error(
        "translate_response", "tirval_onedrive_translate_response", 47, "Bad OneDrive request");
}

static tirval_result_t tirval_l_onedrive_translate_status(int status, bool *retryable)
{
    for (const tirval_l_onedrive_status_row_t &row : tirval_l_onedrive_status_table) {
        if (status < row.first || status > row.last) {
            continue;
        }
        *retryable = *retryable || row.retryable;
        switch (row.outcome) {
        case TIRVAL_L_ONEDRIVE_DONE:
            return TIRVAL_SUCCESS;
        case TIRVAL_L_ONEDRIVE_BAD_REQUEST:
            return tirval_l_onedrive_bad_request();
        case TIRVAL_L_ONEDRIVE_REPLY:
            break;
        }
        return tirval_l_onedrive_reply(nullptr, row.ftp_code, row.tag, row.message);
    }
    return TIRVAL_FAILURE;
}

/* A text of the answer's "error" member, or null.  An empty one tells nothing, and could not be
 * printed as a pair. */
static const char *tirval_l_onedrive_error_text(json_t *answer, const char *key)
{
    const char *text = nullptr;
    if (json_unpack(answer, "{s:{s:s}}", "error", key, &text) != 0 || *text == '\0') {
        return nullptr;
    }
    return text;
}

/* The name of the path that the service complains about, or null. */
static const char *tirval_l_onedrive_named_path(json_t *context_info, const char *list)
{
    json_t *first = json_array_get(json_object_get(context_info, list), 0);
    const char *name = nullptr;
    if (first == nullptr || json_unpack(first, "{s:s}", "name", &name) != 0) {
        return nullptr;
    }
    return name;
}

/* What the service said, as pairs. */
static tirval_object_t *tirval_l_onedrive_describe_answer(const char *code, const char *message)
{
    tirval_dsi_rest_key_value_t pairs[2] = {};
    pairs[0] = {"code", code};
    if (message != nullptr) {
        pairs[1] = {"message", message};
    }
    const tirval_dsi_rest_key_array_t info = {2, pairs};
    return tirval_onedrive_error_construct(nullptr, nullptr, &info);
}

/* An answer without a code is described like any other but reported bare.  Its description is
 * deliberately neither attached nor released: a known, small loss that only such answers cost. */
[[gnu::noinline]] static tirval_result_t tirval_l_onedrive_reply_without_code(const char *message)
{
    tirval_l_onedrive_describe_answer(nullptr, message);
    return tirval_l_onedrive_reply(nullptr, 500, "INTERNAL_ERROR", {"%s%s", {"", ""}});
}

static tirval_result_t tirval_l_onedrive_reply_to_code(const tirval_l_onedrive_code_row_t &row,
                                                       tirval_object_t *cause, json_t *answer)
{
    tirval_l_onedrive_message_t message = row.message;
    if (row.named_in != nullptr) {
        const char *name =
            tirval_l_onedrive_named_path(json_object_get(answer, "context_info"), row.named_in);
        message.values[row.name_position] = name;
        if (name == nullptr && row.name_position != 0) {
            message = tirval_l_onedrive_no_path;
        }
    }
    return tirval_l_onedrive_reply(cause, row.ftp_code, row.tag, message);
}

static tirval_result_t tirval_l_onedrive_translate_json(json_t *answer)
{
    const char *code = tirval_l_onedrive_error_text(answer, "code");
    const char *message = tirval_l_onedrive_error_text(answer, "message");
    if (code == nullptr) {
        return tirval_l_onedrive_reply_without_code(message);
    }
    tirval_object_t *description = tirval_l_onedrive_describe_answer(code, message);
    for (const tirval_l_onedrive_code_row_t &row : tirval_l_onedrive_code_table) {
        if (std::strcmp(code, row.code) == 0) {
            return tirval_l_onedrive_reply_to_code(row, description, answer);
        }
    }
    return tirval_error_put(description);
}

/* The Retry-After header (RFC 9110), which stands first among the wanted ones, in seconds. */
static bool tirval_l_onedrive_read_retry_after(const tirval_dsi_rest_response_arg_t *response,
                                               uint64_t *seconds)
{
    const tirval_dsi_rest_key_array_t &wanted = response->desired_headers;
    if (wanted.count == 0 || wanted.key_value[0].value == nullptr) {
        return false;
    }
    *seconds = std::strtoul(wanted.key_value[0].value, nullptr, 10);
    return true;
}

tirval_result_t tirval_onedrive_translate_response(const tirval_dsi_rest_response_arg_t *response,
                                                   json_t *json_error_code_response,
                                                   bool *retryable_out, uint64_t *retry_after_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    bool retryable = false;
    uint64_t retry_after = 0;
    if (retry_after_out != nullptr) {
        retryable = tirval_l_onedrive_read_retry_after(response, &retry_after);
        *retry_after_out = retry_after;
    }
    const tirval_result_t result =
        json_error_code_response == nullptr
            ? tirval_l_onedrive_translate_status(response->response_code, &retryable)
            : tirval_l_onedrive_translate_json(json_error_code_response);
    if (retryable_out != nullptr) {
        *retryable_out = retryable;
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
