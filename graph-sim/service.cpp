// From a request to an answer: classification, faults, limits, dispatch.
#include "service.h"

#include "errors.h"
#include "graph_api.h"

#include <chrono>

namespace graph_sim {

namespace {

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
      control_(mutex_, world_, tokens_, settings_, links_, faults_, recorder_)
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

service::incoming service::classify(const request &got)
{
    incoming in;
    const std::string_view path = got.path();
    const bool is_download = path.starts_with(download_prefix);
    in.misplaced = (is_download && got.role == listener_role::service) ||
                   (!is_download && got.role == listener_role::downloads);
    if (in.misplaced) {
        return in;
    }
    if (is_download) {
        in.asked.kind = request_kind::download;
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
    graph_api api(world_, links_, settings_, got, who, fault, download_origin(got));
    return api.answer(in.asked);
}

response service::carry_out(const request &got, const incoming &in, const fault_action *fault)
{
    const std::lock_guard lock(mutex_);
    const timestamp now = wall_clock();
    try {
        if (in.misplaced) {
            throw api_error(404, "itemNotFound", "The resource could not be found.");
        }
        switch (in.asked.kind) {
        case request_kind::download:
            return answer_download(world_, links_, settings_, got, fault);
        case request_kind::token:
        case request_kind::device_code:
            if (got.method != "POST") {
                throw api_error(405, "BadRequest", "Only POST is allowed here.");
            }
            return in.asked.kind == request_kind::token
                       ? tokens_.token_endpoint(got, in.tenant, world_, settings_, now)
                       : tokens_.device_code_endpoint(got, in.tenant, world_, settings_, now);
        default:
            return answer_graph(got, in, fault);
        }
    } catch (const api_error &error) {
        return error_response(error, got);
    }
}

answer service::handle(const request &got)
{
    answer made;
    if (got.path().starts_with(control_prefix)) {
        made.reply = control_.answer(got);
        return made;
    }
    const incoming in = classify(got);
    made.record = recorder_.begin(got, in.asked.kind, in.account_name);
    const std::string path = percent_decode(got.path()).value_or(std::string(got.path()));
    const auto fault = faults_.pick({got.method, path, got.target, in.asked.kind, in.account_name});
    const fault_action *action = fault ? fault->action.get() : nullptr;
    if (action != nullptr && action->replaces()) {
        made.reply = replacement(*action, got, in.asked.kind);
    } else {
        made.reply = carry_out(got, in, action);
        if (action != nullptr && action->status) {
            made.reply = replacement(*action, got, in.asked.kind);
        }
    }
    if (action != nullptr) {
        change_answer(*action, made.reply);
        made.how = action->how;
    }
    recorder_.status(made.record, made.reply.status, fault ? fault->rule : "");
    return made;
}

} // namespace graph_sim
