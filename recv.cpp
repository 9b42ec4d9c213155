/*
 * The recv entry: a client stores a file.  A small file goes up with one request; a larger one in
 * parts through an upload session, which a later store may continue.  Both end with a look for data
 * beyond what the client announced.
 */
#include "tirval_onedrive_common.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

/* Bytes of the largest file that goes up with one request. */
constexpr tirval_off_t tirval_l_onedrive_simple_limit = 4194304;
constexpr uint64_t tirval_l_onedrive_part_size = 10485760;

/* What the storing thread and the probe for more data share. */
struct tirval_l_recv_monitor_t {
    const char *path; /* for the error report; may be null */
    tirval_mutex_t mutex;
    tirval_cond_t cond;
    tirval_result_t result;
};

/* A monitor that is ready for use while this lives. */
struct tirval_l_onedrive_live_monitor_t {
    tirval_l_recv_monitor_t monitor = {};

    tirval_l_onedrive_live_monitor_t()
    {
        tirval_mutex_init(&monitor.mutex, nullptr);
        tirval_cond_init(&monitor.cond, nullptr);
    }
    tirval_l_onedrive_live_monitor_t(const tirval_l_onedrive_live_monitor_t &) = delete;
    tirval_l_onedrive_live_monitor_t &operator=(const tirval_l_onedrive_live_monitor_t &) = delete;
    ~tirval_l_onedrive_live_monitor_t()
    {
        tirval_cond_destroy(&monitor.cond);
        tirval_mutex_destroy(&monitor.mutex);
    }
};

/* One running store. */
struct tirval_l_onedrive_store_t {
    tirval_gfs_operation_t op;
    tirval_onedrive_handle_t *handle;
    const tirval_gfs_transfer_info_t *info;
    const tirval_onedrive_path_info_t *parent;
    const char *function; /* in whose name errors are made */
};

struct tirval_l_onedrive_time_text_t {
    bool given; /* the client asked for a time */
    char text[64];
};

using tirval_l_onedrive_upload_t = std::unique_ptr<tirval_onedrive_upload_session_t,
                                                   decltype(&tirval_onedrive_upload_session_free)>;

} // namespace

#define TIRVAL_L_ONEDRIVE_STORE_ERROR(store, message)                                              \
    tirval_i_onedrive_answer_error("recv", (store).function, __LINE__, (message))

/* ---- Refusals -------------------------------------------------------------------------------- */

static tirval_result_t tirval_l_onedrive_refuse_offset(void)
{
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, 553, "APPEND_NOT_SUPPORTED", nullptr));
}

static tirval_result_t tirval_l_onedrive_refuse_size(const tirval_dsi_rest_key_array_t *info)
{
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, tirval_onedrive_error_construct(nullptr, nullptr, info), 451, "QUOTA_EXCEEDED",
        nullptr));
}

static tirval_result_t tirval_l_onedrive_too_large(const char *path, tirval_off_t size,
                                                   uint64_t limit)
{
    char size_text[64];
    char limit_text[64];
    std::snprintf(size_text, sizeof size_text, "%ld", static_cast<long>(size));
    std::snprintf(limit_text, sizeof limit_text, "%ld", static_cast<long>(limit));
    tirval_dsi_rest_key_value_t pairs[] = {{"OneDrive-Path", path},
                                           {"OneDrive-Upload-Size", size_text},
                                           {"OneDrive-Max-Upload-Size", limit_text},
                                           {"OneDrive-Error", "Upload size is too large."}};
    const tirval_dsi_rest_key_array_t info = {4, pairs};
    return tirval_l_onedrive_refuse_size(&info);
}

static tirval_result_t tirval_l_onedrive_too_much(const char *path)
{
    tirval_dsi_rest_key_value_t pairs[] = {{"OneDrive-Path", path},
                                           {"OneDrive-Error", "Too much data was sent."}};
    const tirval_dsi_rest_key_array_t info = {2, pairs};
    return tirval_l_onedrive_refuse_size(&info);
}

