/*
 * Where the data of a store waits until it is complete: in memory while it is small, else in a file
 * without a name, which vanishes with the process whatever happens.
 */
#ifndef TIRVAL_SERVER_SPOOL_H
#define TIRVAL_SERVER_SPOOL_H

#include "failure.h"
#include "unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace tirval::server {

/* On one thread at a time.  Each function returns what went wrong, or nothing. */
class spool_t {
  public:
    /* The most that stays in memory, in bytes. */
    static constexpr std::size_t memory_limit = std::size_t{4} << 20;

    /* `directory` is where a file is made, once one is needed. */
    explicit spool_t(std::filesystem::path directory) : directory_(std::move(directory)) {}

    /* Adds bytes at the end.  452 when there is no space for them: then the spool is useless. */
    std::optional<failure_t> append(std::span<const char> data);
    /* Reads from byte `offset` on; `received` is 0 only at the end. */
    std::optional<failure_t> read(std::int64_t offset, std::span<char> buffer,
                                  std::size_t &received) const;
    std::int64_t size() const { return size_; }
    bool is_in_memory() const { return !file_; }

  private:
    std::optional<failure_t> move_to_file();
    std::optional<failure_t> write_to_file(std::span<const char> data) const;

    std::filesystem::path directory_;
    std::string memory_;
    unique_fd_t file_;
    std::int64_t size_ = 0;
};

/* A new file without a name, 0600, closed on exec.  None when it cannot be made; errno tells why.
 */
unique_fd_t open_nameless_file(const std::filesystem::path &directory);
/* The same for file systems that can make files with a name only: it is taken away at once. */
unique_fd_t open_unlinked_file(const std::filesystem::path &directory);

} // namespace tirval::server

#endif
