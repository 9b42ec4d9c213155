/*
 * The stat entry: describes one item, or a folder and its children.
 */
#include "tirval_onedrive_common.h"

#include <cstring>

namespace {

enum { TIRVAL_L_ONEDRIVE_STAT_BATCH = 100 };

} // namespace

/* Frees the names of the first `count` records. */
static void tirval_l_onedrive_free_names(tirval_gridftp_server_control_stat_t *records, int count)
{
    for (int i = 0; i < count; ++i) {
        std::free(records[i].name);
        records[i].name = nullptr;
    }
}

void tirval_i_onedrive_stat(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *stat_info,
                            void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    const tirval_result_t result = tirval_onedrive_update_token(handle, op);
    if (result != TIRVAL_SUCCESS) {
        tirval_gridftp_server_finished_stat(op, result, nullptr, 0);
        TIRVAL_ONEDRIVE_LOG_RESULT(result);
        return;
    }
    if (stat_info->file_only) {
        tirval_i_onedrive_stat_single(op, stat_info, handle);
    } else {
        tirval_i_onedrive_stat_multi(op, stat_info, handle);
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

void tirval_i_onedrive_stat_single(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *stat_info,
                                   tirval_onedrive_handle_t *handle)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_gridftp_server_control_stat_t record = {};
    tirval_onedrive_path_info_t *info = nullptr;
    tirval_result_t result =
        tirval_onedrive_path_resolve(handle, stat_info->pathname, &info, nullptr);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_onedrive_info_to_stat(handle, info, &record);
    }
    tirval_gridftp_server_finished_stat(op, result, &record, 1);
    tirval_l_onedrive_free_names(&record, 1);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* The virtual root's folders.  A personal account follows no sites. */
static tirval_result_t tirval_l_onedrive_stat_root(tirval_onedrive_handle_t *handle,
                                                   tirval_onedrive_stat_state_t *state)
{
    const tirval_onedrive_path_info_t *const folders[] = {
        &tirval_i_onedrive_vfs_myfiles_info, &tirval_i_onedrive_vfs_shared_info,
        handle->personal ? nullptr : &tirval_i_onedrive_vfs_libs_info};
    tirval_result_t result = TIRVAL_SUCCESS;
    for (const tirval_onedrive_path_info_t *folder : folders) {
        if (result == TIRVAL_SUCCESS && folder != nullptr) {
            result = tirval_onedrive_stat_entry(handle, "/", folder, state);
        }
    }
    return result;
}

/* Fills the batches; the folder itself goes first, named ".". */
static tirval_result_t tirval_l_onedrive_stat_folder(tirval_onedrive_handle_t *handle,
                                                     tirval_onedrive_stat_state_t *state)
{
    tirval_onedrive_path_info_t *folder = nullptr;
    tirval_result_t result =
        tirval_onedrive_path_resolve(handle, state->stat_info->pathname, &folder, nullptr);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_onedrive_info_to_stat(handle, folder, &state->stat_array[0]);
    }
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (state->stat_array[0].name != nullptr) {
        std::memcpy(state->stat_array[0].name, ".", sizeof "."); /* no path is shorter */
    }
    state->stat_count = 1;
    if (std::strcmp(folder->name, "/") == 0) {
        return tirval_l_onedrive_stat_root(handle, state);
    }
    result = tirval_onedrive_get_folder_items(handle, folder->id, state->stat_info->pathname,
                                              tirval_onedrive_stat_entry, state);
    if (result == TIRVAL_SUCCESS) {
        folder->listed = true;
    }
    return result;
}

void tirval_i_onedrive_stat_multi(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *stat_info,
                                  tirval_onedrive_handle_t *handle)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_gridftp_server_control_stat_t records[TIRVAL_L_ONEDRIVE_STAT_BATCH] = {};
    tirval_onedrive_stat_state_t state = {op, stat_info, records, 0};
    const tirval_result_t result = tirval_l_onedrive_stat_folder(handle, &state);
    tirval_gridftp_server_finished_stat(op, result, records, state.stat_count);
    tirval_l_onedrive_free_names(records, state.stat_count);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* Adds one record to the batch, and delivers it when it is full. */
static tirval_result_t tirval_l_onedrive_add_record(tirval_onedrive_handle_t *handle,
                                                    const tirval_onedrive_path_info_t *entry,
                                                    tirval_onedrive_stat_state_t *state)
{
    if (entry->type == TIRVAL_ONEDRIVE_UNKNOWN) {
        return TIRVAL_SUCCESS;
    }
    const tirval_result_t result =
        tirval_onedrive_info_to_stat(handle, entry, &state->stat_array[state->stat_count]);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (++state->stat_count == TIRVAL_L_ONEDRIVE_STAT_BATCH) {
        tirval_gridftp_server_finished_stat_partial(state->op, TIRVAL_SUCCESS, state->stat_array,
                                                    state->stat_count);
        tirval_l_onedrive_free_names(state->stat_array, state->stat_count);
        state->stat_count = 0;
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_onedrive_stat_entry(tirval_onedrive_handle_t *handle, const char *base_path,
                                           const tirval_onedrive_path_info_t *entry,
                                           void *callback_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)base_path;
    return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_l_onedrive_add_record(
        handle, entry, static_cast<tirval_onedrive_stat_state_t *>(callback_arg)));
}
