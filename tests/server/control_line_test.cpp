#include "control_line.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace tirval::server {
namespace {

using namespace std::string_literals;
using fault_t = control_line_t::fault_t;

std::vector<std::string> lines_of(control_line_parser_t &parser)
{
    std::vector<std::string> lines;
    while (parser.has_line()) {
        lines.push_back(parser.take_line().text);
    }
    return lines;
}

std::vector<std::string> parse(std::string_view bytes)
{
    control_line_parser_t parser;
    parser.feed(bytes);
    return lines_of(parser);
}

TEST(ControlLine, EndsAtCrLfOrAtABareLf)
{
    EXPECT_EQ(parse("USER a\r\nPASS b\nQUIT\r\n"),
              (std::vector<std::string>{"USER a", "PASS b", "QUIT"}));
}

TEST(ControlLine, IsTheSameHoweverTheNetworkCutsIt)
{
    const std::string bytes = "CWD  a \r\nNOOP\r\n\xFF\xF4\xFF\xF2"
                              "ABOR\r\n";
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        control_line_parser_t parser;
        parser.feed(bytes.substr(0, cut));
        parser.feed(bytes.substr(cut));
        EXPECT_EQ(lines_of(parser), (std::vector<std::string>{"CWD  a ", "NOOP", "ABOR"}));
    }
}

TEST(ControlLine, TakesCrNulForACrByteAndKeepsACrThatEndsNothing)
{
    EXPECT_EQ(parse("CWD a\r\0b\r\n"s), (std::vector<std::string>{"CWD a\rb"}));
    EXPECT_EQ(parse("CWD a\rb\r\n"), (std::vector<std::string>{"CWD a\rb"}));
    EXPECT_EQ(parse("CWD a\r\r\n"), (std::vector<std::string>{"CWD a\r"}));
}

TEST(ControlLine, ReportsANulThatStandsForNothing)
{
    control_line_parser_t parser;
    parser.feed("CWD a\0b\r\nNOOP\r\n"s);
    const control_line_t line = parser.take_line();
    EXPECT_EQ(line.what, fault_t::holds_nul);
    EXPECT_EQ(line.text, "");
    EXPECT_EQ(parser.take_line().text, "NOOP");
}

TEST(ControlLine, TakesALineOfTheLimitAndDropsALongerOneToItsEnd)
{
    control_line_parser_t parser;
    parser.feed(std::string(control_line_parser_t::max_line_bytes, 'x') + "\r\n");
    parser.feed(std::string(control_line_parser_t::max_line_bytes + 1, 'x') + "\r\nNOOP\r\n");
    EXPECT_EQ(parser.take_line().text.size(), control_line_parser_t::max_line_bytes);
    const control_line_t line = parser.take_line();
    EXPECT_EQ(line.what, fault_t::too_long);
    EXPECT_EQ(line.text, "");
    EXPECT_EQ(parser.take_line().text, "NOOP");
    EXPECT_FALSE(parser.has_line());
}

TEST(ControlLine, CountsWhatWaits)
{
    control_line_parser_t parser;
    parser.feed("NOOP\r\nQUIT x\r\n");
    EXPECT_EQ(parser.waiting_lines(), 2U);
    EXPECT_EQ(parser.waiting_bytes(), 10U);
    (void)parser.take_line();
    EXPECT_EQ(parser.waiting_bytes(), 6U);
}

TEST(TelnetSequences, DisappearFromTheLine)
{
    EXPECT_EQ(parse("\xFF\xF4\xFF\xF2"
                    "ABOR\r\n"),
              (std::vector<std::string>{"ABOR"}));
    EXPECT_EQ(parse("NO\xFF\xFA\x01xy\xFF\xF0OP\r\n"), (std::vector<std::string>{"NOOP"}));
    EXPECT_EQ(parse("NO\xFF\xFA\xFF\xFF\xFF\xF0OP\r\n"), (std::vector<std::string>{"NOOP"}));
    EXPECT_EQ(parse("NO\xFF\xFB\x01\xFF\xFC\x01\xFF\xFD\x01\xFF\xFE\x01OP\r\n"),
              (std::vector<std::string>{"NOOP"}));
}

