// Byte ranges of a download (RFC 9110, section 14).
#pragma once

#include <cstdint>
#include <string_view>

namespace graph_sim {

struct byte_range {
    enum class kind {
        whole,         // no usable range: everything, answered 200
        part,          // `offset` and `length`, answered 206
        unsatisfiable, // starts at the end or behind it, answered 416
        malformed,     // answered 400
    } what = kind::whole;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

// Reads the value of a Range header for content of `size` bytes.  One range of bytes is
// understood, from a number on; suffix ranges ("-500"), several ranges and other units are ignored
// as the service ignores them.
byte_range parse_range(std::string_view value, std::uint64_t size);

} // namespace graph_sim
