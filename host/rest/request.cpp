// The request function: checks the call, runs one exchange, and turns its outcome into a result.
#include "certificates.h"
#include "exchange.h"
#include "rest_error.h"
#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"

#include <new>
#include <string>

namespace tirval::rest {

namespace {

thread_local int status_of_thread = 0;

/* What the caller would otherwise find left from an earlier request. */
void clear_outputs(const tirval_dsi_rest_callbacks_t &told)
{
    status_of_thread = 0;
    if (told.response_callback == tirval_dsi_rest_response) {
        auto *const response =
            static_cast<tirval_dsi_rest_response_arg_t *>(told.response_callback_arg);
        response->response_code = 0;
        for (std::size_t i = 0; i < response->desired_headers.count; ++i) {
            response->desired_headers.key_value[i].value = nullptr;
        }
    }
    if (told.data_read_callback == tirval_dsi_rest_read_json) {
        *static_cast<json_t **>(told.data_read_callback_arg) = nullptr;
    }
}

/* A request without credentials has them in its address: then only the host is named. */
std::string label_of(const std::string &method, const request_uri &uri,
                     const request_headers &headers)
{
    return method + " " + uri.host + (headers.authorized ? uri.path : "");
}

problem check_target(const tirval_dsi_rest_callbacks_t &told)
{
    if (told.data_read_callback != tirval_dsi_rest_read_gridftp_op) {
        return {};
    }
    const auto *const record =
        static_cast<const tirval_dsi_rest_gridftp_op_arg_t *>(told.data_read_callback_arg);
    const bool usable =
        record != nullptr && record->op != nullptr && record->offset >= 0 && record->length >= -1;
    return usable ? problem{}
                  : problem::of(failure::bad_argument, "the transfer's record is malformed");
}

tirval_result_t run_exchange(const std::string &method, const request_uri &uri,
                             const request_headers &headers,
                             const tirval_dsi_rest_callbacks_t &told)
{
    curl_session *const session = thread_session();
    if (session == nullptr) {
        return put_error(problem::of(failure::internal));
    }
    if (session->busy) {
        return put_error(problem::of(failure::bad_argument, "it was made within another one"));
    }
    exchange running(*session, method, uri, headers, told);
    const problem outcome = running.run();
    status_of_thread = running.status();
    if (!outcome) {
        return TIRVAL_SUCCESS;
    }
    const auto result = put_error(outcome);
    return running.caller_keeps_bytes() && tirval_dsi_rest_error_is_retryable(result)
               ? forbid_retry(result)
               : result;
}

tirval_result_t send_request(const char *verb, const char *address,
                             const tirval_dsi_rest_key_array_t *query,
                             const tirval_dsi_rest_key_array_t *fields,
                             const tirval_dsi_rest_callbacks_t &told)
{
    if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
        return tirval_gfs_cancel_error();
    }
    const std::string method = verb == nullptr ? "" : verb;
    if (!is_token(method)) {
        return put_error(problem::of(failure::bad_argument, "the method is none"));
    }
    request_uri uri;
    request_headers headers;
    const problem bad_headers = make_headers(fields, headers);
    const problem bad_uri = make_uri(address, query, uri);
    const request_label label(label_of(method, uri, headers));
    for (const auto &trouble : {bad_headers, bad_uri, check_target(told)}) {
        if (trouble) {
            return put_error(trouble);
        }
    }
    if (uri.is_https && !certificates_loaded()) {
        return put_error(problem::of(failure::no_certificates));
    }
    return run_exchange(method, uri, headers, told);
}

} // namespace

} // namespace tirval::rest

tirval_result_t tirval_dsi_rest_request(const char *method, const char *uri,
                                        const tirval_dsi_rest_key_array_t *query_parameters,
                                        const tirval_dsi_rest_key_array_t *headers,
                                        const tirval_dsi_rest_callbacks_t *callbacks)
{
    using namespace tirval::rest;
    const tirval_dsi_rest_callbacks_t told =
        callbacks == nullptr ? tirval_dsi_rest_callbacks_t{} : *callbacks;
    clear_outputs(told);
    tirval_result_t result;
    try {
        result = send_request(method, uri, query_parameters, headers, told);
    } catch (const std::bad_alloc &) {
        result = put_error(problem::of(failure::out_of_memory));
    }
    if (told.complete_callback != nullptr) {
        const auto completion = told.complete_callback(told.complete_callback_arg, result);
        result = result == TIRVAL_SUCCESS ? completion : result;
    }
    return result;
}

int tirval_dsi_rest_last_status(void)
{
    return tirval::rest::status_of_thread;
}

void tirval_dsi_rest_clear_last_status(void)
{
    tirval::rest::status_of_thread = 0;
}
