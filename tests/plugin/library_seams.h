/*
 * Functions of the common runtime as the plug-in sees them in a test program: this program's own
 * definitions stand in front of the runtime's, fail when a test wants them to, and pass on the
 * rest.  To be included by one source of a program.
 */
#ifndef TIRVAL_TESTS_LIBRARY_SEAMS_H
#define TIRVAL_TESTS_LIBRARY_SEAMS_H

#include "frame_support.h"

#include <cerrno>
#include <cstdarg>

/* Which of the next calls fails for want of memory: 1 the next one, 0 none. */
inline int failing_text = 0;
inline bool table_init_fails = false;
inline int last_table_size = 0; /* buckets */
inline bool table_insert_fails = false;

// NOLINTBEGIN(misc-definitions-in-headers): one source of a program includes this

extern "C" TIRVAL_API char *tirval_common_create_string(const char *format, ...)
{
    if (failing_text > 0 && --failing_text == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    va_list arguments;
    va_start(arguments, format);
    char *text = tirval_common_v_create_string(format, arguments);
    va_end(arguments);
    return text;
}

extern "C" TIRVAL_API int tirval_hashtable_init(tirval_hashtable_t *table, int size,
                                                tirval_hashtable_hash_func_t hash,
                                                tirval_hashtable_keyeq_func_t keyeq)
{
    last_table_size = size;
    if (table_init_fails) {
        errno = ENOMEM;
        return -1;
    }
    return next_definition<decltype(tirval_hashtable_init)>("tirval_hashtable_init")(table, size,
                                                                                     hash, keyeq);
}

extern "C" TIRVAL_API int tirval_hashtable_insert(tirval_hashtable_t *table, void *key, void *value)
{
    if (table_insert_fails) {
        errno = ENOMEM;
        return -1;
    }
    return next_definition<decltype(tirval_hashtable_insert)>("tirval_hashtable_insert")(table, key,
                                                                                         value);
}

// NOLINTEND(misc-definitions-in-headers)

#endif
