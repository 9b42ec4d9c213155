/*
 * Item records, the four virtual folders, and the cache that maps client paths to records.  Also
 * how a record looks to the host.
 */
#include "tirval_onedrive_common.h"

#include <cerrno>
#include <cstring>

namespace {

using tirval_l_onedrive_record_t =
    std::unique_ptr<tirval_onedrive_path_info_t, decltype(&tirval_onedrive_path_info_free)>;

enum { TIRVAL_L_ONEDRIVE_BUCKETS = 1023 };

/* A virtual folder.  Its texts are literals: the record is constant and never freed. */
constexpr tirval_onedrive_path_info_t
tirval_l_onedrive_virtual_folder(const char *name, const char *parent_id, bool listed)
{
    tirval_onedrive_path_info_t info = {};
    info.name = const_cast<char *>(name);
    info.id = const_cast<char *>(name);
    info.parent_id = const_cast<char *>(parent_id);
    info.type = TIRVAL_ONEDRIVE_FOLDER;
    info.listed = listed;
    return info;
}

} // namespace

const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_root_info =
    tirval_l_onedrive_virtual_folder("/", nullptr, true);
const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_myfiles_info =
    tirval_l_onedrive_virtual_folder("My files", "/", false);
const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_shared_info =
    tirval_l_onedrive_virtual_folder("Shared", "/", false);
const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_libs_info =
    tirval_l_onedrive_virtual_folder("Shared libraries", "/", false);

/* ---- Records --------------------------------------------------------------------------------- */

/* Copies a text that may be absent; false when memory ran out. */
static bool tirval_l_onedrive_copy_text(char **to, const char *from)
{
    *to = from == nullptr ? nullptr : strdup(from);
    return from == nullptr || *to != nullptr;
}

static bool tirval_l_onedrive_copy_texts(tirval_onedrive_path_info_t *to,
                                         const tirval_onedrive_path_info_t *from)
{
    return tirval_l_onedrive_copy_text(&to->name, from->name) &&
           tirval_l_onedrive_copy_text(&to->id, from->id) &&
           tirval_l_onedrive_copy_text(&to->parent_id, from->parent_id) &&
           tirval_l_onedrive_copy_text(&to->md5, from->md5) &&
           tirval_l_onedrive_copy_text(&to->sha1, from->sha1) &&
           tirval_l_onedrive_copy_text(&to->sha256, from->sha256) &&
           tirval_l_onedrive_copy_text(&to->qxr, from->qxr);
}

