// Cutting answers into writes.
#include "delivery.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

namespace graph_sim {

namespace {

std::string chunk_size_line(std::size_t size)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%zx\r\n", size);
    return text.data();
}

} // namespace

answer_bytes::answer_bytes(const answer &told) : told_(told), size_(told.reply.body_size())
{
    constexpr auto never = std::numeric_limits<std::uint64_t>::max();
    const delivery &how = told.how;
    limit_ = std::min({how.reset_after.value_or(never), how.close_after.value_or(never),
                       how.stall_after.value_or(never)});
    const bool bodiless = told.reply.status == 204 || told.reply.status == 304;
    size_ = bodiless ? 0 : size_;
    head_ = head_text(told.reply);
}

std::string_view answer_bytes::body_at(std::uint64_t at, std::size_t most)
{
    if (!told_.reply.data) {
        return std::string_view(told_.reply.body).substr(at, most);
    }
    const byte_view bytes = told_.reply.data->read(told_.reply.offset + at, most, scratch_);
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::string_view answer_bytes::next(std::size_t most)
{
    if (finished_) {
        return {};
    }
    const bool chunked = told_.reply.chunked;
    const std::uint64_t left = std::min(size_, limit_) - given_;
    if (!headed_) {
        headed_ = true;
        // Small bodies leave in one write with their head.
        const std::string_view body =
            body_at(0, static_cast<size_t>(std::min<std::uint64_t>({left, most, 65536})));
        if (chunked && !body.empty()) {
            head_ += chunk_size_line(body.size());
        }
        head_ += body;
        head_ += chunked && !body.empty() ? "\r\n" : "";
        given_ = body.size();
        finished_ = given_ == size_ && limit_ > size_;
        head_ += chunked && finished_ ? "0\r\n\r\n" : "";
        return head_;
    }
    const std::string_view body =
        body_at(given_, static_cast<size_t>(std::min<std::uint64_t>(left, most)));
    if (body.empty()) {
        return {};
    }
    given_ += body.size();
    finished_ = given_ == size_ && limit_ > size_;
    if (!chunked) {
        return body;
    }
    piece_ = chunk_size_line(body.size());
    piece_ += body;
    piece_ += finished_ ? "\r\n0\r\n\r\n" : "\r\n";
    return piece_;
}

garbage_text garbage_for(damage kind, const response &reply)
{
    switch (kind) {
    case damage::status_line:
        return {"220 this is not HTTP at all\r\n\r\n", ""};
    case damage::chunk_size:
        return {"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked"
                "\r\n\r\nzz\r\n{\"value\":[]}\r\n0\r\n\r\n",
                ""};
    case damage::endless_headers: {
        std::string lines;
        for (int i = 0; i < 500; ++i) {
            lines += "X-Filler-" + std::to_string(i) + ": " + std::string(100, 'x') + "\r\n";
        }
        return {"HTTP/1.1 200 OK\r\n", lines};
    }
    case damage::endless_header_line:
        return {"HTTP/1.1 200 OK\r\nX-Filler: ", std::string(65536, 'x')};
    case damage::endless_body: {
        response endless = reply;
        endless.headers.remove("Content-Length");
        endless.chunked = true;
        endless.data = nullptr;
        const std::string start = endless.body.empty() ? " " : endless.body;
        return {head_text(endless) + chunk_size_line(start.size()) + start + "\r\n",
                "10000\r\n" + std::string(65536, ' ') + "\r\n"};
    }
    case damage::none:
        break;
    }
    return {};
}

} // namespace graph_sim
