/*
 * How far a transfer has come, and whether it may count as done.
 */
#ifndef TIRVAL_GRIDFTP_TRANSFER_H
#define TIRVAL_GRIDFTP_TRANSFER_H

#include "tirval_gridftp_server.h"

#include <memory>

namespace tirval_gfs {

/* The most that one body, and what is received ahead of it, may take of memory, in bytes. */
constexpr tirval_size_t body_limit = tirval_size_t{10} << 20;
/* The most that is asked of the client at once. */
constexpr tirval_size_t receive_block = tirval_size_t{1} << 20;

struct transfer_state {
    bool begin_called = false;
    bool begun = false;
    /* The first failure of the data connections or of the stream; nothing moves after it. */
    tirval_result_t failure = TIRVAL_SUCCESS;
};

struct download_state {
    tirval_off_t known_size = -1;
    /* The range handed out last. */
    tirval_off_t offset = 0;
    tirval_off_t length = 0;
    bool handed_out = false;
    bool delivered = false;
    bool exhausted = false;          /* there is no range after that one */
    bool earlier_incomplete = false; /* the storage went on to the next before one was delivered */
    /* The attempt to deliver it. */
    bool open = false;
    tirval_off_t taken = 0; /* bytes that the attempt has brought */
    tirval_off_t sent = 0;  /* bytes of the range that the client has, from any attempt */
};

struct unmap {
    tirval_size_t capacity = 0;
    void operator()(unsigned char *memory) const;
};

/* Memory that grows on demand and stays for the next body.  It is the kernel's own, so that an idle
 * session gives back what its last store took. */
class block_memory {
  public:
    /* Makes room for `size` bytes, keeping the content; false when memory ran out. */
    bool reserve(tirval_size_t size);
    unsigned char *data() const { return memory_.get(); }

  private:
    std::unique_ptr<unsigned char, unmap> memory_;
};

/* Bytes of the client's, in order, as they were received. */
struct received_bytes {
    block_memory memory;
    tirval_size_t filled = 0;
};

struct upload_state {
    tirval_off_t announced = -1; /* the file's final size; -1: not known */
    bool range_known = false;
    tirval_off_t range_offset = 0;
    tirval_off_t range_length = -1;
    tirval_off_t stored = 0; /* the host knows that what stands before is stored */
    /* The open body, kept until another one is opened. */
    bool open = false;
    tirval_off_t offset = 0;
    tirval_size_t length = 0;
    received_bytes body;
    tirval_size_t position = 0; /* bytes that the attempt has taken */
    tirval_size_t handed = 0;   /* bytes that some attempt has taken */
    /* What follows the body and nobody has asked for yet. */
    received_bytes ahead;
    tirval_off_t loose = 0; /* bytes that registered reads have taken since the last body */
    bool ended = false;     /* the client's stream has been seen to end */
    bool no_ahead = false;  /* there is no memory to receive ahead */
};

/* Remembers the transfer's first failure, and returns this one. */
tirval_result_t remember_failure(tirval_gfs_operation_t op, tirval_result_t failure);

/* What forbids moving bytes now: that the transfer did not begin, its remembered failure, or a
 * cancellation (put for the caller).  TIRVAL_SUCCESS: nothing. */
tirval_result_t transfer_obstacle(tirval_gfs_operation_t op);

/* What the back end is told when the storage reports `reported`. */
tirval_result_t transfer_outcome(tirval_gfs_operation_t op, tirval_result_t reported);

/* Reads the range that the client stores from the back end, once. */
void fetch_write_range(tirval_gfs_operation_t op);

/* Whether the client's stream has ended with nothing of it left to read. */
bool upload_exhausted(const upload_state &upload);

/* Where in the file the first byte lies that is neither in the open body nor taken since. */
tirval_off_t upload_end(const upload_state &upload);

} // namespace tirval_gfs

#endif
