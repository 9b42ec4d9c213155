/* A storage whose module registers nothing. */
#include "tirval_gridftp_server.h"

extern "C" TIRVAL_API tirval_module_descriptor_t tirval_gridftp_server_silent_module;
tirval_module_descriptor_t tirval_gridftp_server_silent_module = {
    "tirval_gridftp_server_silent", [] { return 0; }, [] { return 0; }, nullptr, nullptr, nullptr};
