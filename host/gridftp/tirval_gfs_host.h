/*
 * The other side of the storage interface: for programs that host storage plug-ins.  A host gives
 * an operation its back end (sockets in the server, memory in tests) and runs one entry of a
 * storage's interface table with it.
 *
 * Each tirval_gfs_run_*() makes the operation, opens an error scope for it, calls the entry, checks
 * that it answered exactly once (anything else is a programming error that ends the process with a
 * message), and releases the scope and the operation.  One run at a time for each session.
 */
#ifndef TIRVAL_GFS_HOST_H
#define TIRVAL_GFS_HOST_H

#include "tirval_gridftp_server.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Back end ------------------------------------------------------------------------------ */

/* Completes a back end's registered read; call exactly once, on another thread than the one that
 * registered.  `nbytes` 0 with success means end of data.  `result` is borrowed. */
typedef void (*tirval_gfs_read_done_t)(void *done_arg, tirval_result_t result, tirval_size_t nbytes,
                                       tirval_off_t offset);

/*
 * The functions of a back end; `host` is the run's argument.  All are called on the run's thread.
 * Any function that a kind of operation does not need may be null, with the default given.
 * Results, records and texts passed in are borrowed for the call.
 */
typedef struct tirval_gfs_backend_s {
    /* The answers.  The entry is still running: note what was said, and act after the run. */
    void (*session_started)(void *host, tirval_result_t result, void *session, const char *username,
                            const char *home_dir);
    void (*stat_records)(void *host, const tirval_gridftp_server_control_stat_t *records,
                         int count); /* each batch, also that of the final answer */
    void (*stat_finished)(void *host, tirval_result_t result);
    void (*command_progress)(void *host, const char *text);
    void (*command_finished)(void *host, tirval_result_t result, const char *response);
    void (*transfer_finished)(void *host, tirval_result_t result);

    /* Session.  A text that stays valid until the run ends, or null. */
    char *(*config_data)(void *host, const char *key);
    void (*checksum_support)(void *host, const char *support);
    int (*update_interval)(void *host);      /* default 0 */
    time_t (*modification_time)(void *host); /* default -1 */

    /* Transfers.  begin_transfer opens the data connections; its failure (put by the back end)
     * becomes the outcome. */
    tirval_result_t (*begin_transfer)(void *host);
    /* The next range to send; false: no more.  Default: {0, -1} once. */
    bool (*read_range)(void *host, tirval_off_t *offset, tirval_off_t *length);
    /* Default {0, -1}. */
    void (*write_range)(void *host, tirval_off_t *offset, tirval_off_t *length);
    /* Sends bytes of the file to the client: each byte once, in order within a range.  Blocks;
     * returns a failure when cancelled. */
    tirval_result_t (*send)(void *host, const void *data, tirval_size_t size, tirval_off_t offset);
    /* Everything of the current range has been given to send(): pass on what is still buffered. */
    tirval_result_t (*flush)(void *host);
    /* Receives 1 to `capacity` bytes from the client, in order; `*received` 0 with success means
     * end of data.  With `wait` false returns at once, `*received` 0 and `*would_block` true when
     * there is nothing. */
    tirval_result_t (*receive)(void *host, void *buffer, tirval_size_t capacity, bool wait,
                               tirval_size_t *received, bool *would_block);
    /* A descriptor that polls readable when receive() has something; -1: none.  Default -1. */
    int (*receive_descriptor)(void *host);
    /* The storage goes on with the client's data at `offset` of the file: what stands before it is
     * the service's.  Called once for each body after the first one, when it is asked for: also
     * when the client has gone meanwhile, so that the body cannot be had. */
    void (*stored_up_to)(void *host, tirval_off_t offset);
    /* Asks for at most `length` bytes on another thread; see tirval_gridftp_server_register_read.
     */
    tirval_result_t (*register_read)(void *host, void *buffer, tirval_size_t length,
                                     tirval_gfs_read_done_t done, void *done_arg);
} tirval_gfs_backend_t;

/* ---- Running entries ----------------------------------------------------------------------- */

/* A start that failed leaves no session: do not end it. */
TIRVAL_API void tirval_gfs_run_session_start(const tirval_gfs_storage_iface_t *iface,
                                             tirval_gfs_session_info_t *session_info,
                                             const tirval_gfs_backend_t *backend, void *host);