/* The range that the client writes must be the whole file, or its rest. */
static tirval_result_t tirval_l_onedrive_write_offset(const tirval_l_onedrive_store_t &store,
                                                      tirval_off_t *offset)
{
    tirval_off_t length = 0;
    tirval_gridftp_server_get_write_range(store.op, offset, &length);
    return length == -1 || length == store.info->alloc_size ? TIRVAL_SUCCESS
                                                            : tirval_l_onedrive_refuse_offset();
}

static tirval_result_t tirval_l_onedrive_demand_folder(const tirval_onedrive_path_info_t *parent)
{
    return parent->type == TIRVAL_ONEDRIVE_FOLDER
               ? TIRVAL_SUCCESS
               : tirval_i_onedrive_path_error("NOT_A_DIRECTORY", parent->name);
}

/* ---- The probe for more data ----------------------------------------------------------------- */

extern "C" {
static void tirval_l_eof_read_cb(tirval_gfs_operation_t op, tirval_result_t result,
                                 // NOLINTNEXTLINE(readability-non-const-parameter): the host's
                                 tirval_byte_t *buffer, tirval_size_t nbytes, tirval_off_t offset,
                                 bool eof, void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    (void)op;
    (void)buffer;
    (void)nbytes;
    (void)offset;
    auto *monitor = static_cast<tirval_l_recv_monitor_t *>(user_arg);
    tirval_mutex_lock(&monitor->mutex);
    monitor->result =
        !eof && result == TIRVAL_SUCCESS ? tirval_l_onedrive_too_much(monitor->path) : result;
    tirval_cond_signal(&monitor->cond);
    tirval_mutex_unlock(&monitor->mutex);
    TIRVAL_ONEDRIVE_LOG_EXIT();
}
}

/*
 * Fails when the client sends more than it announced.  The mutex is held from before the
 * registration, so that the one signal meets the one wait.  A read that the host refuses tells
 * nothing: the host then knows itself what became of the transfer.
 */
static tirval_result_t tirval_l_onedrive_probe(tirval_gfs_operation_t op,
                                               const tirval_dsi_rest_gridftp_op_arg_t &content,
                                               tirval_l_recv_monitor_t *monitor)
{
    if (content.eof) {
        return TIRVAL_SUCCESS;
    }
    tirval_byte_t scratch = 0;
    tirval_mutex_lock(&monitor->mutex);
    if (tirval_gridftp_server_register_read(op, &scratch, 1, tirval_l_eof_read_cb, monitor) ==
        TIRVAL_SUCCESS) {
        tirval_cond_wait(&monitor->cond, &monitor->mutex);
    }
    const tirval_result_t result = monitor->result;
    tirval_mutex_unlock(&monitor->mutex);
    return result;
}

/* ---- Requests and their answers -------------------------------------------------------------- */

/* A request of a store: up to three attempts, and an answer that must be JSON. */
static tirval_result_t tirval_l_onedrive_ask(tirval_onedrive_handle_t *handle,
                                             tirval_i_onedrive_request_t *request,
                                             tirval_i_onedrive_json_t *answer)
{
    int repetitions = 2;
    json_t *json = nullptr;
    request->json_explains = true;
    request->success = TIRVAL_I_ONEDRIVE_BELOW_400;
    request->repetitions = &repetitions;
    request->json_out = &json;
    const tirval_result_t result = tirval_i_onedrive_request(handle, request);
    answer->reset(json);
    return result == TIRVAL_SUCCESS && json == nullptr ? tirval_i_onedrive_malloc_error() : result;
}

/* Sends content of the client's.  It is not metered like other requests, and waits longer for a
 * peer that does not move. */
