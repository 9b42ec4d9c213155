/*
 * A scripted FTP client over real sockets.  It waits for what it expects and throws when that does
 * not come within ten seconds, so that no test hangs.
 */
#ifndef TIRVAL_TESTS_SERVER_FTP_CLIENT_H
#define TIRVAL_TESTS_SERVER_FTP_CLIENT_H

#include "socket_address.h"
#include "unique_fd.h"

#include <string>
#include <string_view>
#include <vector>

namespace tirval::tests {

struct ftp_reply_t {
    int code = 0;
    std::vector<std::string> lines; /* whole, without CR LF */
    std::string last() const { return lines.empty() ? "" : lines.back(); }
    std::string text() const; /* all lines, each ended by LF */
};

class ftp_client_t {
  public:
    explicit ftp_client_t(server::unique_fd_t connection) : connection_(std::move(connection)) {}

    int descriptor() const { return connection_.get(); }
    server::socket_address_t local() const
    {
        return server::socket_address_t::local_of(connection_.get());
    }

    void send_raw(std::string_view bytes);
    void send_urgent(std::string_view bytes);
    void send_line(std::string_view line);
    ftp_reply_t read_reply();
    /* Sends a command and reads one reply. */
    ftp_reply_t ask(std::string_view line);
    int code_of(std::string_view line) { return ask(line).code; }

    /* Waits for the server to close; true when nothing came before. */
    bool closed_by_server();
    /* Whether nothing comes within the time. */
    bool is_quiet_for(int milliseconds);
    void close_connection() { connection_.reset(); }
    void close_sending_side();

    /* Log-in as the harness's user. */
    void log_in();

    /* PASV or EPSV, and the port told. */
    std::uint16_t passive();
    std::uint16_t extended_passive();
    /* A connection to the port on 127.0.0.1, from the given address. */
    static server::unique_fd_t connect_data(std::uint16_t port,
                                            const std::string &source = "127.0.0.1");

    struct transfer_t {
        int opening = 0; /* the code of the first reply */
        int final = 0;   /* of the last; the same when there was only one */
        std::string data;
        std::string opening_text;
        std::string final_text;
    };
    /* EPSV, the command, the data to its end, the replies. */
    transfer_t transfer(std::string_view command);
    /* EPSV, the command, the data and its end, the replies.  A server may refuse to take it all. */
    transfer_t store(std::string_view command, std::string_view data);

  private:
    std::string read_line();

    server::unique_fd_t connection_;
    std::string received_;
};

/* Sends all of it, or as much as the peer takes. */
void send_to_peer(int descriptor, std::string_view bytes);
/* Everything until the peer closes. */
std::string read_to_end(int descriptor);
/* Waits until the descriptor is readable; throws after ten seconds. */
void wait_readable(int descriptor);

} // namespace tirval::tests

#endif
