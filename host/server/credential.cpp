/*
 * The credential file and its renewal.
 */
#include "credential.h"

#include "config.h"
#include "log.h"
#include "unique_fd.h"

#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <jansson.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

namespace tirval::server {

namespace {

constexpr off_t max_file_size = 64 << 10;
constexpr std::size_t max_sub_size = 128;
constexpr std::int64_t renewal_margin = 300; /* seconds of life below which a token is renewed */
constexpr std::int64_t least_life = 99;      /* seconds below which the storage would ask again */
constexpr std::intptr_t request_idle_ms = 30'000;
constexpr int lock_wait_ms = 60'000;
constexpr int lock_poll_ms = 50;

constexpr const char *sign_in_again =
    "Your access to the storage service has ended: sign in again.";
constexpr const char *no_access =
    "There is no usable credential for the storage service: sign in first.";
constexpr const char *renewal_failed =
    "Your access to the storage service could not be renewed: try again later.";

struct json_deleter_t {
    void operator()(json_t *json) const { json_decref(json); }
};
using json_ptr_t = std::unique_ptr<json_t, json_deleter_t>;

struct text_deleter_t {
    void operator()(char *text) const
    {
        OPENSSL_cleanse(text, std::strlen(text));
        std::free(text);
    }
};
using text_ptr_t = std::unique_ptr<char, text_deleter_t>;

/* ---- The file ------------------------------------------------------------------------------ */

/* A credential as it stands in the file. */
struct credential_t {
    json_ptr_t json;
    std::string access_token;
    std::string sub;
    std::optional<std::string> tid;
    std::time_t expiry = 0;

    std::int64_t life() const { return static_cast<std::int64_t>(expiry - std::time(nullptr)); }
    std::string identity() const { return sub + '\n' + tid.value_or(""); }
};

[[noreturn]] void refuse(const std::filesystem::path &path, const std::string &reason,
                         const char *client_text = no_access)
{
    throw credential_error_t(path.string() + ": " + reason, client_text);
}

[[noreturn]] void refuse_errno(const std::filesystem::path &path, const char *what,
                               const char *client_text = no_access)
{
    refuse(path, std::string{what} + ": " + std::strerror(errno), client_text);
}

unique_fd_t open_checked(const std::filesystem::path &path, uid_t owner)
{
    unique_fd_t fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)};
    struct stat status {};
    if (!fd && errno == ELOOP) {
        refuse(path, "is a link, not a plain file");
    }
    if (!fd || ::fstat(fd.get(), &status) != 0) {
        refuse_errno(path, "cannot be opened");
    }
    if (!S_ISREG(status.st_mode)) {
        refuse(path, "is not a plain file");
    }
    if (status.st_uid != owner) {
        refuse(path, "belongs to another user");
    }
    if ((status.st_mode & 077) != 0) {
        refuse(path, "group or others may read or write it; make it mode 0600");
    }
    if (status.st_size > max_file_size) {
        refuse(path, "is larger than 64 KiB");
    }
    return fd;
}

std::string read_all(int fd, const std::filesystem::path &path)
{
    std::string text(static_cast<std::size_t>(max_file_size) + 1, '\0');
    std::size_t size = 0;
    while (size < text.size()) {
        const ssize_t got = ::read(fd, text.data() + size, text.size() - size);
        if (got < 0) {
            refuse_errno(path, "cannot be read");
        }
        if (got == 0) {
            text.resize(size);
            return text;
        }
        size += static_cast<std::size_t>(got);
    }
    refuse(path, "is larger than 64 KiB");
}

/* A member that must be a text. */
std::string text_member(const json_t *json, const char *key, const std::filesystem::path &path)
{
    const json_t *member = json_object_get(json, key);
    if (member == nullptr) {
        refuse(path, std::string{"\""} + key + "\" is missing");
    }
    if (!json_is_string(member) || json_string_length(member) == 0) {
        refuse(path, std::string{"\""} + key + "\" is not a text");
    }
    return json_string_value(member);
}

