/*
 * What a storage plug-in calls and is called through.  A plug-in registers an interface table under
 * its storage name in tirval_i_gfs_dsi_registry; the host then calls the table's entries, one at a
 * time for each session, and each entry answers exactly once before it returns.
 *
 * Rules that hold throughout:
 *   - Results are borrowed: finished_*() neither releases nor keeps what a result names.  The
 * object lives until the entry has returned; then the host releases everything put meanwhile.
 *   - Records, names and texts given in an answer are copied before the call returns.
 *   - Every out-parameter is set on every return, also a failing one.
 *   - All functions may be called by the entry's thread only, unless they say otherwise.
 */
#ifndef TIRVAL_GRIDFTP_SERVER_H
#define TIRVAL_GRIDFTP_SERVER_H

#include "tirval_common.h"

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int64_t tirval_off_t; /* a file offset or length in bytes; -1: to the end */
typedef size_t tirval_size_t;
typedef unsigned char tirval_byte_t;

/* One running operation; valid until its entry has returned. */
typedef struct tirval_gfs_operation_s *tirval_gfs_operation_t;

/* One item's description, in the terms of stat(2).  Times are seconds since the epoch, UTC. */
typedef struct tirval_gridftp_server_control_stat_s {
    mode_t mode;
    int nlink;
    char *name;           /* single stat: the full path; listing: the plain name, "." the folder */
    char *symlink_target; /* null: no symbolic link */
    uid_t uid;            /* 0: the session's local user */
    gid_t gid;            /* 0: the session's local user's */
    tirval_off_t size;
    time_t atime;
    time_t ctime;
    time_t mtime; /* 0: not known */
    uint64_t dev;
    uint64_t ino;
    int link_mode;
    int error;
} tirval_gridftp_server_control_stat_t;

typedef struct tirval_gfs_session_info_s {
    const char *username;       /* the mapped local user; may be null in answers only */
    const char *client_address; /* numeric; may be null */
} tirval_gfs_session_info_t;

typedef struct tirval_gfs_stat_info_s {
    bool file_only; /* true: this one item; false: the folder and its children */
    const char *pathname;
} tirval_gfs_stat_info_t;

typedef enum tirval_gfs_command_type_e {
    TIRVAL_GFS_CMD_MKD = 1,
    TIRVAL_GFS_CMD_RMD = 2,
    TIRVAL_GFS_CMD_DELE = 3,
    TIRVAL_GFS_CMD_SITE_AUTHZ_ASSERT = 4,
    TIRVAL_GFS_CMD_SITE_RDEL = 5,
    TIRVAL_GFS_CMD_RNTO = 6,
    TIRVAL_GFS_CMD_RNFR = 7,
    TIRVAL_GFS_CMD_CKSM = 8,
    TIRVAL_GFS_CMD_SITE_CHMOD = 9,
    TIRVAL_GFS_CMD_SITE_UTIME = 16,
    TIRVAL_GFS_CMD_TRNC = 22
} tirval_gfs_command_type_t;

typedef struct tirval_gfs_command_info_s {
    uint32_t command;          /* a tirval_gfs_command_type_t */
    const char *pathname;      /* the path acted on; for a rename the new path */
    tirval_off_t cksm_offset;  /* first byte of a checksum */
    tirval_off_t cksm_length;  /* bytes of a checksum; -1: to the end */
    const char *cksm_alg;      /* as the client gave it */
    const char *from_pathname; /* for a rename the old path */
    mode_t chmod_mode;
    time_t utime_time;
} tirval_gfs_command_info_t;

typedef struct tirval_gfs_transfer_info_s {
    const char *pathname;
    tirval_off_t alloc_size; /* store: the size that the file will have */
    bool truncate;           /* store: a fresh one, from the first byte */
} tirval_gfs_transfer_info_t;

/* What a storage does and needs: bits of the interface table's descriptor word. */
enum {
    /* Entries block their thread and answer before they return. */
    TIRVAL_GFS_DSI_DESCRIPTOR_BLOCKING = 0x01,
    /* A send serves any range of a file, so the host may offer REST and partial retrieval. */
    TIRVAL_GFS_DSI_DESCRIPTOR_RANGES = 0x02,
    /* Times can be set by command, so the host may offer MFMT and SITE UTIME. */
    TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES = 0x04,
    /* Checksums are answered by the storage, so the host may offer CKSM and HASH. */
    TIRVAL_GFS_DSI_DESCRIPTOR_CHECKSUMS = 0x08,
    /* Modes can be set by command, so the host may offer SITE CHMOD. */
    TIRVAL_GFS_DSI_DESCRIPTOR_SETS_MODES = 0x10,
    /* A store must be told the file's true final size before it begins. */
    TIRVAL_GFS_DSI_DESCRIPTOR_NEEDS_SIZE = 0x20
};

