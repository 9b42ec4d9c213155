// Carrying out changes of items.
#include "changes.h"

#include "errors.h"
#include "locator.h"

#include <algorithm>

namespace graph_sim {

namespace {

[[noreturn]] void access_denied()
{
    throw api_error(403, "accessDenied", "Access denied");
}

// Older clients leave the namespace out.
json conflict_member(const json &object)
{
    json value = object.at("@microsoft.graph.conflictBehavior");
    return value ? value : object.at("@name.conflictBehavior");
}

conflict conflict_named(std::string_view text)
{
    if (text == "fail") {
        return conflict::fail;
    }
    if (text == "rename") {
        return conflict::rename;
    }
    if (text == "replace") {
        return conflict::replace;
    }
    bad_argument();
}

// A text member, null when it is absent; 400 for a member of another type.
std::optional<std::string> text_member(const json &object, const char *key)
{
    const json value = object.at(key);
    if (!value) {
        return std::nullopt;
    }
    if (!json_is_string(value.get())) {
        bad_argument();
    }
    return std::string(value.as_text());
}

// The JSON object that is a member; empty when it is absent, 400 when it is something else.
json object_member(const json &object, const char *key)
{
    json value = object.at(key);
    if (value && !json_is_object(value.get())) {
        bad_argument();
    }
    return value;
}

// SharePoint-type stores keep whole seconds.
timestamp as_kept(timestamp time, flavour kind)
{
    return kind == flavour::personal ? time : std::chrono::floor<std::chrono::seconds>(time);
}

void read_time(const json &info, const char *key, flavour kind, timestamp &time)
{
    const json value = info.at(key);
    if (!value || json_is_null(value.get())) {
        return;
    }
    const auto read = parse_iso_time(value.as_text());
    if (!read) {
        throw api_error(400, "invalidRequest",
                        "Cannot convert the literal to the expected type "
                        "'Edm.DateTimeOffset'.");
    }
    time = as_kept(*read, kind);
}

bool is_locked(const item &what)
{
    for (const item *at = &what; at != nullptr; at = at->parent) {
        if (at->locked) {
            return true;
        }
    }
    return false;
}

bool holds_lock(const item &what)
{
    return what.locked || std::ranges::any_of(what.children, [](const auto &child) {
               return holds_lock(*child.second);
           });
}

[[noreturn]] void refuse_locked()
{
    throw api_error(423, "notAllowed", "The resource you are attempting to access is locked",
                    "resourceLocked");
}

void require_writable(const write_context &context, const drive &home, const item &what)
{
    if (!context.all.may_write(context.who, home, what)) {
        access_denied();
    }
    if (is_locked(what)) {
        refuse_locked();
    }
}

// The root of a drive is neither changed nor deleted by requests.
item &needed_item_below_root(const write_context &context, const write_target &target)
{
    item &what = needed_item(target);
    if (what.parent == nullptr) {
        access_denied();
    }
    require_match(context, *target.home, what);
    return what;
}

} // namespace

write_target find_target(const write_context &context, const route &asked)
{
    const locator where(context.all, context.who);
    const auto [home, start] = where.start_of(asked);
    write_target target{home, start, asked.item.path};
    auto name = target.missing.begin();
    while (name != target.missing.end()) {
        item *next = drive::child(*target.last, *name);
        if (next == nullptr) {
            break;
        }
        target.last = next;
        ++name;
    }
    target.missing.erase(target.missing.begin(), name);
    require_writable(context, *home, *target.last);
    return target;
}

item &needed_item(const write_target &target)
{
    if (target.there() == nullptr) {
        item_not_found(is_personal(target.home->kind()));
    }
    return *target.last;
}

item &make_parents(const write_context &context, write_target &target)
{
    drive &home = *target.home;
    if (!target.last->folder) {
        name_taken();
    }
    std::string above = drive::path_of(*target.last);
    for (std::size_t i = 0; i < target.missing.size(); ++i) {
        check_name(home, above, target.missing[i], i + 1 < target.missing.size());
        above += "/" + target.missing[i];
    }
    while (target.missing.size() > 1) {
        const timestamp now = context.resources.now;
        item *made = home.add_folder(*target.last, target.missing.front(),
                                     item_times::all(as_kept(now, home.kind())));
        home.child_changed(*target.last, now);
        target.last = made;
        target.missing.erase(target.missing.begin());
    }
    return *target.last;
}

void require_space(const drive &home, std::uint64_t more)
{
    const std::uint64_t total = home.facts().quota_total;
    const std::uint64_t used = home.bytes_used();
    if (more > total - std::min(total, used)) {
        throw api_error(507, "quotaLimitReached", "Insufficient Space Available");
    }
}

void require_match(const write_context &context, const drive &home, const item &what)
{
    const std::string *tag = context.got.headers.find("If-Match");
    if (tag != nullptr && *tag != "*" && *tag != what.etag(home.kind()) &&
        *tag != what.ctag(home.kind())) {
        throw api_error(412, "resourceModified", "ETag does not match current item's value");
    }
}

conflict conflict_of(const json &object)
{
    const json value = conflict_member(object);
    return value ? conflict_named(value.as_text()) : conflict::absent;
}

conflict conflict_of(const request &got)
{
    auto value = got.parameter("@microsoft.graph.conflictBehavior");
    value = value ? value : got.parameter("@name.conflictBehavior");
    return value ? conflict_named(*value) : conflict::absent;
}

void name_taken()
{
    throw api_error(409, "nameAlreadyExists", "The specified item name already exists.");
}

std::string free_name(const item &parent, const std::string &name, bool folder)
{
    // A dot at the very start begins a name, not an extension.
    const std::size_t dot = folder ? std::string::npos : name.rfind('.');
    const std::size_t end = dot == 0 ? name.size() : std::min(dot, name.size());
    for (unsigned number = 1;; ++number) {
        std::string tried = name.substr(0, end) + " " + std::to_string(number) + name.substr(end);
        if (drive::child(parent, tried) == nullptr) {
            return tried;
        }
    }
}

json body_object(const request &got, bool may_be_empty)
{
    if (may_be_empty && got.body.empty()) {
        return json::object();
    }
    const std::string *type = got.headers.find("Content-Type");
    if (type == nullptr || !to_lower(*type).starts_with("application/json")) {
        throw api_error(415, "invalidRequest",
                        "Content-Type of the request must be application/json.");
    }
    try {
        json body = json::parse(got.body, "body");
        if (json_is_object(body.get())) {
            return body;
        }
    } catch (const input_error &) {
        // Worded below as the service does.
    }
    throw api_error(400, "BadRequest",
                    "Unable to read JSON request payload. Please ensure "
                    "Content-Type header is set and payload is of valid JSON "
                    "format.");
}

item_times with_client_times(item_times times, const json &info, flavour kind)
{
    if (!info || json_is_null(info.get())) {
        return times;
    }
    if (!json_is_object(info.get())) {
        bad_argument();
    }
    read_time(info, "createdDateTime", kind, times.client_created);
    read_time(info, "lastModifiedDateTime", kind, times.client_modified);
    return times;
}

response item_answer(const write_context &context, unsigned status, const drive &home,
                     const item &shown)
{
    json body = json::object();
    const std::string drive_id = percent_encode(home.id());
    body.set("@odata.context",
             context.got.origin + "/v1.0/$metadata#drives('" + drive_id + "')/items/$entity");
    const json resource = item_resource(home, shown, field_set(), context.resources);
    json_object_update_missing(body.get(), resource.get());
    response reply = json_response(status, body, context.got, context.options.chunked_json);
    if (status == 201) {
        // The service names a host of its own network, which no client can reach.
        reply.headers.add("Location", "https://store.graph-sim.invalid/v1.0/drives('" + drive_id +
                                          "')/items('" + percent_encode(shown.id) + "')");
    }
    return reply;
}

response create_folder(const write_context &context, const route &asked)
{
    const write_target target = find_target(context, asked);
    item &parent = needed_item(target);
    drive &home = *target.home;
    const json body = body_object(context.got);
    const auto name = text_member(body, "name");
    if (!parent.folder || !name || !object_member(body, "folder")) {
        bad_argument();
    }
    const conflict wanted = conflict_of(body);
    check_name(home, parent, *name, true);
    const item *there = drive::child(parent, *name);
    if (there != nullptr && wanted != conflict::rename) {
        // The consumer store takes a folder that is there for the one that was asked for.
        if (is_personal(home.kind()) && there->folder && wanted != conflict::fail) {
            return item_answer(context, 200, home, *there);
        }
        name_taken();
    }
    const timestamp now = context.resources.now;
    item_times times = item_times::all(as_kept(now, home.kind()));
    if (home.kind() == flavour::personal) {
        times = with_client_times(times, body.at("fileSystemInfo"), home.kind());
    }
    item &made =
        *home.add_folder(parent, there == nullptr ? *name : free_name(parent, *name, true), times);
    home.child_changed(parent, now);
    return item_answer(context, 201, home, made);
}

namespace {

// What a PATCH asks for, read and judged before anything is changed.
struct update {
    std::optional<std::string> name;
    drive *new_home = nullptr;
    item *new_parent = nullptr; // null: the item stays in its folder
    json client_times;
    std::optional<std::string> description;
};

// The folder that "/drive/root:/a/b", "/drives/{id}/root:/a" or "/drive/root" names; the drive is
// the item's own unless the path tells another.  400 for other forms, 404 when it is not there.
item &parent_by_path(const write_context &context, std::string_view path, drive *&home)
{
    const locator where(context.all, context.who);
    const std::size_t colon = path.find(':');
    const std::vector<std::string> head = split(path.substr(0, colon), '/');
    if (head.size() == 4 && head[1] == "drives" && head[3] == "root") {
        home = &where.drive_of({drive_address::by::id, head[2]});
    } else if (head.size() != 3 || head[1] != "drive" || head[2] != "root") {
        bad_argument();
    }
    item *const root = where.visible(*home, "root");
    const bool personal = is_personal(home->kind());
    if (root == nullptr) {
        item_not_found(personal);
    }
    const auto find = [root](std::string_view below) {
        std::vector<std::string> names = split(below, '/');
        std::erase(names, "");
        return drive::resolve(*root, names);
    };
    const std::string_view below =
        colon == std::string_view::npos ? std::string_view() : path.substr(colon + 1);
    item *found = find(below);
    if (found == nullptr) {
        // Paths are written by clients as they are, or encoded as answers carry them.
        const auto decoded = percent_decode(below);
        found = decoded ? find(*decoded) : nullptr;
    }
    if (found == nullptr) {
        item_not_found(personal);
    }
    return *found;
}

void read_parent(const write_context &context, drive &home, const json &reference, update &asked)
{
    const auto id = text_member(reference, "id");
    const auto drive_id = text_member(reference, "driveId");
    const auto path = text_member(reference, "path");
    const locator where(context.all, context.who);
    asked.new_home = drive_id ? &where.drive_of({drive_address::by::id, *drive_id}) : &home;
    if (id && *id != "root") {
        // An id that is not known is passed over without a word, and so is the word "root".
        asked.new_parent = where.visible(*asked.new_home, *id);
    } else if (!id && path) {
        asked.new_parent = &parent_by_path(context, *path, asked.new_home);
    }
}

update read_update(const write_context &context, drive &home)
{
    const json body = body_object(context.got);
    update asked;
    asked.name = text_member(body, "name");
    asked.client_times = object_member(body, "fileSystemInfo");
    asked.description = text_member(body, "description");
    if (const json reference = object_member(body, "parentReference")) {
        read_parent(context, home, reference, asked);
    }
    return asked;
}

std::string_view tenant_of(const write_context &context, const drive &home)
{
    for (const auto &owner : context.all.accounts()) {
        if (owner->own == &home) {
            return owner->tenant;
        }
    }
    for (const auto &owner : context.all.sites()) {
        if (std::ranges::find(owner->libraries, &home) != owner->libraries.end()) {
            return owner->tenant;
        }
    }
    return {};
}

// Another drive is reached only between the work stores of one tenant.
void require_reachable(const write_context &context, const drive &from, const drive &to)
{
    if (&from != &to && (is_personal(from.kind()) || is_personal(to.kind()) ||
                         tenant_of(context, from) != tenant_of(context, to))) {
        throw api_error(400, "invalidRequest", "Cross-drive moves are not supported.");
    }
}

// Puts an item into another folder or under another name; gives the item, which is another one
// when it has left its drive.
item &relocate(const write_context &context, drive &home, item &moved, const update &asked)
{
    item &parent = asked.new_parent == nullptr ? *moved.parent : *asked.new_parent;
    drive &new_home = asked.new_parent == nullptr ? home : *asked.new_home;
    const std::string name = asked.name.value_or(moved.name);
    if (&parent == moved.parent && name == moved.name) {
        return moved;
    }
    require_reachable(context, home, new_home);
    require_writable(context, new_home, parent);
    if (holds_lock(moved)) {
        refuse_locked();
    }
    if (!parent.folder) {
        bad_argument();
    }
    for (const item *above = &parent; above != nullptr; above = above->parent) {
        if (above == &moved) {
            bad_argument(); // a folder cannot go into itself
        }
    }
    check_name(new_home, parent, name, moved.folder, longest_below(moved));
    const item *const there = drive::child(parent, name);
    if (there != nullptr && there != &moved) {
        name_taken();
    }
    const timestamp now = context.resources.now;
    if (&new_home != &home) {
        require_space(new_home, moved.size);
        return *new_home.take_over(home, moved, parent, name, now);
    }
    home.move(moved, parent, name, now);
    return moved;
}

// Takes over times and description.
void describe(drive &home, item &changed, const update &asked, timestamp now)
{
    const flavour kind = home.kind();
    // Only the older consumer store still keeps descriptions.
    const bool described = asked.description && kind == flavour::personal;
    if (!asked.client_times && !described) {
        return;
    }
    const timestamp modified = changed.times.modified;
    changed.times = with_client_times(changed.times, asked.client_times, kind);
    if (described) {
        changed.description = *asked.description;
    }
    home.touch(changed, now);
    if (asked.client_times) {
        // Work stores show the client's time as their own; the consumer store leaves its own alone.
        changed.times.modified = is_personal(kind) ? modified : changed.times.client_modified;
    }
}

} // namespace

response update_item(const write_context &context, const route &asked)
{
    const write_target target = find_target(context, asked);
    item &what = needed_item_below_root(context, target);
    const update wanted = read_update(context, *target.home);
    static_cast<void>(with_client_times({}, wanted.client_times, target.home->kind()));
    item &changed = relocate(context, *target.home, what, wanted);
    drive &home = wanted.new_parent == nullptr ? *target.home : *wanted.new_home;
    describe(home, changed, wanted, context.resources.now);
    return item_answer(context, 200, home, changed);
}

response delete_item(const write_context &context, const route &asked)
{
    const bool for_good = context.got.method == "POST";
    const write_target target = find_target(context, asked);
    item &gone = needed_item_below_root(context, target);
    if (for_good && is_personal(target.home->kind())) {
        throw api_error(400, "notSupported", "Operation not supported");
    }
    if (holds_lock(gone)) {
        refuse_locked();
    }
    target.home->remove(gone, context.resources.now, for_good);
    return no_content(context.got);
}

} // namespace graph_sim
