/*
 * A time is believed only when the calendar gives the same fields back.
 */
#include "time_text.h"

#include <algorithm>

namespace tirval::server {
namespace {

constexpr std::size_t digits_of_time = 14;

bool is_digit(char byte)
{
    return byte >= '0' && byte <= '9';
}

bool all_digits(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

int number(std::string_view digits)
{
    int value = 0;
    for (const char digit : digits) {
        value = value * 10 + (digit - '0');
    }
    return value;
}

/* The digits of the time without its fraction; empty when the text is malformed. */
std::string_view digits_of(std::string_view text)
{
    const std::size_t dot = text.find('.');
    const std::string_view digits = text.substr(0, dot);
    const bool has_fraction = dot != std::string_view::npos;
    const bool fraction_fits = !has_fraction || all_digits(text.substr(dot + 1));
    const bool fits = digits.size() == digits_of_time && all_digits(digits) && fraction_fits;
    return fits ? digits : std::string_view();
}

} // namespace

std::optional<std::time_t> parse_time(std::string_view text)
{
    const std::string_view digits = digits_of(text);
    if (digits.empty()) {
        return std::nullopt;
    }
    std::tm fields{};
    fields.tm_year = number(digits.substr(0, 4)) - 1900;
    fields.tm_mon = number(digits.substr(4, 2)) - 1;
    fields.tm_mday = number(digits.substr(6, 2));
    fields.tm_hour = number(digits.substr(8, 2));
    fields.tm_min = number(digits.substr(10, 2));
    const int second = number(digits.substr(12, 2));
    if (fields.tm_hour > 23 || fields.tm_min > 59 || second > 60) {
        return std::nullopt;
    }
    std::tm day = fields;
    const std::time_t minute = timegm(&day);
    if (minute < 0 || day.tm_mday != fields.tm_mday || day.tm_mon != fields.tm_mon) {
        return std::nullopt;
    }
    return minute + second;
}

} // namespace tirval::server
