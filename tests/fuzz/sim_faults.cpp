/* Rules for the misbehaviour of the local Graph service. */
#include "fuzz.h"

#include "faults.h"

using namespace graph_sim;

namespace {

/* A long repeated body is not tried. */
bool is_costly(std::string_view input)
{
    return input.find("body_repeat") != std::string_view::npos;
}

void parse(std::string_view input)
{
    if (is_costly(input)) {
        return;
    }
    fault_set rules;
    const std::string none = rules.list().dump();
    try {
        rules.add(json::parse(input, "rules").get(), "rules");
    } catch (const input_error &error) {
        fuzz::require(std::string_view(error.what()).starts_with("rules"),
                      "a problem names its place");
        fuzz::require(rules.list().dump() == none, "a refused document adds no rule");
        return;
    }
    const fault_subject subject{"GET", "/v1.0/me/drive/root/children", "/v1.0/me?x=%20",
                                request_kind::listing, "alice"};
    for (int n = 0; n < 3; ++n) {
        const auto fired = rules.pick(subject);
        fuzz::require(!fired || (!fired->rule.empty() && fired->action != nullptr),
                      "a rule that fires has a name and an action");
        fuzz::require(!fired || !fired->action->status ||
                          (*fired->action->status >= 100 && *fired->action->status <= 999),
                      "a status is one");
    }
    rules.clear();
    fuzz::require(!rules.pick(subject), "without rules nothing fires");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    FaultRules,
    (fuzz::entry{
        parse,
        {R"({"match": {"kind": "listing", "nth": 2}, "action": {"status": 429, "headers":)"
         R"( {"Retry-After": "3", "X": null}}})",
         R"({"random_seed": 7, "rules": [{"name": "n", "match": {"kind": ["download", "listing"],)"
         R"( "probability": 0.1, "path": "^/a.*(b|c)$"}, "action": {"reset_after": 100}}]})",
         R"({"match": {"glob": "*/child[r]en", "every": 2, "count": 1}, "action": {"garbage":)"
         R"( "endless_headers", "delay_ms": 5}})",
         R"({"match": {"target": "x=%20", "account": "alice", "method": "GET"}, "action": {"body":)"
         R"( {"error": {}}, "status": 500, "next_link": "self", "page_size": 1}})",
         R"({"match": {}, "action": {"length_change": -3, "html": true}})"},
        30000}))
