/* The upload-state file: one upload session's record, kept for the processes of one user and for
 * later sessions. */
#include "tirval_onedrive_common.h"

/* The file is initialised through its first 16 bytes, and these are what is unmapped at the end. */
static constexpr tirval_i_onedrive_state_kind_t tirval_l_kind = {
    .folder = &tirval_i_onedrive_upload_path,
    .length = TIRVAL_ONEDRIVE_UPLOAD_STATE_LENGTH,
    .first_length = 16,
    .initialise = nullptr,
    .mapping_checked = false,
    .lock_function = "tirval_i_onedrive_upload_state_lock",
    .unlock_function = "tirval_i_onedrive_upload_state_unlock",
};

extern "C" void tirval_i_onedrive_upload_state_create(const char *name,
                                                      tirval_onedrive_upload_state_t *upload_state)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    upload_state->shared = static_cast<tirval_onedrive_upload_state_shared_s *>(
        tirval_i_onedrive_state_attach(&tirval_l_kind, name, &upload_state->fd));
    upload_state->is = true;
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

extern "C" tirval_result_t
tirval_i_onedrive_upload_state_lock(tirval_onedrive_upload_state_t *upload_state, bool blocking)
{
    return tirval_i_onedrive_state_lock(&tirval_l_kind, upload_state->fd, blocking);
}

extern "C" tirval_result_t
tirval_i_onedrive_upload_state_unlock(tirval_onedrive_upload_state_t *upload_state)
{
    return tirval_i_onedrive_state_unlock(&tirval_l_kind, upload_state->fd);
}

extern "C" void tirval_i_onedrive_upload_state_destroy(tirval_onedrive_upload_state_t *upload_state)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_i_onedrive_state_detach(&tirval_l_kind, upload_state->shared, &upload_state->fd);
    upload_state->shared = nullptr;
    TIRVAL_ONEDRIVE_LOG_EXIT();
}
