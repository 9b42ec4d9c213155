/*
 * The data connection of stream mode (RFC 959, sections 3.2 to 3.4): how it is opened and waited
 * for, and its sending side.
 *
 * The I/O thread prepares an endpoint; with a transfer command the endpoint goes to the operation
 * thread, which opens the connection, moves the bytes and closes it.  Every wait ends early when
 * the running operation is cancelled.
 */
#ifndef TIRVAL_SERVER_DATA_CONNECTION_H
#define TIRVAL_SERVER_DATA_CONNECTION_H

#include "config.h"
#include "failure.h"
#include "socket_address.h"
#include "unique_fd.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

namespace tirval::server {

/* Where the next data connection comes from or goes to. */
struct data_endpoint_t {
    unique_fd_t listener;    /* passive: the client connects to it; else none */
    std::uint16_t port = 0;  /* passive: the listener's */
    bool extended = false;   /* passive: made by EPSV */
    socket_address_t target; /* active: what to connect to */
    socket_address_t local;  /* the control connection's own address */
    socket_address_t client; /* the client's address: nobody else may connect */
};

/*
 * Listens on `local`'s address for one client, at a random free port of `ports`, or at any port
 * when there is no range.  Null when no port is free.
 */
std::unique_ptr<data_endpoint_t> listen_for_data(const socket_address_t &local,
                                                 const socket_address_t &client,
                                                 const std::optional<port_range_t> &ports);

/* How the bytes of a data connection are moved. */
struct data_options_t {
    bool ascii = false;                               /* TYPE A: line feeds travel as CR LF */
    std::chrono::milliseconds open_timeout{60'000};   /* for the connection to come about */
    std::chrono::milliseconds stall_timeout{120'000}; /* while the client moves nothing */
};

/* Opens the connection as `endpoint` says, within `limit`; or what went wrong: 425, or 426 when the
 * operation was cancelled. */
std::variant<unique_fd_t, failure_t> open_data_connection(const data_endpoint_t &endpoint,
                                                          std::chrono::milliseconds limit);

enum class wait_result_t { ready, timed_out, cancelled };

/* Waits until the connection has one of poll's `events`.  Any thread. */
wait_result_t wait_for_data(int connection, short events,
                            std::chrono::steady_clock::time_point deadline);

/* The failure of a transfer whose operation was cancelled. */
failure_t cancelled_failure();

/*
 * The sending side of a data connection.  On the operation thread only.
 *
 * Bytes are collected into one buffer before they are sent, since storages deliver small pieces and
 * each system call costs more than the copy.
 */
class data_sender_t {
  public:
    using options_t = data_options_t;

    /* `sent` (borrowed) counts the bytes that the connection has taken, for other threads. */
    data_sender_t(std::unique_ptr<data_endpoint_t> endpoint, const options_t &options,
                  std::atomic<std::uint64_t> &sent);
    ~data_sender_t();

    /* Opens the connection; to be called once.  Each function below returns what went wrong, or
     * nothing.  A cancelled operation is a failure, too. */
    std::optional<failure_t> open();
    bool is_open() const { return static_cast<bool>(connection_); }

    std::optional<failure_t> write(std::string_view data);
    /* Passes on what is collected. */
    std::optional<failure_t> flush();
    /* Passes on what is collected and closes the connection in order. */
    std::optional<failure_t> finish();

  private:
    std::optional<failure_t> collect(std::string_view data);
    std::optional<failure_t> write_ascii(std::string_view data);
    std::optional<failure_t> send_all(std::string_view data);

    std::unique_ptr<data_endpoint_t> endpoint_;
    options_t options_;
    std::atomic<std::uint64_t> &sent_;
    unique_fd_t connection_;
    std::unique_ptr<char[]> buffer_; /* made with the connection, so that idle sessions are small */
    std::size_t collected_ = 0;
};

} // namespace tirval::server

#endif
