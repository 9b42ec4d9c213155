/*
 * Commands that set or tell parameters; none of them asks the storage.
 */
#include "commands.h"
#include "control_line.h"
#include "reply.h"

#include <charconv>

namespace tirval::server {
namespace {

/* The argument in capitals, for parameters that are words. */
std::string word(const std::string &argument)
{
    std::string capitals = argument;
    for (char &byte : capitals) {
        byte = byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
    }
    return capitals;
}

void set_facts(command_session_t &session, const std::string &list)
{
    const auto facts = fact_set_t::parse(list);
    if (!facts) {
        session.reply(single_reply(501, "Syntax: OPTS MLST fact;fact;..."));
        return;
    }
    session.state().facts = *facts;
    const std::string active = facts->list();
    session.reply(single_reply(200, active.empty() ? "MLST OPTS" : "MLST OPTS " + active));
}

void set_utf8(command_session_t &session, const std::string &setting)
{
    if (setting.empty() || setting == "ON") {
        session.reply(single_reply(200, "Always in UTF8 mode."));
    } else {
        session.reply(single_reply(501, "UTF8 mode cannot be turned off."));
    }
}

} // namespace

bool storage_has(const command_session_t &session, int descriptor_bits)
{
    return (session.storage().descriptor & descriptor_bits) == descriptor_bits;
}

bool offers_ranges(const command_session_t &session)
{
    return storage_has(session, TIRVAL_GFS_DSI_DESCRIPTOR_RANGES);
}

std::optional<std::int64_t> parse_number(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || text.starts_with('-')) {
        return std::nullopt;
    }
    return number;
}

void handle_allo(command_session_t &session, const std::string &argument)
{
    /* The record size of "bytes R size" has no meaning for files without records. */
    const command_text_t parts = split_command(argument);
    const auto bytes = parse_number(parts.verb);
    const command_text_t record = split_command(parts.argument);
    const bool record_fits =
        !parts.has_argument || (record.verb == "R" && parse_number(record.argument));
    if (!bytes || !record_fits) {
        session.reply(single_reply(501, "Syntax: ALLO bytes"));
        return;
    }
    session.state().announced_size = static_cast<std::uint64_t>(*bytes);
    session.reply(single_reply(200, "ALLO noted."));
}

void handle_clnt(command_session_t &session, const std::string &argument)
{
    log_debug("client program: %s", safe_text(argument).c_str());
    session.reply(single_reply(200, "Noted."));
}

void handle_feat(command_session_t &session, const std::string &)
{
    std::vector<std::string> features = {"UTF8", "TVFS", "EPSV", "EPRT", "SIZE", "MDTM", "CLNT"};
    if (offers_ranges(session)) {
        features.emplace_back("REST STREAM");
        features.emplace_back("RANG STREAM");
    }
    if (storage_has(session, TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES)) {
        features.emplace_back("MFMT");
    }
    features.push_back("MLST " + session.state().facts.feature_list());
    for (std::string &line : checksum_features(session)) {
        features.push_back(std::move(line));
    }
    session.reply(body_reply(211, "Extensions supported:", features, "End"));
}

void handle_mode(command_session_t &session, const std::string &argument)
{
    const std::string mode = word(argument);
    if (mode == "S") {
        session.reply(single_reply(200, "Mode set to S."));
    } else {
        session.reply(single_reply(mode.size() == 1 ? 504 : 501, "Only MODE S is offered."));
    }
}

void handle_noop(command_session_t &session, const std::string &)
{
    session.reply(single_reply(200, "OK."));
}

void handle_opts(command_session_t &session, const std::string &argument)
{
    const command_text_t option = split_command(argument);
    if (option.verb == "UTF8" || option.verb == "UTF-8") {
        set_utf8(session, word(option.argument));
    } else if (option.verb == "MLST") {
        set_facts(session, option.argument);
    } else if (option.verb == "CKSM") {
        set_checksum_options(session, option.argument);
    } else if (option.verb == "HASH") {
        set_hash_options(session, option.argument);
    } else {
        session.reply(single_reply(501, "No options for " + option.verb + "."));
    }
}

void handle_rest(command_session_t &session, const std::string &argument)
{
    const auto offset = parse_number(argument);
    if (!offset) {
        session.reply(single_reply(501, "Syntax: REST offset"));
    } else if (*offset != 0 && !offers_ranges(session)) {
        session.reply(single_reply(504, "The storage cannot restart transfers."));
    } else {
        session.state().restart_at = *offset;
        session.state().range.reset();
        session.reply(
            single_reply(350, "Restarting at " + std::to_string(*offset) + ". Send STOR or RETR."));
    }
}

void handle_stru(command_session_t &session, const std::string &argument)
{
    const std::string structure = word(argument);
    if (structure == "F") {
        session.reply(single_reply(200, "Structure set to F."));
    } else {
        session.reply(single_reply(structure.size() == 1 ? 504 : 501, "Only STRU F is offered."));
    }
}

void handle_syst(command_session_t &session, const std::string &)
{
    session.reply(single_reply(215, "UNIX Type: L8"));
}

void handle_type(command_session_t &session, const std::string &argument)
{
    const std::string type = word(argument);
    if (type == "I" || type == "L 8") {
        session.state().type = transfer_type_t::image;
        session.reply(single_reply(200, "Type set to I."));
    } else if (type == "A" || type == "A N" || type == "A T") {
        session.state().type = transfer_type_t::ascii;
        session.reply(single_reply(200, "Type set to A."));
    } else {
        session.reply(single_reply(504, "Only TYPE A, TYPE I and TYPE L 8 are offered."));
    }
}

std::string status_reply(const session_state_t &state, std::optional<std::uint64_t> bytes)
{
    std::vector<std::string> lines;
    if (state.logged_in) {
        lines.push_back("Logged in as " + safe_text(state.login_name));
        lines.push_back("Working directory: " + safe_text(state.cwd));
    } else {
        lines.emplace_back("Not logged in");
    }
    lines.push_back(state.type == transfer_type_t::ascii ? "TYPE: A; STRU: F; MODE: S"
                                                         : "TYPE: I; STRU: F; MODE: S");
    if (bytes) {
        lines.push_back("Transfer running, " + std::to_string(*bytes) + " bytes so far");
    } else {
        lines.emplace_back("No transfer running");
    }
    return body_reply(211, "Status:", lines, "End of status");
}

} // namespace tirval::server