/* The same, or an empty text when it is not there. */
std::string optional_member(const json_t *json, const char *key)
{
    const char *value = json_string_value(json_object_get(json, key));
    return value == nullptr ? "" : value;
}

bool has_control(std::string_view text)
{
    return std::ranges::any_of(
        text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

/* The storage makes a file name of it, and expands variables in that. */
bool is_safe_sub(const std::string &sub)
{
    return !sub.empty() && sub.size() <= max_sub_size && sub != "." && sub != ".." &&
           sub.find_first_of("/$") == std::string::npos && !has_control(sub);
}

/* YYYY-MM-DDTHH:MM:SS.ffffff+HH:MM */
std::optional<std::time_t> parse_expiry(const std::string &text)
{
    constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.dddddd+dd:dd";
    const auto fits = [](char c, char pattern) {
        return pattern == 'd' ? c >= '0' && c <= '9' : c == pattern || (pattern == '+' && c == '-');
    };
    if (text.size() != shape.size() || !std::ranges::equal(text, shape, fits)) {
        return std::nullopt;
    }
    std::tm utc{};
    const auto number = [&](std::size_t at, std::size_t digits) {
        return std::stoi(text.substr(at, digits));
    };
    const int offset = (number(27, 2) * 60 + number(30, 2)) * (text[26] == '-' ? -1 : 1);
    utc.tm_year = number(0, 4) - 1900;
    utc.tm_mon = number(5, 2) - 1;
    utc.tm_mday = number(8, 2);
    utc.tm_hour = number(11, 2);
    utc.tm_min = number(14, 2) - offset;
    utc.tm_sec = number(17, 2);
    return timegm(&utc);
}

std::string format_expiry(std::time_t expiry)
{
    std::tm utc{};
    gmtime_r(&expiry, &utc);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000000+00:00", &utc);
    return text;
}

credential_t parse_credential(const std::string &text, const std::filesystem::path &path)
{
    credential_t credential;
    json_error_t error;
    credential.json.reset(json_loadb(text.data(), text.size(), 0, &error));
    if (credential.json == nullptr) {
        /* jansson's text may quote a piece of the file */
        refuse(path, "is not JSON (line " + std::to_string(error.line) + ")");
    }
    if (!json_is_object(credential.json.get())) {
        refuse(path, "is not a JSON object");
    }
    const json_t *json = credential.json.get();
    credential.access_token = text_member(json, "access_token", path);
    credential.sub = text_member(json, "sub", path);
    const json_t *tid = json_object_get(json, "tid");
    if (tid != nullptr && !json_is_null(tid)) {
        credential.tid = text_member(json, "tid", path);
    }
    const auto expiry = parse_expiry(text_member(json, "token_expiry", path));
    if (!expiry) {
        refuse(path, "\"token_expiry\" is not of the form YYYY-MM-DDTHH:MM:SS.ffffff+00:00");
    }
    credential.expiry = *expiry;
    if (!is_safe_sub(credential.sub)) {
        refuse(path,
               "\"sub\" cannot serve as a name (too long, or \"/\", \"$\" or the like in it)");
    }
    if (has_control(credential.access_token)) {
        refuse(path, "\"access_token\" holds control characters");
    }
    return credential;
}

credential_t load_credential(const std::filesystem::path &path, uid_t owner)
{
    const unique_fd_t fd = open_checked(path, owner);
    std::string text = read_all(fd.get(), path);
    credential_t credential = parse_credential(text, path);
    OPENSSL_cleanse(text.data(), text.size());
    return credential;
}

/* ---- Locking and replacing the file -------------------------------------------------------- */

std::filesystem::path beside(const std::filesystem::path &path, const char *suffix)
{
    return path.string() + suffix;
}

/* Locks PATH.lock until the descriptor is closed; waits for another session's renewal. */
unique_fd_t lock_credential(const std::filesystem::path &path)
{
    const std::filesystem::path lock_path = beside(path, ".lock");
    unique_fd_t fd{::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)};
    if (!fd) {
        refuse_errno(lock_path, "cannot be opened", renewal_failed);
    }
    for (int waited = 0;; waited += lock_poll_ms) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (fcntl(fd.get(), F_OFD_SETLK, &whole) == 0) {
            return fd;
        }
        if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
            refuse_errno(lock_path, "cannot be locked", renewal_failed);
        }
        if (waited >= lock_wait_ms) {
            refuse(lock_path, "is held by another process", renewal_failed);
        }
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            refuse(lock_path, "the wait for it was cancelled", renewal_failed);
        }
        const timespec pause{0, lock_poll_ms * 1'000'000L};
        nanosleep(&pause, nullptr);
    }
}

