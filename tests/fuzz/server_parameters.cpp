/* The arguments of PORT, EPRT, OPTS and the other commands that only set something, and of those
 * that say more than a path before an operation runs.  An input is a command line. */
#include "fuzz.h"

#include "command_table.h"

#include "tirval_gridftp_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>

using namespace tirval::server;

namespace {

/* A session without a client: it keeps what is replied. */
class still_session_t : public command_session_t {
  public:
    still_session_t()
    {
        storage_.descriptor = 0x3F; /* all that a storage can offer */
        state_.logged_in = true;
        state_.local = *socket_address_t::parse(AF_INET, "192.0.2.1", 2811);
        state_.client = *socket_address_t::parse(AF_INET, "192.0.2.7", 40000);
    }
    session_state_t &state() override { return state_; }
    const config_t &config() const override { return config_; }
    const tirval_gfs_storage_iface_t &storage() const override { return storage_; }
    void reply(const std::string &text) override { replies.push_back(text); }
    void run(operation_t) override { replies.emplace_back("run"); }
    void log_in(const std::string &) override { replies.emplace_back("log_in"); }
    void leave(const std::string &) override { replies.emplace_back("leave"); }

    std::vector<std::string> replies;

  private:
    session_state_t state_;
    config_t config_;
    tirval_gfs_storage_iface_t storage_{};
};

constexpr std::array<std::string_view, 14> tried = {"PORT", "EPRT", "OPTS", "REST", "TYPE",
                                                    "MODE", "STRU", "ALLO", "HELP", "RANG",
                                                    "CKSM", "HASH", "SITE", "MFMT"};

bool is_answer(const std::string &reply)
{
    return reply == "run" || (fuzz::is_reply_text(reply, 2100) && reply.size() > 5);
}

void parse(std::string_view input)
{
    control_line_parser_t lines;
    lines.feed(std::string(input) + "\r\n");
    if (!lines.has_line()) {
        return;
    }
    const command_text_t command = split_command(lines.take_line().text);
    if (std::ranges::find(tried, command.verb) == tried.end()) {
        return;
    }
    still_session_t session;
    session.state().type = transfer_type_t::image;
    session.state().checksums = "QuickXORHex:1;SHA1:15;MD5:15;";
    dispatch_command(session, command);
    fuzz::require(session.replies.size() == 1, "a command has one reply");
    fuzz::require(is_answer(session.replies[0]), "a reply is lines without control bytes");
    const session_state_t &state = session.state();
    fuzz::require(!state.data || (state.data->target.same_host(state.client) &&
                                  state.data->target.port() >= 1024),
                  "data goes to the client's own host, and to no privileged port");
    fuzz::require((state.data != nullptr) == (session.replies[0].starts_with("200") &&
                                              (command.verb == "PORT" || command.verb == "EPRT")),
                  "an address that is accepted is set up");
    fuzz::require(state.restart_at >= 0, "a restart is in the file");
    fuzz::require(!state.range ||
                      (state.range->first >= 0 && state.range->last >= state.range->first),
                  "a range has bytes");
    fuzz::require(state.marker_interval.count() >= 0, "time goes on");
}

} // namespace

TIRVAL_FUZZ_ENTRY(Parameters,
                  (fuzz::entry{parse,
                               {"PORT 192,0,2,7,156,64",
                                "PORT 10,0,0,1,0,21",
                                "PORT 192,0,2,7,256,1",
                                "EPRT |1|192.0.2.7|40001|",
                                "EPRT |2|::ffff:192.0.2.7|40001|",
                                "EPRT |3|x|1|",
                                "EPRT ,1,192.0.2.7,65536,",
                                "OPTS MLST type;size;modify;UNIX.mode;",
                                "OPTS MLST",
                                "OPTS UTF8 ON",
                                "REST 9223372036854775807",
                                "REST -1",
                                "TYPE A N",
                                "TYPE L 8",
                                "MODE S",
                                "STRU F",
                                "ALLO 123 R 4",
                                "HELP port",
                                "RANG 0 99",
                                "RANG 1 0",
                                "RANG 9223372036854775807 9223372036854775807",
                                "CKSM MD5 0 -1 a b.txt",
                                "CKSM sha1 9223372036854775807 1 /x",
                                "CKSM MD5 0",
                                "HASH \"a b.txt\"",
                                "SITE HELP",
                                "SITE RDEL a",
                                "SITE CHMOD 0644 a",
                                "SITE STORATTR modify=20240229123000;",
                                "SITE UTIME 202402291230 a b",
                                "SITE UTIME a 20240115123000 20240115123000 20240115123000 UTC",
                                "MFMT 20230229000000 a",
                                "MFMT 99991231235959.999 a",
                                "OPTS HASH SHA-1",
                                "OPTS CKSM markers=5;"},
                               60000}))
