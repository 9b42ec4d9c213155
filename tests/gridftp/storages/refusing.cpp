/* A storage whose module cannot be activated. */
#include "tirval_gridftp_server.h"

extern "C" TIRVAL_API tirval_module_descriptor_t tirval_gridftp_server_refusing_module;
tirval_module_descriptor_t tirval_gridftp_server_refusing_module = {
    "tirval_gridftp_server_refusing",
    [] { return 17; },
    [] { return 0; },
    nullptr,
    nullptr,
    nullptr};
