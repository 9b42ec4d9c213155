/*
 * From client paths to Graph URIs: cuts a path into its virtual folder, site or shared item,
 * library and the path below, forms the item's URI, and refuses what must not be written.
 */
#include "tirval_onedrive_common.h"

#include <cstring>

namespace {

const char tirval_l_onedrive_my_files[] = "/My files";
const char tirval_l_onedrive_shared_libraries[] = "/Shared libraries";
const char tirval_l_onedrive_shared[] = "/Shared";

const char tirval_l_onedrive_shared_root_write[] = "Can not write to the root of /Shared.";

/* A client path's pieces, and what is asked of the item. */
struct tirval_l_onedrive_item_t {
    tirval_onedrive_handle_t *handle;
    const char *path;
    const char *sub; /* null: none */
    bool is_write;
    const char *base; /* null: outside of the virtual folders */
    tirval_i_onedrive_text_t lib;
    tirval_i_onedrive_text_t drive;
    tirval_i_onedrive_text_t below; /* encoded */
};

} // namespace

/* ---- Splitting ------------------------------------------------------------------------------- */

static bool tirval_l_onedrive_begins_with(const char *path, const char *prefix)
{
    return std::strncmp(path, prefix, std::strlen(prefix)) == 0;
}

/* A copy of `text`, null when it is empty. */
static tirval_i_onedrive_text_t tirval_l_onedrive_rest(const char *text)
{
    return tirval_i_onedrive_text_t(*text == '\0' ? nullptr : strdup(text));
}

/* Cuts `text` at the first "/" behind its first character, and returns a copy of what followed the
 * "/"; null when there is none. */
static tirval_i_onedrive_text_t tirval_l_onedrive_cut(char *text)
{
    char *slash = text == nullptr || *text == '\0' ? nullptr : std::strchr(text + 1, '/');
    if (slash == nullptr) {
        return nullptr;
    }
    *slash = '\0';
    return tirval_i_onedrive_text_t(strdup(slash + 1));
}

static void tirval_l_onedrive_store(char **out, tirval_i_onedrive_text_t text)
{
    if (out != nullptr) {
        *out = text.release();
    }
}

tirval_result_t tirval_onedrive_split_path(const char *vfs_path, const char **base_out,
                                           char **lib_out, char **drive_out, char **path_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const char *base = nullptr;
    tirval_i_onedrive_text_t lib;
    tirval_i_onedrive_text_t drive;
    tirval_i_onedrive_text_t below;
    /* "/Shared libraries" begins like "/Shared", so it must be looked for first. */
    if (tirval_l_onedrive_begins_with(vfs_path, tirval_l_onedrive_my_files)) {
        base = tirval_l_onedrive_my_files + 1;
        below = tirval_l_onedrive_rest(vfs_path + std::strlen(tirval_l_onedrive_my_files));
    } else if (tirval_l_onedrive_begins_with(vfs_path, tirval_l_onedrive_shared_libraries)) {
        base = tirval_l_onedrive_shared_libraries + 1;
        lib = tirval_l_onedrive_rest(vfs_path + std::strlen(tirval_l_onedrive_shared_libraries));
        drive = tirval_l_onedrive_cut(lib.get());
        below = tirval_l_onedrive_cut(drive.get());
        if (below != nullptr && *below == '\0') {
            below.reset(); /* "/Shared libraries/Site/Library/" is the library itself */
        }
    } else if (tirval_l_onedrive_begins_with(vfs_path, tirval_l_onedrive_shared)) {
        base = tirval_l_onedrive_shared + 1;
        lib = tirval_l_onedrive_rest(vfs_path + std::strlen(tirval_l_onedrive_shared));
        below = tirval_l_onedrive_cut(lib.get());
    }
    if (base_out != nullptr) {
        *base_out = base;
    }
    tirval_l_onedrive_store(lib_out, std::move(lib));
    tirval_l_onedrive_store(drive_out, std::move(drive));
    tirval_l_onedrive_store(path_out, std::move(below));
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}

/* ---- URIs ------------------------------------------------------------------------------------ */

/* Hands a formatted URI out. */
static tirval_result_t tirval_l_onedrive_give(char *uri, char **uri_out)
{
    *uri_out = uri;
    return uri == nullptr ? tirval_i_onedrive_malloc_error() : TIRVAL_SUCCESS;
}

/*
 * The URI of an item of a drive.
 *
 * root   the folder that the path below starts from, "%s" standing for `first` and `second`
 * slash  what joins the folder and the path below
 */
static tirval_result_t tirval_l_onedrive_item_uri(const tirval_l_onedrive_item_t &item,
                                                  const char *root, const char *slash,
                                                  char **uri_out)
{
    const char *sub = item.sub == nullptr ? "" : item.sub;
    const char *below = item.below.get();
    if (below == nullptr) {
        return tirval_l_onedrive_give(
            tirval_common_create_string("%s%s%s", tirval_i_onedrive_graph_url, root, sub), uri_out);
    }
    return tirval_l_onedrive_give(
        tirval_common_create_string("%s%s:%s%s%s%s", tirval_i_onedrive_graph_url, root, slash,
                                    below, item.sub == nullptr ? "" : ":", sub),
        uri_out);
}

