/* The head of a server's answer, line by line. */
#include "fuzz.h"

#include "response_head.h"

#include <algorithm>

using namespace tirval::rest;

namespace {

void require_complete(const response_head &head)
{
    fuzz::require(head.status() >= 200 && head.status() <= 999, "a final answer has its status");
    fuzz::require(head.fields().size() <= response_head::max_lines, "fields are bounded");
    std::size_t bytes = head.reason().size();
    for (const auto &[name, value] : head.fields()) {
        bytes += name.size() + value.size();
        const std::string *first = head.find(name);
        fuzz::require(first != nullptr, "a field is found by its name");
        fuzz::require(name.find_first_of(":\n") == std::string::npos &&
                          value.find('\0') == std::string::npos &&
                          value.find('\n') == std::string::npos,
                      "no field holds a line end or a null byte");
    }
    fuzz::require(bytes <= response_head::max_bytes, "the head's size is bounded");
    body_framing framing;
    if (!head.framing(framing)) {
        fuzz::require(!framing.length || *framing.length >= 0, "a length is not negative");
        fuzz::require(!framing.chunked || !framing.length, "chunks have no announced length");
    }
}

void parse(std::string_view input)
{
    response_head head;
    while (!input.empty()) {
        const std::size_t end = std::min(input.find('\n'), input.size() - 1) + 1;
        if (head.add(input.substr(0, end))) {
            return;
        }
        input.remove_prefix(end);
    }
    if (head.complete()) {
        require_complete(head);
    }
}

std::vector<std::string> seeds()
{
    std::string many = "HTTP/1.1 200 OK\r\n";
    for (int n = 0; n < 97; ++n) {
        many += "X-" + std::to_string(n) + ": v\r\n";
    }
    return {"HTTP/1.1 200 OK\r\nContent-Length: 11\r\nContent-Type: text/plain\r\n\r\n",
            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 206 Partial Content\r\nContent-Range: bytes "
            "0-9/10\r\nContent-Length: 10\r\n\r\n",
            "HTTP/1.1 302\r\nLocation: https://x/\r\n folded\r\n\tmore\r\n\r\n",
            "HTTP/2 200 \r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\nTrailer: 1\r\n",
            "HTTP/1.1 429 Too Many Requests\r\nRetry-After: 3\r\nContent-Length: 5\r\n"
            "Content-Length: 6\r\n\r\n",
            many + "\r\n"};
}

} // namespace

TIRVAL_FUZZ_ENTRY(ResponseHead, (fuzz::entry{parse, seeds(), 40000}))
