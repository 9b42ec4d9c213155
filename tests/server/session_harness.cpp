#include "session_harness.h"

#include "privileges.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <crypt.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace tirval::tests {
namespace {

using server::socket_address_t;
using server::unique_fd_t;

/* A connected pair of TCP sockets on the loopback interface. */
std::pair<unique_fd_t, unique_fd_t> connected_pair(bool ipv6, bool mapped_ipv4)
{
    const int server_family = ipv6 || mapped_ipv4 ? AF_INET6 : AF_INET;
    const int client_family = ipv6 ? AF_INET6 : AF_INET;
    const char *host = mapped_ipv4 ? "::" : ipv6 ? "::1" : "127.0.0.1";
    const auto any = socket_address_t::parse(server_family, host, 0);
    const unique_fd_t listener(socket(server_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    unique_fd_t client(socket(client_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener.get(), any->data(), any->size()) != 0 || listen(listener.get(), 1) != 0) {
        throw std::runtime_error("cannot listen");
    }
    const std::uint16_t port = socket_address_t::local_of(listener.get()).port();
    const auto target = *socket_address_t::parse(client_family, ipv6 ? "::1" : "127.0.0.1", port);
    if (connect(client.get(), target.data(), target.size()) != 0) {
        throw std::runtime_error("cannot connect");
    }
    unique_fd_t accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    return {std::move(client), std::move(accepted)};
}

std::pair<unique_fd_t, unique_fd_t> make_pipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return {unique_fd_t(ends[0]), unique_fd_t(ends[1])};
}

std::string cheap_hash(const char *password)
{
    crypt_data room{};
    return crypt_r(password, "$5$rounds=1000$abcdefgh$", &room);
}

} // namespace

running_session_t::running_session_t(pid_t process, unique_fd_t control, unique_fd_t login_report,
                                     unique_fd_t master_alive)
    : client(std::move(control)), process_(process), login_report_(std::move(login_report)),
      master_alive_(std::move(master_alive))
{
}

running_session_t::~running_session_t()
{
    client.close_connection();
    if (process_ > 0 && wait() < 0 && process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

std::string running_session_t::login_report()
{
    std::string text;
    char byte = 0;
    for (;;) {
        wait_readable(login_report_.get());
        if (read(login_report_.get(), &byte, 1) != 1) {
            return text;
        }
        text += byte;
    }
}

void running_session_t::signal(int number) const
{
    kill(process_, number);
}

int running_session_t::wait()
{
    for (int n = 0; n < 1500; ++n) {
        int status = 0;
        const pid_t ended = waitpid(process_, &status, WNOHANG);
        if (ended == process_) {
            process_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(10'000);
    }
    return -1;
}

server::account_t test_account()
{
    if (getuid() == 0) {
        return server::find_account(std::string("games")).value();
    }
    return server::find_account(getuid()).value();
}

session_harness_t::session_harness_t()
{
    const std::string local_user = test_account().name;
    users = server::users_t({{"anna", {cheap_hash("secret"), local_user}},
                             {"bob", {cheap_hash("hidden"), local_user}},
                             {"eve", {cheap_hash("secret"), "no-such-local-user"}}});
    config.server.passive_ports.reset();
    config.server.data_timeout = std::chrono::seconds(5);
    config.storage.onedrive.policy = "";
}

std::unique_ptr<running_session_t> session_harness_t::start(std::uint64_t id)
{
    auto [client, control] = connected_pair(ipv6, mapped_ipv4);
    auto [report_read, report_write] = make_pipe();
    auto [alive_read, alive_write] = make_pipe();
    std::fflush(nullptr);
    const pid_t process = fork();
    if (process < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (process == 0) {
        client.reset();
        report_read.reset();
        alive_write.reset();
        std::signal(SIGPIPE, SIG_IGN);
        const std::string host = socket_address_t::peer_of(control.get()).host();
        server::session_context_t context{config,
                                          users,
                                          changes,
                                          &fake_storage_interface(),
                                          id,
                                          host,
                                          std::move(control),
                                          std::move(report_write),
                                          std::move(alive_read)};
        server::lower_privileges();
        server::leave_process(server::run_session(std::move(context)));
    }
    return std::make_unique<running_session_t>(process, std::move(client), std::move(report_read),
                                               std::move(alive_write));
}

std::unique_ptr<running_session_t> session_harness_t::start_logged_in(std::uint64_t id)
{
    auto session = start(id);
    session->client.log_in();
    return session;
}

} // namespace tirval::tests
