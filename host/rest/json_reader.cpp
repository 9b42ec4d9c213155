// Parses an answer's JSON, after a look at how much memory it would take.
#include "json_reader.h"

#include "answer_sink.h"

namespace tirval::rest {

namespace {

/* How many values a JSON text has at most: one for each bracket and comma outside of strings. */
std::size_t count_values(std::string_view text)
{
    std::size_t values = 1;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\' && in_string) {
            ++i;
        } else if (c == '"') {
            in_string = !in_string;
        } else if (!in_string && (c == '{' || c == '[' || c == ',')) {
            ++values;
        }
    }
    return values;
}

} // namespace

problem read_json(std::string_view text, json_t **out)
{
    *out = nullptr;
    if (text.size() > max_json_bytes || count_values(text) > max_json_values) {
        return problem::of(failure::body_too_large);
    }
    json_error_t error;
    *out = json_loadb(text.data(), text.size(), 0, &error);
    const bool too_deep = *out == nullptr && json_error_code(&error) == json_error_stack_overflow;
    return too_deep ? problem::of(failure::json_too_deep) : problem{};
}

} // namespace tirval::rest
