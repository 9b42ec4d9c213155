/*
 * Commands that make, delete and rename items.
 *
 * A storage looks an item up in what it remembers before it asks the service, and it may take an
 * answer for success that was none, or forget an item that is still there.  So each change first
 * asks for the item, which costs nothing that the change itself would not need, and looks again
 * where the answer leaves doubt.
 */
#include "commands.h"
#include "path_rules.h"
#include "reply.h"
#include "utf8.h"
#include "vpath.h"

#include "tirval_dsi_rest.h"

#include <utility>

namespace tirval::server {
namespace {

constexpr int http_conflict = 409;

enum class presence_t { there, gone, unknown };

/* What the service itself shows of the item; to it, names that differ in case only are the same.
 * Also brings an item back into what the storage remembers, when the session cannot be opened anew.
 */
presence_t look_afresh(storage_session_t &storage, const std::string &path)
{
    storage.distrust();
    if (storage.refresh(path)) {
        return presence_t::unknown;
    }
    const std::string_view wanted = base_name(path);
    bool there = false;
    const auto failure = storage.list(
        parent_path(path), [&](const item_t &, std::string_view name, entry_kind_t kind) {
            there = there || (kind == entry_kind_t::child && equal_without_case(name, wanted));
        });
    if (there) {
        return presence_t::there;
    }
    return failure && !failure->is_not_found() ? presence_t::unknown : presence_t::gone;
}

tirval_gfs_command_info_t make_command(tirval_gfs_command_type_t type, const std::string &path)
{
    tirval_gfs_command_info_t info{};
    info.command = static_cast<std::uint32_t>(type);
    info.pathname = path.c_str();
    info.cksm_length = -1;
    return info;
}

failure_t exists_failure(int code)
{
    return {.code = code, .tag = "PATH_EXISTS", .lines = {}, .reason = "File exists"};
}

/* A service that finds the name taken, though the storage did not know it: then that is the
 * failure, if it is true. */
void explain_conflict(storage_session_t &storage, const std::string &path, int code,
                      failure_t &failure)
{
    const bool conflict = tirval_dsi_rest_last_status() == http_conflict;
    if (conflict && look_afresh(storage, path) == presence_t::there) {
        failure = exists_failure(code);
    }
}

/* ---- MKD ----------------------------------------------------------------------------------- */

outcome_t make_folder(storage_session_t &storage, const std::string &path)
{
    const auto found = storage.stat(path);
    const auto *missing = std::get_if<failure_t>(&found);
    if (missing == nullptr) {
        return answer(failure_reply(exists_failure(550), path));
    }
    if (!missing->is_not_found()) {
        return answer(failure_reply(*missing, path));
    }
    auto info = make_command(TIRVAL_GFS_CMD_MKD, path);
    auto failure = run_change(storage, info);
    if (!failure) {
        return answer(path_reply(path, "created."));
    }
    explain_conflict(storage, path, 550, *failure);
    return answer(failure_reply(*failure, path));
}

/* ---- RMD, DELE, SITE RDEL ------------------------------------------------------------------ */

failure_t careful_failure(std::string_view reason)
{
    failure_t failure = make_failure(550, reason);
    failure.lines.emplace_back("SITE RDEL deletes a folder with all that it holds");
    return failure;
}

/* FTP's usual care: DELE is for files, RMD for empty folders. */
std::optional<failure_t> check_removal(storage_session_t &storage, tirval_gfs_command_type_t by,
                                       const item_t &item, const std::string &path)
{
    if (by == TIRVAL_GFS_CMD_DELE && item.is_folder()) {
        return careful_failure("Is a directory");
    }
    if (by != TIRVAL_GFS_CMD_RMD) {
        return std::nullopt;
    }
    if (!item.is_folder()) {
        return make_failure(550, "Not a directory");
    }
    bool empty = true;
    auto failure = storage.list(path, [&](const item_t &, std::string_view, entry_kind_t kind) {
        empty = empty && kind != entry_kind_t::child;
    });
    return empty ? failure : careful_failure("Directory not empty");
}

/* A refusal without a body looks like success to the storage. */
std::optional<failure_t> check_removed(storage_session_t &storage, const std::string &path)
{
    switch (look_afresh(storage, path)) {
    case presence_t::there:
        return make_failure(450, "The storage service has not deleted it");
    case presence_t::unknown:
        return make_failure(450, "The storage service did not confirm that it is deleted");
    case presence_t::gone:
        break;
    }
    return std::nullopt;
}

/* The item exists, and may be deleted. */
std::optional<failure_t> remove_existing(storage_session_t &storage, tirval_gfs_command_type_t by,
                                         const item_t &item, const std::string &path)
{
    auto info = make_command(by, path);
    auto failure = run_change(storage, info);
    const bool confirmed = tirval_dsi_rest_last_status() / 100 == 2;
    if (by != TIRVAL_GFS_CMD_DELE || item.is_folder()) {
        storage.distrust(); /* it remembers what was in the folder */
    }
    if (!failure) {
        return confirmed ? std::nullopt : check_removed(storage, path);
    }
    if (storage.keeps_store()) {
        look_afresh(storage, path); /* the storage has forgotten an item that may be there */
    }
    return failure;
}

outcome_t remove_path(storage_session_t &storage, tirval_gfs_command_type_t by, bool checks,
                      const std::string &path)
{
    const auto found = storage.stat(path);
    if (const auto *missing = std::get_if<failure_t>(&found)) {
        return answer(failure_reply(*missing, path));
    }
    const auto &item = std::get<item_t>(found);
    auto failure = checks ? check_removal(storage, by, item, path) : std::nullopt;
    if (!failure) {
        failure = remove_existing(storage, by, item, path);
    }
    return answer(failure ? failure_reply(*failure, path) : single_reply(250, "Deleted " + path));
}

/* ---- RNFR, RNTO ---------------------------------------------------------------------------- */

outcome_t begin_rename(storage_session_t &storage, const std::string &path)
{
    const auto found = storage.stat(path);
    if (const auto *missing = std::get_if<failure_t>(&found)) {
        return answer(failure_reply(*missing, path));
    }
    outcome_t outcome = answer(single_reply(350, "Send RNTO with the new name."));
    outcome.rename_from = path;
    return outcome;
}

outcome_t rename_path(storage_session_t &storage, const std::string &from, const std::string &to)
{
    const auto found = storage.stat(from);
    if (const auto *missing = std::get_if<failure_t>(&found)) {
        return answer(failure_reply(*missing, from));
    }
    if (const auto failure = storage.refresh(to)) {
        return answer(failure_reply(*failure, to));
    }
    auto info = make_command(TIRVAL_GFS_CMD_RNTO, to);
    info.from_pathname = from.c_str();
    auto failure = run_change(storage, info);
    if (failure) {
        explain_conflict(storage, to, 553, *failure);
        return answer(failure_reply(*failure, to));
    }
    if (std::get<item_t>(found).is_folder() || parent_path(from) != parent_path(to)) {
        storage.distrust(); /* it remembers what was in the folder, or where the item was not put */
    }
    return answer(single_reply(250, "Renamed to " + to));
}

} // namespace

std::optional<failure_t> run_change(storage_session_t &storage, tirval_gfs_command_info_t &info)
{
    operation_host_t host(storage.settings());
    auto failure = storage.command(info, host);
    if (info.from_pathname != nullptr) {
        storage.note_change(info.from_pathname);
    }
    storage.note_change(info.pathname);
    if (failure) {
        storage.distrust();
    }
    return failure;
}

void remove_item(command_session_t &session, tirval_gfs_command_type_t by,
                 const std::string &argument)
{
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    if (is_fixed_place(*path)) {
        session.reply(
            single_reply(550, "Virtual folders, sites and libraries cannot be deleted: " + *path));
        return;
    }
    session.run([by, path = *path,
                 checks = session.config().storage.delete_checks](operation_context_t &context) {
        return remove_path(context.storage, by, checks, path);
    });
}

void handle_mkd(command_session_t &session, const std::string &argument)
{
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    if (const auto refusal = refuse_new_path(*path)) {
        session.reply(*refusal);
        return;
    }
    session.run([path = *path](operation_context_t &context) {
        return make_folder(context.storage, path);
    });
}

void handle_rmd(command_session_t &session, const std::string &argument)
{
    remove_item(session, TIRVAL_GFS_CMD_RMD, argument);
}

void handle_dele(command_session_t &session, const std::string &argument)
{
    remove_item(session, TIRVAL_GFS_CMD_DELE, argument);
}

void handle_rnfr(command_session_t &session, const std::string &argument)
{
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    if (is_fixed_place(*path)) {
        session.reply(
            single_reply(550, "Virtual folders, sites and libraries cannot be renamed: " + *path));
        return;
    }
    session.run([path = *path](operation_context_t &context) {
        return begin_rename(context.storage, path);
    });
}

void handle_rnto(command_session_t &session, const std::string &argument)
{
    const auto from = std::exchange(session.state().rename_from, std::nullopt);
    if (!from) {
        session.reply(single_reply(503, "Send RNFR first."));
        return;
    }
    const auto to = path_argument(session, argument);
    if (!to) {
        return;
    }
    if (const auto refusal = refuse_new_path(*to)) {
        session.reply(*refusal);
    } else if (*to == *from) {
        session.reply(single_reply(250, "Renamed to " + *to));
    } else if (parent_path(*to) != parent_path(*from) &&
               !session.config().storage.pass_renames_across_folders) {
        session.reply(
            single_reply(553, "A rename keeps its folder, items cannot be moved: " + *to));
    } else {
        session.run([from = *from, to = *to](operation_context_t &context) {
            return rename_path(context.storage, from, to);
        });
    }
}

} // namespace tirval::server
