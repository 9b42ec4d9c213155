/*
 * The control channel: reads command lines, keeps their order, sends replies, and keeps the times
 * of the session.  All of it runs on the I/O thread, which is the process's first one; operations
 * run on the operation thread and post what they have to say.
 *
 *   S1  One command at a time: lines that arrive meanwhile wait.  While an operation runs, ABOR and
 *       STAT are taken out of turn.
 *   S2  ABOR is answered at once, 426 and 226, whatever the operation still does; what it says
 *       later is dropped, and the next command waits until it has returned.
 *   S3  Once the session is to end, no further command runs.
 */
#include "session.h"

#include "command_session.h"
#include "command_table.h"
#include "commands.h"
#include "control_line.h"
#include "log.h"
#include "operation_thread.h"
#include "privileges.h"
#include "reply.h"
#include "storage_session.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <grp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <array>
#include <csignal>
#include <deque>
#include <exception>

namespace tirval::server {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int max_wrong_passwords = 3;
constexpr int max_long_lines = 3;
constexpr seconds wrong_password_delay{1};
/* Commands that may wait; then reading stops until some of them are done. */
constexpr std::size_t max_waiting_lines = 64;
constexpr std::size_t max_waiting_bytes = std::size_t{64} * 1024;
/* Replies that the client has not taken; then its commands wait. */
constexpr std::size_t max_unsent_bytes = std::size_t{64} * 1024;
/* For the last reply to go out, and then for the client to close its side. */
constexpr seconds farewell_limit{5};
constexpr seconds linger_limit{1};
/* A storage's own short sleeps run to their end; longer than this nothing should take. */
constexpr seconds operation_end_limit{10};
/* A long command sends nothing meanwhile: the way to the client is kept open by probes. */
constexpr int keepalive_idle_seconds = 60;
/* The preliminary reply that tells a transfer from other long operations (RFC 959). */
constexpr int opens_data_connection = 150;

/* The name of a group, or its number. */
std::string group_name(gid_t gid)
{
    std::array<char, 4096> buffer{};
    group record{};
    group *found = nullptr;
    getgrgid_r(gid, &record, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(gid) : found->gr_name;
}

int raw_family(int descriptor)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &size);
    return address.ss_family;
}

/* Urgent data stays in the stream: clients send ABOR with or as urgent bytes, and all of them
 * count (RFC 1123, section 4.1.2.12). */
void prepare_control(int descriptor)
{
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &keepalive_idle_seconds,
               sizeof keepalive_idle_seconds);
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/* Whether the peer of the connection has closed its side, whatever of it is still unread. */
bool peer_sends_no_more(int descriptor)
{
    pollfd polled{descriptor, POLLRDHUP, 0};
    return poll(&polled, 1, 0) > 0;
}

class client_session_t final : public command_session_t {
  public:
    explicit client_session_t(session_context_t &&context);
    int run();

    session_state_t &state() override { return state_; }
    const config_t &config() const override { return context_.config; }
    const tirval_gfs_storage_iface_t &storage() const override { return *context_.storage; }
    void reply(const std::string &text) override;
    void run(operation_t operation) override;
    void log_in(const std::string &password) override;
    void leave(const std::string &text) override;

  private:
    /* Reading and the order of commands */
    void read_more();
    void take_bytes(const error_code &error, std::size_t bytes);
    void take_telnet_answers();
    void look_ahead();
    bool take_out_of_turn(const control_line_t &line);
    void process();
    void take_line(const control_line_t &line);
    bool busy() const { return running_ || delaying_; }
    void client_gone();

    /* Writing and the end */
    void write_more();
    void say_farewell();
    void end_session();
    void finish_operations();

    /* Operations */
    void finish_operation();
    void abort_operation();
    void announce(const std::string &text);
    void log_transfer_of(const outcome_t &outcome) const;

    /* Log-in */
    void refuse_password();
    bool become(const account_t &account);
    void open_storage();
    void finish_login();

    /* Times and signals */
    void start_timers();
    void restart_idle_timer();
    void login_timed_out();
    void begin_shutdown();

