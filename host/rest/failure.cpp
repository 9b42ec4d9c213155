// The table of failures.  A failure is retryable when the same request may well succeed the next
// time: nobody answered, or the answer broke off.  What was refused, malformed, cancelled or told
// by the caller itself stays so.
#include "failure.h"

#include <algorithm>
#include <array>

namespace tirval::rest {

namespace {

constexpr bool retry = true;
constexpr bool never = false;
constexpr bool shown = true;
constexpr bool withheld = false;

constexpr std::array failures = {
    failure_row{failure::none, {never, TIRVAL_ERROR_TYPE_UNKNOWN, "no failure"}},
    failure_row{failure::bad_argument,
                {never, TIRVAL_ERROR_TYPE_ARGUMENT, "the request is malformed"}},
    failure_row{failure::bad_uri, {never, TIRVAL_ERROR_TYPE_ARGUMENT, "the address is malformed"}},
    failure_row{failure::plain_http,
                {never, TIRVAL_ERROR_TYPE_ARGUMENT,
                 "plain http is spoken to this machine only; use https"}},
    failure_row{failure::no_certificates,
                {never, TIRVAL_ERROR_TYPE_SYSTEM, "no certificate store is loaded"}},
    failure_row{failure::cancelled,
                {never, TIRVAL_ERROR_TYPE_CANCELLED, "the operation was cancelled"}},
    failure_row{failure::callback_failed,
                {never, TIRVAL_ERROR_TYPE_UNKNOWN, "the data could not be passed on"}},
    failure_row{
        failure::short_request_body,
        {never, TIRVAL_ERROR_TYPE_ARGUMENT, "the data to send ended before its announced length"}},
    failure_row{failure::idle,
                {retry, TIRVAL_ERROR_TYPE_NETWORK, "the service has moved no data for too long"}},
    failure_row{failure::sent_twice,
                {retry, TIRVAL_ERROR_TYPE_NETWORK, "the connection was lost before an answer"}},
    failure_row{failure::headers_too_large,
                {never, TIRVAL_ERROR_TYPE_PROTOCOL, "the answer has too many headers"}},
    failure_row{failure::malformed_answer,
                {never, TIRVAL_ERROR_TYPE_PROTOCOL, "the answer is not HTTP"}},
    failure_row{failure::short_head, {retry, TIRVAL_ERROR_TYPE_NETWORK, "the answer broke off"}},
    failure_row{failure::body_too_large,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "the answer is too large"}},
    failure_row{failure::json_too_deep,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "the answer is nested too deeply"}},
    failure_row{failure::redirect,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER,
                 "the service answered with a redirect instead of content"}},
    failure_row{failure::wrong_range,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER,
                 "the service answered with another range than was asked for"}},
    failure_row{failure::surplus_body,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER,
                 "the service sent more content than it announced"}},
    failure_row{
        failure::short_body,
        {retry, TIRVAL_ERROR_TYPE_NETWORK, "the service sent less content than it announced"}},
    failure_row{failure::unannounced_end,
                {never, TIRVAL_ERROR_TYPE_SERVICE_ANSWER,
                 "the service did not announce where its content ends"}},
    failure_row{failure::partial_body_taken,
                {never, TIRVAL_ERROR_TYPE_NETWORK,
                 "a part of the content was used already, so that it cannot be asked for again"}},
    failure_row{failure::out_of_memory, {never, TIRVAL_ERROR_TYPE_MEMORY, "memory ran out"}},
    failure_row{failure::internal,
                {never, TIRVAL_ERROR_TYPE_SYSTEM, "the HTTP library could not be used"}},
};

constexpr int network = TIRVAL_ERROR_TYPE_NETWORK;
constexpr int protocol = TIRVAL_ERROR_TYPE_PROTOCOL;
constexpr int argument = TIRVAL_ERROR_TYPE_ARGUMENT;
constexpr int local = TIRVAL_ERROR_TYPE_SYSTEM;