TEST(TelnetSequences, ADoubledIacIsOneByteOfData)
{
    EXPECT_EQ(parse("CWD \xFF\xFF\r\n"), (std::vector<std::string>{"CWD \xFF"}));
}

TEST(TelnetSequences, OptionsAreRefusedAndNothingElseIsAnswered)
{
    control_line_parser_t parser;
    parser.feed("\xFF\xFB\x03\xFF\xFD\x05\xFF\xFC\x03\xFF\xFE\x05\xFF\xF6");
    EXPECT_EQ(parser.take_answers(), "\xFF\xFE\x03\xFF\xFC\x05");
    EXPECT_EQ(parser.take_answers(), "");
}

TEST(TelnetSequences, AFloodOfOptionsIsAnsweredWithinABound)
{
    control_line_parser_t parser;
    for (int n = 0; n < 10000; ++n) {
        parser.feed("\xFF\xFD\x05");
    }
    EXPECT_LE(parser.take_answers().size(), 1026U);
}

TEST(ControlLine, RandomBytesNeverBreakTheParserNorTheBoundOnALine)
{
    std::mt19937 random(4711);
    const std::string special = "\r\n\0\xFF\xFA\xF0\xFB\xFD AB"s;
    for (int round = 0; round < 200; ++round) {
        control_line_parser_t parser;
        std::size_t fed_line_ends = 0;
        for (int n = 0; n < 400; ++n) {
            const char byte = random() % 3 == 0 ? static_cast<char>(random() & 0xFF)
                                                : special[random() % special.size()];
            fed_line_ends += byte == '\n' ? 1 : 0;
            parser.feed({&byte, 1});
        }
        EXPECT_LE(parser.waiting_lines(), fed_line_ends);
        for (const std::string &line : lines_of(parser)) {
            EXPECT_EQ(line.find('\n'), std::string::npos);
            EXPECT_EQ(line.find('\0'), std::string::npos);
            EXPECT_LE(line.size(), control_line_parser_t::max_line_bytes);
        }
        (void)parser.take_answers();
        /* Whatever came before, an end of subnegotiation and of line brings it back. */
        parser.feed("x\xFF\xF0\n\nNOOP\r\n");
        EXPECT_EQ(lines_of(parser).back(), "NOOP");
    }
}

TEST(Command, IsCutAtTheFirstBlankAndTheRestBelongsToTheArgument)
{
    const command_text_t command = split_command("cwd  a b ");
    EXPECT_EQ(command.verb, "CWD");
    EXPECT_TRUE(command.has_argument);
    EXPECT_EQ(command.argument, " a b ");
    EXPECT_FALSE(split_command("PWD").has_argument);
    EXPECT_TRUE(split_command("PWD ").has_argument);
    EXPECT_EQ(split_command("").verb, "");
}

TEST(Command, BytesOutsideAsciiInAVerbStayAsTheyAre)
{
    EXPECT_EQ(split_command("\xE4\xFCx y").verb, "\xE4\xFCX");
}

TEST(Command, AnUrgentCommandIsFoundBehindUnprintableRubbish)
{
    EXPECT_EQ(without_leading_rubbish("\xF2"
                                      "ABOR"),
              "ABOR");
    EXPECT_EQ(without_leading_rubbish("\x01\xF2"
                                      "abor"),
              "abor");
    EXPECT_EQ(without_leading_rubbish("\x01QUIT"), "QUIT");
    EXPECT_EQ(without_leading_rubbish("XABOR"), "XABOR");
    EXPECT_EQ(without_leading_rubbish("RETR ABOR"), "RETR ABOR");
    EXPECT_EQ(without_leading_rubbish("\xF2NOOP"), "\xF2NOOP");
    EXPECT_EQ(without_leading_rubbish("ABOR"), "ABOR");
}

} // namespace
} // namespace tirval::server
