/*
 * One HTTP request with streamed bodies, over libcurl: the request function, the callbacks that
 * read and write bodies, and what may be tried again.
 *
 * Rules that hold throughout:
 *   - One call is one request on the wire.  Redirects are not followed, nothing is sent again.
 *   - http and https only; plain http only to 127.0.0.0/8, ::1 and localhost.
 *   - An HTTP error status is a successful call; a failed call had no usable answer.
 *   - A body of status 300 or more goes to tirval_dsi_rest_read_json only, never to another data
 *     callback: no error page is ever taken for content.
 *   - The time that a callback of the caller's takes does not count as the peer being idle.
 *   - Connections and TLS sessions are kept for the process's next requests.  Requests may be made
 *     by any thread, each with connections of its own.
 */
#ifndef TIRVAL_DSI_REST_H
#define TIRVAL_DSI_REST_H

#include "tirval_common.h"
#include "tirval_gridftp_server.h"

#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's module.  Activation initialises libcurl and loads the certificate store (from
 * SSL_CERT_FILE and SSL_CERT_DIR, else the system's); it starts no thread and opens no connection.
 * SIGPIPE is ignored from then on where the program had left it at its default. */
TIRVAL_API extern tirval_module_descriptor_t tirval_i_dsi_rest_module;

typedef struct tirval_dsi_rest_key_value_s {
    const char *key;
    const char *value;
} tirval_dsi_rest_key_value_t;

typedef struct tirval_dsi_rest_key_array_s {
    size_t count;
    tirval_dsi_rest_key_value_t *key_value;
} tirval_dsi_rest_key_array_t;

/* ---- Callbacks ----------------------------------------------------------------------------- */

/* Gives the next bytes of the request body: up to `buffer_length`; 0 bytes end the body.  A failure
 * ends the request, and becomes its result. */
typedef tirval_result_t (*tirval_dsi_rest_write_t)(void *callback_arg, void *buffer,
                                                   size_t buffer_length, size_t *amount_copied);
/* Takes the next bytes of a 2xx answer's body.  A failure ends the request, and becomes its
 * result. */
typedef tirval_result_t (*tirval_dsi_rest_read_t)(void *callback_arg, void *buffer,
                                                  size_t buffer_length);
/* Takes the final answer's status and headers, before its body.  `response_status` is the reason
 * phrase; both are borrowed for the call. */
typedef tirval_result_t (*tirval_dsi_rest_response_t)(
    void *callback_arg, int response_code, const char *response_status,
    const tirval_dsi_rest_key_array_t *response_headers);
/* Told the call's result when it ends, whatever it is. */
typedef tirval_result_t (*tirval_dsi_rest_complete_t)(void *callback_arg, tirval_result_t result);
/* Called every now and then with the bytes moved so far and the milliseconds in which the peer has
 * moved nothing.  A failure ends the request, and becomes its result. */
typedef tirval_result_t (*tirval_dsi_rest_progress_t)(void *callback_arg, uint64_t sent,
                                                      uint64_t received, uint64_t idle_ms);

/* The callbacks of a request; each may be null. */
typedef struct tirval_dsi_rest_callbacks_s {
    tirval_dsi_rest_write_t data_write_callback;
    void *data_write_callback_arg;
    tirval_dsi_rest_read_t data_read_callback;
    void *data_read_callback_arg;
    tirval_dsi_rest_response_t response_callback;
    void *response_callback_arg;
    tirval_dsi_rest_complete_t complete_callback;
    void *complete_callback_arg;
    tirval_dsi_rest_progress_t progress_callback;
    void *progress_callback_arg;
} tirval_dsi_rest_callbacks_t;

/*
 * response_callback: keeps the status and the wanted headers.  Before each request every wanted
 * header's value is set to null; a header of the final answer (names compare without case, RFC
 * 9110) sets it to a text that the caller frees.  An earlier value is not freed.
 */
typedef struct tirval_dsi_rest_response_arg_s {
    int response_code; /* 0: no answer */
    tirval_dsi_rest_key_array_t desired_headers;
} tirval_dsi_rest_response_arg_t;
TIRVAL_API tirval_result_t
tirval_dsi_rest_response(void *response_arg, int response_code, const char *response_status,
                         const tirval_dsi_rest_key_array_t *response_headers);

