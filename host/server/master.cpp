/*
 * The master: accept loop, fork, and the care for the children.
 */
#include "master.h"

#include "change_ring.h"
#include "log.h"
#include "privileges.h"
#include "session.h"
#include "unique_fd.h"
#include "users.h"

#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace tirval::server {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

/* A session answers 421 itself at the log-in time-out; the master waits this much longer. */
constexpr std::chrono::seconds login_grace{2};
/* How long no connection is accepted after the system has run out of something. */
constexpr std::chrono::milliseconds accept_pause{200};
constexpr rlim_t spare_descriptors = 128;

#ifdef __SANITIZE_THREAD__
constexpr std::ptrdiff_t most_threads = 2; /* the sanitizer may have one of its own */
#else
constexpr std::ptrdiff_t most_threads = 1;
#endif

/* Why the server cannot start. */
class start_error_t : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct storage_deleter_t {
    void operator()(tirval_gfs_storage_t *storage) const { tirval_gfs_storage_unload(storage); }
};
using storage_ptr_t = std::unique_ptr<tirval_gfs_storage_t, storage_deleter_t>;

struct module_deactivator_t {
    void operator()(tirval_module_descriptor_t *module) const { tirval_module_deactivate(module); }
};
using active_module_t = std::unique_ptr<tirval_module_descriptor_t, module_deactivator_t>;

std::vector<std::filesystem::path> module_folders(const config_t &config)
{
    if (!config.storage.module_dir.empty()) {
        return {config.storage.module_dir};
    }
    std::vector<std::filesystem::path> folders;
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        folders.push_back(program.parent_path().parent_path() / "lib");
    }
    folders.emplace_back(TIRVAL_INSTALLED_LIBDIR);
    return folders;
}

/* The folder that holds the storage library.  Throws start_error_t. */
std::filesystem::path find_module_folder(const config_t &config)
{
    const std::string file = "libtirval_gridftp_server_" + config.storage.name + ".so";
    std::string searched;
    for (const auto &folder : module_folders(config)) {
        std::error_code error;
        if (std::filesystem::exists(folder / file, error)) {
            return folder;
        }
        searched += (searched.empty() ? "" : ", nor in ") + folder.string();
    }
    throw start_error_t("storage \"" + config.storage.name + "\": there is no " + file + " in " +
                        searched);
}

std::ptrdiff_t count_threads()
{
    std::error_code error;
    std::filesystem::directory_iterator tasks{"/proc/self/task", error};
    return error ? 0 : std::distance(begin(tasks), end(tasks));
}

std::string endpoint_text(const tcp::endpoint &endpoint)
{
    const std::string host = endpoint.address().to_string();
    const std::string port = std::to_string(endpoint.port());
    return endpoint.address().is_v6() ? "[" + host + "]:" + port : host + ":" + port;
}

/* Numeric, IPv4 also where it came in over an IPv6 socket. */
std::string client_text(const asio::ip::address &address)
{
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
    }
    return address.to_string();
}

/* Tells a client that it cannot be served now, without ever waiting for it. */
void refuse(tcp::socket socket, const std::string &text)
{
    const std::string line = "421 " + text + "\r\n";
    (void)::send(socket.native_handle(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
}

/* The system has run out of something; the connection still waits to be accepted. */
bool is_shortage(const error_code &error)
{
    return error == asio::error::no_descriptors || error == asio::error::no_memory ||
           error == asio::error::no_buffer_space ||
           error == boost::system::errc::too_many_files_open_in_system;
}

void make_pipe(unique_fd_t &read_end, unique_fd_t &write_end)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "a pipe");
    }
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
}

void allow_descriptors(rlim_t wanted)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/* A session's process, as the master sees it. */
struct child_t {
    child_t(asio::io_context &io, int report_fd) : report(io, report_fd), deadline(io) {}

