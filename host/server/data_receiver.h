/*
 * The receiving side of a data connection in stream mode (RFC 959, section 3.4.1): the client's
 * data ends where its connection ends in order.
 */
#ifndef TIRVAL_SERVER_DATA_RECEIVER_H
#define TIRVAL_SERVER_DATA_RECEIVER_H

#include "background_reads.h"
#include "data_connection.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace tirval::server {

/*
 * On the operation thread only.  Each wait ends early when the operation is cancelled, and with a
 * failure when the client sends nothing for the stall timeout.
 *
 * With TYPE A each CR LF of the client's becomes one LF; a CR without LF stays.
 */
class data_receiver_t {
  public:
    using options_t = data_options_t;

    /* `moved` (borrowed) counts the bytes that the connection has brought, for other threads. */
    data_receiver_t(std::unique_ptr<data_endpoint_t> endpoint, const options_t &options,
                    std::atomic<std::uint64_t> &moved);
    ~data_receiver_t();

    /* Opens the connection; to be called once.  Each function below returns what went wrong, or
     * nothing.  A cancelled operation is a failure, too. */
    std::optional<failure_t> open();

    /*
     * The next 1 to buffer.size() bytes; `received` 0: the client's data has ended, or, with
     * `would_block` true, there is nothing yet.  Only with `wait` false does that happen.  The
     * buffer must not be empty.
     */
    std::optional<failure_t> receive(std::span<char> buffer, bool wait, std::size_t &received,
                                     bool &would_block);

    /* Polls readable when receive() has something; -1 when the connection is not open. */
    int descriptor() const { return connection_.get(); }

    /* A receive() on another thread, completed there.  The storage must not receive meanwhile; the
     * buffer is borrowed until the completion. */
    std::optional<failure_t> register_read(std::span<char> buffer, tirval_gfs_read_done_t done,
                                           void *done_arg);

    /* Bytes handed out so far, after conversion. */
    std::int64_t delivered() const { return delivered_; }
    /* The first failure of open(), receive() or a registered read. */
    const std::optional<failure_t> &failure() const { return failure_; }
    /* Closes the connection; what the client still sends is refused.  No read may be registered. */
    void close() { connection_.reset(); }

  private:
    std::optional<failure_t> note(std::optional<failure_t> failure);
    std::optional<failure_t> receive_ascii(std::span<char> buffer, bool wait, std::size_t &received,
                                           bool &would_block);
    std::size_t convert(std::span<char> buffer);
    std::optional<failure_t> take(std::span<char> buffer, bool wait, std::size_t &received,
                                  bool &would_block);

    std::unique_ptr<data_endpoint_t> endpoint_;
    options_t options_;
    std::atomic<std::uint64_t> &moved_;
    unique_fd_t connection_;
    bool ended_ = false; /* the connection has brought its last byte */
    std::int64_t delivered_ = 0;
    std::optional<failure_t> failure_;

    /* TYPE A: what the connection has brought and is not converted yet. */
    std::unique_ptr<std::array<char, 65536>> raw_;
    std::size_t raw_begin_ = 0;
    std::size_t raw_end_ = 0;

    background_reads_t reads_; /* last: they use the others */
};

} // namespace tirval::server

#endif
