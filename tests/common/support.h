/* What the tests of the runtime share: owners, texts, and an error type that counts its data. */
#ifndef TIRVAL_TESTS_COMMON_SUPPORT_H
#define TIRVAL_TESTS_COMMON_SUPPORT_H

#include "tirval_common.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>

struct object_free {
    void operator()(tirval_object_t *object) const { tirval_object_free(object); }
};
using object_ptr = std::unique_ptr<tirval_object_t, object_free>;

/* Takes a malloc'ed text over; "(no text)" for null. */
inline std::string take(char *text)
{
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return text == nullptr ? "(no text)" : text;
}

inline tirval_object_t *make_error(const char *text, tirval_object_t *cause = nullptr)
{
    return tirval_error_construct_error(nullptr, cause, TIRVAL_ERROR_TYPE_SYSTEM, nullptr, nullptr,
                                        0, "%s", text);
}

__attribute__((format(printf, 2, 3))) inline tirval_object_t *
make_errno_error(int saved_errno, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    auto *error = tirval_error_v_construct_errno(nullptr, nullptr, saved_errno, format, arguments);
    va_end(arguments);
    return error;
}

/* A null text that the compiler does not see through. */
inline const char *no_text()
{
    static const char *const volatile none = nullptr;
    return none;
}

/* An error type whose instance data are counted while they live. */
inline std::atomic<int> counted_live{0};

inline void counted_copy(void *src, void **dst_out)
{
    *dst_out = new int(*static_cast<int *>(src));
    ++counted_live;
}

inline void counted_free(void *data)
{
    delete static_cast<int *>(data);
    --counted_live;
}

inline char *counted_print(tirval_object_t *error)
{
    return tirval_common_create_string("counted %d",
                                       *static_cast<int *>(tirval_object_get_instance_data(error)));
}

inline const tirval_object_type_t counted_type = {TIRVAL_ERROR_TYPE_BASE_DEFINITION, counted_copy,
                                                  counted_free, counted_print};

inline tirval_object_t *make_counted(int number, tirval_object_t *cause = nullptr)
{
    tirval_object_t *object = tirval_object_construct(&counted_type);
    tirval_object_set_instance_data(object, new int(number));
    ++counted_live;
    tirval_error_set_cause(object, nullptr, cause);
    return object;
}

#endif
