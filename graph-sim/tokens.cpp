// Handing out and checking tokens.
#include "tokens.h"

#include <algorithm>

namespace graph_sim {

namespace {

constexpr std::string_view default_scope =
    "Files.ReadWrite.All Sites.Read.All User.Read offline_access openid profile";

response plain_json(unsigned status, const json &body)
{
    response reply;
    reply.status = status;
    reply.headers = {{"Content-Type", "application/json; charset=utf-8"},
                     {"Cache-Control", "no-store, no-cache"},
                     {"Pragma", "no-cache"}};
    reply.body = body.dump();
    return reply;
}

response refused(const std::string &error, int code, const std::string &description, timestamp now)
{
    const std::string trace = guid::random().lower();
    const std::string correlation = guid::random().lower();
    std::string time = iso_time(now);
    time[10] = ' ';
    json codes = json::array();
    codes.append(json::integer(std::int64_t{code}));
    json body = json::object();
    body.set("error", error)
        .set("error_description", "AADSTS" + std::to_string(code) + ": " + description +
                                      " Trace ID: " + trace + " Correlation ID: " + correlation +
                                      " Timestamp: " + time)
        .set("error_codes", codes)
        .set("timestamp", time)
        .set("trace_id", trace)
        .set("correlation_id", correlation)
        .set("error_uri", "https://login.microsoftonline.com/error?code=" + std::to_string(code));
    return plain_json(400, body);
}

bool has_scope(std::string_view scopes, std::string_view wanted)
{
    const auto parts = split(scopes, ' ');
    return std::ranges::find(parts, wanted) != parts.end();
}

std::string granted_scopes(std::string_view scopes)
{
    std::string granted;
    for (const std::string &scope : split(scopes, ' ')) {
        if (!scope.empty() && scope != "offline_access") {
            granted += (granted.empty() ? "" : " ") + scope;
        }
    }
    return granted;
}

std::string coded(const json &value)
{
    return base64url(bytes_of(value.dump()));
}

// Three parts like a signed token's; the signature is noise, nobody holds the service's keys.
std::string web_token(const json &claims)
{
    json head = json::object();
    head.set("typ", "JWT").set("alg", "RS256").set("kid", "graph-sim");
    return coded(head) + "." + coded(claims) + "." + base64url(bytes_of(random_bytes(32)));
}

json claims_of(const account &who, const std::string &client_id, timestamp now,
               std::chrono::seconds lifetime)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count();
    const std::string oid = is_personal(who.kind)
                                ? "00000000-0000-0000-" + who.user_id.substr(0, 4) + "-" +
                                      who.user_id.substr(std::min<size_t>(4, who.user_id.size()))
                                : who.user_id;
    json claims = json::object();
    claims.set("aud", client_id)
        .set("iss", "https://login.microsoftonline.com/" + who.tenant + "/v2.0")
        .set("iat", json::integer(std::int64_t{seconds}))
        .set("nbf", json::integer(std::int64_t{seconds}))
        .set("exp", json::integer(std::int64_t{seconds + lifetime.count()}))
        .set("sub", who.subject)
        .set("oid", oid)
        .set("tid", who.tenant)
        .set("preferred_username", who.email)
        .set("name", who.display_name)
        .set("email", who.email)
        .set("ver", "2.0");
    return claims;
}

std::string new_access_token(const account &who, timestamp now, std::chrono::seconds lifetime)
{
    if (is_personal(who.kind)) {
        return "EwB" + base64url(bytes_of(random_bytes(60)));
    }
    return web_token(claims_of(who, "https://graph.microsoft.com", now, lifetime));
}

std::string new_user_code()
{
    static constexpr std::string_view letters = "BCDFGHJKLMNPQRSTVWXZ23456789";
    std::string code;
    for (const char byte : random_bytes(9)) {
        code.push_back(letters[static_cast<unsigned char>(byte) % letters.size()]);
    }
    return code;
}

bool knows_tenant(const world &all, const std::string &tenant)
{
    return tenant == "common" || tenant == "organizations" || tenant == "consumers" ||
           std::ranges::any_of(all.accounts(), [&](const auto &a) { return a->tenant == tenant; });
}

// Whether an account may sign in through this tenant's address.
bool serves(const std::string &tenant, const account &who)
{
    return tenant == "common" || tenant == who.tenant ||
           tenant == (is_personal(who.kind) ? "consumers" : "organizations");
}

std::string field(const std::map<std::string, std::string, std::less<>> &fields,
                  std::string_view name)
{
    const auto found = fields.find(name);
    return found == fields.end() ? "" : found->second;
}

response missing_parameter(const std::string &name, timestamp now)
{
    return refused("invalid_request", 900144,
                   "The request body must contain the following parameter: '" + name + "'.", now);
}

response unknown_tenant(const std::string &tenant, timestamp now)
{
    return refused("invalid_request", 90002, "Tenant '" + percent_encode(tenant) + "' not found.",
                   now);
}

} // namespace

