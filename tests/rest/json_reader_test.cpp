// Pins which texts are read as JSON and what they become: the same as with jansson's own parser.
#include "json_reader.h"

#include "answer_sink.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

using tirval::rest::failure;
using tirval::rest::read_json;

namespace {

struct json_deleter {
    void operator()(json_t *value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

json_ptr read(std::string_view text, failure expected = failure::none)
{
    json_t *value = nullptr;
    EXPECT_EQ(read_json(text, &value).what, expected) << text.substr(0, 80);
    return json_ptr(value);
}

std::string nested(std::size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

class ReadJson : public testing::TestWithParam<std::string> {};

} // namespace

TEST_P(ReadJson, AgreesWithJansson)
{
    const std::string &text = GetParam();
    const json_ptr expected(json_loadb(text.data(), text.size(), 0, nullptr));
    const json_ptr value = read(text);
    ASSERT_EQ(value == nullptr, expected == nullptr);
    if (value != nullptr) {
        EXPECT_TRUE(json_equal(value.get(), expected.get()));
        const std::unique_ptr<char, decltype(&std::free)> written(json_dumps(value.get(), 0),
                                                                  &std::free);
        const std::unique_ptr<char, decltype(&std::free)> wanted(json_dumps(expected.get(), 0),
                                                                 &std::free);
        EXPECT_STREQ(written.get(), wanted.get());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ReadJson,
    testing::Values("{}", "[]", " \t\r\n[ ] \n", R"({"a":1,"b":[true,false,null],"c":{"d":"e"}})",
                    R"({"":0})", R"({"a":1,"b":2,"a":3})", R"({"a":{"x":1},"a":"y","c":[]})",
                    R"(["","plain","\"\\\/\b\f\n\r\t","\u00e9\u20ac\ud83d\ude00","é€😀"])",
                    R"({"k\u00e9y \"\\":"v"})", "[\"\x7f\"]", "[[[[]]],[{}],{\"a\":[]}]"));

INSTANTIATE_TEST_SUITE_P(Numbers, ReadJson,
                         testing::Values("[0,-0,1,-1,1099511627776]",
                                         "[9223372036854775807,-9223372036854775808]",
                                         "[9223372036854775808]", "[-9223372036854775809]",
                                         "[18446744073709551615]", "[18446744073709551616]",
                                         "[100000000000000000000000000]", "[1.5,-2.25,0.0,-0.0]",
                                         "[1e3,1E3,1e+3,25e-2]", "[1e400]", "[-1e400]", "[1e-400]",
                                         "[01]", "[-]", "[1.]", "[.5]", "[+1]", "[1e]", "[0x10]",
                                         "[NaN]", "[Infinity]"));

INSTANTIATE_TEST_SUITE_P(Refused, ReadJson,
                         testing::Values("", " ", "1", "\"text\"", "true", "null", "[", "]", "{",
                                         "}", "[1", "[1,]", "[,]", "[1 2]", "{\"a\"}", "{\"a\":}",
                                         "{\"a\":1,}", "{a:1}", "{'a':1}", "{1:2}", "[]x", "[][]",
                                         "{}{}", "[1}", "{\"a\":1]", "[tru]", "[True]", "[nullx]",
                                         "[\"open]", "[\"\\x\"]", "[\"\\u12\"]", "[\"\\u12g4\"]",
                                         "[\"tab\tinside\"]", "[\"line\ninside\"]", "<html></html>",
                                         "[1] // comment", "[/* comment */1]", "\xef\xbb\xbf[]"));

INSTANTIATE_TEST_SUITE_P(BadText, ReadJson,
                         testing::Values(R"(["\u0000"])", R"(["a\u0000b"])", R"({"a\u0000":1})",
                                         R"(["\ud83d"])", R"(["\ude00"])", R"(["\ud83dx"])",
                                         R"(["\ud83d\u0041"])", R"(["\ud83d\ud83d"])", "[\"\x80\"]",
                                         "[\"\xc3\"]", "[\"\xc0\xaf\"]", "[\"\xe2\x82\"]",
                                         "[\"\xed\xa0\x80\"]", "[\"\xf4\x90\x80\x80\"]",
                                         "[\"\xff\"]", "[\"\xf0\x9f\x98\x80\"]", "{\"\xff\":1}",
                                         std::string("[\"a\0b\"]", 7), std::string("[]\0", 3),
                                         std::string("\0[]", 3)));

TEST(JsonReader, ReadsLongTextsAndKeysWhole)
{
    const std::string part(70000, 'x');
    const std::string text = R"({"k)" + part + R"(\u00e9":"v)" + part + "\\n" + part + "\"}";
    const json_ptr value = read(text);
    const char *found = json_string_value(json_object_get(value.get(), ("k" + part + "é").c_str()));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found, "v" + part + "\n" + part);
}

TEST(JsonReader, ReadsAsDeepAsJanssonDoes)
{
    const std::string deepest = nested(2048);
    const json_ptr expected(json_loadb(deepest.data(), deepest.size(), 0, nullptr));
    ASSERT_NE(expected, nullptr);
    EXPECT_NE(read(deepest), nullptr);
}

TEST(JsonReader, DeeperNestingIsAProblemOfItsOwn)
{
    EXPECT_EQ(read(nested(2049), failure::json_too_deep), nullptr);
    std::string objects;
    for (int i = 0; i < 3000; ++i) {
        objects += "{\"a\":";
    }
    EXPECT_EQ(read(objects, failure::json_too_deep), nullptr);
}

TEST(JsonReader, MoreValuesThanMemoryAllowsAreAProblem)
{
    std::string text = "[0";
    for (std::size_t i = 2; i < tirval::rest::max_json_values; ++i) {
        text += ",0";
    }
    EXPECT_NE(read(text + "]"), nullptr);
    EXPECT_EQ(read(text + ",0]", failure::body_too_large), nullptr);
}
