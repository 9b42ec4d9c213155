// Reading fault rules and deciding which one a request meets.
#include "faults.h"

#include <fnmatch.h>
#include <regex.h>

#include <algorithm>
#include <array>
#include <limits>

namespace graph_sim {

namespace {

constexpr auto unlimited = std::numeric_limits<std::int64_t>::max();

// A compiled POSIX extended regular expression.
class pattern {
  public:
    // Throws input_error with the reason alone.
    explicit pattern(const std::string &text)
    {
        const int error = regcomp(&compiled_, text.c_str(), REG_EXTENDED | REG_NOSUB);
        if (error != 0) {
            std::array<char, 128> reason{};
            regerror(error, &compiled_, reason.data(), reason.size());
            throw input_error(reason.data());
        }
    }
    ~pattern() { regfree(&compiled_); }
    pattern(const pattern &) = delete;
    pattern &operator=(const pattern &) = delete;

    [[nodiscard]] bool meets(std::string_view text) const
    {
        return regexec(&compiled_, std::string(text).c_str(), 0, nullptr, 0) == 0;
    }

  private:
    regex_t compiled_{};
};

struct criteria {
    std::string method;
    std::shared_ptr<const pattern> path; // null: any
    std::shared_ptr<const pattern> target;
    std::string glob;
    std::vector<request_kind> kinds; // none: any
    std::string account;
    std::uint64_t nth = 1; // the first request that may be met
    std::uint64_t every = 1;
    std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
    double probability = 1;

