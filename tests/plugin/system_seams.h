/* System calls of the state files, as the test program sees them: its own definitions stand in
 * front of the system's, note what was called, fail where a test wants them to, and pass on the
 * rest.  To be included by one source of a program. */
#ifndef TIRVAL_TESTS_SYSTEM_SEAMS_H
#define TIRVAL_TESTS_SYSTEM_SEAMS_H

#include "frame_support.h"

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

/* What the next calls of one kind fail with, one errno a call; 0: that one is passed on. */
class failures {
  public:
    failures() = default;
    failures(std::initializer_list<int> errors) : errors_(errors) {}
    /* Whether this call fails; errno is set then. */
    bool strike()
    {
        if (errors_.empty()) {
            return false;
        }
        const int error = errors_.front();
        errors_.pop_front();
        if (error != 0) {
            errno = error;
        }
        return error != 0;
    }
    [[nodiscard]] bool used_up() const { return errors_.empty(); }

  private:
    std::deque<int> errors_;
};

struct system_seams {
    std::vector<std::string> calls; /* the kinds of the sleeps and locks, in order */

    std::vector<unsigned> sleeps; /* seconds; they are not slept */
    std::function<void()> while_sleeping;
    std::vector<timespec> naps;
    int last_nap = 0; /* what the last one returned */
    bool real_naps = true;
    std::function<void()> while_napping;

    std::optional<timeval> clock; /* what the clock shows; unset: the real time */
    timeval last_reading = {};

    failures open;
    failures fstat;
    failures ftruncate;
    failures fcntl;
    failures mmap;
    std::vector<size_t> mapped;   /* lengths of shared mappings */
    std::vector<size_t> unmapped; /* lengths, of all that is unmapped */
    int truncated = 0;            /* calls of ftruncate */
};

/* Lives as long as the process: memory is still unmapped when the program's objects are gone. */
inline system_seams &seams = *new system_seams;

extern "C" {

TIRVAL_API unsigned sleep(unsigned seconds)
{
    seams.calls.emplace_back("sleep");
    seams.sleeps.push_back(seconds);
    if (seams.while_sleeping) {
        seams.while_sleeping();
    }
    return 0;
}

TIRVAL_API int nanosleep(const timespec *interval, timespec *rest)
{
    static auto *const next = next_definition<int(const timespec *, timespec *)>("nanosleep");
    seams.calls.emplace_back("nap");
    seams.naps.push_back(*interval);
    if (seams.while_napping) {
        seams.while_napping();
    }
    seams.last_nap = seams.real_naps ? next(interval, rest) : 0;
    return seams.last_nap;
}

TIRVAL_API int gettimeofday(timeval *now, void * /*zone*/) noexcept
{
    timespec real = {};
    (void)clock_gettime(CLOCK_REALTIME, &real);
    *now = seams.clock.value_or(timeval{real.tv_sec, real.tv_nsec / 1000});
    seams.last_reading = *now;
    return 0;
}

TIRVAL_API int open(const char *path, int flags, ...)
{
    static auto *const next = next_definition<int(const char *, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return seams.open.strike() ? -1 : next(path, flags, mode);
}

TIRVAL_API int fstat(int fd, struct stat *status) noexcept
{
    static auto *const next = next_definition<int(int, struct stat *)>("fstat64");
    return seams.fstat.strike() ? -1 : next(fd, status);
}

TIRVAL_API int ftruncate(int fd, off_t length) noexcept
{
    static auto *const next = next_definition<int(int, off_t)>("ftruncate64");
    seams.truncated++;
    return seams.ftruncate.strike() ? -1 : next(fd, length);
}

TIRVAL_API int fcntl(int fd, int command, ...)
{
    static auto *const next = next_definition<int(int, int, ...)>("fcntl64");
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (command == F_SETLK || command == F_SETLKW) {
        seams.calls.emplace_back(static_cast<struct flock *>(argument)->l_type == F_UNLCK ? "unlock"
                                 : command == F_SETLKW ? "wait for lock"
                                                       : "try lock");
        if (seams.fcntl.strike()) {
            return -1;
        }
    }
    return next(fd, command, argument);
}

TIRVAL_API void *mmap(void *address, size_t length, int protection, int flags, int fd,
                      off_t offset) noexcept
{
    static auto *const next =
        next_definition<void *(void *, size_t, int, int, int, off_t)>("mmap64");
    if ((flags & MAP_SHARED) != 0 && fd != -1) {
        seams.mapped.push_back(length);
        if (seams.mmap.strike()) {
            return MAP_FAILED;
        }
    }
    return next(address, length, protection, flags, fd, offset);
}

TIRVAL_API int munmap(void *address, size_t length) noexcept
{
    static auto *const next = next_definition<int(void *, size_t)>("munmap");
    seams.unmapped.push_back(length);
    return next(address, length);
}

} /* extern "C" */

/* Whether another process gets the write lock on a file at once. */
inline bool lock_is_free(const std::string &path)
{
    return child_process([&path] {
               const int fd = open(path.c_str(), O_RDWR);
               struct flock whole = {};
               whole.l_type = F_WRLCK;
               return fd != -1 && fcntl(fd, F_SETLK, &whole) == 0 ? 0 : 1;
           }).wait() == 0;
}

/* Another process that holds the write lock on a file until this object goes. */
class lock_holder {
  public:
    explicit lock_holder(const std::string &path)
        : process_([this, path] {
              const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
              struct flock whole = {};
              whole.l_type = F_WRLCK;
              const bool held = fd != -1 && fcntl(fd, F_SETLK, &whole) == 0;
              held_.open();
              released_.pass();
              return held ? 0 : 1;
          })
    {
        held_.pass();
    }
    lock_holder(const lock_holder &) = delete;
    lock_holder &operator=(const lock_holder &) = delete;
    ~lock_holder()
    {
        released_.open();
        EXPECT_EQ(process_.wait(), 0);
    }

  private:
    gate held_;
    gate released_;
    child_process process_;
};

#endif
