/*
 * The command entry: a client changes the file system or asks for a checksum.  Every command is
 * refused.
 */
#include "tirval_onedrive_common.h"

void tirval_i_onedrive_command(tirval_gfs_operation_t op, tirval_gfs_command_info_t *cmd_info,
                               void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)cmd_info;
    (void)user_arg;
    const tirval_result_t result = tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, 502, "NOT_IMPLEMENTED", "%s", "Commands are not implemented"));
    tirval_gridftp_server_finished_command(op, result, nullptr);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
