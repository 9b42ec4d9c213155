/*
 * Lexical work on paths; nothing here asks whether anything exists.
 */
#include "vpath.h"

#include <algorithm>

namespace tirval::server {
namespace {

constexpr std::string_view forbidden_bytes{"\0\r\n", 3};

/* Enters one component into a canonical path. */
void walk(std::string &path, std::string_view component)
{
    if (component.empty() || component == ".") {
        return;
    }
    path = component == ".." ? parent_path(path) : child_path(path, component);
}

} // namespace

std::optional<std::string> resolve_path(std::string_view cwd, std::string_view argument)
{
    if (argument.find_first_of(forbidden_bytes) != std::string_view::npos) {
        return std::nullopt;
    }
    std::string path(argument.starts_with('/') ? "/" : cwd);
    std::string_view rest = argument;
    while (!rest.empty()) {
        const std::size_t slash = std::min(rest.find('/'), rest.size());
        walk(path, rest.substr(0, slash));
        rest.remove_prefix(std::min(slash + 1, rest.size()));
    }
    return path;
}

std::string parent_path(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string_view::npos ? "/" : std::string(path.substr(0, slash));
}

std::string_view base_name(std::string_view path)
{
    return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

std::string child_path(std::string_view folder, std::string_view name)
{
    std::string path(folder);
    if (path != "/") {
        path += '/';
    }
    path += name;
    return path;
}

bool is_plain_name(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos &&
           name.find_first_of(forbidden_bytes) == std::string_view::npos;
}

bool is_canonical_path(std::string_view path)
{
    if (path == "/") {
        return true;
    }
    if (!path.starts_with('/')) {
        return false;
    }
    std::string_view rest = path.substr(1);
    for (;;) {
        const std::size_t slash = rest.find('/');
        if (!is_plain_name(rest.substr(0, slash))) {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        rest.remove_prefix(slash + 1);
    }
}

bool has_wildcards(std::string_view text)
{
    return text.find_first_of("*?[") != std::string_view::npos;
}

} // namespace tirval::server