    [[nodiscard]] bool meets(const fault_subject &subject) const
    {
        return (method.empty() || method == subject.method) &&
               (account.empty() || account == subject.account) &&
               (kinds.empty() || std::ranges::find(kinds, subject.kind) != kinds.end()) &&
               (glob.empty() || fnmatch(glob.c_str(), std::string(subject.path).c_str(), 0) == 0) &&
               (!path || path->meets(subject.path)) && (!target || target->meets(subject.target));
    }
};

std::shared_ptr<const pattern> read_pattern(object_reader &reader, const char *key)
{
    const auto text = reader.text(key);
    try {
        return text ? std::make_shared<const pattern>(*text) : nullptr;
    } catch (const input_error &error) {
        reader.fail(key, std::string("is not a regular expression: ") + error.what());
    }
}

std::vector<request_kind> read_kinds(object_reader &reader)
{
    std::vector<std::string> names;
    const json_t *value = reader.any("kind");
    if (json_is_array(value)) {
        for (const auto &[element, place] : reader.list("kind")) {
            const char *name = json_string_value(element);
            names.emplace_back(name == nullptr ? "" : name);
        }
    } else if (value != nullptr) {
        names.push_back(reader.needed_text("kind"));
    }
    std::vector<request_kind> found;
    for (const std::string &name : names) {
        request_kind kind{};
        if (!kind_by_name(name, kind)) {
            reader.fail("kind", "names no kind of request: \"" + name + "\"");
        }
        found.push_back(kind);
    }
    return found;
}

std::uint64_t count_of(object_reader &reader, const char *key, std::int64_t least,
                       std::uint64_t otherwise)
{
    const auto number = reader.integer(key, least, unlimited);
    return number ? static_cast<std::uint64_t>(*number) : otherwise;
}

criteria read_criteria(object_reader reader)
{
    criteria read;
    read.method = reader.text_or("method", "");
    read.path = read_pattern(reader, "path");
    read.target = read_pattern(reader, "target");
    read.glob = reader.text_or("glob", "");
    read.kinds = read_kinds(reader);
    read.account = reader.text_or("account", "");
    const bool single = reader.has("nth");
    read.nth = count_of(reader, "nth", 1, 1);
    read.every = count_of(reader, "every", 1, 1);
    // "the second request" means that one alone unless more are asked for.
    const bool once = single && !reader.has("every") && !reader.has("probability");
    read.count = count_of(reader, "count", 1, once ? 1 : read.count);
    read.probability = reader.number("probability", 0, 1).value_or(1);
    reader.finish();
    return read;
}

std::optional<std::uint64_t> read_count(object_reader &reader, const char *key)
{
    const auto number = reader.integer(key, 0, unlimited);
    return number ? std::optional(static_cast<std::uint64_t>(*number)) : std::nullopt;
}

void read_headers(object_reader &reader, fault_action &action)
{
    const json_t *fields = reader.any("headers");
    if (fields != nullptr && !json_is_object(fields)) {
        reader.fail("headers", "is an object of names and texts");
    }
    const char *name = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(fields), name, value)
    {
        if (!json_is_string(value) && !json_is_null(value)) {
            reader.fail("headers", "holds texts, or null to take a header away");
        }
        action.headers.emplace_back(
            name, json_is_null(value) ? std::nullopt
                                      : std::optional<std::string>(json_string_value(value)));
    }
}

void read_body(object_reader &reader, fault_action &action)
{
    const json_t *body = reader.any("body");
    if (json_is_string(body)) {
        action.body = std::string(json_string_value(body), json_string_length(body));
    } else if (body != nullptr) {
        action.body = json::share(body).dump();
        action.content_type = "application/json";
    }
    const auto repeat = reader.object("body_repeat");
    if (repeat) {
        object_reader inner = *repeat;
        const std::string text = inner.needed_text("text");
        const auto times = inner.integer("times", 1, 100'000'000);
        inner.finish();
        if (!times || static_cast<std::uint64_t>(*times) * text.size() > 256'000'000) {
            reader.fail("body_repeat", "needs \"times\", and at most 256,000,000 bytes in all");
        }
        action.body.emplace();
        for (std::int64_t i = 0; i < *times; ++i) {
            *action.body += text;
        }
    }
    if (const auto type = reader.text("content_type")) {
        action.content_type = type;
    }
    action.html = reader.boolean("html").value_or(false);
    action.bad_json = reader.boolean("bad_json").value_or(false);
}

damage read_damage(object_reader &reader)
{
    struct named {
        std::string_view name;
        damage kind;
    };
    static constexpr std::array known{
        named{"status_line", damage::status_line},
        named{"chunk_size", damage::chunk_size},
        named{"endless_headers", damage::endless_headers},
        named{"endless_header_line", damage::endless_header_line},
        named{"endless_body", damage::endless_body},
    };
    const auto text = reader.text("garbage");
    if (!text) {
        return damage::none;
    }
    const auto *const found = std::ranges::find(known, *text, &named::name);
    if (found == known.end()) {
        reader.fail("garbage", "names no kind of damage: \"" + *text + "\"");
    }
    return found->kind;
}

void read_receipt(object_reader &reader, delivery &how)
{
    how.reset_after_received = read_count(reader, "reset_after_received");
    how.stall_after_received = read_count(reader, "stall_after_received");
    how.answer_after_received = read_count(reader, "answer_after_received");
    if (const auto rate = reader.integer("receive_bytes_per_second", 1, unlimited)) {
        how.receive_bytes_per_second = static_cast<std::uint64_t>(*rate);
    }
}

void read_delivery(object_reader &reader, delivery &how)
{
    read_receipt(reader, how);
    how.delay = std::chrono::milliseconds(reader.integer("delay_ms", 0, 3'600'000).value_or(0));
    how.drop = reader.boolean("drop").value_or(false);
    how.reset = reader.boolean("reset").value_or(false);
    how.reset_after = read_count(reader, "reset_after");
    how.stall = reader.boolean("stall").value_or(false);
    how.stall_after = read_count(reader, "stall_after");
    how.close_after = read_count(reader, "truncate_at");
    if (const auto rate = reader.integer("bytes_per_second", 1, unlimited)) {
        how.bytes_per_second = static_cast<std::uint64_t>(*rate);
    }
    how.close = reader.boolean("close").value_or(false);
    how.garbage = read_damage(reader);
}

std::shared_ptr<const fault_action> read_action(object_reader reader)
{
    auto action = std::make_shared<fault_action>();
    if (const auto status = reader.integer("status", 200, 599)) {
        action->status = static_cast<unsigned>(*status);
    }
    action->execute = reader.boolean("execute").value_or(false);
    read_headers(reader, *action);
    read_body(reader, *action);
    if (const auto size = reader.integer("page_size", 1, 100'000)) {
        action->page_size = static_cast<std::uint64_t>(*size);
    }
    action->empty_page = reader.boolean("empty_page").value_or(false);
    action->next_link = reader.text("next_link");
    action->ignore_range = reader.boolean("ignore_range").value_or(false);
    action->length_change = reader.integer("length_change", -unlimited, unlimited).value_or(0);
    read_delivery(reader, action->how);
    if (action->how.answer_after_received && !action->replaces()) {
        reader.fail("answer_after_received", "needs a status, and the request is not carried out");
    }
    reader.finish();
    return action;
}

} // namespace

struct fault_set::rule {
    std::string name;
    json source;
    criteria match;
    std::shared_ptr<const fault_action> action;
    std::uint64_t matched = 0;
    std::uint64_t fired = 0;

