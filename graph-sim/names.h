// The names that items may have, and where the rules differ between the stores.
#pragma once

#include "item_store.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace graph_sim {

// True for a name that an item of a seed or an imported folder may have: UTF-8, not empty, "." or
// "..", no control characters and none of "*:<>?/\|, no blank at either end, no dot at the end.
bool is_legal_name(std::string_view name);

// The longest name and the longest path (without the leading slash), in UTF-16 code units.
inline constexpr std::size_t longest_name = 255;
inline constexpr std::size_t longest_path = 400;

// The length of well-formed UTF-8 in UTF-16 code units.
std::size_t utf16_length(std::string_view text);

// Refuses a name for an item that comes into a folder, by being made, renamed or moved: what
// is_legal_name() refuses, the names that the service keeps for itself (CON, .lock, desktop.ini,
// ~$..., ..._vti_..., "forms" at a library's root, folders ~... in work stores), and what is too
// long.  `folder_path` is "" for the root, else "/a/b".  `below` is the length that the longest
// path below the item adds to its own, 0 for a new one.  Throws api_error 400 in the words of the
// drive's store.  Does not look for another item of that name.
void check_name(const drive &home, const std::string &folder_path, std::string_view name,
                bool folder, std::size_t below = 0);
inline void check_name(const drive &home, const item &parent, std::string_view name, bool folder,
                       std::size_t below = 0)
{
    check_name(home, drive::path_of(parent), name, folder, below);
}

// That length for a folder that is there: "/a/b" of the longest path below it.
std::size_t longest_below(const item &folder);

} // namespace graph_sim
