/*
 * The common runtime: results and error objects, modules, registries, hash tables, locks, time,
 * debug channels.  Plain C records and C linkage, so that a plug-in can be written in any language.
 *
 * Rules that hold throughout:
 *   - "consumes" means that the callee owns the argument from the call on, whatever the outcome;
 *     "borrows" means that the caller keeps it and that it must live until the call returns.
 *   - Every text or object that a function returns to be owned by the caller comes from malloc();
 *     texts are released with free(), objects with tirval_object_free() or tirval_error_put().
 *   - Format arguments follow printf.  A null format prints nothing; a null "%s" value prints
 *     "(null)".
 *   - No function throws.  Functions are thread-safe unless they say otherwise.
 */
#ifndef TIRVAL_COMMON_H
#define TIRVAL_COMMON_H

#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TIRVAL_API __attribute__((visibility("default")))
#define TIRVAL_PRINTF(format_index, first_argument)                                                \
    __attribute__((format(printf, format_index, first_argument)))

/* ---- Assertions ---------------------------------------------------------------------------- */

/*
 * Ends the process when `condition` is false, in every build: writes
 * "assertion failed: TEXT (FILE:LINE)" to standard error and to every open debug channel, TEXT
 * being the condition as it stands in the source, then calls abort().
 */
#define TIRVAL_ASSERT(condition)                                                                   \
    ((condition) ? (void)0 : tirval_assertion_failed(#condition, __FILE__, __LINE__))

TIRVAL_API void tirval_assertion_failed(const char *text, const char *file, int line)
    __attribute__((noreturn));

/* Is told a failed assertion's whole text, too, before the process ends. */
typedef void (*tirval_assertion_observer_t)(const char *text);
/* For programs with a log of their own; null: nobody is told.  Not thread-safe. */
TIRVAL_API void tirval_assertion_observe(tirval_assertion_observer_t observer);

/* ---- Modules ------------------------------------------------------------------------------- */

typedef struct tirval_version_s {
    int major;
    int minor;
    unsigned long timestamp;
    int branch_id;
} tirval_version_t;

/* Returns 0 for success. */
typedef int (*tirval_module_activation_func_t)(void);

/* A module.  Static storage; never copied: its address is its identity. */
typedef struct tirval_module_descriptor_s {
    const char *module_name;
    tirval_module_activation_func_t activation_func;
    tirval_module_activation_func_t deactivation_func;
    void (*atexit_func)(void);       /* may be null; run once at process exit, when once activated:
                                        the code must stay loaded */
    void *(*get_pointer_func)(void); /* may be null */
    const tirval_version_t *version; /* may be null */
} tirval_module_descriptor_t;

/*
 * Counts one more user of the module and runs its activation function for the first.  Activation
 * functions may activate other modules; a thread may nest calls, other threads wait.
 *
 * Returns 0 (TIRVAL_SUCCESS), or the activation function's own non-zero value; the module then
 * stays inactive and uncounted.
 */
TIRVAL_API int tirval_module_activate(tirval_module_descriptor_t *module);

/*
 * Counts one user less and runs the deactivation function for the last.  Returns 0, the
 * deactivation function's own non-zero value, or -1 when the module is not active.
 */
TIRVAL_API int tirval_module_deactivate(tirval_module_descriptor_t *module);

/* How often the module is activated at present. */
TIRVAL_API int tirval_module_reference_count(const tirval_module_descriptor_t *module);

/* The runtime's own module.  Activation starts no thread. */
TIRVAL_API extern tirval_module_descriptor_t tirval_i_common_module;

/* ---- Objects ------------------------------------------------------------------------------- */

typedef struct tirval_object_s tirval_object_t;

/* Hands a copy of instance data `src` out through `dst_out`, null when memory ran out. */
typedef void (*tirval_object_copy_func_t)(void *src, void **dst_out);
/* Releases instance data; null is allowed. */
typedef void (*tirval_object_free_func_t)(void *data);
/* Returns the object's own text, to be freed by the caller; null when it has none. */
typedef char *(*tirval_error_printable_func_t)(tirval_object_t *error);

/* An object type.  Static storage; its address is its identity. */
typedef struct tirval_object_type_s {
    const struct tirval_object_type_s *parent;
    tirval_object_copy_func_t copy_func;          /* may be null: data is not copied */
    tirval_object_free_func_t free_func;          /* may be null: data is not freed */
    tirval_error_printable_func_t printable_func; /* may be null: the parent's is taken */
} tirval_object_type_t;

/* The root of all types, and the base of all errors. */
TIRVAL_API extern const tirval_object_type_t tirval_i_object_type_base;
TIRVAL_API extern const tirval_object_type_t tirval_i_error_type_base;
TIRVAL_API extern const tirval_object_type_t tirval_i_error_type_generic;
TIRVAL_API extern const tirval_object_type_t tirval_i_error_type_errno;
#define TIRVAL_OBJECT_TYPE_BASE_DEFINITION (&tirval_i_object_type_base)
#define TIRVAL_ERROR_TYPE_BASE_DEFINITION (&tirval_i_error_type_base)
#define TIRVAL_ERROR_TYPE_GENERIC_DEFINITION (&tirval_i_error_type_generic)
#define TIRVAL_ERROR_TYPE_ERRNO_DEFINITION (&tirval_i_error_type_errno)

/* A new object without instance data; null when memory ran out. */
TIRVAL_API tirval_object_t *tirval_object_construct(const tirval_object_type_t *type);

/* Frees the object, its instance data and, for an error, its whole chain of causes.  Null does
 * nothing. */
TIRVAL_API void tirval_object_free(tirval_object_t *object);

/* A deep copy (data by the type's copy function, causes too), owned by the caller; null for null or
 * when memory ran out. */
TIRVAL_API tirval_object_t *tirval_object_copy(const tirval_object_t *object);

/* `object` itself (borrowed) when it is of `type` or of a type derived from it, else null. */
TIRVAL_API tirval_object_t *tirval_object_upcast(tirval_object_t *object,
                                                 const tirval_object_type_t *type);

TIRVAL_API const tirval_object_type_t *tirval_object_get_type(const tirval_object_t *object);

/* The instance data, owned by the object; null for a null object or when none is set. */
TIRVAL_API void *tirval_object_get_instance_data(const tirval_object_t *object);

/* Stores `data`, which the object owns from now on; data already there is not freed. */
TIRVAL_API void tirval_object_set_instance_data(tirval_object_t *object, void *data);

/* ---- Results and errors -------------------------------------------------------------------- */

/*
 * 0 is success.  Any other value is a failure: usually the handle of an error object in the error
 * table.  0xFFFFFFFF is a failure that names no object; a handle is never 0 or 0xFFFFFFFF, and a
 * released handle does not come to name another object soon.
 */
typedef uint32_t tirval_result_t;
#define TIRVAL_SUCCESS ((tirval_result_t)0)
#define TIRVAL_FAILURE ((tirval_result_t)0xFFFFFFFFu)

/* Types of generic errors, for programs that tell failures apart without reading text. */
enum {
    TIRVAL_ERROR_TYPE_UNKNOWN = 0,
    TIRVAL_ERROR_TYPE_ARGUMENT = 1,
    TIRVAL_ERROR_TYPE_MEMORY = 2,
    TIRVAL_ERROR_TYPE_SYSTEM = 3,
    TIRVAL_ERROR_TYPE_NETWORK = 4,
    TIRVAL_ERROR_TYPE_CANCELLED = 5,
    TIRVAL_ERROR_TYPE_SERVICE_ANSWER = 6, /* a service's answer could not be used */
    TIRVAL_ERROR_TYPE_PROTOCOL = 7
};

/*
 * A generic error.
 *
 * source       borrowed for the object's life (static storage); may be null
 * cause        consumed; may be null
 * source_file, source_func  borrowed for the object's life (static storage); may be null
 *
 * Returns an object owned by the caller, or null when memory ran out (the cause is then freed).
 */
TIRVAL_API tirval_object_t *
tirval_error_construct_error(const tirval_module_descriptor_t *source, tirval_object_t *cause,
                             int type, const char *source_file, const char *source_func,
                             int source_line, const char *format, ...) TIRVAL_PRINTF(7, 8);
TIRVAL_API tirval_object_t *
tirval_error_v_construct_error(const tirval_module_descriptor_t *source, tirval_object_t *cause,
                               int type, const char *source_file, const char *source_func,
                               int source_line, const char *format, va_list arguments)
    TIRVAL_PRINTF(7, 0);

/*
 * An error made from errno.  Its text is the formatted message, then ": " and strerror of
 * `saved_errno` (left out when that is 0).  Ownership as above.
 */
TIRVAL_API tirval_object_t *tirval_error_v_construct_errno(const tirval_module_descriptor_t *source,
                                                           tirval_object_t *cause, int saved_errno,
                                                           const char *format, va_list arguments)
    TIRVAL_PRINTF(4, 0);

/* For new error types: sets what every error has.  `cause` is consumed (an earlier one is freed);
 * `source` is borrowed for the object's life.  `error` must derive from the base error type. */
TIRVAL_API void tirval_error_set_cause(tirval_object_t *error,
                                       const tirval_module_descriptor_t *source,
                                       tirval_object_t *cause);

/* The error's direct cause (borrowed), or null. */
TIRVAL_API tirval_object_t *tirval_error_get_cause(const tirval_object_t *error);

/* The module that made the error (borrowed), or null. */
TIRVAL_API const tirval_module_descriptor_t *tirval_error_get_source(const tirval_object_t *error);

/* The type number of a generic error; TIRVAL_ERROR_TYPE_UNKNOWN for any other object or null. */
TIRVAL_API int tirval_error_get_type(const tirval_object_t *error);

/* Where a generic error was made (texts borrowed).  False, with nulls and 0, for any other object
 * or null. */
TIRVAL_API bool tirval_error_get_location(const tirval_object_t *error, const char **source_file,
                                          const char **source_func, int *source_line);

/* The saved errno of an errno error; 0 for any other object or null. */
TIRVAL_API int tirval_error_get_errno(const tirval_object_t *error);

/* The object's own text without its causes, owned by the caller; never null unless memory ran
 * out. */
TIRVAL_API char *tirval_error_print(tirval_object_t *error);

/*
 * The texts of the error and of all its causes, one after the other, separated by a line feed where
 * the text before does not end in one.  Owned by the caller.  A null error gives a text of its own
 * ("unknown error"), never null unless memory ran out.
 */
TIRVAL_API char *tirval_error_print_chain(tirval_object_t *error);

/* Consumes `error` and returns its handle; TIRVAL_FAILURE for null or when the table is full (the
 * object is then freed). */
TIRVAL_API tirval_result_t tirval_error_put(tirval_object_t *error);

/* The object that a result names, borrowed: it lives until the handle is released.  Null for
 * success and for a value that names nothing. */
TIRVAL_API tirval_object_t *tirval_error_peek(tirval_result_t result);

/* Takes the object out of the table; the caller owns it and the handle names nothing any more.
 * Null as above. */
TIRVAL_API tirval_object_t *tirval_error_get(tirval_result_t result);

/* How many objects the error table holds. */
TIRVAL_API size_t tirval_error_count(void);

/*
 * Error scopes.  While a scope is a thread's current one, every object that this thread puts is
 * noted in it; destroying the scope releases those that are still in the table.  So code that hands
 * results on without ever releasing them costs no memory beyond its caller's scope.
 */
typedef struct tirval_error_scope_s tirval_error_scope_t;

/* A new scope, owned by the caller; null when memory ran out. */
TIRVAL_API tirval_error_scope_t *tirval_error_scope_create(void);
/* Makes `scope` (null: none) the calling thread's current scope and returns the one before.  One
 * scope may be current on several threads at once. */
TIRVAL_API tirval_error_scope_t *tirval_error_scope_enter(tirval_error_scope_t *scope);
/* Releases everything noted in the scope, and the scope.  It must be no thread's current one.  Null
 * does nothing. */
TIRVAL_API void tirval_error_scope_destroy(tirval_error_scope_t *scope);

/* ---- Extension registries ------------------------------------------------------------------ */

/* A table from names to what modules offer under them.  Static storage, zero-initialised; ordered
 * by name, bytewise. */
typedef struct tirval_extension_registry_s {
    struct tirval_extension_table_s *table; /* private; made on first use */
} tirval_extension_registry_t;

/* A look-up's hold on an entry; zero-initialise before use. */
typedef struct tirval_extension_handle_s {
    struct tirval_extension_entry_s *entry; /* private */
} tirval_extension_handle_t;

/*
 * Adds an entry.  `key` is copied; `module` and `data` are borrowed until the entry is removed and
 * its last look-up released; `module` may be null, `data` not.  Returns 0, or -1 when the key is
 * present (nothing changes), `data` is null or memory ran out.
 */
TIRVAL_API int tirval_extension_registry_add(tirval_extension_registry_t *registry, const char *key,
                                             tirval_module_descriptor_t *module, void *data);

/* Removes an entry: later look-ups do not find it, earlier ones stay valid.  Returns its data, or
 * null when the key is absent. */
TIRVAL_API void *tirval_extension_registry_remove(tirval_extension_registry_t *registry,
                                                  const char *key);

/*
 * Finds an entry and activates its module once more until the handle is released, so that the code
 * behind the data stays.  Returns the data, or null when the key is absent, the module cannot be
 * activated or memory ran out (`handle` then holds nothing).
 */
TIRVAL_API void *tirval_extension_lookup(tirval_extension_handle_t *handle,
                                         tirval_extension_registry_t *registry, const char *key);

/* Ends a look-up.  A handle that holds nothing is allowed. */
TIRVAL_API void tirval_extension_release(tirval_extension_handle_t *handle);

/* Calls `visit` for each entry in key order until it returns false.  What is added or removed
 * meanwhile is seen or not. */
TIRVAL_API void tirval_extension_registry_walk(tirval_extension_registry_t *registry,
                                               bool (*visit)(const char *key, void *data,
                                                             void *argument),
                                               void *argument);

/* ---- Hash tables --------------------------------------------------------------------------- */

/* Returns a number from 0 to `limit` - 1, the same for equal keys and equal limits. */
typedef int (*tirval_hashtable_hash_func_t)(void *key, int limit);
/* Returns non-zero when the keys are equal. */
typedef int (*tirval_hashtable_keyeq_func_t)(void *key1, void *key2);

/*
 * A hash table.  It stores pointers and owns neither keys nor values: a key often lies inside its
 * value, so a value must not be freed while the table holds it, and the table never reads a key
 * after it has handed its value to a free function.  Not thread-safe.
 */
typedef struct tirval_hashtable_s {
    struct tirval_hashtable_impl_s *impl; /* private; null while not initialised */
} tirval_hashtable_t;

/* Makes a table that starts with `size` buckets and grows.  Returns 0, or -1 with errno ENOMEM, or
 * EINVAL when `size` is not positive. */
TIRVAL_API int tirval_hashtable_init(tirval_hashtable_t *table, int size,
                                     tirval_hashtable_hash_func_t hash,
                                     tirval_hashtable_keyeq_func_t keyeq);

/* Returns 0, or -1 when the key is present (the table is unchanged) or memory ran out. */
TIRVAL_API int tirval_hashtable_insert(tirval_hashtable_t *table, void *key, void *value);

/* The value, or null. */
TIRVAL_API void *tirval_hashtable_lookup(tirval_hashtable_t *table, void *key);

/* Takes the entry out and returns its value, or null.  `key` may lie inside that value. */
TIRVAL_API void *tirval_hashtable_remove(tirval_hashtable_t *table, void *key);

TIRVAL_API size_t tirval_hashtable_size(const tirval_hashtable_t *table);

/* Calls `visit` for each value, in no particular order, until it returns false.  The table must not
 * be changed from within. */
TIRVAL_API void tirval_hashtable_walk(tirval_hashtable_t *table,
                                      bool (*visit)(void *value, void *argument), void *argument);

/* Releases the table, not the values. */
TIRVAL_API void tirval_hashtable_destroy(tirval_hashtable_t *table);

/* Calls `free_value` once for each value, then releases the table. */
TIRVAL_API void tirval_hashtable_destroy_all(tirval_hashtable_t *table,
                                             void (*free_value)(void *value));

/* For keys that are texts. */
TIRVAL_API int tirval_hashtable_string_hash(void *key, int limit);
TIRVAL_API int tirval_hashtable_string_keyeq(void *key1, void *key2);

/* ---- Threads and time ---------------------------------------------------------------------- */

typedef pthread_mutex_t tirval_mutex_t;

/* A condition variable whose wait never wakes without a signal, and whose signal wakes the thread
 * that has waited longest. */
typedef struct tirval_cond_s {
    struct tirval_cond_waiter_s *first; /* private: the waiting threads, longest first */
    struct tirval_cond_waiter_s *last;
    clockid_t clock; /* that deadlines are given in; CLOCK_REALTIME without attributes */
} tirval_cond_t;

/* Seconds and nanoseconds since the epoch. */
typedef struct timespec tirval_abstime_t;

/* Each returns 0, or an errno value. */
TIRVAL_API int tirval_mutex_init(tirval_mutex_t *mutex, const pthread_mutexattr_t *attributes);
TIRVAL_API int tirval_mutex_destroy(tirval_mutex_t *mutex);
TIRVAL_API int tirval_mutex_lock(tirval_mutex_t *mutex);
TIRVAL_API int tirval_mutex_unlock(tirval_mutex_t *mutex);

/* Each returns 0, or an errno value (ETIMEDOUT for a timed wait that nobody signalled).  The mutex
 * must be held for wait, signal and broadcast.  A signal sent while nobody waits is not kept.
 * Destroying answers EBUSY while a thread waits; sharing between processes ENOTSUP. */
TIRVAL_API int tirval_cond_init(tirval_cond_t *cond, const pthread_condattr_t *attributes);
TIRVAL_API int tirval_cond_destroy(tirval_cond_t *cond);
TIRVAL_API int tirval_cond_wait(tirval_cond_t *cond, tirval_mutex_t *mutex);
TIRVAL_API int tirval_cond_timedwait(tirval_cond_t *cond, tirval_mutex_t *mutex,
                                     const tirval_abstime_t *deadline);
TIRVAL_API int tirval_cond_signal(tirval_cond_t *cond);
TIRVAL_API int tirval_cond_broadcast(tirval_cond_t *cond);

/* The calling thread's identity. */
TIRVAL_API unsigned long tirval_thread_self(void);

/* The wall clock now. */
TIRVAL_API void tirval_abstime_get_current(tirval_abstime_t *now);

/* -1, 0 or 1 as `a` is earlier than, equal to or later than `b`. */
TIRVAL_API int tirval_abstime_cmp(const tirval_abstime_t *a, const tirval_abstime_t *b);

/* ---- Texts --------------------------------------------------------------------------------- */

/* printf into a new text, owned by the caller; null when memory ran out or the format is null. */
TIRVAL_API char *tirval_common_create_string(const char *format, ...) TIRVAL_PRINTF(1, 2);
TIRVAL_API char *tirval_common_v_create_string(const char *format, va_list arguments)
    TIRVAL_PRINTF(1, 0);

/*
 * Percent-encodes a text for use in a URL path (RFC 3986): the bytes in `set`, and always "%", "?",
 * control and non-ASCII bytes, and each of "<>\^{|}[]` ; a "/" never, unless it is in `set`.
 * Upper-case hexadecimal digits.  Owned by the caller; null for a null text.
 */
TIRVAL_API char *tirval_url_string_hex_encode(const char *text, const char *set);

/* ---- Debug channels ------------------------------------------------------------------------ */

/*
 * One module's debug channel.  Static storage, zero-initialised: it is remembered for the life of
 * the process, so that a failed assertion can be written to it.  Level n of the names given at
 * initialisation is bit 1 << n.  Written only by tirval_debug_init() and by whoever closes the
 * stream.
 */
typedef struct tirval_debug_handle_s {
    uint32_t levels;           /* enabled levels */
    uint32_t timestamp_levels; /* levels whose lines carry the time */
    FILE *file;                /* null while the channel is off */
    bool thread_ids;
    bool using_file; /* the channel opened the file and must close it */
} tirval_debug_handle_t;

/*
 * Sets the channel up from the environment variable `env_name`.  Its value is a list of items in
 * any order, separated by semicolons:
 *
 *   levels=A|B     level names (without case), numbers (decimal or 0x...: bits) or ALL
 *   file=/path     opened for append, close-on-exec; standard error without this item
 *   threads        lines carry the thread's identity
 *   times=A|B      levels whose lines carry the time, written like levels
 *
 * So TIRVAL_ONEDRIVE_DEBUG="levels=TRACE|DEBUG;file=/tmp/trace;threads;times=ALL".  The stream is
 * line-buffered.  An unset or empty variable leaves the channel off; a bad item, or a file that
 * cannot be opened, is reported once on standard error and leaves it off.  A channel that is on is
 * closed first.
 *
 * level_names  names separated by one blank, the first for bit 1
 */
TIRVAL_API void tirval_debug_init(const char *env_name, const char *level_names,
                                  tirval_debug_handle_t *handle);

#ifdef __cplusplus
}
#endif

#endif
