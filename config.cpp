/* The storage policy: the per-user request rate. */
#include "tirval_onedrive_common.h"

extern "C" tirval_object_t *tirval_i_onedrive_unpack_error(const json_error_t *error)
{
    const tirval_i_onedrive_text_t message(tirval_common_create_string(
        "Error unpacking collection storage policy: %s\n", error->text));
    return tirval_gfs_ftp_response_error_construct(nullptr, nullptr, 500, "INTERNAL_ERROR", "%s%s",
                                                   "GridFTP-Error: ", message.get());
}

extern "C" tirval_result_t tirval_onedrive_config_parse_json(const char *json_config,
                                                             int32_t *rate_limit_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    json_error_t error = {};
    const tirval_i_onedrive_json_t policy(json_loads(json_config, 0, &error));
    if (policy == nullptr) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_error_put(tirval_error_construct_error(
            nullptr, nullptr, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "config", __func__, __LINE__,
            "Error loading collection storage policy: %s\n", error.text)));
    }
    int rate_limit = 0;
    if (json_unpack_ex(policy.get(), &error, 0, "{s?i}", "user_api_rate_limit", &rate_limit) != 0) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_error_put(tirval_i_onedrive_unpack_error(&error)));
    }
    if (rate_limit != 0) {
        *rate_limit_out = rate_limit;
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}
