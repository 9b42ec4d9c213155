/* An item, drive or site of an answer. */
#include "fuzz.h"

#include "frame_support.h"

#include <algorithm>

namespace {

struct info_free {
    void operator()(tirval_onedrive_path_info_t *info) const
    {
        tirval_onedrive_path_info_free(info);
    }
};
using info_ptr = std::unique_ptr<tirval_onedrive_path_info_t, info_free>;

bool lower(const char *text)
{
    return text == nullptr || std::ranges::none_of(std::string_view(text),
                                                   [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool same(const char *a, const char *b)
{
    return a == nullptr ? b == nullptr : b != nullptr && std::string_view(a) == b;
}

void parse(std::string_view input)
{
    const tirval_i_onedrive_json_t json(json_loadb(input.data(), input.size(), 0, nullptr));
    if (json == nullptr) {
        return;
    }
    const error_scope errors;
    tirval_onedrive_path_info_t info = {};
    const info_ptr texts(&info);
    const tirval_result_t result = tirval_onedrive_object_info_parse(json.get(), &info);
    fuzz::require(result == TIRVAL_SUCCESS || !message_of(result).empty(), "a refusal says why");
    fuzz::require(info.type >= TIRVAL_ONEDRIVE_FOLDER && info.type <= TIRVAL_ONEDRIVE_UNKNOWN,
                  "everything has a type");
    fuzz::require(info.has_metadata == (info.type == TIRVAL_ONEDRIVE_FILE), "files are marked");
    fuzz::require(info.has_metadata ||
                      (info.sha1 == nullptr && info.sha256 == nullptr && info.qxr == nullptr),
                  "only files have hashes");
    fuzz::require(lower(info.sha1) && lower(info.sha256), "hashes are in lower case");
    fuzz::require(!info.listed && !info.freeme, "a parsed record is the caller's, and unlisted");
    const info_ptr copy(tirval_onedrive_path_info_copy(&info));
    fuzz::require(copy != nullptr && same(copy->name, info.name) && same(copy->id, info.id) &&
                      same(copy->parent_id, info.parent_id) && copy->size == info.size &&
                      copy->modtime == info.modtime && same(copy->qxr, info.qxr),
                  "a copy is equal");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Item,
    (fuzz::entry{
        parse,
        {R"({"file":{"hashes":{"sha1Hash":"AB","sha256Hash":"CD","quickXorHash":"eF="}},"id":"I",)"
         R"("name":"a.txt","size":11,"parentReference":{"driveId":"D","id":"P"},)"
         R"("fileSystemInfo":{"lastModifiedDateTime":"2024-04-30T20:00:00Z"}})",
         R"({"folder":{},"id":"I","name":"f","lastModifiedDateTime":"2024-04-30T20:00:00.5Z",)"
         R"("parentReference":{"id":"P"}})",
         R"({"sharepointIds":{"siteId":"S"},"displayName":"Team A","name":null})",
         R"({"driveType":"business","id":"D","name":"Documents"})",
         R"({"file":{},"folder":null,"size":-1,"lastModifiedDateTime":"9999-99-99T99:99:99Z"})",
         R"({"file":1,"id":2,"name":3,"parentReference":[],"lastModifiedDateTime":"-999"})", "[]"},
        60000}))
