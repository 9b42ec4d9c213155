/*
 * The session's system call filter.
 */
#include "sandbox.h"

#include "log.h"

#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace tirval::server {

namespace {

using filter_t = std::remove_pointer_t<scmp_filter_ctx>;
struct filter_deleter_t {
    void operator()(filter_t *filter) const { seccomp_release(filter); }
};

/* By name, since not every kernel header knows each of them.  Names that the library does not know
 * do not exist on this system either. */
constexpr const char *denied_calls[] = {
    /* other programs and other processes */
    "execve", "execveat", "process_vm_readv", "process_vm_writev", "kcmp", "pidfd_getfd",
#ifndef TIRVAL_ASAN /* the leak check at the end of the process traces its own threads */
    "ptrace",
#endif
    /* other views of the file system */
    "mount", "umount", "umount2", "move_mount", "open_tree", "fsopen", "fsconfig", "fsmount",
    "fspick", "mount_setattr", "pivot_root", "chroot", "unshare", "setns", "name_to_handle_at",
    "open_by_handle_at", "fanotify_init", "mknod", "mknodat", "quotactl", "quotactl_fd",
    /* other identities */
    "setuid", "setgid", "setreuid", "setregid", "setresuid", "setresgid", "setfsuid", "setfsgid",
    "setgroups", "capset", "keyctl", "add_key", "request_key", "personality",
    /* parts of the kernel that only attackers and administrators meet */
    "bpf", "perf_event_open", "userfaultfd", "io_uring_setup", "io_uring_enter",
    "io_uring_register", "kexec_load", "kexec_file_load", "init_module", "finit_module",
    "delete_module", "create_module", "reboot", "swapon", "swapoff", "acct", "sethostname",
    "setdomainname", "settimeofday", "clock_settime", "clock_settime64", "clock_adjtime",
    "clock_adjtime64", "adjtimex", "ioperm", "iopl", "modify_ldt", "syslog", "vhangup"};

constexpr unsigned long namespace_flags = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                          CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID |
                                          CLONE_NEWNET;

/* Where clone() takes its flags. */
#if defined(__s390__) || defined(__s390x__)
constexpr unsigned clone_flags_argument = 1;
#else
constexpr unsigned clone_flags_argument = 0;
#endif

/* Each returns 0 or a negative errno value. */
int deny_by_name(filter_t *filter, std::uint32_t action)
{
    for (const char *name : denied_calls) {
        const int call = seccomp_syscall_resolve_name(name);
        const int rc = call == __NR_SCMP_ERROR ? 0 : seccomp_rule_add(filter, action, call, 0);
        if (rc != 0 && rc != -EDOM) {
            return rc;
        }
    }
    return 0;
}

int deny_by_argument(filter_t *filter, std::uint32_t action)
{
    int rc = seccomp_rule_add(filter, action, SCMP_SYS(ioctl), 1,
                              SCMP_CMP(1, SCMP_CMP_MASKED_EQ, 0xffffffff, TIOCSTI));
    if (rc == 0) {
        rc = seccomp_rule_add(filter, action, SCMP_SYS(socket), 1,
                              SCMP_CMP(0, SCMP_CMP_EQ, AF_PACKET));
    }
    for (unsigned long flag = 1; rc == 0 && flag != 0; flag <<= 1) {
        if ((namespace_flags & flag) != 0) {
            rc = seccomp_rule_add(filter, action, SCMP_SYS(clone), 1,
                                  SCMP_CMP(clone_flags_argument, SCMP_CMP_MASKED_EQ, flag, flag));
        }
    }
    if (rc == 0) {
        /* its flags lie in memory; the C library then starts threads by clone() */
        rc = seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0);
    }
    return rc;
}

int load_filter()
{
    const char *mode = std::getenv("TIRVAL_SECCOMP");
    const bool kill = mode != nullptr && std::strcmp(mode, "kill") == 0;
    const std::uint32_t action = kill ? SCMP_ACT_KILL_PROCESS : SCMP_ACT_ERRNO(EPERM);
    const std::unique_ptr<filter_t, filter_deleter_t> filter{seccomp_init(SCMP_ACT_ALLOW)};
    if (filter == nullptr) {
        return -ENOMEM;
    }
    seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2); /* only speed depends on it */
    int rc = deny_by_name(filter.get(), action);
    if (rc == 0) {
        rc = deny_by_argument(filter.get(), action);
    }
    return rc != 0 ? rc : seccomp_load(filter.get());
}

} // namespace

bool enter_sandbox()
{
    const int rc = load_filter();
    if (rc != 0) {
        log_warning("the session runs without a system call filter: %s", std::strerror(-rc));
    }
    return rc == 0;
}

} // namespace tirval::server
