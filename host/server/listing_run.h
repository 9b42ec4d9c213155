/*
 * Makes the lines of LIST, NLST, MLSD and STAT of a path, as the storage delivers the items.  On
 * the operation thread.
 */
#ifndef TIRVAL_SERVER_LISTING_RUN_H
#define TIRVAL_SERVER_LISTING_RUN_H

#include "failure.h"
#include "listing.h"
#include "storage_session.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tirval::server {

enum class listing_style_t {
    long_lines, /* as `ls -l` */
    names,      /* as the client can hand them back */
    facts       /* as MLSD */
};

struct listing_request_t {
    listing_style_t style = listing_style_t::long_lines;
    std::string path;     /* canonical; with wildcards in its last name, where the style has them */
    std::string argument; /* the path as the client wrote it; empty: none was given */
    fact_set_t facts;
    owner_names_t owners;
};

struct listing_result_t {
    std::optional<failure_t> failure;
    bool is_folder = false; /* what was listed, not what was found in it */
};

/* Takes a line without its end.  To stop the listing it cancels the operation. */
using line_sink_t = std::function<void(std::string_view line)>;

/*
 * Lists a folder's children, or the one item where the path is no folder.  MLSD of what is no
 * folder fails with 501.  Where nothing has the path's literal name, wildcards (* ? [) in its last
 * name are matched against the names in its folder; no match is a failure.  Lines may come before a
 * failure.
 */
listing_result_t run_listing(storage_session_t &storage, const listing_request_t &request,
                             const line_sink_t &sink);

} // namespace tirval::server

#endif
