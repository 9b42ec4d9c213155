/* The storage policy. */
#include "fuzz.h"

#include "frame_support.h"

namespace {

void parse(std::string_view input)
{
    constexpr int32_t before = -77;
    const error_scope errors;
    int32_t rate = before;
    const tirval_result_t result =
        tirval_onedrive_config_parse_json(fuzz::c_text(input).c_str(), &rate);
    fuzz::require(result == TIRVAL_SUCCESS || rate == before,
                  "a policy that is refused changes nothing");
    fuzz::require(result == TIRVAL_SUCCESS || !message_of(result).empty(), "a refusal says why");
    fuzz::require(rate != 0, "a limit of 0 changes nothing");
}

} // namespace

TIRVAL_FUZZ_ENTRY(Policy,
                  (fuzz::entry{parse,
                               {R"({"user_api_rate_limit": 15})", R"({"other": [1, {}]})",
                                R"({"user_api_rate_limit": 0})", R"({"user_api_rate_limit": "15"})",
                                R"({"user_api_rate_limit": 4294967297})", "{}", "null"},
                               40000}))