constexpr std::array codes = {
    // Nobody was reached.
    curl_row{
        CURLE_COULDNT_RESOLVE_PROXY, {retry, network, "the proxy's name is unknown"}, withheld},
    curl_row{CURLE_COULDNT_RESOLVE_HOST, {retry, network, "the host's name is unknown"}, shown},
    curl_row{CURLE_COULDNT_CONNECT, {retry, network, "no connection could be made"}, shown},
    curl_row{CURLE_OPERATION_TIMEDOUT, {retry, network, "no connection was made in time"}, shown},
    curl_row{CURLE_SSL_CONNECT_ERROR, {retry, network, "no TLS connection could be made"}, shown},
    curl_row{CURLE_PROXY, {retry, network, "the proxy could not be used"}, withheld},
    curl_row{CURLE_QUIC_CONNECT_ERROR, {retry, network, "no QUIC connection could be made"}, shown},
    curl_row{
        CURLE_NO_CONNECTION_AVAILABLE, {retry, network, "no connection was available"}, withheld},
    // The connection broke.
    curl_row{CURLE_PARTIAL_FILE, {retry, network, "the answer broke off"}, withheld},
    curl_row{
        CURLE_GOT_NOTHING, {retry, network, "the connection ended without an answer"}, withheld},
    curl_row{CURLE_SEND_ERROR, {retry, network, "the request could not be sent"}, shown},
    curl_row{CURLE_RECV_ERROR, {retry, network, "the answer could not be received"}, shown},
    curl_row{CURLE_SEND_FAIL_REWIND,
             {retry, network, "the connection was lost before an answer"},
             withheld},
    curl_row{CURLE_HTTP2, {retry, network, "the HTTP/2 connection failed"}, withheld},
    curl_row{CURLE_HTTP2_STREAM, {retry, network, "the HTTP/2 stream failed"}, withheld},
    curl_row{CURLE_HTTP3, {retry, network, "the HTTP/3 connection failed"}, withheld},
    curl_row{CURLE_AGAIN, {retry, network, "the connection was not ready"}, withheld},
    curl_row{CURLE_SSL_SHUTDOWN_FAILED, {retry, network, "the TLS connection failed"}, withheld},
    // The peer is not who it should be, or wants what it does not get.
    curl_row{CURLE_PEER_FAILED_VERIFICATION,
             {never, network, "the host's certificate is not trusted"},
             shown},
    curl_row{
        CURLE_SSL_ISSUER_ERROR, {never, network, "the certificate's issuer is wrong"}, withheld},
    curl_row{CURLE_SSL_PINNEDPUBKEYNOTMATCH, {never, network, "the host's key is wrong"}, withheld},
    curl_row{CURLE_SSL_INVALIDCERTSTATUS, {never, network, "the certificate is invalid"}, withheld},
    curl_row{CURLE_SSL_CLIENTCERT, {never, network, "a client certificate is asked for"}, withheld},
    curl_row{CURLE_SSL_CERTPROBLEM, {never, local, "the client certificate is bad"}, withheld},
    curl_row{CURLE_SSL_CIPHER, {never, local, "the TLS cipher list is bad"}, withheld},
    curl_row{CURLE_SSL_CACERT_BADFILE, {never, local, "the certificate store is bad"}, withheld},
    curl_row{CURLE_SSL_CRL_BADFILE, {never, local, "the revocation list is bad"}, withheld},
    curl_row{CURLE_SSL_ENGINE_NOTFOUND, {never, local, "the TLS engine is missing"}, withheld},
    curl_row{CURLE_SSL_ENGINE_SETFAILED, {never, local, "the TLS engine failed"}, withheld},
    curl_row{CURLE_SSL_ENGINE_INITFAILED, {never, local, "the TLS engine failed"}, withheld},
    curl_row{CURLE_USE_SSL_FAILED, {never, network, "TLS could not be used"}, withheld},
    curl_row{CURLE_LOGIN_DENIED, {never, network, "the log-in was refused"}, withheld},
    curl_row{CURLE_REMOTE_ACCESS_DENIED, {never, network, "the access was refused"}, withheld},
    curl_row{CURLE_AUTH_ERROR, {never, network, "the authentication failed"}, withheld},
    // The answer makes no sense.  libcurl gives code 1 to an answer that does not begin like HTTP,
    // and code 27 to a single header line over its limit.
    curl_row{CURLE_UNSUPPORTED_PROTOCOL, {never, protocol, "the answer is not HTTP"}, withheld},
    curl_row{CURLE_WEIRD_SERVER_REPLY, {never, protocol, "the answer is not HTTP"}, withheld},
    curl_row{CURLE_BAD_CONTENT_ENCODING, {never, protocol, "the answer's coding is bad"}, withheld},
    curl_row{CURLE_RANGE_ERROR, {never, protocol, "the range was refused"}, withheld},
    curl_row{CURLE_HTTP_RETURNED_ERROR, {never, protocol, "the service refused"}, withheld},
    curl_row{CURLE_TOO_MANY_REDIRECTS, {never, protocol, "too many redirects"}, withheld},
    curl_row{CURLE_FILESIZE_EXCEEDED, {never, protocol, "the answer is too large"}, withheld},
    curl_row{CURLE_OUT_OF_MEMORY,
             {never, protocol, "a header line is too long, or memory ran out"},
             withheld},
    // The request is wrong, or this library is.
    curl_row{CURLE_URL_MALFORMAT, {never, argument, "the address is malformed"}, withheld},
    curl_row{CURLE_FAILED_INIT, {never, local, "the HTTP library failed to start"}, withheld},
    curl_row{CURLE_NOT_BUILT_IN, {never, local, "the HTTP library lacks a part"}, withheld},
    curl_row{CURLE_FUNCTION_NOT_FOUND, {never, local, "the HTTP library lacks a part"}, withheld},
    curl_row{CURLE_UNKNOWN_OPTION, {never, local, "the HTTP library lacks an option"}, withheld},
    curl_row{CURLE_SETOPT_OPTION_SYNTAX, {never, local, "an option was refused"}, withheld},
    curl_row{CURLE_BAD_FUNCTION_ARGUMENT, {never, local, "an argument was refused"}, withheld},
    curl_row{CURLE_HTTP_POST_ERROR, {never, local, "the body could not be built"}, withheld},
    curl_row{CURLE_INTERFACE_FAILED, {never, local, "the network interface failed"}, withheld},
    curl_row{
        CURLE_RECURSIVE_API_CALL, {never, local, "the HTTP library was called wrongly"}, withheld},
    curl_row{CURLE_UNRECOVERABLE_POLL, {never, local, "waiting failed"}, withheld},
    // A callback of ours ended the transfer without saying why.
    curl_row{CURLE_WRITE_ERROR, {never, local, "the answer could not be taken"}, withheld},
    curl_row{CURLE_READ_ERROR, {never, local, "the data to send could not be read"}, withheld},
    curl_row{CURLE_UPLOAD_FAILED, {never, local, "the data could not be sent"}, withheld},
    curl_row{CURLE_ABORTED_BY_CALLBACK, {never, local, "the request was ended"}, withheld},
};

constexpr curl_row unknown_code = {CURLE_OK, {never, network, "the request failed"}, withheld};

} // namespace

std::span<const failure_row> failure_rows()
{
    return failures;
}

std::span<const curl_row> curl_rows()
{
    return codes;
}

const verdict &judge(failure what)
{
    const auto *const row = std::find_if(failures.begin(), failures.end(),
                                         [what](const auto &each) { return each.what == what; });
    TIRVAL_ASSERT(row != failures.end());
    return row->judged;
}

const curl_row &judge(CURLcode code)
{
    const auto *const row = std::find_if(codes.begin(), codes.end(),
                                         [code](const auto &each) { return each.code == code; });
    return row == codes.end() ? unknown_code : *row;
}

} // namespace tirval::rest
