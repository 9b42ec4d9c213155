/* The system call filter: what it refuses, and what goes on working. */
#include "sandbox.h"

#include "child_process.h"
#include "temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <netdb.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

using namespace tirval::server;

namespace {

/* What a call says inside the filter. */
std::string inside(const std::function<long()> &call)
{
    return run_in_child([&] {
               if (!enter_sandbox()) {
                   return std::string{"no filter"};
               }
               errno = 0;
               return call() < 0 ? std::string{std::strerror(errno)} : std::string{"done"};
           })
        .text;
}

constexpr const char *refused = "Operation not permitted";

} // namespace

TEST(Sandbox, OtherProgramsCannotBeStarted)
{
    char name[] = "/bin/true";
    char *const arguments[] = {name, nullptr};
    EXPECT_EQ(inside([&]() -> long { return execve(name, arguments, nullptr); }), refused);
}

#ifndef TIRVAL_ASAN
TEST(Sandbox, OtherProcessesCannotBeTraced)
{
    EXPECT_EQ(inside([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }), refused);
}
#endif

TEST(Sandbox, NamespacesAreOutOfReach)
{
    EXPECT_EQ(inside([]() -> long { return unshare(CLONE_NEWUSER); }), refused);
    EXPECT_EQ(inside([] { return syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0); }),
              refused);
    EXPECT_EQ(inside([] { return syscall(SYS_clone3, nullptr, 0); }), "Function not implemented");
}

TEST(Sandbox, IdentitiesAreOutOfReach)
{
    EXPECT_EQ(inside([] { return syscall(SYS_setuid, getuid()); }), refused);
    EXPECT_EQ(inside([] { return syscall(SYS_setresgid, -1, -1, -1); }), refused);
    EXPECT_EQ(inside([] { return syscall(SYS_personality, 0xffffffff); }), refused);
}

TEST(Sandbox, WhatOnlyAdministratorsNeedIsOutOfReach)
{
    EXPECT_EQ(inside([] { return syscall(SYS_bpf, 0, nullptr, 0); }), refused);
    EXPECT_EQ(inside([] { return syscall(SYS_io_uring_setup, 1, nullptr); }), refused);
    EXPECT_EQ(inside([] { return syscall(SYS_mount, nullptr, nullptr, nullptr, 0, nullptr); }),
              refused);
    EXPECT_EQ(inside([]() -> long { return socket(AF_PACKET, SOCK_RAW, 0); }), refused);
    char key = 'x';
    EXPECT_EQ(inside([&]() -> long { return ioctl(0, TIOCSTI, &key); }), refused);
}

TEST(Sandbox, FilesAndLocksWork)
{
    const temp_dir_t dir;
    EXPECT_EQ(inside([&]() -> long {
                  const int fd = open((dir / "f").c_str(), O_RDWR | O_CREAT, 0600);
                  struct flock lock {};
                  lock.l_type = F_RDLCK;
                  if (ftruncate(fd, 24) != 0 || fcntl(fd, F_SETLK, &lock) != 0 ||
                      fcntl(fd, F_OFD_SETLK, &lock) != 0 || posix_fallocate(fd, 0, 4096) != 0 ||
                      fsync(fd) != 0 || rename((dir / "f").c_str(), (dir / "g").c_str()) != 0) {
                      return -1;
                  }
                  void *memory = mmap(nullptr, 24, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                  const timespec moment{0, 1};
                  return memory == MAP_FAILED || nanosleep(&moment, nullptr) != 0 ? -1 : 0;
              }),
              "done");
}

TEST(Sandbox, NamesAreResolved)
{
    EXPECT_EQ(inside([]() -> long {
                  addrinfo *found = nullptr;
                  const bool ok = getpwnam("root") != nullptr &&
                                  getaddrinfo("localhost", "80", nullptr, &found) == 0;
                  if (found != nullptr) {
                      freeaddrinfo(found);
                  }
                  return ok ? 0 : -1;
              }),
              "done");
}

TEST(Sandbox, ThreadsAndEventsWork)
{
    EXPECT_EQ(inside([]() -> long {
                  int seen = 0;
                  std::thread{[&] { seen = 1; }}.join();
                  int ends[2];
                  return seen == 1 && eventfd(0, EFD_CLOEXEC) >= 0 &&
                                 timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC) >= 0 &&
                                 socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 &&
                                 socket(AF_INET, SOCK_STREAM, 0) >= 0
                             ? 0
                             : -1;
              }),
              "done");
}

TEST(Sandbox, OnRequestADeniedCallEndsTheProcess)
{
    const auto result = run_in_child([] {
        setenv("TIRVAL_SECCOMP", "kill", 1);
        enter_sandbox();
        return std::to_string(unshare(CLONE_NEWUSER));
    });
    EXPECT_EQ(result.signal, SIGSYS);
}
