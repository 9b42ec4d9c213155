/* The credential file.  What could be renewed is not tried: that would ask a token endpoint. */
#include "fuzz.h"

#include "credential.h"
#include "temp_dir.h"

#include <jansson.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

using namespace tirval::server;

namespace {

struct release_t {
    void operator()(json_t *json) const { json_decref(json); }
};
using json_ptr_t = std::unique_ptr<json_t, release_t>;

constexpr const char *secret = "aVerySecretToken";

json_ptr_t parsed(std::string_view text)
{
    return json_ptr_t{json_loadb(text.data(), text.size(), 0, nullptr)};
}

bool is_clean(const json_t *json, const char *key)
{
    const char *value = json_string_value(json_object_get(json, key));
    return value != nullptr && *value != '\0' &&
           std::ranges::none_of(std::string_view(value),
                                [](unsigned char byte) { return byte < ' ' || byte == 0x7F; });
}

void require_handed_over(const std::string &text)
{
    const json_ptr_t json = parsed(text);
    fuzz::require(json != nullptr && is_clean(json.get(), "access_token") &&
                      is_clean(json.get(), "token_expiry") && is_clean(json.get(), "sub"),
                  "what the storage gets is a complete credential");
    fuzz::require(std::string_view(json_string_value(json_object_get(json.get(), "sub"))).size() <=
                      128,
                  "the account's name is bounded");
    const bool has_tenant = json_object_get(json.get(), "tid") != nullptr;
    fuzz::require(!has_tenant || json_is_string(json_object_get(json.get(), "tid")),
                  "a tenant is a text");
    fuzz::require(json_object_size(json.get()) == (has_tenant ? 4 : 3),
                  "nothing else of the file reaches the storage");
}

void parse(std::string_view input)
{
    static const temp_dir_t folder;
    if (json_object_get(parsed(input).get(), "token_endpoint") != nullptr) {
        return;
    }
    const account_t account{"somebody", getuid(), getgid(), folder.path().string()};
    folder.write("c.json", input);
    credential_source_t source("$HOME/c.json", account);
    try {
        require_handed_over(source.fetch());
    } catch (const credential_error_t &error) {
        fuzz::require(std::string_view(error.what()).find(secret) == std::string_view::npos &&
                          error.client_text().find(secret) == std::string::npos,
                      "a refusal tells no secret");
        fuzz::require(error.client_text().find(folder.path().string()) == std::string::npos,
                      "a client is told no path");
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(Credential,
                  (fuzz::entry{
                      parse,
                      {R"({"access_token": "aVerySecretToken", "sub": "S", "tid": "T", )"
                       R"("token_expiry": "2090-01-01T00:00:00.000000+00:00", )"
                       R"("refresh_token": "aVerySecretToken", "client_id": "c", "scope": "s"})",
                       R"({"token_expiry": "2090-01-01T00:00:00.000000+00:00", "sub": "S", )"
                       R"("access_token": "aVerySecretToken"})",
                       R"({"access_token": "aVerySecretToken", "sub": "S", "tid": null, )"
                       R"("token_expiry": "2001-01-01T00:00:00.000000+00:00"})",
                       R"({"access_token": "aVerySecretToken\u000a", "sub": "\u007f", "tid": ""})",
                       "[]"},
                      400}))
