// Opening upload sessions, and their fragments.
#include "upload_sessions.h"

#include "errors.h"
#include "uploads.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>

namespace graph_sim {

namespace {

using std::chrono::milliseconds;

// "bytes a-b/total" of a fragment.
struct content_range {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t total = 0;

    [[nodiscard]] std::uint64_t length() const { return last - first + 1; }
};

[[noreturn]] void invalid(const std::string &message, const std::string &inner = {})
{
    throw api_error(400, "invalidRequest", message, inner);
}

bool take_number(std::string_view &text, std::uint64_t &number, std::string_view behind)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
    if (error != std::errc{} || !text.starts_with(behind)) {
        return false;
    }
    text.remove_prefix(behind.size());
    return true;
}

content_range read_range(const request &got)
{
    const std::string *header = got.headers.find("Content-Range");
    content_range read;
    constexpr std::string_view unit = "bytes ";
    bool good = header != nullptr && header->starts_with(unit);
    if (good) {
        std::string_view text = *header;
        text.remove_prefix(unit.size());
        good = take_number(text, read.first, "-") && take_number(text, read.last, "/") &&
               take_number(text, read.total, "") && text.empty() && read.first <= read.last &&
               read.last < read.total;
    }
    if (!good) {
        invalid("The Content-Range header is missing or malformed.");
    }
    return read;
}

std::string_view id_in(std::string_view target)
{
    const std::string_view path = target.substr(0, target.find('?'));
    return path.substr(std::min(upload_prefix.size(), path.size()));
}

milliseconds lifetime_of(const settings &options, flavour kind)
{
    constexpr auto work = std::chrono::minutes(15);
    constexpr auto consumer = std::chrono::hours(24 * 7);
    return options.session_lifetime.value_or(is_personal(kind) ? milliseconds(consumer)
                                                               : milliseconds(work));
}

// The session of an upload address, once the request may use it.
upload_session &session_of(const upload_request &context)
{
    const request &got = context.got;
    if (context.options.upload_refuses_bearer && got.headers.find("Authorization") != nullptr) {
        throw api_error(401, "unauthenticated", "This access token is not valid on this endpoint.");
    }
    upload_session *found = context.sessions.find(id_in(got.target), context.resources.now);
    if (found == nullptr) {
        throw api_error(404, "itemNotFound", "The upload session was not found",
                        "uploadSessionNotFound");
    }
    if (found->target != got.target) {
        throw api_error(401, "unauthenticated", "The access token is not valid.");
    }
    return *found;
}

// What is still missing, as nextExpectedRanges tells it; an empty value leaves the member out.
json expected_ranges(const upload_session &session, const settings &options)
{
    const std::string &form = options.expected_ranges;
    if (form == "missing") {
        return {};
    }
    json ranges = json::array();
    const std::uint64_t next = session.data.size();
    if (form == "empty" || next == session.total) {
        return ranges;
    }
    const auto size = session.total ? session.total : session.file_size;
    const bool closed = form == "closed" || (form == "auto" && is_personal(session.home->kind()));
    const std::string end = closed && size ? std::to_string(*size - 1) : "";
    return ranges.append(json::text(std::to_string(next) + "-" + end));
}

json describe(const upload_session &session, const settings &options)
{
    json body = json::object();
    body.set("expirationDateTime", iso_time(session.expires, true))
        .set("nextExpectedRanges", expected_ranges(session, options));
    return body;
}

// Everything that a fragment's head can get wrong.
content_range judge(const upload_session &session, const upload_request &context)
{
    const request &got = context.got;
    const settings &options = context.options;
    if (got.is_chunked()) {
        invalid("The size of the stream is not known: Content-Length is required.");
    }
    const content_range range = read_range(got);
    if (got.announced_length() != range.length()) {
        invalid("The Content-Range header length does not match the provided number of bytes.");
    }
    const auto total = session.total ? session.total : session.file_size;
    if (total.value_or(range.total) != range.total) {
        invalid("The current session is for " + std::to_string(*total) +
                    " total bytes but fragment declares " + std::to_string(range.total) + ".",
                "fragmentLengthMismatch");
    }
    if (range.total > options.largest_file) {
        invalid("The file is too large.", "maxFileSizeExceeded");
    }
    if (range.length() >= options.fragment_limit) {
        invalid("The fragment is too large.", "maxFragmentLengthExceeded");
    }
    if (range.first < session.data.size()) {
        throw api_error(416, "invalidRange",
                        range.last < session.data.size()
                            ? "The uploaded fragment has already been received."
                            : "Uploaded fragment overlaps with existing data.",
                        "fragmentOverlap");
    }
    if (range.first > session.data.size()) {
        throw api_error(416, "invalidRange", "Uploaded fragment is out of order.",
                        "fragmentOutOfOrder");
    }
    if (range.last + 1 != range.total && range.length() % options.fragment_multiple != 0) {
        invalid("The fragment is not the last one, and its length is not a multiple of " +
                std::to_string(options.fragment_multiple) + " bytes.");
    }
    return range;
}

// Makes the file and ends the session; a refusal leaves it open.
response commit(const upload_request &context, upload_session &session)
{
    drive &home = *session.home;
    const write_context writing{context.all,  context.options,   context.got,
                                *session.who, context.resources, context.sessions};
    // Folder and file may have been moved, deleted or locked since the session was opened.
    const route address{.kind = request_kind::fragment,
                        .drive = {drive_address::by::id, home.id()},
                        .item = {session.parent_id, {session.name}, true}};
    const write_target target = find_target(writing, address);
    item *there = target.there();
    if (session.match && (there == nullptr || (*session.match != there->etag(home.kind()) &&
                                               *session.match != there->ctag(home.kind())))) {
        throw api_error(412, "resourceModified", "ETag does not match current item's value");
    }
    if (there != nullptr && (there->folder || session.wanted == conflict::fail)) {
        throw api_error(409, "nameAlreadyExists",
                        "Another file exists with the same name as the uploaded session.");
    }
    require_space(home, session.data.size());
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the folder was addressed, so it is there
    item &parent = there != nullptr ? *there->parent : *target.last;
    const new_file file{session.name, std::move(session.data).finish(), session.wanted,
                        session.client_times};
    response reply = store_file(writing, home, parent, file);
    context.sessions.close(std::string(session.id));
    return reply;
}

// ---- opening ----

// The work stores refuse what they do not know in "item"; the consumer store passes over it.
void check_members(const json &described, flavour kind)
{
    static constexpr std::array<std::string_view, 6> known{
        "@microsoft.graph.conflictBehavior",
        "@name.conflictBehavior",
        "name",
        "fileSize",
        "fileSystemInfo",
        "description",
    };
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(described.get(), key, value)
    {
        if (!is_personal(kind) && std::ranges::find(known, key) == known.end()) {
            invalid("The property '" + std::string(key) +
                    "' does not exist on type 'driveItemUploadableProperties'.");
        }
    }
}

json item_member(const json &body)
{
    json described = body.at("item");
    if (described && !json_is_object(described.get()) && !json_is_null(described.get())) {
        invalid("One of the provided arguments is not acceptable.");
    }
    return json_is_object(described.get()) ? described : json::object();
}

void check_item_name(const json &described, const std::string &name)
{
    const json given = described.at("name");
    if (given && given.as_text() != name) {
        invalid("Name specified in the path doesn't match the name specified in the request body.");
    }
}

std::optional<std::uint64_t> file_size_of(const json &described, const settings &options)
{
    const json given = described.at("fileSize");
    if (!given) {
        return std::nullopt;
    }
    if (!json_is_integer(given.get()) || given.as_integer() < 0) {
        invalid("One of the provided arguments is not acceptable.");
    }
    const auto size = static_cast<std::uint64_t>(given.as_integer());
    if (size > options.largest_file) {
        invalid("The file is too large.", "maxFileSizeExceeded");
    }
    return size;
}

void check_tags(const write_context &context, const drive &home, const item *there)
{
    check_if_match(context, home, there);
    const std::string *unwanted = context.got.headers.find("If-None-Match");
    if (there != nullptr && unwanted != nullptr &&
        (*unwanted == "*" || *unwanted == there->etag(home.kind()) ||
         *unwanted == there->ctag(home.kind()))) {
        throw api_error(412, "resourceModified", "ETag does not match current item's value");
    }
}

std::string address_of(const std::string &id, conflict wanted)
{
    return std::string(upload_prefix) + id + "?guid='" + guid::random().lower() +
           "'&overwrite=" + (wanted == conflict::replace ? "True" : "False") +
           "&rename=" + (wanted == conflict::rename ? "True" : "False") + "&dc=0&tempauth=v1." +
           base64url(bytes_of(random_bytes(32)));
}

// The folder into which the file comes; makes those that are missing.
item &folder_for(const write_context &context, write_target &target)
{
    if (item *there = target.there()) {
        return *there->parent;
    }
    check_new_name(target);
    return make_parents(context, target);
}

// An address that cannot become a file.
void check_address(const write_target &target, const route &asked)
{
    if (is_personal(target.home->kind()) && asked.item.path.empty()) {
        invalid("File name not provided in url");
    }
    if (target.there() != nullptr && target.there()->folder) {
        name_taken();
    }
}

response opened(const write_context &context, const upload_session &session)
{
    json body = json::object();
    body.set("@odata.context",
             context.got.origin + "/v1.0/$metadata#microsoft.graph.uploadSession");
    const json state = describe(session, context.options);
    json_object_update(body.get(), state.get());
    body.set("uploadUrl", context.resources.download_origin + session.target);
    return json_response(200, body, context.got, context.options.chunked_json);
}

} // namespace

