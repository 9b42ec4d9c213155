// Reads an answer's JSON.  The parser is Boost's: on the pages of a listing it takes a third of the
// time that jansson's own needs, whose values it is made to build.
#include "json_reader.h"

#include "answer_sink.h"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>
#include <vector>

namespace tirval::rest {

namespace {

/* As deep as jansson itself reads. */
constexpr std::size_t max_depth = 2048;

struct json_deleter {
    void operator()(json_t *value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

/* Builds the values that the parser meets.  What jansson refuses is refused here too: a document
 * that is a bare value, NUL in a text, and numbers that do not fit. */
class builder {
    using error_code = boost::json::error_code;
    using text_part = boost::json::string_view;

  public:
    static constexpr std::size_t max_object_size = static_cast<std::size_t>(-1);
    static constexpr std::size_t max_array_size = static_cast<std::size_t>(-1);
    static constexpr std::size_t max_key_size = static_cast<std::size_t>(-1);
    static constexpr std::size_t max_string_size = static_cast<std::size_t>(-1);

    json_ptr take_root() { return std::move(root); }

    bool on_document_begin(error_code & /*ec*/) { return true; }
    bool on_document_end(error_code & /*ec*/) { return true; }
    bool on_object_begin(error_code &ec) { return open(json_object(), ec); }
    bool on_object_end(std::size_t /*size*/, error_code & /*ec*/) { return close(); }
    bool on_array_begin(error_code &ec) { return open(json_array(), ec); }
    bool on_array_end(std::size_t /*size*/, error_code & /*ec*/) { return close(); }

    bool on_key_part(text_part part, std::size_t /*size*/, error_code & /*ec*/)
    {
        key.append(part.data(), part.size());
        return true;
    }
    bool on_key(text_part part, std::size_t size, error_code &ec)
    {
        on_key_part(part, size, ec);
        return key.find('\0') == std::string::npos || refuse(ec);
    }
    bool on_string_part(text_part part, std::size_t /*size*/, error_code & /*ec*/)
    {
        text.append(part.data(), part.size());
        return true;
    }
    bool on_string(text_part part, std::size_t size, error_code &ec)
    {
        on_string_part(part, size, ec);
        if (text.find('\0') != std::string::npos) {
            return refuse(ec);
        }
        const bool added = add(json_stringn_nocheck(text.data(), text.size()), ec);
        text.clear();
        return added;
    }

    bool on_number_part(text_part /*part*/, error_code & /*ec*/) { return true; }
    bool on_int64(std::int64_t value, text_part /*digits*/, error_code &ec)
    {
        return add(json_integer(value), ec);
    }
    bool on_uint64(std::uint64_t /*value*/, text_part /*digits*/, error_code &ec)
    {
        return refuse(ec);
    }
    bool on_double(double value, text_part digits, error_code &ec)
    {
        const bool whole = digits.find_first_of(".eE") == text_part::npos;
        return whole ? refuse(ec) : add(json_real(value), ec);
    }
    bool on_bool(bool value, error_code &ec) { return add(json_boolean(value), ec); }
    bool on_null(error_code &ec) { return add(json_null(), ec); }
    bool on_comment_part(text_part /*part*/, error_code & /*ec*/) { return true; }
    bool on_comment(text_part /*part*/, error_code & /*ec*/) { return true; }

  private:
    static bool refuse(error_code &ec)
    {
        ec = boost::json::error::exception;
        return false;
    }

    /* Puts a new value where the document is; `value` is consumed, null when memory ran out. */
    bool add(json_t *value, error_code &ec)
    {
        if (open_values.empty() || value == nullptr) {
            json_decref(value);
            return refuse(ec);
        }
        json_t *const parent = open_values.back();
        const int failed = json_is_array(parent) ? json_array_append_new(parent, value)
                                                 : json_object_setn_new_nocheck(parent, key.data(),
                                                                                key.size(), value);
        key.clear();
        return failed == 0 || refuse(ec);
    }

    bool open(json_t *value, error_code &ec)
    {
        if (open_values.empty()) {
            root.reset(value);
        } else if (!add(value, ec)) {
            return false;
        }
        open_values.push_back(value);
        return value != nullptr || refuse(ec);
    }

    bool close()
    {
        open_values.pop_back();
        return true;
    }

    json_ptr root;
    std::vector<json_t *> open_values; /* the innermost last; all belong to the root */
    std::string key;                   /* of the next value, if it goes into an object */
    std::string text;
};

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
    boost::json::parse_options options;
    options.max_depth = max_depth;
    boost::json::basic_parser<builder> parser(options);
    boost::json::error_code error;
    const std::size_t read = parser.write_some(false, text.data(), text.size(), error);
    if (error == boost::json::error::too_deep) {
        return problem::of(failure::json_too_deep);
    }
    if (!error && read == text.size()) {
        *out = parser.handler().take_root().release();
    }
    return {};
}

} // namespace tirval::rest
