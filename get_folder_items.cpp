/*
 * Lists the children of a folder, page by page, into the path cache, and tells each to whoever
 * asked.
 */
#include "tirval_onedrive_common.h"

#include <cstring>

namespace {

/* What is asked of a folder, chosen by its request's URI. */
struct tirval_l_onedrive_listing_kind_t {
    const char *uri_part;
    const char *top;
    const char *select;
    bool after_base_url; /* the part stands right behind the service's base URL */
    bool remote_items;   /* the item is the element's "remoteItem" */
};

/* The first row whose part the URI contains; the last one fits all.  The field names of a site's
 * libraries are spelled as the service has always been asked. */
const tirval_l_onedrive_listing_kind_t tirval_l_onedrive_listing_kinds[] = {
    {"/me/followedSites", "100", "displayName,sharepointIds", false, false},
    {"/v1.0/sites/", "300", "id,lastmodifiedDateTime,name,driveType", true, false},
    {"/me/drive/sharedWithMe", "300", "remoteItem", false, true},
    {"", "300",
     "file,folder,id,name,size,fileSystemInfo,lastModifiedDateTime,deleted,parentReference,"
     "driveType",
     false, false},
};

struct tirval_l_onedrive_listing_t {
    tirval_onedrive_handle_t *handle;
    const char *path;
    tirval_onedrive_list_entry_cb_t callback;
    void *callback_arg;
    const tirval_l_onedrive_listing_kind_t *kind;
    tirval_i_onedrive_text_t bearer;
    tirval_i_onedrive_text_t uri; /* the next page's; null behind the last */
    bool first_page;
};

} // namespace

#define TIRVAL_L_ONEDRIVE_LISTING_ERROR(message)                                                   \
    tirval_i_onedrive_answer_error("get_folder_items", "tirval_onedrive_get_folder_items",         \
                                   __LINE__, (message))

static bool tirval_l_onedrive_kind_fits(const tirval_l_onedrive_listing_kind_t &kind,
                                        const char *uri)
{
    const char *base = kind.after_base_url ? tirval_i_onedrive_graph_url : "";
    const size_t base_length = std::strlen(base);
    const char *part = std::strstr(uri, kind.uri_part);
    while (part != nullptr && (static_cast<size_t>(part - uri) < base_length ||
                               std::strncmp(part - base_length, base, base_length) != 0)) {
        part = std::strstr(part + 1, kind.uri_part);
    }
    return part != nullptr;
}

static const tirval_l_onedrive_listing_kind_t *tirval_l_onedrive_listing_kind(const char *uri)
{
    const tirval_l_onedrive_listing_kind_t *kind = tirval_l_onedrive_listing_kinds;
    while (!tirval_l_onedrive_kind_fits(*kind, uri)) {
        ++kind;
    }
    return kind;
}

static tirval_result_t tirval_l_onedrive_get_page(tirval_l_onedrive_listing_t *listing,
                                                  tirval_i_onedrive_json_t *page_out)
{
    tirval_dsi_rest_key_value_t parameters[] = {{"$top", listing->kind->top},
                                                {"$select", listing->kind->select}};
    const tirval_dsi_rest_key_array_t query = {2, parameters};
    int repetitions = 1;
    json_t *page = nullptr;
    tirval_i_onedrive_request_t request = {};
    request.method = "GET";
    request.uri = listing->uri.get();
    request.query = listing->first_page ? &query : nullptr; /* a next link carries its own */
    request.bearer = listing->bearer.get();
    request.paced = true;
    request.json_explains = true;
    request.success = TIRVAL_I_ONEDRIVE_BELOW_400;
    request.idle_factor = 1;
    request.repetitions = &repetitions;
    request.json_out = &page;
    const tirval_result_t result = tirval_i_onedrive_request(listing->handle, &request);
    page_out->reset(page);
    if (result == TIRVAL_SUCCESS && page == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    return result;
}

/* Keeps where the next page lies. */
static tirval_result_t tirval_l_onedrive_keep_next_link(tirval_l_onedrive_listing_t *listing,
                                                        json_t *page)
{
    const char *next = json_string_value(json_object_get(page, "@odata.nextLink"));
    listing->first_page = false;
    listing->uri.reset(next == nullptr ? nullptr : strdup(next));
    return next != nullptr && listing->uri == nullptr ? tirval_i_onedrive_malloc_error()
                                                      : TIRVAL_SUCCESS;
}

static tirval_result_t tirval_l_onedrive_take_element(tirval_l_onedrive_listing_t *listing,
                                                      json_t *element)
{
    tirval_onedrive_path_info_t entry = {};
    const std::unique_ptr<tirval_onedrive_path_info_t, decltype(&tirval_onedrive_path_info_free)>
        texts(&entry, &tirval_onedrive_path_info_free);
    json_t *item = listing->kind->remote_items ? json_object_get(element, "remoteItem") : element;
    if (tirval_onedrive_object_info_parse(item, &entry) != TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_LISTING_ERROR("Failed info_parse!");
    }
    if (!tirval_i_onedrive_path_info_addressable(&entry)) {
        TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_WARN,
                            "%s: an item without a name or an id is left out\n", listing->path);
        return TIRVAL_SUCCESS;
    }
    if (tirval_onedrive_path_cache_update(&listing->handle->cache, &entry, listing->path) !=
        TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_LISTING_ERROR("Failed info_parse!");
    }
    if (listing->callback == nullptr) {
        return TIRVAL_SUCCESS;
    }
    return listing->callback(listing->handle, listing->path, &entry, listing->callback_arg);
}

static tirval_result_t tirval_l_onedrive_take_page(tirval_l_onedrive_listing_t *listing,
                                                   json_t *page)
{
    tirval_result_t result = tirval_l_onedrive_keep_next_link(listing, page);
    json_t *value = json_object_get(page, "value");
    if (result == TIRVAL_SUCCESS && !json_is_array(value)) {
        return TIRVAL_L_ONEDRIVE_LISTING_ERROR("Json object not array when it was expected");
    }
    for (size_t i = 0; result == TIRVAL_SUCCESS && i < json_array_size(value); ++i) {
        result = tirval_l_onedrive_take_element(listing, json_array_get(value, i));
    }
    return result;
}

static tirval_result_t tirval_l_onedrive_list(tirval_l_onedrive_listing_t *listing)
{
    char *uri = nullptr;
    tirval_result_t result =
        tirval_onedrive_path_to_uri(listing->handle, listing->path, "/children", &uri, false);
    listing->uri.reset(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    listing->kind = tirval_l_onedrive_listing_kind(uri);
    listing->first_page = true;
    listing->bearer.reset(tirval_i_onedrive_bearer(listing->handle));
    if (listing->bearer == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    while (result == TIRVAL_SUCCESS && listing->uri != nullptr) {
        tirval_i_onedrive_json_t page;
        result = tirval_l_onedrive_get_page(listing, &page);
        if (result == TIRVAL_SUCCESS) {
            result = tirval_l_onedrive_take_page(listing, page.get());
        }
    }
    return result;
}

tirval_result_t tirval_onedrive_get_folder_items(tirval_onedrive_handle_t *handle,
                                                 const char *folder_id, const char *path,
                                                 tirval_onedrive_list_entry_cb_t callback,
                                                 void *callback_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)folder_id;
    tirval_l_onedrive_listing_t listing = {handle,  path, callback, callback_arg,
                                           nullptr, {},   {},       true};
    return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_l_onedrive_list(&listing));
}