    pid_t pid = -1;
    std::string client;
    std::string user; /* empty until it has logged in */
    asio::posix::stream_descriptor report;
    std::array<char, 256> buffer{};
    asio::steady_timer deadline;
    bool killed = false; /* by the master */
};

struct listener_t {
    explicit listener_t(asio::io_context &io) : acceptor(io), pause(io) {}

    tcp::acceptor acceptor;
    asio::steady_timer pause; /* until connections are accepted again */
};

class master_t {
  public:
    explicit master_t(const config_t &config);

    /* Throws start_error_t. */
    void start();
    /* Returns when all is over; in a session's process true. */
    bool run();
    /* Serves the client; in a session's process only. */
    int serve();

  private:
    using children_t = std::map<std::uint64_t, std::unique_ptr<child_t>>;

    void load_storage();
    void listen(const listen_address_t &address);
    void accept(listener_t &listener);
    void accepted(listener_t &listener, const error_code &error, tcp::socket socket);
    void start_session(tcp::socket socket);
    std::string refusal(const std::string &client) const;
    bool fork_session(tcp::socket &socket, const std::string &client);
    void become_session(tcp::socket &socket, const std::string &client, unique_fd_t report);
    void watch_child(pid_t pid, const std::string &client, unique_fd_t report);
    void read_report(std::uint64_t id);
    void watch_deadline(std::uint64_t id);
    void wait_signal();
    void handle_signal(int signal);
    void drain_report(child_t &child);
    void reap_children();
    void log_end(std::uint64_t id, const child_t &child, int status) const;
    void reload();
    void shut_down();
    void kill_children(int signal);

    const config_t &config_;
    users_t users_;
    change_ring_t changes_;
    active_module_t rest_;
    storage_ptr_t storage_;
    unique_fd_t alive_read_;
    unique_fd_t alive_write_;
    asio::io_context io_{1};
    asio::signal_set signals_{io_};
    asio::steady_timer shutdown_timer_{io_};
    std::vector<std::unique_ptr<listener_t>> listeners_;
    children_t children_;
    std::uint64_t last_id_ = 0;
    bool stopping_ = false;
    std::optional<session_context_t> session_; /* in a session's process */
};

/* ---- Start --------------------------------------------------------------------------------- */

master_t::master_t(const config_t &config) : config_(config) {}

void master_t::load_storage()
{
    const std::filesystem::path folder = find_module_folder(config_);
    /* the library reads it when it is activated */
    setenv("TIRVAL_ONEDRIVE_GRAPH_URL", config_.storage.onedrive.graph_url.c_str(), 1);
    if (tirval_module_activate(&tirval_i_dsi_rest_module) != 0) {
        throw start_error_t(
            "the REST library cannot start: are there certificates on this system?");
    }
    rest_.reset(&tirval_i_dsi_rest_module);
    char *reason = nullptr;
    storage_.reset(tirval_gfs_storage_load(folder.c_str(), config_.storage.name.c_str(), &reason));
    const std::unique_ptr<char, decltype(&std::free)> owner{reason, &std::free};
    if (storage_ == nullptr) {
        throw start_error_t("storage \"" + config_.storage.name +
                            "\": " + (reason == nullptr ? "cannot be loaded" : reason));
    }
}

void open_acceptor(tcp::acceptor &acceptor, const tcp::endpoint &endpoint)
{
    acceptor.open(endpoint.protocol());
    fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    if (endpoint.address().is_v6()) {
        acceptor.set_option(asio::ip::v6_only(!endpoint.address().is_unspecified()));
    }
    acceptor.bind(endpoint);
    acceptor.listen();
}

