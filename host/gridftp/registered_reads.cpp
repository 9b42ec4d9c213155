/*
 * Registered reads: accepted on the entry's thread, completed exactly once on another.  Bytes that
 * were received ahead come first; otherwise the back end gets the next ones.
 */
#include "registered_reads.h"

#include "errors.h"
#include "operation.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace {

using tirval_gfs::put_error;
using tirval_gfs::read_request;
using tirval_gfs::registered_reads;
using tirval_gfs::upload_state;

/* Ends the process when the back end broke its rules. */
void demand(bool kept, const char *otherwise)
{
    if (!kept) {
        tirval_assertion_failed(otherwise, __FILE__, __LINE__);
    }
}

/* Notes a completion and hands its request over; a second completion is a programming error. */
read_request take_request(tirval_gfs_operation_t op, tirval_result_t result, tirval_size_t nbytes)
{
    registered_reads &reads = op->reads;
    std::lock_guard<std::mutex> guard(reads.lock);
    demand(reads.waiting, "the back end completed a registered read that does not wait");
    demand(reads.request.registered_by != std::this_thread::get_id(),
           "the back end completed a registered read on the thread that registered it");
    demand(nbytes <= reads.request.length, "the back end read more than was registered");
    reads.waiting = false;
    reads.taken += nbytes;
    if (result != TIRVAL_SUCCESS) {
        reads.failure = result;
    } else if (nbytes == 0) {
        reads.ended = true;
    }
    return reads.request;
}

/* `result` as one that lives until the entry has returned: the caller's may be gone before.  The
 * operation's scope must be current. */
tirval_result_t keep(tirval_result_t result)
{
    return result == TIRVAL_SUCCESS
               ? result
               : tirval_error_put(tirval_object_copy(tirval_error_peek(result)));
}

void complete(void *done_arg, tirval_result_t result, tirval_size_t nbytes, tirval_off_t offset)
{
    auto *op = static_cast<tirval_gfs_operation_t>(done_arg);
    {
        tirval_gfs::scope_entered scope(op->scope);
        tirval_result_t kept = keep(result);
        tirval_size_t delivered = kept == TIRVAL_SUCCESS ? nbytes : 0;
        read_request request = take_request(op, kept, delivered);
        bool eof = kept == TIRVAL_SUCCESS && delivered == 0;
        request.callback(op, kept, request.buffer, delivered, offset, eof, request.user_arg);
    }
    std::lock_guard<std::mutex> guard(op->reads.lock);
    --op->reads.unreturned;
    op->reads.returned.notify_all();
}

/* Completes the request on a thread of its own with bytes that are there, or with the end. */
tirval_result_t serve_from_ahead(tirval_gfs_operation_t op)
{
    registered_reads &reads = op->reads;
    upload_state &upload = op->upload;
    tirval_size_t count = std::min(reads.request.length, upload.ahead.filled);
    tirval_off_t offset = tirval_gfs::upload_end(upload) - upload.range_offset;
    if (count > 0) {
        memcpy(reads.request.buffer, upload.ahead.memory.data(), count);
    }
    try {
        reads.helpers.emplace_back(complete, op, TIRVAL_SUCCESS, count, offset);
    } catch (const std::exception &error) {
        return put_error(TIRVAL_ERROR_TYPE_SYSTEM, __func__, __LINE__,
                         "No thread could be started: %s", error.what());
    }
    upload.ahead.filled -= count;
    if (upload.ahead.filled > 0) {
        memmove(upload.ahead.memory.data(), upload.ahead.memory.data() + count,
                upload.ahead.filled);
    }
    return TIRVAL_SUCCESS;
}

/* Hands the request to whoever has the next bytes. */
tirval_result_t serve(tirval_gfs_operation_t op)
{
    if (op->upload.ahead.filled > 0 || op->upload.ended) {
        return serve_from_ahead(op);
    }
    if (op->backend.register_read == nullptr) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "The client's data cannot be read in the background.");
    }
    const read_request &request = op->reads.request;
    return op->backend.register_read(op->host, request.buffer, request.length, complete, op);
}

/* What forbids a read; also an unread rest of the open body, whose bytes would be skipped. */
tirval_result_t registration_obstacle(tirval_gfs_operation_t op)
{
    const upload_state &upload = op->upload;
    if (op->kind != tirval_gfs::entry::recv) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "Only a store reads from the client.");
    }
    if (tirval_gfs::read_is_registered(op) || (upload.open && upload.body.filled < upload.length)) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "Another reader waits for the client's data.");
    }
    tirval_gfs::settle_registered_reads(op);
    return tirval_gfs::transfer_obstacle(op);
}

void accept(tirval_gfs_operation_t op, const read_request &request)
{
    std::lock_guard<std::mutex> guard(op->reads.lock);
    op->reads.request = request;
    op->reads.waiting = true;
    ++op->reads.unreturned;
}

void refuse(tirval_gfs_operation_t op)
{
    std::lock_guard<std::mutex> guard(op->reads.lock);
    demand(op->reads.waiting, "the back end completed a registered read that it refused");
    op->reads.waiting = false;
    --op->reads.unreturned;
}

} // namespace

tirval_result_t tirval_gridftp_server_register_read(tirval_gfs_operation_t op,
                                                    tirval_byte_t *buffer, tirval_size_t length,
                                                    tirval_gridftp_server_read_cb_t callback,
                                                    void *user_arg)
{
    tirval_result_t result = registration_obstacle(op);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (buffer == nullptr || length == 0 || callback == nullptr) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "A read needs a buffer and a callback.");
    }
    accept(op, {op, buffer, length, callback, user_arg, std::this_thread::get_id()});
    result = serve(op);
    if (result != TIRVAL_SUCCESS) {
        refuse(op);
        return tirval_gfs::remember_failure(op, result);
    }
    return TIRVAL_SUCCESS;
}

namespace tirval_gfs {

bool read_is_registered(tirval_gfs_operation_t op)
{
    std::lock_guard<std::mutex> guard(op->reads.lock);
    return op->reads.waiting;
}

void settle_registered_reads(tirval_gfs_operation_t op)
{
    registered_reads &reads = op->reads;
    std::lock_guard<std::mutex> guard(reads.lock);
    op->upload.ended = op->upload.ended || reads.ended;
    op->upload.loose += static_cast<tirval_off_t>(reads.taken);
    reads.taken = 0;
    if (reads.failure != TIRVAL_SUCCESS) {
        remember_failure(op, reads.failure);
    }
}

void finish_registered_reads(tirval_gfs_operation_t op)
{
    registered_reads &reads = op->reads;
    if (read_is_registered(op)) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
    }
    {
        std::unique_lock<std::mutex> guard(reads.lock);
        reads.returned.wait(guard, [&] { return reads.unreturned == 0; });
    }
    for (std::thread &helper : reads.helpers) {
        helper.join();
    }
}

} // namespace tirval_gfs
