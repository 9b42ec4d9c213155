/* The plug-in's error object: an ordered list of key/value pairs that travels as the cause of an
 * FTP response error.  Also the errors that several sources report in one wording. */
#include "tirval_onedrive_common.h"

#include <cerrno>
#include <cstring>

using tirval_l_pair_t = tirval_dsi_rest_key_value_t;
using tirval_l_pairs_t = tirval_dsi_rest_key_array_t;

/* ---- Pairs ---- */

static void tirval_l_clear_pair(tirval_l_pair_t *pair)
{
    free(const_cast<char *>(pair->key));
    free(const_cast<char *>(pair->value));
    *pair = {};
}

/* Copies a pair into an empty one; an absent text stays absent.  Returns false when memory ran out;
 * the pair is empty then. */
static bool tirval_l_copy_pair(const tirval_l_pair_t *from, tirval_l_pair_t *to)
{
    to->key = from->key != nullptr ? strdup(from->key) : nullptr;
    to->value = from->value != nullptr ? strdup(from->value) : nullptr;
    if ((from->key != nullptr && to->key == nullptr) ||
        (from->value != nullptr && to->value == nullptr)) {
        tirval_l_clear_pair(to);
        return false;
    }
    return true;
}

/* The first pair named `key`, or null. */
static tirval_l_pair_t *tirval_l_find_pair(const tirval_l_pairs_t *pairs, const char *key)
{
    for (size_t i = 0; key != nullptr && i < pairs->count; i++) {
        tirval_l_pair_t *const pair = &pairs->key_value[i];
        if (pair->key != nullptr && strcmp(pair->key, key) == 0) {
            return pair;
        }
    }
    return nullptr;
}

/* ---- The object type ---- */

extern "C" {
static void tirval_l_onedrive_error_free(void *data)
{
    auto *const pairs = static_cast<tirval_l_pairs_t *>(data);
    if (pairs == nullptr) {
        return;
    }
    for (size_t i = 0; i < pairs->count; i++) {
        tirval_l_clear_pair(&pairs->key_value[i]);
    }
    free(pairs->key_value);
    free(pairs);
}
}

struct tirval_l_release_pairs_t {
    void operator()(tirval_l_pairs_t *pairs) const noexcept { tirval_l_onedrive_error_free(pairs); }
};
using tirval_l_pairs_owner_t = std::unique_ptr<tirval_l_pairs_t, tirval_l_release_pairs_t>;

static tirval_l_pairs_owner_t tirval_l_copy_pairs(const tirval_l_pairs_t *from)
{
    tirval_l_pairs_owner_t copy(
        static_cast<tirval_l_pairs_t *>(calloc(1, sizeof(tirval_l_pairs_t))));
    if (copy == nullptr || from->count == 0) {
        return copy;
    }
    copy->key_value = static_cast<tirval_l_pair_t *>(calloc(from->count, sizeof(tirval_l_pair_t)));
    if (copy->key_value == nullptr) {
        return nullptr;
    }
    for (; copy->count < from->count; copy->count++) {
        if (!tirval_l_copy_pair(&from->key_value[copy->count], &copy->key_value[copy->count])) {
            return nullptr;
        }
    }
    return copy;
}

extern "C" {
static void tirval_l_onedrive_error_copy(void *src, void **dst_out)
{
    if (src != nullptr && dst_out != nullptr) {
        *dst_out = tirval_l_copy_pairs(static_cast<const tirval_l_pairs_t *>(src)).release();
    }
}
}

/* ---- The printed text ---- */

/* What a byte of a value is printed as after a backslash, or 0 when it stands for itself. */
static char tirval_l_escape(char byte)
{
    switch (byte) {
    case '"':
    case '\\':
        return byte;
    case '\r':
        return 'r';
    case '\n':
        return 'n';
    default:
        return 0;
    }
}

static size_t tirval_l_printed_length(const tirval_l_pairs_t *pairs)
{
    size_t len = 0;
    size_t delimiter = 0;
    for (size_t i = 0; i < pairs->count; i++) {
        const tirval_l_pair_t *const pair = &pairs->key_value[i];
        if (pair->key == nullptr || pair->value == nullptr) {
            continue;
        }
        if (pair->key[0] != '\0') {
            len += delimiter + strlen(pair->key) + strlen(": \"\"");
            for (const char *at = pair->value; *at != '\0'; at++) {
                len += tirval_l_escape(*at) != 0 ? 2 : 1;
            }
        }
        delimiter = 1;
    }
    return len;
}

