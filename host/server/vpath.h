/*
 * Paths of the virtual tree as clients write them, and their canonical form: absolute, components
 * separated by single "/", none of them empty, "." or "..", no "/" at the end but for the root.
 * Only canonical paths reach a storage.  Names are bytes: nothing is converted.  Pure functions.
 */
#ifndef TIRVAL_SERVER_VPATH_H
#define TIRVAL_SERVER_VPATH_H

#include <optional>
#include <string>
#include <string_view>

namespace tirval::server {

/*
 * The canonical path that `argument` means, seen from `cwd` (canonical).  An empty argument is
 * `cwd`; ".." in the root stays there.  Nothing when the path holds NUL, CR or LF, which no name
 * may hold.
 */
std::optional<std::string> resolve_path(std::string_view cwd, std::string_view argument);

/* The folder that holds a canonical path; "/" for the root itself. */
std::string parent_path(std::string_view path);

/* A canonical path's last component; "/" for the root. */
std::string_view base_name(std::string_view path);

/* The canonical path of `name` in the folder `folder`. */
std::string child_path(std::string_view folder, std::string_view name);

bool is_canonical_path(std::string_view path);

/* Whether the name could be a component of a canonical path. */
bool is_plain_name(std::string_view name);

/* Whether the text holds one of the wildcards * ? [. */
bool has_wildcards(std::string_view text);

} // namespace tirval::server

#endif
