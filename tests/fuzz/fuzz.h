/*
 * Parsers of outside bytes under mutated input.  A source holds one parser's seeds and the function
 * that parses one input and requires the properties that hold for every input.  The same source is
 * two GoogleTests (the seeds; a fixed number of deterministic mutations of them), and, built with
 * TIRVAL_FUZZ by clang, a libFuzzer program of its own:
 *
 *     void parse(std::string_view input) { ... fuzz::require(ok, "what always holds"); }
 *     TIRVAL_FUZZ_ENTRY(ControlLine, (fuzz::entry{parse, {"NOOP\r\n"}}))
 */
#ifndef TIRVAL_TESTS_FUZZ_H
#define TIRVAL_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

struct entry {
    void (*parse)(std::string_view input);
    std::vector<std::string> seeds; /* at least one; also the material of splices */
    std::size_t mutations = 10000;
};

/* A property did not hold for an input. */
class broken_property : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

inline void require(bool holds, const char *property)
{
    if (!holds) {
        throw broken_property(property);
    }
}

/* The input's bytes up to the first NUL, as a C string. */
inline std::string c_text(std::string_view input)
{
    return std::string(input.substr(0, input.find('\0')));
}

/* What stands before the first line end, which is taken off `rest` with it. */
std::string_view take_line(std::string_view &rest);

/* Decodes "%XX"; throws broken_property when a "%" begins no escape. */
std::string percent_decoded(std::string_view text);

/* Whether the text is complete reply lines of the control channel: each ended by CR LF and at most
 * `longest` bytes without it, with no other control byte. */
bool is_reply_text(std::string_view text, std::size_t longest);

/* The bytes with everything unprintable as "\xNN". */
std::string printable(std::string_view bytes);

/* One input derived from the seeds.  The same number gives the same input everywhere. */
std::string mutated(const std::vector<std::string> &seeds, std::uint64_t number);

/* Run the entry, and fail the running GoogleTest with the input when a property does not hold. */
void run_seeds(const entry &tested);
void run_mutations(const entry &tested);

/* Writes the seeds as files into the folder that TIRVAL_FUZZ_SEEDS names, if it does. */
void write_seeds(const entry &tested);

} // namespace fuzz

#ifdef TIRVAL_LIBFUZZER
/* A property that does not hold ends the program by its exception, which libFuzzer reports. */
#define TIRVAL_FUZZ_ENTRY(name, made)                                                              \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)                                           \
    {                                                                                              \
        fuzz::write_seeds(made);                                                                   \
        return 0;                                                                                  \
    }                                                                                              \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)              \
    {                                                                                              \
        static const fuzz::entry tested = made;                                                    \
        tested.parse({reinterpret_cast<const char *>(data), size});                                \
        return 0;                                                                                  \
    }
#else
#include <gtest/gtest.h>
#define TIRVAL_FUZZ_ENTRY(name, made)                                                              \
    TEST(Fuzz##name, PropertiesHoldForTheSeeds)                                                    \
    {                                                                                              \
        fuzz::run_seeds(made);                                                                     \
    }                                                                                              \
    TEST(Fuzz##name, PropertiesHoldForMutationsOfTheSeeds)                                         \
    {                                                                                              \
        fuzz::run_mutations(made);                                                                 \
    }
#endif

#endif