/*
 * The file that replaces the credential.  It is made, with room for the content, before the token
 * endpoint is asked: a refresh token that the service has changed must find its place on disk.
 */
class replacement_t {
  public:
    explicit replacement_t(const std::filesystem::path &path)
        : path_(path), new_path_(beside(path, ".new"))
    {
        ::unlink(new_path_.c_str()); /* of a process that was killed; we hold the lock */
        fd_.reset(
            ::open(new_path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd_) {
            refuse_errno(new_path_, "cannot be made", renewal_failed);
        }
        const int rc = posix_fallocate(fd_.get(), 0, max_file_size);
        if (rc != 0 && rc != EOPNOTSUPP && rc != EINVAL) {
            errno = rc;
            ::unlink(new_path_.c_str());
            refuse_errno(new_path_, "has no room", renewal_failed);
        }
    }
    replacement_t(const replacement_t &) = delete;
    replacement_t &operator=(const replacement_t &) = delete;
    ~replacement_t()
    {
        if (fd_) {
            ::unlink(new_path_.c_str());
        }
    }

    /* Puts `text` in the credential's place, safe against a crash.  False with errno when that
     * failed; the old file is then as it was. */
    bool commit(std::string_view text)
    {
        if (!write_all(text) || ::ftruncate(fd_.get(), static_cast<off_t>(text.size())) != 0 ||
            ::fsync(fd_.get()) != 0 || ::rename(new_path_.c_str(), path_.c_str()) != 0) {
            return false;
        }
        fd_.reset();
        const unique_fd_t folder{
            ::open(path_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        return !folder || ::fsync(folder.get()) == 0;
    }

  private:
    bool write_all(std::string_view text)
    {
        while (!text.empty()) {
            const ssize_t written = ::write(fd_.get(), text.data(), text.size());
            if (written < 0 && errno != EINTR) {
                return false;
            }
            text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
        }
        return true;
    }

    std::filesystem::path path_;
    std::filesystem::path new_path_;
    unique_fd_t fd_;
};

/* ---- The token endpoint -------------------------------------------------------------------- */

std::string form_encoded(std::string_view text)
{
    std::unique_ptr<char, decltype(&curl_free)> encoded{
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), &curl_free};
    return encoded == nullptr ? std::string{} : std::string{encoded.get()};
}

/* RFC 6749, section 6. */
std::string renewal_form(const json_t *json)
{
    std::string form = "grant_type=refresh_token";
    for (const char *key : {"client_id", "refresh_token", "scope"}) {
        const std::string value = optional_member(json, key);
        if (!value.empty()) {
            form += std::string{"&"} + key + "=" + form_encoded(value);
        }
    }
    return form;
}

/* What a failed request says, for the log: it holds no secrets, since the library keeps them out.
 */
std::string request_error(tirval_result_t result)
{
    tirval_object_t *error = tirval_error_get(result);
    const text_ptr_t text{tirval_error_print_chain(error)};
    tirval_object_free(error);
    std::string line = text == nullptr ? "unknown error" : text.get();
    while (line.ends_with('\n')) {
        line.pop_back();
    }
    for (auto end = line.find('\n'); end != std::string::npos; end = line.find('\n', end)) {
        line.replace(end, 1, ": ");
    }
    return line;
}

struct token_answer_t {
    int status = 0;
    json_ptr_t json; /* null: none could be read */
};

/* Throws credential_error_t when there is no answer. */
token_answer_t ask_token_endpoint(const std::string &endpoint, const std::string &form)
{
    tirval_dsi_rest_key_value_t header{"Content-Type", "application/x-www-form-urlencoded"};
    const tirval_dsi_rest_key_array_t headers{1, &header};
    tirval_dsi_rest_write_block_arg_t body{form.data(), form.size()};
    tirval_dsi_rest_response_arg_t response{0, {0, nullptr}};
    json_t *json = nullptr;
    tirval_dsi_rest_callbacks_t callbacks{};
    callbacks.data_write_callback = tirval_dsi_rest_write_block;
    callbacks.data_write_callback_arg = &body;
    callbacks.data_read_callback = tirval_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &json;
    callbacks.response_callback = tirval_dsi_rest_response;
    callbacks.response_callback_arg = &response;
    callbacks.progress_callback = tirval_dsi_rest_progress_idle_timeout;
    callbacks.progress_callback_arg = reinterpret_cast<void *>(request_idle_ms);
    const tirval_result_t result =
        tirval_dsi_rest_request("POST", endpoint.c_str(), nullptr, &headers, &callbacks);
    token_answer_t answer{response.response_code, json_ptr_t{json}};
    if (result != TIRVAL_SUCCESS) {
        throw credential_error_t("the token endpoint gave no answer: " + request_error(result),
                                 renewal_failed);
    }
    return answer;
}

[[noreturn]] void refuse_answer(const token_answer_t &answer)
{
    const std::string code = optional_member(answer.json.get(), "error");
    const bool grant_ended =
        code == "invalid_grant" || code == "interaction_required" || code == "consent_required";
    throw credential_error_t("the token endpoint refused the renewal with status " +
                                 std::to_string(answer.status) +
                                 (code.empty() ? "" : " (" + clean_text(code) + ")"),
                             grant_ended ? sign_in_again : renewal_failed);
}

/* Changes a copy of `old` by what the endpoint answered.  "sub" and "tid" stay. */
json_ptr_t renewed_json(const json_t *old, const token_answer_t &answer, std::time_t asked_at)
{
    const std::string access_token = optional_member(answer.json.get(), "access_token");
    const std::string refresh_token = optional_member(answer.json.get(), "refresh_token");
    const json_t *expires_in = json_object_get(answer.json.get(), "expires_in");
    auto life = static_cast<std::int64_t>(json_number_value(expires_in));
    if (json_is_string(expires_in)) {
        life = std::strtoll(json_string_value(expires_in), nullptr, 10);
    }
    if (access_token.empty() || has_control(access_token) || life <= 0 || life > 366 * 86'400) {
        throw credential_error_t("the token endpoint's answer holds no usable token",
                                 renewal_failed);
    }
    json_ptr_t json{json_deep_copy(old)};
    json_object_set_new(json.get(), "access_token", json_string(access_token.c_str()));
    json_object_set_new(json.get(), "token_expiry",
                        json_string(format_expiry(asked_at + life).c_str()));
    if (!refresh_token.empty()) {
        json_object_set_new(json.get(), "refresh_token", json_string(refresh_token.c_str()));
    }
    return json;
}

void check_renewable(const json_t *json, const std::filesystem::path &path)
{
    for (const char *key : {"refresh_token", "client_id", "token_endpoint"}) {
        if (optional_member(json, key).empty()) {
            refuse(path, std::string{"cannot be renewed: \""} + key + "\" is missing",
                   sign_in_again);
        }
    }
    const std::string reason = url_problem(optional_member(json, "token_endpoint"));
    if (!reason.empty()) {
        refuse(path, "\"token_endpoint\": " + reason, sign_in_again);
    }
}

/* The credential after a renewal by this session, or by another one since `seen` was read. */
credential_t renew_credential(const std::filesystem::path &path, uid_t owner,
                              const credential_t &seen)
{
    const unique_fd_t lock = lock_credential(path);
    credential_t credential = load_credential(path, owner);
    const bool changed = credential.access_token != seen.access_token;
    if (credential.life() >= renewal_margin || (changed && credential.life() > least_life)) {
        return credential;
    }
    const json_t *old = credential.json.get();
    check_renewable(old, path);
    replacement_t replacement{path};
    const std::time_t asked_at = std::time(nullptr);
    std::string form = renewal_form(old);
    const token_answer_t answer = ask_token_endpoint(optional_member(old, "token_endpoint"), form);
    OPENSSL_cleanse(form.data(), form.size());
    if (answer.status != 200) {
        refuse_answer(answer);
    }
    const json_ptr_t json = renewed_json(old, answer, asked_at);
    const text_ptr_t text{json_dumps(json.get(), JSON_INDENT(2))};
    if (text == nullptr || !replacement.commit(text.get())) {
        log_error("%s: the renewed credential could not be saved: %s", path.c_str(),
                  std::strerror(errno));
    }
    log_info("the credential for the storage service was renewed");
    return parse_credential(text == nullptr ? "" : text.get(), path);
}

/* ---- What the storage gets ----------------------------------------------------------------- */

std::string storage_json(const credential_t &credential)
{
    const json_ptr_t json{json_object()};
    json_object_set_new(json.get(), "access_token", json_string(credential.access_token.c_str()));
    json_object_set_new(json.get(), "token_expiry",
                        json_string(format_expiry(credential.expiry).c_str()));
    json_object_set_new(json.get(), "sub", json_string(credential.sub.c_str()));
    if (credential.tid) {
        json_object_set_new(json.get(), "tid", json_string(credential.tid->c_str()));
    }
    const text_ptr_t text{json_dumps(json.get(), 0)};
    return text == nullptr ? "" : text.get();
}

std::filesystem::path expand(const std::string &path_template, const account_t &account)
{
    std::string path = path_template;
    const auto replace = [&](std::string_view variable, const std::string &value) {
        for (auto at = path.find(variable); at != std::string::npos;
             at = path.find(variable, at + value.size())) {
            path.replace(at, variable.size(), value);
        }
    };
    if (account.home.empty() && path.find("$HOME") != std::string::npos) {
        throw credential_error_t("the local user " + account.name + " has no home", no_access);
    }
    replace("$LOGNAME", account.name);
    replace("$HOME", account.home);
    return path;
}

account_t own_account()
{
    const auto account = find_account(getuid());
    if (!account) {
        throw credential_error_t(
            "the user database has no user with the number " + std::to_string(getuid()), no_access);
    }
    return *account;
}

} // namespace

credential_source_t::credential_source_t(const std::string &path_template)
    : credential_source_t(path_template, own_account())
{
}

credential_source_t::credential_source_t(const std::string &path_template, const account_t &account)
    : path_(expand(path_template, account)), owner_(account.uid)
{
}

std::string credential_source_t::fetch()
{
    credential_t credential = load_credential(path_, owner_);
    if (credential.life() < renewal_margin) {
        try {
            credential = renew_credential(path_, owner_, credential);
        } catch (const credential_error_t &error) {
            if (credential.life() <= least_life) {
                throw;
            }
            log_warning("the credential could not be renewed, and ends in %lld seconds: %s",
                        static_cast<long long>(credential.life()), error.what());
        }
    }
    if (identity_.value_or(credential.identity()) != credential.identity()) {
        refuse(path_, "has come to belong to another account",
               "The credential now belongs to another account: log in again.");
    }
    identity_ = credential.identity();
    sub_ = credential.sub;
    return storage_json(credential);
}

} // namespace tirval::server
