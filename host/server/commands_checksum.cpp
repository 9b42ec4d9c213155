/*
 * CKSM (GFD.47), and HASH and RANG of the drafts of the FTP extensions working group
 * (draft-bryan-ftpext-hash, draft-bryan-ftp-range).
 */
#include "checksum_names.h"
#include "checksum_run.h"
#include "commands.h"
#include "control_line.h"
#include "reply.h"
#include "vpath.h"

#include <algorithm>
#include <utility>

namespace tirval::server {
namespace {

/* More than five minutes between two signs of life would be none. */
constexpr std::int64_t longest_marker_interval = 300;

bool offers_checksums(const command_session_t &session)
{
    return storage_has(session, TIRVAL_GFS_DSI_DESCRIPTOR_CHECKSUMS);
}

bool refused_without_checksums(command_session_t &session)
{
    if (!offers_checksums(session)) {
        session.reply(single_reply(502, "The storage has no checksums."));
        return true;
    }
    return false;
}

/* Cuts the first word and the one blank behind it off `rest`. */
std::string_view take_word(std::string_view &rest)
{
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    return word;
}

/* ---- CKSM ---------------------------------------------------------------------------------- */

struct cksm_arguments_t {
    std::string_view algorithm;
    std::int64_t offset;
    std::int64_t length; /* -1: to the end */
    std::string_view path;
};

std::optional<cksm_arguments_t> parse_cksm(std::string_view text)
{
    cksm_arguments_t arguments{};
    arguments.algorithm = take_word(text);
    const auto offset = parse_number(take_word(text));
    const std::string_view length_word = take_word(text);
    const auto length = length_word == "-1" ? -1 : parse_number(length_word);
    if (!offset || !length || text.empty()) {
        return std::nullopt;
    }
    arguments.offset = *offset;
    arguments.length = *length;
    arguments.path = text;
    return arguments;
}

std::string cksm_reply(operation_context_t &context, checksum_request_t request)
{
    const auto found = context.storage.stat(request.path);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return failure_reply(*failure, request.path);
    }
    const auto &item = std::get<item_t>(found);
    if (item.is_folder()) {
        return single_reply(550, "Not a plain file: " + request.path);
    }
    if (request.offset > item.size || request.length > item.size - request.offset) {
        return single_reply(550, "Range beyond the end of the file: " + request.path);
    }
    request.size = item.size;
    const auto checksum = run_checksum(context, request);
    if (const auto *failure = std::get_if<failure_t>(&checksum)) {
        return failure_reply(*failure, request.path);
    }
    return single_reply(213, std::get<std::string>(checksum));
}

/* ---- HASH ---------------------------------------------------------------------------------- */

struct hash_job_t {
    checksum_name_t checksum;
    std::string name;                         /* as the client wrote it */
    std::string path;                         /* what it means */
    std::optional<std::string> unquoted_path; /* what it means without the quotes around it */
    std::optional<byte_range_t> range;
};

/* Describes the file.  Some clients put names with blanks in quotes, which may as well be part of
 * the name: only when there is no such item the quotes are taken off. */
std::variant<item_t, failure_t> find_file(storage_session_t &storage, hash_job_t &job)
{
    auto found = storage.stat(job.path);
    const auto *failure = std::get_if<failure_t>(&found);
    if (failure == nullptr || !failure->is_not_found() || !job.unquoted_path) {
        return found;
    }
    auto unquoted = storage.stat(*job.unquoted_path);
    if (std::holds_alternative<failure_t>(unquoted)) {
        return found;
    }
    job.path = *job.unquoted_path;
    return unquoted;
}

std::string hash_reply(operation_context_t &context, hash_job_t job)
{
    const auto found = find_file(context.storage, job);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return failure_reply(*failure, job.path);
    }
    const auto &item = std::get<item_t>(found);
    if (item.is_folder()) {
        return single_reply(553, "Not a plain file: " + job.path);
    }
    byte_range_t part{0, std::max<std::int64_t>(item.size - 1, 0)};
    if (job.range) {
        part = {job.range->first, std::min(job.range->last, item.size - 1)};
        if (part.first > part.last) {
            return single_reply(550, "Range beyond the end of the file: " + job.path);
        }
    }
    const checksum_request_t request{.algorithm = job.checksum.storage,
                                     .path = job.path,
                                     .size = item.size,
                                     .offset = part.first,
                                     .length = job.range ? part.last - part.first + 1 : -1,
                                     .marker_interval = std::chrono::seconds(0)};
    const auto hash = run_checksum(context, request);
    if (const auto *failure = std::get_if<failure_t>(&hash)) {
        return failure_reply(*failure, job.path);
    }
    return whole_reply(213, job.checksum.hash + " " + std::to_string(part.first) + "-" +
                                std::to_string(part.last) + " " + std::get<std::string>(hash) +
                                " " + job.name);
}

std::optional<std::string> unquoted_path(const std::string &cwd, const std::string &argument)
{
    if (argument.size() < 3 || !argument.starts_with('"') || !argument.ends_with('"')) {
        return std::nullopt;
    }
    return resolve_path(cwd, std::string_view(argument).substr(1, argument.size() - 2));
}

