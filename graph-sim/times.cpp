// Reading and writing points in time.
#include "times.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace graph_sim {

namespace {

std::string formatted(timestamp time, const char *form)
{
    const std::time_t seconds =
        std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), form, &fields)};
}

bool read_digits(std::string_view text, size_t at, size_t count, int &value)
{
    const char *first = text.data() + at;
    const auto [end, error] = std::from_chars(first, first + count, value);
    return error == std::errc{} && end == first + count && *first != '-';
}

// The milliseconds of ".123456"; null when there is anything but digits.
std::optional<int> read_fraction(std::string_view text)
{
    int thousandths = 0;
    int place = 100;
    for (const char c : text.substr(1)) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        thousandths += (c - '0') * place;
        place /= 10;
    }
    return text.size() > 1 ? std::optional(thousandths) : std::nullopt;
}

} // namespace

timestamp wall_clock()
{
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

std::string iso_time_without_zone(timestamp time)
{
    return formatted(time, "%Y-%m-%dT%H:%M:%S");
}

std::string iso_time(timestamp time, bool fraction)
{
    std::string text = iso_time_without_zone(time);
    const auto thousandths = (time - std::chrono::floor<std::chrono::seconds>(time)).count();
    if (fraction && thousandths != 0) {
        std::array<char, 8> digits{};
        std::snprintf(digits.data(), digits.size(), ".%03d", static_cast<int>(thousandths));
        text += digits.data();
        text.erase(text.find_last_not_of('0') + 1);
    }
    return text + "Z";
}

std::optional<timestamp> parse_iso_time(std::string_view text)
{
    if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
        text[13] != ':' || text[16] != ':' || !text.ends_with('Z')) {
        return std::nullopt;
    }
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (!read_digits(text, 0, 4, year) || !read_digits(text, 5, 2, month) ||
        !read_digits(text, 8, 2, day) || !read_digits(text, 11, 2, hour) ||
        !read_digits(text, 14, 2, minute) || !read_digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    int thousandths = 0;
    if (text[19] == '.') {
        const auto fraction = read_fraction(text.substr(19, text.size() - 20));
        if (!fraction) {
            return std::nullopt;
        }
        thousandths = *fraction;
    } else if (text.size() != 20) {
        return std::nullopt;
    }
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
           std::chrono::seconds(second) + std::chrono::milliseconds(thousandths);
}

std::string http_date(timestamp time)
{
    // The simulator never sets a locale, so the names are English.
    return formatted(time, "%a, %d %b %Y %H:%M:%S GMT");
}

} // namespace graph_sim
