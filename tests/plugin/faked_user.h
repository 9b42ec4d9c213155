/* A user database of the test program's own: its getpwuid_r() stands in front of the system's, so
 * that "$HOME" leads to a temporary folder.  To be included by one source of a program. */
#ifndef TIRVAL_TESTS_FAKED_USER_H
#define TIRVAL_TESTS_FAKED_USER_H

#include "tirval_common.h"

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <string>
#include <vector>

/* The one entry, and what was asked for. */
struct faked_user {
    const char *name = "u"; /* null: absent */
    std::string home = "/home/u";
    bool has_home = true;
    bool known = true;     /* false: the database has no entry */
    size_t entry_size = 0; /* bytes of buffer that the entry takes */
    int failure = 0;       /* what every look-up fails with; 0: nothing */
    std::vector<uid_t> asked;
    std::vector<size_t> buffers;
};

inline faked_user user;

extern "C" TIRVAL_API int getpwuid_r(uid_t uid, passwd *entry, char * /*buffer*/, size_t size,
                                     passwd **found)
{
    user.asked.push_back(uid);
    user.buffers.push_back(size);
    *found = nullptr;
    errno = size < user.entry_size ? ERANGE : user.failure;
    if (errno == 0 && user.known) {
        entry->pw_name = const_cast<char *>(user.name);
        entry->pw_dir = user.has_home ? user.home.data() : nullptr;
        *found = entry;
    }
    return errno;
}

#endif