// ---- the store ----

void upload_session_store::drop_expired(timestamp now)
{
    std::erase_if(sessions_, [now](const auto &entry) { return entry.second.expires <= now; });
}

upload_session *upload_session_store::find(std::string_view id, timestamp now)
{
    drop_expired(now);
    const auto found = sessions_.find(id);
    return found == sessions_.end() ? nullptr : &found->second;
}

bool upload_session_store::is_open_for(const drive &home, std::string_view parent_id,
                                       std::string_view name, timestamp now)
{
    drop_expired(now);
    const std::string key = fold_case(name);
    return std::ranges::any_of(sessions_, [&](const auto &entry) {
        const upload_session &other = entry.second;
        return other.home == &home && other.parent_id == parent_id && fold_case(other.name) == key;
    });
}

upload_session &upload_session_store::open(upload_session made)
{
    std::string id = made.id;
    return sessions_.insert_or_assign(std::move(id), std::move(made)).first->second;
}

json upload_session_store::list(timestamp now)
{
    drop_expired(now);
    json shown = json::array();
    for (const auto &[id, session] : sessions_) {
        json entry = json::object();
        entry.set("id", id)
            .set("account", session.who->name)
            .set("name", session.name)
            .set("parent", session.parent_id)
            .set("received", json::integer(session.data.size()))
            .set("total", session.total ? json::integer(*session.total) : json::null())
            .set("expires", iso_time(session.expires, true));
        shown.append(entry);
    }
    return shown;
}