TIRVAL_API void tirval_gfs_run_session_end(const tirval_gfs_storage_iface_t *iface, void *session);
TIRVAL_API void tirval_gfs_run_stat(const tirval_gfs_storage_iface_t *iface, void *session,
                                    tirval_gfs_stat_info_t *stat_info,
                                    const tirval_gfs_backend_t *backend, void *host);
TIRVAL_API void tirval_gfs_run_command(const tirval_gfs_storage_iface_t *iface, void *session,
                                       tirval_gfs_command_info_t *command_info,
                                       const tirval_gfs_backend_t *backend, void *host);
/*
 * A transfer's reported success counts only if it happened; otherwise the back end is told an FTP
 * response error instead: what begin_transfer, send or receive failed with, 426 when the operation
 * was cancelled, or 451.  A download counts when it had begun, its ranges were asked for until
 * there were no more, and every one was delivered to its announced end; `known_size` (-1: not
 * known) excuses a range that starts at or beyond the end of the file.  A store counts when it had
 * begun and the client's data was read to the end.
 */
TIRVAL_API void tirval_gfs_run_send(const tirval_gfs_storage_iface_t *iface, void *session,
                                    tirval_gfs_transfer_info_t *transfer_info,
                                    tirval_off_t known_size, const tirval_gfs_backend_t *backend,
                                    void *host);
TIRVAL_API void tirval_gfs_run_recv(const tirval_gfs_storage_iface_t *iface, void *session,
                                    tirval_gfs_transfer_info_t *transfer_info,
                                    const tirval_gfs_backend_t *backend, void *host);

/* ---- Storages ------------------------------------------------------------------------------ */

/* A loaded storage library and its hold on the registry entry. */
typedef struct tirval_gfs_storage_s tirval_gfs_storage_t;

/*
 * Loads DIR/libtirval_gridftp_server_NAME.so, activates its module
 * tirval_gridftp_server_NAME_module and looks up NAME in the registry.  Starts no thread and opens
 * no connection.
 *
 * error_out  on failure a text that tells what is missing where, owned by the caller
 *
 * Returns null on failure.  Not thread-safe.
 */
TIRVAL_API tirval_gfs_storage_t *tirval_gfs_storage_load(const char *dir, const char *name,
                                                         char **error_out);
TIRVAL_API const tirval_gfs_storage_iface_t *
tirval_gfs_storage_iface(const tirval_gfs_storage_t *storage);
/* Deactivates and unloads.  No session may be open.  Null does nothing. */
TIRVAL_API void tirval_gfs_storage_unload(tirval_gfs_storage_t *storage);

/* ---- Cancelling ---------------------------------------------------------------------------- */

/* Why the running operation must end.  One flag for the process: a session process runs one
 * operation at a time, and a request that carries no operation must see it, too. */
typedef enum tirval_gfs_cancel_reason_e {
    TIRVAL_GFS_CANCEL_NONE = 0,
    TIRVAL_GFS_CANCEL_ABORT = 1,    /* the client said ABOR */
    TIRVAL_GFS_CANCEL_LOST = 2,     /* the control connection is gone */
    TIRVAL_GFS_CANCEL_SHUTDOWN = 3, /* the server ends */
    TIRVAL_GFS_CANCEL_TRANSFER = 4  /* the data connections could not be opened, or broke */
} tirval_gfs_cancel_reason_t;

/* Sets the flag and wakes whoever polls the descriptor; the first reason stays.  Any thread. */
TIRVAL_API void tirval_gfs_cancel(tirval_gfs_cancel_reason_t reason);
/* Any thread. */
TIRVAL_API tirval_gfs_cancel_reason_t tirval_gfs_cancelled(void);
/* Clears the flag.  The run functions do so for TRANSFER when they end; a host does it for its own
 * reasons before the next run. */
TIRVAL_API void tirval_gfs_cancel_clear(void);
/* Readable while the flag is set.  A process that was forked must call this only after the fork.
 * -1 when none could be made. */
TIRVAL_API int tirval_gfs_cancel_descriptor(void);
/* Puts and returns a generic error of type TIRVAL_ERROR_TYPE_CANCELLED that names the reason. */
TIRVAL_API tirval_result_t tirval_gfs_cancel_error(void);

#ifdef __cplusplus
}
#endif

#endif
