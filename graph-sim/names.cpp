// Judging names.
#include "names.h"

#include "http.h"

#include <algorithm>
#include <array>

namespace graph_sim {

namespace {

bool is_forbidden(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F ||
           std::string_view("\"*:<>?/\\|").find(c) != std::string_view::npos;
}

// Devices of Windows, whatever extension follows.
bool is_device_name(std::string_view lower)
{
    const std::string_view stem = lower.substr(0, lower.find('.'));
    if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul") {
        return true;
    }
    return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) &&
           stem[3] >= '0' && stem[3] <= '9';
}

bool is_reserved(const drive &home, bool at_root, std::string_view name, bool folder)
{
    const std::string lower = to_lower(name);
    if (lower == ".lock" || lower == "desktop.ini" || lower.starts_with("~$") ||
        lower.find("_vti_") != std::string::npos || is_device_name(lower)) {
        return true;
    }
    if (is_personal(home.kind())) {
        return false;
    }
    return (folder && lower.starts_with('~')) || (at_root && lower == "forms");
}

[[noreturn]] void refuse_characters(const drive &home, const std::string &folder_path,
                                    std::string_view name)
{
    if (!is_personal(home.kind())) {
        throw api_error(400, "invalidRequest",
                        "The provided name cannot contain any illegal characters.");
    }
    const char *which = name.starts_with(' ')                        ? "invalid leading character."
                        : name.ends_with(' ') || name.ends_with('.') ? "invalid trailing character."
                                                                     : "invalid characters.";
    throw api_error(400, "invalidRequest",
                    "Path (" + folder_path + "/" + std::string(name) + ") contains " + which,
                    "nameContainsInvalidCharacters");
}

[[noreturn]] void refuse_length(const drive &home)
{
    if (is_personal(home.kind())) {
        throw api_error(400, "invalidRequest", "Parameter Exceeds Maximum Length",
                        "parameterIsTooLong");
    }
    throw api_error(400, "invalidRequest", "The provided path is too long.", "pathIsTooLong");
}

} // namespace

bool is_legal_name(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && is_utf8(name) &&
           std::ranges::none_of(name, is_forbidden) && name.front() != ' ' && name.back() != ' ' &&
           name.back() != '.';
}

std::size_t utf16_length(std::string_view text)
{
    std::size_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        // A code point counts by its first byte; those of four bytes are surrogate pairs.
        units += (byte & 0xC0) == 0x80 ? 0 : byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

std::size_t longest_below(const item &folder)
{
    std::size_t longest = 0;
    for (const auto &[key, child] : folder.children) {
        longest = std::max(longest, 1 + utf16_length(child->name) + longest_below(*child));
    }
    return longest;
}

void check_name(const drive &home, const std::string &folder_path, std::string_view name,
                bool folder, std::size_t below)
{
    if (name.empty()) {
        bad_argument();
    }
    if (!is_legal_name(name)) {
        refuse_characters(home, folder_path, name);
    }
    if (is_reserved(home, folder_path.empty(), name, folder)) {
        throw api_error(400, "invalidRequest", "One of the provided arguments is not acceptable.",
                        is_personal(home.kind()) ? "nameContainsInvalidCharacters" : "");
    }
    // The slash before the name counts, the one at the start of the path does not.
    const std::size_t above = utf16_length(folder_path);
    const std::size_t own = utf16_length(name);
    if (own > longest_name || above + own + below > longest_path) {
        refuse_length(home);
    }
}

} // namespace graph_sim
