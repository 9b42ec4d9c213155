/*
 * From a client path to its record and the folder that holds it: walks the path through the cache
 * and lists a folder only when a component is missing there and the folder was not listed yet.
 */
#include "tirval_onedrive_common.h"

#include <cstring>

/* The record of `path`, which lies in `folder`; null when there is none. */
static tirval_result_t tirval_l_onedrive_find_child(tirval_onedrive_handle_t *handle,
                                                    tirval_onedrive_path_info_t *folder,
                                                    const char *path,
                                                    tirval_onedrive_path_info_t **child_out)
{
    *child_out = tirval_onedrive_path_cache_query(&handle->cache, path);
    if (*child_out != nullptr || folder->listed) {
        return TIRVAL_SUCCESS;
    }
    const tirval_result_t result =
        tirval_onedrive_get_folder_items(handle, folder->id, folder->name, nullptr, nullptr);
    if (result == TIRVAL_SUCCESS) {
        folder->listed = true;
        *child_out = tirval_onedrive_path_cache_query(&handle->cache, path);
    }
    return result;
}

/*
 * Walks the components of `path`, which is cut and mended on the way.  Fails only when a listing
 * does; what does not exist is null.
 */
static tirval_result_t tirval_l_onedrive_walk(tirval_onedrive_handle_t *handle, char *path,
                                              tirval_onedrive_path_info_t **entry_out,
                                              tirval_onedrive_path_info_t **parent_out)
{
    char *part = path;
    TIRVAL_ASSERT(*part == '/');
    tirval_onedrive_path_info_t *current = tirval_onedrive_path_cache_query(&handle->cache, "/");
    current->listed = true;
    *entry_out = nullptr;
    *parent_out = nullptr;
    for (char *slash = std::strchr(++part, '/'); slash != nullptr;
         part = slash + 1, slash = std::strchr(part, '/')) {
        tirval_onedrive_path_info_t *next = nullptr;
        *slash = '\0';
        const tirval_result_t result = tirval_l_onedrive_find_child(handle, current, path, &next);
        if (result != TIRVAL_SUCCESS || next == nullptr) {
            return result;
        }
        *slash = '/';
        current = next;
    }
    if (*part == '\0') {
        *entry_out = current;
        return TIRVAL_SUCCESS;
    }
    *parent_out = current;
    return tirval_l_onedrive_find_child(handle, current, path, entry_out);
}

static tirval_result_t tirval_l_onedrive_not_found(const char *path)
{
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, 550, "PATH_NOT_FOUND", "%s%s%s", "GridFTP-Path: \"", path, "\""));
}

tirval_result_t tirval_onedrive_path_resolve(tirval_onedrive_handle_t *handle, const char *path,
                                             tirval_onedrive_path_info_t **entry_out,
                                             tirval_onedrive_path_info_t **parent_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const tirval_i_onedrive_text_t copy(strdup(path));
    if (copy == nullptr) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_i_onedrive_malloc_error());
    }
    tirval_onedrive_path_info_t *entry = nullptr;
    tirval_onedrive_path_info_t *parent = nullptr;
    const tirval_result_t result = tirval_l_onedrive_walk(handle, copy.get(), &entry, &parent);
    if (result != TIRVAL_SUCCESS) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(result);
    }
    if (entry_out != nullptr) {
        *entry_out = entry;
    }
    if (parent_out != nullptr) {
        *parent_out = parent;
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(entry == nullptr ? tirval_l_onedrive_not_found(path)
                                                       : TIRVAL_SUCCESS);
}
