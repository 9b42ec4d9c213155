/* The seed of the local Graph service. */
#include "fuzz.h"

#include "seed.h"

#include <cctype>

using namespace graph_sim;

namespace {

/* Inputs that would read the disk, or make a great many items or bytes, are not tried. */
bool is_costly(std::string_view input)
{
    if (input.find("import") != std::string_view::npos) {
        return true;
    }
    std::size_t digits = 0;
    const bool counts = input.find("count") != std::string_view::npos ||
                        input.find("times") != std::string_view::npos;
    for (const char byte : input) {
        digits = std::isdigit(static_cast<unsigned char>(byte)) != 0 ? digits + 1 : 0;
        if (counts && digits > 3) {
            return true;
        }
    }
    return false;
}

struct everything {
    world all;
    token_store tokens;
    settings options;
    fault_set faults;

    /* Returns what is wrong with the seed; "" when it was taken. */
    std::string read(std::string_view text)
    {
        try {
            read_seed(json::parse(text, "seed"), "seed", "/nowhere",
                      {all, tokens, options, faults});
            return "";
        } catch (const input_error &error) {
            return error.what();
        }
    }
};

void parse(std::string_view input)
{
    if (is_costly(input)) {
        return;
    }
    everything first;
    everything second;
    const std::string problem = first.read(input);
    fuzz::require(problem == second.read(input), "a seed is read the same each time");
    fuzz::require(problem.empty() || problem.starts_with("seed:"), "a problem names its place");
    if (!problem.empty()) {
        return;
    }
    fuzz::require(first.options.default_page >= 1 && first.options.largest_page >= 1,
                  "a page has entries");
    for (const auto &who : first.all.accounts()) {
        fuzz::require(first.all.find_account(who->name) == who.get(), "account names are unique");
        fuzz::require(who->own == nullptr || first.all.find_drive(who->own->facts().id) == who->own,
                      "drives are found by their id");
    }
    fuzz::require(first.all.accounts().size() == second.all.accounts().size() &&
                      first.all.sites().size() == second.all.sites().size(),
                  "a seed makes the same each time");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Seed,
    (fuzz::entry{
        parse,
        {R"({"accounts": [{"name": "alice", "kind": "business", "tokens": ["t", {"token": "u",)"
         R"( "expires": "2024-05-02T09:12:03Z"}], "refresh_tokens": ["r"], "drive": {"children": [)"
         R"({"name": "a.txt", "text": "hello", "modified": "2024-05-02T09:12:03Z"},)"
         R"({"name": "b", "size": 5368709120, "pattern": "cycle+3"}, {"name": "c", "base64": "AAE="},)"
         R"({"name": "d", "children": [{"name": "e", "folder": true, "extra": {"x": null}}]}]},)"
         R"("shared": [{"owner": "carol", "path": "/P"}], "follows": ["team"]},)"
         R"({"name": "carol", "kind": "personal", "drive": {"children": [{"name": "P", "folder":)"
         R"( true}]}}], "sites": [{"name": "team", "libraries": [{"name": "D"}]}],)"
         R"("settings": {"default_page": 5}, "faults": {"rules": []}})",
         R"({"accounts": [{"name": "a", "drive": {"children": [{"generate": {"count": 3, "name":)"
         R"( "f-##", "size": 1}}]}}]})",
         R"({"accounts": [{"name": "a", "drive": null, "throttle": {"requests_per_second": 1.5}}]})",
         R"({"accounts": {}})", "{}"},
        20000}))