/* data_write_callback: the body is one block of memory.  Its length is the body's length. */
typedef struct tirval_dsi_rest_write_block_arg_s {
    const void *block; /* borrowed; may be null when block_length is 0 */
    size_t block_length;
} tirval_dsi_rest_write_block_arg_t;
TIRVAL_API tirval_result_t tirval_dsi_rest_write_block(void *write_block_arg, void *buffer,
                                                       size_t buffer_length, size_t *amount_copied);

/*
 * data_read_callback: parses the whole body as JSON.  The argument is a `json_t **`, set to null
 * before the request and to a new reference that the caller drops when the body parsed.  A body
 * that is empty or no JSON leaves null and is no failure; one over 8 MiB, or nested deeper than the
 * parser allows, is.
 */
TIRVAL_API tirval_result_t tirval_dsi_rest_read_json(void *json_out, void *buffer,
                                                     size_t buffer_length);

/*
 * The transfer that a body belongs to.
 *
 * data_read_callback tirval_dsi_rest_read_gridftp_op: gives each block to the operation's client.
 * The call fails when the answer's range is not {offset, length}, or its body is longer or shorter
 * than announced.
 *
 * data_write_callback tirval_dsi_rest_write_gridftp_op: takes exactly `length` bytes from the
 * operation's client.  Sets `eof` when the client's data has ended and nothing is left; never
 * clears it, and changes neither `offset` nor `length`.  A stream that ends before is a failure
 * that is not retryable.
 */
typedef struct tirval_dsi_rest_gridftp_op_arg_s {
    tirval_gfs_operation_t op;
    tirval_off_t offset;
    tirval_off_t length; /* -1: to the end */
    bool eof;
} tirval_dsi_rest_gridftp_op_arg_t;
TIRVAL_API tirval_result_t tirval_dsi_rest_read_gridftp_op(void *gridftp_op_arg, void *buffer,
                                                           size_t buffer_length);
TIRVAL_API tirval_result_t tirval_dsi_rest_write_gridftp_op(void *gridftp_op_arg, void *buffer,
                                                            size_t buffer_length,
                                                            size_t *amount_copied);

/* progress_callback: fails the request with a retryable time-out when the peer has moved nothing
 * for so many milliseconds.  The argument is the number, cast: (void *)(intptr_t)ms. */
TIRVAL_API tirval_result_t tirval_dsi_rest_progress_idle_timeout(void *timeout_ms, uint64_t sent,
                                                                 uint64_t received,
                                                                 uint64_t idle_ms);

/* ---- Requests ------------------------------------------------------------------------------ */

/*
 * Sends one request and blocks until its answer has been taken.
 *
 * method            "GET", "POST", "PUT", "PATCH", "DELETE"
 * uri               absolute; sent byte for byte as it stands; null or malformed is an error
 * query_parameters  appended as "?key=value&..." with both encoded; may be null
 * headers           may be null.  An empty value takes a header away that would be sent otherwise;
 *                   "Content-Length" gives a streamed body's length where its callback's record
 *                   does not.  CR or LF in a name or value is an error.
 * callbacks         may be null
 *
 * Everything is borrowed.  Returns TIRVAL_SUCCESS when a complete answer was taken, whatever its
 * status; a callback's own failure; the operation's cancellation (nothing is sent when it was
 * cancelled before); or an error whose retryability tirval_dsi_rest_error_is_retryable() tells.
 */
TIRVAL_API tirval_result_t tirval_dsi_rest_request(
    const char *method, const char *uri, const tirval_dsi_rest_key_array_t *query_parameters,
    const tirval_dsi_rest_key_array_t *headers, const tirval_dsi_rest_callbacks_t *callbacks);

/* Whether the request that failed with `result` may be sent again.  False for success and for a
 * value that names no error of this library. */
TIRVAL_API bool tirval_dsi_rest_error_is_retryable(tirval_result_t result);

/* ---- For hosts ----------------------------------------------------------------------------- */

/* The HTTP status that the calling thread's last request was answered with; 0: none. */
TIRVAL_API int tirval_dsi_rest_last_status(void);

/* Makes the calling thread's last status 0, so that it tells of later requests only. */
TIRVAL_API void tirval_dsi_rest_clear_last_status(void);

/* Loads the certificate store anew, for the requests of processes forked and connections opened
 * from now on.  Returns false, keeping the old one, when it cannot be loaded. */
TIRVAL_API bool tirval_dsi_rest_reload_certificates(void);

#ifdef __cplusplus
}
#endif

#endif
