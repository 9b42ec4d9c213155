/* The users file. */
#include "fuzz.h"

#include "temp_dir.h"
#include "users.h"

#include <algorithm>

using namespace tirval::server;

namespace {

void parse(std::string_view input)
{
    static const temp_dir_t folder;
    const std::filesystem::path file = folder.write("users", input);
    const users_result_t read = load_users(file);
    const auto lines = static_cast<std::size_t>(std::ranges::count(input, '\n')) + 1;
    fuzz::require(read.users.size() <= lines, "a line makes one user at most");
    fuzz::require(read.users.size() + read.problems.size() <= lines, "a line is good or it is not");
    for (const std::string &problem : read.problems) {
        fuzz::require(problem.starts_with(file.string() + ":"), "a problem names its place");
        fuzz::require(std::ranges::none_of(
                          problem, [](unsigned char byte) { return byte < ' ' || byte == 0x7F; }),
                      "a problem is one clean line");
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(Users,
                  (fuzz::entry{parse,
                               {"# people\n\nanna:$6$saltsalt$Zm9vYmFy:daemon\nberta:!:bin\n",
                                "anna:$y$j9T$abc$Zm9vYmFy:daemon\nanna:*\n", "daemon:$1$x$Zm9vYmFy",
                                ":::\n", "a:b:c:d\nroot:!\n", "\xC3\xA4:!:daemon\r\n",
                                "x:$zz$Zm9vYmFy:nobody-such\n"},
                               1500}))
