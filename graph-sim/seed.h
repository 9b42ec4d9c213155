// What the service starts with: reading a seed file, importing a folder, and the built-in sample.
#pragma once

#include "faults.h"
#include "settings.h"
#include "tokens.h"
#include "world.h"

#include <string>
#include <string_view>

namespace graph_sim {

// Everything that a seed fills.
struct seed_target {
    world &all;
    token_store &tokens;
    settings &options;
    fault_set &faults;
};

// Reads a seed (docs/graph-sim-seed.schema.json).  `name` is what errors call it, and relative
// names of folders to import are relative to `folder`.  Throws input_error that names the place.
void read_seed(const json &seed, const std::string &name, const std::string &folder,
               seed_target target);

// Adds one item as a seed describes it ({"name":...,"text":...}), or the items of a "generate"
// entry, to a folder; children included.
void add_seeded_item(drive &home, item &parent, const json_t *described, const std::string &place,
                     const std::string &folder);

// The content that an entry describes by "text", "base64", or "size" and "pattern"; null when it
// describes none of them.
content_ptr seeded_content(object_reader &reader);

// Adds the files and folders below a directory on disk.  Names that are not UTF-8 or that the
// service does not allow, and everything that is neither a file nor a folder, are left out with a
// line on standard error.  Throws input_error when the directory cannot be read.
void import_folder(drive &home, item &parent, const std::string &directory);

// The sample service: see docs/graph-sim.md.
std::string_view sample_seed();
// A seed with the work account "alice" alone, whose drive is a directory on disk.
json import_seed(const std::string &directory);

} // namespace graph_sim