/* ---- RANG ---------------------------------------------------------------------------------- */

struct bounds_t {
    std::int64_t first;
    std::int64_t last;
    bool is_reset() const { return first == 1 && last == 0; }
};

std::optional<bounds_t> parse_bounds(std::string_view text)
{
    const auto first = parse_number(take_word(text));
    const auto last = parse_number(text);
    if (!first || !last) {
        return std::nullopt;
    }
    const bounds_t bounds{*first, *last};
    return bounds.first <= bounds.last || bounds.is_reset() ? std::optional(bounds) : std::nullopt;
}

} // namespace

/* ---- Handlers ------------------------------------------------------------------------------ */

void handle_cksm(command_session_t &session, const std::string &argument)
{
    if (refused_without_checksums(session)) {
        return;
    }
    const auto arguments = parse_cksm(argument);
    if (!arguments) {
        session.reply(single_reply(501, "Syntax: CKSM algorithm offset length path"));
        return;
    }
    const session_state_t &state = session.state();
    const auto checksum = find_checksum(state.checksums, arguments->algorithm);
    if (!checksum) {
        session.reply(single_reply(504, "Unknown algorithm: " + std::string(arguments->algorithm)));
        return;
    }
    const auto path = path_argument(session, std::string(arguments->path));
    if (!path) {
        return;
    }
    const checksum_request_t request{.algorithm = checksum->storage,
                                     .path = *path,
                                     .size = -1,
                                     .offset = arguments->offset,
                                     .length = arguments->length,
                                     .marker_interval = state.marker_interval};
    session.run(
        [request](operation_context_t &context) { return answer(cksm_reply(context, request)); });
}

void handle_hash(command_session_t &session, const std::string &argument)
{
    session_state_t &state = session.state();
    const auto range = std::exchange(state.range, std::nullopt);
    if (refused_without_checksums(session)) {
        return;
    }
    const auto checksum = chosen_hash(state.checksums, state.hash_name);
    if (!checksum) {
        session.reply(single_reply(502, "The storage has no checksums."));
        return;
    }
    if (range && state.type == transfer_type_t::ascii) {
        session.reply(single_reply(504, "RANG needs TYPE I."));
        return;
    }
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    const hash_job_t job{*checksum, argument, *path, unquoted_path(state.cwd, argument), range};
    session.run([job](operation_context_t &context) { return answer(hash_reply(context, job)); });
}

void handle_rang(command_session_t &session, const std::string &argument)
{
    session_state_t &state = session.state();
    const auto bounds = parse_bounds(argument);
    if (!bounds) {
        session.reply(single_reply(501, "Syntax: RANG first last"));
    } else if (bounds->is_reset()) {
        state.range.reset();
        state.restart_at = 0;
        session.reply(single_reply(350, "The whole file again."));
    } else if (!offers_ranges(session)) {
        session.reply(single_reply(504, "The storage cannot deliver parts of files."));
    } else {
        state.range = byte_range_t{bounds->first, bounds->last};
        state.restart_at = 0;
        session.reply(single_reply(350, "From " + std::to_string(bounds->first) + " to " +
                                            std::to_string(bounds->last) + ". Send RETR or HASH."));
    }
}

void set_checksum_options(command_session_t &session, const std::string &setting)
{
    std::string_view rest = setting;
    if (rest.ends_with(';')) {
        rest.remove_suffix(1);
    }
    const std::size_t equals = std::min(rest.find('='), rest.size());
    const command_text_t name = split_command(rest.substr(0, equals));
    const bool known = name.verb == "MARKERS" && !name.has_argument;
    rest.remove_prefix(std::min(equals + 1, rest.size()));
    const auto seconds = known ? parse_number(rest) : std::nullopt;
    if (!seconds || *seconds > longest_marker_interval) {
        session.reply(single_reply(501, "Syntax: OPTS CKSM markers=0..300;"));
        return;
    }
    session.state().marker_interval = std::chrono::seconds(*seconds);
    session.reply(single_reply(200, *seconds == 0 ? "No status markers."
                                                  : "Status markers every " +
                                                        std::to_string(*seconds) + " s."));
}

void set_hash_options(command_session_t &session, const std::string &setting)
{
    session_state_t &state = session.state();
    if (!state.logged_in) {
        session.reply(single_reply(530, "Log in with USER and PASS first."));
        return;
    }
    const auto found = setting.empty() ? chosen_hash(state.checksums, state.hash_name)
                                       : find_hash(state.checksums, setting);
    if (!found || !offers_checksums(session)) {
        session.reply(single_reply(501, "Unknown algorithm, nothing is changed."));
        return;
    }
    state.hash_name = found->hash;
    session.reply(single_reply(200, found->hash));
}

std::vector<std::string> checksum_features(command_session_t &session)
{
    const session_state_t &state = session.state();
    if (!offers_checksums(session) || parse_checksums(state.checksums).empty()) {
        return {};
    }
    return {"CKSM " + safe_text(state.checksums),
            "HASH " + safe_text(hash_feature_list(state.checksums, state.hash_name))};
}

} // namespace tirval::server
