/*
 * The send entry: a client retrieves a file.  The host names one range after the other, and each is
 * fetched straight into its data channel.
 */
#include "tirval_onedrive_common.h"

/* Each attempt delivers the range from its first byte, whatever an earlier one left behind. */
static void tirval_l_onedrive_reset_end_of_data(void *gridftp_op_arg)
{
    static_cast<tirval_dsi_rest_gridftp_op_arg_t *>(gridftp_op_arg)->eof = false;
}

static tirval_result_t tirval_l_onedrive_send_range(tirval_gfs_operation_t op,
                                                    tirval_onedrive_handle_t *handle,
                                                    const char *path, tirval_off_t offset,
                                                    tirval_off_t length)
{
    tirval_dsi_rest_gridftp_op_arg_t sink = {op, offset, length, false};
    tirval_i_onedrive_content_t content = {};
    content.offset = offset;
    content.length = length;
    content.paced_download = false; /* it does not go to Graph */
    content.read_callback = tirval_dsi_rest_read_gridftp_op;
    content.read_arg = &sink;
    content.before_attempt = tirval_l_onedrive_reset_end_of_data;
    content.attempt_arg = &sink;
    return tirval_i_onedrive_fetch_content(handle, path, &content);
}

static tirval_result_t tirval_l_onedrive_send_ranges(tirval_gfs_operation_t op,
                                                     tirval_onedrive_handle_t *handle,
                                                     const char *path)
{
    tirval_off_t length = 0;
    do {
        tirval_off_t offset = 0;
        tirval_gridftp_server_get_read_range(op, &offset, &length);
        if (length == 0) {
            break;
        }
        const tirval_result_t result =
            tirval_l_onedrive_send_range(op, handle, path, offset, length);
        if (result != TIRVAL_SUCCESS) {
            return result;
        }
    } while (length > 0);
    return TIRVAL_SUCCESS;
}

void tirval_i_onedrive_send(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *transfer_info,
                            void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    tirval_result_t result = tirval_onedrive_update_token(handle, op);
    if (result == TIRVAL_SUCCESS) {
        tirval_onedrive_path_info_t *path_info = nullptr;
        result = tirval_onedrive_path_resolve(handle, transfer_info->pathname, &path_info, nullptr);
    }
    if (result == TIRVAL_SUCCESS) {
        tirval_gridftp_server_begin_transfer(op, 0, nullptr);
        result = tirval_l_onedrive_send_ranges(op, handle, transfer_info->pathname);
    }
    tirval_gridftp_server_finished_transfer(op, result);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