static tirval_result_t tirval_l_onedrive_put_content(tirval_onedrive_handle_t *handle,
                                                     const char *uri, const char *bearer,
                                                     const tirval_dsi_rest_key_array_t *headers,
                                                     tirval_dsi_rest_gridftp_op_arg_t *content,
                                                     tirval_i_onedrive_json_t *answer)
{
    tirval_i_onedrive_request_t request = {};
    request.method = "PUT";
    request.uri = uri;
    request.bearer = bearer;
    request.headers = headers;
    request.paced = false;
    request.idle_factor = 2;
    request.write_callback = tirval_dsi_rest_write_gridftp_op;
    request.write_arg = content;
    return tirval_l_onedrive_ask(handle, &request, answer);
}

static tirval_result_t tirval_l_onedrive_enter(const tirval_l_onedrive_store_t &store,
                                               const tirval_onedrive_path_info_t *entry)
{
    return tirval_onedrive_path_cache_update(&store.handle->cache, entry, store.parent->name) ==
                   TIRVAL_SUCCESS
               ? TIRVAL_SUCCESS
               : TIRVAL_L_ONEDRIVE_STORE_ERROR(store, "Failed cache update!");
}

/* Enters the stored item, as Graph describes it, into the cache. */
static tirval_result_t tirval_l_onedrive_enter_answer(const tirval_l_onedrive_store_t &store,
                                                      json_t *item)
{
    tirval_onedrive_path_info_t entry = {};
    const std::unique_ptr<tirval_onedrive_path_info_t, decltype(&tirval_onedrive_path_info_free)>
        texts(&entry, &tirval_onedrive_path_info_free);
    if (tirval_onedrive_object_info_parse(item, &entry) != TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_STORE_ERROR(store, "Failed info_parse!");
    }
    return tirval_l_onedrive_enter(store, &entry);
}

/* The modification time that the client asked for, as Graph writes times (ISO 8601). */
static tirval_result_t tirval_l_onedrive_wanted_time(tirval_gfs_operation_t op,
                                                     tirval_l_onedrive_time_text_t *wanted)
{
    time_t modtime = -1;
    const tirval_result_t result = tirval_gridftp_server_get_recv_modification_time(op, &modtime);
    wanted->given = result == TIRVAL_SUCCESS && modtime != -1;
    if (!wanted->given) {
        return result;
    }
    tm utc = {};
    if (gmtime_r(&modtime, &utc) == nullptr) {
        return tirval_i_onedrive_system_error("gmtime_r");
    }
    std::snprintf(wanted->text, sizeof wanted->text, "%04d-%02d-%02dT%02d:%02d:%02dZ",
                  utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                  utc.tm_sec);
    return TIRVAL_SUCCESS;
}

/* ---- Small files ----------------------------------------------------------------------------- */

/* What must hold before data flows, and what the request needs. */
static tirval_result_t tirval_l_onedrive_prepare_simple(const tirval_l_onedrive_store_t &store,
                                                        tirval_i_onedrive_text_t *uri_out,
                                                        tirval_i_onedrive_text_t *bearer_out)
{
    tirval_off_t offset = 0;
    tirval_result_t result = tirval_l_onedrive_write_offset(store, &offset);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_demand_folder(store.parent);
    }
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    char *uri = nullptr;
    result =
        tirval_onedrive_path_to_uri(store.handle, store.info->pathname, "/content", &uri, true);
    uri_out->reset(uri);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    bearer_out->reset(tirval_i_onedrive_bearer(store.handle));
    if (*bearer_out == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    return offset == 0 ? TIRVAL_SUCCESS : tirval_l_onedrive_refuse_offset();
}

