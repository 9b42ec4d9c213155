/* The user's access token: taken from the credential that the host hands over, and asked for anew
 * shortly before it expires. */
#include "tirval_onedrive_common.h"

#include <cstring>
#include <ctime>

/* The tenant of all personal accounts. */
static constexpr const char *tirval_l_consumer_tenant = "9188040d-6c67-4c5b-b112-36a304b66dad";

/* A token is kept while it lives longer than this. */
static constexpr time_t tirval_l_renewal_seconds = 99;

/* The members of a credential, borrowed from its JSON. */
struct tirval_l_credential_t {
    const char *access_token;
    const char *token_expiry;
    const char *sub;
    const char *tid; /* null: absent */
};

/* Reads "2030-01-01T00:00:00.000000+00:00".  Returns false when the text has another form. */
static bool tirval_l_parse_expiry(const char *text, time_t *expiry)
{
    tm utc = {};
    int offset_hours = 0;
    int offset_minutes = 0;
    /* The widths keep every number in range. NOLINTNEXTLINE(cert-err34-c) */
    if (sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d.%*6d%3d:%2d", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
               &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &offset_hours, &offset_minutes) != 8) {
        return false;
    }
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    utc.tm_hour -= offset_hours;
    utc.tm_min -= offset_hours < 0 ? -offset_minutes : offset_minutes;
    *expiry = timegm(&utc);
    return true;
}

/* A copy of the tenant for the session's handle.  A function of its own: the handle's last one is
 * left when the session ends, and a leak report must be able to name it. */
[[gnu::noinline]] static char *tirval_l_onedrive_copy_tid(const char *tid)
{
    return strdup(tid);
}

/* Copies the texts, all or none. */
static tirval_result_t tirval_l_copy_credential(const tirval_l_credential_t *credential,
                                                char **sub_out, char **tid_out,
                                                char **access_token_out)
{
    tirval_i_onedrive_text_t access_token(strdup(credential->access_token));
    tirval_i_onedrive_text_t sub(strdup(credential->sub));
    tirval_i_onedrive_text_t tid(
        credential->tid != nullptr ? tirval_l_onedrive_copy_tid(credential->tid) : nullptr);
    if (access_token == nullptr || sub == nullptr ||
        (credential->tid != nullptr && tid == nullptr)) {
        return tirval_i_onedrive_malloc_error();
    }
    *sub_out = sub.release();
    *tid_out = tid.release();
    *access_token_out = access_token.release();
    return TIRVAL_SUCCESS;
}

static tirval_result_t tirval_l_onedrive_parse_token_json(const char *json_data, char **sub_out,
                                                          char **tid_out, char **access_token_out,
                                                          time_t *access_token_exp_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    json_error_t error = {};
    const tirval_i_onedrive_json_t json(json_loads(json_data, 0, &error));
    if (json == nullptr) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_error_put(tirval_error_construct_error(
            nullptr, nullptr, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "token", __func__, __LINE__,
            "Error loading user credential: %s\n", error.text)));
    }
    tirval_l_credential_t credential = {};
    if (json_unpack_ex(json.get(), &error, 0, "{s:s,s:s,s:s,s?s}", "access_token",
                       &credential.access_token, "token_expiry", &credential.token_expiry, "sub",
                       &credential.sub, "tid", &credential.tid) != 0) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_error_put(tirval_i_onedrive_unpack_error(&error)));
    }
    time_t expiry = 0;
    if (!tirval_l_parse_expiry(credential.token_expiry, &expiry)) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_error_put(tirval_error_construct_error(
            nullptr, nullptr, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "token", __func__, __LINE__,
            "Error parsing time string: %s\n", credential.token_expiry)));
    }
    const tirval_result_t result =
        tirval_l_copy_credential(&credential, sub_out, tid_out, access_token_out);
    if (result == TIRVAL_SUCCESS) {
        *access_token_exp_out = expiry;
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

static void tirval_l_forget(char **text)
{
    free(*text);
    *text = nullptr;
}

extern "C" tirval_result_t tirval_onedrive_update_token(tirval_onedrive_handle_t *handle,
                                                        tirval_gfs_operation_t op)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const char *key = "creds";
    if (handle->access_token != nullptr) {
        if (time(nullptr) + tirval_l_renewal_seconds < handle->access_token_exp) {
            return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
        }
        tirval_l_forget(&handle->access_token);
        tirval_l_forget(&handle->tid);
        tirval_l_forget(&handle->userid);
        key = "renew-creds";
    }
    char *credential = nullptr;
    tirval_gridftp_server_get_config_data(op, key, &credential);
    const tirval_result_t result =
        tirval_l_onedrive_parse_token_json(credential, &handle->userid, &handle->tid,
                                           &handle->access_token, &handle->access_token_exp);
    handle->personal = handle->tid == nullptr || strcmp(handle->tid, tirval_l_consumer_tenant) == 0;
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