/* Appends at `at` and returns the new end. */
static char *tirval_l_print_pair(char *at, const tirval_l_pair_t *pair)
{
    at = stpcpy(stpcpy(at, pair->key), ": \"");
    for (const char *from = pair->value; *from != '\0'; from++) {
        const char escaped = tirval_l_escape(*from);
        if (escaped != 0) {
            *at++ = '\\';
        }
        *at++ = escaped != 0 ? escaped : *from;
    }
    return stpcpy(at, "\"");
}

static void tirval_l_print_pairs(char *at, const tirval_l_pairs_t *pairs)
{
    *at = '\0';
    const char *delimiter = "";
    for (size_t i = 0; i < pairs->count; i++) {
        const tirval_l_pair_t *const pair = &pairs->key_value[i];
        if (pair->key != nullptr && pair->key[0] != '\0' && pair->value != nullptr &&
            pair->value[0] != '\0') {
            at = tirval_l_print_pair(stpcpy(at, delimiter), pair);
            delimiter = "\n";
        }
    }
}

extern "C" {
/* Every failure's debug line prints its chain, so a pair that was built wrong shows at once: one
 * with an empty value, or an empty key before another pair, does not come out as it was counted. */
static char *tirval_l_onedrive_error_printable(tirval_object_t *error)
{
    tirval_object_t *const onedrive_error =
        tirval_object_upcast(error, TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION);
    TIRVAL_ASSERT(onedrive_error != NULL);

    static const tirval_l_pairs_t none = {};
    const void *const data = tirval_object_get_instance_data(onedrive_error);
    const auto *const pairs = data != nullptr ? static_cast<const tirval_l_pairs_t *>(data) : &none;
    const size_t len = tirval_l_printed_length(pairs);
    char *const msg = static_cast<char *>(malloc(len + 1));
    if (msg == nullptr) {
        return nullptr;
    }
    tirval_l_print_pairs(msg, pairs);
    TIRVAL_ASSERT(strlen(msg) == len);
    return msg;
}
}

const tirval_object_type_t tirval_i_onedrive_error_type = {
    .parent = TIRVAL_ERROR_TYPE_BASE_DEFINITION,
    .copy_func = tirval_l_onedrive_error_copy,
    .free_func = tirval_l_onedrive_error_free,
    .printable_func = tirval_l_onedrive_error_printable,
};

/* ---- Making and reading objects ---- */