    asio::io_context io_{1};
    session_context_t context_;
    asio::generic::stream_protocol::socket control_;
    int control_descriptor_; /* the same connection, open until the operation thread has ended */
    asio::posix::stream_descriptor master_alive_;
    asio::signal_set signals_;
    asio::steady_timer login_timer_;
    asio::steady_timer idle_timer_;
    asio::steady_timer delay_timer_;
    asio::steady_timer shutdown_timer_;
    asio::steady_timer farewell_timer_;

    session_state_t state_;
    control_line_parser_t parser_;
    std::deque<control_line_t> waiting_;
    std::size_t waiting_bytes_ = 0;
    std::array<char, 1024> received_{};
    bool reading_ = false;
    bool end_of_commands_ = false; /* the client has closed its side */

    std::string unsent_;
    std::string sending_;
    bool leaving_ = false; /* S3 */
    bool ended_ = false;
    int status_ = 0;

    bool running_ = false; /* an operation */
    bool aborted_ = false; /* by ABOR, and answered */
    bool is_transfer_ = false;
    bool delaying_ = false;
    bool shutting_down_ = false;
    std::atomic<std::uint64_t> bytes_{0};
    /* What came of the operation, from its end until finish_operation(), or until the operation
     * thread has ended. */
    std::optional<outcome_t> outcome_;

    int wrong_passwords_ = 0;
    int long_lines_ = 0;
    std::optional<account_t> account_; /* the user that the process has become */

    std::unique_ptr<storage_session_t> storage_;     /* used by the operation thread alone */
    std::unique_ptr<operation_thread_t> operations_; /* last: it uses the others */
};

client_session_t::client_session_t(session_context_t &&context)
    : context_(std::move(context)), control_(io_), control_descriptor_(context_.control.release()),
      master_alive_(io_), signals_(io_), login_timer_(io_), idle_timer_(io_), delay_timer_(io_),
      shutdown_timer_(io_), farewell_timer_(io_)
{
    state_.local = socket_address_t::local_of(control_descriptor_);
    state_.client = socket_address_t::peer_of(control_descriptor_);
    prepare_control(control_descriptor_);
    control_.assign(asio::generic::stream_protocol(raw_family(control_descriptor_), IPPROTO_TCP),
                    control_descriptor_);
    if (context_.master_alive) {
        master_alive_.assign(context_.master_alive.release());
    }
}

int client_session_t::run()
{
    tirval_gfs_cancel_descriptor(); /* made before another thread could want it */
    start_timers();
    reply(single_reply(220, "Service ready."));
    read_more();
    try {
        io_.run();
    } catch (const std::exception &error) {
        log_error("the session broke off: %s", error.what());
        status_ = 1;
        end_session();
    }
    finish_operations();
    return status_;
}

/* ---- Reading and the order of commands ----------------------------------------------------- */

void client_session_t::read_more()
{
    const bool full = waiting_.size() >= max_waiting_lines || waiting_bytes_ >= max_waiting_bytes;
    if (reading_ || end_of_commands_ || ended_ || (full && !leaving_)) {
        return;
    }
    reading_ = true;
    control_.async_read_some(asio::buffer(received_),
                             [this](const error_code &error, std::size_t bytes) {
                                 reading_ = false;
                                 take_bytes(error, bytes);
                             });
}

void client_session_t::take_bytes(const error_code &error, std::size_t bytes)
{
    if (error) {
        client_gone();
        return;
    }
    if (!leaving_) {
        parser_.feed({received_.data(), bytes});
        take_telnet_answers();
        while (parser_.has_line()) {
            waiting_.push_back(parser_.take_line());
            waiting_bytes_ += waiting_.back().text.size();
        }
        look_ahead();
        process();
    }
    read_more();
}

/* A client that asks and does not read gets no answers. */
void client_session_t::take_telnet_answers()
{
    const std::string answers = parser_.take_answers();
    if (!answers.empty() && unsent_.size() <= max_unsent_bytes) {
        reply(answers);
    }
}

/* A client that has sent QUIT may close its side before the answer; any other is lost. */
void client_session_t::client_gone()
{
    end_of_commands_ = true;
    const bool orderly = std::any_of(waiting_.begin(), waiting_.end(), [](const auto &line) {
        return split_command(line.text).verb == "QUIT";
    });
    if (leaving_ || !orderly) {
        end_session();
    }
}

