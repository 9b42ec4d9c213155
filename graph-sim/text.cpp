// Encodings, UTF-8 and case folding.
#include "text.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace graph_sim {

namespace {

int hex_value(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool is_unreserved(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

// Reads one code point at `at` and moves behind it; nothing for malformed UTF-8.
std::optional<char32_t> next_code_point(std::string_view text, size_t &at)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
    if (length == 0 || text.size() - at < length) {
        return std::nullopt;
    }
    static constexpr std::array<unsigned, 5> masks{0, 0x7F, 0x1F, 0x0F, 0x07};
    static constexpr std::array<char32_t, 5> least{0, 1, 0x80, 0x800, 0x10000};
    char32_t point = lead & masks[length];
    for (size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xC0) != 0x80) {
            return std::nullopt;
        }
        point = (point << 6) | (next & 0x3FU);
    }
    if (point < least[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
        return std::nullopt;
    }
    at += length;
    return point;
}

void append_utf8(std::string &text, char32_t point)
{
    const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (point < 0x80) {
        put(point);
    } else if (point < 0x800) {
        put(0xC0 | (point >> 6));
        put(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        put(0xE0 | (point >> 12));
        put(0x80 | ((point >> 6) & 0x3F));
        put(0x80 | (point & 0x3F));
    } else {
        put(0xF0 | (point >> 18));
        put(0x80 | ((point >> 12) & 0x3F));
        put(0x80 | ((point >> 6) & 0x3F));
        put(0x80 | (point & 0x3F));
    }
}

// Letters whose lower case lies a fixed distance away, and blocks where the two cases alternate
// (step 0: an even capital is followed by its small letter; step -1: an odd one is).
struct case_range {
    char32_t first, last;
    int step;
};

constexpr int even_pairs = 0;
constexpr int odd_pairs = -1;

constexpr std::array case_ranges{
    case_range{'A', 'Z', 32},
    case_range{0x00C0, 0x00D6, 32},
    case_range{0x00D8, 0x00DE, 32},
    case_range{0x0100, 0x012F, even_pairs},
    case_range{0x0132, 0x0137, even_pairs},
    case_range{0x0139, 0x0148, odd_pairs},
    case_range{0x014A, 0x0177, even_pairs},
    case_range{0x0178, 0x0178, 0x00FF - 0x0178},
    case_range{0x0179, 0x017E, odd_pairs},
    case_range{0x01CD, 0x01DC, odd_pairs},
    case_range{0x01DE, 0x01EF, even_pairs},
    case_range{0x01F8, 0x021F, even_pairs},
    case_range{0x0222, 0x0233, even_pairs},
    case_range{0x0386, 0x0386, 0x03AC - 0x0386},
    case_range{0x0388, 0x038A, 0x03AD - 0x0388},
    case_range{0x038C, 0x038C, 0x03CC - 0x038C},
    case_range{0x038E, 0x038F, 0x03CD - 0x038E},
    case_range{0x0391, 0x03A1, 32},
    case_range{0x03A3, 0x03AB, 32},
    case_range{0x03C2, 0x03C2, 1},
    case_range{0x0400, 0x040F, 80},
    case_range{0x0410, 0x042F, 32},
    case_range{0x0460, 0x0481, even_pairs},
    case_range{0x048A, 0x04BF, even_pairs},
    case_range{0x04C0, 0x04C0, 0x04CF - 0x04C0},
    case_range{0x04C1, 0x04CE, odd_pairs},
    case_range{0x04D0, 0x052F, even_pairs},
    case_range{0x0531, 0x0556, 48},
    case_range{0x1E00, 0x1E95, even_pairs},
    case_range{0x1EA0, 0x1EFF, even_pairs},
    case_range{0xFF21, 0xFF3A, 32},
};

char32_t fold_code_point(char32_t point)
{
    const auto *const range = std::ranges::lower_bound(case_ranges, point, {},
                                                       [](const case_range &r) { return r.last; });
    if (range == case_ranges.end() || point < range->first) {
        return point;
    }
    if (range->step == even_pairs || range->step == odd_pairs) {
        const bool capital = (point % 2 == 0) == (range->step == even_pairs);
        return capital ? point + 1 : point;
    }
    return static_cast<char32_t>(static_cast<std::int64_t>(point) + range->step);
}

constexpr std::string_view base64_digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view base64url_digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view base32_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

// Writes groups of `bits` bits, the last one filled up with zero bits.
std::string encode_bits(byte_view bytes, unsigned bits, std::string_view digits)
{
    std::string text;
    text.reserve(bytes.size() * 8 / bits + 4);
    unsigned held = 0;
    unsigned count = 0;
    for (const unsigned char byte : bytes) {
        held = (held << 8) | byte;
        count += 8;
        while (count >= bits) {
            count -= bits;
            text.push_back(digits[(held >> count) & ((1U << bits) - 1)]);
        }
        held &= (1U << count) - 1;
    }
    if (count > 0) {
        text.push_back(digits[(held << (bits - count)) & ((1U << bits) - 1)]);
    }
    return text;
}

std::optional<std::string> decode_base64(std::string_view text, std::string_view digits)
{
    std::string bytes;
    unsigned held = 0;
    unsigned count = 0;
    for (const char c : text) {
        const size_t value = digits.find(c);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        held = (held << 6) | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes.push_back(static_cast<char>((held >> count) & 0xFF));
            held &= (1U << count) - 1;
        }
    }
    // One digit alone in the last group cannot make a byte, and fill bits are zero.
    if (text.size() % 4 == 1 || held != 0) {
        return std::nullopt;
    }
    return bytes;
}

} // namespace

