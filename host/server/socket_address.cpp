/*
 * The one place that looks into socket address records.
 */
#include "socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstring>

namespace tirval::server {
namespace {

/* Socket address records are read and written through copies: the storage record is none of them.
 */
template <typename record_t> record_t read_as(const sockaddr_storage &storage)
{
    record_t record{};
    std::memcpy(&record, &storage, sizeof record);
    return record;
}

template <typename record_t> void write_as(sockaddr_storage &storage, const record_t &record)
{
    storage = sockaddr_storage{};
    std::memcpy(&storage, &record, sizeof record);
}

} // namespace

std::optional<socket_address_t> socket_address_t::parse(int family, const std::string &host,
                                                        std::uint16_t port)
{
    socket_address_t address;
    if (family == AF_INET) {
        sockaddr_in record{};
        record.sin_family = AF_INET;
        record.sin_port = htons(port);
        if (inet_pton(AF_INET, host.c_str(), &record.sin_addr) != 1) {
            return std::nullopt;
        }
        write_as(address.storage_, record);
        return address;
    }
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = htons(port);
    if (family != AF_INET6 || inet_pton(AF_INET6, host.c_str(), &record.sin6_addr) != 1) {
        return std::nullopt;
    }
    write_as(address.storage_, record);
    address.unmap();
    return address;
}

socket_address_t socket_address_t::local_of(int descriptor)
{
    socket_address_t address;
    socklen_t size = sizeof address.storage_;
    if (getsockname(descriptor, reinterpret_cast<sockaddr *>(&address.storage_), &size) != 0) {
        return {};
    }
    address.unmap();
    return address;
}

socket_address_t socket_address_t::peer_of(int descriptor)
{
    socket_address_t address;
    socklen_t size = sizeof address.storage_;
    if (getpeername(descriptor, reinterpret_cast<sockaddr *>(&address.storage_), &size) != 0) {
        return {};
    }
    address.unmap();
    return address;
}

socket_address_t socket_address_t::from(const sockaddr_storage &storage)
{
    socket_address_t address;
    address.storage_ = storage;
    address.unmap();
    return address;
}

std::uint16_t socket_address_t::port() const
{
    return ntohs(family() == AF_INET ? read_as<sockaddr_in>(storage_).sin_port
                                     : read_as<sockaddr_in6>(storage_).sin6_port);
}

std::string socket_address_t::host() const
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (family() == AF_INET) {
        const auto record = read_as<sockaddr_in>(storage_);
        inet_ntop(AF_INET, &record.sin_addr, text.data(), text.size());
    } else if (family() == AF_INET6) {
        const auto record = read_as<sockaddr_in6>(storage_);
        inet_ntop(AF_INET6, &record.sin6_addr, text.data(), text.size());
    }
    return text.data();
}

socket_address_t socket_address_t::with_port(std::uint16_t port) const
{
    socket_address_t address = *this;
    if (family() == AF_INET) {
        auto record = read_as<sockaddr_in>(storage_);
        record.sin_port = htons(port);
        write_as(address.storage_, record);
    } else if (family() == AF_INET6) {
        auto record = read_as<sockaddr_in6>(storage_);
        record.sin6_port = htons(port);
        write_as(address.storage_, record);
    }
    return address;
}

bool socket_address_t::same_host(const socket_address_t &other) const
{
    if (family() != other.family()) {
        return false;
    }
    if (family() == AF_INET) {
        return read_as<sockaddr_in>(storage_).sin_addr.s_addr ==
               read_as<sockaddr_in>(other.storage_).sin_addr.s_addr;
    }
    if (family() == AF_INET6) {
        const auto mine = read_as<sockaddr_in6>(storage_);
        const auto theirs = read_as<sockaddr_in6>(other.storage_);
        return std::memcmp(&mine.sin6_addr, &theirs.sin6_addr, sizeof mine.sin6_addr) == 0 &&
               mine.sin6_scope_id == theirs.sin6_scope_id;
    }
    return false;
}

const sockaddr *socket_address_t::data() const
{
    return reinterpret_cast<const sockaddr *>(&storage_);
}

socklen_t socket_address_t::size() const
{
    return family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

void socket_address_t::unmap()
{
    if (family() != AF_INET6) {
        return;
    }
    const auto mapped = read_as<sockaddr_in6>(storage_);
    if (!IN6_IS_ADDR_V4MAPPED(&mapped.sin6_addr)) {
        return;
    }
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = mapped.sin6_port;
    std::memcpy(&plain.sin_addr, &mapped.sin6_addr.s6_addr[12], sizeof plain.sin_addr);
    write_as(storage_, plain);
}

} // namespace tirval::server