/*
 * A storage's interface table.  `user_arg` is the session handle that the start entry gave out.  An
 * empty (null) slot means that the storage does not offer the operation.
 */
typedef struct tirval_gfs_storage_iface_s {
    int descriptor;
    /* answers with finished_session_start; after a failed start nothing more is called */
    void (*init_func)(tirval_gfs_operation_t op, tirval_gfs_session_info_t *session_info);
    void (*destroy_func)(void *user_arg);
    void (*list_func)(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info, void *user_arg);
    void (*send_func)(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info, void *user_arg);
    void (*recv_func)(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info, void *user_arg);
    void (*trev_func)(void *event_info, void *user_arg);
    void (*active_func)(void);
    void (*passive_func)(void);
    void (*data_destroy_func)(void *data_arg, void *user_arg);
    void (*command_func)(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info,
                         void *user_arg);
    void (*stat_func)(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *info, void *user_arg);
    void (*set_cred_func)(void *user_arg);
    void (*buffer_send_func)(void *user_arg);
    tirval_result_t (*realpath_func)(const char *path, char **real_path, void *user_arg);
} tirval_gfs_storage_iface_t;

/* Where storages register: storage name -> tirval_gfs_storage_iface_t. */
TIRVAL_API extern tirval_extension_registry_t tirval_i_gfs_dsi_registry;

/* The host interface's own module. */
TIRVAL_API extern tirval_module_descriptor_t tirval_i_gridftp_server_module;

/* ---- Answers: exactly one for each entry --------------------------------------------------- */

/*
 * Ends a session start.  On success `session` (may be null) is handed to every later entry;
 * `username` (may be null: unchanged) and `home_dir` (may be null: "/") are copied.
 */
TIRVAL_API void tirval_gridftp_server_finished_session_start(tirval_gfs_operation_t op,
                                                             tirval_result_t result, void *session,
                                                             const char *username,
                                                             const char *home_dir);

/* Ends a stat.  On failure the records tell nothing and may be null. */
TIRVAL_API void
tirval_gridftp_server_finished_stat(tirval_gfs_operation_t op, tirval_result_t result,
                                    const tirval_gridftp_server_control_stat_t *records, int count);

/* Delivers records of a listing before its end; any number of times. */
TIRVAL_API void
tirval_gridftp_server_finished_stat_partial(tirval_gfs_operation_t op, tirval_result_t result,
                                            const tirval_gridftp_server_control_stat_t *records,
                                            int count);

/* Ends a command.  `response` may be null. */
TIRVAL_API void tirval_gridftp_server_finished_command(tirval_gfs_operation_t op,
                                                       tirval_result_t result,
                                                       const char *response);

/* Reports progress of a running command; any number of times. */
TIRVAL_API void tirval_gridftp_server_intermediate_command(tirval_gfs_operation_t op,
                                                           tirval_result_t result,
                                                           const char *response);

/* Ends a transfer, begun or not. */
TIRVAL_API void tirval_gridftp_server_finished_transfer(tirval_gfs_operation_t op,
                                                        tirval_result_t result);

/* ---- Transfers ----------------------------------------------------------------------------- */

/* Opens the client's data connections.  A failure cancels the operation and becomes its outcome,
 * whatever the storage reports later.  `event_mask` and `event_arg` are for storages that take
 * transfer events: 0 and null otherwise. */
TIRVAL_API void tirval_gridftp_server_begin_transfer(tirval_gfs_operation_t op, int event_mask,
                                                     void *event_arg);

/*
 * The next range that the client wants.  `*length` is 0 when there is no more, -1 for "from
 * *offset to the end of the file", which is the transfer's last range.
 */
TIRVAL_API void tirval_gridftp_server_get_read_range(tirval_gfs_operation_t op,
                                                     tirval_off_t *offset, tirval_off_t *length);

/* The range that the client stores; `*length` -1: unbounded. */
TIRVAL_API void tirval_gridftp_server_get_write_range(tirval_gfs_operation_t op,
                                                      tirval_off_t *offset, tirval_off_t *length);

/*
 * Completes a registered read.  Runs on a thread of the host's, never the registering one.
 *
 * result   a failure when the operation was cancelled or the connection broke
 * nbytes   bytes in `buffer`; 0 exactly when `eof` is true or `result` a failure
 * offset   of the first byte within the client's data
 */
