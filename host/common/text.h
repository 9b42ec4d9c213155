/*
 * Texts from malloc(), as they cross the library's border, and the one place where formats are
 * expanded.
 */
#ifndef TIRVAL_COMMON_TEXT_H
#define TIRVAL_COMMON_TEXT_H

#include <cstdarg>
#include <cstdlib>
#include <memory>

namespace tirval::common {

struct text_release {
    void operator()(char *text) const noexcept { std::free(text); }
};
using owned_text = std::unique_ptr<char, text_release>;

/* Null for null or when memory ran out. */
owned_text copy_text(const char *text) noexcept;

/* printf into a new text.  A null format gives the empty text, a null "%s" value "(null)".  Null
 * when memory ran out. */
owned_text format_text(const char *format, std::va_list arguments) noexcept
    __attribute__((format(printf, 1, 0)));

} // namespace tirval::common

#endif
