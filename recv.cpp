/*
 * The recv entry: a client stores a file.  Stores are refused before any data flows.
 */
#include "tirval_onedrive_common.h"

void tirval_i_onedrive_recv(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *transfer_info,
                            void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)transfer_info;
    (void)user_arg;
    const tirval_result_t result = tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, 502, "NOT_IMPLEMENTED", "%s", "Storing files is not implemented"));
    tirval_gridftp_server_finished_transfer(op, result);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
