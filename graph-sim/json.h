// Owned JSON values over jansson, and a strict reader for the files and bodies that people write.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

// What is wrong with a file or a control body, and where: "seed.json: /accounts/0: unknown ...".
class input_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One reference to a JSON value.  An empty one (get() is null) stands for "absent".
// Copies share the value.  A value that several threads reach must not be changed any more.
class json {
  public:
    json() = default;
    json(const json &other) : value_(json_incref(other.get())) {}
    json(json &&) noexcept = default;
    json &operator=(json other) noexcept
    {
        value_.swap(other.value_);
        return *this;
    }
    ~json() = default;

    // Takes over a reference that the caller owns.
    static json take(json_t *value) { return json(value); }
    // Adds a reference of its own to a value that stays the caller's.
    static json share(const json_t *value);

    static json object();
    static json array();
    // JSON has no place for bytes that are not UTF-8: such a text comes percent-encoded.
    static json text(std::string_view value);
    static json integer(std::int64_t value);
    static json integer(std::uint64_t value) { return integer(static_cast<std::int64_t>(value)); }
    static json boolean(bool value);
    static json null();

    // Reads one JSON text; throws input_error "NAME:line:column: reason".
    static json parse(std::string_view text, const std::string &name);
    // Reads a whole file; an unreadable one throws input_error as well.
    static json load(const std::string &file);

    [[nodiscard]] json_t *get() const { return value_.get(); }
    explicit operator bool() const { return value_ != nullptr; }

    // Puts a member of an object, replacing one of the same name; an empty value is left out.
    json &set(const std::string &key, const json &value);
    json &set(const std::string &key, std::string_view value) { return set(key, text(value)); }
    json &set(const std::string &key, const char *value) { return set(key, text(value)); }
    json &append(const json &value);
    // A member of an object, or an empty value.
    [[nodiscard]] json at(const char *key) const;
    // The text of a string value, or "".
    [[nodiscard]] std::string_view as_text() const;
    [[nodiscard]] std::int64_t as_integer() const { return json_integer_value(get()); }
    // Compact JSON text.
    [[nodiscard]] std::string dump() const;

  private:
    struct release {
        void operator()(json_t *value) const noexcept { json_decref(value); }
    };
    explicit json(json_t *value) : value_(value) {}

    std::unique_ptr<json_t, release> value_;
};

// Overlays `changes` on an object: a null takes the member away, anything else replaces it.
void overlay(const json &object, const json &changes);

// Reads the members of one object and knows which ones were asked for.  Every failure is an
// input_error that names the place as a JSON pointer.  Borrows the value.
class object_reader {
  public:
    object_reader(const json_t *value, std::string place);

    [[nodiscard]] bool has(const char *key);
    std::optional<std::string> text(const char *key);
    std::string text_or(const char *key, std::string otherwise);
    // A text that must be there and must not be empty.
    std::string needed_text(const char *key);
    std::optional<bool> boolean(const char *key);
    std::optional<std::int64_t> integer(const char *key, std::int64_t least, std::int64_t most);
    std::optional<double> number(const char *key, double least, double most);
    // Any member, or null; the reader counts it as known.
    const json_t *any(const char *key);
    // The elements of an array member with their places; none when the member is absent.
    std::vector<std::pair<const json_t *, std::string>> list(const char *key);
    std::optional<object_reader> object(const char *key);

    // Refuses members that were never asked for.
    void finish() const;
    // The place of a member.
    [[nodiscard]] std::string place_of(const char *key) const;
    [[noreturn]] void fail(const std::string &reason) const;
    [[noreturn]] void fail(const char *key, const std::string &reason) const;

  private:
    const json_t *value_;
    std::string place_;
    std::set<std::string, std::less<>> known_;
};

} // namespace graph_sim