/* Gives the stored file the client's time, if there is one. */
static tirval_result_t tirval_l_onedrive_set_time(const tirval_l_onedrive_store_t &store)
{
    tirval_l_onedrive_time_text_t wanted = {};
    tirval_result_t result = tirval_l_onedrive_wanted_time(store.op, &wanted);
    if (result != TIRVAL_SUCCESS || !wanted.given) {
        return result;
    }
    tirval_onedrive_path_info_t entry = {};
    const std::unique_ptr<tirval_onedrive_path_info_t, decltype(&tirval_onedrive_path_info_free)>
        texts(&entry, &tirval_onedrive_path_info_free);
    result = tirval_i_onedrive_update_metadata(store.handle, store.info->pathname, wanted.text,
                                               nullptr, &entry);
    return result == TIRVAL_SUCCESS ? tirval_l_onedrive_enter(store, &entry) : result;
}

static tirval_result_t tirval_l_onedrive_store_simple(const tirval_l_onedrive_store_t &store)
{
    tirval_l_onedrive_live_monitor_t live;
    tirval_i_onedrive_text_t uri;
    tirval_i_onedrive_text_t bearer;
    tirval_result_t result = tirval_l_onedrive_prepare_simple(store, &uri, &bearer);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_gridftp_server_begin_transfer(store.op, 0, nullptr);
    tirval_dsi_rest_gridftp_op_arg_t content = {store.op, 0, store.info->alloc_size, false};
    tirval_i_onedrive_json_t item;
    result = tirval_l_onedrive_put_content(store.handle, uri.get(), bearer.get(), nullptr, &content,
                                           &item);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_enter_answer(store, item.get());
    }
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_set_time(store);
    }
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_probe(store.op, content, &live.monitor);
    }
    return result;
}

tirval_result_t tirval_i_onedrive_recv_simple(tirval_gfs_operation_t op,
                                              tirval_gfs_transfer_info_t *info,
                                              tirval_onedrive_handle_t *handle,
                                              tirval_onedrive_path_info_t *parent)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(
        tirval_l_onedrive_store_simple({op, handle, info, parent, __func__}));
}

/* ---- Upload sessions ------------------------------------------------------------------------- */

/* Takes a member of an answer's, when it has it. */
static void tirval_l_onedrive_take_text(json_t *json, const char *key, char **field)
{
    const char *text = nullptr;
    if (json_unpack(json, "{s:s}", key, &text) != 0) {
        return;
    }
    char *copy = strdup(text);
    if (copy != nullptr) {
        std::free(*field);
        *field = copy;
    }
}

tirval_result_t tirval_onedrive_upload_session_parse(json_t *json,
                                                     tirval_onedrive_upload_session_t *info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_l_onedrive_take_text(json, "uploadUrl", &info->url);
    tirval_l_onedrive_take_text(json, "expirationDateTime", &info->exp);
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}

/* The request's body: what the item is to be.  An existing file is replaced.  A name that is not
 * UTF-8 has no JSON form. */
static tirval_result_t tirval_l_onedrive_session_body(const tirval_l_onedrive_store_t &store,
                                                      tirval_i_onedrive_text_t *body)
{
    const char *name = std::strrchr(store.info->pathname, '/');
    TIRVAL_ASSERT(name != NULL);
    ++name;
    tirval_l_onedrive_time_text_t wanted = {};
    const tirval_result_t result = tirval_l_onedrive_wanted_time(store.op, &wanted);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    json_t *times =
        wanted.given ? json_pack("{s:s}", "lastModifiedDateTime", wanted.text) : nullptr;
    const tirval_i_onedrive_json_t json(json_pack("{s:{s:s,s:o*,s:s}}", "item",
                                                  "@microsoft.graph.conflictBehavior", "replace",
                                                  "fileSystemInfo", times, "name", name));
    if (json == nullptr) {
        return tirval_i_onedrive_path_error("INVALID_PATH_NAME", "<Invalid Name>");
    }
    body->reset(json_dumps(json.get(), 0));
    return *body == nullptr ? tirval_i_onedrive_malloc_error() : TIRVAL_SUCCESS;
}

