/* How this library makes its own failures. */
#ifndef TIRVAL_GRIDFTP_ERRORS_H
#define TIRVAL_GRIDFTP_ERRORS_H

#include "tirval_gridftp_server.h"

namespace tirval_gfs {

/* Puts an FTP response error.  `cause` is consumed and may be null. */
tirval_result_t put_reply(tirval_object_t *cause, int code, const char *tag, const char *format,
                          ...) TIRVAL_PRINTF(4, 5);

/* Puts a generic error of this library.  `function` has static storage. */
tirval_result_t put_error(int type, const char *function, int line, const char *format, ...)
    TIRVAL_PRINTF(4, 5);

/*
 * `result` itself when it names an FTP response error.  Otherwise puts an FTP response error with a
 * copy of what it names as the cause; `code`, `tag` and `message` are the new error's.
 */
tirval_result_t as_reply(tirval_result_t result, int code, const char *tag, const char *message);

} // namespace tirval_gfs

#endif
