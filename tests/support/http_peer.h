/*
 * A scripted HTTP/1.1 server on 127.0.0.1 for fault tests: raw sockets, so that every byte, pause
 * and reset of an answer is the test's choice.
 *
 *     http_peer peer;
 *     peer.answer(http_peer_answer::json(200, R"({"id":"1"})"));
 *     peer.answer(http_peer_answer().send("HTTP/1.1 200 OK\r\nContent-Le").reset());
 *     ... requests to peer.url("/path") ...
 *     EXPECT_EQ(peer.requests().at(0).method, "GET");
 *
 * Each request takes the next queued answer, whatever connection it comes on.  With an empty queue
 * the handler is asked; without a handler the request gets status 599 and is counted in
 * unexpected().  Connections are kept open between answers unless the answer ends them.  All
 * functions may be called by any thread; the destructor ends everything and waits for it.
 */
#ifndef TIRVAL_TESTS_HTTP_PEER_H
#define TIRVAL_TESTS_HTTP_PEER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using http_peer_headers = std::vector<std::pair<std::string, std::string>>;

/* A request as it came over the wire. */
struct http_peer_request {
    std::string method;
    std::string target;        /* path and query, as sent */
    http_peer_headers headers; /* as sent, in order */
    std::string body;          /* decoded when it was chunked */
    std::size_t body_size = 0; /* bytes received of it, decoded */
    bool body_complete = false;
    std::size_t connection = 0;                    /* 0: the first accepted one */
    std::chrono::steady_clock::time_point arrived; /* when the headers were complete */

    /* The first header of that name (compared without case). */
    std::optional<std::string> header(std::string_view name) const;
    std::size_t header_count(std::string_view name) const;
};

/* What is done about one request, step by step. */
class http_peer_answer {
  public:
    /* No step: the connection stays open and the client waits. */
    http_peer_answer() = default;
    /* A complete answer with Content-Length. */
    static http_peer_answer complete(int status, std::string_view body = {},
                                     const http_peer_headers &headers = {});
    static http_peer_answer json(int status, std::string_view text,
                                 const http_peer_headers &headers = {});

    http_peer_answer &send(std::string bytes);
    /* The same bytes so many times; ends early when the client leaves. */
    http_peer_answer &repeat(std::string bytes, std::size_t times);
    http_peer_answer &pause(std::chrono::milliseconds duration);
    /* Until the client closes the connection; what it sends is dropped. */
    http_peer_answer &await_close();
    /* Ends the connection in order (under TLS with close_notify). */
    http_peer_answer &close();
    /* Ends the connection by RST. */
    http_peer_answer &reset();
    /* Takes the steps before the request's body has been read.  The body is read afterwards. */
    http_peer_answer &before_body();
    /* Reads the request's body without keeping it: body_size only. */
    http_peer_answer &drop_body();
    /* Reads only so many bytes of a request's counted body; the steps must end the connection. */
    http_peer_answer &stop_body_after(std::size_t bytes);
    /* Reads the request's body in blocks of at most `block` bytes with a pause before each. */
    http_peer_answer &read_slowly(std::size_t block, std::chrono::milliseconds pause_between);

  private:
    friend class http_peer_connection;
    enum class action { send, pause, await_close, close, reset };
    struct step {
        action what;
        std::string bytes;
        std::size_t times = 1;
        std::chrono::milliseconds duration{};
    };
    std::vector<step> steps;
    bool early = false;
    bool keeps_body = true;
    std::size_t most_body = SIZE_MAX;
    std::size_t read_block = 65536;
    std::chrono::milliseconds read_pause{};
};

/* How a peer is set up. */
struct http_peer_options {
    std::string certificate_file; /* PEM; with key_file: TLS */
    std::string key_file;
    int receive_buffer = 0; /* bytes of socket buffer; 0: the system's choice */
};

struct http_peer_state;

class http_peer {
  public:
    explicit http_peer(const http_peer_options &options = {});
    ~http_peer();
    http_peer(const http_peer &) = delete;
    http_peer &operator=(const http_peer &) = delete;

    std::uint16_t port() const;
    /* "http://127.0.0.1:PORT" or "https://..." with `target` appended. */
    std::string url(std::string_view target = "/") const;

    void answer(http_peer_answer next);
    void on_request(std::function<http_peer_answer(const http_peer_request &)> handler);

    /* Everything received so far, in order of arrival. */
    std::vector<http_peer_request> requests() const;
    /* Waits until so many requests have arrived; false after 20 seconds. */
    bool wait_for_requests(std::size_t count) const;
    std::size_t connections() const;
    /* Answers that no request has taken. */
    std::size_t unused() const;
    std::size_t unexpected() const;
    /* Ends every open connection, as a peer's restart does. */
    void close_connections();

  private:
    std::unique_ptr<http_peer_state> state;
};

#endif