tirval_onedrive_path_info_t *tirval_onedrive_path_info_copy(const tirval_onedrive_path_info_t *info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_l_onedrive_record_t copy(nullptr, &tirval_onedrive_path_info_free);
    if (info != nullptr) {
        copy.reset(static_cast<tirval_onedrive_path_info_t *>(
            std::calloc(1, sizeof(tirval_onedrive_path_info_t))));
    }
    if (copy != nullptr) {
        copy->type = info->type;
        copy->size = info->size;
        copy->modtime = info->modtime;
        copy->listed = info->listed;
        copy->has_metadata = info->has_metadata;
        copy->freeme = true;
        if (!tirval_l_onedrive_copy_texts(copy.get(), info)) {
            copy.reset();
        }
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return copy.release();
}

void tirval_onedrive_path_info_free(tirval_onedrive_path_info_t *ptr)
{
    if (ptr == nullptr) {
        return;
    }
    std::free(ptr->id);
    std::free(ptr->parent_id);
    std::free(ptr->name);
    std::free(ptr->md5);
    std::free(ptr->sha1);
    std::free(ptr->sha256);
    std::free(ptr->qxr);
    if (ptr->freeme) {
        std::free(ptr);
    }
}

bool tirval_i_onedrive_path_info_addressable(const tirval_onedrive_path_info_t *info)
{
    return info->name != nullptr && *info->name != '\0' && info->id != nullptr;
}

/* ---- The cache ------------------------------------------------------------------------------- */

tirval_result_t tirval_i_onedrive_path_table_init(tirval_hashtable_t *table)
{
    return tirval_hashtable_init(table, TIRVAL_L_ONEDRIVE_BUCKETS, tirval_hashtable_string_hash,
                                 tirval_hashtable_string_keyeq) == 0
               ? TIRVAL_SUCCESS
               : tirval_i_onedrive_malloc_error();
}

tirval_result_t tirval_onedrive_path_cache_init(tirval_hashtable_t *cache)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const tirval_result_t result = tirval_i_onedrive_path_table_init(cache);
    tirval_onedrive_path_cache_update(cache, &tirval_i_onedrive_vfs_root_info, nullptr);
    tirval_onedrive_path_cache_update(cache, &tirval_i_onedrive_vfs_myfiles_info, "/");
    tirval_onedrive_path_cache_update(cache, &tirval_i_onedrive_vfs_shared_info, "/");
    tirval_onedrive_path_cache_update(cache, &tirval_i_onedrive_vfs_libs_info, "/");
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* A copy of the record that bears its key as its name; null when memory ran out. */
static tirval_l_onedrive_record_t
tirval_l_onedrive_keyed_copy(const tirval_onedrive_path_info_t *info, const char *base_path)
{
    tirval_l_onedrive_record_t copy(tirval_onedrive_path_info_copy(info),
                                    &tirval_onedrive_path_info_free);
    if (copy != nullptr && base_path != nullptr && *base_path != '\0') {
        const char *separator = std::strlen(base_path) > 1 ? "/" : "";
        std::free(copy->name);
        copy->name = tirval_common_create_string("%s%s%s", base_path, separator, info->name);
        if (copy->name == nullptr) {
            copy.reset();
        }
    }
    return copy;
}

static tirval_result_t tirval_l_onedrive_enter_record(tirval_hashtable_t *cache,
                                                      const tirval_onedrive_path_info_t *info,
                                                      const char *base_path)
{
    if (!tirval_i_onedrive_path_info_addressable(info)) {
        return tirval_i_onedrive_answer_error("path_cache", "tirval_onedrive_path_cache_update",
                                              __LINE__,
                                              "An item without a name or an id cannot be cached");
    }
    tirval_l_onedrive_record_t copy = tirval_l_onedrive_keyed_copy(info, base_path);
    if (copy == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    if (tirval_hashtable_insert(cache, copy->name, copy.get()) != 0) {
        tirval_onedrive_path_cache_remove(cache, copy->name);
        if (tirval_hashtable_insert(cache, copy->name, copy.get()) != 0) {
            return tirval_i_onedrive_malloc_error();
        }
    }
    (void)copy.release(); /* the table's now */
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_onedrive_path_cache_update(tirval_hashtable_t *cache,
                                                  const tirval_onedrive_path_info_t *info,
                                                  const char *base_path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const tirval_result_t result = tirval_l_onedrive_enter_record(cache, info, base_path);
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

tirval_onedrive_path_info_t *tirval_onedrive_path_cache_query(tirval_hashtable_t *cache,
                                                              const char *path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *info = static_cast<tirval_onedrive_path_info_t *>(
        tirval_hashtable_lookup(cache, const_cast<char *>(path)));
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return info;
}

tirval_result_t tirval_onedrive_path_cache_remove(tirval_hashtable_t *cache, const char *path)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_onedrive_path_info_free(static_cast<tirval_onedrive_path_info_t *>(
        tirval_hashtable_remove(cache, const_cast<char *>(path))));
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}

/* ---- What the host sees ---------------------------------------------------------------------- */

/* djb2 over signed characters, cut to 32 bits: a number that tells items apart well enough. */
static uint32_t tirval_l_onedrive_hash(const char *text)
{
    uint64_t hash = 5381;
    for (; *text != '\0'; ++text) {
        hash = hash * 33 + static_cast<uint64_t>(static_cast<signed char>(*text));
    }
    return static_cast<uint32_t>(hash);
}

tirval_result_t tirval_onedrive_info_to_stat(tirval_onedrive_handle_t *handle,
                                             const tirval_onedrive_path_info_t *info,
                                             tirval_gridftp_server_control_stat_t *stat_out)
{
    (void)handle;
    *stat_out = {};
    stat_out->mode = info->type == TIRVAL_ONEDRIVE_FOLDER ? 040700 : 0100700;
    stat_out->nlink = 1;
    stat_out->name = strdup(info->name);
    stat_out->size = static_cast<tirval_off_t>(info->size);
    stat_out->atime = info->modtime;
    stat_out->ctime = info->modtime;
    stat_out->mtime = info->modtime;
    stat_out->dev = tirval_l_onedrive_hash(info->parent_id == nullptr ? "00000" : info->parent_id);
    stat_out->ino = tirval_l_onedrive_hash(info->name);
    return TIRVAL_SUCCESS;
}
