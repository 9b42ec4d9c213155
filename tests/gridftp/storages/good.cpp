/* A storage library as it should be: it registers itself under its name. */
#include "tirval_gridftp_server.h"

namespace {

tirval_gfs_storage_iface_t iface = {};

int activate();
int deactivate();

} // namespace

extern "C" TIRVAL_API tirval_module_descriptor_t tirval_gridftp_server_good_module;
tirval_module_descriptor_t tirval_gridftp_server_good_module = {
    "tirval_gridftp_server_good", activate, deactivate, nullptr, nullptr, nullptr};

namespace {

int activate()
{
    iface.descriptor = TIRVAL_GFS_DSI_DESCRIPTOR_BLOCKING;
    return tirval_extension_registry_add(&tirval_i_gfs_dsi_registry, "good",
                                         &tirval_gridftp_server_good_module, &iface);
}

int deactivate()
{
    return tirval_extension_registry_remove(&tirval_i_gfs_dsi_registry, "good") != nullptr ? 0 : 1;
}

} // namespace
