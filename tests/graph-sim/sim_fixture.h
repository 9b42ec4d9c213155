// A simulated service without sockets: requests go in as values, answers come out as values.
#pragma once

#include "service.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace graph_sim {

// The service with a seed of the test's own, or the sample.
class sim {
  public:
    explicit sim(std::string_view seed = sample_seed())
    {
        read_seed(json::parse(seed, "seed"), "seed", ".", served.target());
    }

    answer send(std::string method, std::string target, header_list headers = {},
                std::string body = {})
    {
        request got;
        got.method = std::move(method);
        got.target = std::move(target);
        got.headers = std::move(headers);
        got.body = std::move(body);
        got.origin = "http://graph.test";
        got.host = "graph.test";
        got.role = role;
        got.connection = 1;
        return served.handle(got);
    }

    // A GET with the bearer token "<account>-token".
    response get(const std::string &account, const std::string &target, header_list headers = {})
    {
        headers.add("Authorization", "Bearer " + account + "-token");
        return send("GET", target, headers).reply;
    }

    json get_json(const std::string &account, const std::string &target, unsigned status = 200)
    {
        const response reply = get(account, target);
        EXPECT_EQ(reply.status, status) << target << "\n" << reply.body;
        return json::parse(reply.body, target);
    }

    // "code" of an error answer, after a look at the status.
    std::string error_code(const std::string &account, const std::string &target, unsigned status)
    {
        return std::string(get_json(account, target, status).at("error").at("code").as_text());
    }

    // A request with a JSON body (none when it is empty) of the account "<account>-token"; the
    // answer is null when there is no body in it.
    json change(const std::string &account, const std::string &method, const std::string &target,
                const std::string &body, unsigned status, header_list headers = {})
    {
        headers.add("Authorization", "Bearer " + account + "-token");
        if (!body.empty()) {
            headers.add("Content-Type", "application/json");
        }
        const response reply = send(method, target, headers, body).reply;
        EXPECT_EQ(reply.status, status) << method << " " << target << "\n" << reply.body;
        return reply.body.empty() ? json() : json::parse(reply.body, target);
    }

    json control(const std::string &method, const std::string &path, const std::string &body = {},
                 unsigned status = 200)
    {
        const response reply = send(method, "/__sim/" + path, {}, body).reply;
        EXPECT_EQ(reply.status, status) << path << "\n" << reply.body;
        return json::parse(reply.body, path);
    }

    // The target of the address to which a content request is redirected.
    std::string download_target(const std::string &account, const std::string &target)
    {
        const response reply = get(account, target);
        EXPECT_EQ(reply.status, 302U) << target;
        const std::string *location = reply.headers.find("Location");
        const std::string origin = "http://graph.test";
        EXPECT_TRUE(location != nullptr && location->starts_with(origin));
        return location == nullptr ? "" : location->substr(origin.size());
    }

    service served;
    listener_role role = listener_role::everything;
};

// All bytes of an answer's body.
inline std::string body_bytes(const response &reply)
{
    if (!reply.data) {
        return reply.body;
    }
    std::string bytes;
    std::vector<unsigned char> scratch;
    while (bytes.size() < reply.length) {
        const byte_view part = reply.data->read(
            reply.offset + bytes.size(), static_cast<size_t>(reply.length - bytes.size()), scratch);
        if (part.empty()) {
            break;
        }
        bytes.append(part.begin(), part.end());
    }
    return bytes;
}

// The names in a list's "value".
inline std::vector<std::string> names_of(const json &page)
{
    std::vector<std::string> names;
    const json value = page.at("value");
    for (size_t i = 0; i < json_array_size(value.get()); ++i) {
        names.emplace_back(json::share(json_array_get(value.get(), i)).at("name").as_text());
    }
    return names;
}

} // namespace graph_sim
