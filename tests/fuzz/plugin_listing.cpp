/* A whole page of a listing, fetched from a peer. */
#include "fuzz.h"

#include "http_peer.h"
#include "test_session.h"

namespace {

/* What the peer answers: the page, then one without entries. */
std::string next_page_of(http_peer &peer, std::string_view input)
{
    const tirval_i_onedrive_json_t page(json_loadb(input.data(), input.size(), 0, nullptr));
    if (page == nullptr) {
        return std::string(input);
    }
    /* Only the peer may be asked for a next page. */
    if (json_is_string(json_object_get(page.get(), "@odata.nextLink"))) {
        json_object_set_new(page.get(), "@odata.nextLink", json_string(peer.url("/n").c_str()));
    }
    const tirval_i_onedrive_text_t text(json_dumps(page.get(), 0));
    return text.get();
}

tirval_result_t take_entry(tirval_onedrive_handle_t *handle, const char *base_path,
                           const tirval_onedrive_path_info_t *entry, void *all_well)
{
    const std::string path = std::string(base_path) + "/" + (entry->name ? entry->name : "");
    const bool well = entry->name != nullptr && *entry->name != '\0' && entry->id != nullptr &&
                      tirval_onedrive_path_cache_query(&handle->cache, path.c_str()) != nullptr;
    *static_cast<bool *>(all_well) = *static_cast<bool *>(all_well) && well;
    return TIRVAL_SUCCESS;
}

void parse(std::string_view input)
{
    /* Active for good: each activation reads the certificate store. */
    static const int activated = tirval_module_activate(&tirval_gridftp_server_onedrive_module);
    fuzz::require(activated == 0, "the module can be activated");
    static http_peer peer;
    const std::string page = next_page_of(peer, input);
    peer.on_request([&page](const http_peer_request &got) {
        return http_peer_answer::json(200, got.target == "/n" ? R"({"value":[]})" : page);
    });
    const std::size_t before = peer.requests().size();
    const test_session session(peer.url(""));
    bool all_well = true;
    const tirval_result_t result = tirval_onedrive_get_folder_items(
        session.handle(), "root", "/My files/f", take_entry, &all_well);
    const std::size_t requests = peer.requests().size() - before;
    fuzz::require(all_well, "every entry that is told has a name and an id, and is in the cache");
    fuzz::require(requests >= 1 && requests <= 2, "each page is asked for once");
    fuzz::require(result == TIRVAL_SUCCESS || !message_of(result).empty(), "a failure says why");
    peer.on_request(nullptr);
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    ListingPage,
    (fuzz::entry{
        parse,
        {R"({"value":[{"file":{},"id":"I","name":"a","size":1},{"folder":{},"id":"J","name":"b"}]})",
         R"({"value":[{"id":"I","name":"a"}],"@odata.nextLink":"x"})", R"({"value":[{}, null, 3]})",
         R"({"value":{"a":1}})", R"({"@odata.nextLink":"x"})", "[]", "<html></html>", "",
         R"({"value":[{"file":{},"id":"I","name":"","lastModifiedDateTime":"x"}]})"},
        300}))
