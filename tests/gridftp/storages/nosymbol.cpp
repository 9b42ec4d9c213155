/* A library that is no storage: it has no module of the expected name. */
#include "tirval_gridftp_server.h"

extern "C" TIRVAL_API int tirval_gridftp_server_other_module;
int tirval_gridftp_server_other_module = 1;
