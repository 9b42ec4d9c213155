// Answering Graph requests.
#include "graph_api.h"

#include "delta.h"
#include "errors.h"
#include "pages.h"
#include "upload_sessions.h"
#include "uploads.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace graph_sim {

namespace {

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

// The children of a folder in the order that $orderby asks for; equal ones by name.
std::vector<const item *> sorted_children(const item &folder, const std::string &order)
{
    const size_t blank = std::min(order.find(' '), order.size());
    const std::string_view field = std::string_view(order).substr(0, blank);
    const std::string_view direction = std::string_view(order).substr(blank);
    const bool known = field == "name" || field == "size" || field == "lastModifiedDateTime";
    if (!known || (!direction.empty() && direction != " asc" && direction != " desc")) {
        throw api_error(400, "invalidRequest", "The $orderby query option is not supported.",
                        "invalidQueryOption");
    }
    std::vector<const item *> sorted;
    sorted.reserve(folder.children.size());
    for (const auto &[key, child] : folder.children) {
        sorted.push_back(child); // by name already
    }
    if (direction == " desc") {
        std::ranges::reverse(sorted);
    }
    const auto earlier = [&](const item *a, const item *b) {
        const item *const first = direction == " desc" ? b : a;
        const item *const second = direction == " desc" ? a : b;
        return field == "size" ? first->size < second->size
                               : first->times.modified < second->times.modified;
    };
    if (field != "name") {
        std::ranges::stable_sort(sorted, earlier);
    }
    return sorted;
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
                     const std::string &download_origin, upload_session_store &sessions)
    : all_(all), options_(options), got_(got), who_(who), fault_(fault),
      where_(all, who), context_{links, options, download_origin, wall_clock()},
      writing_{all, options, got, who, context_, sessions}
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

bool graph_api::unchanged(const item &what, flavour kind) const
{
    const std::string *tag = got_.headers.find("If-None-Match");
    return tag != nullptr && (*tag == what.etag(kind) || *tag == what.ctag(kind));
}

// An item, with what is in it where $expand asks for that.
json graph_api::shown_item(const drive &home, const item &shown, const field_set &wanted) const
{
    json made = item_resource(home, shown, wanted, context_);
    if (!shown.folder || got_.parameter("$expand") != "children") {
        return made;
    }
    json children = json::array();
    for (const auto &[key, child] : shown.children) {
        if (json_array_size(children.get()) == options_.default_page) {
            made.set("children@odata.nextLink",
                     got_.origin + "/v1.0/drives/" + percent_encode(home.id()) + "/items/" +
                         percent_encode(shown.id) + "/children?$skiptoken=" +
                         percent_encode(skip_token(std::prev(shown.children.find(key))->first)));
            break;
        }
        children.append(item_resource(home, *child, field_set(), context_));
    }
    made.set("children", children);
    return made;
}

response graph_api::show_item(const route &asked) const
{
    const auto [home, what] = where_.find(asked);
    if (unchanged(*what, home->kind())) {
        return empty_response(304);
    }
    return ok(shown_item(*home, *what, fields()),
              "drives('" + percent_encode(home->id()) + "')/items/$entity");
}

response graph_api::redirect(const route &asked) const
{
    const auto [home, what] = where_.find(asked);
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
    const auto found = where_.find(asked);
    const auto *const home = found.home;
    const auto *const folder = found.what;
    if (unchanged(*folder, home->kind())) {
        return empty_response(304);
    }
    const std::string context = got_.origin + "/v1.0/$metadata#drives('" +
                                percent_encode(home->id()) + "')/items('" +
                                percent_encode(folder->id) + "')/children";
    const field_set wanted = fields();
    if (const auto order = got_.parameter("$orderby")) {
        const std::vector<const item *> sorted = sorted_children(*folder, *order);
        const json body =
            counted_page(got_, options_, fault_, sorted.size(), context,
                         [&](size_t i) { return shown_item(*home, *sorted[i], wanted); });
        return json_response(200, body, got_, options_.chunked_json);
    }
    const page_request page(got_, options_, fault_);
    page_writer writer(got_, page, fault_);
    const auto &children = folder->children;
    for (auto at = page.after ? children.upper_bound(*page.after) : children.begin();
         at != children.end(); ++at) {
        if (writer.full()) {
            writer.more();
            break;
        }
        writer.add(at->first, shown_item(*home, *at->second, wanted));
    }
    return json_response(200, writer.finish(context), got_, options_.chunked_json);
}

response graph_api::list_changes(const route &asked) const
{
    const auto [home, folder] = where_.find(asked);
    return answer_delta(got_, options_, fault_, *home, *folder, fields(), context_);
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
        return ok(account_resource(where_.owner_of(asked.drive)), "users/$entity");
    case request_kind::drives: {
        drive &own = where_.drive_of(asked.drive);
        if (all_.access_to(who_, own) != world::access::full) {
            throw api_error(403, "accessDenied", "Access denied");
        }
        return list_drives({&own}, "drives");
    }
    case request_kind::drive: {
        drive &shown = where_.drive_of(asked.drive);
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
        return ok(site_resource(where_.site_of(asked.drive), fields()), "sites/$entity");
    case request_kind::libraries:
        return list_drives(where_.site_of(asked.drive).libraries, "drives");
    case request_kind::create:
        return create_folder(writing_, asked);
    case request_kind::update:
        return update_item(writing_, asked);
    case request_kind::remove:
        return delete_item(writing_, asked);
    case request_kind::upload:
        return put_content(writing_, asked);
    case request_kind::upload_session:
        return create_upload_session(writing_, asked);
    default:
        throw api_error(501, "notSupported", "Operation not supported");
    }
}

} // namespace graph_sim
