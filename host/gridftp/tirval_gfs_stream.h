/*
 * An operation's data stream, for libraries that move a request's body to or from the client.
 *
 * Download: each attempt to fetch a range opens the stream at the range's first byte.  The client
 * gets each byte once: what an earlier attempt already delivered is taken and dropped.
 *
 * Upload: the stream keeps what it handed out for the open body until another body is opened, so
 * that a repeated attempt with the same offset and length gets the same bytes again.  At most one
 * body that may be repeated and one that is being received ahead are in memory, 10 MiB each.
 *
 * On the entry's thread only.  Results that are failures are put for the caller.
 */
#ifndef TIRVAL_GFS_STREAM_H
#define TIRVAL_GFS_STREAM_H

#include "tirval_gridftp_server.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens an attempt to deliver {offset, length}; length -1: to the end of the file. */
TIRVAL_API tirval_result_t tirval_gfs_stream_open_write(tirval_gfs_operation_t op,
                                                        tirval_off_t offset, tirval_off_t length);
/* Takes the attempt's next bytes.  Fails when there are more than `length`, when the client's
 * connection broke, or when the operation is cancelled. */
TIRVAL_API tirval_result_t tirval_gfs_stream_write(tirval_gfs_operation_t op, const void *data,
                                                   tirval_size_t size);
/*
 * Ends the attempt.  `complete`: the body ended exactly as it was announced; then the range counts
 * as delivered, unless this attempt was shorter than what an earlier one delivered, which fails.
 */
TIRVAL_API tirval_result_t tirval_gfs_stream_close_write(tirval_gfs_operation_t op, bool complete);

/* Opens the body {offset, length} for reading from its first byte, for a first or a repeated
 * attempt.  `length` is at most what remains of the announced size. */
TIRVAL_API tirval_result_t tirval_gfs_stream_open_read(tirval_gfs_operation_t op,
                                                       tirval_off_t offset, tirval_off_t length);
/* The open body's next bytes, at most `capacity`; `*nbytes` 0 only when the body is complete.  A
 * client's stream that ends before the body does is a failure. */
TIRVAL_API tirval_result_t tirval_gfs_stream_read(tirval_gfs_operation_t op, void *buffer,
                                                  tirval_size_t capacity, tirval_size_t *nbytes);
/* Whether the client's stream has been seen to end, with nothing left to read. */
TIRVAL_API bool tirval_gfs_stream_at_end(tirval_gfs_operation_t op);

/* While a request waits for its answer: a descriptor that polls readable when the next body's bytes
 * can be received ahead (-1: none, or enough is received), and the call that receives them. */
TIRVAL_API int tirval_gfs_stream_ahead_descriptor(tirval_gfs_operation_t op);
TIRVAL_API void tirval_gfs_stream_receive_ahead(tirval_gfs_operation_t op);

#ifdef __cplusplus
}
#endif

#endif
