// What a request asks for, read from its method and target alone.
#pragma once

#include "http.h"

#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

// The kinds of request, by which fault rules match and the record tells requests apart.
enum class request_kind {
    me,             // GET /me
    drives,         // GET /me/drives, /users/{u}/drives
    drive,          // GET one drive
    item,           // GET one item
    listing,        // GET children
    changes,        // GET delta
    content,        // GET content: the redirect
    download,       // GET the pre-authenticated address
    shared,         // GET sharedWithMe
    sites,          // GET followedSites
    site,           // GET one site
    libraries,      // GET a site's drives
    create,         // POST children
    update,         // PATCH an item
    remove,         // DELETE an item
    upload,         // PUT content
    upload_session, // POST createUploadSession
    fragment,       // PUT to an upload address
    upload_status,  // GET, DELETE and POST of an upload address
    token,          // POST a token endpoint
    device_code,    // POST a device code endpoint
    control,        // /__sim/
    other,
};

std::string_view kind_name(request_kind kind);
// The kind of that name; false when there is none.
bool kind_by_name(std::string_view name, request_kind &kind);

// Which drive an address means.
struct drive_address {
    enum class by { me, user, id, site } how = by::me;
    std::string value; // the user, drive or site; a site by its address as "hostname:/path"
};

// Which item of the drive: one by id or the root, and a path down from there.
struct item_address {
    std::string id = "root";
    std::vector<std::string> path;
    bool by_path = false;
};

struct route {
    request_kind kind = request_kind::other;
    drive_address drive;
    item_address item;
};

// Reads the address of a request below "/v1.0".  `path` is the target without its query: it is
// decoded exactly once and only then split at "/", so that "a%2Fb" names b in a.
// Throws api_error for what the service would refuse before it looks at any drive.
route parse_route(std::string_view method, std::string_view path);

} // namespace graph_sim
