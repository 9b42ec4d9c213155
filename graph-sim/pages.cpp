// Paging.
#include "pages.h"

#include <algorithm>
#include <charconv>

namespace graph_sim {

namespace {

// The form in which SharePoint-type stores write theirs.
constexpr std::string_view token_start = "Paged=TRUE&p_SortBehavior=0&p_FileLeafRef=";

std::optional<std::string> option(const request &got, const std::string &name)
{
    auto value = got.parameter("$" + name);
    return value ? value : got.parameter(name);
}

} // namespace

std::string skip_token(std::string_view key)
{
    return std::string(token_start) + percent_encode(key) + "&p_ID=1";
}

std::optional<std::string> key_of_skip_token(std::string_view token)
{
    if (!token.starts_with(token_start)) {
        return std::nullopt;
    }
    token.remove_prefix(token_start.size());
    return percent_decode(token.substr(0, token.find('&')));
}

page_request::page_request(const request &got, const settings &options, const fault_action *fault)
    : size(options.default_page)
{
    if (const auto top = option(got, "top")) {
        const auto [end, error] = std::from_chars(top->data(), top->data() + top->size(), size);
        if (error != std::errc{} || end != top->data() + top->size() || size == 0) {
            throw api_error(400, "invalidRequest", "Invalid value for the $top query option.");
        }
    }
    size = std::min(size, options.largest_page);
    if (fault != nullptr && fault->page_size) {
        size = *fault->page_size;
    }
    if (option(got, "skip")) {
        throw api_error(400, "invalidRequest", "The $skip query option is not supported.",
                        "invalidQueryOption");
    }
    if (const auto token = option(got, "skiptoken")) {
        after = key_of_skip_token(*token);
        if (!after) {
            throw api_error(400, "invalidRequest",
                            "Invalid paging token: failed to parse integer value from token.");
        }
    }
}

page_writer::page_writer(const request &got, const page_request &page, const fault_action *fault)
    : got_(got), fault_(fault), size_(page.size), last_(page.after), entries_(json::array())
{
    if (fault != nullptr && fault->empty_page) {
        size_ = 0;
    }
}

void page_writer::add(const std::string &key, const json &entry)
{
    entries_.append(entry);
    last_ = key;
    ++count_;
}

std::string page_writer::next_link() const
{
    std::string wanted = fault_ == nullptr ? "" : fault_->next_link.value_or("");
    if (wanted == "self") {
        return got_.origin + got_.target;
    }
    if (!wanted.empty() && wanted != "other_host" && wanted != "none") {
        return wanted;
    }
    std::string link = wanted == "other_host" ? "https://other-host.invalid" : got_.origin;
    link += got_.path();
    char separator = '?';
    for (const std::string &part : split(got_.query(), '&')) {
        const std::string name =
            percent_decode(std::string_view(part).substr(0, part.find('='))).value_or(part);
        if (!part.empty() && name != "$skiptoken" && name != "skiptoken") {
            link += separator + part;
            separator = '&';
        }
    }
    // An empty first page has no key yet; "" comes before every name.
    return link + separator + "$skiptoken=" + percent_encode(skip_token(last_.value_or("")));
}

json page_writer::finish(const std::string &context) const
{
    json made = json::object();
    made.set("@odata.context", context);
    const bool forced = fault_ != nullptr && fault_->next_link;
    const bool linked = forced ? *fault_->next_link != "none" : more_;
    if (linked) {
        made.set("@odata.nextLink", next_link());
    }
    made.set("value", entries_);
    return made;
}

} // namespace graph_sim
