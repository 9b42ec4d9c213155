/*
 * The names of checksums: as a storage announces them, "NAME:NUMBER;" for each, and as the HASH
 * command has them (draft-bryan-ftpext-hash).  Pure functions.
 */
#ifndef TIRVAL_SERVER_CHECKSUM_NAMES_H
#define TIRVAL_SERVER_CHECKSUM_NAMES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

struct checksum_name_t {
    std::string storage; /* as the storage has it, "SHA1" */
    std::string hash;    /* as HASH has it, "SHA-1" */
};

/*
 * The checksums of a storage's announcement: those that HASH has names of its own for first, the
 * default at the front, then the others in the storage's order and by the storage's names.
 */
std::vector<checksum_name_t> parse_checksums(std::string_view announced);

/* The checksum that CKSM calls `name`, which is the storage's, without case. */
std::optional<checksum_name_t> find_checksum(std::string_view announced, std::string_view name);

/* The checksum that HASH calls `name`, without case. */
std::optional<checksum_name_t> find_hash(std::string_view announced, std::string_view name);

/* The checksum that HASH uses when `name` was chosen: that one, or the first where the storage does
 * not have it; nothing when it has none at all. */
std::optional<checksum_name_t> chosen_hash(std::string_view announced, std::string_view name);

/* "SHA-256*;SHA-512;" of all names that HASH takes, `chosen` marked, as FEAT has it. */
std::string hash_feature_list(std::string_view announced, std::string_view chosen);

} // namespace tirval::server

#endif
