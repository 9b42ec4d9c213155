/*
 * The owner of a file descriptor: closes it when it goes.
 */
#ifndef TIRVAL_SERVER_UNIQUE_FD_H
#define TIRVAL_SERVER_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tirval::server {

class unique_fd_t {
  public:
    unique_fd_t() = default;
    /* Owns `fd` from now on; -1: none. */
    explicit unique_fd_t(int fd) : fd_(fd) {}
    unique_fd_t(unique_fd_t &&other) noexcept : fd_(other.release()) {}
    unique_fd_t &operator=(unique_fd_t &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    unique_fd_t(const unique_fd_t &) = delete;
    unique_fd_t &operator=(const unique_fd_t &) = delete;
    ~unique_fd_t() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    /* Gives the descriptor away; the caller closes it. */
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd) {
            ::close(old);
        }
    }

  private:
    int fd_ = -1;
};

} // namespace tirval::server

#endif
