/*
 * Reads that complete on another thread than the entry's.
 */
#ifndef TIRVAL_GRIDFTP_REGISTERED_READS_H
#define TIRVAL_GRIDFTP_REGISTERED_READS_H

#include "tirval_gridftp_server.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace tirval_gfs {

struct read_request {
    tirval_gfs_operation_t op = nullptr;
    tirval_byte_t *buffer = nullptr;
    tirval_size_t length = 0;
    tirval_gridftp_server_read_cb_t callback = nullptr;
    void *user_arg = nullptr;
    std::thread::id registered_by;
};

struct registered_reads {
    std::mutex lock;
    std::condition_variable returned;
    read_request request;
    bool waiting = false; /* accepted and not completed */
    int unreturned = 0;   /* accepted, and its callback has not returned */
    /* What completions have found since the entry's thread last looked. */
    bool ended = false;
    tirval_result_t failure = TIRVAL_SUCCESS; /* put in the operation's scope */
    tirval_size_t taken = 0;
    /* Complete reads whose bytes were there already; joined before the run ends. */
    std::vector<std::thread> helpers;
};

/* Whether an accepted read has not been completed yet. */
bool read_is_registered(tirval_gfs_operation_t op);

/* The end and the failure that completed reads have found become the transfer's. */
void settle_registered_reads(tirval_gfs_operation_t op);

/* Sees that each accepted read is completed and its callback has returned. */
void finish_registered_reads(tirval_gfs_operation_t op);

} // namespace tirval_gfs

#endif
