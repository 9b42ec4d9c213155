/*
 * The storing side of the storage in memory: small files in one body, larger ones in parts that a
 * later store can continue, as services take them.
 */
#ifndef TIRVAL_TESTS_SERVER_FAKE_STORE_H
#define TIRVAL_TESTS_SERVER_FAKE_STORE_H

#include "fake_storage.h"

#include <map>
#include <string>

namespace tirval::tests {

inline constexpr std::int64_t fake_small_bytes = std::int64_t{4} << 20;
inline constexpr std::int64_t fake_part_bytes = std::int64_t{10} << 20;

/* What a session has begun to store in parts: by path, the bytes stored so far. */
using fake_uploads_t = std::map<std::string, std::string>;

/* Runs a store, and makes the node when it is complete.  Returns the result to answer with. */
tirval_result_t fake_store(tirval_gfs_operation_t op, const tirval_gfs_transfer_info_t &info,
                           fake_storage_t &storage, fake_uploads_t &uploads);

} // namespace tirval::tests

#endif