// ---- requests ----

response create_upload_session(const write_context &context, const route &asked)
{
    const json body = body_object(context.got, true);
    const json described = item_member(body);
    write_target target = find_target(context, asked);
    drive &home = *target.home;
    check_address(target, asked);
    check_members(described, home.kind());
    const item *there = target.there();
    const std::string name = there != nullptr ? there->name : target.missing.back();
    check_item_name(described, asked.item.path.empty() ? name : asked.item.path.back());
    const conflict wanted = conflict_of(described);
    if (there != nullptr && wanted == conflict::fail) {
        name_taken();
    }
    check_tags(context, home, there);
    const auto size = file_size_of(described, context.options);
    require_space(home, size.value_or(0));
    // Refuses times that cannot be read before anything is made.
    static_cast<void>(with_client_times({}, described.at("fileSystemInfo"), home.kind()));
    const item &parent = folder_for(context, target);
    const timestamp now = context.resources.now;
    if (!is_personal(home.kind()) && context.sessions.is_open_for(home, parent.id, name, now)) {
        throw api_error(409, "nameAlreadyExists", "An upload session already exists for this file");
    }
    const std::string *match = context.got.headers.find("If-Match");
    const std::string id = base64url(bytes_of(random_bytes(24)));
    upload_session made{
        .id = id,
        .target = address_of(id, wanted),
        .home = &home,
        .who = &context.who,
        .parent_id = parent.id,
        .name = name,
        .wanted = wanted == conflict::absent ? conflict::replace : wanted,
        .match = match != nullptr && *match != "*" ? std::optional(*match) : std::nullopt,
        .client_times = described.at("fileSystemInfo"),
        .file_size = size,
        .total = std::nullopt,
        .deferred = json_is_true(body.at("deferCommit").get()),
        .expires = now + lifetime_of(context.options, home.kind()),
        .data = content_builder(context.sessions.blocks()),
    };
    return opened(context, context.sessions.open(std::move(made)));
}

