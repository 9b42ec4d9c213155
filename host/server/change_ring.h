/*
 * What the sessions of this server have changed lately, so that a session can tell that its view of
 * the drive is out of date.  A ring of keyed hashes of user and path in memory that all processes
 * share: made by the master before its first fork, written and read by sessions without locks.
 *
 * A session that is killed in the middle of a write, or a ring that has gone once around, only
 * makes others refresh once more than needed.
 */
#ifndef TIRVAL_SERVER_CHANGE_RING_H
#define TIRVAL_SERVER_CHANGE_RING_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tirval::server {

class change_ring_t {
  public:
    /* Throws std::system_error when there is no memory.  `slots` is at least 1. */
    explicit change_ring_t(std::size_t slots = 4096);
    ~change_ring_t();
    change_ring_t(const change_ring_t &) = delete;
    change_ring_t &operator=(const change_ring_t &) = delete;

    /*
     * The present position.  A session takes it before it opens its storage session, and asks
     * changed_since() with it later.
     */
    std::uint64_t position() const;

    /*
     * Notes that `session` has changed the item at `path`: made, stored, removed, or renamed it
     * (then once for the old and once for the new path).  To be called after the service has made
     * the change and before the client is told.
     *
     * user  the local user
     * path  canonical; letters A-Z count as a-z, since the service's names do
     */
    void note_change(std::string_view user, std::string_view path, std::uint64_t session);

    /* Whether another session of the user has changed `path` or a folder above it since the
     * position.  True also when that cannot be told any more. */
    bool changed_since(std::string_view user, std::string_view path, std::uint64_t session,
                       std::uint64_t since) const;

  private:
    struct slot_t;
    struct shared_t;

    std::uint64_t hash(std::string_view user, std::string_view path) const;

    std::array<unsigned char, 16> key_;
    std::size_t slots_;
    std::size_t size_; /* of the mapping, bytes */
    shared_t *shared_; /* the mapping */
};

} // namespace tirval::server

#endif
