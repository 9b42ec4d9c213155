/*
 * Blocking socket work with deadlines: each wait polls the socket and the descriptor that becomes
 * readable when the operation is cancelled.
 */
#include "data_connection.h"

#include "log.h"

#include "tirval_gfs_host.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <random>

namespace tirval::server {
namespace {

using steady_t = std::chrono::steady_clock;

/* What storages deliver is at most 16 KiB at a time; measured, collecting 256 KiB takes two thirds
 * of the time and half the processor of sending each piece. */
constexpr std::size_t buffer_bytes = std::size_t{256} * 1024;
/* With nothing collected a piece from here on is sent without a copy. */
constexpr std::size_t direct_bytes = std::size_t{64} * 1024;

/* The connection stays where it waits: another attempt would meet the same at once. */
bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

failure_t open_failure(wait_result_t result, const char *what)
{
    return result == wait_result_t::cancelled ? cancelled_failure() : make_failure(425, what);
}

void keep_alive(int descriptor)
{
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

/* A listener at `address`; none when the port is taken. */
unique_fd_t try_listen(const socket_address_t &address)
{
    unique_fd_t listener(socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) {
        return {};
    }
    /* Transfers leave ports in TIME_WAIT behind, which would use up the range. */
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    constexpr int backlog = 16; /* strangers may come first */
    if (bind(listener.get(), address.data(), address.size()) != 0 ||
        ::listen(listener.get(), backlog) != 0) {
        return {};
    }
    return listener;
}

/* A walk through the range from a random start in random steps meets each port once, and nobody can
 * tell the next one. */
unique_fd_t listen_in_range(const socket_address_t &local, const port_range_t &ports)
{
    std::random_device random;
    const unsigned count = static_cast<unsigned>(ports.last) - ports.first + 1U;
    const unsigned start = random() % count;
    unsigned step = random() % count;
    while (std::gcd(step, count) != 1) {
        step = (step + 1) % count;
    }
    for (unsigned n = 0; n < count; ++n) {
        const auto offset =
            static_cast<unsigned>((start + static_cast<std::uint64_t>(n) * step) % count);
        const auto port = static_cast<std::uint16_t>(ports.first + offset);
        unique_fd_t listener = try_listen(local.with_port(port));
        if (listener) {
            return listener;
        }
    }
    return {};
}

using opened_t = std::variant<unique_fd_t, failure_t>;

opened_t accept_client(const data_endpoint_t &endpoint, steady_t::time_point deadline)
{
    for (;;) {
        const wait_result_t result = wait_for_data(endpoint.listener.get(), POLLIN, deadline);
        if (result != wait_result_t::ready) {
            return open_failure(result, "No data connection was made in time");
        }
        sockaddr_storage from{};
        socklen_t size = sizeof from;
        unique_fd_t accepted(accept4(endpoint.listener.get(), reinterpret_cast<sockaddr *>(&from),
                                     &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!accepted) {
            if (is_shortage(errno)) {
                return make_failure(425, "The data connection cannot be opened");
            }
            continue;
        }
        /* Asked of the socket, a client that has broken off already would have no address. */
        const socket_address_t peer = socket_address_t::from(from);
        if (peer.same_host(endpoint.client)) {
            return accepted;
        }
        log_warning("refused a data connection from %s: it belongs to %s", peer.host().c_str(),
                    endpoint.client.host().c_str());
    }
}

opened_t connect_to_client(const data_endpoint_t &endpoint, steady_t::time_point deadline)
{
    const socket_address_t &target = endpoint.target;
    unique_fd_t made(socket(target.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const socket_address_t source = endpoint.local.with_port(0);
    if (!made || bind(made.get(), source.data(), source.size()) != 0) {
        return make_failure(425, "The data connection cannot be opened");
    }
    if (connect(made.get(), target.data(), target.size()) != 0) {
        if (errno != EINPROGRESS) {
            return make_failure(425, "The data connection was refused");
        }
        const wait_result_t result = wait_for_data(made.get(), POLLOUT, deadline);
        if (result != wait_result_t::ready) {
            return open_failure(result, "The data connection was not answered in time");
        }
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(made.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
            return make_failure(425, "The data connection was refused");
        }
    }
    return made;
}

} // namespace

std::unique_ptr<data_endpoint_t> listen_for_data(const socket_address_t &local,
                                                 const socket_address_t &client,
                                                 const std::optional<port_range_t> &ports)
{
    auto endpoint = std::make_unique<data_endpoint_t>();
    endpoint->local = local;
    endpoint->client = client;
    endpoint->listener = ports ? listen_in_range(local, *ports) : try_listen(local.with_port(0));
    if (!endpoint->listener) {
        return nullptr;
    }
    endpoint->port = socket_address_t::local_of(endpoint->listener.get()).port();
    return endpoint;
}

wait_result_t wait_for_data(int connection, short events, steady_t::time_point deadline)
{
    for (;;) {
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            return wait_result_t::cancelled;
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_t::now()).count();
        if (left <= 0) {
            return wait_result_t::timed_out;
        }
        std::array<pollfd, 2> polled{
            {{connection, events, 0}, {tirval_gfs_cancel_descriptor(), POLLIN, 0}}};
        const int ready = poll(polled.data(), polled.size(),
                               static_cast<int>(std::min<std::int64_t>(left, 3'600'000)));
        if (ready > 0 && polled[0].revents != 0 && polled[1].revents == 0) {
            return wait_result_t::ready;
        }
    }
}

failure_t cancelled_failure()
{
    return make_failure(426, "Transfer aborted");
}

std::variant<unique_fd_t, failure_t> open_data_connection(const data_endpoint_t &endpoint,
                                                          std::chrono::milliseconds limit)
{
    const auto deadline = steady_t::now() + limit;
    auto opened = endpoint.listener ? accept_client(endpoint, deadline)
                                    : connect_to_client(endpoint, deadline);
    if (const auto *connection = std::get_if<unique_fd_t>(&opened)) {
        keep_alive(connection->get());
    }
    return opened;
}

data_sender_t::data_sender_t(std::unique_ptr<data_endpoint_t> endpoint, const options_t &options,
                             std::atomic<std::uint64_t> &sent)
    : endpoint_(std::move(endpoint)), options_(options), sent_(sent)
{
}

data_sender_t::~data_sender_t() = default;

std::optional<failure_t> data_sender_t::open()
{
    auto opened = open_data_connection(*endpoint_, options_.open_timeout);
    endpoint_.reset();
    if (auto *failure = std::get_if<failure_t>(&opened)) {
        return std::move(*failure);
    }
    connection_ = std::move(std::get<unique_fd_t>(opened));
    buffer_ = std::make_unique_for_overwrite<char[]>(buffer_bytes);
    return std::nullopt;
}

std::optional<failure_t> data_sender_t::write(std::string_view data)
{
    return options_.ascii ? write_ascii(data) : collect(data);
}

std::optional<failure_t> data_sender_t::write_ascii(std::string_view data)
{
    while (!data.empty()) {
        const std::size_t end = data.find('\n');
        if (auto failure = collect(data.substr(0, end))) {
            return failure;
        }
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        if (auto failure = collect("\r\n")) {
            return failure;
        }
        data.remove_prefix(end + 1);
    }
    return std::nullopt;
}

std::optional<failure_t> data_sender_t::collect(std::string_view data)
{
    while (!data.empty()) {
        if (collected_ == 0 && data.size() >= direct_bytes) {
            return send_all(data);
        }
        const std::size_t taken = std::min(data.size(), buffer_bytes - collected_);
        std::memcpy(buffer_.get() + collected_, data.data(), taken);
        collected_ += taken;
        data.remove_prefix(taken);
        if (collected_ == buffer_bytes) {
            if (auto failure = flush()) {
                return failure;
            }
        }
    }
    return std::nullopt;
}

std::optional<failure_t> data_sender_t::flush()
{
    const std::size_t bytes = std::exchange(collected_, 0);
    return bytes == 0 ? std::nullopt : send_all({buffer_.get(), bytes});
}

std::optional<failure_t> data_sender_t::send_all(std::string_view data)
{
    auto deadline = steady_t::now() + options_.stall_timeout;
    while (!data.empty()) {
        const ssize_t sent = ::send(connection_.get(), data.data(), data.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            data.remove_prefix(static_cast<std::size_t>(sent));
            sent_ += static_cast<std::uint64_t>(sent);
            deadline = steady_t::now() + options_.stall_timeout;
            if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
                return cancelled_failure();
            }
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return make_failure(426, "The client closed the data connection");
        }
        const wait_result_t result = wait_for_data(connection_.get(), POLLOUT, deadline);
        if (result == wait_result_t::cancelled) {
            return cancelled_failure();
        }
        if (result == wait_result_t::timed_out) {
            return make_failure(426, "The client took no data for too long");
        }
    }
    return std::nullopt;
}

std::optional<failure_t> data_sender_t::finish()
{
    auto failure = flush();
    buffer_.reset();
    /* Unread bytes from the client would make the close a reset, which can overtake the data. */
    std::array<char, 512> unread{};
    for (int n = 0; n < 16 && recv(connection_.get(), unread.data(), unread.size(), 0) > 0; ++n) {
    }
    shutdown(connection_.get(), SHUT_WR);
    connection_.reset();
    return failure;
}

} // namespace tirval::server
