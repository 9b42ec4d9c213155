// The change feed of a drive (driveItem: delta).
#pragma once

#include "faults.h"
#include "http.h"
#include "resources.h"
#include "settings.h"

namespace graph_sim {

// Answers GET delta of a folder.  Without "token" everything that is there, with "token=latest"
// nothing but the link from which changes count, with a token of such a link what has changed
// since: items as they are now, and "deleted" entries.  410 with a Location to begin anew for any
// other token.  The feed of a folder other than the root does not tell what has been moved out of
// it.
response answer_delta(const request &got, const settings &options, const fault_action *fault,
                      const drive &home, const item &folder, const field_set &fields,
                      const resource_context &context);

} // namespace graph_sim