void client_session_t::look_ahead()
{
    for (auto line = waiting_.begin(); running_ && !leaving_ && line != waiting_.end();) {
        if (take_out_of_turn(*line)) {
            waiting_bytes_ -= line->text.size();
            line = waiting_.erase(line);
        } else {
            ++line;
        }
    }
}

bool client_session_t::take_out_of_turn(const control_line_t &line)
{
    const command_text_t command = split_command(without_leading_rubbish(line.text));
    if (command.verb == "ABOR" && command.argument.empty()) {
        abort_operation();
        return true;
    }
    if (command.verb == "STAT" && command.argument.empty() && is_transfer_ && !aborted_) {
        reply(status_reply(state_, bytes_));
        return true;
    }
    return false;
}

void client_session_t::process()
{
    while (!busy() && !leaving_ && !waiting_.empty() && unsent_.size() <= max_unsent_bytes) {
        const control_line_t line = std::move(waiting_.front());
        waiting_.pop_front();
        waiting_bytes_ -= line.text.size();
        take_line(line);
        restart_idle_timer();
        look_ahead();
    }
    read_more();
}

void client_session_t::take_line(const control_line_t &line)
{
    if (line.what == control_line_t::fault_t::too_long) {
        reply(single_reply(500, "Command line too long."));
        if (++long_lines_ == max_long_lines) {
            leave(single_reply(421, "Too many long lines, closing control connection."));
        }
        return;
    }
    if (line.what == control_line_t::fault_t::holds_nul) {
        reply(single_reply(501, "A command cannot hold a NUL."));
        return;
    }
    command_text_t command = split_command(line.text);
    if (find_command(command.verb) == nullptr) {
        command = split_command(without_leading_rubbish(line.text));
    }
    log_debug("command: %s", loggable_text(command).c_str());
    dispatch_command(*this, command);
}

/* ---- Writing and the end ------------------------------------------------------------------- */

void client_session_t::reply(const std::string &text)
{
    unsent_ += text;
    write_more();
}

void client_session_t::write_more()
{
    if (!sending_.empty() || unsent_.empty() || ended_) {
        return;
    }
    sending_.swap(unsent_);
    asio::async_write(control_, asio::buffer(sending_),
                      [this](const error_code &error, std::size_t) {
                          sending_ = std::string();
                          if (error) {
                              end_session();
                              return;
                          }
                          write_more();
                          if (sending_.empty() && leaving_) {
                              say_farewell();
                          }
                          process();
                      });
}

void client_session_t::leave(const std::string &text)
{
    if (leaving_) {
        return;
    }
    reply(text);
    leaving_ = true;
    idle_timer_.cancel();
    login_timer_.cancel();
    farewell_timer_.expires_after(farewell_limit);
    farewell_timer_.async_wait([this](const error_code &error) {
        if (!error) {
            end_session();
        }
    });
}

/* Closing a connection that has unread bytes resets it, and the last reply may be lost with it: so
 * the client is to close first, within a limit. */
void client_session_t::say_farewell()
{
    error_code ignored;
    control_.shutdown(asio::socket_base::shutdown_send, ignored);
    if (end_of_commands_) {
        end_session();
        return;
    }
    farewell_timer_.expires_after(linger_limit);
    farewell_timer_.async_wait([this](const error_code &error) {
        if (!error) {
            end_session();
        }
    });
    read_more();
}

void client_session_t::end_session()
{
    if (ended_) {
        return;
    }
    ended_ = true;
    leaving_ = true;
    if (running_) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
    }
    io_.stop();
}

/* The storage session ends on the thread that used it. */
void client_session_t::finish_operations()
{
    error_code ignored;
    control_.shutdown(asio::socket_base::shutdown_both, ignored);
    if (!operations_) {
        return;
    }
    operations_->post([this] { storage_.reset(); });
    if (!operations_->finish_within(operation_end_limit)) {
        log_warning("left while the storage was still at work");
        leave_process(1);
    }
    operations_.reset();
    control_.close(ignored);
    if (outcome_) {
        log_transfer_of(*outcome_); /* of a transfer that the session's end has broken off */
    }
}

/* ---- Operations ---------------------------------------------------------------------------- */

