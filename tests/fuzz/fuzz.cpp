/* How inputs are made, run and shown. */
#include "fuzz.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <utility>
#ifndef TIRVAL_LIBFUZZER
#include <gtest/gtest.h>
#endif

namespace fuzz {

namespace {

/* What parsers stumble over, whatever they parse. */
const std::array<std::string, 26> tidbits = {std::string(1, '\0'),
                                             "\r\n",
                                             "\r",
                                             "\n",
                                             "\xFF",
                                             "\xFF\xF4",
                                             "\xC3\xA4",
                                             "\xED\xA0\x80",
                                             "%00",
                                             "%2F",
                                             "%",
                                             "\"",
                                             "\\",
                                             "\\u0000",
                                             "\\ud800",
                                             "{",
                                             "[[[[[[[[",
                                             "..",
                                             "//",
                                             "-1",
                                             "0",
                                             "99999999999999999999",
                                             "9223372036854775807",
                                             ";",
                                             " ",
                                             "null"};

/* std::mt19937_64 gives the same numbers everywhere; the library's distributions do not. */
class dice {
  public:
    explicit dice(std::uint64_t seed) : engine(seed) {}
    std::size_t below(std::size_t count) { return count == 0 ? 0 : engine() % count; }

  private:
    std::mt19937_64 engine;
};

void flip(std::string &text, dice &random)
{
    if (!text.empty()) {
        char &byte = text[random.below(text.size())];
        byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << random.below(8)));
    }
}

void overwrite(std::string &text, dice &random)
{
    if (!text.empty()) {
        text[random.below(text.size())] = static_cast<char>(random.below(256));
    }
}

void erase(std::string &text, dice &random)
{
    const std::size_t at = random.below(text.size() + 1);
    text.erase(at, 1 + random.below(8));
}

void insert(std::string &text, dice &random)
{
    text.insert(random.below(text.size() + 1), tidbits[random.below(tidbits.size())]);
}

void repeat(std::string &text, dice &random)
{
    const std::size_t at = random.below(text.size() + 1);
    const std::string piece = text.substr(at, 1 + random.below(16));
    for (std::size_t n = 1 + random.below(40); n > 0 && text.size() < 20000; --n) {
        text.insert(at, piece);
    }
}

bool is_word(char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= 'a' && byte <= 'z') || byte == '_' || byte == '-';
}

/* Where a word of the text begins and how long it is; length 0 when none was met. */
std::pair<std::size_t, std::size_t> pick_word(const std::string &text, dice &random)
{
    std::size_t begin = random.below(text.size());
    while (begin < text.size() && !is_word(text[begin])) {
        ++begin;
    }
    while (begin > 0 && begin < text.size() && is_word(text[begin - 1])) {
        --begin;
    }
    std::size_t end = begin;
    while (end < text.size() && is_word(text[end])) {
        ++end;
    }
    return {begin, end - begin};
}

/* Puts another word in a word's place: what has a grammar mostly stays well-formed. */
void replace_word(std::string &text, const std::vector<std::string> &seeds, dice &random)
{
    const std::string &other = seeds[random.below(seeds.size())];
    const auto [from, from_length] = pick_word(other, random);
    const auto [at, length] = pick_word(text, random);
    const bool from_seed = random.below(4) != 0;
    text.replace(at, length,
                 from_seed ? other.substr(from, from_length)
                           : tidbits[random.below(tidbits.size())]);
}

void mutate_once(std::string &text, const std::vector<std::string> &seeds, dice &random)
{
    switch (random.below(10)) {
    case 0:
        return flip(text, random);
    case 1:
        return overwrite(text, random);
    case 2:
        return erase(text, random);
    case 3:
        return insert(text, random);
    case 4:
        return repeat(text, random);
    case 5:
        text.resize(random.below(text.size() + 1));
        return;
    case 6: {
        const std::string &other = seeds[random.below(seeds.size())];
        text = text.substr(0, random.below(text.size() + 1)) +
               other.substr(random.below(other.size() + 1));
        return;
    }
    default:
        return replace_word(text, seeds, random);
    }
}

} // namespace

std::string_view take_line(std::string_view &rest)
{
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return line;
}

std::string percent_decoded(std::string_view text)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        require(i + 2 < text.size(), "an escape is whole");
        const std::size_t high = digits.find(text[i + 1]);
        const std::size_t low = digits.find(text[i + 2]);
        require(high < 16 && low < 16, "an escape has two upper-case digits");
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

bool is_reply_text(std::string_view text, std::size_t longest)
{
    while (!text.empty()) {
        const std::size_t end = text.find("\r\n");
        if (end == std::string_view::npos || end > longest ||
            std::ranges::any_of(text.substr(0, end), [](char byte) {
                return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F;
            })) {
            return false;
        }
        text.remove_prefix(end + 2);
    }
    return true;
}

std::string printable(std::string_view bytes)
{
    std::string shown;
    for (const char byte : bytes) {
        if (byte >= ' ' && byte < 0x7F && byte != '\\') {
            shown += byte;
        } else {
            std::array<char, 5> escape{};
            std::snprintf(escape.data(), escape.size(), "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(byte)));
            shown += escape.data();
        }
    }
    return shown;
}

std::string mutated(const std::vector<std::string> &seeds, std::uint64_t number)
{
    dice random(number);
    std::string text = seeds[random.below(seeds.size())];
    for (std::size_t n = 1 + random.below(4); n > 0; --n) {
        mutate_once(text, seeds, random);
    }
    return text;
}

#ifndef TIRVAL_LIBFUZZER
namespace {

/* Returns false at the first input for which a property does not hold. */
bool holds(const entry &tested, const std::string &input)
{
    try {
        tested.parse(input);
        return true;
    } catch (const std::exception &error) {
        ADD_FAILURE() << error.what() << "\ninput: " << printable(input);
        return false;
    }
}

} // namespace

void run_seeds(const entry &tested)
{
    ASSERT_FALSE(tested.seeds.empty());
    for (const std::string &seed : tested.seeds) {
        holds(tested, seed);
    }
}

void run_mutations(const entry &tested)
{
    for (std::uint64_t number = 0; number < tested.mutations; ++number) {
        if (!holds(tested, mutated(tested.seeds, number))) {
            return;
        }
    }
}
#endif

void write_seeds(const entry &tested)
{
    const char *folder = std::getenv("TIRVAL_FUZZ_SEEDS");
    for (std::size_t n = 0; folder != nullptr && n < tested.seeds.size(); ++n) {
        std::ofstream(std::string(folder) + "/seed-" + std::to_string(n), std::ios::binary)
            << tested.seeds[n];
    }
}

} // namespace fuzz
