/* The service's answer to a request for an upload session. */
#include "fuzz.h"

#include "frame_support.h"

namespace {

struct record_free {
    void operator()(tirval_onedrive_upload_session_t *record) const
    {
        tirval_onedrive_upload_session_free(record);
    }
};

/* The member's text, null when it is none. */
const char *text_member(json_t *json, const char *key)
{
    return json_string_value(json_object_get(json, key));
}

void require_taken(const char *field, const char *member, const char *before)
{
    const char *expected = member != nullptr ? member : before;
    fuzz::require(field != nullptr && std::string_view(field) == expected,
                  "a text member is copied, and anything else leaves the field as it was");
}

void parse(std::string_view input)
{
    const tirval_i_onedrive_json_t json(json_loadb(input.data(), input.size(), 0, nullptr));
    if (json == nullptr) {
        return;
    }
    const std::unique_ptr<tirval_onedrive_upload_session_t, record_free> record(
        static_cast<tirval_onedrive_upload_session_t *>(
            calloc(1, sizeof(tirval_onedrive_upload_session_t))));
    record->url = strdup("before");
    record->exp = strdup("earlier");
    fuzz::require(tirval_onedrive_upload_session_parse(json.get(), record.get()) == TIRVAL_SUCCESS,
                  "parsing always succeeds");
    require_taken(record->url, text_member(json.get(), "uploadUrl"), "before");
    require_taken(record->exp, text_member(json.get(), "expirationDateTime"), "earlier");
}

} // namespace

TIRVAL_FUZZ_ENTRY(UploadSession,
                  (fuzz::entry{
                      parse,
                      {"{\"uploadUrl\":\"https://up.example/s?t=1\",\"expirationDateTime\":"
                       "\"2024-05-02T09:27:03Z\",\"nextExpectedRanges\":[\"0-\"]}",
                       "{\"uploadUrl\":\"https://up.example/%u00e4'!\"}",
                       "{\"expirationDateTime\":\"never\"}", "{\"uploadUrl\":7}",
                       "{\"uploadUrl\":null,\"expirationDateTime\":{}}", "{}", "[]"},
                      60000}))
