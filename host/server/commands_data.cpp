/*
 * How the next data connection is made: PASV and PORT (RFC 959), EPSV and EPRT (RFC 2428).  Each of
 * them drops what an earlier one has set up.
 */
#include "commands.h"
#include "control_line.h"
#include "reply.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <vector>

namespace tirval::server {
namespace {

constexpr std::uint16_t first_unprivileged_port = 1024;

bool refused_after_epsv_all(command_session_t &session)
{
    if (session.state().extended_passive_only) {
        session.reply(single_reply(503, "Only EPSV is allowed after EPSV ALL."));
        return true;
    }
    return false;
}

/* Sets up a listener; replies and returns 0 when no port is free. */
std::uint16_t listen_for_client(command_session_t &session)
{
    session_state_t &state = session.state();
    state.data.reset(); /* first, so that its port is free again */
    state.data = listen_for_data(state.local, state.client, session.config().server.passive_ports);
    if (!state.data) {
        session.reply(single_reply(425, "No port is free for a data connection."));
        return 0;
    }
    return state.data->port;
}

/*
 * The address must be the client's own: otherwise the server could be made to talk to third parties
 * (RFC 2577).
 */
void connect_to_client(command_session_t &session, const socket_address_t &target,
                       std::string_view verb)
{
    session_state_t &state = session.state();
    state.data.reset();
    if (target.port() < first_unprivileged_port) {
        session.reply(single_reply(504, "Privileged port refused."));
    } else if (!target.same_host(state.client)) {
        session.reply(single_reply(501, "Foreign address refused."));
    } else {
        state.data = std::make_unique<data_endpoint_t>();
        state.data->target = target;
        state.data->local = state.local;
        state.data->client = state.client;
        session.reply(single_reply(200, std::string(verb) + " command successful."));
    }
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

/* Six numbers as PORT has them: the address, then the port's two bytes. */
std::optional<socket_address_t> parse_six_numbers(const std::string &argument)
{
    const std::vector<std::string> parts = split(argument, ',');
    if (parts.size() != 6) {
        return std::nullopt;
    }
    std::array<std::int64_t, 6> numbers{};
    for (std::size_t n = 0; n < numbers.size(); ++n) {
        const auto number = parse_number(parts[n]);
        if (!number || *number > 255) {
            return std::nullopt;
        }
        numbers[n] = *number;
    }
    std::string host = std::to_string(numbers[0]);
    for (std::size_t n = 1; n < 4; ++n) {
        host += "." + std::to_string(numbers[n]);
    }
    return socket_address_t::parse(AF_INET, host,
                                   static_cast<std::uint16_t>(numbers[4] * 256 + numbers[5]));
}

/* RFC 2428 wants the families that would work as a list at the end of the text. */
constexpr std::string_view all_families = "Network protocol not supported, use (1,2)";

std::string own_family(const session_state_t &state)
{
    return state.local.family() == AF_INET6 ? "Network protocol not supported, use (2)"
                                            : "Network protocol not supported, use (1)";
}

} // namespace

void handle_pasv(command_session_t &session, const std::string &)
{
    if (refused_after_epsv_all(session)) {
        return;
    }
    session_state_t &state = session.state();
    if (state.local.family() != AF_INET) {
        session.reply(single_reply(522, own_family(state)));
        return;
    }
    const std::uint16_t port = listen_for_client(session);
    if (port == 0) {
        return;
    }
    const std::string &configured = session.config().server.public_address;
    std::string host = configured.empty() ? state.local.host() : configured;
    std::replace(host.begin(), host.end(), '.', ',');
    session.reply(single_reply(227, "Entering Passive Mode (" + host + "," +
                                        std::to_string(port / 256) + "," +
                                        std::to_string(port % 256) + ")"));
}

void handle_epsv(command_session_t &session, const std::string &argument)
{
    session_state_t &state = session.state();
    if (argument.size() == 3 && split_command(argument).verb == "ALL") {
        state.extended_passive_only = true;
        if (state.data && !state.data->extended) {
            state.data.reset();
        }
        session.reply(single_reply(200, "EPSV ALL accepted; only EPSV from now on."));
        return;
    }
    if (!argument.empty()) {
        const auto family = parse_number(argument);
        if (!family) {
            session.reply(single_reply(501, "Syntax: EPSV [1|2|ALL]"));
            return;
        }
        if (*family != 1 && *family != 2) {
            session.reply(single_reply(522, all_families));
            return;
        }
        if ((*family == 2) != (state.local.family() == AF_INET6)) {
            session.reply(single_reply(522, own_family(state)));
            return;
        }
    }
    const std::uint16_t port = listen_for_client(session);
    if (port != 0) {
        state.data->extended = true;
        session.reply(
            single_reply(229, "Entering Extended Passive Mode (|||" + std::to_string(port) + "|)"));
    }
}

void handle_port(command_session_t &session, const std::string &argument)
{
    if (refused_after_epsv_all(session)) {
        return;
    }
    const auto target = parse_six_numbers(argument);
    if (!target) {
        session.reply(single_reply(501, "Syntax: PORT h1,h2,h3,h4,p1,p2"));
        return;
    }
    connect_to_client(session, *target, "PORT");
}

void handle_eprt(command_session_t &session, const std::string &argument)
{
    if (refused_after_epsv_all(session)) {
        return;
    }
    const char delimiter = argument.front();
    const std::vector<std::string> parts = split(argument, delimiter);
    const bool shaped = delimiter > ' ' && delimiter < 0x7F && parts.size() == 5 &&
                        parts.front().empty() && parts.back().empty();
    const auto family = shaped ? parse_number(parts[1]) : std::nullopt;
    const auto port = shaped ? parse_number(parts[3]) : std::nullopt;
    if (family && *family != 1 && *family != 2) {
        session.reply(single_reply(522, all_families));
        return;
    }
    std::optional<socket_address_t> target;
    if (family && port && *port > 0 && *port <= 65535) {
        target = socket_address_t::parse(*family == 1 ? AF_INET : AF_INET6, parts[2],
                                         static_cast<std::uint16_t>(*port));
    }
    if (!target) {
        session.reply(single_reply(501, "Syntax: EPRT |family|address|port|"));
        return;
    }
    connect_to_client(session, *target, "EPRT");
}

/* While an operation runs the session itself takes ABOR; here nothing runs. */
void handle_abor(command_session_t &session, const std::string &)
{
    session.state().data.reset();
    session.reply(single_reply(226, "No transfer in progress."));
}

std::optional<transfer_setup_t> take_transfer_setup(command_session_t &session)
{
    session_state_t &state = session.state();
    const std::int64_t restart_at = std::exchange(state.restart_at, 0);
    const auto range = std::exchange(state.range, std::nullopt);
    if (!state.data) {
        session.reply(single_reply(425, "Use PASV or PORT first."));
        return std::nullopt;
    }
    const std::chrono::milliseconds limit = session.config().server.data_timeout;
    transfer_setup_t setup;
    setup.endpoint = std::make_shared<std::unique_ptr<data_endpoint_t>>(std::move(state.data));
    setup.options.open_timeout = std::min(setup.options.open_timeout, limit);
    setup.options.stall_timeout = limit;
    setup.restart_at = restart_at;
    setup.range = range;
    return setup;
}

outcome_t run_transfer(operation_context_t &context, std::string_view verb, const std::string &path,
                       const std::function<std::string()> &transfer)
{
    const auto start = std::chrono::steady_clock::now();
    outcome_t outcome = answer(transfer());
    transfer_record_t record;
    record.verb = verb;
    record.path = path;
    record.bytes = context.bytes;
    record.duration = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    record.code = reply_code(outcome.reply);
    outcome.transfer = std::move(record);
    return outcome;
}

} // namespace tirval::server
