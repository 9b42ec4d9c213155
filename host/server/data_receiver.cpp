/*
 * Receives without a wait first: a busy connection costs one system call a block.
 */
#include "data_receiver.h"

#include "tirval_gfs_host.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace tirval::server {
namespace {

using steady_t = std::chrono::steady_clock;

} // namespace

data_receiver_t::data_receiver_t(std::unique_ptr<data_endpoint_t> endpoint,
                                 const options_t &options, std::atomic<std::uint64_t> &moved)
    : endpoint_(std::move(endpoint)), options_(options), moved_(moved)
{
}

data_receiver_t::~data_receiver_t() = default;

std::optional<failure_t> data_receiver_t::open()
{
    auto opened = open_data_connection(*endpoint_, options_.open_timeout);
    endpoint_.reset();
    if (auto *failure = std::get_if<failure_t>(&opened)) {
        return note(std::move(*failure));
    }
    connection_ = std::move(std::get<unique_fd_t>(opened));
    if (options_.ascii) {
        raw_ = std::make_unique<std::array<char, 65536>>();
    }
    return std::nullopt;
}

std::optional<failure_t> data_receiver_t::receive(std::span<char> buffer, bool wait,
                                                  std::size_t &received, bool &would_block)
{
    received = 0;
    would_block = false;
    auto failure = options_.ascii ? receive_ascii(buffer, wait, received, would_block)
                                  : take(buffer, wait, received, would_block);
    delivered_ += static_cast<std::int64_t>(received);
    return note(std::move(failure));
}

std::optional<failure_t> data_receiver_t::note(std::optional<failure_t> failure)
{
    if (failure && !failure_) {
        failure_ = failure;
    }
    return failure;
}

std::optional<failure_t> data_receiver_t::receive_ascii(std::span<char> buffer, bool wait,
                                                        std::size_t &received, bool &would_block)
{
    for (;;) {
        received = convert(buffer);
        if (received > 0 || (ended_ && raw_begin_ == raw_end_)) {
            return std::nullopt;
        }
        /* At most a CR is left, whose next byte is not here yet. */
        std::memmove(raw_->data(), raw_->data() + raw_begin_, raw_end_ - raw_begin_);
        raw_end_ -= std::exchange(raw_begin_, 0);
        std::size_t taken = 0;
        const std::span<char> room(raw_->data() + raw_end_, raw_->size() - raw_end_);
        auto failure = take(room, wait, taken, would_block);
        if (failure || would_block) {
            return failure;
        }
        raw_end_ += taken;
    }
}

/* Moves converted bytes out of what is raw, as many as fit. */
std::size_t data_receiver_t::convert(std::span<char> buffer)
{
    std::size_t moved = 0;
    while (moved < buffer.size() && raw_begin_ < raw_end_) {
        const char *next = raw_->data() + raw_begin_;
        const bool is_last = raw_begin_ + 1 == raw_end_;
        if (*next == '\r' && is_last && !ended_) {
            break;
        }
        if (*next == '\r' && !is_last && next[1] == '\n') {
            ++next;
            ++raw_begin_;
        }
        buffer[moved++] = *next;
        ++raw_begin_;
    }
    return moved;
}

/* The next bytes as the connection brings them. */
std::optional<failure_t> data_receiver_t::take(std::span<char> buffer, bool wait,
                                               std::size_t &received, bool &would_block)
{
    if (ended_) {
        return std::nullopt;
    }
    const auto deadline = steady_t::now() + options_.stall_timeout;
    for (;;) {
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            return cancelled_failure();
        }
        const ssize_t got = recv(connection_.get(), buffer.data(), buffer.size(), 0);
        if (got >= 0) {
            ended_ = got == 0;
            received = static_cast<std::size_t>(got);
            moved_ += received;
            return std::nullopt;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return make_failure(426, "The client broke off the data connection");
        }
        if (!wait) {
            would_block = true;
            return std::nullopt;
        }
        const wait_result_t result = wait_for_data(connection_.get(), POLLIN, deadline);
        if (result == wait_result_t::cancelled) {
            return cancelled_failure();
        }
        if (result == wait_result_t::timed_out) {
            return make_failure(426, "The client sent no data for too long");
        }
    }
}

std::optional<failure_t> data_receiver_t::register_read(std::span<char> buffer,
                                                        tirval_gfs_read_done_t done, void *done_arg)
{
    const auto read = [this, buffer](std::size_t &received) {
        bool would_block = false;
        return receive(buffer, true, received, would_block);
    };
    return reads_.start(read, delivered_, done, done_arg);
}

} // namespace tirval::server
