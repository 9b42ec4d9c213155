// Lists in pages: $top, $skiptoken and the next link.
#pragma once

#include "faults.h"
#include "http.h"
#include "json.h"
#include "settings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace graph_sim {

// Which page a request asks for.  Throws api_error for a $top that is not a positive number, for
// $skip, and for a $skiptoken that the service did not make.
struct page_request {
    page_request(const request &got, const settings &options, const fault_action *fault);

    std::uint64_t size;
    std::optional<std::string> after; // the key of the last entry of the page before
};

// The opaque token that stands for a key, and back; null for a token of someone else's.
std::string skip_token(std::string_view key);
std::optional<std::string> key_of_skip_token(std::string_view token);

// Fills one page.  Entries come in the order of their keys, from the one after `after` on:
//   while (more entries) { if (writer.full()) { writer.more(); break; } writer.add(key, entry); }
class page_writer {
  public:
    page_writer(const request &got, const page_request &page, const fault_action *fault);

    [[nodiscard]] bool full() const { return count_ >= size_; }
    void add(const std::string &key, const json &entry);
    // Says that another page follows.
    void more() { more_ = true; }
    // The answer's body; `context` is its "@odata.context".
    [[nodiscard]] json finish(const std::string &context) const;

  private:
    [[nodiscard]] std::string next_link() const;

    const request &got_;
    const fault_action *fault_;
    std::uint64_t size_;
    std::uint64_t count_ = 0;
    std::optional<std::string> last_; // the key that the next page starts after
    bool more_ = false;
    json entries_;
};

} // namespace graph_sim
