/* Small files of one user that several processes share: mapped into memory, initialised by whoever
 * comes first, and guarded by a record lock.  Serves the retry file and the upload-state file. */
#include "tirval_onedrive_common.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

/* ---- Opening ---- */

extern "C" void tirval_i_onedrive_ensure_folder(const char *path)
{
    DIR *const folder = opendir(path);
    if (folder != nullptr) {
        (void)closedir(folder);
    } else if (errno == ENOENT) {
        (void)mkdir(path, 0700);
    }
}

static int tirval_l_open(const char *path)
{
    int fd = -1;
    for (int attempt = 0; fd == -1 && attempt < 10; attempt++) {
        fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    return fd;
}

extern "C" int tirval_i_onedrive_state_file_open(char *path)
{
    char *const slash = strrchr(path, '/');
    TIRVAL_ASSERT(slash != NULL);
    *slash = '\0';
    tirval_i_onedrive_ensure_folder(path);
    *slash = '/';
    const int fd = tirval_l_open(path);
    struct stat status = {};
    if (fd != -1 && (fstat(fd, &status) != 0 || status.st_uid != geteuid())) {
        (void)close(fd);
        return -1;
    }
    return fd;
}

/* The file's path; null when the user cannot be looked up or memory ran out. */
static tirval_i_onedrive_text_t tirval_l_path(const tirval_i_onedrive_state_kind_t *kind,
                                              const char *name)
{
    const tirval_i_onedrive_text_t unexpanded(
        tirval_common_create_string("%s/%s", *kind->folder, name));
    char *path = nullptr;
    if (unexpanded != nullptr) {
        (void)tirval_onedrive_evaluate_path(unexpanded.get(), &path);
    }
    return tirval_i_onedrive_text_t(path);
}

/* ---- The lock ---- */

/* Returns 0 or the errno value. */
static int tirval_l_record_lock(int fd, short type, bool blocking)
{
    struct flock whole_file = {};
    whole_file.l_type = type;
    whole_file.l_whence = SEEK_SET;
    while (fcntl(fd, blocking ? F_SETLKW : F_SETLK, &whole_file) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

static tirval_result_t tirval_l_logged_lock(const char *function, int fd, short type, bool blocking)
{
    TIRVAL_ONEDRIVE_LOG_AS(TIRVAL_ONEDRIVE_TRACE, function, "enter\n");
    const int failure = tirval_l_record_lock(fd, type, blocking);
    errno = failure;
    const tirval_result_t result =
        failure == 0 ? TIRVAL_SUCCESS : tirval_i_onedrive_system_error("fnctl");
    return tirval_i_onedrive_log_result(result, function);
}

extern "C" tirval_result_t tirval_i_onedrive_state_lock(const tirval_i_onedrive_state_kind_t *kind,
                                                        int fd, bool blocking)
{
    return tirval_l_logged_lock(kind->lock_function, fd, F_WRLCK, blocking);
}

extern "C" tirval_result_t
tirval_i_onedrive_state_unlock(const tirval_i_onedrive_state_kind_t *kind, int fd)
{
    return tirval_l_logged_lock(kind->unlock_function, fd, F_UNLCK, false);
}

/* ---- Initialisation ---- */

static void *tirval_l_private_memory(const tirval_i_onedrive_state_kind_t *kind)
{
    return calloc(1, kind->length);
}

static void *tirval_l_map(int fd, size_t length)
{
    return mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

/*
 * Brings the locked file to its length.  Returns false when that was given up, with `*fd` and
 * `*shared` as they stay: an interrupted first extension leaves the closed descriptor's number
 * beside private memory, a failed second one leaves the mapping that is already gone.
 */
static bool tirval_l_initialise(const tirval_i_onedrive_state_kind_t *kind, int *fd, void **shared)
{
    const auto length = static_cast<off_t>(kind->length);
    while (ftruncate(*fd, length) != 0) {
        if (errno == EINTR) {
            (void)close(*fd);
            *shared = tirval_l_private_memory(kind);
            return false;
        }
    }
    *shared = tirval_l_map(*fd, kind->first_length);
    if (kind->initialise != nullptr && *shared != MAP_FAILED) {
        kind->initialise(*shared);
    }
    (void)munmap(*shared, kind->first_length);
    while (ftruncate(*fd, length) != 0) {
        if (errno != EINTR) {
            (void)close(*fd);
            *fd = -1;
            return false;
        }
    }
    return true;
}

/* Waits until the file has its length, or gives it that.  Returns false as above. */
static bool tirval_l_make_ready(const tirval_i_onedrive_state_kind_t *kind, int *fd, void **shared)
{
    for (;;) {
        const bool locked = tirval_i_onedrive_state_lock(kind, *fd, false) == TIRVAL_SUCCESS;
        struct stat status = {};
        const bool known = fstat(*fd, &status) == 0;
        const bool ready = known && status.st_size == static_cast<off_t>(kind->length);
        if (locked) {
            if (!ready && !tirval_l_initialise(kind, fd, shared)) {
                return false;
            }
            (void)tirval_i_onedrive_state_unlock(kind, *fd);
            return true;
        }
        if (ready) {
            return true;
        }
        if (known) {
            (void)sleep(1);
        }
    }
}

/* ---- Attaching ---- */

extern "C" void *tirval_i_onedrive_state_attach(const tirval_i_onedrive_state_kind_t *kind,
                                                const char *name, int *fd)
{
    const tirval_i_onedrive_text_t path = tirval_l_path(kind, name);
    *fd = path != nullptr ? tirval_i_onedrive_state_file_open(path.get()) : -1;
    if (*fd == -1) {
        return tirval_l_private_memory(kind);
    }
    void *shared = nullptr;
    if (!tirval_l_make_ready(kind, fd, &shared)) {
        return shared;
    }
    shared = tirval_l_map(*fd, kind->length);
    if (shared == nullptr || (kind->mapping_checked && shared == MAP_FAILED)) {
        (void)close(*fd);
        *fd = -1;
        return tirval_l_private_memory(kind);
    }
    return shared;
}

extern "C" void tirval_i_onedrive_state_detach(const tirval_i_onedrive_state_kind_t *kind,
                                               void *shared, int *fd)
{
    if (*fd == -1) {
        free(shared);
        return;
    }
    (void)munmap(shared, kind->first_length);
    (void)close(*fd);
    *fd = -1;
}
