/*
 * Reads a range of a file's content.  Graph answers a request for content with the address of a
 * download; that address carries its own authorisation, so the token never goes there.
 */
#include "tirval_onedrive_common.h"

/* Asks Graph where the file's content lies. */
static tirval_result_t tirval_l_onedrive_locate_content(tirval_onedrive_handle_t *handle,
                                                        const char *path, int *repetitions,
                                                        tirval_i_onedrive_text_t *location)
{
    const tirval_i_onedrive_text_t bearer(tirval_i_onedrive_bearer(handle));
    if (bearer == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    char *uri = nullptr;
    tirval_result_t result = tirval_onedrive_path_to_uri(handle, path, "/content", &uri, false);
    const tirval_i_onedrive_text_t uri_owner(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }

    char *address = nullptr;
    tirval_i_onedrive_request_t request = {};
    request.method = "GET";
    request.uri = uri;
    request.bearer = bearer.get();
    request.paced = true;
    request.success = TIRVAL_I_ONEDRIVE_ONLY_302;
    request.idle_factor = 1;
    request.repetitions = repetitions;
    request.location_out = &address;
    result = tirval_i_onedrive_request(handle, &request);
    location->reset(address);
    if (result == TIRVAL_SUCCESS && (address == nullptr || *address == '\0')) {
        return tirval_i_onedrive_answer_error("content", __func__, __LINE__,
                                              "Content answer without a Location");
    }
    return result;
}

/* The Range header's value (RFC 9110), null when all is wanted or memory ran out. */
static char *tirval_l_onedrive_range_text(const tirval_i_onedrive_content_t *content)
{
    const long first = static_cast<long>(content->offset);
    if (content->length != -1) {
        /* Without a sign: the client chooses both numbers, and their sum may not fit. */
        const uint64_t last =
            static_cast<uint64_t>(content->offset) + static_cast<uint64_t>(content->length) - 1;
        return tirval_common_create_string("bytes=%ld-%ld", first, static_cast<long>(last));
    }
    return first == 0 ? nullptr : tirval_common_create_string("bytes=%ld-", first);
}

static tirval_result_t tirval_l_onedrive_download(tirval_onedrive_handle_t *handle,
                                                  const char *location, int *repetitions,
                                                  const tirval_i_onedrive_content_t *content)
{
    const bool whole = content->length == -1 && content->offset == 0;
    const tirval_i_onedrive_text_t range(tirval_l_onedrive_range_text(content));
    if (range == nullptr && !whole) {
        return tirval_i_onedrive_malloc_error();
    }
    tirval_dsi_rest_key_value_t header = {"Range", range.get()};
    const tirval_dsi_rest_key_array_t headers = {whole ? size_t{0} : size_t{1}, &header};

    tirval_i_onedrive_request_t request = {};
    request.method = "GET";
    request.uri = location;
    request.headers = &headers;
    request.paced = content->paced_download;
    request.success = TIRVAL_I_ONEDRIVE_BELOW_400;
    request.idle_factor = 1;
    request.repetitions = repetitions;
    request.read_callback = content->read_callback;
    request.read_arg = content->read_arg;
    request.before_attempt = content->before_attempt;
    request.attempt_arg = content->attempt_arg;
    return tirval_i_onedrive_request(handle, &request);
}

tirval_result_t tirval_i_onedrive_fetch_content(tirval_onedrive_handle_t *handle, const char *path,
                                                const tirval_i_onedrive_content_t *content)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    int repetitions = 1;
    tirval_i_onedrive_text_t location;
    tirval_result_t result =
        tirval_l_onedrive_locate_content(handle, path, &repetitions, &location);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_download(handle, location.get(), &repetitions, content);
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
