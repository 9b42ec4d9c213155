/*
 * The upload side of an operation's stream.  A body is received straight into memory that stays
 * until the next body is opened, so that a repeated attempt finds the same bytes; the next body may
 * be received meanwhile.
 */
#include "tirval_gfs_stream.h"

#include "errors.h"
#include "operation.h"

#include <algorithm>
#include <cstring>

namespace {

using tirval_gfs::body_limit;
using tirval_gfs::put_error;
using tirval_gfs::receive_block;
using tirval_gfs::received_bytes;
using tirval_gfs::remember_failure;
using tirval_gfs::upload_state;

tirval_result_t no_memory(const char *function, int line)
{
    return put_error(TIRVAL_ERROR_TYPE_MEMORY, function, line,
                     "There is no memory for the client's data.");
}

/* What forbids reading now. */
tirval_result_t read_obstacle(tirval_gfs_operation_t op)
{
    if (op->kind != tirval_gfs::entry::recv) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "Only a store reads from the client.");
    }
    tirval_gfs::settle_registered_reads(op);
    return tirval_gfs::transfer_obstacle(op);
}

/* Receives up to `capacity` bytes behind those that are there.  Without `wait`, `*blocked` tells
 * that there was nothing.  The stream's end is noted. */
tirval_result_t receive(tirval_gfs_operation_t op, received_bytes &into, tirval_size_t capacity,
                        bool wait, bool *blocked)
{
    if (op->backend.receive == nullptr) {
        op->upload.ended = true;
        return TIRVAL_SUCCESS;
    }
    tirval_size_t received = 0;
    tirval_result_t result =
        op->backend.receive(op->host, into.memory.data() + into.filled,
                            std::min(capacity, receive_block), wait, &received, blocked);
    if (result != TIRVAL_SUCCESS) {
        return remember_failure(op, result);
    }
    TIRVAL_ASSERT(received <= capacity);
    into.filled += received;
    op->upload.ended = received == 0 && !*blocked;
    return TIRVAL_SUCCESS;
}

/* Receives the next bytes of the open body, which is not complete. */
tirval_result_t receive_body(tirval_gfs_operation_t op)
{
    upload_state &upload = op->upload;
    if (!upload.ended) {
        bool blocked = false;
        tirval_result_t result =
            receive(op, upload.body, upload.length - upload.body.filled, true, &blocked);
        if (result != TIRVAL_SUCCESS || !upload.ended) {
            return result;
        }
    }
    return remember_failure(
        op, tirval_gfs::put_reply(nullptr, 451, "TRANSFER_INCOMPLETE",
                                  "The client's data ended at byte %lld of the file, "
                                  "%zu bytes before it should.",
                                  static_cast<long long>(upload.offset) +
                                      static_cast<long long>(upload.body.filled),
                                  upload.length - upload.body.filled));
}

/* Makes what was received ahead the open body; what it holds beyond the body stays ahead. */
bool take_ahead(upload_state &upload, tirval_size_t length)
{
    std::swap(upload.body, upload.ahead);
    upload.ahead.filled = 0;
    if (!upload.body.memory.reserve(length)) {
        return false;
    }
    if (upload.body.filled > length) {
        tirval_size_t surplus = upload.body.filled - length;
        if (!upload.ahead.memory.reserve(surplus)) {
            return false;
        }
        memcpy(upload.ahead.memory.data(), upload.body.memory.data() + length, surplus);
        upload.ahead.filled = surplus;
        upload.body.filled = length;
    }
    return true;
}

/* Tells the host that what stands before `offset` is stored, when the storage goes on from there:
 * also when the client has gone meanwhile, since it may come back to continue. */
void tell_stored(tirval_gfs_operation_t op, tirval_off_t offset)
{
    upload_state &upload = op->upload;
    bool goes_on = upload.open && upload.handed == upload.length &&
                   offset == tirval_gfs::upload_end(upload) && offset > upload.stored;
    if (goes_on && op->backend.stored_up_to != nullptr) {
        upload.stored = offset;
        op->backend.stored_up_to(op->host, offset);
    }
}

