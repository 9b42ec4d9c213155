// Answering Graph requests.
#include "graph_api.h"

#include "errors.h"
#include "pages.h"

#include <array>
#include <cstdio>

namespace graph_sim {

namespace {

[[noreturn]] void not_found(bool personal)
{
    throw api_error(404, "itemNotFound",
                    personal ? "Item does not exist" : "The resource could not be found.");
}

// Keys of lists without names: positions, so that they sort as they are counted.
std::string position_key(size_t position)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%09zu", position);
    return text.data();
}

size_t first_position(const page_request &page)
{
    if (!page.after || page.after->empty()) {
        return 0;
    }
    return std::strtoul(page.after->c_str(), nullptr, 10) + 1;
}

// A page of a list that is counted through; `make` gives the entry at a position.
template <class Make>
json counted_page(const request &got, const settings &options, const fault_action *fault,
                  size_t count, const std::string &context, const Make &make)
{
    const page_request page(got, options, fault);
    page_writer writer(got, page, fault);
    for (size_t i = first_position(page); i < count; ++i) {
        if (writer.full()) {
            writer.more();
            break;
        }
        writer.add(position_key(i), make(i));
    }
    return writer.finish(context);
}

response empty_response(unsigned status)
{
    response reply;
    reply.status = status;
    return reply;
}

} // namespace

graph_api::graph_api(world &all, const download_links &links, const settings &options,
                     const request &got, account &who, const fault_action *fault,
                     const std::string &download_origin)
    : all_(all), options_(options), got_(got), who_(who),
      fault_(fault), context_{links, options, download_origin, wall_clock()}
{
}

field_set graph_api::fields() const
{
    auto select = got_.parameter("$select");
    return field_set(select ? select : got_.parameter("select"));
}

response graph_api::ok(const json &body, const std::string &context) const
{
    json whole = json::object();
    whole.set("@odata.context", got_.origin + "/v1.0/$metadata#" + context);
    json_object_update_missing(whole.get(), body.get());
    return json_response(200, whole, got_, options_.chunked_json);
}

account &graph_api::owner_of(const drive_address &address) const
{
    if (address.how != drive_address::by::user) {
        return who_;
    }
    account *user = all_.find_user(address.value);
    if (user == nullptr) {
        throw api_error(404, "Request_ResourceNotFound",
                        "Resource '" + address.value + "' does not exist.");
    }
    return *user;
}

site &graph_api::site_of(const drive_address &address) const
{
    if (is_personal(who_.kind)) {
        throw api_error(400, "BadRequest", "This API is not supported for MSA accounts");
    }
    const size_t colon = address.value.find(':');
    site *found = colon == std::string::npos
                      ? all_.find_site(address.value)
                      : all_.find_site_by_address(address.value.substr(0, colon),
                                                  address.value.substr(colon + 1));
    if (found == nullptr) {
        throw api_error(404, "itemNotFound", "Requested site could not be found");
    }
    if (!world::may_read(who_, *found)) {
        throw api_error(403, "accessDenied", "Access denied");
    }
    return *found;
}

drive &graph_api::drive_of(const drive_address &address) const
{
    switch (address.how) {
    case drive_address::by::id: {
        drive *found = all_.find_drive(address.value);
        if (found == nullptr) {
            not_found(is_personal(who_.kind));
        }
        return *found;
    }
    case drive_address::by::site: {
        const site &home = site_of(address);
        if (home.libraries.empty()) {
            not_found(false);
        }
        return *home.libraries.front();
    }
    case drive_address::by::me:
    case drive_address::by::user:
        break;
    }
    drive *own = owner_of(address).own;
    if (own == nullptr) {
        throw api_error(404, "ResourceNotFound", "User's mysite not found.");
    }
    return *own;
}

graph_api::located graph_api::find(const route &asked) const
{
    drive &home = drive_of(asked.drive);
    const bool personal = is_personal(home.kind());
    const world::access access = all_.access_to(who_, home);
    if (access == world::access::none) {
        throw api_error(403, "accessDenied", "Access denied");
    }
    if (asked.item.by_path && asked.item.path.empty() && !personal && asked.item.id == "root") {
        throw api_error(400, "invalidRequest", "One of the provided arguments is not acceptable.");
    }
    item *start = home.find(asked.item.id);
    // Of another owner's drive only what is shared can be seen, and what lies below it.
    if (start == nullptr ||
        (access == world::access::shared_items_only && !world::is_shared_with(who_, *start))) {
        not_found(personal);
    }
    item *found = drive::resolve(*start, asked.item.path);
    if (found == nullptr) {
        not_found(personal);
    }
    return {&home, found};
}

bool graph_api::unchanged(const item &what, flavour kind) const
{
    const std::string *tag = got_.headers.find("If-None-Match");
    return tag != nullptr && (*tag == what.etag(kind) || *tag == what.ctag(kind));
}

response graph_api::show_item(const route &asked) const
{
    const auto [home, what] = find(asked);
    if (unchanged(*what, home->kind())) {
        return empty_response(304);
    }
    return ok(item_resource(*home, *what, fields(), context_),
              "drives('" + percent_encode(home->id()) + "')/items/$entity");
}

