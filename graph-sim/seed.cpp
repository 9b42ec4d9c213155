// Reading seeds.
#include "seed.h"

#include "names.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>

namespace graph_sim {

namespace {

constexpr auto largest_size = std::numeric_limits<std::int64_t>::max();

// When nothing else is said, everything dates from here, so that two runs look alike.
const timestamp epoch = *parse_iso_time("2024-05-02T09:12:03Z");

struct flavour_name {
    std::string_view name;
    flavour kind;
};

flavour read_kind(object_reader &reader)
{
    static constexpr std::array known{
        flavour_name{"business", flavour::business},
        flavour_name{"personal", flavour::personal},
        flavour_name{"personal-new", flavour::personal_new},
    };
    const std::string text = reader.text_or("kind", "business");
    const auto *const found = std::ranges::find(known, text, &flavour_name::name);
    if (found == known.end()) {
        reader.fail("kind", R"(is "business", "personal" or "personal-new")");
    }
    return found->kind;
}

timestamp read_time(object_reader &reader, const char *key, timestamp otherwise)
{
    const auto text = reader.text(key);
    if (!text) {
        return otherwise;
    }
    const auto time = parse_iso_time(*text);
    if (!time) {
        reader.fail(key, "is a time such as 2024-05-02T09:12:03Z");
    }
    return *time;
}

guid read_guid(object_reader &reader, const char *key, const std::string &otherwise_from)
{
    const auto text = reader.text(key);
    try {
        return text ? guid::parse(*text) : guid::from_name(otherwise_from);
    } catch (const std::invalid_argument &) {
        reader.fail(key, "is a GUID such as 48d31887-5fad-4d73-a9f5-3c356e68a038");
    }
}

item_times read_times(object_reader &reader)
{
    const timestamp modified = read_time(reader, "modified", epoch);
    const timestamp created = read_time(reader, "created", modified);
    return {created, modified, created, modified};
}

hash_choice read_hashes(object_reader &reader)
{
    const json_t *value = reader.any("hashes");
    if (value == nullptr || json_is_true(value)) {
        return {};
    }
    if (json_is_false(value)) {
        return {hash_choice::how::none, {}};
    }
    if (!json_is_object(value)) {
        reader.fail("hashes", "is true, false or an object");
    }
    return {hash_choice::how::given, json::share(value)};
}

json read_extra(object_reader &reader, const char *key)
{
    const json_t *value = reader.any(key);
    if (value != nullptr && !json_is_object(value)) {
        reader.fail(key, "is an object");
    }
    return value == nullptr ? json() : json::share(value);
}

std::string on_disk(const std::string &path, const std::string &folder)
{
    return std::filesystem::path(path).is_absolute() ? path : folder + "/" + path;
}

void read_children(drive &home, item &parent, object_reader &reader, const std::string &folder)
{
    for (const auto &[child, place] : reader.list("children")) {
        add_seeded_item(home, parent, child, place, folder);
    }
    if (const auto directory = reader.text("import")) {
        import_folder(home, parent, on_disk(*directory, folder));
    }
}

// "item-####.txt" with the number in place of the marks.
std::string numbered(const std::string &pattern, std::uint64_t number)
{
    const size_t first = pattern.find('#');
    const size_t end = std::min(pattern.find_first_not_of('#', first), pattern.size());
    std::string digits = std::to_string(number);
    if (digits.size() < end - first) {
        digits.insert(0, end - first - digits.size(), '0');
    }
    return pattern.substr(0, first) + digits + pattern.substr(end);
}

void generate_items(drive &home, item &parent, object_reader reader)
{
    const std::string pattern = reader.needed_text("name");
    const auto count = reader.integer("count", 1, 1'000'000);
    const content_ptr data = seeded_content(reader);
    const bool folders = reader.boolean("folder").value_or(false);
    const item_times times = read_times(reader);
    const hash_choice hashes = read_hashes(reader);
    reader.finish();
    if (!count || pattern.find('#') == std::string::npos || !is_legal_name(pattern)) {
        reader.fail(R"(needs "count" and a "name" with "#" where the number goes)");
    }
    if (folders == (data != nullptr)) {
        reader.fail(R"(needs either a content or "folder": true)");
    }
    for (std::int64_t i = 1; i <= *count; ++i) {
        std::string name = numbered(pattern, static_cast<std::uint64_t>(i));
        item *made = folders ? home.add_folder(parent, std::move(name), times)
                             : home.add_file(parent, std::move(name), data, times);
        if (made == nullptr) {
            reader.fail("makes a name that is there already");
        }
        made->hashes = hashes;
    }
}

void read_throttle(object_reader reader, throttle_limit &limit)
{
    limit.per_second = reader.number("requests_per_second", 0, 1e6).value_or(limit.per_second);
    limit.burst = reader.number("burst", 1, 1e6).value_or(std::max(1.0, limit.per_second));
    limit.retry_after = reader.text_or("retry_after", limit.retry_after);
    reader.finish();
}

void read_tokens(object_reader &reader, account &who, token_store &tokens)
{
    for (const auto &[token, place] : reader.list("tokens")) {
        if (json_is_string(token)) {
            tokens.add_access(json_string_value(token), who, std::nullopt);
            continue;
        }
        object_reader described(token, place);
        const std::string text = described.needed_text("token");
        tokens.add_access(text, who, read_time(described, "expires", epoch));
        described.finish();
    }
    for (const auto &[token, place] : reader.list("refresh_tokens")) {
        if (!json_is_string(token)) {
            throw input_error(place + ": a string is needed");
        }
        tokens.add_refresh(json_string_value(token), who);
    }
}

drive_facts own_drive_facts(const account &who)
{
    drive_facts facts;
    facts.kind = who.kind;
    facts.owner = who.as_identity();
    facts.created = epoch;
    facts.name = "OneDrive";
    if (is_personal(who.kind)) {
        facts.id = who.kind == flavour::personal_new
                       ? personal_drive_id("drive of " + who.name, who.kind)
                       : who.user_id;
        facts.web_url = "https://onedrive.live.com";
    }
    if (who.kind != flavour::personal) {
        const guid collection = guid::from_name("site of " + who.name);
        facts.site_id = collection.lower();
        if (who.kind == flavour::business) {
            facts.id = business_drive_id(collection, guid::from_name("web of " + who.name),
                                         guid::from_name("list of " + who.name));
            facts.web_url = "https://contoso-my.sharepoint.com/personal/" + who.name + "/Documents";
        }
    }
    return facts;
}

void read_drive_members(object_reader &reader, drive_facts &facts)
{
    facts.id = reader.text_or("id", facts.id);
    facts.created = read_time(reader, "created", facts.created);
    if (const auto total = reader.integer("quota", 0, largest_size)) {
        facts.quota_total = static_cast<std::uint64_t>(*total);
    }
}

void read_own_drive(object_reader &reader, account &who, seed_target &target,
                    const std::string &folder)
{
    const json_t *value = reader.any("drive");
    if (json_is_null(value)) {
        return; // an account that has no drive yet
    }
    drive_facts facts = own_drive_facts(who);
    if (value == nullptr) {
        who.own = &target.all.add_drive(std::move(facts));
        return;
    }
    object_reader described(value, reader.place_of("drive"));
    read_drive_members(described, facts);
    who.own = &target.all.add_drive(std::move(facts));
    read_children(*who.own, who.own->root(), described, folder);
    described.finish();
}

void read_account(object_reader reader, seed_target &target, const std::string &folder)
{
    account made;
    made.name = reader.needed_text("name");
    if (target.all.find_account(made.name) != nullptr) {
        reader.fail("name", "is used twice");
    }
    made.kind = read_kind(reader);
    const bool personal = is_personal(made.kind);
    made.user_id = reader.text_or(
        "user_id", personal ? personal_drive_id("user " + made.name, flavour::personal)
                            : guid::from_name("user " + made.name).lower());
    made.subject = reader.text_or("subject", made.name + "-sub");
    made.tenant = reader.text_or("tenant", personal ? std::string(consumer_tenant)
                                                    : std::string(work_tenant));
    made.display_name = reader.text_or("display_name", made.name);
    made.email =
        reader.text_or("email", made.name + (personal ? "@outlook.example" : "@contoso.example"));
    if (auto limit = reader.object("throttle")) {
        read_throttle(*std::move(limit), made.limit);
    }
    account &who = target.all.add_account(std::move(made));
    read_tokens(reader, who, target.tokens);
    read_own_drive(reader, who, target, folder);
    // Read once all accounts and sites are there.
    static_cast<void>(reader.any("shared"));
    static_cast<void>(reader.any("follows"));
    reader.finish();
}

void read_library(object_reader reader, site &home, seed_target &target, const std::string &folder)
{
    drive_facts facts;
    facts.kind = flavour::library;
    facts.name = reader.needed_text("name");
    facts.created = epoch;
    facts.site_id = home.collection.lower();
    facts.web_url = home.web_url() + "/" + percent_encode(facts.name);
    facts.owner = {guid::from_name("group " + home.name).lower(), home.display_name + " members",
                   ""};
    facts.id = business_drive_id(home.collection, home.web,
                                 guid::from_name("library " + home.name + "/" + facts.name));
    read_drive_members(reader, facts);
    drive &made = target.all.add_drive(std::move(facts));
    home.libraries.push_back(&made);
    read_children(made, made.root(), reader, folder);
    reader.finish();
}

std::vector<std::string> read_account_names(object_reader &reader, const char *key,
                                            const world &all)
{
    std::vector<std::string> names;
    for (const auto &[name, place] : reader.list(key)) {
        if (!json_is_string(name) || all.find_account(json_string_value(name)) == nullptr) {
            throw input_error(place + ": the name of an account is needed");
        }
        names.emplace_back(json_string_value(name));
    }
    return names;
}

void read_site(object_reader reader, seed_target &target, const std::string &folder)
{
    site made;
    made.name = reader.needed_text("name");
    made.display_name = reader.text_or("display_name", made.name);
    made.hostname = reader.text_or("hostname", "contoso.sharepoint.com");
    made.collection = read_guid(reader, "site_id", "site collection " + made.name);
    made.web = read_guid(reader, "web_id", "site web " + made.name);
    made.tenant = reader.text_or("tenant", std::string(work_tenant));
    made.created = read_time(reader, "created", epoch);
    made.extra = read_extra(reader, "extra");
    made.members = read_account_names(reader, "members", target.all);
    made.visitors = read_account_names(reader, "visitors", target.all);
    site &home = target.all.add_site(std::move(made));
    for (const auto &[library, place] : reader.list("libraries")) {
        read_library(object_reader(library, place), home, target, folder);
    }
    reader.finish();
}

void read_share(object_reader reader, account &who, const world &all)
{
    const account *owner = all.find_account(reader.needed_text("owner"));
    if (owner == nullptr || owner->own == nullptr) {
        reader.fail("owner", "is the name of no account with a drive");
    }
    std::vector<std::string> path = split(reader.needed_text("path"), '/');
    std::erase(path, "");
    const item *shared = drive::resolve(owner->own->root(), path);
    if (shared == nullptr) {
        reader.fail("path", "is not there in the owner's drive");
    }
    share made;
    made.home = owner->own;
    made.item_id = shared->id;
    made.since = read_time(reader, "since", epoch);
    const std::string role = reader.text_or("role", "write");
    if (role != "write" && role != "read") {
        reader.fail("role", R"(is "write" or "read")");
    }
    made.writable = role == "write";
    made.outer_extra = read_extra(reader, "extra");
    made.remote_extra = read_extra(reader, "remote_extra");
    reader.finish();
    who.shared.push_back(std::move(made));
}

// What an account sees of others can be read only when the others are there.
void read_links(object_reader reader, const world &all)
{
    account &who = *all.find_account(reader.needed_text("name"));
    for (const auto &[shared, place] : reader.list("shared")) {
        read_share(object_reader(shared, place), who, all);
    }
    for (const auto &[name, place] : reader.list("follows")) {
        const char *text = json_string_value(name);
        const auto found = std::ranges::find_if(
            all.sites(), [text](const auto &s) { return text != nullptr && s->name == text; });
        if (found == all.sites().end()) {
            throw input_error(place + ": the name of a site is needed");
        }
        who.followed.push_back(found->get());
    }
}

} // namespace

content_ptr seeded_content(object_reader &reader)
{
    const auto text = reader.text("text");
    const auto coded = reader.text("base64");
    const auto size = reader.integer("size", 0, largest_size);
    const auto pattern = reader.text("pattern");
    if ((text ? 1 : 0) + (coded ? 1 : 0) + (size ? 1 : 0) > 1 || (pattern && !size)) {
        reader.fail(R"(a content is "text", "base64", or "size" with "pattern")");
    }
    if (text) {
        return text_content(*text);
    }
    if (coded) {
        auto bytes = base64_decode(*coded);
        if (!bytes) {
            reader.fail("base64", "is not base64");
        }
        return text_content(*std::move(bytes));
    }
    if (!size) {
        return nullptr;
    }
    auto made = pattern_content(static_cast<std::uint64_t>(*size), pattern.value_or("cycle"));
    if (made == nullptr) {
        reader.fail("pattern", R"(is "zero", "cycle", "cycle+K", "random" or "random+K")");
    }
    return made;
}

void add_seeded_item(drive &home, item &parent, const json_t *described, const std::string &place,
                     const std::string &folder)
{
    object_reader reader(described, place);
    if (auto generated = reader.object("generate")) {
        reader.finish();
        generate_items(home, parent, *std::move(generated));
        return;
    }
    const std::string name = reader.needed_text("name");
    if (!is_legal_name(name)) {
        reader.fail("name", "is not a name that the service allows");
    }
    const content_ptr data = seeded_content(reader);
    const item_times times = read_times(reader);
    const std::string id = reader.text_or("id", "");
    const bool is_folder =
        reader.has("children") || reader.has("import") || reader.boolean("folder").value_or(false);
    if (is_folder == (data != nullptr)) {
        reader.fail(R"(needs either a content, or "children", "import" or "folder": true)");
    }
    item *made = is_folder ? home.add_folder(parent, name, times, id)
                           : home.add_file(parent, name, data, times, id);
    if (made == nullptr) {
        reader.fail("name", "or its \"id\" is there already");
    }
    made->hashes = read_hashes(reader);
    made->extra = read_extra(reader, "extra");
    made->mime_type = reader.text_or("mime_type", made->mime_type);
    made->description = reader.text_or("description", "");
    made->locked = reader.boolean("locked").value_or(false);
    read_children(home, *made, reader, folder);
    reader.finish();
}

void read_seed(const json &seed, const std::string &name, const std::string &folder,
               seed_target target)
{
    object_reader reader(seed.get(), name + ": /");
    static_cast<void>(reader.text("$schema"));
    if (auto chosen = reader.object("settings")) {
        target.options.read(*std::move(chosen));
    }
    const auto accounts = reader.list("accounts");
    if (accounts.empty()) {
        reader.fail("accounts", "needs at least one account");
    }
    for (const auto &[described, place] : accounts) {
        read_account(object_reader(described, place), target, folder);
    }
    for (const auto &[described, place] : reader.list("sites")) {
        read_site(object_reader(described, place), target, folder);
    }
    for (const auto &[described, place] : accounts) {
        read_links(object_reader(described, place), target.all);
    }
    if (const json_t *faults = reader.any("faults")) {
        target.faults.add(faults, reader.place_of("faults"));
    }
    reader.finish();
}

json import_seed(const std::string &directory)
{
    json drive = json::object();
    drive.set("import", directory);
    json tokens = json::array();
    tokens.append(json::text("alice-token"));
    json refresh_tokens = json::array();
    refresh_tokens.append(json::text("alice-refresh"));
    json alice = json::object();
    alice.set("name", "alice")
        .set("display_name", "Alice Example")
        .set("tokens", tokens)
        .set("refresh_tokens", refresh_tokens)
        .set("drive", drive);
    json accounts = json::array();
    accounts.append(alice);
    json seed = json::object();
    seed.set("accounts", accounts);
    return seed;
}

} // namespace graph_sim
