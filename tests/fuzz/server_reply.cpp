/* Replies made of text from elsewhere. */
#include "fuzz.h"

#include "failure.h"
#include "reply.h"

#include "tirval_gridftp_server.h"

#include <algorithm>

using namespace tirval::server;

namespace {

/* The code and what follows it, and a text in which every byte was doubled. */
constexpr std::size_t longest_line = 4 + 2 * max_reply_text_bytes;

void require_shape(const std::string &reply, const std::string &code)
{
    fuzz::require(fuzz::is_reply_text(reply, longest_line),
                  "a reply is lines without control bytes");
    fuzz::require(reply.starts_with(code), "a reply begins with its code");
    const std::size_t last = reply.rfind('\n', reply.size() - 2) + 1;
    fuzz::require(reply.substr(last, 4) == code + " ", "the last line has the code and a blank");
    for (std::size_t at = 0; at < last; at = reply.find('\n', at) + 1) {
        fuzz::require(reply.substr(at, 4) == code + "-", "the lines before have a hyphen");
    }
    for (auto at = reply.find('\xFF'); at != std::string::npos; at = reply.find('\xFF', at + 2)) {
        fuzz::require(reply.substr(at, 2) == "\xFF\xFF", "a byte 255 is doubled");
    }
}

void require_failure_reply(const std::string &text)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    tirval_error_scope_t *before = tirval_error_scope_enter(scope);
    const tirval_result_t result = tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, 553, "REASON", "%s", text.c_str()));
    const failure_t failure = describe_result(result, 451);
    const std::string reply = failure_reply(failure, text);
    (void)tirval_error_scope_enter(before);
    tirval_error_scope_destroy(scope);
    require_shape(reply, "553");
}

void parse(std::string_view input)
{
    const std::string text = safe_text(input);
    fuzz::require(text.size() <= max_reply_text_bytes && safe_text(text) == text,
                  "clean text is bounded and stays as it is");
    require_shape(single_reply(550, input), "550");
    std::vector<std::string> lines;
    for (std::string_view rest = input; !rest.empty();) {
        lines.emplace_back(fuzz::take_line(rest));
    }
    require_shape(multi_line_reply(451, lines, input), "451");
    const std::string path = path_reply(input, input);
    fuzz::require(fuzz::is_reply_text(path, 2 * (2 * input.size() + max_reply_text_bytes) + 8) &&
                      std::ranges::count(path, '\n') == 1 && path.starts_with("257 \""),
                  "a path's reply is one line");
    require_failure_reply(fuzz::c_text(input));
}

} // namespace

TIRVAL_FUZZ_ENTRY(Reply,
                  (fuzz::entry{parse,
                               {"Not found: /a/b", "GridFTP-Path: \"x\"\nsecond\n\nfourth",
                                "a\r\n230 b", std::string(999, 'a') + "\xC3\xA4",
                                std::string(1200, '\xFF'), "https://h/a?tempauth=x http://h/b",
                                "\xE5\xA0\xB1\"\"%s%n", "\x7F\x1B[2J"},
                               8000}))
