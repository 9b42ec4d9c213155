/*
 * The top of the tree as the storage shows it: "/My files", "/Shared/ITEM" and
 * "/Shared libraries/SITE/LIBRARY".
 */
#include "path_rules.h"

#include "reply.h"
#include "utf8.h"
#include "vpath.h"

#include <algorithm>

namespace tirval::server {
namespace {

constexpr std::string_view shared = "/Shared/";
constexpr std::string_view libraries = "/Shared libraries/";

bool is_control(char byte)
{
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7F;
}

place_t place_in_libraries(std::string_view below)
{
    switch (std::count(below.begin(), below.end(), '/')) {
    case 0:
        return place_t::site;
    case 1:
        return place_t::library;
    default:
        return place_t::library_item;
    }
}

} // namespace

place_t place_of(std::string_view path)
{
    if (path == "/") {
        return place_t::root;
    }
    if (parent_path(path) == "/") {
        return place_t::virtual_folder;
    }
    if (path.starts_with(libraries)) {
        return place_in_libraries(path.substr(libraries.size()));
    }
    const bool is_share =
        path.starts_with(shared) && path.find('/', shared.size()) == std::string_view::npos;
    return is_share ? place_t::shared_item : place_t::item;
}

bool is_fixed_place(std::string_view path)
{
    switch (place_of(path)) {
    case place_t::root:
    case place_t::virtual_folder:
    case place_t::site:
    case place_t::library:
        return true;
    case place_t::library_item:
    case place_t::shared_item:
    case place_t::item:
        break;
    }
    return false;
}

std::optional<std::string> refuse_new_path(const std::string &path)
{
    if (parent_path(path) == "/") {
        return single_reply(550, "Nothing can be made directly in \"/\": " + path);
    }
    const std::string_view name = base_name(path);
    if (!is_utf8(name)) {
        return single_reply(553, "The name is not UTF-8: " + path);
    }
    if (std::any_of(name.begin(), name.end(), is_control)) {
        return single_reply(553, "The name holds control characters: " + path);
    }
    return std::nullopt;
}

/*
 * Without "a": nothing can be appended to a file.  Without "d" and "p" in libraries, where the
 * storage deletes nothing.  What is shared belongs to somebody else, who alone can delete or
 * replace it as a whole.
 */
std::string_view permissions_of(std::string_view path, bool is_folder)
{
    switch (place_of(path)) {
    case place_t::root:
    case place_t::site:
        return "el";
    case place_t::virtual_folder:
        return path == "/My files" ? "celmp" : "el";
    case place_t::library:
        return "celm";
    case place_t::library_item:
        return is_folder ? "ceflm" : "frw";
    case place_t::shared_item:
        return is_folder ? "ceflmp" : "fr";
    case place_t::item:
        break;
    }
    return is_folder ? "cdeflmp" : "dfrw";
}

} // namespace tirval::server
