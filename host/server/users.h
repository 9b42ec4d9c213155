/*
 * Who may log in: the users file, one user a line as "name:hash[:local user]".  The hash is what
 * crypt(3) makes, or begins with "!" or "*" for a user who is locked out; an absent local user is
 * the name itself.  Blank lines and lines that begin with "#" are skipped.
 */
#ifndef TIRVAL_SERVER_USERS_H
#define TIRVAL_SERVER_USERS_H

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

struct user_t {
    std::string hash;
    std::string local_user;
};

/* The users; constant once loaded. */
class users_t {
  public:
    users_t() = default;
    explicit users_t(std::map<std::string, user_t, std::less<>> users);

    /*
     * Checks a password.  Returns the local user that `name` is mapped to, or nothing when the name
     * is unknown or the password wrong or empty.  Both refusals cost the same computation, so that
     * their time does not tell which it was.  Blocks for the time of one hash (tens of
     * milliseconds and more).  Any thread.
     */
    std::optional<std::string> authenticate(std::string_view name,
                                            const std::string &password) const;

    std::size_t size() const { return users_.size(); }

  private:
    std::map<std::string, user_t, std::less<>> users_;
    std::vector<std::string> decoys_; /* what an unknown name's password is hashed with */
};

/* Users and what is wrong with their file: "FILE:LINE: REASON" or "FILE: REASON", one each.  With
 * problems the users must not be used. */
struct users_result_t {
    users_t users;
    std::vector<std::string> problems;
};

/*
 * Reads a users file.  Refused: a file that is no plain file, that group or others may read or
 * write, or that belongs to neither root nor the server's own user; malformed lines, duplicate
 * names, hashes of a kind that crypt(3) does not know, and local users that do not exist or that
 * this server may not serve (see account_problem() in privileges.h).
 */
users_result_t load_users(const std::filesystem::path &file);

} // namespace tirval::server

#endif
