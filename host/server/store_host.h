/*
 * The server's side of a running store: where the storage gets the client's data from.
 */
#ifndef TIRVAL_SERVER_STORE_HOST_H
#define TIRVAL_SERVER_STORE_HOST_H

#include "data_receiver.h"
#include "operation_host.h"
#include "spool.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>

namespace tirval::server {

/* The part of a file that a store brings: everything from `offset` on. */
struct store_range_t {
    std::int64_t offset = 0;
    std::optional<std::time_t> modified; /* what the file's modification time is to be */
};

/* What stores have in common, whatever the source. */
class store_host_t : public operation_host_t {
  public:
    store_host_t(session_settings_t &settings, const store_range_t &range)
        : operation_host_t(settings), range_(range), stored_(range.offset)
    {
    }

    void write_range(tirval_off_t &offset, tirval_off_t &length) override;
    void stored_up_to(tirval_off_t offset) override { stored_ = offset; }
    std::time_t modification_time() override { return range_.modified.value_or(-1); }
    /* The client's transfer has begun. */
    int default_code() const override { return 451; }

    /* Bytes from the file's start that the service is known to have. */
    std::int64_t stored() const { return stored_; }

  private:
    store_range_t range_;
    std::int64_t stored_;
};

/* From the client's data connection, as the data comes. */
class streamed_store_host_t final : public store_host_t {
  public:
    /* `announce` is called once, before the connection is opened.  Both are borrowed. */
    streamed_store_host_t(session_settings_t &settings, const store_range_t &range,
                          data_receiver_t &receiver, const std::function<void()> &announce)
        : store_host_t(settings, range), receiver_(receiver), announce_(announce)
    {
    }

    std::optional<failure_t> begin_transfer() override;
    std::optional<failure_t> receive(std::span<char> buffer, bool wait, std::size_t &received,
                                     bool &would_block) override;
    int receive_descriptor() override { return receiver_.descriptor(); }
    std::optional<failure_t> register_read(std::span<char> buffer, tirval_gfs_read_done_t done,
                                           void *done_arg) override;
    int default_code() const override { return begun_ ? 451 : 550; }

    bool begun() const { return begun_; }

  private:
    data_receiver_t &receiver_;
    const std::function<void()> &announce_;
    bool begun_ = false;
};

/* From a spool that holds all of it.  The spool's first byte is the file's at `spool_offset`, which
 * is not behind the range's. */
class spooled_store_host_t final : public store_host_t {
  public:
    spooled_store_host_t(session_settings_t &settings, const store_range_t &range,
                         const spool_t &spool, std::int64_t spool_offset)
        : store_host_t(settings, range), spool_(spool), position_(range.offset - spool_offset)
    {
    }

    std::optional<failure_t> receive(std::span<char> buffer, bool wait, std::size_t &received,
                                     bool &would_block) override;
    std::optional<failure_t> register_read(std::span<char> buffer, tirval_gfs_read_done_t done,
                                           void *done_arg) override;

  private:
    std::optional<failure_t> read(std::span<char> buffer, std::size_t &received);

    const spool_t &spool_;
    std::int64_t position_;
    background_reads_t reads_; /* last: they use the others */
};

} // namespace tirval::server

#endif
