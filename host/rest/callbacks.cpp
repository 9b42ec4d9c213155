// The callbacks that the library offers for bodies, answers and progress.
#include "failure.h"
#include "json_reader.h"
#include "request_body.h"
#include "rest_error.h"
#include "tirval_dsi_rest.h"
#include "tirval_gfs_stream.h"

#include <algorithm>
#include <cstring>
#include <string>

using tirval::rest::failure;
using tirval::rest::problem;
using tirval::rest::put_error;

tirval_result_t tirval_dsi_rest_response(void *response_arg, int response_code,
                                         const char * /*response_status*/,
                                         const tirval_dsi_rest_key_array_t *response_headers)
{
    auto *const response = static_cast<tirval_dsi_rest_response_arg_t *>(response_arg);
    response->response_code = response_code;
    for (std::size_t i = 0; i < response->desired_headers.count; ++i) {
        auto &wanted = response->desired_headers.key_value[i];
        wanted.value = nullptr;
        const auto *const begin = response_headers->key_value;
        const auto *const end = begin + response_headers->count;
        const auto *const found = std::find_if(begin, end, [&](const auto &field) {
            return tirval::rest::same_field_name(field.key, wanted.key);
        });
        if (found != end) {
            wanted.value = strdup(found->value);
            if (wanted.value == nullptr) {
                return put_error(problem::of(failure::out_of_memory));
            }
        }
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_dsi_rest_write_block(void *write_block_arg, void *buffer,
                                            size_t buffer_length, size_t *amount_copied)
{
    const auto *const block =
        static_cast<const tirval_dsi_rest_write_block_arg_t *>(write_block_arg);
    const std::size_t done = std::min(tirval::rest::thread_body_position(), block->block_length);
    *amount_copied = std::min(buffer_length, block->block_length - done);
    if (*amount_copied > 0) {
        std::memcpy(buffer, static_cast<const char *>(block->block) + done, *amount_copied);
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_dsi_rest_read_json(void *json_out, void *buffer, size_t buffer_length)
{
    const std::string_view text(static_cast<const char *>(buffer), buffer_length);
    const auto trouble = tirval::rest::read_json(text, static_cast<json_t **>(json_out));
    return trouble ? put_error(trouble) : TIRVAL_SUCCESS;
}

tirval_result_t tirval_dsi_rest_read_gridftp_op(void *gridftp_op_arg, void *buffer,
                                                size_t buffer_length)
{
    const auto *const record =
        static_cast<const tirval_dsi_rest_gridftp_op_arg_t *>(gridftp_op_arg);
    return tirval_gfs_stream_write(record->op, buffer, buffer_length);
}

tirval_result_t tirval_dsi_rest_write_gridftp_op(void *gridftp_op_arg, void *buffer,
                                                 size_t buffer_length, size_t *amount_copied)
{
    auto *const record = static_cast<tirval_dsi_rest_gridftp_op_arg_t *>(gridftp_op_arg);
    *amount_copied = 0;
    const auto result = tirval_gfs_stream_read(record->op, buffer, buffer_length, amount_copied);
    if (tirval_gfs_stream_at_end(record->op)) {
        record->eof = true;
    }
    return result;
}

tirval_result_t tirval_dsi_rest_progress_idle_timeout(void *timeout_ms, uint64_t /*sent*/,
                                                      uint64_t /*received*/, uint64_t idle_ms)
{
    const auto limit = reinterpret_cast<intptr_t>(timeout_ms);
    if (limit <= 0 || idle_ms < static_cast<uint64_t>(limit)) {
        return TIRVAL_SUCCESS;
    }
    return put_error(problem::of(failure::idle, std::to_string(limit) + " ms"));
}
