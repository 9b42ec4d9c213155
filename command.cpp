/*
 * The command entry and its handlers: a client makes a folder, deletes, renames, or asks for a
 * checksum.
 */
#include "tirval_onedrive_common.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>

namespace {

/* A record filled from an answer, with the texts that it owns. */
struct tirval_l_onedrive_entry_t {
    tirval_onedrive_path_info_t info = {};

    tirval_l_onedrive_entry_t() = default;
    tirval_l_onedrive_entry_t(const tirval_l_onedrive_entry_t &) = delete;
    tirval_l_onedrive_entry_t &operator=(const tirval_l_onedrive_entry_t &) = delete;
    ~tirval_l_onedrive_entry_t() { tirval_onedrive_path_info_free(&info); }
};

/* A path that an item is to have. */
struct tirval_l_onedrive_target_t {
    tirval_i_onedrive_text_t parent_path; /* `name` lies behind its end */
    const char *name;
    tirval_onedrive_path_info_t *entry;  /* what has the path already; null: nothing */
    tirval_onedrive_path_info_t *parent; /* the folder */
};

} // namespace

/* A failure with what the service answered, in the name of a public function. */
#define TIRVAL_L_ONEDRIVE_COMMAND_ERROR(function, message)                                         \
    tirval_i_onedrive_answer_error("command", (function), __LINE__, (message))

/* ---- Dispatch -------------------------------------------------------------------------------- */

static tirval_result_t tirval_l_onedrive_not_implemented(void)
{
    return tirval_error_put(
        tirval_gfs_ftp_response_error_construct(nullptr, nullptr, 500, "NOT_IMPLEMETED", nullptr));
}

