/*
 * An internet address with a port, as a value.  IPv4 addresses mapped into IPv6 (RFC 4291) are kept
 * as IPv4, so that two spellings of one host compare equal.
 */
#ifndef TIRVAL_SERVER_SOCKET_ADDRESS_H
#define TIRVAL_SERVER_SOCKET_ADDRESS_H

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tirval::server {

class socket_address_t {
  public:
    /* No address: family AF_UNSPEC. */
    socket_address_t() = default;

    /* A numeric address of the family AF_INET or AF_INET6; nothing when it is none. */
    static std::optional<socket_address_t> parse(int family, const std::string &host,
                                                 std::uint16_t port);
    /* The addresses of a connected socket; none on an error. */
    static socket_address_t local_of(int descriptor);
    static socket_address_t peer_of(int descriptor);
    /* What a system call has filled in. */
    static socket_address_t from(const sockaddr_storage &storage);

    int family() const { return storage_.ss_family; }
    std::uint16_t port() const;
    std::string host() const; /* numeric */
    socket_address_t with_port(std::uint16_t port) const;
    /* Whether both are addresses of one host, whatever their ports. */
    bool same_host(const socket_address_t &other) const;

    const sockaddr *data() const;
    socklen_t size() const;

  private:
    void unmap();

    sockaddr_storage storage_{};
};

} // namespace tirval::server

#endif