void token_store::add_access(const std::string &token, account &who,
                             std::optional<timestamp> expiry)
{
    access_.insert_or_assign(token, access_token{&who, expiry});
}

void token_store::add_refresh(const std::string &token, account &who)
{
    refresh_.insert_or_assign(token, refresh_token{&who, std::string(default_scope), false});
}

token_store::checked token_store::check(const std::string *authorization, timestamp now) const
{
    if (authorization == nullptr || authorization->size() < 7 ||
        !equal_without_case(authorization->substr(0, 7), "Bearer ") || authorization->size() == 7) {
        return {};
    }
    const auto found = access_.find(std::string_view(*authorization).substr(7));
    if (found == access_.end()) {
        return {verdict::unknown, nullptr};
    }
    const auto &[who, expiry] = found->second;
    return {expiry && *expiry <= now ? verdict::expired : verdict::valid, who};
}

std::size_t token_store::expire_access(std::string_view token_or_account, timestamp now)
{
    std::size_t count = 0;
    for (auto &[token, held] : access_) {
        if (token == token_or_account || held.who->name == token_or_account) {
            held.expiry = now;
            ++count;
        }
    }
    return count;
}

std::size_t token_store::revoke_refresh(std::string_view token_or_account)
{
    return std::erase_if(refresh_, [token_or_account](const auto &held) {
        return held.first == token_or_account || held.second.who->name == token_or_account;
    });
}

response token_store::token_endpoint(const request &got, const std::string &tenant,
                                     const world &all, const settings &options, timestamp now)
{
    form fields;
    for (auto &[name, value] : parse_query(got.body)) {
        fields.emplace(std::move(name), std::move(value));
    }
    if (!knows_tenant(all, tenant)) {
        return unknown_tenant(tenant, now);
    }
    for (const char *needed : {"grant_type", "client_id"}) {
        if (field(fields, needed).empty()) {
            return missing_parameter(needed, now);
        }
    }
    const std::string grant = field(fields, "grant_type");
    if (grant == "refresh_token") {
        return refresh(fields, tenant, options, now);
    }
    if (grant == "urn:ietf:params:oauth:grant-type:device_code" || grant == "device_code") {
        return redeem(fields, options, now);
    }
    return refused("unsupported_grant_type", 70003, "The app requested an unsupported grant type.",
                   now);
}

response token_store::refresh(const form &fields, const std::string &tenant,
                              const settings &options, timestamp now)
{
    const auto held = refresh_.find(field(fields, "refresh_token"));
    if (field(fields, "refresh_token").empty()) {
        return missing_parameter("refresh_token", now);
    }
    if (held == refresh_.end() || (held->second.used && !options.old_refresh_token_works)) {
        return refused("invalid_grant", 70000,
                       "The provided value for the input parameter 'refresh_token' is not valid.",
                       now);
    }
    account &who = *held->second.who;
    if (!serves(tenant, who)) {
        return refused("invalid_grant", 50020,
                       "User account does not exist in this tenant and cannot access it.", now);
    }
    held->second.used = true;
    std::string scope = field(fields, "scope");
    if (scope.empty()) {
        scope = held->second.scope;
    } else if (!has_scope(scope, "offline_access")) {
        scope += " offline_access"; // a renewal always renews the refresh token, too
    }
    return issue(who, field(fields, "client_id"), scope, options, now);
}

