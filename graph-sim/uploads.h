// Files from bytes that were received: simple uploads (PUT content), and the step that they share
// with upload sessions.
#pragma once

#include "changes.h"

#include <optional>

namespace graph_sim {

// Refuses with 412 when If-Match does not fit the item, or there is none (null).
void check_if_match(const write_context &context, const drive &home, const item *there);

// Refuses a simple upload by its head alone: 411 for one without a length, 413 for one that is too
// large; nothing when its body may come.  Both are pages of the gateway, not JSON.
std::optional<response> refuse_upload_head(const request &got, const settings &options);
// A page in the words of a gateway that never asked the service.
response gateway_page(unsigned status);

// Makes or replaces a file by the body of a PUT, which lies in the request's `data`.  Throws
// api_error.
response put_content(const write_context &context, const route &asked);

// Refuses the name of a file that is to be made where an address leads, missing folders counted.
void check_new_name(const write_target &target);

// What is to become a file.
struct new_file {
    std::string name;
    content_ptr data;
    conflict wanted = conflict::replace;
    json client_times; // "fileSystemInfo", may be absent
};

// Puts a file into a folder, or new bytes into the file of that name, and answers with the item:
// 201 for a new one, 200 for one that was there, which keeps its id.  Throws api_error 409 when the
// name is taken by a folder, or taken at all and `wanted` is fail.
response store_file(const write_context &context, drive &home, item &parent, const new_file &file);

} // namespace graph_sim
