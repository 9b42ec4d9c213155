// Telling what has changed in a drive.
#include "delta.h"

#include "errors.h"
#include "pages.h"

#include <algorithm>
#include <charconv>

namespace graph_sim {

namespace {

std::optional<std::uint64_t> read_number(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(number)
                                                                    : std::nullopt;
}

// The place in the history for which a token stands; null for one of another run of the service.
std::optional<std::uint64_t> place_of(const drive &home, std::string_view token)
{
    const std::string start = home.history_id() + ".";
    if (!token.starts_with(start)) {
        return std::nullopt;
    }
    const auto place = read_number(token.substr(start.size()));
    return place && *place <= home.last_change() ? place : std::nullopt;
}

std::string feed_address(const request &got, const drive &home, const item &folder)
{
    return got.origin + "/v1.0/drives/" + percent_encode(home.id()) + "/items/" +
           percent_encode(folder.id) + "/delta";
}

response begin_anew(const request &got, const std::string &address)
{
    response reply = error_response(
        api_error(410, "resyncRequired", "Resync required.", "resyncChangesApplyDifferences"), got);
    reply.headers.add("Location", address);
    return reply;
}

bool lies_below(const item &what, const item &folder)
{
    const item *at = &what;
    while (at != nullptr && at != &folder) {
        at = at->parent;
    }
    return at != nullptr;
}

json entry_of(const drive &home, const item &shown, const field_set &fields,
              const resource_context &context)
{
    json made = item_resource(home, shown, fields, context);
    made.set("@odata.type", "#microsoft.graph.driveItem");
    // The feed names the folder without its path.
    json_object_del(json_object_get(made.get(), "parentReference"), "path");
    return made;
}

json entry_of(const drive &home, const tombstone &gone)
{
    json parent = json::object();
    parent.set("driveType", drive_type(home.kind()))
        .set("driveId", home.id())
        .set("id", gone.above.front());
    json state = json::object();
    state.set("state", "deleted");
    json made = json::object();
    made.set("@odata.type", "#microsoft.graph.driveItem").set("id", gone.id);
    if (is_personal(home.kind())) {
        made.set("name", gone.name);
    } else {
        made.set("size", json::integer(std::uint64_t{0}));
    }
    made.set("parentReference", parent).set("deleted", state);
    return made;
}

// True for an entry that belongs into the feed of a folder.
bool is_told(const change &entry, const item &folder, bool tell_deleted)
{
    if (entry.there != nullptr) {
        return lies_below(*entry.there, folder);
    }
    const std::vector<std::string> &above = entry.gone->above;
    return tell_deleted && std::ranges::find(above, folder.id) != above.end();
}

} // namespace

response answer_delta(const request &got, const settings &options, const fault_action *fault,
                      const drive &home, const item &folder, const field_set &fields,
                      const resource_context &context)
{
    const std::string address = feed_address(got, home, folder);
    const auto token = got.parameter("token");
    const auto since = token == "latest" ? home.last_change() : place_of(home, token.value_or(""));
    if (token && !since) {
        return begin_anew(got, address);
    }
    const page_request page(got, options, fault);
    page_writer writer(got, page, fault);
    const auto done = page.after ? read_number(*page.after) : std::nullopt;
    // Whoever starts from nothing need not hear of what went before.
    const bool tell_deleted = token || page.after;
    bool finished = true;
    for (const change &entry : home.changes_after(std::max(since.value_or(0), done.value_or(0)))) {
        if (!is_told(entry, folder, tell_deleted)) {
            continue;
        }
        if (writer.full()) {
            writer.more();
            finished = false;
            break;
        }
        writer.add(std::to_string(entry.sequence),
                   entry.there != nullptr ? entry_of(home, *entry.there, fields, context)
                                          : entry_of(home, *entry.gone));
    }
    json body = writer.finish(got.origin + "/v1.0/$metadata#Collection(driveItem)");
    if (finished) {
        body.set("@odata.deltaLink", address + "?token=" + home.history_id() + "." +
                                         std::to_string(home.last_change()));
    }
    return json_response(200, body, got, options.chunked_json);
}

} // namespace graph_sim
