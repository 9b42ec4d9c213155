/*
 * The table of a session's Graph upload sessions, by the client path being stored.  A record stays
 * there while its upload may be continued.
 */
#include "tirval_onedrive_common.h"

tirval_result_t tirval_onedrive_upload_state_init(tirval_hashtable_t *cache)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_i_onedrive_path_table_init(cache));
}

tirval_result_t tirval_onedrive_upload_state_update(tirval_hashtable_t *cache,
                                                    tirval_onedrive_upload_session_t *upload,
                                                    const char *path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)path;
    tirval_result_t result = TIRVAL_SUCCESS;
    if (tirval_hashtable_insert(cache, upload->name, upload) != 0) {
        result = tirval_i_onedrive_malloc_error();
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

tirval_onedrive_upload_session_t *tirval_onedrive_upload_state_query(tirval_hashtable_t *cache,
                                                                     const char *path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *upload = static_cast<tirval_onedrive_upload_session_t *>(
        tirval_hashtable_lookup(cache, const_cast<char *>(path)));
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return upload;
}

tirval_result_t tirval_onedrive_upload_state_remove(tirval_hashtable_t *cache, const char *path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_onedrive_upload_session_free(static_cast<tirval_onedrive_upload_session_t *>(
        tirval_hashtable_remove(cache, const_cast<char *>(path))));
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}

void tirval_onedrive_upload_session_free(tirval_onedrive_upload_session_t *upload)
{
    if (upload == nullptr) {
        return;
    }
    std::free(upload->name);
    std::free(upload->url);
    std::free(upload->exp);
    json_decref(upload->part_array);
    std::free(upload);
}
