// Requests that change items: creating folders, renaming, moving, updating and deleting; and the
// steps that these share with uploads.
#pragma once

#include "faults.h"
#include "http.h"
#include "json.h"
#include "names.h"
#include "resources.h"
#include "routing.h"
#include "settings.h"
#include "world.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

class upload_session_store;

// What a request that changes something works with.  All borrowed for the length of the request;
// the service's lock is held.
struct write_context {
    world &all;
    const settings &options;
    const request &got;
    account &who;
    const resource_context &resources; // `now` is the request's time
    upload_session_store &sessions;
};

// Where an address leads: the item that is there, or the deepest one on the way and what is missing
// below it.
struct write_target {
    drive *home = nullptr;
    item *last = nullptr;             // the item itself when `missing` is empty
    std::vector<std::string> missing; // names from `last` down to the addressed item

    // The addressed item, or null.
    [[nodiscard]] item *there() const { return missing.empty() ? last : nullptr; }
};

// Finds where an address leads and makes sure that the account may write there and that nothing
// there is locked.  Throws api_error: 403 for a drive or share without that right, 404 for an id
// that is not there or not seen, 423 for a lock.  Names that are missing are not judged.
write_target find_target(const write_context &context, const route &asked);

// The same, and 404 when the addressed item is not there.
item &needed_item(const write_target &target);

// Makes the missing folders above the addressed item and returns its folder; afterwards `missing`
// holds the item's own name alone.  Only for targets whose item is missing.  All names are judged
// before the first folder is made, the last one as a file's: 400 for one that is not allowed; 409
// when a file is in the way.  Folders take no space.
item &make_parents(const write_context &context, write_target &target);

// Refuses with 507 when `more` bytes do not fit into the drive's quota.
void require_space(const drive &home, std::uint64_t more);

// Refuses with 412 when If-Match names neither of the item's tags ("*" fits every item).
void require_match(const write_context &context, const drive &home, const item &what);

// What happens when a name is taken.
enum class conflict { absent, fail, rename, replace };
// From "@microsoft.graph.conflictBehavior" (or the older "@name.conflictBehavior") of an object
// and of the query; 400 for other values.
conflict conflict_of(const json &object);
conflict conflict_of(const request &got);

// 409 nameAlreadyExists.
[[noreturn]] void name_taken();

// "name 1.ext", the first number that is free in the folder.
std::string free_name(const item &parent, const std::string &name, bool folder);

// The body as a JSON object; 400 for anything else.  An empty body is an empty object where
// `may_be_empty`.
json body_object(const request &got, bool may_be_empty = false);

// Client times: those of a "fileSystemInfo" object laid over `times`, cut to what the drive keeps.
// 400 for what is not a time.  `info` may be absent or null.
item_times with_client_times(item_times times, const json &info, flavour kind);

// The full item as an answer; 201 carries Location.
response item_answer(const write_context &context, unsigned status, const drive &home,
                     const item &shown);

// POST children, PATCH, DELETE and permanentDelete.
response create_folder(const write_context &context, const route &asked);
response update_item(const write_context &context, const route &asked);
response delete_item(const write_context &context, const route &asked);

} // namespace graph_sim
