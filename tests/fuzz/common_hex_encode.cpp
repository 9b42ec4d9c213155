/* Percent encoding for URL paths.  An input is the set of bytes to encode and, on the next line,
 * the text. */
#include "fuzz.h"

#include "tirval_common.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

struct text_free {
    void operator()(char *text) const { std::free(text); }
};

bool is_escape_byte(char byte)
{
    return byte == '%' || (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'F');
}

void parse(std::string_view input)
{
    std::string_view rest = input;
    const std::string set = fuzz::c_text(fuzz::take_line(rest));
    const std::string text = fuzz::c_text(rest);
    const std::unique_ptr<char, text_free> owned(
        tirval_url_string_hex_encode(text.c_str(), set.c_str()));
    fuzz::require(owned != nullptr, "a text is encoded");
    const std::string encoded = owned.get();
    fuzz::require(fuzz::percent_decoded(encoded) == text, "decoding gives the text back");
    fuzz::require(std::ranges::all_of(encoded,
                                      [&](char byte) {
                                          return is_escape_byte(byte) ||
                                                 set.find(byte) == std::string::npos;
                                      }),
                  "nothing of the set stays");
    fuzz::require(std::ranges::all_of(encoded,
                                      [](char byte) {
                                          return byte >= ' ' && byte < 0x7F && byte != '?' &&
                                                 byte != '{' && byte != '\\';
                                      }),
                  "only what a URL's path may hold stays");
    fuzz::require(set.find('/') != std::string::npos ||
                      std::ranges::count(encoded, '/') == std::ranges::count(text, '/'),
                  "slashes stay when the set has none");
}

} // namespace

TIRVAL_FUZZ_ENTRY(HexEncode, (fuzz::entry{parse,
                                          {" #\n/a b/c#d", "\n100% \xC3\xA4 {}[]<>\\^`|",
                                           "/A0\n/A%20/0", " #\n/plus+and&more='[x]@!$,;.txt"},
                                          80000}))
