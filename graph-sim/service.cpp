// From a request to an answer: classification, faults, limits, dispatch.
#include "service.h"

#include "errors.h"
#include "graph_api.h"
#include "uploads.h"

#include <chrono>

namespace graph_sim {

namespace {

constexpr std::uint64_t largest_text_body = std::uint64_t{4} << 20;
constexpr std::uint64_t largest_control_body = std::uint64_t{256} << 20; // seeds hold whole files

// "/{tenant}/oauth2/v2.0/token": the tenant and the kind of request; false for other paths.
bool is_token_path(std::string_view path, std::string &tenant, request_kind &kind)
{
    const auto parts = split(path, '/');
    if (parts.size() != 5 || parts[2] != "oauth2" || parts[3] != "v2.0") {
        return false;
    }
    if (parts[4] != "token" && parts[4] != "devicecode") {
        return false;
    }
    kind = parts[4] == "token" ? request_kind::token : request_kind::device_code;
    tenant = percent_decode(parts[1]).value_or(parts[1]);
    return true;
}

// The error of a bearer token that does not hold.
api_error bearer_error(token_store::verdict state)
{
    switch (state) {
    case token_store::verdict::missing:
        return {401, "InvalidAuthenticationToken", "Access token is empty."};
    case token_store::verdict::expired:
        return {401, "InvalidAuthenticationToken",
                "Lifetime validation failed, the token is expired."};
    case token_store::verdict::unknown:
    case token_store::verdict::valid:
        break;
    }
    return {401, "InvalidAuthenticationToken",
            "CompactToken validation failed with reason code: 80049228."};
}

// The answer that a rule puts in place of the proper one.
response replacement(const fault_action &fault, const request &got, request_kind kind)
{
    const unsigned status = fault.status.value_or(200);
    if (fault.html) {
        response reply;
        reply.status = status;
        reply.headers.add("Content-Type", "text/html; charset=utf-8");
        reply.body = html_page(status);
        return reply;
    }
    if (status < 300 || kind == request_kind::download) {
        response reply; // the transfer hosts answer failures without a body
        reply.status = status;
        return reply;
    }
    return default_error(status, got);
}

// What a rule changes about an answer, whichever it is.
void change_answer(const fault_action &fault, response &reply)
{
    if (fault.body) {
        reply.body = *fault.body;
        reply.data = nullptr;
    }
    if (fault.bad_json) {
        reply.body.resize(reply.body.size() / 2);
        reply.data = nullptr;
    }
    if (fault.content_type) {
        reply.headers.set("Content-Type", *fault.content_type);
    }
    for (const auto &[name, value] : fault.headers) {
        if (value) {
            reply.headers.set(name, *value);
        } else {
            reply.headers.remove(name);
        }
    }
}

} // namespace

service::service(std::size_t record_capacity)
    : recorder_(record_capacity),
      control_(mutex_, world_, tokens_, settings_, links_, faults_, recorder_, sessions_)
{
}

std::string service::download_origin(const request &got) const
{
    if (!settings_.download_origin.empty()) {
        return settings_.download_origin;
    }
    if (download_port_ == 0) {
        return got.origin;
    }
    return std::string(got.tls ? "https://" : "http://") + got.host + ":" +
           std::to_string(download_port_);
}

void service::classify_transfer(const request &got, incoming &in)
{
    if (got.path().starts_with(download_prefix)) {
        in.asked.kind = request_kind::download;
        return;
    }
    in.asked.kind = got.method == "PUT" ? request_kind::fragment : request_kind::upload_status;
    const std::lock_guard lock(mutex_);
    if (const account *who = owner_of_upload(sessions_, got.target, wall_clock())) {
        in.account_name = who->name;
    }
}

incoming service::classify(const request &got)
{
    incoming in;
    const std::string_view path = got.path();
    const bool is_transfer = path.starts_with(download_prefix) || path.starts_with(upload_prefix);
    in.misplaced = (is_transfer && got.role == listener_role::service) ||
                   (!is_transfer && got.role == listener_role::downloads);
    if (in.misplaced) {
        return in;
    }
    if (is_transfer) {
        classify_transfer(got, in);
        return in;
    }
    if (is_token_path(path, in.tenant, in.asked.kind)) {
        return in;
    }
    const std::lock_guard lock(mutex_);
    in.bearer = tokens_.check(got.headers.find("Authorization"), wall_clock());
    if (in.bearer.who != nullptr) {
        in.account_name = in.bearer.who->name;
    }
    try {
        in.asked = parse_route(got.method, path);
    } catch (const api_error &error) {
        in.refused.emplace(error);
    }
    return in;
}

response service::answer_graph(const request &got, const incoming &in, const fault_action *fault)
{
    if (in.bearer.state != token_store::verdict::valid) {
        throw bearer_error(in.bearer.state);
    }
    account &who = *in.bearer.who;
    if (!who.limit.take(std::chrono::steady_clock::now())) {
        response reply =
            error_response(api_error(429, "activityLimitReached", "The request has been throttled",
                                     "throttledRequest"),
                           got);
        if (!who.limit.retry_after.empty()) {
            reply.headers.add("Retry-After", who.limit.retry_after);
        }
        return reply;
    }
    if (in.refused) {
        throw api_error(*in.refused);
    }
    graph_api api(world_, links_, settings_, got, who, fault, download_origin(got), sessions_);
    return api.answer(in.asked);
}

template <class Run> auto service::at_upload_address(const request &got, const Run &run)
{
    const resource_context resources{links_, settings_, download_origin(got), wall_clock()};
    return run(upload_request{world_, settings_, got, resources, sessions_});
}

response service::carry_out(exchange &going)
{
    const std::lock_guard lock(mutex_);
    const request_kind kind = going.in.asked.kind;
    try {
        return carry_out_locked(going);
    } catch (const api_error &error) {
        const bool at_upload =
            kind == request_kind::fragment || kind == request_kind::upload_status;
        return at_upload ? transfer_error(error) : error_response(error, going.got);
    }
}

response service::carry_out_locked(exchange &going)
{
    const request &got = going.got;
    const incoming &in = going.in;
    if (in.misplaced) {
        throw api_error(404, "itemNotFound", "The resource could not be found.");
    }
    switch (in.asked.kind) {
    case request_kind::download:
        return answer_download(world_, links_, settings_, got, going.action());
    case request_kind::fragment:
        return at_upload_address(got, [&going](const upload_request &context) {
            return take_fragment(context, *std::move(going.file));
        });
    case request_kind::upload_status:
        return at_upload_address(got, answer_upload_status);
    case request_kind::token:
    case request_kind::device_code:
        if (got.method != "POST") {
            throw api_error(405, "BadRequest", "Only POST is allowed here.");
        }
        return in.asked.kind == request_kind::token
                   ? tokens_.token_endpoint(got, in.tenant, world_, settings_, wall_clock())
                   : tokens_.device_code_endpoint(got, in.tenant, world_, settings_, wall_clock());
    default:
        return answer_graph(got, in, going.action());
    }
}

exchange service::open(request head)
{
    exchange going;
    going.got = std::move(head);
    const request &got = going.got;
    if (got.path().starts_with(control_prefix)) {
        going.in.asked.kind = request_kind::control;
        going.body = exchange::sink::text;
        going.largest_body = largest_control_body;
        return going;
    }
    going.in = classify(got);
    const request_kind kind = going.in.asked.kind;
    going.record = recorder_.begin(got, kind, going.in.account_name);
    const std::string path = percent_decode(got.path()).value_or(std::string(got.path()));
    going.fault = faults_.pick({got.method, path, got.target, kind, going.in.account_name});
    if (going.action() == nullptr || !going.action()->replaces()) {
        plan_body(going);
    }
    return going;
}

void service::plan_body(exchange &going)
{
    going.body = exchange::sink::text;
    going.largest_body = largest_text_body;
    const request_kind kind = going.in.asked.kind;
    const bool uploads = kind == request_kind::upload || kind == request_kind::fragment;
    if (uploads && !going.in.misplaced && !going.in.refused) {
        try {
            plan_file(going);
        } catch (const api_error &error) {
            going.refused = kind == request_kind::fragment ? transfer_error(error)
                                                           : error_response(error, going.got);
        }
    }
    if (going.got.announced_length().value_or(0) > going.largest_body && !going.refused) {
        refuse_body(going, 413);
    }
    if (going.refused) {
        going.body = exchange::sink::nowhere;
        going.largest_body = UINT64_MAX;
    }
}

// What is wrong with an upload already is told before its bytes are taken in.
void service::plan_file(exchange &going)
{
    const request &got = going.got;
    const std::lock_guard lock(mutex_);
    std::uint64_t offset = 0;
    if (going.in.asked.kind == request_kind::fragment) {
        offset = at_upload_address(got, check_fragment);
        going.largest_body = settings_.fragment_limit;
    } else {
        if (going.in.bearer.state != token_store::verdict::valid) {
            throw bearer_error(going.in.bearer.state);
        }
        going.refused = refuse_upload_head(got, settings_);
        going.largest_body = settings_.largest_upload;
    }
    sessions_.blocks()->limit_memory(settings_.upload_memory);
    going.file.emplace(sessions_.blocks(), offset);
    going.body = exchange::sink::file;
}

void service::refuse_body(exchange &going, unsigned status)
{
    going.refused = gateway_page(status);
    going.body = exchange::sink::nowhere;
}

answer service::finish(exchange &going)
{
    answer made;
    made.record = going.record;
    const request &got = going.got;
    if (going.in.asked.kind == request_kind::control) {
        made.reply = going.refused ? *std::move(going.refused) : control_.answer(got);
        return made;
    }
    recorder_.received(going.record, going.received);
    if (going.file && going.in.asked.kind == request_kind::upload && !going.refused) {
        going.got.data = (*std::move(going.file)).finish();
    }
    const fault_action *action = going.action();
    if (action != nullptr && action->replaces()) {
        made.reply = replacement(*action, got, going.in.asked.kind);
    } else {
        made.reply = going.refused ? *std::move(going.refused) : carry_out(going);
        if (action != nullptr && action->status) {
            made.reply = replacement(*action, got, going.in.asked.kind);
        }
    }
    if (action != nullptr) {
        change_answer(*action, made.reply);
        made.how = action->how;
    }
    recorder_.status(made.record, made.reply.status, going.fault ? going.fault->rule : "");
    return made;
}

void service::abandon(exchange &going, outcome how)
{
    recorder_.received(going.record, going.received);
    recorder_.status(going.record, 0, going.fault ? going.fault->rule : "");
    recorder_.sent(going.record, 0, how);
    if (going.file && going.in.asked.kind == request_kind::fragment) {
        const std::lock_guard lock(mutex_);
        at_upload_address(going.got, [&going](const upload_request &context) {
            keep_part(context, *std::move(going.file));
        });
    }
}

answer service::handle(const request &got)
{
    request head = got;
    const std::string body = std::move(head.body);
    head.body.clear();
    if (!body.empty() && !head.announced_length() && !head.is_chunked()) {
        head.headers.add("Content-Length", std::to_string(body.size()));
    }
    exchange going = open(std::move(head));
    going.received = body.size();
    if (going.body == exchange::sink::file) {
        going.file->add(bytes_of(body));
    } else if (going.body == exchange::sink::text) {
        going.got.body = body;
    }
    return finish(going);
}

} // namespace graph_sim
