/*
 * Commands about one item of the tree, answered from one stat of it.
 */
#include "commands.h"
#include "reply.h"
#include "vpath.h"

namespace tirval::server {
namespace {

using describe_t = std::function<outcome_t(const item_t &item)>;

/* Runs a stat of `path` and lets `describe` answer; a failure answers by itself. */
void run_stat(command_session_t &session, const std::string &path, describe_t describe)
{
    session.run([path, describe = std::move(describe)](operation_context_t &context) {
        const auto found = context.storage.stat(path);
        if (const auto *failure = std::get_if<failure_t>(&found)) {
            return answer(failure_reply(*failure, path));
        }
        return describe(std::get<item_t>(found));
    });
}

void change_folder(command_session_t &session, const std::string &path)
{
    run_stat(session, path, [path](const item_t &item) {
        if (!item.is_folder()) {
            return answer(single_reply(550, "Not a directory: " + path));
        }
        outcome_t outcome = answer(single_reply(250, "Directory changed to " + path));
        outcome.cwd = path;
        return outcome;
    });
}

} // namespace

std::optional<std::string> path_argument(command_session_t &session, const std::string &argument)
{
    auto path = resolve_path(session.state().cwd, argument);
    if (!path) {
        session.reply(single_reply(550, "No name holds a line end: " + argument));
    }
    return path;
}

void handle_pwd(command_session_t &session, const std::string &)
{
    session.reply(path_reply(session.state().cwd, "is the current directory."));
}

void handle_cwd(command_session_t &session, const std::string &argument)
{
    if (const auto path = path_argument(session, argument)) {
        change_folder(session, *path);
    }
}

void handle_cdup(command_session_t &session, const std::string &)
{
    change_folder(session, parent_path(session.state().cwd));
}

void handle_size(command_session_t &session, const std::string &argument)
{
    if (session.state().type == transfer_type_t::ascii) {
        /* It would have to be the size after conversion, which takes reading the whole file. */
        session.reply(single_reply(550, "SIZE not available in ASCII mode"));
        return;
    }
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    run_stat(session, *path, [path = *path](const item_t &item) {
        return answer(item.is_folder() ? single_reply(550, "Not a plain file: " + path)
                                       : single_reply(213, std::to_string(item.size)));
    });
}

void handle_mdtm(command_session_t &session, const std::string &argument)
{
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    run_stat(session, *path, [path = *path](const item_t &item) {
        return answer(item.modified == 0 ? single_reply(550, "Modification time not known: " + path)
                                         : single_reply(213, time_value(item.modified)));
    });
}

void handle_mlst(command_session_t &session, const std::string &argument)
{
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    const session_state_t &state = session.state();
    run_stat(session, *path,
             [path = *path, facts = state.facts, owners = state.owners](const item_t &item) {
                 const std::string line =
                     facts_text(item, entry_kind_t::child, path, facts, owners) + " " + path;
                 return answer(body_reply(250, "Listing " + path, {line}, "End"));
             });
}

} // namespace tirval::server
