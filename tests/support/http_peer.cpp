// The scripted HTTP server: one thread accepts, one thread for each connection reads requests and
// takes their answers' steps.  Blocking sockets; a stop shuts them down, which ends every read.
#include "http_peer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

struct tls_context_free {
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
struct tls_free {
    void operator()(SSL *tls) const { SSL_free(tls); }
};

bool same_name(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
        return std::tolower(x) == std::tolower(y);
    });
}

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

[[noreturn]] void fail(const char *call)
{
    throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
}

http_peer_request parse_head(std::string_view head)
{
    http_peer_request request;
    request.arrived = std::chrono::steady_clock::now();
    const auto line_end = head.find("\r\n");
    const auto line = head.substr(0, line_end);
    const auto first = line.find(' ');
    const auto last = line.rfind(' ');
    if (first == std::string_view::npos || last == first) {
        request.method = line;
        return request;
    }
    request.method = line.substr(0, first);
    request.target = line.substr(first + 1, last - first - 1);
    for (auto at = line_end + 2; at < head.size();) {
        auto end = head.find("\r\n", at);
        end = end == std::string_view::npos ? head.size() : end;
        const auto field = head.substr(at, end - at);
        const auto colon = field.find(':');
        if (colon != std::string_view::npos) {
            request.headers.emplace_back(field.substr(0, colon), trimmed(field.substr(colon + 1)));
        }
        at = end + 2;
    }
    return request;
}

} // namespace

std::optional<std::string> http_peer_request::header(std::string_view name) const
{
    for (const auto &[key, value] : headers) {
        if (same_name(key, name)) {
            return value;
        }
    }
    return std::nullopt;
}

std::size_t http_peer_request::header_count(std::string_view name) const
{
    return static_cast<std::size_t>(
        std::count_if(headers.begin(), headers.end(),
                      [&](const auto &field) { return same_name(field.first, name); }));
}

http_peer_answer http_peer_answer::complete(int status, std::string_view body,
                                            const http_peer_headers &headers)
{
    std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
    for (const auto &[name, value] : headers) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    if (status != 204) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    text += "\r\n";
    text += body;
    http_peer_answer answer;
    answer.send(std::move(text));
    return answer;
}

http_peer_answer http_peer_answer::json(int status, std::string_view text,
                                        const http_peer_headers &headers)
{
    http_peer_headers all = headers;
    all.emplace_back("Content-Type", "application/json");
    return complete(status, text, all);
}

http_peer_answer &http_peer_answer::send(std::string bytes)
{
    return repeat(std::move(bytes), 1);
}

http_peer_answer &http_peer_answer::repeat(std::string bytes, std::size_t times)
{
    steps.push_back({action::send, std::move(bytes), times, {}});
    return *this;
}

http_peer_answer &http_peer_answer::pause(std::chrono::milliseconds duration)
{
    steps.push_back({action::pause, {}, 1, duration});
    return *this;
}

http_peer_answer &http_peer_answer::await_close()
{
    steps.push_back({action::await_close, {}, 1, {}});
    return *this;
}

http_peer_answer &http_peer_answer::close()
{
    steps.push_back({action::close, {}, 1, {}});
    return *this;
}

http_peer_answer &http_peer_answer::reset()
{
    steps.push_back({action::reset, {}, 1, {}});
    return *this;
}

http_peer_answer &http_peer_answer::before_body()
{
    early = true;
    return *this;
}

http_peer_answer &http_peer_answer::drop_body()
{
    keeps_body = false;
    return *this;
}

http_peer_answer &http_peer_answer::stop_body_after(std::size_t bytes)
{
    most_body = bytes;
    return *this;
}

http_peer_answer &http_peer_answer::read_slowly(std::size_t block,
                                                std::chrono::milliseconds pause_between)
{
    read_block = block;
    read_pause = pause_between;
    return *this;
}

