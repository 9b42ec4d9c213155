/*
 * Leaves the question what is text to the JSON library, which takes no other text.
 */
#include "utf8.h"

#include <jansson.h>

#include <algorithm>
#include <memory>

namespace tirval::server {
namespace {

/* How long a character is that begins with this byte. */
std::size_t sequence_length(char first)
{
    const auto byte = static_cast<unsigned char>(first);
    if (byte < 0xC0) {
        return 1;
    }
    if (byte < 0xE0) {
        return 2;
    }
    return byte < 0xF0 ? 3 : 4;
}

} // namespace

bool is_utf8(std::string_view text)
{
    const std::unique_ptr<json_t, decltype(&json_decref)> valid{
        json_stringn(text.data(), text.size()), &json_decref};
    return valid != nullptr;
}

std::string as_utf8(std::string_view text)
{
    std::string clean;
    while (!text.empty() && !is_utf8(text)) {
        const std::size_t length = sequence_length(text.front());
        const bool valid = length <= text.size() && is_utf8(text.substr(0, length));
        const std::size_t taken = valid ? length : 1;
        clean += valid ? text.substr(0, length) : "?";
        text.remove_prefix(taken);
    }
    return clean.append(text);
}

bool equal_without_case(std::string_view left, std::string_view right)
{
    const auto lower = [](char byte) {
        return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
    };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

} // namespace tirval::server
