/* The templates of the state files' paths. */
#include "fuzz.h"

#include "frame_support.h"

#include <pwd.h>
#include <unistd.h>

namespace {

/* The same by another way: from left to right, and nothing that was put in is looked at again. */
std::string expanded(std::string_view rest)
{
    const passwd *user = getpwuid(getuid());
    const std::pair<std::string_view, std::string> variables[] = {{"$HOME", user->pw_dir},
                                                                  {"$LOGNAME", user->pw_name}};
    std::string text;
    while (!rest.empty()) {
        std::size_t taken = 1;
        std::string put(rest.substr(0, 1));
        for (const auto &[name, value] : variables) {
            if (rest.starts_with(name)) {
                taken = name.size();
                put = value;
            }
        }
        text += put;
        rest.remove_prefix(taken);
    }
    return text;
}

void parse(std::string_view input)
{
    const error_scope errors;
    const std::string path = fuzz::c_text(input);
    char *raw = nullptr;
    const tirval_result_t result = tirval_onedrive_evaluate_path(path.c_str(), &raw);
    const tirval_i_onedrive_text_t made(raw);
    fuzz::require(result == TIRVAL_SUCCESS && made != nullptr, "a known user's path is expanded");
    fuzz::require(made.get() == expanded(path), "each variable is replaced once");
}

} // namespace

TIRVAL_FUZZ_ENTRY(PathTemplate,
                  (fuzz::entry{parse,
                               {"$HOME/.tirval/onedrive-r", "/x/$LOGNAME-$LOGNAME/$HOME$HOME",
                                "$HOM$LOGNAM$", "$$HOME$LOGNAME", "plain"},
                               20000}))