/* What the test's thread and the connections share. */
struct http_peer_state {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<http_peer_answer> queue;
    std::function<http_peer_answer(const http_peer_request &)> handler;
    std::vector<http_peer_request> requests;
    std::size_t unexpected = 0;
    bool stopping = false;

    std::unique_ptr<SSL_CTX, tls_context_free> tls;
    int listener = -1;
    std::uint16_t port = 0;
    std::thread acceptor;
    std::list<std::thread> workers;
    std::vector<int> sockets; /* by connection number; -1: closed */

    void listen_on_loopback(int receive_buffer);
    void load_certificate(const http_peer_options &options);
    void accept_connections();
    void stop();
    /* Sleeps unless the peer ends; false when it does. */
    bool sleep(std::chrono::milliseconds duration) const;
};

/* One connection's conversation. */
class http_peer_connection {
  public:
    http_peer_connection(http_peer_state &peer, std::size_t connection_number, int fd)
        : state(peer), number(connection_number), socket(fd)
    {
    }
    void serve();

  private:
    bool start_tls();
    std::size_t receive(char *buffer, std::size_t capacity);
    bool transmit(std::string_view bytes);
    bool fill();
    std::optional<std::string> read_head();
    void read_body(std::size_t index, const http_peer_answer &answer);
    void read_counted(std::size_t index, std::size_t length, const http_peer_answer &answer);
    void read_chunked(std::size_t index, const http_peer_answer &answer);
    void keep(std::size_t index, std::string_view bytes, bool whole);
    bool take_steps(const http_peer_answer &answer);
    bool take(const http_peer_answer::step &step);
    bool serve_one();
    void end(bool by_reset);

    http_peer_state &state;
    std::size_t number;
    int socket;
    std::unique_ptr<SSL, tls_free> tls;
    std::string input; /* received and not yet used */
};

bool http_peer_connection::start_tls()
{
    if (state.tls == nullptr) {
        return true;
    }
    tls.reset(SSL_new(state.tls.get()));
    SSL_set_fd(tls.get(), socket);
    return SSL_accept(tls.get()) == 1;
}

