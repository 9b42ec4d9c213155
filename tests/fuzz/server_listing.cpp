/* How items are shown, and the list of facts that a client may choose.  An input is eight bytes
 * each of a size and a time, a byte of mode, then the name, and from the next line on a list of
 * facts. */
#include "fuzz.h"

#include "listing.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

using namespace tirval::server;

namespace {

std::int64_t take_number(std::string_view &input)
{
    std::int64_t number = 0;
    const std::size_t size = std::min(sizeof number, input.size());
    std::memcpy(&number, input.data(), size);
    input.remove_prefix(size);
    return number;
}

bool all_digits(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

/* The value of a fact, "" when it is not there. */
std::string_view fact(std::string_view facts, std::string_view name)
{
    const std::size_t at = facts.find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view value = facts.substr(at + name.size());
    return value.substr(0, value.find(';'));
}

void require_facts(const item_t &item, const std::string &name, const fact_set_t &set)
{
    const std::string facts =
        facts_text(item, entry_kind_t::child, "/" + name, set, make_owner_names(name, name));
    fuzz::require(facts.empty() || facts.ends_with(';'), "every fact has its end");
    fuzz::require(std::ranges::all_of(facts, [](char c) { return c > ' ' || c < 0; }),
                  "facts hold no blank or control byte");
    for (std::string_view rest = facts; !rest.empty(); rest.remove_prefix(rest.find(';') + 1)) {
        fuzz::require(rest.find('=') < rest.find(';'), "facts are names with values");
    }
    fuzz::require(all_digits(fact(facts, "size=")), "a size is a number");
    const std::string_view time = fact(facts, "modify=");
    fuzz::require(time.empty() || (time.size() == 14 && all_digits(time)),
                  "a time has fourteen digits");
}

void parse(std::string_view input)
{
    tirval_gridftp_server_control_stat_t record{};
    record.size = take_number(input);
    record.mtime = take_number(input);
    record.mode = static_cast<mode_t>((input.size() & 1U) != 0 ? S_IFDIR : S_IFREG) |
                  (input.empty() ? 0U : static_cast<unsigned char>(input.front()));
    const std::string name(fuzz::take_line(input));
    const item_t item = item_from_record(record);
    const std::string line = ls_line(item, name, make_owner_names(name, name), 1700000000);
    fuzz::require(line.ends_with(name), "a line ends in the name");
    const std::string_view columns = std::string_view(line).substr(0, line.size() - name.size());
    fuzz::require(columns.size() > 50 && columns.ends_with(' ') &&
                      (columns[0] == '-' || columns[0] == 'd') && columns[10] == ' ',
                  "a line has its columns");
    require_facts(item, name, fact_set_t{});
    if (const auto chosen = fact_set_t::parse(input)) {
        const auto again = fact_set_t::parse(chosen->list());
        fuzz::require(again && again->list() == chosen->list(), "a list of facts reads as itself");
        require_facts(item, name, *chosen);
    }
}

std::string seed(std::int64_t size, std::int64_t time, const std::string &rest)
{
    std::string text(16, '\0');
    std::memcpy(text.data(), &size, 8);
    std::memcpy(text.data() + 8, &time, 8);
    return text + rest;
}

} // namespace

TIRVAL_FUZZ_ENTRY(Listing, (fuzz::entry{parse,
                                        {seed(11, 1700000000, "hello.txt\ntype;size;modify;"),
                                         seed(-1, -1, "a b;c\nTYPE;unix.MODE;nothing;"),
                                         seed(INT64_MAX, INT64_MAX, "x\n;;"),
                                         seed(0, INT64_MIN, "\xC3\xA4 -> y\nperm;unique"),
                                         seed(4LL << 30, 253402300800, "\n"),
                                         seed(5, -62135596801, "old\nUNIX.owner;UNIX.group;")},
                                        60000}))
