/*
 * An address that refuses connections, for tests of services that are down.
 */
#ifndef TIRVAL_TESTS_REFUSING_PORT_H
#define TIRVAL_TESTS_REFUSING_PORT_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

/* A port that nobody listens on: bound, so that nobody else takes it. */
class refusing_port {
  public:
    refusing_port() : descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr *>(&address), length), 0);
        getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &length);
    }
    ~refusing_port() { close(descriptor); }
    refusing_port(const refusing_port &) = delete;
    refusing_port &operator=(const refusing_port &) = delete;
    std::string url(const std::string &target) const
    {
        return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + target;
    }

  private:
    int descriptor;
    sockaddr_in address = {};
};

#endif
