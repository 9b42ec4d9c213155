/* The end of the process when a belief turns out false. */
#include "debug_channels.h"
#include "text.h"
#include "tirval_common.h"

#include <cstdio>
#include <cstdlib>

namespace {
tirval_assertion_observer_t observer;
}

extern "C" void tirval_assertion_observe(tirval_assertion_observer_t new_observer)
{
    observer = new_observer;
}

extern "C" void tirval_assertion_failed(const char *text, const char *file, int line)
{
    const tirval::common::owned_text message(
        tirval_common_create_string("assertion failed: %s (%s:%d)\n", text, file, line));
    if (message != nullptr) {
        (void)std::fputs(message.get(), stderr);
        (void)std::fflush(stderr);
        tirval::common::write_to_debug_channels(message.get());
        if (observer != nullptr) {
            observer(message.get());
        }
    }
    std::abort();
}