void master_t::listen(const listen_address_t &address)
{
    const tcp::endpoint endpoint{asio::ip::make_address(address.host), address.port};
    auto listener = std::make_unique<listener_t>(io_);
    try {
        open_acceptor(listener->acceptor, endpoint);
    } catch (const boost::system::system_error &error) {
        const bool no_ipv6 = error.code() == asio::error::address_family_not_supported ||
                             error.code() == boost::system::errc::address_not_available;
        if (!no_ipv6 || !endpoint.address().is_v6() || !endpoint.address().is_unspecified()) {
            throw start_error_t("server.listen: " + endpoint_text(endpoint) + ": " +
                                error.code().message());
        }
        log_warning("this system has no IPv6: listening on IPv4 alone");
        listen({"0.0.0.0", address.port});
        return;
    }
    log_info("listening on %s", endpoint_text(listener->acceptor.local_endpoint()).c_str());
    listeners_.push_back(std::move(listener));
}

void master_t::start()
{
    users_result_t loaded = load_users(config_.auth.users_file);
    if (!loaded.problems.empty()) {
        for (const std::string &problem : loaded.problems) {
            log_error("%s", problem.c_str());
        }
        throw start_error_t("the users file cannot be used");
    }
    users_ = std::move(loaded.users);
    load_storage();
    make_pipe(alive_read_, alive_write_);
    allow_descriptors(config_.server.max_sessions + spare_descriptors);
    std::signal(SIGPIPE, SIG_IGN);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        signals_.add(signal);
    }
    for (const listen_address_t &address : config_.server.listen) {
        listen(address);
    }
    if (getuid() != 0) {
        const auto self = find_account(getuid());
        log_info("started by an ordinary user: serving %s alone",
                 self ? self->name.c_str() : "nobody");
    }
}

bool master_t::run()
{
    wait_signal();
    for (const auto &listener : listeners_) {
        accept(*listener);
    }
    io_.run();
    return session_.has_value();
}

/* ---- Connections --------------------------------------------------------------------------- */

void master_t::accept(listener_t &listener)
{
    listener.acceptor.async_accept([this, &listener](const error_code &error, tcp::socket socket) {
        accepted(listener, error, std::move(socket));
    });
}

void master_t::accepted(listener_t &listener, const error_code &error, tcp::socket socket)
{
    if (error == asio::error::operation_aborted || stopping_) {
        return;
    }
    if (is_shortage(error)) {
        log_error("no connection can be accepted for now: %s", error.message().c_str());
        listener.pause.expires_after(accept_pause);
        listener.pause.async_wait([this, &listener](const error_code &cancelled) {
            if (!cancelled && !stopping_) {
                accept(listener);
            }
        });
        return;
    }
    if (!error) {
        start_session(std::move(socket));
    }
    if (!session_) {
        accept(listener);
    }
}

/* Why a client is not served; empty: it is. */
std::string master_t::refusal(const std::string &client) const
{
    if (children_.size() >= config_.server.max_sessions) {
        return "Too many connections, try again later.";
    }
    const auto same_host = std::ranges::count_if(
        children_, [&](const auto &entry) { return entry.second->client == client; });
    if (static_cast<std::size_t>(same_host) >= config_.server.max_sessions_per_host) {
        return "Too many connections from your address.";
    }
    return {};
}

void master_t::start_session(tcp::socket socket)
{
    error_code gone;
    const tcp::endpoint peer = socket.remote_endpoint(gone);
    if (gone) {
        return;
    }
    const std::string client = client_text(peer.address());
    const std::string reason = refusal(client);
    if (!reason.empty()) {
        log_warning("connection from %s refused: %s", client.c_str(), reason.c_str());
        refuse(std::move(socket), reason);
        return;
    }
    try {
        if (!fork_session(socket, client)) {
            refuse(std::move(socket), "Service not available, try again later.");
        }
    } catch (const std::exception &error) {
        log_error("no session for %s: %s", client.c_str(), error.what());
        refuse(std::move(socket), "Service not available, try again later.");
    }
}