static tirval_result_t tirval_l_onedrive_my_files_uri(const tirval_l_onedrive_item_t &item,
                                                      char **uri_out)
{
    if (item.below == nullptr && item.sub == nullptr && item.is_write) {
        return tirval_i_onedrive_write_refusal(item.path, TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    return tirval_l_onedrive_item_uri(item, "/v1.0/me/drive/root", "", uri_out);
}

/* Finds the record of a shared item, a site or a library on the way to the item. */
static tirval_result_t tirval_l_onedrive_ancestor(const tirval_l_onedrive_item_t &item,
                                                  const char *slash, const char *drive,
                                                  tirval_onedrive_path_info_t **info_out)
{
    const tirval_i_onedrive_text_t path(
        tirval_common_create_string("/%s%s%s%s", item.base, item.lib.get(), slash, drive));
    if (path == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    return tirval_onedrive_path_resolve(item.handle, path.get(), info_out, nullptr);
}

static tirval_result_t tirval_l_onedrive_shared_uri(const tirval_l_onedrive_item_t &item,
                                                    char **uri_out)
{
    const bool creates_child = item.sub != nullptr && std::strcmp(item.sub, "/children") == 0;
    if (item.is_write && (item.lib == nullptr || (item.below == nullptr && !creates_child))) {
        return tirval_i_onedrive_write_refusal(item.path, tirval_l_onedrive_shared_root_write);
    }
    if (item.lib == nullptr) {
        return tirval_l_onedrive_give(tirval_common_create_string("%s/v1.0/me/drive/sharedWithMe",
                                                                  tirval_i_onedrive_graph_url),
                                      uri_out);
    }
    tirval_onedrive_path_info_t *share_info = nullptr;
    const tirval_result_t result = tirval_l_onedrive_ancestor(item, "", "", &share_info);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const tirval_i_onedrive_text_t root(tirval_common_create_string(
        "/v1.0/drives/%s/items/%s", share_info->parent_id, share_info->id));
    if (root == nullptr) {
        return tirval_l_onedrive_give(nullptr, uri_out);
    }
    return tirval_l_onedrive_item_uri(item, root.get(), "/", uri_out);
}

static tirval_result_t tirval_l_onedrive_site_uri(const tirval_l_onedrive_item_t &item,
                                                  char **uri_out)
{
    tirval_onedrive_path_info_t *lib_info = nullptr;
    const tirval_result_t result = tirval_l_onedrive_ancestor(item, "", "", &lib_info);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (item.is_write) {
        return tirval_i_onedrive_write_refusal(item.path, TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    return tirval_l_onedrive_give(tirval_common_create_string("%s/v1.0/sites/%s/drives",
                                                              tirval_i_onedrive_graph_url,
                                                              lib_info->id),
                                  uri_out);
}

/* Nothing can be deleted anywhere in a library: such a request names no sub-resource. */
static tirval_result_t tirval_l_onedrive_library_uri(const tirval_l_onedrive_item_t &item,
                                                     char **uri_out)
{
    tirval_onedrive_path_info_t *drive_info = nullptr;
    const tirval_result_t result =
        tirval_l_onedrive_ancestor(item, "/", item.drive.get(), &drive_info);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (item.sub == nullptr && item.is_write) {
        return tirval_i_onedrive_write_refusal(item.path, TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    const tirval_i_onedrive_text_t root(
        tirval_common_create_string("/v1.0/drives/%s/root", drive_info->id));
    if (root == nullptr) {
        return tirval_l_onedrive_give(nullptr, uri_out);
    }
    return tirval_l_onedrive_item_uri(item, root.get(), "/", uri_out);
}

static tirval_result_t tirval_l_onedrive_libraries_uri(const tirval_l_onedrive_item_t &item,
                                                       char **uri_out)
{
    if (item.lib != nullptr) {
        return item.drive == nullptr ? tirval_l_onedrive_site_uri(item, uri_out)
                                     : tirval_l_onedrive_library_uri(item, uri_out);
    }
    if (item.is_write) {
        return tirval_i_onedrive_write_refusal(item.path, TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    return tirval_l_onedrive_give(
        tirval_common_create_string("%s/v1.0/me/followedSites", tirval_i_onedrive_graph_url),
        uri_out);
}

tirval_result_t tirval_onedrive_path_to_uri(tirval_onedrive_handle_t *handle, const char *path,
                                            const char *sub, char **uri_out, bool is_write)
{
    const char *base = nullptr;
    char *lib = nullptr;
    char *drive = nullptr;
    char *below = nullptr;
    tirval_onedrive_split_path(path, &base, &lib, &drive, &below);
    const tirval_i_onedrive_text_t plain(below);
    tirval_l_onedrive_item_t item = {handle, path, sub, is_write, base, {}, {}, {}};
    item.lib.reset(lib);
    item.drive.reset(drive);
    if (base == nullptr) {
        return tirval_i_onedrive_write_refusal(path, TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    item.below.reset(tirval_url_string_hex_encode(below, " #"));
    if (below != nullptr && item.below == nullptr) {
        return tirval_l_onedrive_give(nullptr, uri_out);
    }
    if (base == tirval_l_onedrive_my_files + 1) {
        return tirval_l_onedrive_my_files_uri(item, uri_out);
    }
    if (base == tirval_l_onedrive_shared + 1) {
        return tirval_l_onedrive_shared_uri(item, uri_out);
    }
    return tirval_l_onedrive_libraries_uri(item, uri_out);
}