void tirval_i_onedrive_command(tirval_gfs_operation_t op, tirval_gfs_command_info_t *cmd_info,
                               void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    const tirval_result_t result = tirval_onedrive_update_token(handle, op);
    if (result != TIRVAL_SUCCESS) {
        tirval_gridftp_server_finished_command(op, result, nullptr);
        TIRVAL_ONEDRIVE_LOG_RESULT(result);
        return;
    }
    switch (cmd_info->command) {
    case TIRVAL_GFS_CMD_MKD:
        tirval_i_onedrive_mkdir(op, cmd_info, user_arg);
        break;
    case TIRVAL_GFS_CMD_RMD:
    case TIRVAL_GFS_CMD_DELE:
    case TIRVAL_GFS_CMD_SITE_RDEL:
        tirval_i_onedrive_delete(op, cmd_info, user_arg);
        break;
    case TIRVAL_GFS_CMD_RNTO:
        tirval_i_onedrive_rename(op, cmd_info, user_arg);
        break;
    case TIRVAL_GFS_CMD_CKSM:
        tirval_i_onedrive_cksm(op, cmd_info, user_arg);
        break;
    default:
        tirval_gridftp_server_finished_command(op, tirval_l_onedrive_not_implemented(), nullptr);
        break;
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

/* ---- What making and renaming share ---------------------------------------------------------- */

/*
 * Finds the folder that is to hold `path`, and what is there under its name.  Nothing can be made
 * in the virtual root.
 */
static tirval_result_t tirval_l_onedrive_find_target(tirval_onedrive_handle_t *handle,
                                                     const char *path,
                                                     tirval_l_onedrive_target_t *target)
{
    *target = {};
    target->parent_path.reset(strdup(path));
    if (target->parent_path == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    char *name = std::strrchr(target->parent_path.get(), '/');
    TIRVAL_ASSERT(name != NULL);
    *name = '\0';
    target->name = name + 1;
    if (*target->parent_path == '\0') {
        return tirval_i_onedrive_write_refusal("/", TIRVAL_ONEDRIVE_INVALID_WRITE);
    }
    /* That the path does not exist is what is hoped for.  Records that a failed listing leaves
     * unset count as missing. */
    (void)tirval_onedrive_path_resolve(handle, path, &target->entry, &target->parent);
    if (target->parent == nullptr || target->parent->type != TIRVAL_ONEDRIVE_FOLDER) {
        return tirval_i_onedrive_path_error("NOT_A_DIRECTORY", target->parent_path.get());
    }
    return TIRVAL_SUCCESS;
}

/* Sends a JSON body, null when the client's name is not UTF-8 and so has no JSON form, and gives
 * the answer's JSON, which must be there. */
static tirval_result_t tirval_l_onedrive_send_json(tirval_onedrive_handle_t *handle,
                                                   const char *method, const char *uri,
                                                   const tirval_i_onedrive_json_t &body,
                                                   tirval_i_onedrive_json_t *answer_out)
{
    if (body == nullptr) {
        return tirval_i_onedrive_path_error("INVALID_PATH_NAME", "<Invalid Name>");
    }
    const tirval_i_onedrive_text_t bearer(tirval_i_onedrive_bearer(handle));
    const tirval_i_onedrive_text_t text(json_dumps(body.get(), 0));
    if (bearer == nullptr || text == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    tirval_dsi_rest_key_value_t type = {"Content-Type", "application/json"};
    const tirval_dsi_rest_key_array_t headers = {1, &type};
    tirval_dsi_rest_write_block_arg_t block = {text.get(), std::strlen(text.get())};
    int repetitions = 1;
    json_t *answer = nullptr;
    tirval_i_onedrive_request_t request = {};
    request.method = method;
    request.uri = uri;
    request.bearer = bearer.get();
    request.headers = &headers;
    request.paced = true;
    request.json_explains = true;
    request.success = TIRVAL_I_ONEDRIVE_BELOW_400;
    request.idle_factor = 1;
    request.repetitions = &repetitions;
    request.write_callback = tirval_dsi_rest_write_block;
    request.write_arg = &block;
    request.json_out = &answer;
    const tirval_result_t result = tirval_i_onedrive_request(handle, &request);
    answer_out->reset(answer);
    return result == TIRVAL_SUCCESS && answer == nullptr ? tirval_i_onedrive_malloc_error()
                                                         : result;
}

/* Enters the item of an answer into the cache, in the folder at client path `parent`. */
static tirval_result_t tirval_l_onedrive_enter(tirval_onedrive_handle_t *handle,
                                               const tirval_onedrive_path_info_t *entry,
                                               const char *parent, const char *function)
{
    return tirval_onedrive_path_cache_update(&handle->cache, entry, parent) == TIRVAL_SUCCESS
               ? TIRVAL_SUCCESS
               : TIRVAL_L_ONEDRIVE_COMMAND_ERROR(function, "Failed cache update!");
}

/* ---- Making a folder ------------------------------------------------------------------------- */

static tirval_result_t tirval_l_onedrive_post_folder(tirval_onedrive_handle_t *handle,
                                                     const char *uri,
                                                     const tirval_l_onedrive_target_t &target)
{
    const tirval_i_onedrive_json_t body(json_pack("{s:s,s:{},s:s}", "name", target.name, "folder",
                                                  "@microsoft.graph.conflictBehavior", "fail"));
    tirval_i_onedrive_json_t answer;
    const tirval_result_t result = tirval_l_onedrive_send_json(handle, "POST", uri, body, &answer);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_l_onedrive_entry_t entry;
    if (tirval_onedrive_object_info_parse(answer.get(), &entry.info) != TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_COMMAND_ERROR("tirval_i_onedrive_mkdir", "Failed info_parse!");
    }
    return tirval_l_onedrive_enter(handle, &entry.info, target.parent->name,
                                   "tirval_i_onedrive_mkdir");
}

static tirval_result_t tirval_l_onedrive_make_folder(tirval_onedrive_handle_t *handle,
                                                     const char *path)
{
    tirval_l_onedrive_target_t target;
    tirval_result_t result = tirval_l_onedrive_find_target(handle, path, &target);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    char *uri = nullptr;
    result = tirval_onedrive_path_to_uri(handle, target.parent_path.get(), "/children", &uri, true);
    const tirval_i_onedrive_text_t uri_owner(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (target.entry == nullptr) {
        return tirval_l_onedrive_post_folder(handle, uri, target);
    }
    return target.entry->type == TIRVAL_ONEDRIVE_FOLDER
               ? TIRVAL_SUCCESS
               : tirval_i_onedrive_path_error("NOT_A_DIRECTORY", path);
}

void tirval_i_onedrive_mkdir(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                             void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    const tirval_result_t result = tirval_l_onedrive_make_folder(handle, info->pathname);
    tirval_gridftp_server_finished_command(op, result, info->pathname);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* ---- Deleting -------------------------------------------------------------------------------- */

void tirval_i_onedrive_delete(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                              void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    tirval_onedrive_path_info_t *path_info = nullptr;
    tirval_result_t result =
        tirval_onedrive_path_resolve(handle, info->pathname, &path_info, nullptr);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_i_onedrive_delete_object(handle, path_info, info);
    }
    tirval_gridftp_server_finished_command(op, result, nullptr);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

static tirval_result_t tirval_l_onedrive_send_delete(tirval_onedrive_handle_t *handle,
                                                     tirval_onedrive_path_info_t *path_info,
                                                     const char *path)
{
    char *uri = nullptr;
    tirval_result_t result = tirval_onedrive_path_to_uri(handle, path, nullptr, &uri, true);
    const tirval_i_onedrive_text_t uri_owner(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const tirval_i_onedrive_text_t bearer(tirval_i_onedrive_bearer(handle));
    if (bearer == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    int repetitions = 1;
    tirval_i_onedrive_request_t request = {};
    request.method = "DELETE";
    request.uri = uri;
    request.bearer = bearer.get();
    request.paced = true;
    request.success = TIRVAL_I_ONEDRIVE_ANY_ANSWERED;
    request.idle_factor = 1;
    request.repetitions = &repetitions;
    result = tirval_i_onedrive_request(handle, &request);
    /* Also after a failure: what is there now is found out by the next access. */
    tirval_onedrive_path_cache_remove(&handle->cache, path_info->name);
    return result;
}

tirval_result_t tirval_i_onedrive_delete_object(tirval_onedrive_handle_t *handle,
                                                tirval_onedrive_path_info_t *path_info,
                                                tirval_gfs_command_info_t *info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(
        tirval_l_onedrive_send_delete(handle, path_info, info->pathname));
}

/* ---- Renaming -------------------------------------------------------------------------------- */

/* Null when a text has no JSON form. */
static tirval_i_onedrive_json_t tirval_l_onedrive_metadata_body(const char *modtime,
                                                                const char *name)
{
    tirval_i_onedrive_json_t body(json_object());
    if (name != nullptr && json_object_set_new(body.get(), "name", json_string(name)) != 0) {
        return nullptr;
    }
    if (modtime != nullptr &&
        json_object_set_new(body.get(), "fileSystemInfo",
                            json_pack("{s:s}", "lastModifiedDateTime", modtime)) != 0) {
        return nullptr;
    }
    return body;
}

static tirval_result_t tirval_l_onedrive_patch(tirval_onedrive_handle_t *handle, const char *path,
                                               const tirval_i_onedrive_json_t &body,
                                               tirval_onedrive_path_info_t *entry_out)
{
    char *uri = nullptr;
    tirval_result_t result = tirval_onedrive_path_to_uri(handle, path, nullptr, &uri, false);
    const tirval_i_onedrive_text_t uri_owner(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_i_onedrive_json_t answer;
    result = tirval_l_onedrive_send_json(handle, "PATCH", uri, body, &answer);
    if (result != TIRVAL_SUCCESS || entry_out == nullptr) {
        return result;
    }
    return tirval_onedrive_object_info_parse(answer.get(), entry_out) == TIRVAL_SUCCESS
               ? TIRVAL_SUCCESS
               : TIRVAL_L_ONEDRIVE_COMMAND_ERROR("tirval_i_onedrive_update_metadata",
                                                 "Failed info_parse!");
}

tirval_result_t tirval_i_onedrive_update_metadata(tirval_onedrive_handle_t *handle,
                                                  const char *path, const char *modtime,
                                                  const char *name,
                                                  tirval_onedrive_path_info_t *entry_out)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_l_onedrive_patch(
        handle, path, tirval_l_onedrive_metadata_body(modtime, name), entry_out));
}

static tirval_result_t tirval_l_onedrive_rename(tirval_onedrive_handle_t *handle, const char *from,
                                                const char *to)
{
    tirval_onedrive_path_info_t *from_info = nullptr;
    tirval_result_t result = tirval_onedrive_path_resolve(handle, from, &from_info, nullptr);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    /* The record itself goes when the folder is listed again for the new path. */
    const tirval_i_onedrive_text_t from_key(strdup(from_info->name));
    if (from_key == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    tirval_l_onedrive_target_t target;
    result = tirval_l_onedrive_find_target(handle, to, &target);
    if (result == TIRVAL_SUCCESS && target.entry != nullptr) {
        result = tirval_i_onedrive_path_error("PATH_EXISTS", to);
    }
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_l_onedrive_entry_t entry;
    result = tirval_i_onedrive_update_metadata(handle, from, nullptr, target.name, &entry.info);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_enter(handle, &entry.info, target.parent->name,
                                         "tirval_i_onedrive_rename");
    }
    if (result == TIRVAL_SUCCESS) {
        tirval_onedrive_path_cache_remove(&handle->cache, from_key.get());
    }
    return result;
}

void tirval_i_onedrive_rename(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                              void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *handle = static_cast<tirval_onedrive_handle_t *>(user_arg);
    const tirval_result_t result =
        tirval_l_onedrive_rename(handle, info->from_pathname, info->pathname);
    tirval_gridftp_server_finished_command(op, result, nullptr);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* ---- Checksums ------------------------------------------------------------------------------- */

namespace {

enum tirval_l_onedrive_algorithm_t {
    TIRVAL_L_ONEDRIVE_MD5 = 1,
    TIRVAL_L_ONEDRIVE_SHA1 = 2,
    TIRVAL_L_ONEDRIVE_SHA256 = 3,
    TIRVAL_L_ONEDRIVE_QUICKXOR = 4,
    TIRVAL_L_ONEDRIVE_OTHER = 5 /* the host's engine knows it, or not */
};

struct tirval_l_onedrive_cksm_answer_t {
    char text[257];
};

/* Releases a checksum that was given up. */
struct tirval_l_onedrive_end_checksum_t {
    void operator()(tirval_gfs_checksum_t checksum) const noexcept
    {
        char *text = nullptr;
        (void)tirval_gfs_checksum_finalize(checksum, &text);
        std::free(text);
    }
};
using tirval_l_onedrive_checksum_t =
    std::unique_ptr<tirval_gfs_checksum_s, tirval_l_onedrive_end_checksum_t>;

/* The QuickXorHash of no content. */
const char tirval_l_onedrive_empty_quickxor[] = "AAAAAAAAAAAAAAAAAAAAAAAAAAA=";

} // namespace

static tirval_l_onedrive_algorithm_t tirval_l_onedrive_algorithm(const char *name)
{
    static const char *const names[] = {"MD5", "SHA1", "SHA256", "QuickXORHex"};
    int algorithm = TIRVAL_L_ONEDRIVE_MD5;
    for (const char *known : names) {
        if (strcasecmp(name, known) == 0) {
            break;
        }
        ++algorithm;
    }
    return static_cast<tirval_l_onedrive_algorithm_t>(algorithm);
}

/* Where the record keeps the hexadecimal hash of an algorithm; null: nowhere. */
static char **tirval_l_onedrive_hash_field(tirval_onedrive_path_info_t *info,
                                           tirval_l_onedrive_algorithm_t algorithm)
{
    switch (algorithm) {
    case TIRVAL_L_ONEDRIVE_MD5:
        return &info->md5;
    case TIRVAL_L_ONEDRIVE_SHA1:
        return &info->sha1;
    case TIRVAL_L_ONEDRIVE_SHA256:
        return &info->sha256;
    case TIRVAL_L_ONEDRIVE_QUICKXOR:
    case TIRVAL_L_ONEDRIVE_OTHER:
        break;
    }
    return nullptr;
}

static void tirval_l_onedrive_copy_hash(tirval_l_onedrive_cksm_answer_t *answer, const char *hash)
{
    std::memcpy(answer->text, hash, strnlen(hash, sizeof answer->text - 1));
}

/* Each character of the Base64 text in hexadecimal: that is the checksum's form. */
static void tirval_l_onedrive_spell_quickxor(tirval_l_onedrive_cksm_answer_t *answer,
                                             const char *base64)
{
    static const char digits[] = "0123456789abcdef";
    char *to = answer->text;
    char *const end = answer->text + sizeof answer->text - 1;
    for (; *base64 != '\0' && to < end; ++base64) {
        const auto character = static_cast<unsigned char>(*base64);
        *to++ = digits[character >> 4];
        *to++ = digits[character & 0xf];
    }
}

/* Answers from what the record holds of the whole file; false when it holds nothing. */
static bool tirval_l_onedrive_stored_checksum(tirval_onedrive_path_info_t *info,
                                              tirval_l_onedrive_algorithm_t algorithm,
                                              tirval_l_onedrive_cksm_answer_t *answer)
{
    if (algorithm == TIRVAL_L_ONEDRIVE_QUICKXOR) {
        if (info->qxr == nullptr && info->size == 0) {
            info->qxr = strdup(tirval_l_onedrive_empty_quickxor);
        }
        if (info->qxr != nullptr) {
            tirval_l_onedrive_spell_quickxor(answer, info->qxr);
        }
        return info->qxr != nullptr;
    }
    char **const field = tirval_l_onedrive_hash_field(info, algorithm);
    const bool stored = field != nullptr && *field != nullptr;
    if (stored) {
        tirval_l_onedrive_copy_hash(answer, *field);
    }
    return stored;
}

static void tirval_l_onedrive_schedule_report(tirval_i_onedrive_cksm_state_t *state)
{
    state->response_due = static_cast<int32_t>(std::time(nullptr) + state->response_freq);
}

/* Tells the client how far the checksum is, when that is due. */
static void tirval_l_onedrive_report_progress(void *state_arg)
{
    auto *state = static_cast<tirval_i_onedrive_cksm_state_t *>(state_arg);
    if (state->response_due == 0 || std::time(nullptr) < state->response_due) {
        return;
    }
    char text[128];
    (void)std::snprintf(text, sizeof text, "%ld", static_cast<long>(state->total_bytes));
    tirval_gridftp_server_intermediate_command(state->op, TIRVAL_SUCCESS, text);
    tirval_l_onedrive_schedule_report(state);
}

tirval_result_t tirval_i_onedrive_cksm_cb(void *callback_arg, void *buffer, size_t buffer_length)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    auto *state = static_cast<tirval_i_onedrive_cksm_state_t *>(callback_arg);
    state->total_bytes += static_cast<tirval_off_t>(buffer_length);
    tirval_l_onedrive_report_progress(state);
    return tirval_gfs_checksum_update(state->ctx, buffer, buffer_length);
}

/* Feeds the checksum from downloads.  A positive length never comes to an end but by a failure. */
static tirval_result_t tirval_l_onedrive_feed_checksum(tirval_onedrive_handle_t *handle,
                                                       const tirval_gfs_command_info_t *info,
                                                       tirval_i_onedrive_cksm_state_t *state)
{
    if (info->cksm_length == 0) {
        return TIRVAL_SUCCESS;
    }
    tirval_i_onedrive_content_t content = {};
    content.offset = info->cksm_offset;
    content.length = info->cksm_length;
    content.paced_download = true;
    content.read_callback = tirval_i_onedrive_cksm_cb;
    content.read_arg = state;
    content.before_attempt = tirval_l_onedrive_report_progress;
    content.attempt_arg = state;
    tirval_result_t result = TIRVAL_SUCCESS;
    do {
        result = tirval_i_onedrive_fetch_content(handle, info->pathname, &content);
    } while (result == TIRVAL_SUCCESS && info->cksm_length > 0);
    return result;
}

/* Computes a checksum; `*text` belongs to the caller. */
static tirval_result_t tirval_l_onedrive_compute_checksum(tirval_gfs_operation_t op,
                                                          tirval_onedrive_handle_t *handle,
                                                          const tirval_gfs_command_info_t *info,
                                                          tirval_i_onedrive_text_t *text)
{
    tirval_i_onedrive_cksm_state_t state = {};
    state.op = op;
    tirval_gridftp_server_get_update_interval(op, &state.response_freq);
    if (state.response_freq > 0) {
        tirval_l_onedrive_schedule_report(&state);
    }
    tirval_result_t result = tirval_gfs_checksum_init(info->cksm_alg, &state.ctx);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_l_onedrive_checksum_t checksum(state.ctx);
    result = tirval_l_onedrive_feed_checksum(handle, info, &state);
    if (result == TIRVAL_SUCCESS) {
        char *computed = nullptr;
        result = tirval_gfs_checksum_finalize(checksum.release(), &computed);
        text->reset(computed);
    }
    return result;
}

static tirval_result_t tirval_l_onedrive_checksum(tirval_gfs_operation_t op,
                                                  tirval_onedrive_handle_t *handle,
                                                  const tirval_gfs_command_info_t *info,
                                                  tirval_l_onedrive_cksm_answer_t *answer)
{
    const tirval_l_onedrive_algorithm_t algorithm = tirval_l_onedrive_algorithm(info->cksm_alg);
    tirval_onedrive_path_info_t *path_info = nullptr;
    tirval_result_t result =
        tirval_onedrive_path_resolve(handle, info->pathname, &path_info, nullptr);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const bool whole = info->cksm_offset == 0 && info->cksm_length == -1;
    if (whole && tirval_l_onedrive_stored_checksum(path_info, algorithm, answer)) {
        return TIRVAL_SUCCESS;
    }
    tirval_i_onedrive_text_t text;
    result = tirval_l_onedrive_compute_checksum(op, handle, info, &text);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_l_onedrive_copy_hash(answer, text.get());
    /* The record is still there: a download lists no folder, as the path's are in the cache. */
    char **const field = tirval_l_onedrive_hash_field(path_info, algorithm);
    if (field != nullptr) {
        std::free(*field);
        *field = text.release();
    }
    return TIRVAL_SUCCESS;
}

void tirval_i_onedrive_cksm(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                            void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_l_onedrive_cksm_answer_t answer = {};
    const tirval_result_t result = tirval_l_onedrive_checksum(
        op, static_cast<tirval_onedrive_handle_t *>(user_arg), info, &answer);
    tirval_gridftp_server_finished_command(op, result,
                                           answer.text[0] == '\0' ? nullptr : answer.text);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
