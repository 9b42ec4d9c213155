// Listeners and connections: one coroutine for each, on a small pool of threads.
#include "server.h"

#include "delivery.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <span>
#include <thread>

namespace graph_sim {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace beast_http = boost::beast::http;
using tcp = asio::ip::tcp;
using tls_stream = asio::ssl::stream<tcp::socket>;
using error_code = boost::system::error_code;

namespace {

constexpr std::size_t write_block = std::size_t{1} << 20;
constexpr std::uint32_t largest_head = 65536;
// A body that does not matter any more is read all the same up to this size, so that the connection
// can be used again.
constexpr std::uint64_t largest_idle_body = std::uint64_t{64} << 20;
// What is slowed down moves in that many pieces.
constexpr std::uint64_t pieces_a_second = 20;
constexpr std::chrono::milliseconds pace{1000 / pieces_a_second};
constexpr std::size_t text_block = std::size_t{64} << 10;

// What is the same for all requests of a connection.
struct connection_facts {
    std::uint64_t number = 0;
    listener_role role = listener_role::everything;
    std::string origin; // of the listener, for requests without a Host
    std::string host;
    bool tls = false;
    bool resumed = false;
};

std::string view_text(boost::beast::string_view text)
{
    return {text.data(), text.size()};
}

request take_request(const beast_http::request<beast_http::buffer_body> &message,
                     const connection_facts &facts)
{
    request got;
    got.method = view_text(message.method_string());
    got.target = view_text(message.target());
    for (const auto &field : message) {
        got.headers.add(view_text(field.name_string()), view_text(field.value()));
    }
    got.connection = facts.number;
    got.role = facts.role;
    got.tls = facts.tls;
    got.resumed = facts.resumed;
    got.origin = facts.origin;
    got.host = facts.host;
    // Links carry the name by which the client came, which its certificate check wants to see.
    if (const std::string *host = got.headers.find("Host"); host != nullptr && !host->empty()) {
        got.origin = (facts.tls ? "https://" : "http://") + *host;
        const size_t colon = host->rfind(':');
        const size_t bracket = host->rfind(']');
        const bool has_port =
            colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
        got.host = has_port ? host->substr(0, colon) : *host;
    }
    return got;
}

asio::awaitable<void> pause(std::chrono::milliseconds time)
{
    asio::steady_timer timer(co_await asio::this_coro::executor, time);
    error_code ignored;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

// How the receipt of a body ended.
enum class receipt {
    whole,
    unread, // the answer does not need the rest, after which the connection is of no more use
    broken, // by the client
    cut,    // by a rule
};

// Where the next bytes of a body go, and taking note of how many came.
class body_sink {
  public:
    explicit body_sink(exchange &going) : going_(going) {}

    // At most `most` bytes; none when there is no place for more, in memory or on the disk.
    std::span<unsigned char> room(std::uint64_t most)
    {
        if (going_.body == exchange::sink::file) {
            guard([&] { room_ = going_.file->room(most); });
        } else {
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(most, text_block));
            scratch_.resize(std::max(scratch_.size(), count));
            room_ = {scratch_.data(), count};
        }
        return full_ ? std::span<unsigned char>() : room_;
    }

    // Takes over the first bytes of the latest room.
    void commit(std::size_t count)
    {
        going_.received += count;
        if (going_.body == exchange::sink::file) {
            guard([&] { going_.file->commit(count); });
        } else if (going_.body == exchange::sink::text) {
            going_.got.body.append(reinterpret_cast<const char *>(room_.data()), count);
        }
    }

    [[nodiscard]] bool full() const { return full_; }

  private:
    template <class Run> void guard(const Run &run)
    {
        try {
            run();
        } catch (const std::exception &error) {
            std::fprintf(stderr, "no place for a body: %s\n", error.what());
            full_ = true;
        }
    }

    exchange &going_;
    std::vector<unsigned char> scratch_;
    std::span<unsigned char> room_;
    bool full_ = false;
};

// One client.  The stream is a plain or a TLS one; requests come one after another.
template <class Stream> class connection {
  public:
    connection(Stream stream, connection_facts facts, service &served)
        : stream_(std::move(stream)), facts_(std::move(facts)), served_(served)
    {
    }

    Stream &stream() { return stream_; }
    connection_facts &facts() { return facts_; }

    asio::awaitable<void> converse()
    {
        bool open = true;
        while (open) {
            parser_type parser;
            parser.header_limit(largest_head);
            parser.body_limit(boost::none);
            open = co_await read_head(parser) && co_await serve(parser);
        }
        finish();
    }

  private:
    using parser_type = beast_http::request_parser<beast_http::buffer_body>;

    auto &socket() { return stream_.lowest_layer(); }

    asio::awaitable<bool> read_head(parser_type &parser)
    {
        error_code error;
        co_await beast_http::async_read_header(stream_, buffer_, parser,
                                               asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_await refuse(error);
        }
        co_return !error;
    }

    // True when the connection can take another request.
    asio::awaitable<bool> serve(parser_type &parser)
    {
        exchange going = served_.open(take_request(parser.get(), facts_));
        const receipt body = co_await receive(parser, going);
        if (body == receipt::broken || body == receipt::cut) {
            served_.abandon(going, body == receipt::cut ? outcome::cut : outcome::peer_closed);
            co_return false;
        }
        answer told = served_.finish(going);
        if (body == receipt::unread) {
            told.reply.headers.set("Connection", "close");
        }
        const std::string *announced = told.reply.headers.find("Connection");
        const bool delivered = co_await deliver(told);
        if (delivered && body == receipt::unread) {
            co_await drain();
        }
        co_return delivered &&parser.keep_alive() && !told.how.close &&
            (announced == nullptr || !equal_without_case(*announced, "close"));
    }

    asio::awaitable<receipt> receive(parser_type &parser, exchange &going)
    {
        const std::uint64_t length = going.got.announced_length().value_or(0);
        const bool waits =
            equal_without_case(view_text(parser.get()[beast_http::field::expect]), "100-continue");
        if (going.refused && (waits || length > largest_idle_body)) {
            co_return receipt::unread;
        }
        const delivery usual;
        const delivery &how = going.action() == nullptr ? usual : going.action()->how;
        const std::uint64_t limit = limit_of(how);
        if (waits && limit > 0) {
            // A failure shows when the body is read.
            co_await write("HTTP/1.1 100 Continue\r\n\r\n");
        }
        body_sink sink(going);
        while (going.received < limit) {
            const bool chunked = parser.chunked();
            if (chunked ? parser.is_done() : going.received == length) {
                co_return receipt::whole;
            }
            const std::uint64_t left = chunked ? block_store::largest : length - going.received;
            const auto most = std::min({left, limit - going.received, pace_of(how)});
            // Not one expression: g++ 12 would end the frame of the chosen side twice.
            bool intact = false;
            if (chunked) {
                intact = co_await receive_chunked(parser, sink, most);
            } else {
                intact = co_await receive_plain(sink, most);
            }
            if (!intact) {
                co_return receipt::broken;
            }
            if (sink.full() || going.received > going.largest_body) {
                service::refuse_body(going, sink.full() ? 507 : 413);
                co_return receipt::unread;
            }
            if (how.receive_bytes_per_second) {
                co_await pause(pace);
            }
        }
        co_return co_await interrupt(how);
    }

    // One read into the place where the bytes are to stay; what came with the head goes first.
    asio::awaitable<bool> receive_plain(body_sink &sink, std::uint64_t most)
    {
        const std::span<unsigned char> room = sink.room(most);
        if (room.empty()) {
            co_return true;
        }
        if (buffer_.size() > 0) {
            const std::size_t count = std::min(room.size(), buffer_.size());
            std::memcpy(room.data(), buffer_.data().data(), count);
            buffer_.consume(count);
            sink.commit(count);
            co_return true;
        }
        error_code error;
        const std::size_t count =
            co_await stream_.async_read_some(asio::buffer(room.data(), room.size()),
                                             asio::redirect_error(asio::use_awaitable, error));
        sink.commit(count);
        co_return !error;
    }

    asio::awaitable<bool> receive_chunked(parser_type &parser, body_sink &sink, std::uint64_t most)
    {
        const std::span<unsigned char> room = sink.room(most);
        if (room.empty()) {
            co_return true;
        }
        auto &body = parser.get().body();
        body.data = room.data();
        body.size = room.size();
        body.more = true;
        error_code error;
        co_await beast_http::async_read(stream_, buffer_, parser,
                                        asio::redirect_error(asio::use_awaitable, error));
        sink.commit(room.size() - body.size);
        co_return !error || error == beast_http::error::need_buffer;
    }

    // Body bytes after which a rule wants something to happen.
    static std::uint64_t limit_of(const delivery &how)
    {
        constexpr auto never = std::numeric_limits<std::uint64_t>::max();
        return std::min({how.reset_after_received.value_or(never),
                         how.stall_after_received.value_or(never),
                         how.answer_after_received.value_or(never)});
    }

    // Bytes of a body that are taken in at once.
    static std::uint64_t pace_of(const delivery &how)
    {
        constexpr auto never = std::numeric_limits<std::uint64_t>::max();
        return how.receive_bytes_per_second
                   ? std::max<std::uint64_t>(*how.receive_bytes_per_second / pieces_a_second, 1)
                   : never;
    }

    // What a rule wants in the middle of a body.
    asio::awaitable<receipt> interrupt(const delivery &how)
    {
        if (how.answer_after_received) {
            co_return receipt::unread;
        }
        if (how.stall_after_received) {
            co_await wait_until_gone();
        }
        if (how.reset_after_received) {
            reset();
        }
        co_return receipt::cut;
    }

    // Lets the client read an answer that came before its body had been read: closing a socket with
    // unread bytes would reset the connection and lose the answer.
    asio::awaitable<void> drain()
    {
        error_code error;
        socket().shutdown(asio::socket_base::shutdown_send, error);
        std::vector<char> bytes(text_block);
        for (int idle = 0; idle < 200;) {
            const ssize_t got =
                recv(socket().native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
                break;
            }
            if (got < 0) {
                ++idle;
                co_await pause(std::chrono::milliseconds(10));
            }
        }
    }

    // Answers what is not HTTP.
    asio::awaitable<void> refuse(error_code error)
    {
        if (error.category() == make_error_code(beast_http::error::bad_target).category() &&
            error != beast_http::error::end_of_stream &&
            error != beast_http::error::partial_message) {
            response reply;
            reply.status = 400;
            reply.headers = {{"Connection", "close"}};
            co_await write(head_text(reply));
        }
    }

    asio::awaitable<bool> write(std::string_view bytes)
    {
        error_code error;
        co_await asio::async_write(stream_, asio::buffer(bytes.data(), bytes.size()),
                                   asio::redirect_error(asio::use_awaitable, error));
        co_return !error;
    }

    // Sends an answer as it is to be sent; false when the connection is of no more use.
    asio::awaitable<bool> deliver(const answer &told)
    {
        const delivery &how = told.how;
        if (how.delay.count() > 0) {
            co_await pause(how.delay);
        }
        if (how.stall) {
            co_await wait_until_gone();
        }
        if (how.reset) {
            reset();
        }
        if (how.stall || how.reset || how.drop) {
            served_.sent(told.record, 0, outcome::cut);
            co_return false;
        }
        if (how.garbage != damage::none) {
            co_await send_garbage(told);
            co_return false;
        }
        co_return co_await send_answer(told);
    }

    asio::awaitable<bool> send_answer(const answer &told)
    {
        answer_bytes bytes(told);
        const std::size_t most = block_size(told.how);
        for (;;) {
            const std::uint64_t before = bytes.body_given();
            const std::string_view piece = bytes.next(most);
            if (piece.empty()) {
                break;
            }
            // Noted before the last bytes leave, so that a client that has them finds the record
            // finished.
            if (bytes.whole()) {
                served_.sent(told.record, bytes.body_given(), outcome::complete);
            }
            if (!co_await write(piece)) {
                served_.sent(told.record, bytes.body_given(), outcome::peer_closed);
                co_return false;
            }
            if (told.how.bytes_per_second && !bytes.whole()) {
                const std::uint64_t sent = bytes.body_given() - before;
                co_await pause(std::chrono::milliseconds(sent * 1000 / *told.how.bytes_per_second));
            }
        }
        if (bytes.whole()) {
            co_return true;
        }
        served_.sent(told.record, bytes.body_given(), outcome::cut);
        if (told.how.stall_after) {
            co_await wait_until_gone();
        }
        if (told.how.reset_after) {
            reset();
        }
        co_return false;
    }

    static std::size_t block_size(const delivery &how)
    {
        return how.bytes_per_second ? static_cast<std::size_t>(std::clamp<std::uint64_t>(
                                          *how.bytes_per_second / pieces_a_second, 1, write_block))
                                    : write_block;
    }

    asio::awaitable<void> send_garbage(const answer &told)
    {
        const garbage_text text = garbage_for(told.how.garbage, told.reply);
        std::uint64_t count = text.start.size();
        served_.sent(told.record, count, outcome::cut);
        bool open = co_await write(text.start);
        while (open && !text.repeat.empty()) {
            open = co_await write(text.repeat);
            count += text.repeat.size();
        }
        served_.sent(told.record, count, outcome::cut);
    }

    // Looked at now and then: bytes that the client has sent stay unread.
    asio::awaitable<void> wait_until_gone()
    {
        pollfd watched{socket().native_handle(), POLLRDHUP, 0};
        while (poll(&watched, 1, 0) == 0) {
            co_await pause(std::chrono::milliseconds(20));
        }
    }

    void reset()
    {
        error_code ignored;
        socket().set_option(asio::socket_base::linger(true, 0), ignored);
        socket().close(ignored);
    }

    void finish()
    {
        error_code ignored;
        socket().shutdown(asio::socket_base::shutdown_both, ignored);
        socket().close(ignored);
    }

    Stream stream_;
    connection_facts facts_;
    service &served_;
    beast::flat_buffer buffer_;
};

asio::awaitable<void> serve_plain(tcp::socket socket, connection_facts facts, service &served)
{
    connection<tcp::socket> client(std::move(socket), std::move(facts), served);
    co_await client.converse();
}

asio::awaitable<void> serve_tls(tcp::socket socket, asio::ssl::context &tls, connection_facts facts,
                                service &served)
{
    connection<tls_stream> client(tls_stream(std::move(socket), tls), std::move(facts), served);
    error_code error;
    co_await client.stream().async_handshake(tls_stream::server,
                                             asio::redirect_error(asio::use_awaitable, error));
    if (!error) {
        client.facts().resumed = SSL_session_reused(client.stream().native_handle()) == 1;
        co_await client.converse();
    }
}

struct listener {
    tcp::acceptor acceptor;
    listener_role role;
    std::string origin;
    std::string host;
    unsigned short port;
};

std::string host_text(const tcp::endpoint &endpoint)
{
    const std::string address = endpoint.address().to_string();
    return endpoint.address().is_v6() ? "[" + address + "]" : address;
}

listener open_listener(asio::io_context &io, const listen_address &where, bool tls)
{
    const std::string name = where.address + ":" + std::to_string(where.port);
    error_code error;
    const asio::ip::address address = asio::ip::make_address(where.address, error);
    tcp::acceptor acceptor(io);
    const tcp::endpoint endpoint(address, where.port);
    if (!error) {
        acceptor.open(endpoint.protocol(), error);
    }
    if (!error) {
        acceptor.set_option(asio::socket_base::reuse_address(true), error);
    }
    if (!error) {
        acceptor.bind(endpoint, error);
    }
    if (!error) {
        acceptor.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error) {
        throw input_error("cannot listen on " + name + ": " + error.message());
    }
    const std::string host = host_text(acceptor.local_endpoint());
    const unsigned short port = acceptor.local_endpoint().port();
    const std::string origin =
        std::string(tls ? "https://" : "http://") + host + ":" + std::to_string(port);
    return {std::move(acceptor), where.role, origin, host, port};
}

std::unique_ptr<asio::ssl::context> open_tls(const server_options &options)
{
    if (options.certificate_file.empty()) {
        return nullptr;
    }
    auto context = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    error_code error;
    context->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                         asio::ssl::context::no_tlsv1_1);
    context->use_certificate_chain_file(options.certificate_file, error);
    if (error) {
        throw input_error(options.certificate_file + ": not a PEM certificate: " + error.message());
    }
    context->use_private_key_file(options.key_file, asio::ssl::context::pem, error);
    if (error) {
        throw input_error(options.key_file + ": not the certificate's PEM key: " + error.message());
    }
    return context;
}

} // namespace

