/*
 * Every way in which a request can fail, whether the request may then be sent again, and the words
 * for it.  The one table of both stands in failure.cpp.
 */
#ifndef TIRVAL_REST_FAILURE_H
#define TIRVAL_REST_FAILURE_H

#include "tirval_common.h"

#include <curl/curl.h>
#include <span>
#include <string>
#include <utility>

namespace tirval::rest {

/* Conditions of our own; libcurl's codes are judged apart. */
enum class failure {
    none,
    bad_argument,       /* the call itself is wrong */
    bad_uri,            /* the URI is null or malformed */
    plain_http,         /* http to a host that is not this machine */
    no_certificates,    /* https without a loaded certificate store */
    cancelled,          /* the operation was cancelled */
    callback_failed,    /* a callback of the caller's failed; its own result is the call's */
    short_request_body, /* the request's body ended before its announced length */
    idle,               /* the peer has moved nothing for too long */
    sent_twice,         /* libcurl was about to send the request a second time */
    headers_too_large,  /* more header lines or bytes than are taken */
    malformed_answer,   /* the answer's head makes no sense */
    short_head,         /* the connection ended before the answer's head did */
    body_too_large,     /* more JSON than is taken */
    json_too_deep,      /* JSON nested deeper than the parser allows */
    redirect,           /* a redirect where content was expected */
    wrong_range,        /* the answer is not the range that was asked for */
    surplus_body,       /* more content than was announced */
    short_body,         /* less content than was announced */
    unannounced_end,    /* content whose end cannot be told from a broken connection */
    partial_body_taken, /* any retryable failure after content went to a callback that keeps it */
    out_of_memory,
    internal, /* libcurl refused an option or a call */
};

/* What a failure means for the caller. */
struct verdict {
    bool retryable;
    int type;         /* TIRVAL_ERROR_TYPE_... */
    const char *text; /* static */
};

struct failure_row {
    failure what;
    verdict judged;
};
struct curl_row {
    CURLcode code;
    verdict judged;
    bool detail_is_safe; /* libcurl's message names hosts at most, never a URL or a credential */
};

std::span<const failure_row> failure_rows();
std::span<const curl_row> curl_rows();

const verdict &judge(failure what);
/* A code without a row is not retryable. */
const curl_row &judge(CURLcode code);

/* How a step of a request went wrong, if it did. */
struct problem {
    failure what = failure::none;
    CURLcode code = CURLE_OK;                /* set: libcurl's failure instead of one of ours */
    tirval_result_t result = TIRVAL_SUCCESS; /* callback_failed and cancelled: the call's result */
    std::string detail;                      /* one more half sentence, or empty */

    explicit operator bool() const { return what != failure::none || code != CURLE_OK; }

    static problem of(failure what, std::string detail = {})
    {
        return {what, CURLE_OK, TIRVAL_SUCCESS, std::move(detail)};
    }
    /* None when the callback succeeded. */
    static problem of_callback(tirval_result_t result)
    {
        return result == TIRVAL_SUCCESS ? problem{}
                                        : problem{failure::callback_failed, CURLE_OK, result, {}};
    }
};

} // namespace tirval::rest

#endif
