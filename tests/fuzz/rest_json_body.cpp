/* The JSON body of an answer. */
#include "fuzz.h"

#include "answer_sink.h"
#include "json_reader.h"

#include <cstdlib>
#include <memory>

using namespace tirval::rest;

namespace {

struct release {
    void operator()(json_t *value) const { json_decref(value); }
    void operator()(char *text) const { std::free(text); }
};
using json_ptr = std::unique_ptr<json_t, release>;

void parse(std::string_view input)
{
    json_t *raw = nullptr;
    const problem trouble = read_json(input, &raw);
    const json_ptr value(raw);
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
    fuzz::require(!again && json_equal(value.get(), second.get()) == 1,
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
        15000}))
