// What can be chosen about the service as a whole, by the seed and while it runs.
#pragma once

#include "json.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace graph_sim {

struct settings {
    std::uint64_t default_page = 200; // entries of a page without $top
    std::uint64_t largest_page = 1000;
    bool chunked_json = true;    // JSON without a Content-Length, as the real service sends it
    std::string download_origin; // "": the origin by which the client came
    std::chrono::seconds download_lifetime{3600};
    bool download_refuses_bearer = true;
    std::uint64_t hash_limit = 16U << 20; // larger files have no hash that costs reading them
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
