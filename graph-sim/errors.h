// Error bodies as the service words them.
#pragma once

#include "http.h"
#include "json.h"

#include <string>

namespace graph_sim {

// {"error":{"code","message","innerError":{...}}} with the headers that belong to the status, such
// as WWW-Authenticate.
response error_response(const api_error &error, const request &got);

// The usual error for a status that a rule asks for: code, text, and Retry-After for 429.
response default_error(unsigned status, const request &got);

// An HTML page as gateways send it.
std::string html_page(unsigned status);

// A JSON answer with the headers of the service.
response json_response(unsigned status, const json &body, const request &got, bool chunked);

// 204 with the headers of the service.
response no_content(const request &got);

} // namespace graph_sim
