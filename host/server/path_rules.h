/*
 * What may be done with a path because of where it lies: the top of the tree is virtual, and what
 * hangs there is not the user's to make, rename or delete.  Decided from the path alone; whether
 * anything exists there is the storage's to say.  Pure functions.
 */
#ifndef TIRVAL_SERVER_PATH_RULES_H
#define TIRVAL_SERVER_PATH_RULES_H

#include <optional>
#include <string>
#include <string_view>

namespace tirval::server {

enum class place_t {
    root,           /* "/" */
    virtual_folder, /* directly in "/" */
    site,           /* directly below "/Shared libraries" */
    library,        /* a site's document library */
    library_item,   /* anything in a library */
    shared_item,    /* directly below "/Shared": what somebody shares with the user */
    item            /* anything in the user's own drive or in a shared folder */
};

/* Where a canonical path lies. */
place_t place_of(std::string_view path);

/* The root, virtual folders, sites and libraries: never renamed or deleted. */
bool is_fixed_place(std::string_view path);

/*
 * The reply that refuses to make an item at `path` (canonical), by MKD, RNTO or a store; nothing
 * when it may be tried.  550 directly in "/"; 553 for a name that is not UTF-8 or holds control
 * characters.
 */
std::optional<std::string> refuse_new_path(const std::string &path);

/* The perm fact (RFC 3659, section 7.5.5) of an existing item. */
std::string_view permissions_of(std::string_view path, bool is_folder);

} // namespace tirval::server

#endif
