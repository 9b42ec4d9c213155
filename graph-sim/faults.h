// Rules by which the service misbehaves: which requests they meet and what happens to those.
#pragma once

#include "http.h"
#include "json.h"
#include "routing.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

// What a rule does to a request that it meets.
struct fault_action {
    // A status of its own replaces the answer; without `execute` the request is not even carried
    // out.  The other members change the answer, whichever it is.
    std::optional<unsigned> status;
    bool execute = false;
    std::vector<std::pair<std::string, std::optional<std::string>>> headers; // null: taken away
    std::optional<std::string> body;
    std::optional<std::string> content_type;
    bool html = false;     // with a status: an HTML page as the body
    bool bad_json = false; // the body is cut in the middle, its length announced as cut

    // For answers that are lists.
    std::optional<std::uint64_t> page_size;
    bool empty_page = false;
    std::optional<std::string> next_link; // "self", "other_host", "none" or the link itself

    // For downloads.
    bool ignore_range = false;
    std::int64_t length_change = 0; // bytes more or fewer than asked for, announced as sent

    delivery how;

    // True when the request itself is not to be carried out.
    [[nodiscard]] bool replaces() const
    {
        return !execute && (status || how.drop || how.reset || how.stall ||
                            (how.garbage != damage::none && how.garbage != damage::endless_body));
    }
};

// What rules look at.
struct fault_subject {
    std::string_view method;
    std::string_view path;   // decoded, without the query
    std::string_view target; // as sent
    request_kind kind = request_kind::other;
    std::string_view account; // "" when unknown
};

// A rule that fired.
struct fired_fault {
    std::string rule; // its name
    std::shared_ptr<const fault_action> action;
};

// An ordered list of rules; the first that meets a request and is due fires.  Any thread.
class fault_set {
  public:
    // Adds one rule, or the rules of {"random_seed": n, "rules": [...]}: all of them or, throwing
    // input_error with the place in the value, none.
    void add(const json_t *value, const std::string &place);
    void clear();
    // Every rule with how often it has matched and fired.
    [[nodiscard]] json list() const;
    [[nodiscard]] std::optional<fired_fault> pick(const fault_subject &subject);

  private:
    struct rule;
    static std::shared_ptr<rule> read_rule(const json_t *value, const std::string &place);

    std::atomic<bool> any_{false}; // spares requests the lock while there are no rules
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<rule>> rules_;
    std::mt19937_64 random_{1};
    std::uint64_t named_ = 0;
};

} // namespace graph_sim
