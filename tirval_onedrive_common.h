/*
 * What the plug-in's sources share: its records, tunables and functions.
 *
 * Rules that hold throughout:
 *   - Texts returned to a caller are fresh malloc() copies that the caller frees; records that the
 *     path cache returns are borrowed; JSON values are released by whoever fetched them.
 *   - Client paths are absolute and "/"-separated, compared as exact bytes.
 *   - Times are seconds since the epoch, UTC; Graph's are ISO 8601 texts.
 *   - A session's records are used by one thread at a time and have no lock.
 *   - Results are put into the runtime's error table and never released here: the host does so.
 *
 * The order of the records' fields is part of the design (see the assertions below).
 */
#ifndef TIRVAL_ONEDRIVE_COMMON_H
#define TIRVAL_ONEDRIVE_COMMON_H

#include "tirval_common.h"
#include "tirval_dsi_rest.h"
#include "tirval_gridftp_server.h"

#include <jansson.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

/* ---- Owners of what must be released -------------------------------------------------------- */

struct tirval_i_onedrive_release_t {
    void operator()(char *text) const noexcept { std::free(text); }
    void operator()(json_t *json) const noexcept { json_decref(json); }
};
using tirval_i_onedrive_text_t = std::unique_ptr<char, tirval_i_onedrive_release_t>;
using tirval_i_onedrive_json_t = std::unique_ptr<json_t, tirval_i_onedrive_release_t>;

