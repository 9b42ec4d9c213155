#include "server_program.h"

#include "privileges.h"

#include <crypt.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace tirval::tests {

namespace {

constexpr std::chrono::seconds patience{20};

std::string read_text(const std::string &file)
{
    const std::ifstream stream{file, std::ios::binary};
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

/* Throws when `done` does not come true. */
void wait_until(const std::function<bool()> &done, const std::string &what)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("waited in vain: " + what);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    }
}

pid_t spawn(std::vector<std::string> words, const std::string &error_file)
{
    setenv("TIRVAL_SECCOMP", "kill", 1); /* a call that the sandbox denies must not go unseen */
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, error_file.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot run " + words[0]);
    }
    return pid;
}

int status_of(int wait_status)
{
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
}

/* The number that follows `prefix` in the text. */
long number_after(const std::string &text, const std::string &prefix)
{
    const auto at = text.find(prefix);
    long number = -1;
    if (at != std::string::npos) {
        std::from_chars(text.data() + at + prefix.size(), text.data() + text.size(), number);
    }
    return number;
}

} // namespace

std::string served_local_user()
{
    return getuid() == 0 ? "daemon" : server::find_account(getuid())->name;
}

server_folder_t::server_folder_t()
{
    chmod(dir_.path().c_str(), 0711); /* sessions of another user reach the credential */
    dir_.write("server.toml", "[server]\nlisten = [\"127.0.0.1:0\"]\n"
                              "[auth]\nusers_file = \"" +
                                  (dir_ / "users").string() +
                                  "\"\n[storage.onedrive]\ngraph_url = \"http://127.0.0.1:1\"\n"
                                  "credential = \"" +
                                  (dir_ / "credential.json").string() + "\"\n");
    const auto file =
        dir_.write("credential.json", R"({"access_token": "token", "sub": "subject",)"
                                      R"( "token_expiry": "2099-01-01T00:00:00.000000+00:00"})");
    const auto account = server::find_account(served_local_user());
    if (chown(file.c_str(), account->uid, static_cast<gid_t>(-1)) != 0) {
        throw std::runtime_error("the credential cannot be given to " + account->name);
    }
    write_users({"anna"});
}

void server_folder_t::write_users(const std::vector<std::string> &names) const
{
    crypt_data room{};
    const std::string hash = crypt_r("secret", "$5$rounds=1000$salt", &room);
    std::string text;
    for (const std::string &name : names) {
        text += name + ":" + hash + ":" + served_local_user() + "\n";
    }
    dir_.write("users", text);
}

program_end_t run_server(const std::string &program, const server_folder_t &folder,
                         const std::vector<std::string> &arguments)
{
    const std::string error_file = folder.dir() / "stderr";
    std::filesystem::remove(error_file);
    std::vector<std::string> words{program, "--config", folder.config_file()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const pid_t pid = spawn(words, error_file);
    int status = 0;
    waitpid(pid, &status, 0);
    return {status_of(status), read_text(error_file)};
}

server_program_t::server_program_t(const std::string &program, const server_folder_t &folder,
                                   std::vector<std::string> settings, const std::string &log_file)
    : log_file_(log_file.empty() ? (folder.dir() / "log").string() : log_file)
{
    std::filesystem::remove(log_file_);
    if (!log_file.empty()) {
        settings.push_back("log.file=" + log_file);
    }
    std::vector<std::string> words{program, "--config", folder.config_file()};
    for (const std::string &setting : settings) {
        words.insert(words.end(), {"--set", setting});
    }
    pid_ = spawn(words, log_file.empty() ? log_file_ : (folder.dir() / "stderr").string());
    wait_for_log("listening on ");
    const std::string text = log();
    const auto line = text.find("listening on ");
    const auto colon = text.rfind(':', text.find_first_of("\n\"", line));
    port_ = static_cast<std::uint16_t>(number_after(text.substr(colon), ":"));
}

server_program_t::~server_program_t()
{
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        try {
            wait();
        } catch (const std::exception &) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
}

void server_program_t::signal(int number) const
{
    kill(pid_, number);
}

int server_program_t::wait()
{
    int status = 0;
    wait_until([&] { return waitpid(pid_, &status, WNOHANG) != 0; }, "the server's end");
    pid_ = -1;
    return status_of(status);
}

ftp_client_t server_program_t::connect() const
{
    return ftp_client_t{ftp_client_t::connect_data(port_)};
}

ftp_client_t server_program_t::log_in(const std::string &user) const
{
    ftp_client_t client = connect();
    if (client.read_reply().code != 220 || client.code_of("USER " + user) != 331 ||
        client.code_of("PASS secret") != 230) {
        throw std::runtime_error("no log-in for " + user + ":\n" + log());
    }
    return client;
}

std::string server_program_t::log() const
{
    return read_text(log_file_);
}

void server_program_t::wait_for_log(const std::string &text) const
{
    const auto is_there = [&] {
        const std::string whole = log();
        const auto at = whole.find(text);
        return at != std::string::npos && whole.find('\n', at) != std::string::npos;
    };
    try {
        wait_until(is_there, "\"" + text + "\" in the log");
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(std::string{error.what()} + ":\n" + log());
    }
}

pid_t server_program_t::session_process(int session) const
{
    const std::string prefix = "session " + std::to_string(session) + ": process ";
    wait_for_log(prefix);
    return static_cast<pid_t>(number_after(log(), prefix));
}

std::string process_status(pid_t pid, const std::string &key)
{
    std::ifstream status{"/proc/" + std::to_string(pid) + "/status"};
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":\t")) {
            return line.substr(key.size() + 2);
        }
    }
    return {};
}

} // namespace tirval::tests
