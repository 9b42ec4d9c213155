/*
 * The process's cancel flag.  The flag itself is read without a lock, because every block of a
 * transfer looks at it; the lock keeps the flag and the descriptor's readability together.
 */
#include "cancel.h"

#include "errors.h"

#include <atomic>
#include <mutex>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

std::mutex lock;
std::atomic<tirval_gfs_cancel_reason_t> current{TIRVAL_GFS_CANCEL_NONE};

/* The descriptor counts only in the process that made it: a forked process that shared it would
 * wake, and be woken by, its parent. */
int descriptor = -1;
pid_t owner = 0;

/* The lock must be held. */
bool descriptor_is_ours()
{
    return descriptor >= 0 && owner == getpid();
}

/* The lock must be held.  A full or an empty counter is as good as a written or a read one. */
void set_readable(bool readable)
{
    if (!descriptor_is_ours()) {
        return;
    }
    eventfd_t count = 0;
    if (readable) {
        (void)eventfd_write(descriptor, 1);
    } else {
        (void)eventfd_read(descriptor, &count);
    }
}

const char *describe(tirval_gfs_cancel_reason_t reason)
{
    switch (reason) {
    case TIRVAL_GFS_CANCEL_ABORT:
        return "The client aborted the operation.";
    case TIRVAL_GFS_CANCEL_LOST:
        return "The control connection is lost.";
    case TIRVAL_GFS_CANCEL_SHUTDOWN:
        return "The server is shutting down.";
    case TIRVAL_GFS_CANCEL_TRANSFER:
        return "The data connection could not be opened or broke.";
    case TIRVAL_GFS_CANCEL_NONE:
        break;
    }
    return "The operation was cancelled.";
}

} // namespace

void tirval_gfs_cancel(tirval_gfs_cancel_reason_t reason)
{
    std::lock_guard<std::mutex> guard(lock);
    if (reason != TIRVAL_GFS_CANCEL_NONE && current == TIRVAL_GFS_CANCEL_NONE) {
        current = reason;
        set_readable(true);
    }
}

tirval_gfs_cancel_reason_t tirval_gfs_cancelled(void)
{
    return current.load(std::memory_order_acquire);
}

void tirval_gfs_cancel_clear(void)
{
    std::lock_guard<std::mutex> guard(lock);
    current = TIRVAL_GFS_CANCEL_NONE;
    set_readable(false);
}

int tirval_gfs_cancel_descriptor(void)
{
    std::lock_guard<std::mutex> guard(lock);
    if (!descriptor_is_ours()) {
        descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        owner = getpid();
        set_readable(current != TIRVAL_GFS_CANCEL_NONE);
    }
    return descriptor;
}

tirval_result_t tirval_gfs_cancel_error(void)
{
    return tirval_gfs::put_error(TIRVAL_ERROR_TYPE_CANCELLED, __func__, __LINE__, "%s",
                                 describe(tirval_gfs_cancelled()));
}

void tirval_gfs::clear_cancel(tirval_gfs_cancel_reason_t reason)
{
    std::lock_guard<std::mutex> guard(lock);
    if (current == reason) {
        current = TIRVAL_GFS_CANCEL_NONE;
        set_readable(false);
    }
}
