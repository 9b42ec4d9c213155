/*
 * A streamed store hands on what the data connection brings; a spooled one reads its spool.
 */
#include "store_host.h"

#include <utility>

namespace tirval::server {

void store_host_t::write_range(tirval_off_t &offset, tirval_off_t &length)
{
    offset = range_.offset;
    length = -1;
}

std::optional<failure_t> streamed_store_host_t::begin_transfer()
{
    begun_ = true;
    announce_();
    return receiver_.open();
}

std::optional<failure_t> streamed_store_host_t::receive(std::span<char> buffer, bool wait,
                                                        std::size_t &received, bool &would_block)
{
    return receiver_.receive(buffer, wait, received, would_block);
}

std::optional<failure_t> streamed_store_host_t::register_read(std::span<char> buffer,
                                                              tirval_gfs_read_done_t done,
                                                              void *done_arg)
{
    return receiver_.register_read(buffer, done, done_arg);
}

std::optional<failure_t> spooled_store_host_t::read(std::span<char> buffer, std::size_t &received)
{
    auto failure = spool_.read(position_, buffer, received);
    position_ += static_cast<std::int64_t>(received);
    return failure;
}

std::optional<failure_t> spooled_store_host_t::receive(std::span<char> buffer, bool,
                                                       std::size_t &received, bool &would_block)
{
    would_block = false;
    return read(buffer, received);
}

std::optional<failure_t> spooled_store_host_t::register_read(std::span<char> buffer,
                                                             tirval_gfs_read_done_t done,
                                                             void *done_arg)
{
    const auto next = [this, buffer](std::size_t &received) { return read(buffer, received); };
    return reads_.start(next, position_, done, done_arg);
}

} // namespace tirval::server