bool master_t::fork_session(tcp::socket &socket, const std::string &client)
{
    if (const auto threads = count_threads(); threads < 1 || threads > most_threads) {
        log_error("the master has %td threads, not one, and cannot fork", threads);
        return false;
    }
    unique_fd_t report_read;
    unique_fd_t report_write;
    make_pipe(report_read, report_write);
    ++last_id_;
    std::fflush(nullptr);
    flush_logs();
    io_.notify_fork(asio::io_context::fork_prepare);
    const pid_t pid = fork();
    if (pid == 0) {
        report_read.reset();
        become_session(socket, client, std::move(report_write));
        return true;
    }
    const int saved_errno = errno;
    io_.notify_fork(asio::io_context::fork_parent);
    if (pid < 0) {
        log_error("no process for a session: %s", std::strerror(saved_errno));
        return false;
    }
    watch_child(pid, client, std::move(report_read));
    return true;
}

/* ---- The session's process ----------------------------------------------------------------- */

/* Whatever fails here, the child must not go on as a second master. */
void master_t::become_session(tcp::socket &socket, const std::string &client, unique_fd_t report)
{
    try {
        io_.notify_fork(asio::io_context::fork_child);
        listeners_.clear();
        children_.clear();
        signals_.cancel();
        signals_.clear();
        alive_write_.reset();
        session_.emplace(session_context_t{
            config_, users_, changes_, tirval_gfs_storage_iface(storage_.get()), last_id_, client,
            unique_fd_t{socket.release()}, std::move(report), std::move(alive_read_)});
        io_.stop();
    } catch (const std::exception &error) {
        log_error("no session for %s: %s", client.c_str(), error.what());
        leave_process(1);
    }
}

int master_t::serve()
{
    try {
        set_log_session(session_->id);
        std::signal(SIGINT, SIG_IGN); /* the master's to handle, when it comes from a terminal */
        std::signal(SIGHUP, SIG_IGN);
        umask(077);
        mallopt(M_MMAP_THRESHOLD, 128 * 1024); /* large buffers go back to the system */
        fcntl(session_->control.get(), F_SETFD, FD_CLOEXEC);
        fcntl(session_->control.get(), F_SETFL,
              fcntl(session_->control.get(), F_GETFL) | O_NONBLOCK);
        lower_privileges();
        return run_session(std::move(*session_));
    } catch (const std::exception &error) {
        log_error("the session ends: %s", error.what());
        return 1;
    }
}

/* ---- Children ------------------------------------------------------------------------------ */

void master_t::watch_child(pid_t pid, const std::string &client, unique_fd_t report)
{
    auto child = std::make_unique<child_t>(io_, report.release());
    child->pid = pid;
    child->client = client;
    log_info("session %llu: process %d for %s", static_cast<unsigned long long>(last_id_), pid,
             client.c_str());
    children_.emplace(last_id_, std::move(child));
    read_report(last_id_);
    watch_deadline(last_id_);
}

void master_t::read_report(std::uint64_t id)
{
    child_t &child = *children_.at(id);
    child.report.async_read_some(
        asio::buffer(child.buffer), [this, id](const error_code &error, std::size_t size) {
            const auto found = children_.find(id);
            if (error || found == children_.end()) {
                return;
            }
            found->second->user = clean_text({found->second->buffer.data(), size});
            found->second->deadline.cancel();
        });
}

void master_t::watch_deadline(std::uint64_t id)
{
    child_t &child = *children_.at(id);
    child.deadline.expires_after(config_.server.login_timeout + login_grace);
    child.deadline.async_wait([this, id](const error_code &cancelled) {
        const auto found = children_.find(id);
        if (cancelled || found == children_.end() || !found->second->user.empty()) {
            return;
        }
        log_warning("session %llu from %s did not log in in time and is ended",
                    static_cast<unsigned long long>(id), found->second->client.c_str());
        found->second->killed = true;
        ::kill(found->second->pid, SIGKILL);
    });
}

