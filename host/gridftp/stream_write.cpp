/*
 * The download side of an operation's stream.  A range may be attempted several times; what the
 * client already has of it is dropped, the rest goes straight to the back end.
 */
#include "tirval_gfs_stream.h"

#include "errors.h"
#include "operation.h"

#include <algorithm>

namespace {

using tirval_gfs::download_state;
using tirval_gfs::put_error;
using tirval_gfs::remember_failure;

/* Gives the back end what the client does not have yet of the attempt's next bytes. */
tirval_result_t forward(tirval_gfs_operation_t op, const unsigned char *data, tirval_off_t size)
{
    download_state &download = op->download;
    tirval_off_t known = std::clamp(download.sent - download.taken, tirval_off_t{0}, size);
    download.taken += size;
    if (known == size) {
        return TIRVAL_SUCCESS;
    }
    tirval_off_t offset = download.offset + download.sent;
    tirval_result_t result =
        op->backend.send != nullptr
            ? op->backend.send(op->host, data + known, static_cast<tirval_size_t>(size - known),
                               offset)
            : TIRVAL_SUCCESS;
    if (result != TIRVAL_SUCCESS) {
        return remember_failure(op, result);
    }
    download.sent += size - known;
    return TIRVAL_SUCCESS;
}

} // namespace

tirval_result_t tirval_gfs_stream_open_write(tirval_gfs_operation_t op, tirval_off_t offset,
                                             tirval_off_t length)
{
    tirval_result_t obstacle = tirval_gfs::transfer_obstacle(op);
    if (obstacle != TIRVAL_SUCCESS) {
        return obstacle;
    }
    download_state &download = op->download;
    if (!download.handed_out || offset != download.offset || length != download.length) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "The client did not ask for this range.");
    }
    download.open = true;
    download.delivered = false;
    download.taken = 0;
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_gfs_stream_write(tirval_gfs_operation_t op, const void *data,
                                        tirval_size_t size)
{
    tirval_result_t obstacle = tirval_gfs::transfer_obstacle(op);
    if (obstacle != TIRVAL_SUCCESS) {
        return obstacle;
    }
    const download_state &download = op->download;
    if (!download.open) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__, "No range is open.");
    }
    if (download.length >= 0 &&
        size > static_cast<tirval_size_t>(download.length - download.taken)) {
        return put_error(TIRVAL_ERROR_TYPE_SERVICE_ANSWER, __func__, __LINE__,
                         "There is more data than the %lld bytes asked for.",
                         static_cast<long long>(download.length));
    }
    return forward(op, static_cast<const unsigned char *>(data), static_cast<tirval_off_t>(size));
}

tirval_result_t tirval_gfs_stream_close_write(tirval_gfs_operation_t op, bool whole)
{
    download_state &download = op->download;
    bool open = download.open;
    download.open = false;
    if (!whole) {
        return TIRVAL_SUCCESS;
    }
    tirval_result_t obstacle = tirval_gfs::transfer_obstacle(op);
    if (obstacle != TIRVAL_SUCCESS) {
        return obstacle;
    }
    if (!open) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__, "No range is open.");
    }
    if (download.taken < download.sent) {
        return remember_failure(
            op, tirval_gfs::put_reply(nullptr, 451, "TRANSFER_INCOMPLETE",
                                      "The repeated download ended after %lld bytes, of which the "
                                      "client already has %lld.",
                                      static_cast<long long>(download.taken),
                                      static_cast<long long>(download.sent)));
    }
    tirval_result_t result =
        op->backend.flush != nullptr ? op->backend.flush(op->host) : TIRVAL_SUCCESS;
    download.delivered = result == TIRVAL_SUCCESS;
    return download.delivered ? TIRVAL_SUCCESS : remember_failure(op, result);
}
