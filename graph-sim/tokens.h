// Access tokens, refresh tokens and device codes, and the two endpoints that hand them out
// (OAuth 2.0, RFC 6749 section 6 and RFC 8628, in the identity platform's wording).
#pragma once

#include "http.h"
#include "settings.h"
#include "world.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace graph_sim {

// Not synchronised: callers hold the service's lock.
class token_store {
  public:
    enum class verdict { valid, missing, unknown, expired };
    struct checked {
        verdict state = verdict::missing;
        account *who = nullptr; // also of an expired token
    };

    // Without `expiry` the token stays good.  A token that is there already is replaced.
    void add_access(const std::string &token, account &who, std::optional<timestamp> expiry);
    void add_refresh(const std::string &token, account &who);
    // The value of an Authorization header, or null.
    [[nodiscard]] checked check(const std::string *authorization, timestamp now) const;
    // Lets one access token, or all of an account, expire at once; returns how many.
    std::size_t expire_access(std::string_view token_or_account, timestamp now);
    // Makes one refresh token, or all of an account, unknown; returns how many.
    std::size_t revoke_refresh(std::string_view token_or_account);

    // POST /{tenant}/oauth2/v2.0/token and /devicecode; `tenant` is the first path segment.
    response token_endpoint(const request &got, const std::string &tenant, const world &all,
                            const settings &options, timestamp now);
    response device_code_endpoint(const request &got, const std::string &tenant, const world &all,
                                  const settings &options, timestamp now);

    enum class decision { approve, decline, expire, slow_down, pending };
    // Decides about a pending device code, named by its user code; "" means the latest one.
    // `count` is the number of polls for slow_down and pending.  False when there is none.
    bool decide(const std::string &user_code, decision what, account *who, std::uint64_t count);
    // The pending codes: [{"user_code","client_id","scope","state"}].
    [[nodiscard]] json device_codes() const;

  private:
    struct access_token {
        account *who;
        std::optional<timestamp> expiry;
    };
    struct refresh_token {
        account *who;
        std::string scope;
        bool used = false;
    };
    struct device_code {
        std::string user_code;
        std::string client_id;
        std::string scope;
        timestamp expiry;
        std::uint64_t pending = 0;
        std::uint64_t slow_down = 0;
        bool declined = false;
        account *who = nullptr; // who approved
    };
    using form = std::map<std::string, std::string, std::less<>>;

    response refresh(const form &fields, const std::string &tenant, const settings &options,
                     timestamp now);
    response redeem(const form &fields, const settings &options, timestamp now);
    response issue(account &who, const std::string &client_id, const std::string &scope,
                   const settings &options, timestamp now);

    std::map<std::string, access_token, std::less<>> access_;
    std::map<std::string, refresh_token, std::less<>> refresh_;
    std::map<std::string, device_code, std::less<>> devices_; // by device code
    std::string latest_device_;
};

} // namespace graph_sim
