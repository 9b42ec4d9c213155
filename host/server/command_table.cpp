/*
 * One row a verb.  A verb that is known and not offered is told apart from one that is unknown: 502
 * and 500.
 */
#include "command_table.h"

#include "commands.h"
#include "reply.h"

#include <algorithm>
#include <array>

namespace tirval::server {
namespace {

constexpr auto none = argument_rule_t::none;
constexpr auto optional = argument_rule_t::optional;
constexpr auto required = argument_rule_t::required;
constexpr bool always = true;
constexpr bool after_login = false;

constexpr command_t not_offered(std::string_view verb, bool before_login)
{
    return {verb, nullptr, before_login, optional, ""};
}

constexpr std::array command_rows = {
    command_t{"ABOR", handle_abor, always, none, ""},
    command_t{"ALLO", handle_allo, after_login, required, "bytes"},
    command_t{"APPE", handle_appe, after_login, required, "path"},
    command_t{"CDUP", handle_cdup, after_login, none, ""},
    command_t{"CKSM", handle_cksm, after_login, required, "algorithm offset length path"},
    command_t{"CLNT", handle_clnt, always, required, "program"},
    command_t{"CWD", handle_cwd, after_login, required, "path"},
    command_t{"DELE", handle_dele, after_login, required, "path"},
    command_t{"EPRT", handle_eprt, after_login, required, "|family|address|port|"},
    command_t{"EPSV", handle_epsv, after_login, optional, "[1|2|ALL]"},
    command_t{"FEAT", handle_feat, always, none, ""},
    command_t{"HASH", handle_hash, after_login, required, "path"},
    command_t{"HELP", handle_help, always, optional, "[command]"},
    command_t{"LIST", handle_list, after_login, optional, "[path]"},
    command_t{"MDTM", handle_mdtm, after_login, required, "path"},
    command_t{"MFMT", handle_mfmt, after_login, required, "YYYYMMDDhhmmss path",
              TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES},
    command_t{"MKD", handle_mkd, after_login, required, "path"},
    command_t{"MLSD", handle_mlsd, after_login, optional, "[path]"},
    command_t{"MLST", handle_mlst, after_login, optional, "[path]"},
    command_t{"MODE", handle_mode, after_login, required, "S"},
    command_t{"NLST", handle_nlst, after_login, optional, "[path]"},
    command_t{"NOOP", handle_noop, always, optional, ""},
    command_t{"OPTS", handle_opts, always, required, "command [options]"},
    command_t{"PASS", handle_pass, always, optional, "password"},
    command_t{"PASV", handle_pasv, after_login, none, ""},
    command_t{"PORT", handle_port, after_login, required, "h1,h2,h3,h4,p1,p2"},
    command_t{"PWD", handle_pwd, after_login, none, ""},
    command_t{"QUIT", handle_quit, always, none, ""},
    command_t{"RANG", handle_rang, after_login, required, "first last"},
    command_t{"REST", handle_rest, after_login, required, "offset"},
    command_t{"RETR", handle_retr, after_login, required, "path"},
    command_t{"RMD", handle_rmd, after_login, required, "path"},
    command_t{"RNFR", handle_rnfr, after_login, required, "path"},
    command_t{"RNTO", handle_rnto, after_login, required, "path"},
    command_t{"SITE", handle_site, after_login, required, "command [arguments]"},
    command_t{"SIZE", handle_size, after_login, required, "path"},
    command_t{"STAT", handle_stat, always, optional, "[path]"},
    command_t{"STOR", handle_stor, after_login, required, "path"},
    command_t{"STOU", handle_stou, after_login, optional, "[path]"},
    command_t{"STRU", handle_stru, after_login, required, "F"},
    command_t{"SYST", handle_syst, always, none, ""},
    command_t{"TYPE", handle_type, after_login, required, "A|I|L 8"},
    command_t{"USER", handle_user, always, required, "name"},
    command_t{"XCUP", handle_cdup, after_login, none, ""},
    command_t{"XCWD", handle_cwd, after_login, required, "path"},
    command_t{"XMKD", handle_mkd, after_login, required, "path"},
    command_t{"XPWD", handle_pwd, after_login, none, ""},
    command_t{"XRMD", handle_rmd, after_login, required, "path"},
    not_offered("ABUF", after_login),
    not_offered("ACCT", always),
    not_offered("ADAT", always),
    not_offered("AUTH", always),
    not_offered("AVBL", after_login),
    not_offered("CCC", always),
    not_offered("CONF", always),
    not_offered("DCAU", after_login),
    not_offered("ENC", always),
    not_offered("ERET", after_login),
    not_offered("ESTO", after_login),
    not_offered("HOST", always),
    not_offered("LANG", always),
    not_offered("MFCT", after_login),
    not_offered("MFF", after_login),
    not_offered("MIC", always),
    not_offered("PBSZ", always),
    not_offered("PROT", always),
    not_offered("REIN", always),
    not_offered("SBUF", after_login),
    not_offered("SCKS", after_login),
    not_offered("SMNT", after_login),
    not_offered("SPAS", after_login),
    not_offered("SPOR", after_login),
};

bool is_offered(const command_session_t &session, const command_t &command)
{
    return command.handler != nullptr && storage_has(session, command.needs);
}

bool argument_fits(const command_t &command, const command_text_t &text)
{
    switch (command.argument) {
    case argument_rule_t::none:
        return text.argument.empty();
    case argument_rule_t::required:
        return !text.argument.empty();
    case argument_rule_t::optional:
        break;
    }
    return true;
}

/* RNTO follows RNFR at once; only what tells or does nothing may come between. */
bool ends_rename(const command_text_t &text)
{
    return text.verb != "RNTO" && text.verb != "NOOP" &&
           !(text.verb == "STAT" && text.argument.empty());
}

std::string syntax_text(const command_t &command)
{
    std::string text = "Syntax: " + std::string(command.verb);
    if (!command.syntax.empty()) {
        text.append(" ").append(command.syntax);
    }
    return text;
}

} // namespace

const command_t *find_command(std::string_view verb)
{
    const auto *found =
        std::find_if(command_rows.begin(), command_rows.end(),
                     [&](const command_t &command) { return command.verb == verb; });
    return found == command_rows.end() ? nullptr : found;
}

std::string loggable_text(const command_text_t &text)
{
    const command_t *command = find_command(text.verb);
    if (command == nullptr) {
        return "(unknown)"; /* a password that went astray, perhaps */
    }
    if (!text.has_argument) {
        return text.verb;
    }
    const bool secret = command->handler == nullptr || text.verb == "PASS";
    return text.verb + " " + (secret ? "***" : safe_text(text.argument));
}

std::vector<std::string_view> offered_verbs(const command_session_t &session)
{
    std::vector<std::string_view> verbs;
    for (const command_t &command : command_rows) {
        if (is_offered(session, command)) {
            verbs.push_back(command.verb);
        }
    }
    return verbs;
}

void dispatch_command(command_session_t &session, const command_text_t &text)
{
    if (ends_rename(text)) {
        session.state().rename_from.reset();
    }
    const command_t *command = find_command(text.verb);
    if (command == nullptr) {
        session.reply(single_reply(500, "Unknown command."));
    } else if (!command->before_login && !session.state().logged_in) {
        session.reply(single_reply(530, "Log in with USER and PASS first."));
    } else if (!is_offered(session, *command)) {
        session.reply(single_reply(502, std::string(command->verb) + " is not offered."));
    } else if (!argument_fits(*command, text)) {
        session.reply(single_reply(501, syntax_text(*command)));
    } else {
        command->handler(session, text.argument);
    }
}

void handle_help(command_session_t &session, const std::string &argument)
{
    if (argument.empty()) {
        std::vector<std::string> lines;
        for (const std::string_view verb : offered_verbs(session)) {
            lines.emplace_back(verb);
        }
        session.reply(body_reply(214, "Commands:", lines, "HELP command tells more."));
        return;
    }
    const command_t *command = find_command(split_command(argument).verb);
    if (command == nullptr) {
        session.reply(single_reply(501, "Unknown command."));
    } else if (!is_offered(session, *command)) {
        session.reply(single_reply(214, std::string(command->verb) + " is not offered."));
    } else if (command->verb == "SITE") {
        session.reply(site_help(session));
    } else {
        session.reply(single_reply(214, syntax_text(*command)));
    }
}

} // namespace tirval::server
