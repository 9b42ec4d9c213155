// Pre-authenticated download addresses: everything needed to serve one is in it, signed.
#pragma once

#include "item_store.h"

#include <chrono>
#include <string>
#include <string_view>

namespace graph_sim {

// The path prefix of all of them.
inline constexpr std::string_view download_prefix = "/_download/";

// Not synchronised: callers hold the service's lock.
class download_links {
  public:
    download_links();

    // The address of a file's bytes on a download origin ("http://host:port"), good until `expiry`.
    [[nodiscard]] std::string make(std::string_view origin, const drive &home, const item &file,
                                   timestamp expiry) const;

    enum class verdict { valid, malformed, expired };
    struct checked {
        verdict state = verdict::malformed;
        std::string drive_id;
        std::string item_id;
    };
    // Checks a target.  The signature covers path and query as they were given out: one that was
    // encoded anew or put into another order is malformed.
    [[nodiscard]] checked check(std::string_view target, timestamp now) const;

    // Makes every address given out so far malformed.
    void revoke_all();

  private:
    [[nodiscard]] std::string signed_target(const std::string &payload,
                                            const std::string &unique) const;

    std::string key_;
};

} // namespace graph_sim
