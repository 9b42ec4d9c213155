// What can be chosen about the service as a whole, by the seed and while it runs.
#pragma once

#include "json.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace graph_sim {

struct settings {
    std::uint64_t default_page = 200; // entries of a page without $top
    std::uint64_t largest_page = 1000;
    bool chunked_json = true;    // JSON without a Content-Length, as the real service sends it
    std::string download_origin; // "": the origin by which the client came
    std::chrono::seconds download_lifetime{3600};
    bool download_refuses_bearer = true;
    bool upload_refuses_bearer = true;    // the addresses of upload sessions
    std::uint64_t hash_limit = 16U << 20; // larger files have no hash that costs reading them
    std::uint64_t upload_memory = std::uint64_t{2} << 30;      // received bytes kept in memory
    std::uint64_t largest_upload = 262'144'000;                // of a simple one
    std::uint64_t largest_file = std::uint64_t{250} << 30;     // by an upload session
    std::uint64_t fragment_limit = std::uint64_t{60} << 20;    // every fragment is smaller
    std::uint64_t fragment_multiple = 327'680;                 // of all but the last fragment
    std::optional<std::chrono::milliseconds> session_lifetime; // since the last fragment; the
                                                               // drive's own usage without it
    bool keep_partial_fragments = false;                       // of connections that broke
    std::string expected_ranges = "auto"; // how nextExpectedRanges looks; see docs/graph-sim.md
    std::chrono::seconds token_lifetime{3599};
    bool old_refresh_token_works = true; // after it has been used once
    std::chrono::seconds device_code_lifetime{900};
    std::chrono::seconds device_code_interval{5};
    std::uint64_t device_code_pending = 0; // polls answered "pending" before an approval counts

    // Takes over the members that are there; throws input_error for others and for bad values.
    void read(object_reader reader);
    [[nodiscard]] json show() const;
};

} // namespace graph_sim