void client_session_t::run(operation_t operation)
{
    running_ = true;
    aborted_ = false;
    bytes_ = 0;
    idle_timer_.cancel();
    operations_->post([this, operation = std::move(operation)] {
        outcome_t outcome;
        try {
            operation_context_t context{
                *storage_,
                [this](std::string text) {
                    asio::post(io_, [this, text = std::move(text)] { announce(text); });
                },
                bytes_, [this] { return peer_sends_no_more(control_descriptor_); }};
            outcome = operation(context);
        } catch (const std::exception &error) {
            log_error("an operation failed: %s", error.what());
            storage_->distrust(); /* it may have been left half-way */
            outcome = answer(single_reply(451, "Internal error of the server."));
        }
        outcome_ = std::move(outcome);
        asio::post(io_, [this] { finish_operation(); });
    });
}

void client_session_t::announce(const std::string &text)
{
    if (!aborted_ && !leaving_) {
        is_transfer_ = is_transfer_ || reply_code(text) == opens_data_connection;
        reply(text);
        look_ahead();
    }
}

void client_session_t::finish_operation()
{
    const std::optional<outcome_t> outcome = std::exchange(outcome_, std::nullopt);
    running_ = false;
    is_transfer_ = false;
    const bool stopped = tirval_gfs_cancelled() == TIRVAL_GFS_CANCEL_SHUTDOWN;
    log_transfer_of(*outcome);
    tirval_gfs_cancel_clear();
    if (leaving_) {
        return;
    }
    if (!aborted_ && !stopped) {
        if (outcome->cwd) {
            state_.cwd = *outcome->cwd;
        }
        state_.rename_from = outcome->rename_from;
        reply(outcome->reply);
        if (outcome->logged_in) {
            state_.checksums = outcome->checksums;
            finish_login();
        }
    }
    if (shutting_down_) {
        leave(single_reply(421, "Server is shutting down, closing control connection."));
        return;
    }
    restart_idle_timer();
    process();
}

void client_session_t::abort_operation()
{
    if (aborted_) {
        reply(single_reply(226, "No transfer in progress."));
        return;
    }
    aborted_ = true;
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    reply(single_reply(426, "Transfer aborted; data connection closed.") +
          single_reply(226, "Abort successful."));
}

void client_session_t::log_transfer_of(const outcome_t &outcome) const
{
    if (!outcome.transfer) {
        return;
    }
    transfer_record_t record = *outcome.transfer;
    record.user = state_.login_name;
    record.client = context_.client;
    const tirval_gfs_cancel_reason_t reason = tirval_gfs_cancelled();
    const bool ended = reason == TIRVAL_GFS_CANCEL_LOST || reason == TIRVAL_GFS_CANCEL_SHUTDOWN;
    if (aborted_ || (ended && record.code >= 400)) {
        record.code = 426;
    }
    log_transfer(record);
}

/* ---- Log-in -------------------------------------------------------------------------------- */

void client_session_t::log_in(const std::string &password)
{
    const auto local_user = context_.users.authenticate(state_.login_name, password);
    if (!local_user) {
        refuse_password();
        return;
    }
    const auto account = find_account(*local_user);
    if (account_ && account && account_->uid != account->uid) {
        /* The process has become the first user for good. */
        reply(single_reply(530, "Another user needs a new connection."));
        return;
    }
    const std::string problem =
        account ? account_problem(*account) : "the local user does not exist";
    if (!problem.empty()) {
        log_warning("user \"%s\" cannot log in as \"%s\": %s",
                    clean_text(state_.login_name).c_str(), local_user->c_str(), problem.c_str());
        reply(single_reply(530, "This server cannot serve the local user."));
        return;
    }
    if (account_ || become(*account)) {
        open_storage();
    }
}

void client_session_t::refuse_password()
{
    ++wrong_passwords_;
    log_warning("wrong password for \"%s\" from %s", clean_text(state_.login_name).c_str(),
                context_.client.c_str());
    delaying_ = true;
    delay_timer_.expires_after(wrong_password_delay);
    delay_timer_.async_wait([this](const error_code &error) {
        if (error || leaving_) {
            return;
        }
        delaying_ = false;
        reply(single_reply(530, "Login incorrect."));
        if (wrong_passwords_ >= max_wrong_passwords) {
            leave(single_reply(421, "Too many failed logins, closing control connection."));
        }
        process();
    });
}

