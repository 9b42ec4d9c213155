#include "ftp_client.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <stdexcept>

namespace tirval::tests {
namespace {

constexpr int patience_ms = 10'000;

bool readable_within(int descriptor, int milliseconds)
{
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, milliseconds) > 0;
}

void send_all(int descriptor, std::string_view bytes, int flags)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(descriptor, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
        if (sent < 0) {
            throw std::runtime_error("the server took nothing more");
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

bool ends_reply(const std::string &line, const std::string &first)
{
    return line.size() >= 4 && line[3] == ' ' && line.compare(0, 3, first, 0, 3) == 0;
}

} // namespace

std::string ftp_reply_t::text() const
{
    std::string all;
    for (const std::string &line : lines) {
        all += line + "\n";
    }
    return all;
}

void wait_readable(int descriptor)
{
    if (!readable_within(descriptor, patience_ms)) {
        throw std::runtime_error("nothing came within ten seconds");
    }
}

void ftp_client_t::send_raw(std::string_view bytes)
{
    send_all(connection_.get(), bytes, 0);
}

void ftp_client_t::send_urgent(std::string_view bytes)
{
    send_all(connection_.get(), bytes, MSG_OOB);
}

void ftp_client_t::send_line(std::string_view line)
{
    send_raw(std::string(line) + "\r\n");
}

std::string ftp_client_t::read_line()
{
    for (;;) {
        const std::size_t end = received_.find("\r\n");
        if (end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 2);
            return line;
        }
        wait_readable(connection_.get());
        std::array<char, 4096> block{};
        const ssize_t got = recv(connection_.get(), block.data(), block.size(), 0);
        if (got <= 0) {
            throw std::runtime_error("the server closed the control connection after \"" +
                                     received_ + "\"");
        }
        received_.append(block.data(), static_cast<std::size_t>(got));
    }
}

ftp_reply_t ftp_client_t::read_reply()
{
    ftp_reply_t reply;
    reply.lines.push_back(read_line());
    const std::string first = reply.lines.front();
    if (first.size() < 4) {
        throw std::runtime_error("not a reply: \"" + first + "\"");
    }
    std::from_chars(first.data(), first.data() + 3, reply.code);
    if (first[3] == '-') {
        while (!ends_reply(reply.lines.back(), first)) {
            reply.lines.push_back(read_line());
        }
    }
    return reply;
}

ftp_reply_t ftp_client_t::ask(std::string_view line)
{
    send_line(line);
    return read_reply();
}

bool ftp_client_t::closed_by_server()
{
    wait_readable(connection_.get());
    char byte = 0;
    return received_.empty() && recv(connection_.get(), &byte, 1, 0) <= 0;
}

bool ftp_client_t::is_quiet_for(int milliseconds)
{
    return received_.empty() && !readable_within(connection_.get(), milliseconds);
}

void ftp_client_t::close_sending_side()
{
    shutdown(connection_.get(), SHUT_WR);
}

void ftp_client_t::log_in()
{
    if (read_reply().code != 220 || code_of("USER anna") != 331 || code_of("PASS secret") != 230) {
        throw std::runtime_error("the log-in failed");
    }
}

std::uint16_t ftp_client_t::passive()
{
    const ftp_reply_t reply = ask("PASV");
    std::array<unsigned, 6> n{};
    const std::size_t start = reply.last().find('(');
    if (reply.code != 227 || start == std::string::npos ||
        std::sscanf(reply.last().c_str() + start, "(%u,%u,%u,%u,%u,%u)", &n[0], &n[1], &n[2], &n[3],
                    &n[4], &n[5]) != 6) {
        throw std::runtime_error("no passive mode: " + reply.text());
    }
    return static_cast<std::uint16_t>(n[4] * 256 + n[5]);
}

std::uint16_t ftp_client_t::extended_passive()
{
    const ftp_reply_t reply = ask("EPSV");
    unsigned port = 0;
    const std::size_t start = reply.last().find('(');
    if (reply.code != 229 || start == std::string::npos ||
        std::sscanf(reply.last().c_str() + start, "(|||%u|)", &port) != 1) {
        throw std::runtime_error("no extended passive mode: " + reply.text());
    }
    return static_cast<std::uint16_t>(port);
}

server::unique_fd_t ftp_client_t::connect_data(std::uint16_t port, const std::string &source)
{
    server::unique_fd_t made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto from = server::socket_address_t::parse(AF_INET, source, 0);
    const auto to = server::socket_address_t::parse(AF_INET, "127.0.0.1", port);
    if (bind(made.get(), from->data(), from->size()) != 0 ||
        connect(made.get(), to->data(), to->size()) != 0) {
        return {};
    }
    return made;
}

ftp_client_t::transfer_t ftp_client_t::transfer(std::string_view command)
{
    transfer_t result;
    const server::unique_fd_t data = connect_data(extended_passive());
    const ftp_reply_t first = ask(command);
    result.opening = result.final = first.code;
    result.opening_text = result.final_text = first.text();
    if (first.code == 150) {
        result.data = read_to_end(data.get());
        const ftp_reply_t last = read_reply();
        result.final = last.code;
        result.final_text = last.text();
    }
    return result;
}

ftp_client_t::transfer_t ftp_client_t::store(std::string_view command, std::string_view data)
{
    transfer_t result;
    server::unique_fd_t connection = connect_data(extended_passive());
    const ftp_reply_t first = ask(command);
    result.opening = result.final = first.code;
    result.opening_text = result.final_text = first.text();
    if (first.code == 150) {
        send_to_peer(connection.get(), data);
        connection.reset();
        const ftp_reply_t last = read_reply();
        result.final = last.code;
        result.final_text = last.text();
    }
    return result;
}

void send_to_peer(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string read_to_end(int descriptor)
{
    std::string all;
    std::vector<char> block(65536);
    for (;;) {
        wait_readable(descriptor);
        const ssize_t got = recv(descriptor, block.data(), block.size(), 0);
        if (got <= 0) {
            return all;
        }
        all.append(block.data(), static_cast<std::size_t>(got));
    }
}

} // namespace tirval::tests
