/* The plug-in's module, and the interface table that it registers with the host. */
#include "tirval_onedrive_common.h"

static constexpr const char *tirval_l_storage_name = "onedrive";

static tirval_gfs_storage_iface_t tirval_l_onedrive_dsi_iface = {
    .descriptor = TIRVAL_GFS_DSI_DESCRIPTOR_BLOCKING | TIRVAL_GFS_DSI_DESCRIPTOR_RANGES |
                  TIRVAL_GFS_DSI_DESCRIPTOR_CHECKSUMS | TIRVAL_GFS_DSI_DESCRIPTOR_NEEDS_SIZE,
    .init_func = tirval_i_onedrive_start,
    .destroy_func = tirval_i_onedrive_destroy,
    .list_func = nullptr, /* folders are listed by stat */
    .send_func = tirval_i_onedrive_send,
    .recv_func = tirval_i_onedrive_recv,
    .trev_func = nullptr,
    .active_func = nullptr,
    .passive_func = nullptr,
    .data_destroy_func = nullptr,
    .command_func = tirval_i_onedrive_command,
    .stat_func = tirval_i_onedrive_stat,
    .set_cred_func = nullptr,
    .buffer_send_func = nullptr,
    .realpath_func = nullptr,
};

/* What failed in here shows when the host looks the storage up and does not find it. */
static int tirval_l_onedrive_activate()
{
    (void)tirval_module_activate(&tirval_i_onedrive_common_module);
    (void)tirval_extension_registry_add(&tirval_i_gfs_dsi_registry, tirval_l_storage_name,
                                        &tirval_gridftp_server_onedrive_module,
                                        &tirval_l_onedrive_dsi_iface);
    return 0;
}

static int tirval_l_onedrive_deactivate()
{
    (void)tirval_extension_registry_remove(&tirval_i_gfs_dsi_registry, tirval_l_storage_name);
    (void)tirval_module_deactivate(&tirval_i_onedrive_common_module);
    return 0;
}

static const tirval_version_t tirval_l_version = {0, 16, 0, 0};

tirval_module_descriptor_t tirval_gridftp_server_onedrive_module = {
    .module_name = "tirval_gridftp_server_onedrive",
    .activation_func = tirval_l_onedrive_activate,
    .deactivation_func = tirval_l_onedrive_deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tirval_l_version,
};