/* Opens the body that follows the one before. */
tirval_result_t open_next(tirval_gfs_operation_t op, tirval_off_t offset, tirval_off_t length)
{
    upload_state &upload = op->upload;
    bool before_read = !upload.open || upload.handed == upload.length;
    if (!before_read || offset != tirval_gfs::upload_end(upload)) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "The bytes from %lld on are not the next of the client's data.",
                         static_cast<long long>(offset));
    }
    if (length < 0 || static_cast<tirval_size_t>(length) > body_limit) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "A body of %lld bytes cannot be kept for a repeated attempt.",
                         static_cast<long long>(length));
    }
    if (!take_ahead(upload, static_cast<tirval_size_t>(length))) {
        return remember_failure(op, no_memory(__func__, __LINE__));
    }
    upload.stored = upload.open ? upload.stored : offset;
    upload.open = true;
    upload.offset = offset;
    upload.length = static_cast<tirval_size_t>(length);
    upload.position = 0;
    upload.handed = 0;
    upload.loose = 0;
    return TIRVAL_SUCCESS;
}

/* How many bytes may be kept ahead of the open body: none before it is complete; then as many as
 * the announced size leaves, and one more, which shows the end or that there is too much. */
tirval_size_t ahead_window(const upload_state &upload)
{
    if (upload.open && upload.body.filled < upload.length) {
        return 0;
    }
    if (upload.announced < 0) {
        return body_limit;
    }
    tirval_off_t rest = upload.announced - tirval_gfs::upload_end(upload);
    return static_cast<tirval_size_t>(
        std::clamp(rest + 1, tirval_off_t{1}, static_cast<tirval_off_t>(body_limit)));
}

/* How many more bytes can be received ahead now; 0: none. */
tirval_size_t ahead_room(tirval_gfs_operation_t op)
{
    const upload_state &upload = op->upload;
    if (upload.ended || upload.no_ahead || read_obstacle(op) != TIRVAL_SUCCESS ||
        tirval_gfs::read_is_registered(op)) {
        return 0;
    }
    tirval_size_t window = ahead_window(upload);
    return window - std::min(window, upload.ahead.filled);
}

} // namespace

tirval_result_t tirval_gfs_stream_open_read(tirval_gfs_operation_t op, tirval_off_t offset,
                                            tirval_off_t length)
{
    tirval_result_t obstacle = read_obstacle(op);
    tell_stored(op, offset);
    if (obstacle != TIRVAL_SUCCESS) {
        return obstacle;
    }
    tirval_gfs::fetch_write_range(op);
    upload_state &upload = op->upload;
    if (upload.open && offset == upload.offset && length >= 0 &&
        static_cast<tirval_size_t>(length) == upload.length) {
        upload.position = 0;
        return TIRVAL_SUCCESS;
    }
    return open_next(op, offset, length);
}

tirval_result_t tirval_gfs_stream_read(tirval_gfs_operation_t op, void *buffer,
                                       tirval_size_t capacity, tirval_size_t *nbytes)
{
    *nbytes = 0;
    tirval_result_t result = read_obstacle(op);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    upload_state &upload = op->upload;
    if (!upload.open || capacity == 0 || tirval_gfs::read_is_registered(op)) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "The client's data cannot be read now.");
    }
    if (upload.position == upload.body.filled && upload.body.filled < upload.length) {
        result = receive_body(op);
        if (result != TIRVAL_SUCCESS) {
            return result;
        }
    }
    *nbytes = std::min(capacity, upload.body.filled - upload.position);
    if (*nbytes > 0) {
        memcpy(buffer, upload.body.memory.data() + upload.position, *nbytes);
    }
    upload.position += *nbytes;
    upload.handed = std::max(upload.handed, upload.position);
    return TIRVAL_SUCCESS;
}

bool tirval_gfs_stream_at_end(tirval_gfs_operation_t op)
{
    tirval_gfs::settle_registered_reads(op);
    const upload_state &upload = op->upload;
    return tirval_gfs::upload_exhausted(upload) && upload.position == upload.length;
}

int tirval_gfs_stream_ahead_descriptor(tirval_gfs_operation_t op)
{
    bool wanted = op->backend.receive_descriptor != nullptr && ahead_room(op) > 0;
    return wanted ? op->backend.receive_descriptor(op->host) : -1;
}

void tirval_gfs_stream_receive_ahead(tirval_gfs_operation_t op)
{
    received_bytes &ahead = op->upload.ahead;
    tirval_size_t room = ahead_room(op);
    if (room > 0 && !ahead.memory.reserve(ahead.filled + room)) {
        op->upload.no_ahead = true;
        return;
    }
    /* What a TLS layer holds back does not make its descriptor readable: it is taken at once. */
    tirval_size_t limit = ahead.filled + std::min(room, receive_block);
    bool blocked = false;
    while (ahead.filled < limit && !blocked && !op->upload.ended) {
        if (receive(op, ahead, limit - ahead.filled, false, &blocked) != TIRVAL_SUCCESS) {
            return;
        }
    }
}
