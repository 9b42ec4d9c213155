/* Starts a client's session: its handle, its token, the user's rate limit and the session's
 * tables. */
#include "tirval_onedrive_common.h"

#include <cstring>

static constexpr uint64_t tirval_l_max_upload = UINT64_C(250) << 30;

/* As the host tells them to clients: each algorithm with its weight. */
static constexpr const char *tirval_l_checksums =
    "QuickXORHex:1;SHA1:15;SHA256:15;SHA512:15;MD5:15;Dropbox:15;ADLER32:15;";

/* A function of its own: the name is left when the start fails, and a leak report must be able to
 * name it. */
[[gnu::noinline]] static char *tirval_l_onedrive_copy_username(const char *username)
{
    return strdup(username);
}

static void tirval_l_ensure_state_folder()
{
    char *path = nullptr;
    (void)tirval_onedrive_evaluate_path("$HOME/.tirval", &path);
    const tirval_i_onedrive_text_t owner(path);
    if (path != nullptr) {
        tirval_i_onedrive_ensure_folder(path);
    }
}

/* The policy's rate stays in force for the process, also for sessions whose policy has none. */
static void tirval_l_attach_rate_limit(tirval_onedrive_handle_t *handle, tirval_gfs_operation_t op)
{
    char *policy = nullptr;
    tirval_gridftp_server_get_config_data(op, "config", &policy);
    (void)tirval_onedrive_config_parse_json(policy, &tirval_i_onedrive_api_per_second);
    tirval_i_onedrive_retry_state_create(handle->userid,
                                         static_cast<uint32_t>(tirval_i_onedrive_api_per_second),
                                         &handle->retry_state);
}

static void tirval_l_refuse(tirval_gfs_operation_t op, tirval_result_t result)
{
    tirval_gridftp_server_finished_session_start(op, result, nullptr, nullptr, nullptr);
}

extern "C" void tirval_i_onedrive_start(tirval_gfs_operation_t op,
                                        tirval_gfs_session_info_t *session_info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *const handle =
        static_cast<tirval_onedrive_handle_t *>(calloc(1, sizeof(tirval_onedrive_handle_t)));
    if (handle == nullptr) {
        const tirval_result_t result = tirval_i_onedrive_malloc_error();
        tirval_l_refuse(op, result);
        (void)TIRVAL_ONEDRIVE_LOG_RESULT(result);
        return;
    }
    handle->max_upload = tirval_l_max_upload;
    handle->username = tirval_l_onedrive_copy_username(session_info->username);
    tirval_l_ensure_state_folder();
    const tirval_result_t result = tirval_onedrive_update_token(handle, op);
    if (result != TIRVAL_SUCCESS) {
        free(handle);
        tirval_l_refuse(op, result);
        (void)TIRVAL_ONEDRIVE_LOG_RESULT(result);
        return;
    }
    tirval_l_attach_rate_limit(handle, op);
    (void)tirval_onedrive_path_cache_init(&handle->cache);
    /* The upload-state table starts with the virtual folders, too. */
    (void)tirval_onedrive_path_cache_init(&handle->upload_state);
    (void)tirval_gridftp_server_set_checksum_support(op, tirval_l_checksums);
    tirval_gridftp_server_finished_session_start(op, TIRVAL_SUCCESS, handle, nullptr, "/My files");
}
