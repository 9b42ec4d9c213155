// Uploads over the real sockets: sending bytes as the account alice (work) or bob (consumer), and
// looking at what was stored.
#pragma once

#include "server_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace graph_sim {

// Bytes that differ everywhere.
inline std::string some_bytes(std::size_t size, std::uint64_t key = 1)
{
    const content_ptr data = pattern_content(size, "random+" + std::to_string(key));
    std::vector<unsigned char> scratch;
    std::string bytes;
    while (bytes.size() < size) {
        const byte_view part = data->read(bytes.size(), size - bytes.size(), scratch);
        bytes.append(part.begin(), part.end());
    }
    return bytes;
}

inline std::string quick_xor_of(const std::string &bytes)
{
    quick_xor running;
    running.update(bytes_of(bytes));
    return base64(running.digest());
}

class UploadServer : public Server {
  protected:
    UploadServer() { start(); }

    std::string root_path(const std::string &path) const
    {
        return base + "/v1.0/me/drive/root:/" + path;
    }

    // A request as an account; an empty body goes as a length of 0.
    http_answer as(const std::string &account, const std::string &method, const std::string &url,
                   const std::string &body = {}, std::vector<std::string> headers = {})
    {
        headers.push_back("Authorization: Bearer " + account + "-token");
        return send(method, url, body, std::move(headers));
    }

    http_answer send(const std::string &method, const std::string &url,
                     const std::string &body = {}, std::vector<std::string> headers = {})
    {
        headers.emplace_back("Content-Type: application/octet-stream");
        if (body.empty() && method != "GET") {
            headers.emplace_back("Content-Length: 0");
        }
        return client.send(method, url, headers, body);
    }

    http_answer put(const std::string &path, const std::string &body, const std::string &query = {},
                    std::vector<std::string> headers = {})
    {
        return as("alice", "PUT", root_path(path) + ":/content" + query, body, std::move(headers));
    }

    static json body_of(const http_answer &got) { return json::parse(got.body, "answer"); }
    static std::string code_of(const http_answer &got)
    {
        return std::string(body_of(got).at("error").at("code").as_text());
    }

    json item(const std::string &path) { return body_of(client.get(root_path(path), {bearer})); }

    // What is stored, read back by a download.
    std::string stored(const std::string &path)
    {
        return client.get(download_url(client, "/v1.0/me/drive/root:/" + path)).body;
    }

    void set(const std::string &settings)
    {
        EXPECT_EQ(client.send("POST", base + "/__sim/settings", {}, settings).status, 200);
    }

    void change_item(const std::string &change)
    {
        EXPECT_EQ(client.send("POST", base + "/__sim/items", {}, change).status, 200) << change;
    }

    http_client client;
};

} // namespace graph_sim
