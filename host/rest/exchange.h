/*
 * One request on the wire and its answer: sets libcurl up, runs it, and hands out what comes.
 *
 *   - libcurl's callbacks note the first problem and end the transfer; run() returns it.
 *   - libcurl would send a request again when a kept connection dies without an answer.  The hook
 *     that runs before each sending ends the transfer instead, so that one call stays one request.
 *   - Every wait ends at once when the operation is cancelled.
 */
#ifndef TIRVAL_REST_EXCHANGE_H
#define TIRVAL_REST_EXCHANGE_H

#include "answer_sink.h"
#include "curl_handle.h"
#include "request_body.h"
#include "response_head.h"
#include "uri.h"

#include <array>
#include <chrono>
#include <memory>
#include <string>

namespace tirval::rest {

class exchange {
  public:
    /* Everything is borrowed for the object's life. */
    exchange(curl_session &handles, const std::string &verb, const request_uri &address,
             const request_headers &fields, const tirval_dsi_rest_callbacks_t &callbacks);
    ~exchange();
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;

    /* Sends the request and takes its answer. */
    problem run();

    /* The final answer's status; 0: none came. */
    int status() const { return head.complete() ? head.status() : 0; }
    /* Bytes of the answer went to a callback that cannot take them back. */
    bool caller_keeps_bytes() const { return sink != nullptr && sink->caller_keeps_bytes(); }

  private:
    static size_t on_header(char *data, size_t size, size_t count, void *self) noexcept;
    static size_t on_body(char *data, size_t size, size_t count, void *self) noexcept;
    static size_t on_read(char *data, size_t size, size_t count, void *self) noexcept;
    static int on_send(void *self, char *, char *, int, int) noexcept;
    static CURLcode on_tls_context(CURL *, void *context, void *) noexcept;

    template <typename Step> bool attempt(Step &&step) noexcept;
    void fail(problem trouble) noexcept;
    problem take_header(std::string_view line);
    problem begin_answer();
    problem take_body(std::string_view bytes);

    problem configure();
    void configure_method(curl_options &options);
    problem transfer();
    problem conclude(CURLcode code);
    problem finish(problem outcome);
    void note_progress();
    problem report_progress();
    bool peer_took_unsent_bytes();
    void wait();

    curl_session &session;
    const std::string &method;
    const request_uri &uri;
    const request_headers &headers;
    const tirval_dsi_rest_callbacks_t &told;

    request_body body;
    response_head head;
    std::unique_ptr<answer_sink> sink; /* made when the final answer's head is complete */
    idle_clock idle;
    problem first_problem;
    bool has_enough = false;
    bool handle_is_spoilt = false;
    int sendings = 0;
    curl_off_t sent = 0;
    std::uint64_t received = 0;
    int unsent = 0; /* bytes in the kernel's send queue, when last looked at */
    std::chrono::steady_clock::time_point last_report = std::chrono::steady_clock::now();
    std::array<char, CURL_ERROR_SIZE> error_text{};
};

} // namespace tirval::rest

#endif
