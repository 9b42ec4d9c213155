// Reads a request's body from its callback and holds it to its announced length.
#include "request_body.h"

#include "tirval_gfs_stream.h"

#include <algorithm>

namespace tirval::rest {

namespace {

thread_local std::size_t position_of_thread = 0;

} // namespace

std::size_t thread_body_position()
{
    return position_of_thread;
}

tirval_dsi_rest_gridftp_op_arg_t *request_body::stream() const
{
    return told.data_write_callback == tirval_dsi_rest_write_gridftp_op
               ? static_cast<tirval_dsi_rest_gridftp_op_arg_t *>(told.data_write_callback_arg)
               : nullptr;
}

tirval_gfs_operation_t request_body::operation() const
{
    const auto *const record = stream();
    return record == nullptr ? nullptr : record->op;
}

problem request_body::open_stream()
{
    const auto *const record = stream();
    if (record->op == nullptr || record->length < 0 || record->offset < 0) {
        return problem::of(failure::bad_argument, "the transfer's record is malformed");
    }
    total = record->length;
    return problem::of_callback(
        tirval_gfs_stream_open_read(record->op, record->offset, record->length));
}

problem request_body::open(const request_headers &headers)
{
    position_of_thread = 0;
    if (!present()) {
        return headers.content_length.value_or(0) == 0
                   ? problem{}
                   : problem::of(failure::bad_argument, "a length without a body");
    }
    if (told.data_write_callback == tirval_dsi_rest_write_block) {
        const auto *const block =
            static_cast<const tirval_dsi_rest_write_block_arg_t *>(told.data_write_callback_arg);
        if (block == nullptr || (block->block == nullptr && block->block_length > 0)) {
            return problem::of(failure::bad_argument, "the block is missing");
        }
        total = static_cast<std::int64_t>(block->block_length);
        return {};
    }
    if (told.data_write_callback == tirval_dsi_rest_write_gridftp_op) {
        return stream() == nullptr
                   ? problem::of(failure::bad_argument, "the transfer's record is missing")
                   : open_stream();
    }
    total = headers.content_length.value_or(unknown_length);
    return total == unknown_length && headers.chunking_refused
               ? problem::of(failure::bad_argument, "a body with neither length nor chunks")
               : problem{};
}

problem request_body::read(char *buffer, std::size_t capacity, idle_clock &idle,
                           std::size_t *filled)
{
    *filled = 0;
    if (read_completely()) {
        return {};
    }
    if (total >= 0) {
        capacity = std::min(capacity, static_cast<std::size_t>(total - position));
    }
    std::size_t copied = 0;
    const auto result = idle.outside([&] {
        return told.data_write_callback(told.data_write_callback_arg, buffer, capacity, &copied);
    });
    if (result != TIRVAL_SUCCESS) {
        return problem::of_callback(result);
    }
    if (copied > capacity) {
        return problem::of(failure::bad_argument, "the body's callback overran its buffer");
    }
    ended = copied == 0;
    if (ended && total >= 0) {
        return problem::of(failure::short_request_body);
    }
    position += static_cast<std::int64_t>(copied);
    position_of_thread = static_cast<std::size_t>(position);
    *filled = copied;
    return {};
}

void request_body::close()
{
    position_of_thread = 0;
    auto *const record = stream();
    if (record != nullptr && record->op != nullptr && tirval_gfs_stream_at_end(record->op)) {
        record->eof = true;
    }
}

} // namespace tirval::rest
