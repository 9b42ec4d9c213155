// Error and JSON answers.
#include "errors.h"

#include "ids.h"
#include "times.h"

#include <algorithm>
#include <array>

namespace graph_sim {

namespace {

// What every answer of the gateway carries.
void add_gateway_headers(response &reply, const request &got)
{
    const std::string request_id = guid::random().lower();
    const std::string *client_id = got.headers.find("client-request-id");
    reply.headers.add("Cache-Control", "no-store, no-cache");
    reply.headers.add("Strict-Transport-Security", "max-age=31536000");
    reply.headers.add("request-id", request_id);
    reply.headers.add("client-request-id", client_id == nullptr ? request_id : *client_id);
    reply.headers.add("x-ms-ags-diagnostic",
                      R"({"ServerInfo":{"DataCenter":"Local","Slice":"E","Ring":"0",)"
                      R"("ScaleUnit":"000","RoleInstance":"graph-sim"}})");
}

struct usual_error {
    unsigned status;
    const char *code;
    const char *message;
    const char *inner;
};

constexpr std::array usual_errors{
    usual_error{400, "invalidRequest", "One of the provided arguments is not acceptable.", ""},
    usual_error{401, "InvalidAuthenticationToken", "Access token has expired or is not yet valid.",
                ""},
    usual_error{403, "accessDenied", "Access denied", ""},
    usual_error{404, "itemNotFound", "The resource could not be found.", ""},
    usual_error{409, "nameAlreadyExists", "The specified item name already exists.", ""},
    usual_error{412, "resourceModified", "ETag does not match current item's value", ""},
    usual_error{415, "invalidRequest", "Content-Type of the request must be application/json.", ""},
    usual_error{416, "invalidRange", "The requested range is not satisfiable", ""},
    usual_error{423, "notAllowed", "The resource you are attempting to access is locked",
                "resourceLocked"},
    usual_error{429, "activityLimitReached", "The request has been throttled", "throttledRequest"},
    usual_error{500, "generalException", "A service invariant has been violated.", ""},
    usual_error{501, "notSupported", "Operation not supported", ""},
    usual_error{503, "serviceNotAvailable",
                "The service is temporarily unavailable. Please try again later.", ""},
    usual_error{504, "UnknownError", "", ""},
    usual_error{507, "quotaLimitReached", "Insufficient Space Available", ""},
};

} // namespace

response json_response(unsigned status, const json &body, const request &got, bool chunked)
{
    response reply;
    reply.status = status;
    reply.body = body.dump();
    reply.chunked = chunked;
    reply.headers.add("Content-Type", "application/json;odata.metadata=minimal;odata.streaming="
                                      "true;IEEE754Compatible=false;charset=utf-8");
    reply.headers.add("OData-Version", "4.0");
    reply.headers.add("Vary", "Accept-Encoding");
    add_gateway_headers(reply, got);
    return reply;
}

response no_content(const request &got)
{
    response reply;
    reply.status = 204;
    add_gateway_headers(reply, got);
    return reply;
}

response error_response(const api_error &error, const request &got)
{
    response reply;
    reply.status = error.status();
    reply.headers.add("Content-Type", "application/json");
    add_gateway_headers(reply, got);
    if (error.status() == 401) {
        reply.headers.add(
            "WWW-Authenticate",
            R"(Bearer realm="", authorization_uri="https://login.microsoftonline.com/)"
            R"(common/oauth2/authorize", )"
            R"(client_id="00000003-0000-0000-c000-000000000000")");
    }
    json inner = json::object();
    if (!error.inner_code().empty()) {
        inner.set("code", error.inner_code());
    }
    inner.set("date", iso_time_without_zone(wall_clock()))
        .set("request-id", *reply.headers.find("request-id"))
        .set("client-request-id", *reply.headers.find("client-request-id"));
    json body = json::object();
    body.set("code", error.code()).set("message", error.what()).set("innerError", inner);
    json outer = json::object();
    outer.set("error", body);
    reply.body = outer.dump();
    return reply;
}

response default_error(unsigned status, const request &got)
{
    const auto *const known = std::ranges::find(usual_errors, status, &usual_error::status);
    response reply =
        known == usual_errors.end()
            ? error_response(api_error(status, "UnknownError", ""), got)
            : error_response(api_error(status, known->code, known->message, known->inner), got);
    if (status == 429) {
        reply.headers.add("Retry-After", "1");
    }
    return reply;
}

std::string html_page(unsigned status)
{
    const std::string title = std::to_string(status) + " " + std::string(reason_phrase(status));
    return "<!DOCTYPE html>\r\n<html><head><title>" + title + "</title></head><body><h1>" + title +
           "</h1><p>Our services aren't available right now.</p></body></html>\r\n";
}

} // namespace graph_sim
