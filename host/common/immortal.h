/*
 * Process-wide state that is made on first use and never destroyed, so that functions run at
 * process exit, and threads that outlive main(), may still use it.
 */
#ifndef TIRVAL_COMMON_IMMORTAL_H
#define TIRVAL_COMMON_IMMORTAL_H

#include <cstddef>
#include <new>
#include <type_traits>

namespace tirval::common {

/* The one T of the process.  T is made without allocating, hence without failing. */
template <class T> T &immortal() noexcept
{
    static_assert(std::is_nothrow_default_constructible_v<T>);
    alignas(T) static std::byte storage[sizeof(T)];
    static T *const object = new (storage) T;
    return *object;
}

} // namespace tirval::common

#endif
