/*
 * Reads that a storage has registered: each is done on a short-lived thread of its own, since the
 * storage's thread may be waiting for it, and completed exactly once.
 */
#ifndef TIRVAL_SERVER_BACKGROUND_READS_H
#define TIRVAL_SERVER_BACKGROUND_READS_H

#include "failure.h"

#include "tirval_gfs_host.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

namespace tirval::server {

class background_reads_t {
  public:
    /* Reads the next bytes: their count, 0 at the end of data, or what went wrong. */
    using read_t = std::function<std::optional<failure_t>(std::size_t &received)>;

    background_reads_t() = default;
    /* Waits for the reads' ends: what they use must still be there. */
    ~background_reads_t();
    background_reads_t(const background_reads_t &) = delete;
    background_reads_t &operator=(const background_reads_t &) = delete;

    /*
     * Calls `read` on another thread and completes with what it brought, whatever it throws.
     *
     * offset    of the first byte within the client's data
     * done_arg  borrowed until `done` has been called
     *
     * A failure means that there will be no completion.  On the operation thread only; one read at
     * a time.
     */
    std::optional<failure_t> start(read_t read, std::int64_t offset, tirval_gfs_read_done_t done,
                                   void *done_arg);

  private:
    std::vector<std::thread> threads_;
};

} // namespace tirval::server

#endif
