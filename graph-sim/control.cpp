// Answering the control paths.
#include "control.h"

#include "names.h"
#include "seed.h"

#include <algorithm>
#include <array>

namespace graph_sim {

namespace {

// Something that was named is not there.
class missing_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

response told(unsigned status, const json &body)
{
    response reply;
    reply.status = status;
    reply.headers.add("Content-Type", "application/json");
    reply.headers.add("Cache-Control", "no-store");
    reply.body = body.dump() + "\n";
    return reply;
}

response told_error(unsigned status, const std::string &reason)
{
    json body = json::object();
    body.set("error", reason);
    return told(status, body);
}

response done(std::size_t count = 1)
{
    json body = json::object();
    body.set("changed", json::integer(std::uint64_t{count}));
    return told(200, body);
}

std::vector<std::string> path_parts(const std::string &path)
{
    std::vector<std::string> parts = split(path, '/');
    std::erase(parts, "");
    return parts;
}

std::uint64_t number_of(const request &got, const char *name, std::uint64_t otherwise)
{
    const auto text = got.parameter(name);
    return text ? std::strtoull(text->c_str(), nullptr, 10) : otherwise;
}

// A device code is approved by a form in a browser or by JSON in a test.
json body_of(const request &got)
{
    const std::string *type = got.headers.find("Content-Type");
    if (type != nullptr && type->starts_with("application/x-www-form-urlencoded") &&
        got.path() == "/__sim/device") {
        json made = json::object();
        for (const auto &[name, value] : parse_query(got.body)) {
            made.set(name, value);
        }
        return made;
    }
    return got.body.empty() ? json() : json::parse(got.body, "body");
}

item &item_at(drive &home, const std::string &path)
{
    item *found = drive::resolve(home.root(), path_parts(path));
    if (found == nullptr) {
        throw missing_error("there is no item " + path);
    }
    return *found;
}

// Makes an item, or gives one that is there new bytes.
response put_item(drive &home, const std::string &path, const json &described,
                  const std::string &place)
{
    std::vector<std::string> parts = path_parts(path);
    if (parts.empty()) {
        throw input_error(place + ": \"path\" names no item");
    }
    const std::string name = parts.back();
    parts.pop_back();
    item *parent = drive::resolve(home.root(), parts);
    if (parent == nullptr || !parent->folder) {
        throw missing_error("there is no folder for " + path);
    }
    item *there = drive::child(*parent, name);
    if (there == nullptr) {
        json named = described;
        named.set("name", name);
        add_seeded_item(home, *parent, named.get(), place, ".");
        home.child_changed(*parent, wall_clock());
        return done();
    }
    object_reader reader(described.get(), place);
    const content_ptr data = seeded_content(reader);
    reader.finish();
    if (there->folder || data == nullptr) {
        throw input_error(place + ": " + path +
                          " is there already, and only a file's content can be replaced");
    }
    home.replace_content(*there, data, wall_clock());
    return done();
}

void move_item(drive &home, item &moved, const std::string &path, const object_reader &reader)
{
    std::vector<std::string> parts = path_parts(path);
    const std::string name = parts.empty() ? "" : parts.back();
    parts.resize(parts.empty() ? 0 : parts.size() - 1);
    item *parent = drive::resolve(home.root(), parts);
    if (parent == nullptr || !is_legal_name(name) ||
        !home.move(moved, *parent, name, wall_clock())) {
        reader.fail("move_to", "is not a place that the item can take");
    }
}

} // namespace

control::control(std::mutex &mutex, world &all, token_store &tokens, settings &options,
                 download_links &links, fault_set &faults, recorder &requests,
                 upload_session_store &sessions)
    : mutex_(mutex), all_(all), tokens_(tokens), options_(options), links_(links), faults_(faults),
      requests_(requests), sessions_(sessions)
{
}

response control::answer(const request &got)
{
    struct entry {
        std::string_view name, method;
        handler run;
    };
    static constexpr std::array entries{
        entry{"health", "GET", &control::health},
        entry{"requests", "GET", &control::show_requests},
        entry{"requests", "DELETE", &control::clear_requests},
        entry{"faults", "GET", &control::show_faults},
        entry{"faults", "POST", &control::add_faults},
        entry{"faults", "DELETE", &control::clear_faults},
        entry{"file", "GET", &control::show_file},
        entry{"uploads", "GET", &control::show_uploads},
        entry{"uploads", "DELETE", &control::expire_uploads},
        entry{"items", "POST", &control::change_item},
        entry{"throttle", "POST", &control::change_throttle},
        entry{"token", "POST", &control::change_token},
        entry{"settings", "GET", &control::show_settings},
        entry{"settings", "POST", &control::change_settings},
        entry{"device", "GET", &control::show_device},
        entry{"device", "POST", &control::decide_device},
    };
    const std::string_view name = got.path().substr(control_prefix.size());
    const auto named = [name](const entry &candidate) { return candidate.name == name; };
    const auto *const found = std::ranges::find_if(entries, [&](const entry &candidate) {
        return named(candidate) && candidate.method == got.method;
    });
    try {
        if (found != entries.end()) {
            return (this->*found->run)(got, body_of(got));
        }
    } catch (const input_error &error) {
        return told_error(400, error.what());
    } catch (const missing_error &error) {
        return told_error(404, error.what());
    }
    const bool known = std::ranges::any_of(entries, named);
    return told_error(known ? 405 : 404, known ? "not with this method" : "no such control path");
}

response control::health(const request &, const json &)
{
    const std::lock_guard lock(mutex_);
    json accounts = json::array();
    for (const auto &known : all_.accounts()) {
        json shown = json::object();
        shown.set("name", known->name)
            .set("kind", drive_type(known->kind))
            .set("tenant", known->tenant)
            .set("subject", known->subject)
            .set("user_id", known->user_id)
            .set("drive", known->own == nullptr ? json::null() : json::text(known->own->id()));
        accounts.append(shown);
    }
    json body = json::object();
    body.set("status", "ok").set("accounts", accounts);
    return told(200, body);
}

response control::show_requests(const request &got, const json &)
{
    record_filter filter;
    filter.since = number_of(got, "since", 0);
    filter.limit = number_of(got, "limit", UINT64_MAX);
    filter.kind = got.parameter("kind").value_or("");
    filter.account = got.parameter("account").value_or("");
    filter.method = got.parameter("method").value_or("");
    filter.path_part = got.parameter("path").value_or("");
    return told(200, requests_.list(filter));
}

response control::clear_requests(const request &, const json &)
{
    requests_.clear();
    return done();
}

response control::show_faults(const request &, const json &)
{
    return told(200, faults_.list());
}

response control::add_faults(const request &, const json &body)
{
    faults_.add(body.get(), "body: /");
    return told(200, faults_.list());
}

response control::clear_faults(const request &, const json &)
{
    faults_.clear();
    return done();
}

account &control::account_named(const std::string &name)
{
    account *found = all_.find_account(name);
    if (found == nullptr) {
        throw missing_error("there is no account " + name);
    }
    return *found;
}

drive &control::drive_of(const std::string &account_name, const std::string &drive_id,
                         const std::string &site_name, const std::string &library)
{
    if (!drive_id.empty()) {
        if (drive *found = all_.find_drive(drive_id)) {
            return *found;
        }
        throw missing_error("there is no drive " + drive_id);
    }
    if (!site_name.empty()) {
        for (const auto &known : all_.sites()) {
            for (drive *candidate : known->libraries) {
                if (known->name == site_name && candidate->facts().name == library) {
                    return *candidate;
                }
            }
        }
        throw missing_error("there is no library " + library + " in a site " + site_name);
    }
    drive *own = account_named(account_name).own;
    if (own == nullptr) {
        throw missing_error(account_name + " has no drive");
    }
    return *own;
}

drive &control::drive_named(object_reader &reader)
{
    return drive_of(reader.text_or("account", ""), reader.text_or("drive", ""),
                    reader.text_or("site", ""), reader.text_or("library", ""));
}

response control::show_file(const request &got, const json &)
{
    const auto parameter = [&got](const char *name) { return got.parameter(name).value_or(""); };
    content_ptr data;
    std::uint64_t hash_limit = 0;
    json body = json::object();
    {
        const std::lock_guard lock(mutex_);
        hash_limit = options_.hash_limit;
        const item &found = item_at(drive_of(parameter("account"), parameter("drive"),
                                             parameter("site"), parameter("library")),
                                    parameter("path"));
        if (found.folder) {
            throw missing_error("that is a folder");
        }
        data = found.data;
        body.set("id", found.id)
            .set("name", found.name)
            .set("size", json::integer(found.size))
            .set("modified", iso_time(found.times.client_modified, true));
    }
    // Outside the lock: the SHA-256 of some GiB takes seconds when it is asked for first.
    if (const auto quick_xor = data->hashes(hash_limit, false).quick_xor) {
        body.set("quick_xor", *quick_xor);
    }
    if (parameter("digest") != "quick_xor") {
        body.set("sha256", data->sha256_hex());
    }
    return told(200, body);
}

response control::show_uploads(const request &, const json &)
{
    const std::lock_guard lock(mutex_);
    json body = json::object();
    body.set("sessions", sessions_.list(wall_clock()))
        .set("in_memory", json::integer(sessions_.blocks()->in_memory()))
        .set("in_file", json::integer(sessions_.blocks()->in_file()));
    return told(200, body);
}

response control::expire_uploads(const request &, const json &)
{
    const std::lock_guard lock(mutex_);
    sessions_.clear();
    return done();
}

response control::change_item(const request &, const json &body)
{
    object_reader reader(body.get(), "body: /");
    const std::lock_guard lock(mutex_);
    drive &home = drive_named(reader);
    const std::string path = reader.needed_text("path");
    const bool removed = reader.boolean("remove").value_or(false);
    const auto new_path = reader.text("move_to");
    const json_t *described = reader.any("item");
    const auto locked = reader.boolean("locked");
    reader.finish();
    if ((removed ? 1 : 0) + (new_path ? 1 : 0) + (described != nullptr ? 1 : 0) +
            (locked ? 1 : 0) !=
        1) {
        reader.fail(R"(needs one of "item", "remove", "move_to" and "locked")");
    }
    if (described != nullptr) {
        return put_item(home, path, json::share(described), reader.place_of("item"));
    }
    item &found = item_at(home, path);
    if (locked) {
        found.locked = *locked;
        return done();
    }
    if (found.parent == nullptr) {
        reader.fail("path", "is the root, which stays where it is");
    }
    if (removed) {
        home.remove(found, wall_clock());
        return done();
    }
    move_item(home, found, *new_path, reader);
    return done();
}

response control::change_throttle(const request &, const json &body)
{
    object_reader reader(body.get(), "body: /");
    const std::lock_guard lock(mutex_);
    account &who = account_named(reader.needed_text("account"));
    throttle_limit limit;
    limit.per_second = reader.number("requests_per_second", 0, 1e6).value_or(0);
    limit.burst = reader.number("burst", 1, 1e6).value_or(std::max(1.0, limit.per_second));
    limit.retry_after = reader.text_or("retry_after", limit.retry_after);
    reader.finish();
    who.limit = limit;
    return done();
}

response control::change_token(const request &, const json &body)
{
    object_reader reader(body.get(), "body: /");
    const std::lock_guard lock(mutex_);
    const auto expired = reader.text("expire");
    const auto revoked = reader.text("revoke_refresh");
    const auto added = reader.text("add");
    const auto refresh = reader.text("add_refresh");
    const auto lifetime = reader.integer("expires_in_s", 0, 1'000'000'000);
    const std::string name = reader.text_or("account", "");
    reader.finish();
    std::size_t changed = 0;
    if (expired) {
        changed += tokens_.expire_access(*expired, wall_clock());
    }
    if (revoked) {
        changed += tokens_.revoke_refresh(*revoked);
    }
    if (added) {
        const auto expiry =
            lifetime ? std::optional<timestamp>(wall_clock() + std::chrono::seconds(*lifetime))
                     : std::nullopt;
        tokens_.add_access(*added, account_named(name), expiry);
        ++changed;
    }
    if (refresh) {
        tokens_.add_refresh(*refresh, account_named(name));
        ++changed;
    }
    return done(changed);
}

response control::show_settings(const request &, const json &)
{
    const std::lock_guard lock(mutex_);
    return told(200, options_.show());
}

response control::change_settings(const request &, const json &body)
{
    const std::lock_guard lock(mutex_);
    json changes = json::share(body.get());
    if (json_is_true(json_object_get(body.get(), "revoke_downloads"))) {
        links_.revoke_all();
        json_object_del(changes.get(), "revoke_downloads");
    }
    options_.read(object_reader(changes.get(), "body: /"));
    return told(200, options_.show());
}

response control::show_device(const request &got, const json &)
{
    const std::lock_guard lock(mutex_);
    const std::string *accept = got.headers.find("Accept");
    if (accept == nullptr || accept->find("text/html") == std::string::npos) {
        json body = json::object();
        body.set("codes", tokens_.device_codes());
        return told(200, body);
    }
    response reply;
    reply.headers.add("Content-Type", "text/html; charset=utf-8");
    reply.body = "<!DOCTYPE html><title>Sign in</title><h1>Sign in to the Graph simulator</h1>"
                 "<form method=\"post\"><p><label>Code <input name=\"user_code\"></label>"
                 "<p><label>Account <select name=\"account\">";
    for (const auto &known : all_.accounts()) {
        reply.body += "<option>" + percent_encode(known->name) + "</option>";
    }
    reply.body += "</select></label><p><button name=\"action\" value=\"approve\">Allow</button> "
                  "<button name=\"action\" value=\"decline\">Refuse</button></form>";
    return reply;
}

response control::decide_device(const request &, const json &body)
{
    struct named {
        std::string_view name;
        token_store::decision what;
    };
    static constexpr std::array decisions{
        named{"approve", token_store::decision::approve},
        named{"decline", token_store::decision::decline},
        named{"expire", token_store::decision::expire},
        named{"slow_down", token_store::decision::slow_down},
        named{"pending", token_store::decision::pending},
    };
    object_reader reader(body.get(), "body: /");
    const std::lock_guard lock(mutex_);
    const std::string action = reader.text_or("action", "approve");
    const std::string code = reader.text_or("user_code", "");
    const std::string name = reader.text_or("account", "");
    const auto count = reader.integer("count", 0, 1'000'000);
    reader.finish();
    const auto *const found = std::ranges::find(decisions, action, &named::name);
    if (found == decisions.end()) {
        reader.fail("action", "is approve, decline, expire, slow_down or pending");
    }
    account *who = found->what == token_store::decision::approve ? &account_named(name) : nullptr;
    if (!tokens_.decide(code, found->what, who, static_cast<std::uint64_t>(count.value_or(1)))) {
        throw missing_error("there is no such code waiting");
    }
    return done();
}

} // namespace graph_sim