listen_address listen_address::parse(const std::string &text)
{
    listen_address read;
    const size_t colon = text.rfind(':');
    const std::string host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    read.address = bracketed ? host.substr(1, host.size() - 2) : host;
    error_code error;
    asio::ip::make_address(read.address, error);
    const char *end = text.data() + text.size();
    const char *digits = colon == std::string::npos ? end : text.data() + colon + 1;
    const auto [stop, problem] = std::from_chars(digits, end, read.port);
    if (colon == std::string::npos || error || problem != std::errc{} || stop != end) {
        throw input_error("\"" + text + "\" is not ADDRESS:PORT with a numeric address");
    }
    return read;
}

struct server::state {
    state(service &served_, const server_options &options)
        : served(served_), tls(open_tls(options)), io(static_cast<int>(options.threads))
    {
        for (const listen_address &where : options.listeners) {
            listeners.push_back(open_listener(io, where, tls != nullptr));
        }
        for (listener &each : listeners) {
            asio::co_spawn(io, accept(each), asio::detached);
        }
        for (unsigned i = 0; i < options.threads; ++i) {
            threads.emplace_back([this] { io.run(); });
        }
    }

    ~state()
    {
        io.stop();
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    state(const state &) = delete;
    state &operator=(const state &) = delete;

    asio::awaitable<void> accept(listener &from)
    {
        for (;;) {
            error_code error;
            tcp::socket socket = co_await from.acceptor.async_accept(
                asio::redirect_error(asio::use_awaitable, error));
            if (error) {
                // Out of descriptors: those that are open may end.
                co_await pause(std::chrono::milliseconds(50));
                continue;
            }
            socket.set_option(tcp::no_delay(true), error);
            connection_facts facts{++connections, from.role,      from.origin,
                                   from.host,     tls != nullptr, false};
            if (tls) {
                asio::co_spawn(io, serve_tls(std::move(socket), *tls, std::move(facts), served),
                               asio::detached);
            } else {
                asio::co_spawn(io, serve_plain(std::move(socket), std::move(facts), served),
                               asio::detached);
            }
        }
    }

    service &served;
    std::unique_ptr<asio::ssl::context> tls;
    std::atomic<std::uint64_t> connections{0};
    asio::io_context io;
    std::vector<listener> listeners;
    std::vector<std::thread> threads;
};

server::server(service &served, const server_options &options)
    : state_(std::make_unique<state>(served, options))
{
}

server::~server() = default;

const std::string &server::origin(std::size_t listener) const
{
    return state_->listeners.at(listener).origin;
}

unsigned short server::port(std::size_t listener) const
{
    return state_->listeners.at(listener).port;
}

} // namespace graph_sim
