// The sample service behind real sockets, and raw sockets where libcurl is too polite.
#pragma once

#include "http_client.h"
#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>
#include <thread>

namespace graph_sim {

inline constexpr const char *bearer = "Authorization: Bearer alice-token";

// The sample service behind real sockets.
class Server : public testing::Test {
  protected:
    Server() { read_seed(json::parse(sample_seed(), "sample"), "sample", ".", served.target()); }

    void start(server_options options = {})
    {
        if (options.listeners.empty()) {
            options.listeners.push_back({"127.0.0.1", 0, listener_role::everything});
        }
        running.emplace(served, options);
        base = running->origin(0);
    }

    void add_fault(const std::string &rule)
    {
        http_client other(authority);
        EXPECT_EQ(other.send("POST", base + "/__sim/faults", {}, rule).status, 200) << rule;
    }

    std::string download_url(http_client &client, const std::string &path)
    {
        return client.get(base + path + ":/content", {bearer}).headers["location"];
    }

    json record(const std::string &query = {})
    {
        http_client other(authority);
        return json::parse(other.get(base + "/__sim/requests" + query).body, "record")
            .at("requests");
    }

    // The last entry once its request has ended: the record learns of the end after the client.
    json last_ended(const std::string &query = {})
    {
        json entry = last_of(record(query));
        while (entry.at("outcome").as_text() == "running") {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            entry = last_of(record(query));
        }
        return entry;
    }

    static json last_of(const json &entries)
    {
        return json::share(json_array_get(entries.get(), json_array_size(entries.get()) - 1));
    }

    service served;
    std::optional<server> running;
    std::string base;
    std::string authority; // the certificate's file, with TLS
};

// A socket of the test's own.
class raw_socket {
  public:
    explicit raw_socket(unsigned short port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    ~raw_socket() { close(fd_); }
    raw_socket(const raw_socket &) = delete;
    raw_socket &operator=(const raw_socket &) = delete;

    void send(const std::string &text) const
    {
        EXPECT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    // Reads until the other side ends, or `most` bytes; `error` is that of the last read.
    std::string receive(size_t most = SIZE_MAX)
    {
        std::string text;
        char block[65536];
        for (;;) {
            const ssize_t got = recv(fd_, block, sizeof block, 0);
            if (got <= 0) {
                error = got == 0 ? 0 : errno;
                return text;
            }
            text.append(block, static_cast<size_t>(got));
            if (text.size() >= most) {
                return text;
            }
        }
    }
    int error = 0;

  private:
    int fd_;
};

} // namespace graph_sim