std::optional<std::string> percent_decode(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        const int high = text.size() - i > 2 ? hex_value(text[i + 1]) : -1;
        const int low = high < 0 ? -1 : hex_value(text[i + 2]);
        if (low < 0) {
            return std::nullopt;
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

std::string percent_encode(std::string_view text, bool keep_slashes)
{
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        if (is_unreserved(c) || (keep_slashes && c == '/')) {
            encoded.push_back(c);
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded.push_back('%');
            encoded.push_back(digits[byte >> 4]);
            encoded.push_back(digits[byte & 0x0F]);
        }
    }
    return encoded;
}

std::vector<std::pair<std::string, std::string>> parse_query(std::string_view query)
{
    const auto decode = [](std::string_view part) {
        std::string text(part);
        std::ranges::replace(text, '+', ' ');
        return percent_decode(text).value_or(text);
    };
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string &part : split(query, '&')) {
        if (!part.empty()) {
            const size_t equals = std::min(part.find('='), part.size());
            const std::string_view whole = part;
            pairs.emplace_back(decode(whole.substr(0, equals)),
                               decode(whole.substr(std::min(equals + 1, whole.size()))));
        }
    }
    return pairs;
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (;;) {
        const size_t at = text.find(separator);
        parts.emplace_back(text.substr(0, at));
        if (at == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(at + 1);
    }
}

bool is_utf8(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        if (!next_code_point(text, at)) {
            return false;
        }
    }
    return true;
}

std::string fold_case(std::string_view name)
{
    std::string folded;
    folded.reserve(name.size());
    for (size_t at = 0; at < name.size();) {
        const auto point = next_code_point(name, at);
        if (point) {
            append_utf8(folded, fold_code_point(*point));
        } else {
            folded.push_back(name[at++]);
        }
    }
    return folded;
}

std::string to_lower(std::string_view text)
{
    std::string lower(text);
    for (char &c : lower) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return lower;
}

bool equal_without_case(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && to_lower(a) == to_lower(b);
}

std::string base64(byte_view bytes)
{
    std::string text = encode_bits(bytes, 6, base64_digits);
    text.append((4 - text.size() % 4) % 4, '=');
    return text;
}

std::string base64url(byte_view bytes)
{
    return encode_bits(bytes, 6, base64url_digits);
}

std::optional<std::string> base64_decode(std::string_view text)
{
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    for (int i = 0; i < 2 && text.ends_with('='); ++i) {
        text.remove_suffix(1);
    }
    return decode_base64(text, base64_digits);
}

std::optional<std::string> base64url_decode(std::string_view text)
{
    return decode_base64(text, base64url_digits);
}

std::string base32(byte_view bytes)
{
    return encode_bits(bytes, 5, base32_digits);
}

std::string hex(byte_view bytes)
{
    return encode_bits(bytes, 4, "0123456789abcdef");
}

std::string upper_hex(byte_view bytes)
{
    return encode_bits(bytes, 4, "0123456789ABCDEF");
}

} // namespace graph_sim
