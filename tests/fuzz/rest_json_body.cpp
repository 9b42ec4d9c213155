/* The JSON body of an answer. */
#include "fuzz.h"

#include "answer_sink.h"
#include "json_reader.h"

#include <cmath>
#include <cstdlib>
#include <memory>

using namespace tirval::rest;

namespace {

struct release {
    void operator()(json_t *value) const { json_decref(value); }
    void operator()(char *text) const { std::free(text); }
};
using json_ptr = std::unique_ptr<json_t, release>;

/* Equal, but for the last digits of real numbers. */
bool same_value(const json_t *a, const json_t *b)
{
    if (json_is_real(a) && json_is_real(b)) {
        const double difference = std::abs(json_real_value(a) - json_real_value(b));
        return difference <= std::abs(json_real_value(a)) * 1e-14;
    }
    if (json_is_array(a) && json_is_array(b)) {
        bool same = json_array_size(a) == json_array_size(b);
        for (std::size_t i = 0; same && i < json_array_size(a); ++i) {
            same = same_value(json_array_get(a, i), json_array_get(b, i));
        }
        return same;
    }
    if (json_is_object(a) && json_is_object(b)) {
        bool same = json_object_size(a) == json_object_size(b);
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(const_cast<json_t *>(a), key, value)
        {
            same = same && same_value(value, json_object_get(b, key));
        }
        return same;
    }
    return json_equal(a, b) == 1;
}

/* Where jansson is no measure: it takes a NUL behind a number, and another limit of exponents. */
bool is_disputed(std::string_view text)
{
    if (text.find('\0') != std::string_view::npos) {
        return true;
    }
    for (std::size_t at = 1; at < text.size(); ++at) {
        const bool after_digit = text[at - 1] >= '0' && text[at - 1] <= '9';
        if (after_digit && (text[at] == 'e' || text[at] == 'E')) {
            return true;
        }
    }
    return false;
}

void parse(std::string_view input)
{
    json_t *raw = nullptr;
    const problem trouble = read_json(input, &raw);
    const json_ptr value(raw);
    json_error_t error;
    const json_ptr same(json_loadb(input.data(), input.size(), 0, &error));
    fuzz::require(trouble || is_disputed(input) || (same == nullptr) == (value == nullptr),
                  "what jansson reads is read, and nothing else");
    fuzz::require(value == nullptr || same == nullptr || same_value(value.get(), same.get()),
                  "a value is what jansson makes of it");
    fuzz::require(!trouble || value == nullptr, "a refused body gives no value");
    if (value == nullptr) {
        return;
    }
    fuzz::require(json_is_object(value.get()) || json_is_array(value.get()),
                  "a body is an object or an array");
    const std::unique_ptr<char, release> text(json_dumps(value.get(), 0));
    fuzz::require(text != nullptr, "what was read can be written");
    const problem again = read_json(text.get(), &raw);
    const json_ptr second(raw);
    fuzz::require(!again && same_value(value.get(), second.get()),
                  "what was written reads as the same");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    JsonBody,
    (fuzz::entry{
        parse,
        {R"({"value":[{"id":"1","name":"a","size":3,"file":{}}],"@odata.nextLink":"x"})",
         R"({"error":{"code":"itemNotFound","message":"\u00e4 \ud83d\ude00","innerError":{}}})",
         R"([1,-2.5e300,true,null,"",{"a":[[[]]]}])", "", std::string(3000, '['),
         R"({"a":"\\\"[{,"})"},
        8000}))
