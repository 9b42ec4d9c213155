// JSON values over jansson and the strict reader.
#include "json.h"

#include "text.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <sstream>

namespace graph_sim {

json json::share(const json_t *value)
{
    // jansson counts references in the value itself, which its own json_incref changes as well.
    return take(json_incref(const_cast<json_t *>(value)));
}

json json::object()
{
    return take(json_object());
}

json json::array()
{
    return take(json_array());
}

json json::text(std::string_view value)
{
    json_t *made = json_stringn(value.data(), value.size());
    return made == nullptr ? text(percent_encode(value)) : take(made);
}

json json::integer(std::int64_t value)
{
    return take(json_integer(value));
}

json json::boolean(bool value)
{
    return take(json_boolean(value));
}

json json::null()
{
    return take(json_null());
}

json json::parse(std::string_view text, const std::string &name)
{
    json_error_t error;
    json_t *value = json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error);
    if (value == nullptr) {
        throw input_error(name + ":" + std::to_string(error.line) + ":" +
                          std::to_string(error.column) + ": " + error.text);
    }
    return take(value);
}

json json::load(const std::string &file)
{
    std::string text;
    std::ifstream in(file, std::ios::binary);
    try {
        text.assign(std::istreambuf_iterator<char>(in), {});
    } catch (const std::ios_base::failure &) {
        in.close(); // a directory can be opened, but not read
    }
    if (!in.is_open()) {
        throw input_error(file + ": cannot be read");
    }
    return parse(text, file);
}

json &json::set(const std::string &key, const json &value)
{
    if (value) {
        json_object_setn_new(get(), key.data(), key.size(), json_incref(value.get()));
    }
    return *this;
}

json &json::append(const json &value)
{
    json_array_append(get(), value.get());
    return *this;
}

json json::at(const char *key) const
{
    json_t *value = json_object_get(get(), key);
    return value == nullptr ? json() : share(value);
}

std::string_view json::as_text() const
{
    return json_is_string(get())
               ? std::string_view(json_string_value(get()), json_string_length(get()))
               : std::string_view();
}

std::string json::dump() const
{
    std::string text;
    const auto append_to = [](const char *bytes, size_t size, void *target) {
        static_cast<std::string *>(target)->append(bytes, size);
        return 0;
    };
    json_dump_callback(get(), append_to, &text, JSON_COMPACT | JSON_ENCODE_ANY);
    return text;
}

void overlay(const json &object, const json &changes)
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(changes.get(), key, value)
    {
        if (json_is_null(value)) {
            json_object_del(object.get(), key);
        } else {
            json_object_set(object.get(), key, value);
        }
    }
}

object_reader::object_reader(const json_t *value, std::string place)
    : value_(value), place_(std::move(place))
{
    if (!json_is_object(value)) {
        fail("an object is needed here");
    }
}

bool object_reader::has(const char *key)
{
    return any(key) != nullptr;
}

const json_t *object_reader::any(const char *key)
{
    known_.insert(key);
    return json_object_get(value_, key);
}

std::optional<std::string> object_reader::text(const char *key)
{
    const json_t *value = any(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!json_is_string(value)) {
        fail(key, "a string is needed");
    }
    return std::string(json_string_value(value), json_string_length(value));
}

std::string object_reader::text_or(const char *key, std::string otherwise)
{
    return text(key).value_or(std::move(otherwise));
}

std::string object_reader::needed_text(const char *key)
{
    auto value = text(key);
    if (!value || value->empty()) {
        fail(key, "is missing or empty");
    }
    return *std::move(value);
}

std::optional<bool> object_reader::boolean(const char *key)
{
    const json_t *value = any(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!json_is_boolean(value)) {
        fail(key, "true or false is needed");
    }
    return json_is_true(value);
}

std::optional<std::int64_t> object_reader::integer(const char *key, std::int64_t least,
                                                   std::int64_t most)
{
    const json_t *value = any(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    const std::int64_t number = json_integer_value(value);
    if (!json_is_integer(value) || number < least || number > most) {
        fail(key, "a whole number from " + std::to_string(least) + " to " + std::to_string(most) +
                      " is needed");
    }
    return number;
}

std::optional<double> object_reader::number(const char *key, double least, double most)
{
    const json_t *value = any(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    const double number = json_number_value(value);
    if (!json_is_number(value) || !(number >= least) || !(number <= most)) {
        std::ostringstream reason;
        reason << "a number from " << least << " to " << most << " is needed";
        fail(key, reason.str());
    }
    return number;
}

std::vector<std::pair<const json_t *, std::string>> object_reader::list(const char *key)
{
    std::vector<std::pair<const json_t *, std::string>> elements;
    const json_t *value = any(key);
    if (value == nullptr) {
        return elements;
    }
    if (!json_is_array(value)) {
        fail(key, "an array is needed");
    }
    for (size_t i = 0; i < json_array_size(value); ++i) {
        elements.emplace_back(json_array_get(value, i), place_of(key) + "/" + std::to_string(i));
    }
    return elements;
}

std::optional<object_reader> object_reader::object(const char *key)
{
    const json_t *value = any(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return object_reader(value, place_of(key));
}

std::string object_reader::place_of(const char *key) const
{
    return place_ + (place_.ends_with('/') ? "" : "/") + key;
}

void object_reader::finish() const
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(value_), key, value)
    {
        if (!known_.contains(std::string_view(key))) {
            fail(key, "is not known here");
        }
    }
}

void object_reader::fail(const std::string &reason) const
{
    throw input_error(place_ + ": " + reason);
}

void object_reader::fail(const char *key, const std::string &reason) const
{
    throw input_error(place_ + ": \"" + key + "\" " + reason);
}

} // namespace graph_sim
