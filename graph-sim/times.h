// Points in time as the service writes them (ISO 8601, UTC).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace graph_sim {

using timestamp = std::chrono::sys_time<std::chrono::milliseconds>;

timestamp wall_clock();

// "2024-05-02T09:12:03Z"; with `fraction` milliseconds are added when there are any, without
// trailing zeros, as the older consumer store prints them.
std::string iso_time(timestamp time, bool fraction = false);
// The same without the zone letter, as error bodies carry it.
std::string iso_time_without_zone(timestamp time);
// Reads YYYY-MM-DDThh:mm:ss[.fraction]Z; null for anything else.
std::optional<timestamp> parse_iso_time(std::string_view text);
// "Thu, 02 May 2024 09:12:03 GMT" (RFC 9110).
std::string http_date(timestamp time);

} // namespace graph_sim
