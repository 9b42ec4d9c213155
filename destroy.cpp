/* Ends a client's session and frees what its handle owns. */
#include "tirval_onedrive_common.h"

extern "C" {
static void tirval_l_free_path_info(void *value)
{
    tirval_onedrive_path_info_free(static_cast<tirval_onedrive_path_info_t *>(value));
}

/* Also given the virtual folders' records that the table started with, which the layout of the two
 * records allows. */
static void tirval_l_free_upload_session(void *value)
{
    tirval_onedrive_upload_session_free(static_cast<tirval_onedrive_upload_session_t *>(value));
}
}

extern "C" void tirval_i_onedrive_destroy(void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *const handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    tirval_hashtable_destroy_all(&handle->cache, tirval_l_free_path_info);
    tirval_hashtable_destroy_all(&handle->upload_state, tirval_l_free_upload_session);
    tirval_i_onedrive_retry_state_destroy(&handle->retry_state);
    free(handle->username);
    free(handle->userid);
    free(handle->access_token);
    free(handle);
    TIRVAL_ONEDRIVE_LOG_EXIT();
}
