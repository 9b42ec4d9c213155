// The sockets: listeners, TLS, HTTP/1.1 connections, and the delivery of answers, damaged ones too.
#pragma once

#include "http.h"
#include "service.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace graph_sim {

struct listen_address {
    std::string address; // numeric, "127.0.0.1" or "::1"
    unsigned short port = 0;
    listener_role role = listener_role::everything;

    // Reads "127.0.0.1:8080" or "[::1]:8080"; throws input_error for anything else.
    static listen_address parse(const std::string &text);
};

struct server_options {
    std::vector<listen_address> listeners;
    std::string certificate_file; // PEM, the whole chain; "" for plain HTTP
    std::string key_file;         // PEM
    unsigned threads = 2;
};

// Serves from construction until destruction, on threads of its own.
class server {
  public:
    // Throws input_error that names the address or the file when it cannot listen.
    server(service &served, const server_options &options);
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    // "http://127.0.0.1:43121" of the listener with that index.
    [[nodiscard]] const std::string &origin(std::size_t listener) const;
    [[nodiscard]] unsigned short port(std::size_t listener) const;

  private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace graph_sim