std::size_t http_peer_connection::receive(char *buffer, std::size_t capacity)
{
    if (tls != nullptr) {
        const int got = SSL_read(tls.get(), buffer, static_cast<int>(capacity));
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    const ssize_t got = ::recv(socket, buffer, capacity, 0);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool http_peer_connection::transmit(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent =
            tls != nullptr ? SSL_write(tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                           : ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool http_peer_connection::fill()
{
    char buffer[65536];
    const auto got = receive(buffer, sizeof buffer);
    input.append(buffer, got);
    return got > 0;
}

std::optional<std::string> http_peer_connection::read_head()
{
    std::size_t end;
    while ((end = input.find("\r\n\r\n")) == std::string::npos) {
        if (!fill()) {
            return std::nullopt;
        }
    }
    auto head = input.substr(0, end);
    input.erase(0, end + 4);
    return head;
}

void http_peer_connection::keep(std::size_t index, std::string_view bytes, bool whole)
{
    const std::lock_guard lock(state.mutex);
    auto &request = state.requests[index];
    request.body_size += bytes.size();
    if (whole) {
        request.body += bytes;
    }
}

void http_peer_connection::read_counted(std::size_t index, std::size_t length,
                                        const http_peer_answer &answer)
{
    std::string buffer(answer.read_block, '\0');
    const bool whole = length <= answer.most_body;
    length = std::min(length, answer.most_body);
    while (length > 0) {
        if (!input.empty()) {
            const auto used = std::min(length, input.size());
            keep(index, std::string_view(input).substr(0, used), answer.keeps_body);
            input.erase(0, used);
            length -= used;
            continue;
        }
        if (!state.sleep(answer.read_pause)) {
            return;
        }
        const auto got = receive(buffer.data(), std::min(length, buffer.size()));
        if (got == 0) {
            return;
        }
        keep(index, std::string_view(buffer).substr(0, got), answer.keeps_body);
        length -= got;
    }
    const std::lock_guard lock(state.mutex);
    state.requests[index].body_complete = whole;
}

void http_peer_connection::read_chunked(std::size_t index, const http_peer_answer &answer)
{
    for (;;) {
        std::size_t line_end;
        while ((line_end = input.find("\r\n")) == std::string::npos) {
            if (!fill()) {
                return;
            }
        }
        const auto size = std::strtoul(input.c_str(), nullptr, 16);
        while (input.size() < line_end + 2 + size + 2) {
            if (!fill()) {
                return;
            }
        }
        keep(index, std::string_view(input).substr(line_end + 2, size), answer.keeps_body);
        input.erase(0, line_end + 2 + size + 2);
        if (size == 0) {
            const std::lock_guard lock(state.mutex);
            state.requests[index].body_complete = true;
            return;
        }
    }
}

void http_peer_connection::read_body(std::size_t index, const http_peer_answer &answer)
{
    std::optional<std::string> length, coding;
    {
        const std::lock_guard lock(state.mutex);
        length = state.requests[index].header("Content-Length");
        coding = state.requests[index].header("Transfer-Encoding");
    }
    if (coding) {
        read_chunked(index, answer);
    } else {
        read_counted(index, length ? std::strtoul(length->c_str(), nullptr, 10) : 0, answer);
    }
}

bool http_peer_connection::take(const http_peer_answer::step &step)
{
    using action = http_peer_answer::action;
    switch (step.what) {
    case action::send:
        for (std::size_t i = 0; i < step.times; ++i) {
            if (!transmit(step.bytes)) {
                return false;
            }
        }
        return true;
    case action::pause:
        return state.sleep(step.duration);
    case action::await_close:
        while (fill()) {
            input.clear();
        }
        return false;
    case action::close:
        return false;
    case action::reset:
        end(true);
        return false;
    }
    return false;
}

bool http_peer_connection::take_steps(const http_peer_answer &answer)
{
    return std::all_of(answer.steps.begin(), answer.steps.end(),
                       [this](const auto &step) { return take(step); });
}

/* Reads one request and does what its answer says; false when the connection has ended. */
bool http_peer_connection::serve_one()
{
    const auto head = read_head();
    if (!head) {
        return false;
    }
    std::optional<http_peer_answer> answer;
    std::function<http_peer_answer(const http_peer_request &)> handler;
    std::size_t index;
    {
        const std::lock_guard lock(state.mutex);
        index = state.requests.size();
        state.requests.push_back(parse_head(*head));
        state.requests[index].connection = number;
        if (!state.queue.empty()) {
            answer = std::move(state.queue.front());
            state.queue.pop_front();
        } else if (state.handler) {
            handler = state.handler;
        } else {
            ++state.unexpected;
            answer = http_peer_answer::complete(599);
        }
        state.changed.notify_all();
    }
    if (handler) {
        read_body(index, {});
        http_peer_request request;
        {
            const std::lock_guard lock(state.mutex);
            request = state.requests[index];
        }
        return take_steps(handler(request));
    }
    if (answer->early) {
        const bool open = take_steps(*answer);
        if (open) {
            read_body(index, *answer);
        }
        return open;
    }
    read_body(index, *answer);
    return take_steps(*answer);
}

void http_peer_connection::end(bool by_reset)
{
    const std::lock_guard lock(state.mutex);
    if (socket < 0) {
        return;
    }
    if (by_reset) {
        const linger at_once = {1, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    ::close(socket);
    socket = -1;
    state.sockets[number] = -1;
}

void http_peer_connection::serve()
{
    if (start_tls()) {
        while (serve_one()) {
        }
        if (tls != nullptr && socket >= 0) {
            SSL_shutdown(tls.get());
        }
    }
    if (socket >= 0) {
        // Unread input would turn the close into a reset, and the client would lose the answer.
        ::shutdown(socket, SHUT_WR);
        const timeval limit = {1, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char rest[4096];
        while (::recv(socket, rest, sizeof rest, 0) > 0) {
        }
    }
    end(false);
}

void http_peer_state::listen_on_loopback(int receive_buffer)
{
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (receive_buffer > 0) {
        ::setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    socklen_t size = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        ::listen(listener, 64) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        fail("http_peer");
    }
    port = ntohs(address.sin_port);
}

void http_peer_state::load_certificate(const http_peer_options &options)
{
    if (options.certificate_file.empty()) {
        return;
    }
    tls.reset(SSL_CTX_new(TLS_server_method()));
    const char *const certificate = options.certificate_file.c_str();
    if (tls == nullptr || SSL_CTX_use_certificate_chain_file(tls.get(), certificate) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls.get(), options.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("http_peer: certificate " + options.certificate_file);
    }
}

void http_peer_state::accept_connections()
{
    for (;;) {
        const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::lock_guard lock(mutex);
        if (socket < 0 || stopping) {
            if (socket >= 0) {
                ::close(socket);
            }
            return;
        }
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const auto number = sockets.size();
        sockets.push_back(socket);
        workers.emplace_back(
            [this, number, socket] { http_peer_connection(*this, number, socket).serve(); });
    }
}

bool http_peer_state::sleep(std::chrono::milliseconds duration) const
{
    std::unique_lock lock(mutex);
    changed.wait_for(lock, duration, [this] { return stopping; });
    return !stopping;
}

void http_peer_state::stop()
{
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        changed.notify_all();
        for (const int socket : sockets) {
            if (socket >= 0) {
                ::shutdown(socket, SHUT_RDWR);
            }
        }
        ::shutdown(listener, SHUT_RDWR);
    }
    acceptor.join();
    for (auto &worker : workers) {
        worker.join();
    }
    ::close(listener);
}

http_peer::http_peer(const http_peer_options &options) : state(std::make_unique<http_peer_state>())
{
    // OpenSSL writes without MSG_NOSIGNAL, and clients of this peer leave in the middle.
    std::signal(SIGPIPE, SIG_IGN);
    state->load_certificate(options);
    state->listen_on_loopback(options.receive_buffer);
    state->acceptor = std::thread([this] { state->accept_connections(); });
}

http_peer::~http_peer()
{
    state->stop();
}

std::uint16_t http_peer::port() const
{
    return state->port;
}

std::string http_peer::url(std::string_view target) const
{
    return (state->tls != nullptr ? "https://127.0.0.1:" : "http://127.0.0.1:") +
           std::to_string(state->port) + std::string(target);
}

void http_peer::answer(http_peer_answer next)
{
    const std::lock_guard lock(state->mutex);
    state->queue.push_back(std::move(next));
}

void http_peer::on_request(std::function<http_peer_answer(const http_peer_request &)> handler)
{
    const std::lock_guard lock(state->mutex);
    state->handler = std::move(handler);
}

std::vector<http_peer_request> http_peer::requests() const
{
    const std::lock_guard lock(state->mutex);
    return state->requests;
}

bool http_peer::wait_for_requests(std::size_t count) const
{
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(lock, std::chrono::seconds(20),
                                   [&] { return state->requests.size() >= count; });
}

std::size_t http_peer::connections() const
{
    const std::lock_guard lock(state->mutex);
    return state->sockets.size();
}

std::size_t http_peer::unused() const
{
    const std::lock_guard lock(state->mutex);
    return state->queue.size();
}

std::size_t http_peer::unexpected() const
{
    const std::lock_guard lock(state->mutex);
    return state->unexpected;
}

void http_peer::close_connections()
{
    const std::lock_guard lock(state->mutex);
    for (const int socket : state->sockets) {
        if (socket >= 0) {
            ::shutdown(socket, SHUT_RDWR);
        }
    }
}
