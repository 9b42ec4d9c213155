/*
 * The users file and the check of passwords.
 */
#include "users.h"

#include "privileges.h"
#include "unique_fd.h"
#include "utf8.h"

#include <crypt.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

namespace tirval::server {

namespace {

constexpr off_t max_file_size = 16 << 20;

/* Room for crypt_r(), wiped when it goes. */
class crypt_room_t {
  public:
    crypt_room_t() : data_(std::make_unique<crypt_data>()) {}
    crypt_room_t(const crypt_room_t &) = delete;
    crypt_room_t &operator=(const crypt_room_t &) = delete;
    ~crypt_room_t() { OPENSSL_cleanse(data_.get(), sizeof *data_); }

    crypt_data *get() { return data_.get(); }

  private:
    std::unique_ptr<crypt_data> data_;
};

/* A hash that begins so never matches: the user is locked out. */
bool is_locked(const std::string &hash)
{
    return hash.starts_with('!') || hash.starts_with('*');
}

bool hash_matches(const std::string &password, const std::string &hash)
{
    crypt_room_t room;
    const char *made = crypt_r(password.c_str(), hash.c_str(), room.get());
    if (made == nullptr || is_locked(made)) {
        return false;
    }
    const std::size_t length = std::strlen(made);
    return length == hash.size() && CRYPTO_memcmp(made, hash.data(), length) == 0;
}

std::string fresh_setting()
{
    crypt_room_t room;
    const char *setting = crypt_gensalt_rn("$y$", 0, nullptr, 0, room.get()->output,
                                           static_cast<int>(sizeof room.get()->output));
    return setting == nullptr ? std::string{} : std::string{setting};
}

std::string hash_problem(const std::string &hash)
{
    if (is_locked(hash)) {
        return {};
    }
    if (!hash.starts_with('$')) {
        return "expected a password hash, as \"openssl passwd -6\" makes it";
    }
    const int state = crypt_checksalt(hash.c_str());
    if (state == CRYPT_SALT_INVALID || state == CRYPT_SALT_METHOD_DISABLED) {
        return "the password hash is of a kind that this system does not know";
    }
    return {};
}

std::string local_user_problem(const std::string &name)
{
    const auto account = find_account(name);
    return account ? account_problem(*account)
                   : "there is no local user \"" + name + "\" on this system";
}

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields;
    std::size_t begin = 0;
    for (auto end = line.find(':'); end != std::string::npos; end = line.find(':', begin)) {
        fields.push_back(line.substr(begin, end - begin));
        begin = end + 1;
    }
    fields.push_back(line.substr(begin));
    return fields;
}

using users_map_t = std::map<std::string, user_t, std::less<>>;

/* Takes one line; returns what is wrong with it. */
std::string read_line(const std::string &line, users_map_t &users)
{
    const auto is_control = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    };
    if (std::ranges::any_of(line, is_control)) {
        return "there is a control character in it";
    }
    const std::vector<std::string> fields = split(line);
    if (fields.size() < 2 || fields.size() > 3 || fields[0].empty() ||
        (fields.size() == 3 && fields[2].empty())) {
        return "expected name:hash or name:hash:local user";
    }
    if (users.contains(fields[0])) {
        return "the user \"" + fields[0] + "\" is there twice";
    }
    std::string reason = hash_problem(fields[1]);
    const std::string &local_user = fields.size() == 3 ? fields[2] : fields[0];
    if (reason.empty()) {
        reason = local_user_problem(local_user);
    }
    if (reason.empty()) {
        users.emplace(fields[0], user_t{fields[1], local_user});
    }
    return reason;
}

std::string status_problem(const struct stat &status)
{
    if (!S_ISREG(status.st_mode)) {
        return "is not a file";
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return "belongs to neither root nor the server's user";
    }
    if ((status.st_mode & 077) != 0) {
        return "group or others may read or write it; make it mode 0600";
    }
    if (status.st_size > max_file_size) {
        return "is too large";
    }
    return {};
}

bool read_all(int fd, std::string &text)
{
    char block[16384];
    ssize_t got = 0;
    while ((got = ::read(fd, block, sizeof block)) > 0) {
        text.append(block, static_cast<std::size_t>(got));
    }
    return got == 0;
}

/* Opens, checks and reads the file.  Returns what is wrong with it. */
std::string read_file(const std::filesystem::path &file, std::string &text)
{
    const unique_fd_t fd{::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0) {
        return std::string{"cannot be opened: "} + std::strerror(errno);
    }
    std::string reason = status_problem(status);
    if (reason.empty() && !read_all(fd.get(), text)) {
        reason = std::string{"cannot be read: "} + std::strerror(errno);
    }
    return reason;
}

} // namespace

users_t::users_t(std::map<std::string, user_t, std::less<>> users) : users_(std::move(users))
{
    for (const auto &[name, user] : users_) {
        if (!is_locked(user.hash)) {
            decoys_.push_back(user.hash);
        }
    }
    if (decoys_.empty()) {
        decoys_.push_back(fresh_setting());
    }
}

std::optional<std::string> users_t::authenticate(std::string_view name,
                                                 const std::string &password) const
{
    const auto found = users_.find(name);
    if (found == users_.end() || is_locked(found->second.hash) || password.empty()) {
        if (!decoys_.empty()) {
            hash_matches(password, decoys_[std::hash<std::string_view>{}(name) % decoys_.size()]);
        }
        return std::nullopt;
    }
    if (!hash_matches(password, found->second.hash)) {
        return std::nullopt;
    }
    return found->second.local_user;
}

users_result_t load_users(const std::filesystem::path &file)
{
    users_result_t result;
    std::string text;
    std::string reason = read_file(file, text);
    if (reason.empty() && !is_utf8(text)) {
        reason = "is not UTF-8";
    }
    if (!reason.empty()) {
        result.problems.push_back(file.string() + ": " + reason);
        return result;
    }
    users_map_t users;
    std::size_t number = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const auto end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        ++number;
        if (line.find_first_not_of(" \t") == std::string::npos || line.starts_with('#')) {
            continue;
        }
        reason = read_line(line, users);
        if (!reason.empty()) {
            result.problems.push_back(file.string() + ":" + std::to_string(number) + ": " + reason);
        }
    }
    result.users = users_t{std::move(users)};
    return result;
}

} // namespace tirval::server