extern "C" tirval_object_t *tirval_onedrive_error_initialize(
    tirval_object_t *error, [[maybe_unused]] const tirval_module_descriptor_t *base_source,
    [[maybe_unused]] tirval_object_t *base_cause, const tirval_dsi_rest_key_array_t *error_info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_object_t *initialized = nullptr;
    static const tirval_l_pairs_t none = {};
    if (tirval_object_upcast(error, TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION) != nullptr) {
        tirval_l_pairs_owner_t copy =
            tirval_l_copy_pairs(error_info != nullptr ? error_info : &none);
        if (copy != nullptr) {
            tirval_l_onedrive_error_free(tirval_object_get_instance_data(error));
            tirval_object_set_instance_data(error, copy.release());
            initialized = error;
        }
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return initialized;
}

extern "C" tirval_object_t *
tirval_onedrive_error_construct(const tirval_module_descriptor_t *base_source,
                                tirval_object_t *base_cause,
                                const tirval_dsi_rest_key_array_t *error_info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_object_t *error = tirval_object_construct(TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION);
    if (error != nullptr &&
        tirval_onedrive_error_initialize(error, base_source, base_cause, error_info) == nullptr) {
        tirval_object_free(error);
        error = nullptr;
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return error;
}

extern "C" const char *tirval_onedrive_error_get_info(tirval_object_t *error, const char *key)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    const char *value = nullptr;
    while (error != nullptr &&
           tirval_object_upcast(error, TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION) == nullptr) {
        error = tirval_error_get_cause(error);
    }
    const void *const data = tirval_object_get_instance_data(error);
    if (data != nullptr) {
        const tirval_l_pair_t *const pair =
            tirval_l_find_pair(static_cast<const tirval_l_pairs_t *>(data), key);
        value = pair != nullptr ? pair->value : nullptr;
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
    return value;
}

/* ---- Adding pairs ---- */

/* Makes room for as many zeroed pairs behind those held.  Returns false when memory ran out. */
static bool tirval_l_grow(tirval_l_pairs_t *pairs, size_t added)
{
    const size_t count = pairs->count + added;
    auto *const grown = static_cast<tirval_l_pair_t *>(
        reallocarray(pairs->key_value, count, sizeof(tirval_l_pair_t)));
    if (grown == nullptr) {
        return false;
    }
    memset(&grown[pairs->count], 0, added * sizeof(tirval_l_pair_t));
    pairs->key_value = grown;
    return true;
}

/* A present key keeps its value, in a copy of its own. */
static bool tirval_l_renew_value(tirval_l_pair_t *pair)
{
    if (pair->value == nullptr) {
        return true;
    }
    char *const copy = strdup(pair->value);
    if (copy == nullptr) {
        return false;
    }
    free(const_cast<char *>(pair->value));
    pair->value = copy;
    return true;
}

/* Appends a pair; `end` is the count of the grown array.  The slot behind the new pair tells
 * whether it worked, at the array's end the new pair itself. */
static bool tirval_l_append_pair(tirval_l_pairs_t *pairs, const tirval_l_pair_t *pair, size_t end)
{
    const size_t added = pairs->count;
    if (!tirval_l_copy_pair(pair, &pairs->key_value[added])) {
        return false;
    }
    pairs->count++;
    const size_t judged = pairs->count < end ? pairs->count : added;
    return pairs->key_value[judged].value != nullptr;
}

static bool tirval_l_add_pairs(tirval_l_pairs_t *pairs, const tirval_l_pairs_t *info, size_t end)
{
    for (size_t i = 0; i < info->count; i++) {
        tirval_l_pair_t *const present = tirval_l_find_pair(pairs, info->key_value[i].key);
        const bool done = present != nullptr
                              ? tirval_l_renew_value(present)
                              : tirval_l_append_pair(pairs, &info->key_value[i], end);
        if (!done) {
            return false;
        }
    }
    return true;
}

static void tirval_l_add_info(tirval_l_pairs_t *pairs, const tirval_l_pairs_t *info)
{
    const size_t start = pairs->count;
    size_t added = 0;
    for (size_t i = 0; i < info->count; i++) {
        added += tirval_l_find_pair(pairs, info->key_value[i].key) == nullptr ? 1 : 0;
    }
    if (added > 0 && !tirval_l_grow(pairs, added)) {
        return;
    }
    if (!tirval_l_add_pairs(pairs, info, start + added)) {
        while (pairs->count > start) {
            tirval_l_clear_pair(&pairs->key_value[--pairs->count]);
        }
    }
}

extern "C" void tirval_onedrive_error_add_info(tirval_object_t *error,
                                               const tirval_dsi_rest_key_array_t *info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    if (tirval_object_upcast(error, TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION) != nullptr &&
        info != nullptr && info->count > 0) {
        void *const data = tirval_object_get_instance_data(error);
        if (data != nullptr) {
            tirval_l_add_info(static_cast<tirval_l_pairs_t *>(data), info);
        }
    }
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

/* ---- Errors in one wording ---- */

extern "C" tirval_result_t tirval_i_onedrive_system_error(const char *call)
{
    return tirval_error_put(
        tirval_i_gfs_error_system(nullptr, errno, "System error%s%s", " in ", call));
}

extern "C" tirval_result_t tirval_i_onedrive_malloc_error()
{
    return tirval_i_onedrive_system_error("malloc");
}

extern "C" tirval_result_t tirval_i_onedrive_path_error(const char *tag, const char *path)
{
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(nullptr, nullptr, 553, tag,
                                                                    "GridFTP-Path: %s", path));
}

extern "C" tirval_result_t tirval_i_onedrive_write_refusal(const char *path, const char *reason)
{
    tirval_l_pair_t pairs[] = {{"OneDrive-Path", path}, {"OneDrive-Error", reason}};
    const tirval_l_pairs_t info = {2, pairs};
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, tirval_onedrive_error_construct(nullptr, nullptr, &info), 550, "PERMISSION_DENIED",
        nullptr));
}

extern "C" tirval_result_t tirval_i_onedrive_answer_error(const char *source, const char *function,
                                                          int line, const char *message)
{
    return tirval_error_put(tirval_error_construct_error(
        nullptr, nullptr, TIRVAL_ERROR_TYPE_SERVICE_ANSWER, source, function, line, "%s", message));
}