account *owner_of_upload(upload_session_store &sessions, std::string_view target, timestamp now)
{
    const upload_session *found = sessions.find(id_in(target), now);
    return found == nullptr ? nullptr : found->who;
}

std::uint64_t check_fragment(const upload_request &context)
{
    const upload_session &session = session_of(context);
    const content_range range = judge(session, context);
    require_space(*session.home, range.last + 1);
    return range.first;
}

response take_fragment(const upload_request &context, content_builder &&fragment)
{
    // Judged again: meanwhile the session may have gone on, or away.
    upload_session &session = session_of(context);
    const content_range range = judge(session, context);
    require_space(*session.home, range.last + 1);
    session.total = range.total;
    session.expires = context.resources.now + lifetime_of(context.options, session.home->kind());
    session.data.append(std::move(fragment));
    if (session.data.size() == range.total && !session.deferred) {
        return commit(context, session);
    }
    return json_response(202, describe(session, context.options), context.got,
                         context.options.chunked_json);
}

void keep_part(const upload_request &context, content_builder &&fragment)
{
    upload_session *session =
        context.sessions.find(id_in(context.got.target), context.resources.now);
    if (!context.options.keep_partial_fragments || session == nullptr || fragment.size() == 0 ||
        fragment.end() - fragment.size() != session->data.size()) {
        return;
    }
    session->total = read_range(context.got).total;
    session->data.append(std::move(fragment));
}

response answer_upload_status(const upload_request &context)
{
    upload_session &session = session_of(context);
    const request &got = context.got;
    if (got.method == "GET") {
        return json_response(200, describe(session, context.options), got,
                             context.options.chunked_json);
    }
    if (got.method == "DELETE") {
        context.sessions.close(std::string(session.id));
        return no_content(got);
    }
    if (got.method != "POST") {
        throw api_error(405, "invalidRequest", "The method is not allowed here.");
    }
    if (session.data.size() != session.total) {
        invalid("The upload session is not complete.", "uploadSessionIncomplete");
    }
    return commit(context, session);
}

response transfer_error(const api_error &error)
{
    response reply;
    reply.status = error.status();
    reply.headers.add("Content-Type", "application/json");
    json told = json::object();
    told.set("code", error.code()).set("message", error.what());
    if (!error.inner_code().empty()) {
        json inner = json::object();
        inner.set("code", error.inner_code());
        told.set("innererror", inner);
    }
    json body = json::object();
    body.set("error", told);
    reply.body = body.dump();
    return reply;
}

} // namespace graph_sim
