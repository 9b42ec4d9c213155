/*
 * The conditions are those under which the storage maps the file.
 */
#include "pacing.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tirval::server {
namespace {

/* The last request's time, and what is reserved beside it. */
constexpr off_t retry_file_bytes = 24;

std::string file_problem(const std::string &path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK | W_OK) != 0) {
        return std::strerror(errno);
    }
    if (status.st_uid != geteuid()) {
        return "it belongs to another user";
    }
    return status.st_size == retry_file_bytes ? "" : "it has not the size that it should have";
}

} // namespace

std::string pacing_problem(const account_t &account, const std::string &sub)
{
    if (account.home.empty()) {
        return "the user has no home";
    }
    const std::string path = account.home + "/.tirval/onedrive-r/" + sub;
    const std::string problem = file_problem(path);
    return problem.empty() ? "" : path + ": " + problem;
}

} // namespace tirval::server