/* Asks Graph for a session. */
static tirval_result_t tirval_l_onedrive_open_session(const tirval_l_onedrive_store_t &store,
                                                      tirval_i_onedrive_json_t *answer)
{
    tirval_result_t result = tirval_l_onedrive_demand_folder(store.parent);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    char *uri = nullptr;
    result = tirval_onedrive_path_to_uri(store.handle, store.info->pathname, "/createUploadSession",
                                         &uri, true);
    const tirval_i_onedrive_text_t uri_owner(uri);
    tirval_i_onedrive_text_t body;
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_session_body(store, &body);
    }
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const tirval_i_onedrive_text_t bearer(tirval_i_onedrive_bearer(store.handle));
    if (bearer == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    tirval_dsi_rest_write_block_arg_t block = {body.get(), std::strlen(body.get())};
    char length[20];
    std::snprintf(length, sizeof length, "%lu", static_cast<unsigned long>(block.block_length));
    tirval_dsi_rest_key_value_t own[] = {{"Content-Type", "application/json"},
                                         {"Content-Length", length}};
    const tirval_dsi_rest_key_array_t headers = {2, own};
    tirval_i_onedrive_request_t request = {};
    request.method = "POST";
    request.uri = uri;
    request.bearer = bearer.get();
    request.headers = &headers;
    request.paced = true;
    request.idle_factor = 1;
    request.write_callback = tirval_dsi_rest_write_block;
    request.write_arg = &block;
    return tirval_l_onedrive_ask(store.handle, &request, answer);
}

/* The record of a session that Graph has opened. */
static tirval_result_t tirval_l_onedrive_session_record(const tirval_l_onedrive_store_t &store,
                                                        json_t *answer,
                                                        tirval_l_onedrive_upload_t *record_out)
{
    tirval_l_onedrive_upload_t record(static_cast<tirval_onedrive_upload_session_t *>(
                                          std::calloc(1, sizeof(tirval_onedrive_upload_session_t))),
                                      &tirval_onedrive_upload_session_free);
    if (record == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    if (tirval_onedrive_upload_session_parse(answer, record.get()) != TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_STORE_ERROR(store, "Failed to parse session info!");
    }
    record->name = strdup(store.info->pathname);
    record->total_size = static_cast<uint64_t>(store.info->alloc_size);
    record->part_size = tirval_l_onedrive_part_size;
    record->num_parts =
        static_cast<int32_t>((record->total_size + record->part_size - 1) / record->part_size);
    record->part_array = json_array();
    if (record->name == nullptr || record->part_array == nullptr) {
        return tirval_i_onedrive_malloc_error();
    }
    *record_out = std::move(record);
    return TIRVAL_SUCCESS;
}

static tirval_result_t tirval_l_onedrive_new_session(const tirval_l_onedrive_store_t &store,
                                                     tirval_onedrive_upload_session_t **upload)
{
    tirval_i_onedrive_json_t answer;
    tirval_l_onedrive_upload_t record(nullptr, &tirval_onedrive_upload_session_free);
    tirval_result_t result = tirval_l_onedrive_open_session(store, &answer);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_l_onedrive_session_record(store, answer.get(), &record);
    }
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    if (tirval_onedrive_upload_state_update(&store.handle->upload_state, record.get(),
                                            record->name) != TIRVAL_SUCCESS) {
        return TIRVAL_L_ONEDRIVE_STORE_ERROR(store, "Failed cache update!");
    }
    *upload = record.release(); /* the table's now */
    return TIRVAL_SUCCESS;
}

tirval_result_t tirval_i_onedrive_create_upload_session(tirval_onedrive_handle_t *handle,
                                                        tirval_gfs_operation_t op,
                                                        tirval_gfs_transfer_info_t *info,
                                                        tirval_onedrive_path_info_t *parent,
                                                        tirval_onedrive_upload_session_t **upload)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(
        tirval_l_onedrive_new_session({op, handle, info, parent, __func__}, upload));
}

/* ---- Parts ----------------------------------------------------------------------------------- */

