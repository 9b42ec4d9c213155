/* The credential that the host hands to the plug-in. */
#include "fuzz.h"

#include "frame_support.h"
#include "memory_backend.h"

namespace {

/* The session's handle for one credential. */
class token_holder {
  public:
    token_holder() = default;
    token_holder(const token_holder &) = delete;
    token_holder &operator=(const token_holder &) = delete;
    ~token_holder()
    {
        free(handle.access_token);
        free(handle.tid);
        free(handle.userid);
    }
    memory_outcome update(const std::string &credential)
    {
        memory_outcome outcome;
        host.config["creds"] = credential;
        host.in_stat([&](tirval_gfs_operation_t op) {
            outcome = memory_outcome::of(tirval_onedrive_update_token(&handle, op));
        });
        return outcome;
    }

    tirval_onedrive_handle_t handle = {};
    memory_backend host;
};

void parse(std::string_view input)
{
    token_holder holder;
    const memory_outcome outcome = holder.update(fuzz::c_text(input));
    const tirval_onedrive_handle_t &handle = holder.handle;
    const bool taken = outcome.result == TIRVAL_SUCCESS;
    fuzz::require(taken == (handle.access_token != nullptr) && taken == (handle.userid != nullptr),
                  "a credential is taken whole or not at all");
    fuzz::require(taken || handle.tid == nullptr, "a refused credential leaves no tenant");
    fuzz::require(taken || !outcome.text.empty(), "a refusal says why");
    const bool consumer = handle.tid == nullptr ||
                          std::string_view(handle.tid) == "9188040d-6c67-4c5b-b112-36a304b66dad";
    fuzz::require(handle.personal == consumer, "the tenant tells whether the account is personal");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Token,
    (fuzz::entry{
        parse,
        {R"({"access_token":"T","sub":"S","token_expiry":"2090-01-01T00:00:00.000000+00:00"})",
         R"({"access_token":"T","sub":"S","token_expiry":"2090-12-31T23:59:60.123456-11:30",)"
         R"("tid":"9188040d-6c67-4c5b-b112-36a304b66dad"})",
         R"({"access_token":"T\u00e4","sub":"","token_expiry":"2090-01-01T00:00:00.0+00:00","tid":null})",
         R"({"access_token":1,"sub":"S","token_expiry":"soon"})", R"(["token"])", ""},
        30000}))
