/*
 * SITE and its own small table of commands, and MFMT, which sets a time as SITE UTIME does.
 *
 * Some grid clients take any answer from 500 to 509 but 504 for "this server has no such command"
 * and do not ask again in the session: so a command that the storage cannot serve answers 504.
 */
#include "commands.h"
#include "control_line.h"
#include "reply.h"
#include "time_text.h"

#include <algorithm>
#include <array>

namespace tirval::server {
namespace {

using site_handler_t = void (*)(command_session_t &session, const std::string &argument);

struct site_command_t {
    std::string_view word; /* in capitals */
    site_handler_t handler;
    std::string_view syntax; /* of the argument */
    int needs;               /* bits of the storage's descriptor word: offered only with them */
};

void site_help_command(command_session_t &session, const std::string &argument);
void site_rdel(command_session_t &session, const std::string &argument);
void site_storattr(command_session_t &session, const std::string &argument);
void site_utime(command_session_t &session, const std::string &argument);
void site_chmod(command_session_t &session, const std::string &argument);

constexpr std::array site_commands = {
    site_command_t{"HELP", site_help_command, "", 0},
    site_command_t{"RDEL", site_rdel, "path", 0},
    site_command_t{"STORATTR", site_storattr, "[modify=YYYYMMDDhhmmss;]", 0},
    site_command_t{"UTIME", site_utime, "YYYYMMDDhhmm[ss] path",
                   TIRVAL_GFS_DSI_DESCRIPTOR_SETS_TIMES},
    site_command_t{"CHMOD", site_chmod, "mode path", TIRVAL_GFS_DSI_DESCRIPTOR_SETS_MODES},
};

const site_command_t *find_site_command(std::string_view word)
{
    const auto *found =
        std::find_if(site_commands.begin(), site_commands.end(),
                     [&](const site_command_t &command) { return command.word == word; });
    return found == site_commands.end() ? nullptr : found;
}

void reply_syntax(command_session_t &session, std::string_view word)
{
    const site_command_t &command = *find_site_command(word);
    session.reply(single_reply(501, "Syntax: SITE " + std::string(command.word) + " " +
                                        std::string(command.syntax)));
}

/* `text` cut at its first blank. */
struct two_parts_t {
    std::string first;
    std::string rest;
};

two_parts_t cut_first(const std::string &text)
{
    const std::size_t blank = text.find(' ');
    return blank == std::string::npos ? two_parts_t{text, ""}
                                      : two_parts_t{text.substr(0, blank), text.substr(blank + 1)};
}

/* ---- HELP, RDEL, STORATTR ------------------------------------------------------------------ */

void site_help_command(command_session_t &session, const std::string &)
{
    session.reply(site_help(session));
}

void site_rdel(command_session_t &session, const std::string &argument)
{
    if (argument.empty()) {
        reply_syntax(session, "RDEL");
    } else {
        remove_item(session, TIRVAL_GFS_CMD_SITE_RDEL, argument);
    }
}

bool is_modify(std::string_view name)
{
    return split_command(name).verb == "MODIFY";
}

/* Reads "modify=TIME;" into `modified`.  The reply to what is wrong, or nothing. */
std::optional<std::string> read_attributes(std::string_view list,
                                           std::optional<std::time_t> &modified)
{
    while (!list.empty()) {
        const std::string_view attribute = list.substr(0, list.find(';'));
        list.remove_prefix(std::min(attribute.size() + 1, list.size()));
        const std::size_t equals = attribute.find('=');
        if (equals == std::string_view::npos) {
            return single_reply(501, "Syntax: SITE STORATTR [modify=YYYYMMDDhhmmss;]");
        }
        const std::string_view name = attribute.substr(0, equals);
        if (!is_modify(name)) {
            return single_reply(504, "Unknown attribute: " + std::string(name));
        }
        modified = parse_time(attribute.substr(equals + 1));
        if (!modified) {
            return single_reply(501, "Invalid time value.");
        }
    }
    return std::nullopt;
}

void site_storattr(command_session_t &session, const std::string &argument)
{
    std::optional<std::time_t> modified;
    if (const auto problem = read_attributes(argument, modified)) {
        session.reply(*problem);
        return;
    }
    session.state().store_modified = modified;
    session.reply(single_reply(200, modified ? "The next file stored gets this time."
                                             : "The next file stored gets the time of its store."));
}

/* ---- MFMT, UTIME, CHMOD -------------------------------------------------------------------- */

/* Runs a command of the storage that changes an attribute of the item, and answers with `done`. */
void change_attribute(command_session_t &session, const tirval_gfs_command_info_t &command,
                      const std::string &path, const std::string &done)
{
    session.run([command, path, done](operation_context_t &context) {
        auto failure = context.storage.refresh(path);
        if (!failure) {
            tirval_gfs_command_info_t info = command;
            info.pathname = path.c_str();
            failure = run_change(context.storage, info);
        }
        return answer(failure ? failure_reply(*failure, path) : done);
    });
}

void set_time(command_session_t &session, std::time_t time, const std::string &path,
              const std::string &done)
{
    tirval_gfs_command_info_t info{};
    info.command = TIRVAL_GFS_CMD_SITE_UTIME;
    info.utime_time = time;
    change_attribute(session, info, path, done);
}

/* A time of SITE UTIME, whose seconds may be missing. */
std::optional<std::time_t> parse_utime(const std::string &text)
{
    constexpr std::size_t without_seconds = 12;
    return parse_time(text.size() == without_seconds ? text + "00" : text);
}

/* Cuts the last word off `text` and returns it; empty when there is only one. */
std::string take_last_word(std::string &text)
{
    const std::size_t blank = text.rfind(' ');
    if (blank == std::string::npos) {
        return "";
    }
    std::string word = text.substr(blank + 1);
    text.erase(blank);
    return word;
}

struct utime_t {
    std::string name; /* as the client wrote it */
    std::optional<std::time_t> time;
};

/* Either "TIME path" or "path ATIME MTIME CTIME UTC". */
utime_t read_utime(const std::string &argument)
{
    std::string name = argument;
    const bool utc = split_command(take_last_word(name)).verb == "UTC";
    const auto created = parse_utime(take_last_word(name));
    const auto modified = parse_utime(take_last_word(name));
    const auto accessed = parse_utime(take_last_word(name));
    if (utc && created && modified && accessed) {
        return {name, modified};
    }
    const two_parts_t parts = cut_first(argument);
    return {parts.rest, parse_utime(parts.first)};
}

void site_utime(command_session_t &session, const std::string &argument)
{
    const utime_t wanted = read_utime(argument);
    if (wanted.name.empty()) {
        reply_syntax(session, "UTIME");
    } else if (!wanted.time) {
        session.reply(single_reply(501, "Invalid time value."));
    } else if (const auto path = path_argument(session, wanted.name)) {
        set_time(session, *wanted.time, *path, single_reply(200, "UTIME command successful."));
    }
}

/* Three or four octal digits. */
std::optional<mode_t> parse_mode(std::string_view text)
{
    const bool fits = (text.size() == 3 || text.size() == 4) &&
                      text.find_first_not_of("01234567") == std::string_view::npos;
    if (!fits) {
        return std::nullopt;
    }
    mode_t mode = 0;
    for (const char digit : text) {
        mode = mode * 8 + static_cast<mode_t>(digit - '0');
    }
    return mode;
}

void site_chmod(command_session_t &session, const std::string &argument)
{
    const two_parts_t parts = cut_first(argument);
    const auto mode = parse_mode(parts.first);
    if (!mode || parts.rest.empty()) {
        reply_syntax(session, "CHMOD");
        return;
    }
    if (const auto path = path_argument(session, parts.rest)) {
        tirval_gfs_command_info_t info{};
        info.command = TIRVAL_GFS_CMD_SITE_CHMOD;
        info.chmod_mode = *mode;
        change_attribute(session, info, *path, single_reply(200, "CHMOD command successful."));
    }
}

} // namespace

std::string site_help(const command_session_t &session)
{
    std::vector<std::string> lines;
    for (const site_command_t &command : site_commands) {
        if (storage_has(session, command.needs)) {
            lines.emplace_back(command.word);
        }
    }
    return body_reply(214, "SITE commands:", lines, "End");
}

void handle_site(command_session_t &session, const std::string &argument)
{
    const command_text_t text = split_command(argument);
    const site_command_t *command = find_site_command(text.verb);
    if (command == nullptr) {
        session.reply(single_reply(500, "Unknown SITE command."));
    } else if (!storage_has(session, command->needs)) {
        session.reply(single_reply(504, "The storage does not offer SITE " + text.verb + "."));
    } else {
        command->handler(session, text.argument);
    }
}

void handle_mfmt(command_session_t &session, const std::string &argument)
{
    const two_parts_t parts = cut_first(argument);
    const auto time = parse_time(parts.first);
    if (parts.rest.empty()) {
        session.reply(single_reply(501, "Syntax: MFMT YYYYMMDDhhmmss path"));
    } else if (!time) {
        session.reply(single_reply(501, "Invalid time value."));
    } else if (const auto path = path_argument(session, parts.rest)) {
        set_time(session, *time, *path,
                 single_reply(213, "Modify=" + time_value(*time) + "; " + parts.rest));
    }
}

} // namespace tirval::server
