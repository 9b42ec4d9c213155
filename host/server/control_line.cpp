/*
 * Two layers over one byte stream: telnet sequences are taken out first, what remains is cut into
 * lines.
 */
#include "control_line.h"

#include <algorithm>
#include <array>

namespace tirval::server {
namespace {

/* Telnet command bytes (RFC 854). */
constexpr unsigned char telnet_se = 0xF0;
constexpr unsigned char telnet_sb = 0xFA;
constexpr unsigned char telnet_will = 0xFB;
constexpr unsigned char telnet_wont = 0xFC;
constexpr unsigned char telnet_do = 0xFD;
constexpr unsigned char telnet_dont = 0xFE;
constexpr unsigned char telnet_iac = 0xFF;

/* Answers to options beyond this are dropped: nobody negotiates so many in earnest. */
constexpr std::size_t max_answer_bytes = 1024;

char ascii_upper(char byte)
{
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
}

bool printable(char byte)
{
    return byte > ' ' && byte < 0x7F;
}

} // namespace

void control_line_parser_t::feed(std::string_view bytes)
{
    for (const char byte : bytes) {
        take_byte(static_cast<unsigned char>(byte));
    }
}

control_line_t control_line_parser_t::take_line()
{
    control_line_t line = std::move(lines_.front());
    lines_.pop_front();
    waiting_bytes_ -= line.text.size();
    return line;
}

std::string control_line_parser_t::take_answers()
{
    std::string answers;
    answers.swap(answers_);
    return answers;
}

void control_line_parser_t::take_byte(unsigned char byte)
{
    const auto refuse = [this](unsigned char refusal, unsigned char option) {
        if (answers_.size() < max_answer_bytes) {
            answers_ += static_cast<char>(telnet_iac);
            answers_ += static_cast<char>(refusal);
            answers_ += static_cast<char>(option);
        }
    };

    switch (telnet_) {
    case telnet_state_t::data:
        if (byte == telnet_iac) {
            telnet_ = telnet_state_t::command;
        } else {
            take_data(static_cast<char>(byte));
        }
        return;
    case telnet_state_t::command:
        telnet_ = telnet_state_t::data;
        if (byte == telnet_iac) {
            take_data(static_cast<char>(byte));
        } else if (byte == telnet_will) {
            telnet_ = telnet_state_t::will;
        } else if (byte == telnet_wont) {
            telnet_ = telnet_state_t::wont;
        } else if (byte == telnet_do) {
            telnet_ = telnet_state_t::do_option;
        } else if (byte == telnet_dont) {
            telnet_ = telnet_state_t::dont;
        } else if (byte == telnet_sb) {
            telnet_ = telnet_state_t::sub;
        }
        return;
    case telnet_state_t::will:
        refuse(telnet_dont, byte);
        telnet_ = telnet_state_t::data;
        return;
    case telnet_state_t::do_option:
        refuse(telnet_wont, byte);
        telnet_ = telnet_state_t::data;
        return;
    case telnet_state_t::wont:
    case telnet_state_t::dont:
        telnet_ = telnet_state_t::data;
        return;
    case telnet_state_t::sub:
        if (byte == telnet_iac) {
            telnet_ = telnet_state_t::sub_command;
        }
        return;
    case telnet_state_t::sub_command:
        telnet_ = byte == telnet_se ? telnet_state_t::data : telnet_state_t::sub;
        return;
    }
}

void control_line_parser_t::take_data(char byte)
{
    const bool was_cr = after_cr_;
    after_cr_ = false;
    if (byte == '\n') {
        end_line();
        return;
    }
    if (was_cr) {
        append('\r');
        if (byte == '\0') {
            return;
        }
    }
    if (byte == '\r') {
        after_cr_ = true;
    } else if (byte == '\0') {
        if (line_.what == control_line_t::fault_t::none) {
            line_.what = control_line_t::fault_t::holds_nul;
        }
    } else {
        append(byte);
    }
}

void control_line_parser_t::append(char byte)
{
    if (line_.what == control_line_t::fault_t::too_long) {
        return;
    }
    if (line_.text.size() == max_line_bytes) {
        line_.what = control_line_t::fault_t::too_long;
        line_.text = std::string();
        return;
    }
    line_.text += byte;
}

void control_line_parser_t::end_line()
{
    if (line_.what != control_line_t::fault_t::none) {
        line_.text = std::string();
    }
    waiting_bytes_ += line_.text.size();
    lines_.push_back(std::move(line_));
    line_ = control_line_t();
}

command_text_t split_command(std::string_view line)
{
    command_text_t command;
    const std::size_t blank = line.find(' ');
    command.verb = line.substr(0, blank);
    std::transform(command.verb.begin(), command.verb.end(), command.verb.begin(), ascii_upper);
    if (blank != std::string_view::npos) {
        command.has_argument = true;
        command.argument = line.substr(blank + 1);
    }
    return command;
}

std::string_view without_leading_rubbish(std::string_view line)
{
    static constexpr std::array<std::string_view, 3> urgent = {"ABOR", "STAT", "QUIT"};
    constexpr std::size_t verb_bytes = 4;
    if (line.size() <= verb_bytes) {
        return line;
    }
    const std::string_view head = line.substr(0, line.size() - verb_bytes);
    const std::string tail = split_command(line.substr(line.size() - verb_bytes)).verb;
    const bool known = std::find(urgent.begin(), urgent.end(), tail) != urgent.end();
    return known && std::none_of(head.begin(), head.end(), printable)
               ? line.substr(line.size() - verb_bytes)
               : line;
}

} // namespace tirval::server