/* Gives up the privileges for good, then makes what works for the user. */
bool client_session_t::become(const account_t &account)
{
    const std::string group = group_name(account.gid);
    try {
        become_user(account, context_.config.server.sandbox);
    } catch (const privileges_error_t &error) {
        log_error("cannot become the user \"%s\": %s", account.name.c_str(), error.what());
        status_ = 1;
        end_session();
        return false;
    }
    account_ = account;
    state_.owners = make_owner_names(account.name, group);
    storage_ = std::make_unique<storage_session_t>(
        storage_session_t::setup_t{.storage = context_.storage,
                                   .changes = &context_.changes,
                                   .config = &context_.config.storage,
                                   .store_wait = context_.config.server.idle_timeout,
                                   .session_id = context_.id,
                                   .account = account,
                                   .client = context_.client});
    operations_ = std::make_unique<operation_thread_t>();
    return true;
}

void client_session_t::open_storage()
{
    run([name = safe_text(state_.login_name)](operation_context_t &context) {
        outcome_t outcome;
        if (auto failure = context.storage.open()) {
            failure->code = 530;
            outcome.reply = failure_reply(*failure, "");
            return outcome;
        }
        outcome.cwd = context.storage.home();
        outcome.reply = single_reply(230, "User " + name + " logged in.");
        outcome.logged_in = true;
        outcome.checksums = context.storage.checksums();
        return outcome;
    });
}

void client_session_t::finish_login()
{
    state_.logged_in = true;
    login_timer_.cancel();
    if (context_.login_report) {
        const std::string &name = account_->name;
        if (write(context_.login_report.get(), name.data(), name.size()) < 0) {
            log_warning("the log-in could not be reported to the master");
        }
        context_.login_report.reset();
    }
    log_info("user \"%s\" logged in as \"%s\" from %s", clean_text(state_.login_name).c_str(),
             account_->name.c_str(), context_.client.c_str());
}

/* ---- Times and signals --------------------------------------------------------------------- */

void client_session_t::start_timers()
{
    login_timer_.expires_after(context_.config.server.login_timeout);
    login_timer_.async_wait([this](const error_code &error) {
        if (!error) {
            login_timed_out();
        }
    });
    signals_.add(SIGTERM);
    signals_.add(SIGINT);
    signals_.async_wait([this](const error_code &error, int) {
        if (!error) {
            begin_shutdown();
        }
    });
    if (master_alive_.is_open()) {
        /* Nobody writes to it: it becomes readable when the master's end is gone. */
        master_alive_.async_wait(asio::posix::stream_descriptor::wait_read,
                                 [this](const error_code &error) {
                                     if (!error) {
                                         begin_shutdown();
                                     }
                                 });
    }
    restart_idle_timer();
}

void client_session_t::restart_idle_timer()
{
    if (leaving_ || running_) {
        return;
    }
    idle_timer_.expires_after(context_.config.server.idle_timeout);
    idle_timer_.async_wait([this](const error_code &error) {
        if (!error && !running_) {
            leave(single_reply(421, "Idle timeout, closing control connection."));
        }
    });
}

void client_session_t::login_timed_out()
{
    if (running_) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_SHUTDOWN);
    }
    log_warning("no log-in within %lld s",
                static_cast<long long>(context_.config.server.login_timeout.count()));
    leave(single_reply(421, "Login timeout, closing control connection."));
}

void client_session_t::begin_shutdown()
{
    if (shutting_down_) {
        return;
    }
    shutting_down_ = true;
    if (!running_) {
        leave(single_reply(421, "Server is shutting down, closing control connection."));
        return;
    }
    /* The master ends the process at the limit: the client is to be told before. */
    shutdown_timer_.expires_after(milliseconds(context_.config.server.shutdown_timeout) * 9 / 10);
    shutdown_timer_.async_wait([this](const error_code &error) {
        if (!error && running_) {
            tirval_gfs_cancel(TIRVAL_GFS_CANCEL_SHUTDOWN);
            leave(single_reply(421, "Server is shutting down, closing control connection."));
        }
    });
}

} // namespace

int run_session(session_context_t &&context)
{
    client_session_t session(std::move(context));
    return session.run();
}

} // namespace tirval::server
