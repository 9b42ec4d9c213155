// Encodings, UTF-8 and case folding.
#include "text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include <unicase.h>
#include <uninorm.h>

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

// Simple case folding.  By way of the capital, forms that share one come together (the two small
// sigmas); the dotless i shares its capital with another letter and stays what it is.
char32_t fold_code_point(char32_t point)
{
    constexpr char32_t dotless_i = 0x0131;
    return point == dotless_i ? point : uc_tolower(uc_toupper(point));
}

// UTF-8 in a normal form of Unicode.
std::string normalised(std::string_view text, uninorm_t form)
{
    struct release {
        void operator()(std::uint8_t *bytes) const noexcept { std::free(bytes); }
    };
    size_t length = 0;
    const std::unique_ptr<std::uint8_t, release> made(u8_normalize(
        form, reinterpret_cast<const std::uint8_t *>(text.data()), text.size(), nullptr, &length));
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    return {reinterpret_cast<const char *>(made.get()), length};
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
    const auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (std::ranges::all_of(name, is_ascii)) {
        return to_lower(name);
    }
    if (!is_utf8(name)) {
        return std::string(name);
    }
    const std::string apart = normalised(name, UNINORM_NFD);
    std::string folded;
    folded.reserve(apart.size());
    for (size_t at = 0; at < apart.size();) {
        append_utf8(folded, fold_code_point(*next_code_point(apart, at)));
    }
    return normalised(folded, UNINORM_NFC);
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
