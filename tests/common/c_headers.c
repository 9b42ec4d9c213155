/* The installed headers as a plug-in or a host written in C sees them. */
#include "tirval_common.h"
#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"
#include "tirval_gfs_stream.h"
#include "tirval_gridftp_server.h"

extern char *print_an_error_made_in_c(int number);

char *print_an_error_made_in_c(int number)
{
    TIRVAL_ASSERT(number > 0);
    tirval_object_t *error =
        tirval_error_construct_error(&tirval_i_common_module, NULL, TIRVAL_ERROR_TYPE_ARGUMENT, "c",
                                     __func__, __LINE__, "number %d", number);
    const tirval_result_t result = tirval_error_put(error);
    char *text = tirval_error_print_chain(tirval_error_peek(result));
    tirval_object_free(tirval_error_get(result));
    return text;
}
