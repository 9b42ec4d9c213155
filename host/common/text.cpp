/* Texts that the runtime makes for its callers: formatted ones and percent-encoded ones. */
#include "text.h"

#include "tirval_common.h"

#include <cstdio>
#include <cstring>

namespace tirval::common {

owned_text copy_text(const char *text) noexcept
{
    return owned_text(text == nullptr ? nullptr : strdup(text));
}

owned_text format_text(const char *format, std::va_list arguments) noexcept
{
    if (format == nullptr) {
        return copy_text("");
    }
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        return nullptr; /* `text` is undefined now */
    }
    return owned_text(text);
}

} // namespace tirval::common

namespace {

using tirval::common::owned_text;

bool is_always_encoded(unsigned char byte)
{
    return byte < 0x20 || byte >= 0x7f || std::strchr("%?\"<>\\^{|}[]`", byte) != nullptr;
}

bool is_encoded(unsigned char byte, const char *set)
{
    return is_always_encoded(byte) || (set != nullptr && std::strchr(set, byte) != nullptr);
}

} // namespace

extern "C" char *tirval_common_create_string(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    char *text = tirval_common_v_create_string(format, arguments);
    va_end(arguments);
    return text;
}

extern "C" char *tirval_common_v_create_string(const char *format, va_list arguments)
{
    return format == nullptr ? nullptr : tirval::common::format_text(format, arguments).release();
}

extern "C" char *tirval_url_string_hex_encode(const char *text, const char *set)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    if (text == nullptr) {
        return nullptr;
    }
    owned_text encoded(static_cast<char *>(std::malloc(3 * std::strlen(text) + 1)));
    if (encoded == nullptr) {
        return nullptr;
    }
    char *end = encoded.get();
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (is_encoded(byte, set)) {
            *end++ = '%';
            *end++ = digits[byte >> 4];
            *end++ = digits[byte & 0xf];
        } else {
            *end++ = *text;
        }
    }
    *end = '\0';
    return encoded.release();
}
