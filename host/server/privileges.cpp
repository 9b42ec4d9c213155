/*
 * The drop of privileges and the proof that it holds.
 */
#include "privileges.h"

#include "sandbox.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace tirval::server {

namespace {

/* Whom the kernel's manuals name for processes that own nothing; for systems without a "nobody". */
constexpr uid_t overflow_user = 65534;

[[noreturn]] void fail(const std::string &what)
{
    throw privileges_error_t(what + ": " + std::strerror(errno));
}

void require(int rc, const char *what)
{
    if (rc != 0) {
        fail(what);
    }
}

std::optional<account_t> look_up(const std::function<int(passwd *, char *, size_t, passwd **)> &get)
{
    std::vector<char> room(1024);
    passwd entry{};
    passwd *found = nullptr;
    int rc = 0;
    while ((rc = get(&entry, room.data(), room.size(), &found)) == ERANGE &&
           room.size() < 1 << 20) {
        room.resize(room.size() * 2);
    }
    if (rc != 0 || found == nullptr) {
        return std::nullopt;
    }
    account_t account{entry.pw_name, entry.pw_uid, entry.pw_gid, {}};
    if (entry.pw_dir != nullptr && entry.pw_dir[0] == '/') {
        account.home = entry.pw_dir;
    }
    return account;
}

using capabilities_t = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

/* glibc has no wrappers for these two.  Each returns 0 or -1 with errno. */
int set_capabilities(const capabilities_t &capabilities)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return static_cast<int>(syscall(SYS_capset, &header, capabilities.data()));
}

int get_capabilities(capabilities_t &capabilities)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return static_cast<int>(syscall(SYS_capget, &header, capabilities.data()));
}

capabilities_t just(unsigned first, unsigned second)
{
    capabilities_t capabilities{};
    capabilities[0].effective = capabilities[0].permitted = 1U << first | 1U << second;
    return capabilities;
}

/* What must be refused or empty from now on. */
void prove_drop(const account_t &account, gid_t gid)
{
    uid_t ruid = 0;
    uid_t euid = 0;
    uid_t suid = 0;
    gid_t rgid = 0;
    gid_t egid = 0;
    gid_t sgid = 0;
    require(getresuid(&ruid, &euid, &suid), "reading the user ids");
    require(getresgid(&rgid, &egid, &sgid), "reading the group ids");
    capabilities_t capabilities{};
    require(get_capabilities(capabilities), "reading the capabilities");
    bool holds = ruid == account.uid && euid == account.uid && suid == account.uid && rgid == gid &&
                 egid == gid && sgid == gid;
    for (const auto &word : capabilities) {
        holds = holds && word.effective == 0 && word.permitted == 0 && word.inheritable == 0;
    }
    const auto keep = static_cast<uid_t>(-1);
    const gid_t no_group = 0;
    holds = holds && setuid(0) != 0 && seteuid(0) != 0 && setresuid(0, keep, keep) != 0 &&
            (gid == 0 || setgid(0) != 0) && setgroups(1, &no_group) != 0 &&
            set_capabilities(just(CAP_SETUID, CAP_SETUID)) != 0;
    if (!holds) {
        throw privileges_error_t("the way back from " + account.name + "'s identity is open");
    }
}

} // namespace

std::optional<account_t> find_account(const std::string &name)
{
    return look_up([&](passwd *entry, char *room, size_t size, passwd **found) {
        return getpwnam_r(name.c_str(), entry, room, size, found);
    });
}

std::optional<account_t> find_account(uid_t uid)
{
    return look_up([&](passwd *entry, char *room, size_t size, passwd **found) {
        return getpwuid_r(uid, entry, room, size, found);
    });
}

std::string account_problem(const account_t &account)
{
    if (account.uid == 0) {
        return "the local user \"" + account.name + "\" is root, who is never served";
    }
    if (getuid() != 0 && account.uid != getuid()) {
        return "the local user \"" + account.name +
               "\" is not the one who started the server, and only root can serve others";
    }
    return {};
}

void lower_privileges()
{
    if (geteuid() != 0) {
        return;
    }
    const auto nobody = find_account(std::string{"nobody"});
    const uid_t uid = nobody ? nobody->uid : overflow_user;
    const gid_t gid = nobody ? nobody->gid : overflow_user;
    require(setgroups(0, nullptr), "leaving the groups");
    require(setresgid(gid, gid, gid), "changing the group");
    require(set_capabilities(just(CAP_SETUID, CAP_SETGID)), "giving up capabilities");
    /* the saved user id is the way to become_user(); the real one still tells account_problem()
     * that there is such a way */
    require(setresuid(static_cast<uid_t>(-1), uid, 0), "changing the user");
}

void become_user(const account_t &account, bool sandbox)
{
    gid_t gid = getgid(); /* an ordinary user's server keeps the group that it was started with */
    if (getuid() == 0) {
        gid = account.gid;
        require(seteuid(0), "returning to root");
        require(initgroups(account.name.c_str(), account.gid), "entering the user's groups");
        require(setresgid(account.gid, account.gid, account.gid), "changing the group");
        require(setresuid(account.uid, account.uid, account.uid), "changing the user");
    }
    require(set_capabilities({}), "giving up capabilities");
    require(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), "clearing capabilities");
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "giving up new privileges");
    require(prctl(PR_SET_DUMPABLE, 0, 0, 0, 0), "closing the process to debuggers");
    prove_drop(account, gid);
    if (sandbox) {
        enter_sandbox();
    }
}

void leave_process(int status)
{
#if defined(TIRVAL_ASAN) || defined(TIRVAL_COVERAGE) || defined(__SANITIZE_THREAD__)
    if (getuid() == 0 && geteuid() != 0) {
        /* the leak check traces this process, which needs one and the same identity throughout */
        const uid_t uid = geteuid();
        if (seteuid(0) != 0 || setresuid(uid, uid, uid) != 0) {
            std::_Exit(status);
        }
    }
    std::exit(status);
#else
    std::_Exit(status);
#endif
}

} // namespace tirval::server
