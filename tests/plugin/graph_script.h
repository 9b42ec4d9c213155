/*
 * Pieces of a scripted Graph service for tests.
 */
#ifndef TIRVAL_TESTS_GRAPH_SCRIPT_H
#define TIRVAL_TESTS_GRAPH_SCRIPT_H

#include "http_peer.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace graph {

inline std::string file(const std::string &name, const std::string &id = "id")
{
    return R"({"name":")" + name + R"(","id":")" + id +
           R"(","size":5,"file":{},"lastModifiedDateTime":"2021-03-04T05:06:07Z",)" +
           R"("parentReference":{"driveId":"drive-1"}})";
}

inline std::string folder(const std::string &name, const std::string &id = "id")
{
    return R"({"name":")" + name + R"(","id":")" + id +
           R"(","folder":{},"parentReference":{"driveId":"drive-1"}})";
}

/* Files named PREFIX0, PREFIX1, ... */
inline std::vector<std::string> files(int first, int count, const std::string &prefix = "f")
{
    std::vector<std::string> all;
    for (int i = first; i < first + count; ++i) {
        all.push_back(file(prefix + std::to_string(i), "id-" + std::to_string(i)));
    }
    return all;
}

/* A page of a listing; `next` empty: the last. */
inline http_peer_answer page(const std::vector<std::string> &elements, const std::string &next = "")
{
    std::string text = "{\"value\":[";
    for (const auto &element : elements) {
        text += (text.back() == '[' ? "" : ",") + element;
    }
    text += "]";
    if (!next.empty()) {
        text += ",\"@odata.nextLink\":\"" + next + "\"";
    }
    return http_peer_answer::json(200, text + "}");
}

inline http_peer_answer redirect(const std::string &location)
{
    return http_peer_answer::complete(302, "", {{"Location", location}});
}

/* The path of a request's target, without the query. */
inline std::string path(const http_peer_request &request)
{
    return request.target.substr(0, request.target.find('?'));
}

inline std::string decoded(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

/* The query's parameters in order, decoded. */
inline std::vector<std::pair<std::string, std::string>> query(const http_peer_request &request)
{
    std::vector<std::pair<std::string, std::string>> all;
    std::string_view rest = request.target;
    const auto mark = rest.find('?');
    rest.remove_prefix(mark == std::string_view::npos ? rest.size() : mark + 1);
    while (!rest.empty()) {
        const auto end = std::min(rest.find('&'), rest.size());
        const auto item = rest.substr(0, end);
        const auto equals = std::min(item.find('='), item.size());
        all.emplace_back(decoded(item.substr(0, equals)),
                         decoded(item.substr(std::min(equals + 1, item.size()))));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return all;
}

} // namespace graph

#endif