    // Counts a request that fits and tells whether it is one that the rule wants.
    bool due(std::mt19937_64 &random)
    {
        ++matched;
        if (fired >= match.count || matched < match.nth ||
            (matched - match.nth) % match.every != 0) {
            return false;
        }
        if (match.probability < 1 &&
            std::uniform_real_distribution<>(0, 1)(random) >= match.probability) {
            return false;
        }
        ++fired;
        return true;
    }
};

std::shared_ptr<fault_set::rule> fault_set::read_rule(const json_t *value, const std::string &place)
{
    object_reader reader(value, place);
    auto made = std::make_shared<rule>();
    made->source = json::share(value);
    made->name = reader.text_or("name", "");
    if (auto match = reader.object("match")) {
        made->match = read_criteria(*std::move(match));
    }
    auto action = reader.object("action");
    if (!action) {
        reader.fail("action", "is missing");
    }
    made->action = read_action(*std::move(action));
    reader.finish();
    return made;
}

void fault_set::add(const json_t *value, const std::string &place)
{
    object_reader reader(value, place);
    std::optional<std::int64_t> seed;
    std::vector<std::shared_ptr<rule>> read;
    if (reader.has("action")) {
        read.push_back(read_rule(value, place));
    } else {
        static_cast<void>(reader.text("$schema"));
        seed = reader.integer("random_seed", 0, unlimited);
        for (const auto &[element, where] : reader.list("rules")) {
            read.push_back(read_rule(element, where));
        }
        reader.finish();
    }

    const std::lock_guard lock(mutex_);
    if (seed) {
        random_.seed(static_cast<std::uint64_t>(*seed));
    }
    for (auto &made : read) {
        ++named_;
        if (made->name.empty()) {
            made->name = "rule-" + std::to_string(named_);
        }
        rules_.push_back(std::move(made));
    }
    any_ = !rules_.empty();
}

void fault_set::clear()
{
    const std::lock_guard lock(mutex_);
    rules_.clear();
    any_ = false;
}

json fault_set::list() const
{
    const std::lock_guard lock(mutex_);
    json rules = json::array();
    for (const auto &listed : rules_) {
        json shown = json::object();
        shown.set("name", listed->name)
            .set("matched", json::integer(listed->matched))
            .set("fired", json::integer(listed->fired))
            .set("rule", listed->source);
        rules.append(shown);
    }
    json made = json::object();
    made.set("rules", rules);
    return made;
}

std::optional<fired_fault> fault_set::pick(const fault_subject &subject)
{
    if (!any_) {
        return std::nullopt;
    }
    const std::lock_guard lock(mutex_);
    for (const auto &candidate : rules_) {
        if (candidate->match.meets(subject) && candidate->due(random_)) {
            return fired_fault{candidate->name, candidate->action};
        }
    }
    return std::nullopt;
}

} // namespace graph_sim
