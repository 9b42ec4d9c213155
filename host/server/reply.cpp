/*
 * Text from clients, services and file names passes through here on its way to the control channel:
 * nothing in it may end a line early or begin a telnet command.
 */
#include "reply.h"

#include "utf8.h"

#include <charconv>

namespace tirval::server {
namespace {

constexpr unsigned char telnet_iac = 0xFF;

bool is_control(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7F;
}

std::string without_control_bytes(std::string_view text)
{
    std::string clean(text);
    for (char &byte : clean) {
        byte = is_control(byte) ? '?' : byte;
    }
    return clean;
}

/* Where a text of at most `limit` bytes ends without cutting a UTF-8 sequence; a sequence is at
 * most four bytes long. */
std::size_t cut_position(std::string_view text, std::size_t limit)
{
    if (text.size() <= limit) {
        return text.size();
    }
    const auto continues = [&](std::size_t at) {
        return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
    };
    std::size_t at = limit;
    for (int back = 0; back < 3 && at > 0 && continues(at); ++back) {
        --at;
    }
    return continues(at) ? limit : at;
}

/* A line as it goes out: a byte 255 would begin a telnet command, so it is doubled (RFC 854). */
void append_line(std::string &reply, std::string_view line)
{
    for (const char byte : line) {
        reply += byte;
        if (static_cast<unsigned char>(byte) == telnet_iac) {
            reply += byte;
        }
    }
    reply += "\r\n";
}

std::string prefixed(int code, char separator, std::string_view text)
{
    return std::to_string(code) + separator + std::string(text);
}

} // namespace

std::string safe_text(std::string_view text)
{
    return as_utf8(without_control_bytes(text.substr(0, cut_position(text, max_reply_text_bytes))));
}

std::string single_reply(int code, std::string_view text)
{
    std::string reply;
    append_line(reply, prefixed(code, ' ', safe_text(text)));
    return reply;
}

std::string whole_reply(int code, std::string_view text)
{
    std::string reply;
    append_line(reply, prefixed(code, ' ', without_control_bytes(text)));
    return reply;
}

std::string multi_line_reply(int code, const std::vector<std::string> &lines, std::string_view last)
{
    std::string reply;
    for (const std::string &line : lines) {
        if (!line.empty()) {
            append_line(reply, prefixed(code, '-', safe_text(line)));
        }
    }
    append_line(reply, prefixed(code, ' ', safe_text(last)));
    return reply;
}

std::string body_reply(int code, std::string_view first, const std::vector<std::string> &body,
                       std::string_view last)
{
    std::string reply;
    append_line(reply, prefixed(code, '-', safe_text(first)));
    for (const std::string &line : body) {
        append_line(reply, " " + line);
    }
    append_line(reply, prefixed(code, ' ', safe_text(last)));
    return reply;
}

std::string path_reply(std::string_view path, std::string_view text)
{
    std::string quoted = "\"";
    for (const char byte : path) {
        quoted += byte;
        if (byte == '"') {
            quoted += byte;
        }
    }
    quoted += '"';
    std::string reply;
    append_line(reply, "257 " + without_control_bytes(quoted) + " " + safe_text(text));
    return reply;
}

int reply_code(std::string_view reply)
{
    int code = 0;
    if (reply.size() >= 3) {
        std::from_chars(reply.data(), reply.data() + 3, code);
    }
    return code;
}

} // namespace tirval::server
