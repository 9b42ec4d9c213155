/*
 * The host interface's module, and the registry in which storages are found by name.
 */
#include "tirval_gridftp_server.h"

namespace {

int activate()
{
    return tirval_module_activate(&tirval_i_common_module);
}

int deactivate()
{
    return tirval_module_deactivate(&tirval_i_common_module);
}

} // namespace

tirval_extension_registry_t tirval_i_gfs_dsi_registry = {};

tirval_module_descriptor_t tirval_i_gridftp_server_module = {
    "tirval_gridftp_server", activate, deactivate, nullptr, nullptr, nullptr};
