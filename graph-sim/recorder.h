// The record of the latest requests, for tests and people to look at.
#pragma once

#include "http.h"
#include "json.h"
#include "routing.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace graph_sim {

// What to show of the record.
struct record_filter {
    std::uint64_t since = 0; // only numbers above it
    std::uint64_t limit = UINT64_MAX;
    std::string kind;
    std::string account;
    std::string method;
    std::string path_part; // contained in the decoded path
};

// Keeps the latest `capacity` requests and forgets older ones.  Any thread.
class recorder {
  public:
    explicit recorder(std::size_t capacity) : capacity_(capacity) {}

    // Takes note of a request whose head has been read and returns its number, from 1 on; 0 when
    // nothing is recorded.
    std::uint64_t begin(const request &got, request_kind kind, const std::string &account);
    // Bytes of the request's own body.
    void received(std::uint64_t number, std::uint64_t bytes);
    void status(std::uint64_t number, unsigned status, const std::string &fault);
    // Bytes of body sent so far, or in all.
    void sent(std::uint64_t number, std::uint64_t bytes, outcome how);

    // {"requests":[...],"next":n,"forgotten":n}, oldest first.
    [[nodiscard]] json list(const record_filter &filter) const;
    void clear();

  private:
    struct entry {
        std::uint64_t number = 0;
        std::int64_t monotonic_us = 0;
        std::int64_t wall_us = 0;
        std::int64_t duration_us = 0;
        std::string method;
        std::string target;
        header_list headers;
        std::uint64_t body_size = 0;
        request_kind kind = request_kind::other;
        std::string account;
        std::uint64_t connection = 0;
        bool tls = false;
        bool resumed = false;
        unsigned status = 0;
        std::string fault;
        std::uint64_t bytes_sent = 0;
        outcome how = outcome::running;
    };

    entry *find(std::uint64_t number);
    static json show(const entry &shown, const std::string &path);

    std::size_t capacity_;
    mutable std::mutex mutex_;
    std::vector<entry> ring_; // number n lies at (n - 1) mod capacity
    std::uint64_t last_ = 0;
    std::uint64_t cleared_ = 0; // numbers up to this one are not shown any more
};

} // namespace graph_sim
