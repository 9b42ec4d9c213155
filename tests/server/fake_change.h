/*
 * What the storage in memory does with commands that change the tree.
 */
#ifndef TIRVAL_TESTS_SERVER_FAKE_CHANGE_H
#define TIRVAL_TESTS_SERVER_FAKE_CHANGE_H

#include "fake_storage.h"

#include <set>
#include <string>

namespace tirval::tests {

/*
 * Runs a command as the path's next plan says, and records it.  `missing` is what the session takes
 * to be missing: like real storages it forgets an item also when a delete has failed.  Returns the
 * result to answer with.
 */
tirval_result_t fake_change(const tirval_gfs_command_info_t &info, fake_storage_t &storage,
                            std::set<std::string> &missing);

/* Makes the REST library see an answer of that status. */
void meet_status(int status);

} // namespace tirval::tests

#endif