/* Where the client's data begins: at 0, or where an earlier store's parts ended. */
static tirval_result_t tirval_l_onedrive_first_part(const tirval_l_onedrive_store_t &store,
                                                    const tirval_onedrive_upload_session_t *upload,
                                                    uint64_t *first)
{
    tirval_off_t offset = 0;
    const tirval_result_t result = tirval_l_onedrive_write_offset(store, &offset);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const auto start = static_cast<uint64_t>(offset);
    *first = start / upload->part_size;
    return start % upload->part_size == 0 ? TIRVAL_SUCCESS : tirval_l_onedrive_refuse_offset();
}

/* Sends one part (RFC 9110, section 14.4: Content-Range).  The session's address carries its own
 * authorisation, so the token never goes there. */
static tirval_result_t tirval_l_onedrive_put_part(const tirval_l_onedrive_store_t &store,
                                                  const tirval_onedrive_upload_session_t *upload,
                                                  tirval_dsi_rest_gridftp_op_arg_t *content,
                                                  tirval_i_onedrive_json_t *answer)
{
    char length[20];
    char range[77];
    std::snprintf(length, sizeof length, "%ld", static_cast<long>(content->length));
    std::snprintf(range, sizeof range, "bytes %ld-%ld/%ld", static_cast<long>(content->offset),
                  static_cast<long>(content->offset + content->length - 1),
                  static_cast<long>(upload->total_size));
    tirval_dsi_rest_key_value_t own[] = {
        {"Transfer-Encoding", ""}, {"Content-Length", length}, {"Content-Range", range}};
    const tirval_dsi_rest_key_array_t headers = {3, own};
    return tirval_l_onedrive_put_content(store.handle, upload->url, nullptr, &headers, content,
                                         answer);
}

/* Whether the answer to a part is the session's state, as it is for all parts but the last. */
static bool tirval_l_onedrive_is_session_state(json_t *answer)
{
    const char *expiration = nullptr;
    return json_unpack(answer, "{s:s}", "expirationDateTime", &expiration) == 0;
}

/* Sends the parts from `first` on; `content` is the last one's at the end.  What is wrong with a
 * part's answer counts only when the last part does not end well. */
static tirval_result_t tirval_l_onedrive_send_parts(const tirval_l_onedrive_store_t &store,
                                                    const tirval_onedrive_upload_session_t *upload,
                                                    uint64_t first,
                                                    tirval_dsi_rest_gridftp_op_arg_t *content)
{
    const auto count = static_cast<uint64_t>(upload->num_parts);
    tirval_result_t pending = TIRVAL_SUCCESS;
    for (uint64_t part = first; part < count; ++part) {
        const uint64_t offset = part * upload->part_size;
        const uint64_t length = std::min(upload->part_size, upload->total_size - offset);
        *content = {store.op, static_cast<tirval_off_t>(offset), static_cast<tirval_off_t>(length),
                    false};
        tirval_i_onedrive_json_t answer;
        tirval_result_t result = tirval_l_onedrive_put_part(store, upload, content, &answer);
        if (result != TIRVAL_SUCCESS) {
            return result;
        }
        if (part + 1 == count) {
            pending = tirval_l_onedrive_enter_answer(store, answer.get());
        } else if (!tirval_l_onedrive_is_session_state(answer.get())) {
            pending = TIRVAL_L_ONEDRIVE_STORE_ERROR(store, "invalid part upload response");
        }
    }
    return pending;
}

static tirval_result_t tirval_l_onedrive_store_parts(const tirval_l_onedrive_store_t &store,
                                                     const tirval_onedrive_upload_session_t *upload)
{
    tirval_l_onedrive_live_monitor_t live;
    uint64_t first = 0;
    tirval_result_t result = tirval_l_onedrive_first_part(store, upload, &first);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_gridftp_server_begin_transfer(store.op, 0, nullptr);
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the first part was found in the record
    if (first >= static_cast<uint64_t>(upload->num_parts)) {
        return TIRVAL_FAILURE;
    }
    tirval_dsi_rest_gridftp_op_arg_t content = {};
    result = tirval_l_onedrive_send_parts(store, upload, first, &content);
    return result == TIRVAL_SUCCESS ? tirval_l_onedrive_probe(store.op, content, &live.monitor)
                                    : result;
}