response graph_api::redirect(const route &asked) const
{
    const auto [home, what] = find(asked);
    const bool package = json_object_get(what->extra.get(), "package") != nullptr;
    if (what->folder || package) {
        throw api_error(404, "itemNotFound",
                        "The specified item does not exist, or does not have content.");
    }
    if (unchanged(*what, home->kind())) {
        return empty_response(304);
    }
    response reply = empty_response(302);
    reply.headers.add("Cache-Control", "max-age=0, private");
    reply.headers.add("Location", context_.links.make(context_.download_origin, *home, *what,
                                                      context_.now + options_.download_lifetime));
    return reply;
}

response graph_api::list_children(const route &asked) const
{
    const auto [home, folder] = find(asked);
    if (unchanged(*folder, home->kind())) {
        return empty_response(304);
    }
    const page_request page(got_, options_, fault_);
    page_writer writer(got_, page, fault_);
    const field_set wanted = fields();
    const auto &children = folder->children;
    for (auto at = page.after ? children.upper_bound(*page.after) : children.begin();
         at != children.end(); ++at) {
        if (writer.full()) {
            writer.more();
            break;
        }
        writer.add(at->first, item_resource(*home, *at->second, wanted, context_));
    }
    const std::string context = got_.origin + "/v1.0/$metadata#drives('" +
                                percent_encode(home->id()) + "')/items('" +
                                percent_encode(folder->id) + "')/children";
    return json_response(200, writer.finish(context), got_, options_.chunked_json);
}

// No history is kept: a client may ask where "now" is, and every other token is too old.
response graph_api::list_changes(const route &asked) const
{
    const auto [home, folder] = find(asked);
    if (got_.parameter("token").value_or("") != "latest") {
        throw api_error(410, "resyncRequired", "Resync required");
    }
    const std::string here =
        "/drives/" + percent_encode(home->id()) + "/items/" + percent_encode(folder->id) + "/delta";
    json body = json::object();
    body.set("@odata.context", got_.origin + "/v1.0/$metadata#Collection(driveItem)")
        .set("@odata.deltaLink", got_.origin + "/v1.0" + here + "?token=now")
        .set("value", json::array());
    return json_response(200, body, got_, options_.chunked_json);
}

response graph_api::list_shared() const
{
    const field_set wanted = fields();
    std::vector<std::pair<const share *, const item *>> there;
    for (const share &entry : who_.shared) {
        if (const item *what = entry.home->find(entry.item_id)) {
            there.emplace_back(&entry, what);
        }
    }
    const json body = counted_page(
        got_, options_, fault_, there.size(), got_.origin + "/v1.0/$metadata#Collection(driveItem)",
        [&](size_t i) {
            return shared_resource(*there[i].first, *there[i].second, wanted, context_);
        });
    return json_response(200, body, got_, options_.chunked_json);
}

response graph_api::list_sites() const
{
    if (is_personal(who_.kind)) {
        throw api_error(400, "BadRequest", "This API is not supported for MSA accounts");
    }
    const field_set wanted = fields();
    const json body = counted_page(
        got_, options_, fault_, who_.followed.size(), got_.origin + "/v1.0/$metadata#sites",
        [&](size_t i) { return site_resource(*who_.followed[i], wanted); });
    return json_response(200, body, got_, options_.chunked_json);
}

response graph_api::list_drives(const std::vector<drive *> &drives,
                                const std::string &context) const
{
    const field_set wanted = fields();
    const json body = counted_page(got_, options_, fault_, drives.size(),
                                   got_.origin + "/v1.0/$metadata#" + context,
                                   [&](size_t i) { return drive_resource(*drives[i], wanted); });
    return json_response(200, body, got_, options_.chunked_json);
}

response graph_api::answer(const route &asked)
{
    switch (asked.kind) {
    case request_kind::me:
        return ok(account_resource(owner_of(asked.drive)), "users/$entity");
    case request_kind::drives: {
        drive &own = drive_of(asked.drive);
        if (all_.access_to(who_, own) != world::access::full) {
            throw api_error(403, "accessDenied", "Access denied");
        }
        return list_drives({&own}, "drives");
    }
    case request_kind::drive: {
        drive &shown = drive_of(asked.drive);
        if (all_.access_to(who_, shown) == world::access::none) {
            throw api_error(403, "accessDenied", "Access denied");
        }
        return ok(drive_resource(shown, fields()), "drives/$entity");
    }
    case request_kind::item:
        return show_item(asked);
    case request_kind::listing:
        return list_children(asked);
    case request_kind::changes:
        return list_changes(asked);
    case request_kind::content:
        return redirect(asked);
    case request_kind::shared:
        return list_shared();
    case request_kind::sites:
        return list_sites();
    case request_kind::site:
        return ok(site_resource(site_of(asked.drive), fields()), "sites/$entity");
    case request_kind::libraries:
        return list_drives(site_of(asked.drive).libraries, "drives");
    default:
        throw api_error(501, "notSupported", "Operation not supported");
    }
}

} // namespace graph_sim
