/*
 * The library's error objects.  The outer object tells which request failed and whether it may be
 * sent again; its cause is a generic error with the type number and the reason.
 */
#ifndef TIRVAL_REST_ERROR_H
#define TIRVAL_REST_ERROR_H

#include "failure.h"

namespace tirval::rest {

/* Names the thread's running request, without secrets, for the errors put meanwhile. */
class request_label {
  public:
    explicit request_label(std::string text);
    ~request_label();
    request_label(const request_label &) = delete;
    request_label &operator=(const request_label &) = delete;

  private:
    std::string label;
};

/* Puts an error about the thread's running request.  `cause` is consumed; it may be null. */
tirval_result_t put_error(const verdict &judged, const std::string &reason,
                          tirval_object_t *cause = nullptr) noexcept;

/* Puts the error for a problem; for a callback's failure returns that callback's own result. */
tirval_result_t put_error(const problem &trouble) noexcept;

/* Makes a result one that may not be repeated; `result` is consumed. */
tirval_result_t forbid_retry(tirval_result_t result) noexcept;

/* Releases what a result names, if anything. */
void drop_result(tirval_result_t result) noexcept;

} // namespace tirval::rest

#endif
