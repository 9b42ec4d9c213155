// Header fields, targets and response heads.
#include "http.h"

#include "times.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace graph_sim {

const std::string *header_list::find(std::string_view name) const
{
    const auto found = std::ranges::find_if(
        fields_, [name](const header &field) { return equal_without_case(field.name, name); });
    return found == fields_.end() ? nullptr : &found->value;
}

void header_list::add(std::string name, std::string value)
{
    fields_.push_back({std::move(name), std::move(value)});
}

void header_list::set(std::string_view name, std::string value)
{
    remove(name);
    add(std::string(name), std::move(value));
}

void header_list::remove(std::string_view name)
{
    std::erase_if(fields_,
                  [name](const header &field) { return equal_without_case(field.name, name); });
}

std::string_view request::path() const
{
    return std::string_view(target).substr(0, target.find('?'));
}

std::string_view request::query() const
{
    const size_t mark = target.find('?');
    return mark == std::string::npos ? std::string_view()
                                     : std::string_view(target).substr(mark + 1);
}

std::optional<std::string> request::parameter(std::string_view name) const
{
    for (auto &[key, value] : parse_query(query())) {
        if (key == name) {
            return std::move(value);
        }
    }
    return std::nullopt;
}

void bad_argument()
{
    throw api_error(400, "invalidRequest", "One of the provided arguments is not acceptable.");
}

std::optional<std::uint64_t> request::announced_length() const
{
    const std::string *text = headers.find("Content-Length");
    std::uint64_t length = 0;
    if (text == nullptr) {
        return std::nullopt;
    }
    std::from_chars(text->data(), text->data() + text->size(), length);
    return length;
}

bool request::is_chunked() const
{
    const std::string *coding = headers.find("Transfer-Encoding");
    return coding != nullptr && to_lower(*coding).find("chunked") != std::string::npos;
}

std::string_view reason_phrase(unsigned status)
{
    struct phrase {
        unsigned status;
        std::string_view text;
    };
    static constexpr std::array phrases{
        phrase{200, "OK"},
        phrase{201, "Created"},
        phrase{202, "Accepted"},
        phrase{204, "No Content"},
        phrase{206, "Partial Content"},
        phrase{302, "Found"},
        phrase{304, "Not Modified"},
        phrase{400, "Bad Request"},
        phrase{401, "Unauthorized"},
        phrase{403, "Forbidden"},
        phrase{404, "Not Found"},
        phrase{405, "Method Not Allowed"},
        phrase{409, "Conflict"},
        phrase{410, "Gone"},
        phrase{411, "Length Required"},
        phrase{412, "Precondition Failed"},
        phrase{413, "Content Too Large"},
        phrase{415, "Unsupported Media Type"},
        phrase{416, "Range Not Satisfiable"},
        phrase{423, "Locked"},
        phrase{429, "Too Many Requests"},
        phrase{500, "Internal Server Error"},
        phrase{501, "Not Implemented"},
        phrase{502, "Bad Gateway"},
        phrase{503, "Service Unavailable"},
        phrase{504, "Gateway Timeout"},
        phrase{507, "Insufficient Storage"},
    };
    const auto *const found = std::ranges::find(phrases, status, &phrase::status);
    return found == phrases.end() ? "Status" : found->text;
}

std::string head_text(const response &reply)
{
    std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " ";
    text += reason_phrase(reply.status);
    text += "\r\n";
    for (const auto &[name, value] : reply.headers) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    const bool bodiless = reply.status == 204 || reply.status == 304;
    if (reply.chunked && !bodiless) {
        text += "Transfer-Encoding: chunked\r\n";
    } else if (!bodiless && reply.headers.find("Content-Length") == nullptr) {
        text += "Content-Length: " + std::to_string(reply.body_size()) + "\r\n";
    }
    if (reply.headers.find("Date") == nullptr) {
        text += "Date: " + http_date(wall_clock()) + "\r\n";
    }
    return text + "\r\n";
}

} // namespace graph_sim