response token_store::redeem(const form &fields, const settings &options, timestamp now)
{
    const auto found = devices_.find(field(fields, "device_code"));
    if (found == devices_.end() || found->second.client_id != field(fields, "client_id")) {
        return refused("bad_verification_code", 70018, "Invalid verification code.", now);
    }
    device_code &code = found->second;
    if (code.expiry <= now) {
        return refused("expired_token", 70020,
                       "The provided value for the input parameter 'device_code' is not valid. "
                       "This device code has expired.",
                       now);
    }
    if (code.declined) {
        return refused("authorization_declined", 70000, "The user declined the request.", now);
    }
    if (code.slow_down > 0) {
        --code.slow_down;
        return refused("slow_down", 70016, "The client polls too often.", now);
    }
    if (code.pending > 0 || code.who == nullptr) {
        code.pending -= std::min<std::uint64_t>(code.pending, 1);
        return refused("authorization_pending", 70016,
                       "OAuth 2.0 device flow error. Authorization is pending. Continue polling.",
                       now);
    }
    const device_code redeemed = code;
    devices_.erase(found);
    return issue(*redeemed.who, redeemed.client_id, redeemed.scope, options, now);
}

response token_store::issue(account &who, const std::string &client_id, const std::string &scope,
                            const settings &options, timestamp now)
{
    const std::string access = new_access_token(who, now, options.token_lifetime);
    add_access(access, who, now + options.token_lifetime);
    json body = json::object();
    body.set("token_type", "Bearer")
        .set("scope", granted_scopes(scope))
        .set("expires_in", json::integer(std::int64_t{options.token_lifetime.count()}))
        .set("ext_expires_in", json::integer(std::int64_t{options.token_lifetime.count()}))
        .set("access_token", access);
    if (has_scope(scope, "offline_access")) {
        const std::string refresh = "0.A" + base64url(bytes_of(random_bytes(45)));
        refresh_.insert_or_assign(refresh, refresh_token{&who, scope, false});
        body.set("refresh_token", refresh);
    }
    if (has_scope(scope, "openid")) {
        body.set("id_token", web_token(claims_of(who, client_id, now, options.token_lifetime)));
    }
    return plain_json(200, body);
}

response token_store::device_code_endpoint(const request &got, const std::string &tenant,
                                           const world &all, const settings &options, timestamp now)
{
    form fields;
    for (auto &[name, value] : parse_query(got.body)) {
        fields.emplace(std::move(name), std::move(value));
    }
    if (!knows_tenant(all, tenant)) {
        return unknown_tenant(tenant, now);
    }
    for (const char *needed : {"client_id", "scope"}) {
        if (field(fields, needed).empty()) {
            return missing_parameter(needed, now);
        }
    }
    device_code code;
    code.user_code = new_user_code();
    code.client_id = field(fields, "client_id");
    code.scope = field(fields, "scope");
    code.expiry = now + options.device_code_lifetime;
    code.pending = options.device_code_pending;
    latest_device_ = "DAQAB" + base64url(bytes_of(random_bytes(60)));

    const std::string page = got.origin + "/__sim/device";
    json body = json::object();
    body.set("user_code", code.user_code)
        .set("device_code", latest_device_)
        .set("verification_uri", page)
        .set("expires_in", json::integer(std::int64_t{options.device_code_lifetime.count()}))
        .set("interval", json::integer(std::int64_t{options.device_code_interval.count()}))
        .set("message", "To sign in, use a web browser to open the page " + page +
                            " and enter the code " + code.user_code + " to authenticate.");
    devices_.emplace(latest_device_, std::move(code));
    return plain_json(200, body);
}

bool token_store::decide(const std::string &user_code, decision what, account *who,
                         std::uint64_t count)
{
    const auto found = user_code.empty() ? devices_.find(latest_device_)
                                         : std::ranges::find_if(devices_, [&](const auto &held) {
                                               return held.second.user_code == user_code;
                                           });
    if (found == devices_.end()) {
        return false;
    }
    device_code &code = found->second;
    switch (what) {
    case decision::approve:
        code.who = who;
        break;
    case decision::decline:
        code.declined = true;
        break;
    case decision::expire:
        code.expiry = timestamp{};
        break;
    case decision::slow_down:
        code.slow_down = count;
        break;
    case decision::pending:
        code.pending = count;
        break;
    }
    return true;
}

json token_store::device_codes() const
{
    json listed = json::array();
    for (const auto &[device, code] : devices_) {
        json shown = json::object();
        shown.set("user_code", code.user_code)
            .set("client_id", code.client_id)
            .set("scope", code.scope)
            .set("state", code.declined         ? "declined"
                          : code.who == nullptr ? "pending"
                                                : "approved");
        listed.append(shown);
    }
    return listed;
}

} // namespace graph_sim
