/*
 * The ranges of a transfer, and the judgement on it: a storage's reported success counts only when
 * the client has, or has given, all the bytes.
 */
#include "transfer.h"

#include "errors.h"
#include "operation.h"

#include <sys/mman.h>

namespace {

using tirval_gfs::download_state;
using tirval_gfs::entry;

constexpr const char *aborted_tag = "TRANSFER_ABORTED";
constexpr const char *incomplete_tag = "TRANSFER_INCOMPLETE";

tirval_result_t begin(tirval_gfs_operation_t op)
{
    if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
        return tirval_gfs_cancel_error();
    }
    return op->backend.begin_transfer != nullptr ? op->backend.begin_transfer(op->host)
                                                 : TIRVAL_SUCCESS;
}

/* Whether the range handed out last is where it should be. */
bool range_counts(const download_state &download)
{
    bool beyond_end = download.known_size >= 0 && download.offset >= download.known_size;
    return !download.handed_out || download.delivered || beyond_end;
}

bool complete(tirval_gfs_operation_t op)
{
    if (!op->transfer.begun || op->transfer.failure != TIRVAL_SUCCESS) {
        return false;
    }
    if (op->kind == entry::send) {
        const download_state &download = op->download;
        return download.exhausted && !download.earlier_incomplete && range_counts(download);
    }
    return tirval_gfs::upload_exhausted(op->upload);
}

/* The next range of the back end's; false when there is none. */
bool next_range(tirval_gfs_operation_t op, tirval_off_t *offset, tirval_off_t *length)
{
    if (op->backend.read_range == nullptr) {
        *offset = 0;
        *length = -1;
        return !op->download.handed_out;
    }
    if (!op->backend.read_range(op->host, offset, length) || *length == 0) {
        return false;
    }
    TIRVAL_ASSERT(*offset >= 0 && *length >= -1);
    return true;
}

/* A transfer's remembered failure as a reply. */
tirval_result_t failure_reply(tirval_result_t failure)
{
    int type = tirval_error_get_type(tirval_error_peek(failure));
    if (type == TIRVAL_ERROR_TYPE_CANCELLED) {
        return tirval_gfs::as_reply(failure, 426, aborted_tag, "The transfer was aborted.");
    }
    return tirval_gfs::as_reply(failure, 451, incomplete_tag, "The transfer broke off.");
}

} // namespace

void tirval_gridftp_server_begin_transfer(tirval_gfs_operation_t op, int, void *)
{
    if (op->kind != entry::send && op->kind != entry::recv) {
        tirval_gfs::broken_contract(*op, "began a transfer, but is no transfer");
    }
    if (op->transfer.begin_called) {
        tirval_gfs::broken_contract(*op, "began its transfer a second time");
    }
    op->transfer.begin_called = true;
    tirval_result_t result = begin(op);
    op->transfer.begun = result == TIRVAL_SUCCESS;
    if (!op->transfer.begun) {
        tirval_gfs::remember_failure(op, result);
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
    }
}

void tirval_gridftp_server_get_read_range(tirval_gfs_operation_t op, tirval_off_t *offset,
                                          tirval_off_t *length)
{
    download_state &download = op->download;
    *offset = 0;
    *length = 0;
    if (op->kind != entry::send || download.exhausted ||
        tirval_gfs::transfer_obstacle(op) != TIRVAL_SUCCESS) {
        return;
    }
    tirval_off_t next_offset = 0;
    tirval_off_t next_length = 0;
    if (!next_range(op, &next_offset, &next_length)) {
        download.exhausted = true;
        return;
    }
    download.earlier_incomplete = download.earlier_incomplete || !range_counts(download);
    download.offset = *offset = next_offset;
    download.length = *length = next_length;
    download.exhausted = next_length == -1;
    download.handed_out = true;
    download.delivered = false;
    download.open = false;
    download.taken = 0;
    download.sent = 0;
}

void tirval_gridftp_server_get_write_range(tirval_gfs_operation_t op, tirval_off_t *offset,
                                           tirval_off_t *length)
{
    tirval_gfs::fetch_write_range(op);
    *offset = op->upload.range_offset;
    *length = op->upload.range_length;
}

namespace tirval_gfs {

tirval_result_t remember_failure(tirval_gfs_operation_t op, tirval_result_t failure)
{
    if (op->transfer.failure == TIRVAL_SUCCESS) {
        op->transfer.failure = failure;
    }
    return failure;
}

tirval_result_t transfer_obstacle(tirval_gfs_operation_t op)
{
    if (op->transfer.failure != TIRVAL_SUCCESS) {
        return op->transfer.failure;
    }
    if (!op->transfer.begun) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "The transfer has not begun.");
    }
    if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
        return remember_failure(op, tirval_gfs_cancel_error());
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t transfer_outcome(tirval_gfs_operation_t op, tirval_result_t reported)
{
    settle_registered_reads(op);
    const transfer_state &transfer = op->transfer;
    if (transfer.begin_called && !transfer.begun) {
        bool cancelled = tirval_error_get_type(tirval_error_peek(transfer.failure)) ==
                         TIRVAL_ERROR_TYPE_CANCELLED;
        return cancelled ? failure_reply(transfer.failure)
                         : as_reply(transfer.failure, 425, "CONNECTION_FAILED",
                                    "The data connection could not be opened.");
    }
    if (reported != TIRVAL_SUCCESS || complete(op)) {
        return reported;
    }
    if (transfer.failure != TIRVAL_SUCCESS) {
        return failure_reply(transfer.failure);
    }
    if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
        return failure_reply(tirval_gfs_cancel_error());
    }
    return put_reply(nullptr, 451, incomplete_tag, "%s",
                     op->kind == entry::send
                         ? "The storage did not deliver the whole file."
                         : "The storage did not take all the data of the client.");
}

void fetch_write_range(tirval_gfs_operation_t op)
{
    upload_state &upload = op->upload;
    if (op->kind == entry::recv && !upload.range_known && op->backend.write_range != nullptr) {
        op->backend.write_range(op->host, &upload.range_offset, &upload.range_length);
    }
    upload.range_known = true;
}

bool upload_exhausted(const upload_state &upload)
{
    return upload.ended && upload.ahead.filled == 0 &&
           (!upload.open || upload.handed == upload.length);
}

tirval_off_t upload_end(const upload_state &upload)
{
    tirval_off_t start = upload.open ? upload.offset : upload.range_offset;
    return start + static_cast<tirval_off_t>(upload.length) + upload.loose;
}

void unmap::operator()(unsigned char *memory) const
{
    munmap(memory, capacity);
}

bool block_memory::reserve(tirval_size_t size)
{
    unmap &owner = memory_.get_deleter();
    if (size <= owner.capacity) {
        return true;
    }
    void *grown = memory_ == nullptr ? mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                                     : mremap(memory_.get(), owner.capacity, size, MREMAP_MAYMOVE);
    if (grown == MAP_FAILED) {
        return false;
    }
    (void)memory_.release();
    owner.capacity = size;
    memory_.reset(static_cast<unsigned char *>(grown));
    return true;
}

} // namespace tirval_gfs
