/* Expands "$HOME" and "$LOGNAME" in the templates of the per-user state paths. */
#include "tirval_onedrive_common.h"

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <unistd.h>

static constexpr const char *tirval_l_home = "$HOME";
static constexpr const char *tirval_l_logname = "$LOGNAME";

/* The real user's entry.  Its texts lie in `buffer`, which grows until it holds them.  Returns 0 or
 * the errno value. */
static int tirval_l_look_up_user(passwd *user, tirval_i_onedrive_text_t *buffer)
{
    int failure = ERANGE;
    for (size_t size = 64; failure == ERANGE; size *= 2) {
        char *const grown = static_cast<char *>(realloc(buffer->get(), size));
        if (grown == nullptr) {
            return ENOMEM;
        }
        (void)buffer->release();
        buffer->reset(grown);
        passwd *found = nullptr;
        failure = getpwuid_r(getuid(), user, grown, size, &found);
        if (failure == 0 && found == nullptr) {
            failure = ENOENT;
        }
    }
    return failure;
}

static size_t tirval_l_count(const char *text, const char *variable)
{
    size_t count = 0;
    for (const char *at = text; (at = strstr(at, variable)) != nullptr; at += strlen(variable)) {
        count++;
    }
    return count;
}

/* The bytes of the expanded text with its final null. */
static size_t tirval_l_expanded_size(const char *orig_path, const char *home, const char *logname)
{
    const size_t homes = tirval_l_count(orig_path, tirval_l_home);
    const size_t lognames = tirval_l_count(orig_path, tirval_l_logname);
    return strlen(orig_path) + 1 + homes * strlen(home) + lognames * strlen(logname) -
           homes * strlen(tirval_l_home) - lognames * strlen(tirval_l_logname);
}

static void tirval_l_expand(const char *orig_path, const char *home, const char *logname, char *out)
{
    const char *p = orig_path;
    while (*p != '\0') {
        const char *const end = p + strlen(p);
        const char *const next_logname = strstr(p, tirval_l_logname);
        const char *const next_home = strstr(p, tirval_l_home);
        const char *next = end;
        if (next_home != nullptr) {
            next = next_home;
        }
        if (next_logname != nullptr && next_logname < next) {
            next = next_logname;
        }
        out = static_cast<char *>(mempcpy(out, p, static_cast<size_t>(next - p)));
        p = next;
        TIRVAL_ASSERT(p != NULL);
        if (p == next_logname) {
            out = stpcpy(out, logname);
            p += strlen(tirval_l_logname);
        } else if (p == next_home) {
            out = stpcpy(out, home);
            p += strlen(tirval_l_home);
        }
    }
    *out = '\0';
}

extern "C" tirval_result_t tirval_onedrive_evaluate_path(const char *orig_path,
                                                         char **updated_pathp)
{
    *updated_pathp = nullptr;
    passwd user = {};
    tirval_i_onedrive_text_t buffer;
    const int failure = tirval_l_look_up_user(&user, &buffer);
    if (failure != 0) {
        errno = failure;
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_i_onedrive_malloc_error());
    }
    const char *const home = user.pw_dir != nullptr ? user.pw_dir : "";
    const char *const logname = user.pw_name != nullptr ? user.pw_name : "";
    char *const path =
        static_cast<char *>(malloc(tirval_l_expanded_size(orig_path, home, logname)));
    if (path == nullptr) {
        return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_i_onedrive_malloc_error());
    }
    tirval_l_expand(orig_path, home, logname, path);
    *updated_pathp = path;
    return TIRVAL_ONEDRIVE_LOG_RESULT(TIRVAL_SUCCESS);
}
