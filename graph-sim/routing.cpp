// Reading addresses.
#include "routing.h"

#include <algorithm>
#include <array>
#include <span>

namespace graph_sim {

namespace {

struct kind_entry {
    request_kind kind;
    std::string_view name;
};

constexpr std::array kinds{
    kind_entry{request_kind::me, "me"},
    kind_entry{request_kind::drives, "drives"},
    kind_entry{request_kind::drive, "drive"},
    kind_entry{request_kind::item, "item"},
    kind_entry{request_kind::listing, "listing"},
    kind_entry{request_kind::changes, "changes"},
    kind_entry{request_kind::content, "content"},
    kind_entry{request_kind::download, "download"},
    kind_entry{request_kind::shared, "shared"},
    kind_entry{request_kind::sites, "sites"},
    kind_entry{request_kind::site, "site"},
    kind_entry{request_kind::libraries, "libraries"},
    kind_entry{request_kind::create, "create"},
    kind_entry{request_kind::update, "update"},
    kind_entry{request_kind::remove, "remove"},
    kind_entry{request_kind::upload, "upload"},
    kind_entry{request_kind::upload_session, "upload_session"},
    kind_entry{request_kind::fragment, "fragment"},
    kind_entry{request_kind::upload_status, "upload_status"},
    kind_entry{request_kind::token, "token"},
    kind_entry{request_kind::device_code, "device_code"},
    kind_entry{request_kind::control, "control"},
    kind_entry{request_kind::other, "other"},
};

using segments = std::span<const std::string>;

[[noreturn]] void no_segment(const std::string &segment)
{
    throw api_error(400, "BadRequest", "Resource not found for the segment '" + segment + "'.");
}

// The part of an address in path space and the resource asked for behind it.
struct path_part {
    std::vector<std::string> path;
    std::string tail; // "", "children", "content", ...
    bool present = false;
};

std::vector<std::string> split_item_path(std::string_view path)
{
    std::vector<std::string> names;
    std::vector<std::string> parts = split(path, '/');
    // What stands before the first "/" is empty, and so is what follows a last one.
    parts.erase(parts.begin());
    if (!parts.empty() && parts.back().empty()) {
        parts.pop_back();
    }
    for (std::string &part : parts) {
        if (part.empty() || part == "..") {
            bad_argument();
        }
        if (part != ".") {
            names.push_back(std::move(part));
        }
    }
    return names;
}

// Reads "/a/b", "/a/b:" and "/a/b:/children", which is what follows the first colon.
path_part read_path_part(std::string_view text)
{
    if (!text.starts_with('/')) {
        no_segment("root:");
    }
    const size_t colon = text.find(':');
    path_part part;
    part.present = true;
    part.path = split_item_path(text.substr(0, colon));
    if (colon == std::string_view::npos) {
        return part;
    }
    std::string_view tail = text.substr(colon + 1);
    if (tail.find(':') != std::string_view::npos) {
        throw api_error(400, "invalidRequest", "Paths can only contain at most two colons");
    }
    if (!tail.empty() && !tail.starts_with('/')) {
        no_segment(std::string(tail));
    }
    part.tail = tail.empty() ? tail : tail.substr(1);
    return part;
}

request_kind kind_of_item_request(std::string_view method, const std::string &resource)
{
    struct row {
        std::string_view resource, method;
        request_kind kind;
    };
    static constexpr std::array rows{
        row{"", "GET", request_kind::item},
        row{"", "PATCH", request_kind::update},
        row{"", "DELETE", request_kind::remove},
        row{"children", "GET", request_kind::listing},
        row{"children", "POST", request_kind::create},
        row{"delta", "GET", request_kind::changes},
        row{"content", "GET", request_kind::content},
        row{"content", "PUT", request_kind::upload},
        row{"createUploadSession", "POST", request_kind::upload_session},
        row{"permanentDelete", "POST", request_kind::remove},
    };
    bool known = false;
    for (const row &candidate : rows) {
        if (candidate.resource == resource) {
            known = true;
            if (candidate.method == method) {
                return candidate.kind;
            }
        }
    }
    if (known) {
        throw api_error(405, "BadRequest",
                        "Specified HTTP method is not allowed for the request target.");
    }
    no_segment(resource);
}

// What follows a drive: nothing, or an item with a path and a resource.
route read_below_drive(std::string_view method, drive_address drive, segments rest, path_part part)
{
    route found;
    found.drive = std::move(drive);
    if (rest.empty() && !part.present) {
        found.kind = request_kind::drive;
        return found;
    }
    if (rest.empty()) {
        no_segment(part.path.empty() ? "" : part.path.front());
    }
    size_t used = 1;
    if (rest[0] == "items") {
        if (rest.size() < 2 || rest[1].empty()) {
            throw api_error(400, "invalidRequest", "The 'filter' query option must be provided.");
        }
        found.item.id = rest[1];
        used = 2;
    } else if (rest[0] == "sharedWithMe" && rest.size() == 1 && !part.present) {
        found.kind = request_kind::shared;
        return found;
    } else if (rest[0] != "root") {
        no_segment(rest[0]);
    }
    const segments resource = rest.subspan(used);
    if (resource.size() > 1 || (part.present && !resource.empty())) {
        no_segment(resource.back());
    }
    found.item.by_path = part.present;
    found.item.path = std::move(part.path);
    found.kind = kind_of_item_request(method, resource.empty() ? part.tail : resource.front());
    return found;
}

route read_below_owner(std::string_view method, drive_address owner, segments rest, path_part part)
{
    if (rest.empty()) {
        return {.kind = request_kind::me, .drive = std::move(owner), .item = {}};
    }
    if (rest[0] == "drives" && rest.size() == 1) {
        return {.kind = request_kind::drives, .drive = std::move(owner), .item = {}};
    }
    if (rest[0] == "followedSites" && rest.size() == 1) {
        return {.kind = request_kind::sites, .drive = std::move(owner), .item = {}};
    }
    if (rest[0] != "drive") {
        no_segment(rest[0]);
    }
    return read_below_drive(method, std::move(owner), rest.subspan(1), std::move(part));
}

route read_site(std::string_view method, segments rest, path_part part)
{
    if (rest.empty()) {
        no_segment("sites");
    }
    drive_address address{drive_address::by::site, rest[0]};
    std::vector<std::string> below(rest.begin() + 1, rest.end());
    if (part.present && below.empty()) {
        // "/sites/hostname:/sites/name:/drives": the path names the site, not an item.
        address.value += ":";
        for (const std::string &name : part.path) {
            address.value += "/" + name;
        }
        if (!part.tail.empty()) {
            below = split(part.tail, '/');
        }
        part = {};
    }
    if (below.empty()) {
        return {.kind = request_kind::site, .drive = std::move(address), .item = {}};
    }
    if (below[0] == "drives" && below.size() == 1) {
        return {.kind = request_kind::libraries, .drive = std::move(address), .item = {}};
    }
    if (below[0] != "drive") {
        no_segment(below[0]);
    }
    return read_below_drive(method, std::move(address), segments(below).subspan(1),
                            std::move(part));
}

void require_get(std::string_view method, request_kind kind)
{
    static constexpr std::array read_only{
        request_kind::me,    request_kind::drives, request_kind::drive,    request_kind::shared,
        request_kind::sites, request_kind::site,   request_kind::libraries};
    if (method != "GET" && std::ranges::find(read_only, kind) != read_only.end()) {
        throw api_error(405, "BadRequest",
                        "Specified HTTP method is not allowed for the request target.");
    }
}

route read_address(std::string_view method, segments head, path_part part)
{
    if (head[0] == "me") {
        return read_below_owner(method, {}, head.subspan(1), std::move(part));
    }
    if (head[0] == "users" && head.size() > 1) {
        return read_below_owner(method, {drive_address::by::user, head[1]}, head.subspan(2),
                                std::move(part));
    }
    if (head[0] == "drives" && head.size() > 1) {
        return read_below_drive(method, {drive_address::by::id, head[1]}, head.subspan(2),
                                std::move(part));
    }
    if (head[0] == "sites") {
        return read_site(method, head.subspan(1), std::move(part));
    }
    no_segment(head[0]);
}

} // namespace

std::string_view kind_name(request_kind kind)
{
    return std::ranges::find(kinds, kind, &kind_entry::kind)->name;
}

bool kind_by_name(std::string_view name, request_kind &kind)
{
    const auto *const found = std::ranges::find(kinds, name, &kind_entry::name);
    if (found != kinds.end()) {
        kind = found->kind;
    }
    return found != kinds.end();
}

route parse_route(std::string_view method, std::string_view path)
{
    const auto decoded = percent_decode(path);
    if (!decoded || !is_utf8(*decoded)) {
        throw api_error(400, "BadRequest", "The request URI is not valid.");
    }
    std::string_view rest = *decoded;
    if (!rest.starts_with("/v1.0/")) {
        throw api_error(400, "BadRequest", "Invalid version.");
    }
    rest.remove_prefix(6);
    const size_t colon = rest.find(':');
    path_part part;
    if (colon != std::string_view::npos) {
        part = read_path_part(rest.substr(colon + 1));
    }
    std::vector<std::string> head = split(rest.substr(0, colon), '/');
    if (head.size() > 1 && head.back().empty()) {
        head.pop_back();
    }
    route found = read_address(method, head, std::move(part));
    require_get(method, found.kind);
    return found;
}

} // namespace graph_sim