extern "C" {

/* ---- Debug channel -------------------------------------------------------------------------- */

enum {
    TIRVAL_ONEDRIVE_TRACE = 1,
    TIRVAL_ONEDRIVE_DEBUG = 2,
    TIRVAL_ONEDRIVE_INFO = 4,
    TIRVAL_ONEDRIVE_WARN = 8,
    TIRVAL_ONEDRIVE_ERROR = 16,
    TIRVAL_ONEDRIVE_ALL = 31
};

/* Set up from TIRVAL_ONEDRIVE_DEBUG when the module is activated; see tirval_debug_init(). */
TIRVAL_API extern tirval_debug_handle_t tirval_i_TIRVAL_ONEDRIVE_debug_handle;

/* A level's name, indexed by the level's bit value; every other index is null. */
TIRVAL_API extern const char *tirval_i_onedrive_debug_level_names[17];

/* Printers to the channel's stream; they do nothing while it is off. */
TIRVAL_API void tirval_i_TIRVAL_ONEDRIVE_debug_printf(const char *format, ...) TIRVAL_PRINTF(1, 2);
TIRVAL_API void tirval_i_TIRVAL_ONEDRIVE_debug_time_printf(const char *format, ...)
    TIRVAL_PRINTF(1, 2);
TIRVAL_API void tirval_i_TIRVAL_ONEDRIVE_debug_fwrite(const void *data, size_t size, size_t count);

/* Opens a line: when `level` is enabled, locks the stream, writes the prefix and returns true; the
 * message and tirval_i_onedrive_log_end() must follow. */
TIRVAL_API bool tirval_i_onedrive_log_begin(uint32_t level, const char *function);
TIRVAL_API void tirval_i_onedrive_log_end(void);

/* One line of the channel, in the name of `function`. */
#define TIRVAL_ONEDRIVE_LOG_AS(level, function, ...)                                               \
    do {                                                                                           \
        if (tirval_i_onedrive_log_begin((level), (function))) {                                    \
            tirval_i_TIRVAL_ONEDRIVE_debug_printf(__VA_ARGS__);                                    \
            tirval_i_onedrive_log_end();                                                           \
        }                                                                                          \
    } while (0)
/* One line of the channel, from the function that stands around it. */
#define TIRVAL_ONEDRIVE_LOG(level, ...) TIRVAL_ONEDRIVE_LOG_AS((level), __func__, __VA_ARGS__)
#define TIRVAL_ONEDRIVE_LOG_ENTER() TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_TRACE, "enter\n")
#define TIRVAL_ONEDRIVE_LOG_EXIT() TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_TRACE, "exit\n")
/* The exit line of a function with a result: success at TRACE, a failure with its cause chain at
 * ERROR.  Evaluates to the result, so that "return TIRVAL_ONEDRIVE_LOG_RESULT(result);" reads on.
 */
#define TIRVAL_ONEDRIVE_LOG_RESULT(result) tirval_i_onedrive_log_result((result), __func__)
TIRVAL_API tirval_result_t tirval_i_onedrive_log_result(tirval_result_t result,
                                                        const char *function);

/* ---- Modules, interface table and tunables --------------------------------------------------- */

TIRVAL_API extern tirval_module_descriptor_t tirval_gridftp_server_onedrive_module;
TIRVAL_API extern tirval_module_descriptor_t tirval_i_onedrive_common_module;

/* The longest sleep, in seconds, that a Retry-After is followed for. */
TIRVAL_API extern int32_t tirval_i_onedrive_max_delay;
/* Graph requests a second for one user; a session's storage policy may change it for the process.
 */
TIRVAL_API extern int32_t tirval_i_onedrive_api_per_second;
/* Published settings that no operation reads. */
TIRVAL_API extern int32_t tirval_i_onedrive_max_retries;
TIRVAL_API extern int32_t tirval_i_onedrive_chunked_minimum;
/* Milliseconds without progress after which a request is given up. */
TIRVAL_API extern int32_t tirval_i_onedrive_progress_timeout_ms;
/* Where the per-user state files lie: templates for tirval_onedrive_evaluate_path(). */
TIRVAL_API extern const char *tirval_i_onedrive_upload_path;
TIRVAL_API extern const char *tirval_i_onedrive_retry_path;
/* The Graph service's base URL, without a slash at the end.  Taken from the environment variable
 * TIRVAL_ONEDRIVE_GRAPH_URL when the module is activated. */
TIRVAL_API extern const char *tirval_i_onedrive_graph_url;
/* Takes the variable: an http or https URL with a host and no query, plain http to this machine
 * only.  Unset gives the public service, and so does a value that cannot be used (an ERROR line
 * tells). */
TIRVAL_API void tirval_i_onedrive_graph_url_load(void);

/* ---- Error object with info pairs ------------------------------------------------------------ */

/* An error that holds key/value pairs; its instance data is a tirval_dsi_rest_key_array_t that owns
 * its pairs and their texts. */
TIRVAL_API extern const tirval_object_type_t tirval_i_onedrive_error_type;
#define TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION (&tirval_i_onedrive_error_type)

/*
 * A new error object with copies of `error_info`'s pairs (null: none), or null when memory ran out.
 * `base_source` and `base_cause` are accepted and not kept; both are usually null.
 */
TIRVAL_API tirval_object_t *
tirval_onedrive_error_construct(const tirval_module_descriptor_t *base_source,
                                tirval_object_t *base_cause,
                                const tirval_dsi_rest_key_array_t *error_info);
/* Gives an object of the type its pairs.  Returns it, or null (it stays the caller's) when it is of
 * another type or memory ran out. */
TIRVAL_API tirval_object_t *tirval_onedrive_error_initialize(
    tirval_object_t *error, const tirval_module_descriptor_t *base_source,
    tirval_object_t *base_cause, const tirval_dsi_rest_key_array_t *error_info);
/* The value of the first pair named `key` in the first object of the type along `error`'s chain of
 * causes, or null.  Belongs to the object. */
TIRVAL_API const char *tirval_onedrive_error_get_info(tirval_object_t *error, const char *key);
/* Adds a copy of the pair whose key the object lacks; a present key keeps its value.  A call that
 * brings more than one such pair adds none, nor does one whose new pair lacks its value or for
 * which memory runs out. */
TIRVAL_API void tirval_onedrive_error_add_info(tirval_object_t *error,
                                               const tirval_dsi_rest_key_array_t *info);

/* ---- Errors in one wording ------------------------------------------------------------------- */

/* "System error in CALL" with the current errno, put. */
TIRVAL_API tirval_result_t tirval_i_onedrive_system_error(const char *call);
/* The same for malloc: also what a lookup or an answer that is missing is reported as. */
TIRVAL_API tirval_result_t tirval_i_onedrive_malloc_error(void);

/* 553 with a tag ("NOT_A_DIRECTORY", "PATH_EXISTS", ...) and the path in the reply's text, put. */
TIRVAL_API tirval_result_t tirval_i_onedrive_path_error(const char *tag, const char *path);
/* 550 PERMISSION_DENIED, whose cause tells the path and why it cannot be written, put. */
TIRVAL_API tirval_result_t tirval_i_onedrive_write_refusal(const char *path, const char *reason);
#define TIRVAL_ONEDRIVE_INVALID_WRITE "Invalid path for a write operation."

/* A generic error about what the service answered, put.  It says where it was made: `source` (the
 * source's name without its ending) and `function` are borrowed for good. */
TIRVAL_API tirval_result_t tirval_i_onedrive_answer_error(const char *source, const char *function,
                                                          int line, const char *message);

/* ---- State files ----------------------------------------------------------------------------- */

/* What the two kinds of per-user state files differ in. */
typedef struct tirval_i_onedrive_state_kind_s {
    const char *const *folder; /* the tunable that holds the folder's template */
    size_t length;             /* bytes of an initialised file */
    size_t first_length; /* bytes that are mapped to initialise a file, and unmapped at the end */
    void (*initialise)(void *first_mapping); /* null: a file's zeros are what it starts with */
    bool mapping_checked;      /* a failed mapping of the file falls back to private memory */
    const char *lock_function; /* in whose names the lines about the lock are written */
    const char *unlock_function;
} tirval_i_onedrive_state_kind_t;

/*
 * Opens, initialises and maps the state file `name` of a kind, together with other processes that
 * do so.  Never fails: what cannot be used is replaced by zeroed private memory.
 *
 * fd  out: the file's descriptor, or -1
 *
 * Returns the file's content, mapped or private; ended by tirval_i_onedrive_state_detach().
 */
TIRVAL_API void *tirval_i_onedrive_state_attach(const tirval_i_onedrive_state_kind_t *kind,
                                                const char *name, int *fd);
/* Unmaps or frees `shared`, closes the file and sets `*fd` to -1. */
TIRVAL_API void tirval_i_onedrive_state_detach(const tirval_i_onedrive_state_kind_t *kind,
                                               void *shared, int *fd);
/*
 * The write lock on the whole file; waits for it when `blocking`.  It excludes other processes, not
 * other descriptors of this one, and goes when the process closes any descriptor of the file.
 */
TIRVAL_API tirval_result_t tirval_i_onedrive_state_lock(const tirval_i_onedrive_state_kind_t *kind,
                                                        int fd, bool blocking);
TIRVAL_API tirval_result_t
tirval_i_onedrive_state_unlock(const tirval_i_onedrive_state_kind_t *kind, int fd);
/* Opens the state file at `path` (made with mode 0600, its folder with 0700), trying ten times.
 * Returns -1 when it cannot be opened or is not the effective user's own.  `path` must hold a "/"
 * and is unchanged on return. */
TIRVAL_API int tirval_i_onedrive_state_file_open(char *path);
/* Makes the folder with mode 0700 when it does not exist.  Failures are ignored. */
TIRVAL_API void tirval_i_onedrive_ensure_folder(const char *path);

/* ---- Retry state ----------------------------------------------------------------------------- */

/* The retry file: native byte order, shared by all processes of one user. */
struct tirval_onedrive_retry_shared_s {
    time_t not_until;      /* reserved; always 0 */
    tirval_abstime_t last; /* when the user's last request was released */
};
static_assert(sizeof(tirval_onedrive_retry_shared_s) == 24);
static_assert(offsetof(tirval_onedrive_retry_shared_s, last) == 8);

typedef struct tirval_onedrive_retry_s {
    bool is;
    int fd;         /* -1: `shared` is private memory */
    uint32_t delay; /* microseconds between two requests of the user */
    tirval_onedrive_retry_shared_s *shared;
} tirval_onedrive_retry_t;

/* Attaches the retry file of user id `name`; never fails: falls back to private memory.
 * `max_per_second` is not 0. */
TIRVAL_API void tirval_i_onedrive_retry_state_create(const char *name, uint32_t max_per_second,
                                                     tirval_onedrive_retry_t *retry_state);
TIRVAL_API tirval_result_t tirval_i_onedrive_retry_state_lock(tirval_onedrive_retry_t *retry_state,
                                                              bool blocking);
TIRVAL_API tirval_result_t
tirval_i_onedrive_retry_state_unlock(tirval_onedrive_retry_t *retry_state);
/* Waits until the user's next request may go out; first `retry_after` seconds (0: none). */
TIRVAL_API void tirval_i_onedrive_retry_delay(uint64_t retry_after,
                                              tirval_onedrive_retry_t *retry_state);
TIRVAL_API void tirval_i_onedrive_retry_state_destroy(tirval_onedrive_retry_t *retry_state);

/* ---- Session --------------------------------------------------------------------------------- */

typedef struct tirval_onedrive_handle_s {
    char *username;
    char *userid; /* the credential's "sub" */
    char *tid;    /* the tenant, or null */
    bool personal;
    uint64_t max_upload; /* bytes */
    char *access_token;
    time_t access_token_exp;
    tirval_hashtable_t cache;        /* client path -> tirval_onedrive_path_info_t */
    tirval_hashtable_t upload_state; /* client path -> tirval_onedrive_upload_session_t */
    tirval_onedrive_retry_t retry_state;
} tirval_onedrive_handle_t;

TIRVAL_API void tirval_i_onedrive_start(tirval_gfs_operation_t op,
                                        tirval_gfs_session_info_t *session_info);
TIRVAL_API void tirval_i_onedrive_destroy(void *user_arg);

/* Makes sure that the handle holds a token for some 99 seconds more, asking the host for one. */
TIRVAL_API tirval_result_t tirval_onedrive_update_token(tirval_onedrive_handle_t *handle,
                                                        tirval_gfs_operation_t op);

/* Reads the rate limit out of a storage policy (JSON; may be null).  `*rate_limit_out` is changed
 * only by a limit other than 0. */
TIRVAL_API tirval_result_t tirval_onedrive_config_parse_json(const char *json_config,
                                                             int32_t *rate_limit_out);
/* A new 500 INTERNAL_ERROR for a storage policy or a credential that lacks what is needed, in the
 * one wording that both have; null when memory ran out. */
TIRVAL_API tirval_object_t *tirval_i_onedrive_unpack_error(const json_error_t *error);

/* ---- Paths ----------------------------------------------------------------------------------- */

/* Expands "$HOME" and "$LOGNAME" with the real user's entry in the user database.  On failure
 * `*updated_pathp` is null. */
TIRVAL_API tirval_result_t tirval_onedrive_evaluate_path(const char *orig_path,
                                                         char **updated_pathp);

/*
 * Cuts a client path into its virtual top folder, site or shared item, library and the path below.
 *
 * base_out   a constant, never freed
 * lib_out    with its leading "/"
 * drive_out  without
 * path_out   with its leading "/" under "My files", without elsewhere
 *
 * Levels that the path does not have are null.  Any out-pointer may be null.  Never fails.
 */
TIRVAL_API tirval_result_t tirval_onedrive_split_path(const char *vfs_path, const char **base_out,
                                                      char **lib_out, char **drive_out,
                                                      char **path_out);

/*
 * The Graph URI of a client path's item, with the sub-resource `sub` ("/children", "/content",
 * "/createUploadSession") or none (null).  Refuses what must not be written when `is_write`.
 * `*uri_out` is left untouched on a refusal or a resolution error.
 */
TIRVAL_API tirval_result_t tirval_onedrive_path_to_uri(tirval_onedrive_handle_t *handle,
                                                       const char *path, const char *sub,
                                                       char **uri_out, bool is_write);

/* ---- Path records and the path cache --------------------------------------------------------- */

enum { TIRVAL_ONEDRIVE_FOLDER = 1, TIRVAL_ONEDRIVE_FILE = 2, TIRVAL_ONEDRIVE_UNKNOWN = 3 };

/* One OneDrive item or virtual folder.  Every text is owned. */
typedef struct tirval_onedrive_path_info_s {
    char *name;      /* in the cache the full client path, which is the key */
    char *id;        /* the item's, a library's drive's, a site's */
    char *parent_id; /* the id of the drive that holds the item; may be null */
    int type;
    uint64_t size; /* bytes */
    time_t modtime;
    char *md5; /* hashes as hexadecimal text, null when not known */
    char *sha1;
    char *sha256;
    char *qxr;         /* QuickXorHash as Graph gives it, Base64 */
    bool listed;       /* the folder's children are in the cache */
    bool has_metadata; /* a file */
    bool freeme;       /* the record itself is from the heap */
} tirval_onedrive_path_info_t;

TIRVAL_API extern const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_root_info;
TIRVAL_API extern const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_myfiles_info;
TIRVAL_API extern const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_shared_info;
TIRVAL_API extern const tirval_onedrive_path_info_t tirval_i_onedrive_vfs_libs_info;

/* A heap copy; null for null or when memory ran out. */
TIRVAL_API tirval_onedrive_path_info_t *
tirval_onedrive_path_info_copy(const tirval_onedrive_path_info_t *info);
/* Frees the texts, and the record when it is a heap copy.  Null does nothing. */
TIRVAL_API void tirval_onedrive_path_info_free(tirval_onedrive_path_info_t *ptr);

/* Whether an item can be told from others and asked for: it has a name and an id. */
TIRVAL_API bool tirval_i_onedrive_path_info_addressable(const tirval_onedrive_path_info_t *info);

/* Makes an empty table from client paths to what a session keeps of them. */
TIRVAL_API tirval_result_t tirval_i_onedrive_path_table_init(tirval_hashtable_t *table);
/* Makes the table and enters the four virtual folders. */
TIRVAL_API tirval_result_t tirval_onedrive_path_cache_init(tirval_hashtable_t *cache);
/* Enters a copy of `info` under base_path/name, or under its name alone when there is no base path;
 * replaces (and frees) the record that stood there.  Refuses a record without a name or an id. */
TIRVAL_API tirval_result_t tirval_onedrive_path_cache_update(
    tirval_hashtable_t *cache, const tirval_onedrive_path_info_t *info, const char *base_path);
TIRVAL_API tirval_onedrive_path_info_t *tirval_onedrive_path_cache_query(tirval_hashtable_t *cache,
                                                                         const char *path);
/* `path` may be the name of the record that goes. */
TIRVAL_API tirval_result_t tirval_onedrive_path_cache_remove(tirval_hashtable_t *cache,
                                                             const char *path);

/* Fills a host stat record; its name is a copy that the caller frees. */
TIRVAL_API tirval_result_t tirval_onedrive_info_to_stat(
    tirval_onedrive_handle_t *handle, const tirval_onedrive_path_info_t *info,
    tirval_gridftp_server_control_stat_t *stat_out);

/*
 * Finds a client path's record and the folder that holds it, listing folders that have not been
 * listed yet.  Both belong to the cache.  When the path does not exist (550 PATH_NOT_FOUND),
 * `*entry_out` is null and `*parent_out` its folder, or null when an inner component is missing.
 * A listing's failure leaves both untouched.  Either out-pointer may be null.
 */
TIRVAL_API tirval_result_t tirval_onedrive_path_resolve(tirval_onedrive_handle_t *handle,
                                                        const char *path,
                                                        tirval_onedrive_path_info_t **entry_out,
                                                        tirval_onedrive_path_info_t **parent_out);

/* ---- Graph answers and listings -------------------------------------------------------------- */

/* Fills a zeroed record from a driveItem, drive, site or remoteItem.  What was set before a failure
 * stays; the caller frees the record's texts in any case. */
TIRVAL_API tirval_result_t tirval_onedrive_object_info_parse(json_t *json,
                                                             tirval_onedrive_path_info_t *info);

/* Told each child of a listed folder; `entry` is valid during the call.  A failure ends the listing
 * and becomes its result. */
typedef tirval_result_t (*tirval_onedrive_list_entry_cb_t)(tirval_onedrive_handle_t *handle,
                                                           const char *base_path,
                                                           const tirval_onedrive_path_info_t *entry,
                                                           void *callback_arg);

/* Lists the children of the folder at client path `path` into the cache.  A child without a name or
 * an id is left out.  `callback` may be null; `folder_id` is not used. */
TIRVAL_API tirval_result_t tirval_onedrive_get_folder_items(
    tirval_onedrive_handle_t *handle, const char *folder_id, const char *path,
    tirval_onedrive_list_entry_cb_t callback, void *callback_arg);

/* ---- Requests -------------------------------------------------------------------------------- */

/*
 * Turns an answer of the service into an error for the client.
 *
 * json_error_code_response  the parsed answer, borrowed; may be null
 * retryable_out, retry_after_out (seconds)  written on every return; may be null
 *
 * Returns success for the statuses that are taken as done.
 */
TIRVAL_API tirval_result_t tirval_onedrive_translate_response(
    const tirval_dsi_rest_response_arg_t *response, json_t *json_error_code_response,
    bool *retryable_out, uint64_t *retry_after_out);

/* How the answers of a request are judged. */
typedef enum tirval_i_onedrive_success_e {
    TIRVAL_I_ONEDRIVE_BELOW_400,   /* every status below 400 is success */
    TIRVAL_I_ONEDRIVE_ONLY_302,    /* 302 is success; any other is translated */
    TIRVAL_I_ONEDRIVE_ANY_ANSWERED /* an error status is translated, but never sent again */
} tirval_i_onedrive_success_t;

/*
 * What one operation's request differs in.  Everything is borrowed until
 * tirval_i_onedrive_request() returns.
 */
typedef struct tirval_i_onedrive_request_s {
    const char *method;
    const char *uri;
    const tirval_dsi_rest_key_array_t *query; /* null: none */
    const char *bearer; /* the Authorization header's value; null: sent without one */
    const tirval_dsi_rest_key_array_t *headers; /* after Authorization; null: none */
    bool paced;                                 /* take the retry delay before each attempt */
    bool json_explains;                         /* the answer's JSON is given to the translation */
    tirval_i_onedrive_success_t success;
    int idle_factor;  /* the idle time-out, in multiples of the tunable */
    int *repetitions; /* how often the request may be sent again; counted down */
    tirval_dsi_rest_write_t write_callback; /* the request's body; null: none */
    void *write_arg;
    tirval_dsi_rest_read_t read_callback; /* the answer's body; null: JSON when json_out is set */
    void *read_arg;
    void (*before_attempt)(void *attempt_arg); /* null: nothing to prepare */
    void *attempt_arg;
    json_t **json_out;   /* the last answer's JSON, a new reference or null; null: not wanted */
    char **location_out; /* the Location header, owned by the caller, or null; null: not wanted */
} tirval_i_onedrive_request_t;

/* One Graph request: the header, the delay, the attempts, the translation.  Every request of the
 * plug-in goes through here. */
TIRVAL_API tirval_result_t tirval_i_onedrive_request(tirval_onedrive_handle_t *handle,
                                                     const tirval_i_onedrive_request_t *request);

/* The Authorization header's value, owned by the caller; null when memory ran out. */
TIRVAL_API char *tirval_i_onedrive_bearer(const tirval_onedrive_handle_t *handle);

/* How a download of a file's content is read: shared by download and checksum. */
typedef struct tirval_i_onedrive_content_s {
    tirval_off_t offset;
    tirval_off_t length; /* -1: to the end */
    bool paced_download; /* take the retry delay before the download request, too */
    tirval_dsi_rest_read_t read_callback;
    void *read_arg;
    void (*before_attempt)(void *attempt_arg); /* before each attempt of the download request */
    void *attempt_arg;
} tirval_i_onedrive_content_t;

/* Fetches a range of a file: asks Graph for the content's address, then fetches it from there
 * without the token.  Both requests share one repetition. */
TIRVAL_API tirval_result_t tirval_i_onedrive_fetch_content(
    tirval_onedrive_handle_t *handle, const char *path, const tirval_i_onedrive_content_t *content);

/* ---- Operations ------------------------------------------------------------------------------ */

/* What a directory stat passes to its per-entry callback. */
typedef struct tirval_onedrive_stat_state_s {
    tirval_gfs_operation_t op;
    const tirval_gfs_stat_info_t *stat_info;
    tirval_gridftp_server_control_stat_t *stat_array; /* 100 records */
    int stat_count;
} tirval_onedrive_stat_state_t;

TIRVAL_API void tirval_i_onedrive_stat(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *stat_info,
                                       void *user_arg);
TIRVAL_API void tirval_i_onedrive_stat_single(tirval_gfs_operation_t op,
                                              tirval_gfs_stat_info_t *stat_info,
                                              tirval_onedrive_handle_t *handle);
TIRVAL_API void tirval_i_onedrive_stat_multi(tirval_gfs_operation_t op,
                                             tirval_gfs_stat_info_t *stat_info,
                                             tirval_onedrive_handle_t *handle);
TIRVAL_API tirval_result_t tirval_onedrive_stat_entry(tirval_onedrive_handle_t *handle,
                                                      const char *base_path,
                                                      const tirval_onedrive_path_info_t *entry,
                                                      void *callback_arg);
/* The command entry: renews the token and calls the command's handler.  Each handler answers the
 * host once, on the calling thread; `user_arg` is the session's handle. */
TIRVAL_API void tirval_i_onedrive_command(tirval_gfs_operation_t op,
                                          tirval_gfs_command_info_t *cmd_info, void *user_arg);
/* Makes a folder.  One that is there already is success. */
TIRVAL_API void tirval_i_onedrive_mkdir(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                                        void *user_arg);
/* Deletes an item, a folder with all that is in it. */
TIRVAL_API void tirval_i_onedrive_delete(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                                         void *user_arg);
/* Deletes the item at the command's path.  `path_info`, its record in the cache, is gone once the
 * request has been sent, whatever became of it. */
TIRVAL_API tirval_result_t tirval_i_onedrive_delete_object(tirval_onedrive_handle_t *handle,
                                                           tirval_onedrive_path_info_t *path_info,
                                                           tirval_gfs_command_info_t *info);
/* Gives an item the new path's name.  It stays in its folder at the service, even when the new path
 * lies in another. */
TIRVAL_API void tirval_i_onedrive_rename(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                                         void *user_arg);

/* A checksum that is being computed from a download. */
typedef struct tirval_i_onedrive_cksm_state_s {
    tirval_gfs_operation_t op;
    int32_t response_freq; /* seconds between two progress reports */
    int32_t response_due;  /* when the next one is due, seconds since the epoch; 0: never */
    tirval_off_t total_bytes;
    tirval_gfs_checksum_t ctx;
} tirval_i_onedrive_cksm_state_t;

/* Answers a checksum: the stored one of the whole file, or one computed from a download.  A
 * positive length is computed over and over, until a download fails. */
TIRVAL_API void tirval_i_onedrive_cksm(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                                       void *user_arg);
/* Takes a block of the download; the argument is the tirval_i_onedrive_cksm_state_t. */
TIRVAL_API tirval_result_t tirval_i_onedrive_cksm_cb(void *callback_arg, void *buffer,
                                                     size_t buffer_length);
TIRVAL_API void tirval_i_onedrive_send(tirval_gfs_operation_t op,
                                       tirval_gfs_transfer_info_t *transfer_info, void *user_arg);
TIRVAL_API void tirval_i_onedrive_recv(tirval_gfs_operation_t op,
                                       tirval_gfs_transfer_info_t *transfer_info, void *user_arg);

/*
 * Changes an item's modification time, its name, or both.
 *
 * modtime    as Graph writes times, "2021-03-04T05:06:07Z"; null: stays
 * name       a bare name; null: stays
 * entry_out  zeroed; filled from the item's new description.  The caller frees its texts, also
 *            after a failure.  Null: not wanted
 */
TIRVAL_API tirval_result_t tirval_i_onedrive_update_metadata(
    tirval_onedrive_handle_t *handle, const char *path, const char *modtime, const char *name,
    tirval_onedrive_path_info_t *entry_out);

/*
 * Stores a file with one request: its content, then the modification time that the client gave.
 * `parent` is the record of the folder that is to hold it.  Does not finish the transfer.
 */
TIRVAL_API tirval_result_t tirval_i_onedrive_recv_simple(tirval_gfs_operation_t op,
                                                         tirval_gfs_transfer_info_t *info,
                                                         tirval_onedrive_handle_t *handle,
                                                         tirval_onedrive_path_info_t *parent);
/*
 * Stores a file in parts, through a new upload session, or the path's earlier one when the transfer
 * does not truncate.  The session's record stays in the table until all parts are stored.
 */
TIRVAL_API tirval_result_t tirval_i_onedrive_recv_chunked(tirval_gfs_operation_t op,
                                                          tirval_gfs_transfer_info_t *info,
                                                          tirval_onedrive_handle_t *handle,
                                                          tirval_onedrive_path_info_t *parent);

/* ---- Upload sessions and upload state -------------------------------------------------------- */

/* One Graph upload session. */
typedef struct tirval_onedrive_upload_session_s {
    char *url;  /* where the parts go */
    char *exp;  /* the session's end, as Graph gave it */
    char *name; /* the client path being stored, which is the table's key */
    int32_t num_parts;
    uint64_t part_size;  /* bytes */
    uint64_t total_size; /* bytes */
    json_t *part_array;  /* one reference */
} tirval_onedrive_upload_session_t;

/*
 * A session's upload-state table starts with the four virtual path records and is emptied with
 * tirval_onedrive_upload_session_free(): texts lie where texts lie, and where this record has its
 * JSON reference a virtual record has a null hash.
 */
static_assert(offsetof(tirval_onedrive_path_info_t, name) ==
              offsetof(tirval_onedrive_upload_session_t, url));
static_assert(offsetof(tirval_onedrive_path_info_t, id) ==
              offsetof(tirval_onedrive_upload_session_t, exp));
static_assert(offsetof(tirval_onedrive_path_info_t, parent_id) ==
              offsetof(tirval_onedrive_upload_session_t, name));
static_assert(offsetof(tirval_onedrive_path_info_t, md5) ==
              offsetof(tirval_onedrive_upload_session_t, part_array));
static_assert(sizeof(tirval_onedrive_upload_session_t) <= sizeof(tirval_onedrive_path_info_t));

TIRVAL_API tirval_result_t tirval_onedrive_upload_state_init(tirval_hashtable_t *cache);
/* Enters `upload` under its own name; the table owns it from then on.  On failure it stays the
 * caller's.  `path` is not used. */
TIRVAL_API tirval_result_t tirval_onedrive_upload_state_update(
    tirval_hashtable_t *cache, tirval_onedrive_upload_session_t *upload, const char *path);
TIRVAL_API tirval_onedrive_upload_session_t *
tirval_onedrive_upload_state_query(tirval_hashtable_t *cache, const char *path);
TIRVAL_API tirval_result_t tirval_onedrive_upload_state_remove(tirval_hashtable_t *cache,
                                                               const char *path);
TIRVAL_API void tirval_onedrive_upload_session_free(tirval_onedrive_upload_session_t *upload);
/* Takes "uploadUrl" and "expirationDateTime" of Graph's uploadSession resource into the record; a
 * member that is missing leaves its field as it was.  Always success. */
TIRVAL_API tirval_result_t
tirval_onedrive_upload_session_parse(json_t *json, tirval_onedrive_upload_session_t *info);
/* Makes an upload session for the transfer's path at Graph, and its record in the session's table.
 * `*upload` belongs to the table. */
TIRVAL_API tirval_result_t tirval_i_onedrive_create_upload_session(
    tirval_onedrive_handle_t *handle, tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info,
    tirval_onedrive_path_info_t *parent, tirval_onedrive_upload_session_t **upload);
/*
 * Sends the parts from the client's restart offset on, and enters the finished item into the cache.
 * An offset behind the last part gives 0xFFFFFFFF, which names no error object.
 */
TIRVAL_API tirval_result_t tirval_i_onedrive_upload_parts(tirval_gfs_operation_t op,
                                                          tirval_onedrive_handle_t *handle,
                                                          tirval_gfs_transfer_info_t *info,
                                                          tirval_onedrive_path_info_t *parent,
                                                          tirval_onedrive_upload_session_t *upload);

/* The upload-state file: native byte order; cut at the start of part_array. */
struct tirval_onedrive_upload_state_shared_s {
    char id[128];
    int32_t num_parts;
    uint64_t part_size;
    uint64_t total_size;
    char name[4096];
    char part_array[1]; /* open-ended */
};
enum { TIRVAL_ONEDRIVE_UPLOAD_STATE_LENGTH = 4248 };
static_assert(offsetof(tirval_onedrive_upload_state_shared_s, num_parts) == 128);
static_assert(offsetof(tirval_onedrive_upload_state_shared_s, part_size) == 136);
static_assert(offsetof(tirval_onedrive_upload_state_shared_s, total_size) == 144);
static_assert(offsetof(tirval_onedrive_upload_state_shared_s, name) == 152);
static_assert(offsetof(tirval_onedrive_upload_state_shared_s, part_array) ==
              TIRVAL_ONEDRIVE_UPLOAD_STATE_LENGTH);

typedef struct tirval_onedrive_upload_state_s {
    bool is;
    int fd; /* -1: `shared` is private memory */
    tirval_onedrive_upload_state_shared_s *shared;
} tirval_onedrive_upload_state_t;

/* Attaches the upload-state file `name`; never fails: falls back to private memory. */
TIRVAL_API void tirval_i_onedrive_upload_state_create(const char *name,
                                                      tirval_onedrive_upload_state_t *upload_state);
TIRVAL_API tirval_result_t
tirval_i_onedrive_upload_state_lock(tirval_onedrive_upload_state_t *upload_state, bool blocking);
TIRVAL_API tirval_result_t
tirval_i_onedrive_upload_state_unlock(tirval_onedrive_upload_state_t *upload_state);
TIRVAL_API void
tirval_i_onedrive_upload_state_destroy(tirval_onedrive_upload_state_t *upload_state);

} /* extern "C" */

#endif