tirval_result_t tirval_i_onedrive_upload_parts(tirval_gfs_operation_t op,
                                               tirval_onedrive_handle_t *handle,
                                               tirval_gfs_transfer_info_t *info,
                                               tirval_onedrive_path_info_t *parent,
                                               tirval_onedrive_upload_session_t *upload)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(
        tirval_l_onedrive_store_parts({op, handle, info, parent, __func__}, upload));
}

/* ---- Large files ----------------------------------------------------------------------------- */

/* The session that an earlier store of the path has left.  The table also holds the virtual
 * folders, which are none: they have no parts. */
static tirval_result_t tirval_l_onedrive_earlier_session(tirval_onedrive_handle_t *handle,
                                                         const char *path,
                                                         tirval_onedrive_upload_session_t **upload)
{
    *upload = tirval_onedrive_upload_state_query(&handle->upload_state, path);
    return *upload != nullptr && (*upload)->part_size != 0
               ? TIRVAL_SUCCESS
               : tirval_error_put(tirval_gfs_ftp_response_error_construct(
                     nullptr, nullptr, 553, "MULTI_PART_UPLOAD_NOT_FOUND", nullptr));
}

tirval_result_t tirval_i_onedrive_recv_chunked(tirval_gfs_operation_t op,
                                               tirval_gfs_transfer_info_t *info,
                                               tirval_onedrive_handle_t *handle,
                                               tirval_onedrive_path_info_t *parent)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_onedrive_upload_session_t *upload = nullptr;
    tirval_result_t result =
        info->truncate ? tirval_i_onedrive_create_upload_session(handle, op, info, parent, &upload)
                       : tirval_l_onedrive_earlier_session(handle, info->pathname, &upload);
    if (result == TIRVAL_SUCCESS) {
        result = tirval_i_onedrive_upload_parts(op, handle, info, parent, upload);
        if (result == TIRVAL_SUCCESS) {
            tirval_onedrive_upload_state_remove(&handle->upload_state, info->pathname);
        }
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

/* ---- The entry ------------------------------------------------------------------------------- */

static tirval_result_t tirval_l_onedrive_recv(tirval_gfs_operation_t op,
                                              tirval_gfs_transfer_info_t *info,
                                              tirval_onedrive_handle_t *handle)
{
    tirval_result_t result = tirval_onedrive_update_token(handle, op);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_onedrive_path_info_t *path_info = nullptr;
    tirval_onedrive_path_info_t *parent_info = nullptr;
    result = tirval_onedrive_path_resolve(handle, info->pathname, &path_info, &parent_info);
    if (parent_info == nullptr) {
        return result;
    }
    /* A negative size counts as one that is too large. */
    if (static_cast<uint64_t>(info->alloc_size) > handle->max_upload) {
        return tirval_l_onedrive_too_large(info->pathname, info->alloc_size, handle->max_upload);
    }
    return info->alloc_size <= tirval_l_onedrive_simple_limit
               ? tirval_i_onedrive_recv_simple(op, info, handle, parent_info)
               : tirval_i_onedrive_recv_chunked(op, info, handle, parent_info);
}

void tirval_i_onedrive_recv(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *transfer_info,
                            void *user_arg)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const tirval_result_t result = tirval_l_onedrive_recv(
        op, transfer_info, static_cast<tirval_onedrive_handle_t *>(user_arg));
    tirval_gridftp_server_finished_transfer(op, result);
    TIRVAL_ONEDRIVE_LOG_RESULT(result);
}