/* A session may end right after its report, before that has been read. */
void master_t::drain_report(child_t &child)
{
    error_code error;
    child.report.non_blocking(true, error);
    const std::size_t size =
        child.user.empty() ? child.report.read_some(asio::buffer(child.buffer), error) : 0;
    if (!error && size > 0) {
        child.user = clean_text({child.buffer.data(), size});
    }
}

void master_t::reap_children()
{
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto found = std::ranges::find_if(
            children_, [pid](const auto &entry) { return entry.second->pid == pid; });
        if (found != children_.end()) {
            drain_report(*found->second);
            log_end(found->first, *found->second, status);
            children_.erase(found);
        }
    }
    if (stopping_ && children_.empty()) {
        io_.stop();
    }
}

void master_t::log_end(std::uint64_t id, const child_t &child, int status) const
{
    const auto number = static_cast<unsigned long long>(id);
    const std::string who = (child.user.empty() ? "nobody" : child.user) + " at " + child.client;
    const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    const bool ours = child.killed && (signal == SIGKILL || signal == SIGTERM);
    if (signal != 0 && !ours) {
        log_error("session %llu (%s) was ended by signal %d (%s)", number, who.c_str(), signal,
                  strsignal(signal));
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        log_error("session %llu (%s) failed with status %d", number, who.c_str(),
                  WEXITSTATUS(status));
    } else {
        log_info("session %llu (%s) has ended", number, who.c_str());
    }
}

/* ---- Signals ------------------------------------------------------------------------------- */

void master_t::wait_signal()
{
    signals_.async_wait([this](const error_code &error, int signal) {
        if (error || session_) {
            return;
        }
        handle_signal(signal);
        wait_signal();
    });
}

void master_t::handle_signal(int signal)
{
    switch (signal) {
    case SIGCHLD:
        reap_children();
        break;
    case SIGHUP:
        reload();
        break;
    default:
        shut_down();
        break;
    }
}

void master_t::reload()
{
    reopen_logs();
    users_result_t loaded = load_users(config_.auth.users_file);
    for (const std::string &problem : loaded.problems) {
        log_error("%s", problem.c_str());
    }
    if (loaded.problems.empty()) {
        log_info("%zu users are read", loaded.users.size());
        users_ = std::move(loaded.users);
    } else {
        log_error("the users stay as they were");
    }
    if (!tirval_dsi_rest_reload_certificates()) {
        log_error("the certificates cannot be read again, and stay as they were");
    }
}

void master_t::kill_children(int signal)
{
    for (const auto &[id, child] : children_) {
        child->killed = true;
        ::kill(child->pid, signal);
    }
}

/* The second request to end does not wait. */
void master_t::shut_down()
{
    if (stopping_) {
        kill_children(SIGKILL);
        return;
    }
    stopping_ = true;
    listeners_.clear();
    if (children_.empty()) {
        log_info("the server ends");
        io_.stop();
        return;
    }
    log_info("the server ends; %zu sessions have %lld seconds to end", children_.size(),
             static_cast<long long>(config_.server.shutdown_timeout.count()));
    kill_children(SIGTERM);
    shutdown_timer_.expires_after(config_.server.shutdown_timeout);
    shutdown_timer_.async_wait([this](const error_code &cancelled) {
        if (!cancelled) {
            kill_children(SIGKILL);
        }
    });
}

} // namespace

std::vector<std::string> start_problems(const config_t &config)
{
    std::vector<std::string> problems = load_users(config.auth.users_file).problems;
    try {
        find_module_folder(config);
    } catch (const start_error_t &error) {
        problems.emplace_back(error.what());
    }
    return problems;
}

int run_master(const config_t &config, const std::vector<std::string> &warnings)
{
    try {
        open_logs(config.log);
        for (const std::string &warning : warnings) {
            log_warning("%s", warning.c_str());
        }
        master_t master{config};
        master.start();
        if (master.run()) {
            leave_process(master.serve());
        }
    } catch (const std::exception &error) {
        log_error("%s", error.what());
        return 2;
    }
    return 0;
}

} // namespace tirval::server
