/* The control channel's bytes. */
#include "fuzz.h"

#include "control_line.h"

#include <vector>

using namespace tirval::server;

namespace {

struct seen_t {
    std::vector<std::string> lines;
    std::string answers;
    bool operator==(const seen_t &) const = default;
};

void require_line(const control_line_t &line)
{
    fuzz::require(line.what == control_line_t::fault_t::none || line.text.empty(),
                  "a refused line has no text");
    fuzz::require(line.text.size() <= control_line_parser_t::max_line_bytes,
                  "a line's length is bounded");
    fuzz::require(line.text.find_first_of(std::string_view("\0\n", 2)) == std::string::npos,
                  "no line holds a NUL or a line feed");
    const command_text_t command = split_command(line.text);
    fuzz::require(command.verb.size() + command.argument.size() + command.has_argument ==
                      line.text.size(),
                  "a line is its verb, a blank and its argument");
    fuzz::require(command.verb.find(' ') == std::string::npos, "a verb is one word");
    const std::string_view cleared = without_leading_rubbish(line.text);
    const std::string verb = split_command(cleared).verb;
    fuzz::require(cleared.size() == line.text.size() || verb == "ABOR" || verb == "STAT" ||
                      verb == "QUIT",
                  "rubbish goes before three commands only");
}

seen_t read(std::string_view input, std::size_t block)
{
    control_line_parser_t parser;
    seen_t seen;
    for (; !input.empty(); input.remove_prefix(std::min(block, input.size()))) {
        parser.feed(input.substr(0, block));
    }
    std::size_t bytes = parser.waiting_bytes();
    while (parser.has_line()) {
        const control_line_t line = parser.take_line();
        require_line(line);
        fuzz::require(bytes - parser.waiting_bytes() >= line.text.size(), "waiting bytes are true");
        bytes = parser.waiting_bytes();
        seen.lines.push_back(std::to_string(static_cast<int>(line.what)) + line.text);
    }
    fuzz::require(parser.waiting_lines() == 0 && parser.waiting_bytes() == 0, "nothing stays");
    seen.answers = parser.take_answers();
    return seen;
}

void parse(std::string_view input)
{
    const seen_t whole = read(input, input.size() + 1);
    fuzz::require(whole == read(input, 1) && whole == read(input, 3),
                  "lines do not depend on how the network cut them");
    fuzz::require(whole.answers.size() % 3 == 0, "telnet answers are whole");
    for (std::size_t at = 0; at < whole.answers.size(); at += 3) {
        const auto verb = static_cast<unsigned char>(whole.answers[at + 1]);
        fuzz::require(whole.answers[at] == '\xFF' && (verb == 252 || verb == 254),
                      "telnet options are refused");
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(ControlLine, (fuzz::entry{parse,
                                            {"USER anna\r\nPASS x y \r\nNOOP\n", "CWD a\r\0b\r\n",
                                             "\xFF\xF4\xFF\xF2"
                                             "ABOR\r\n",
                                             "\xFF\xFD\x01\xFF\xFB\x03NOOP\r\n",
                                             "\xFF\xFA\x18 sub \xFF\xFF\xFF\xF0STAT\r\n",
                                             "RETR \xFF\xFF\xC3\xA4\r\n",
                                             std::string(8190, 'a') + "\r\nX\r\n", "\r\r\n\n\n"},
                                            8000}))
