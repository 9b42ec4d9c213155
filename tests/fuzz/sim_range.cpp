/* Range headers at the local Graph service.  An input is the content's size and, on the next line,
 * the header's value. */
#include "fuzz.h"

#include "ranges.h"

#include <cstdlib>

using namespace graph_sim;

namespace {

void parse(std::string_view input)
{
    const std::uint64_t size =
        std::strtoull(fuzz::c_text(fuzz::take_line(input)).c_str(), nullptr, 10);
    const byte_range range = parse_range(input, size);
    switch (range.what) {
    case byte_range::kind::whole:
        fuzz::require(range.offset == 0 && range.length == size, "no range means everything");
        break;
    case byte_range::kind::part:
        fuzz::require(range.length >= 1 && range.offset < size &&
                          range.length <= size - range.offset,
                      "a part is in the content");
        fuzz::require(input.starts_with("bytes="), "a part was asked for in bytes");
        break;
    case byte_range::kind::unsatisfiable:
    case byte_range::kind::malformed:
        fuzz::require(range.length == 0, "what cannot be given has no bytes");
        break;
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(Range, (fuzz::entry{parse,
                                      {"10\nbytes=0-9", "10\nbytes=5-", "10\nbytes=-3",
                                       "10\nbytes=0-1,4-5", "10\nbytes=10-", "0\nbytes=0-0",
                                       "18446744073709551615\nbytes=0-18446744073709551615",
                                       "10\nitems=1-2", "10\nbytes=9-1"},
                                      80000}))
