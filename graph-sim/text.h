// Text forms that the service speaks: percent encoding, queries, base64, base32, hex, UTF-8 and the
// case folding by which item names are compared.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace graph_sim {

// Decodes "%XX" once (RFC 3986); null for a malformed escape.  "+" stays what it is.
std::optional<std::string> percent_decode(std::string_view text);
// Encodes everything but the unreserved characters of RFC 3986; with `keep_slashes` also "/" stays.
std::string percent_encode(std::string_view text, bool keep_slashes = false);

// Splits "a=b&c=d" and decodes both sides, "+" being a blank; a malformed escape stays as it is.
std::vector<std::pair<std::string, std::string>> parse_query(std::string_view query);

std::vector<std::string> split(std::string_view text, char separator);

// True for well-formed UTF-8 without overlong forms, surrogates and NUL.
bool is_utf8(std::string_view text);

// The form by which names are compared: simple case folding of all letters of Unicode ("ß" is not
// "ss"), and composed and decomposed forms alike.  What is not UTF-8 stays as it is.
std::string fold_case(std::string_view name);

bool equal_without_case(std::string_view a, std::string_view b); // ASCII only
std::string to_lower(std::string_view text);                     // ASCII only

using byte_view = std::span<const unsigned char>;
inline byte_view bytes_of(std::string_view text)
{
    return {reinterpret_cast<const unsigned char *>(text.data()), text.size()};
}

std::string base64(byte_view bytes);
std::string base64url(byte_view bytes); // without "="
std::optional<std::string> base64_decode(std::string_view text);
std::optional<std::string> base64url_decode(std::string_view text);
std::string base32(byte_view bytes); // upper case, for lengths that need no padding
std::string hex(byte_view bytes);    // lower case
std::string upper_hex(byte_view bytes);

} // namespace graph_sim
