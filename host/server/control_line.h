/*
 * Command lines of the control channel, cut out of a byte stream: telnet sequences are taken out
 * (RFC 854, RFC 959 section 4.1.3), lines end in CR LF or a bare LF, CR NUL stands for a CR byte
 * (RFC 2640), and the length of a line is bounded.  Pure bookkeeping: no socket, no thread.
 */
#ifndef TIRVAL_SERVER_CONTROL_LINE_H
#define TIRVAL_SERVER_CONTROL_LINE_H

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace tirval::server {

/* One line, without its end. */
struct control_line_t {
    enum class fault_t {
        none,
        too_long, /* over the limit: the text is empty */
        holds_nul /* a NUL outside CR NUL: the text is empty */
    };
    fault_t what = fault_t::none;
    std::string text;
};

/* Not thread-safe. */
class control_line_parser_t {
  public:
    /* The longest line taken, in bytes, without its end: a path of 4,096 bytes and more fits. */
    static constexpr std::size_t max_line_bytes = 8192;

    /* Takes the next bytes of the stream, however they were cut by the network. */
    void feed(std::string_view bytes);

    bool has_line() const { return !lines_.empty(); }
    /* The oldest complete line; one must be there. */
    control_line_t take_line();
    /* How many complete lines, and bytes of them, wait to be taken. */
    std::size_t waiting_lines() const { return lines_.size(); }
    std::size_t waiting_bytes() const { return waiting_bytes_; }

    /* The refusals of telnet options that must be sent to the peer; empties the store. */
    std::string take_answers();

  private:
    enum class telnet_state_t { data, command, will, wont, do_option, dont, sub, sub_command };

    void take_byte(unsigned char byte);
    void take_data(char byte);
    void append(char byte);
    void end_line();

    telnet_state_t telnet_ = telnet_state_t::data;
    bool after_cr_ = false;
    control_line_t line_;
    std::deque<control_line_t> lines_;
    std::size_t waiting_bytes_ = 0;
    std::string answers_;
};

/* A line cut into its verb, in capitals, and what follows the one blank after it. */
struct command_text_t {
    std::string verb;
    bool has_argument = false; /* a blank followed the verb */
    std::string argument;
};

/*
 * Cuts a line at its first blank.  Everything behind that one blank belongs to the argument,
 * further blanks at either end included.  Bytes outside ASCII stay as they are in the verb.
 */
command_text_t split_command(std::string_view line);

/*
 * A command that must be heard in the middle of a transfer may arrive with rubbish before it, left
 * by telnet signals.  Returns ABOR, STAT or QUIT when the line ends in it and has nothing printable
 * before it, and otherwise the line itself.
 */
std::string_view without_leading_rubbish(std::string_view line);

} // namespace tirval::server

#endif