typedef void (*tirval_gridftp_server_read_cb_t)(tirval_gfs_operation_t op, tirval_result_t result,
                                                tirval_byte_t *buffer, tirval_size_t nbytes,
                                                tirval_off_t offset, bool eof, void *user_arg);

/*
 * Asks for at most `length` more bytes from the client.  On success `callback` is called exactly
 * once, also when the operation is cancelled, the client is lost or the connection times out; after
 * a failure it is never called.  `buffer` must live until then.
 */
TIRVAL_API tirval_result_t tirval_gridftp_server_register_read(
    tirval_gfs_operation_t op, tirval_byte_t *buffer, tirval_size_t length,
    tirval_gridftp_server_read_cb_t callback, void *user_arg);

/* The modification time that the client asked for, or -1 when none. */
TIRVAL_API tirval_result_t
tirval_gridftp_server_get_recv_modification_time(tirval_gfs_operation_t op, time_t *modtime);

/* Seconds between two progress reports of a command; 0: none are wanted. */
TIRVAL_API void tirval_gridftp_server_get_update_interval(tirval_gfs_operation_t op, int *seconds);

/* ---- Session ------------------------------------------------------------------------------- */

/*
 * Configuration of the session: a text that belongs to the host and stays valid until the entry
 * returns, or null when there is none for `key`.  In any operation.
 */
TIRVAL_API void tirval_gridftp_server_get_config_data(tirval_gfs_operation_t op, const char *key,
                                                      char **data);

/* Tells the host which checksums the storage answers: "NAME:WEIGHT;" for each, cheapest weight
 * first in preference.  Copied. */
TIRVAL_API tirval_result_t tirval_gridftp_server_set_checksum_support(tirval_gfs_operation_t op,
                                                                      const char *support);

/* ---- Checksum engine ----------------------------------------------------------------------- */

/* A running checksum. */
typedef struct tirval_gfs_checksum_s *tirval_gfs_checksum_t;

/*
 * Starts a checksum.  Names, without case: MD5, SHA1, SHA256, SHA512 (FIPS 180-4), ADLER32
 * (RFC 1950), QuickXORHex, Dropbox.  An unknown name fails with an FTP response error 504 and sets
 * `*checksum` to null.  Release by finalizing.  Any thread.
 */
TIRVAL_API tirval_result_t tirval_gfs_checksum_init(const char *algorithm,
                                                    tirval_gfs_checksum_t *checksum);
TIRVAL_API tirval_result_t tirval_gfs_checksum_update(tirval_gfs_checksum_t checksum,
                                                      const void *data, tirval_size_t length);
/*
 * Ends a checksum and releases it.  `*text`, owned by the caller, is at most 256 characters of
 * lower-case hexadecimal; for QuickXORHex the hexadecimal of each character of the Base64 text by
 * which OneDrive gives the hash.  Null on failure.
 */
TIRVAL_API tirval_result_t tirval_gfs_checksum_finalize(tirval_gfs_checksum_t checksum,
                                                        char **text);

/* ---- Errors -------------------------------------------------------------------------------- */

/* The type of errors that carry an FTP reply. */
TIRVAL_API extern const tirval_object_type_t tirval_i_gfs_error_type_ftp_response;
#define TIRVAL_GFS_ERROR_TYPE_FTP_RESPONSE_DEFINITION (&tirval_i_gfs_error_type_ftp_response)

/*
 * An error with an FTP reply code (RFC 959) and a symbolic reason.
 *
 * module  borrowed for the object's life; may be null
 * cause   consumed; may be null
 * tag     copied; may be null
 * format  may be null: no message; null "%s" values print "(null)"
 *
 * Returns an object owned by the caller; null when memory ran out (the cause is then freed).
 */
TIRVAL_API tirval_object_t *
tirval_gfs_ftp_response_error_construct(const tirval_module_descriptor_t *module,
                                        tirval_object_t *cause, int code, const char *tag,
                                        const char *format, ...);

/* An error from errno; ownership as above.  `saved_errno` 0 adds no system text. */
TIRVAL_API tirval_object_t *tirval_i_gfs_error_system(const tirval_module_descriptor_t *module,
                                                      int saved_errno, const char *format, ...)
    TIRVAL_PRINTF(3, 4);

/*
 * Reads an FTP response error back.  Returns false (and sets 0, null, null) when `error` itself is
 * not one.  The texts belong to the object; `*message` may be null.  Any out-pointer may be null.
 */
TIRVAL_API bool tirval_gfs_ftp_response_error_get(tirval_object_t *error, int *code,
                                                  const char **tag, const char **message);

#ifdef __cplusplus
}
#endif

#endif
