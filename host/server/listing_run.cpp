/*
 * One stat decides what the path is; a folder is then listed.  The second step costs no request
 * more than the listing itself, since the first one's answer is remembered by the storage.
 */
#include "listing_run.h"

#include "vpath.h"

#include <fnmatch.h>

namespace tirval::server {
namespace {

/* Turns the items of one listing into lines. */
class line_maker_t {
  public:
    line_maker_t(const listing_request_t &request, std::string folder, std::string pattern,
                 const line_sink_t &sink)
        : request_(request), folder_(std::move(folder)), pattern_(std::move(pattern)),
          filter_(folder_), sink_(sink), prefix_(name_prefix()), now_(std::time(nullptr))
    {
    }

    void take(const item_t &item, std::string_view name, entry_kind_t kind)
    {
        if (kind == entry_kind_t::current_folder) {
            take_folder(item);
        } else if (matches(name) && filter_.shows(name)) {
            shown_ = true;
            take_child(item, name);
        }
    }

    void take_single(const item_t &item)
    {
        if (request_.style == listing_style_t::names) {
            sink_(request_.argument);
        } else {
            sink_(ls_line(item, base_name(folder_), request_.owners, now_));
        }
    }

    bool has_shown() const { return shown_; }

  private:
    bool matches(std::string_view name) const
    {
        return pattern_.empty() ||
               fnmatch(pattern_.c_str(), std::string(name).c_str(), FNM_NOESCAPE) == 0;
    }

    /* What makes a child's name one that the client can use from where it is. */
    std::string name_prefix() const
    {
        std::string prefix = request_.argument;
        if (!pattern_.empty()) {
            const std::size_t slash = prefix.rfind('/');
            return slash == std::string::npos ? "" : prefix.substr(0, slash + 1);
        }
        if (prefix.empty() || prefix == "." || prefix.ends_with('/')) {
            return prefix == "." ? "" : prefix;
        }
        return prefix + "/";
    }

    void take_folder(const item_t &item)
    {
        if (request_.style != listing_style_t::facts) {
            return;
        }
        const auto line = [&](const item_t &folder, entry_kind_t kind, const std::string &path) {
            return facts_text(folder, kind, path, request_.facts, request_.owners);
        };
        sink_(line(item, entry_kind_t::current_folder, folder_) + " .");
        if (folder_ != "/") {
            item_t parent;
            parent.mode = item.mode;
            sink_(line(parent, entry_kind_t::parent_folder, parent_path(folder_)) + " ..");
        }
    }

    void take_child(const item_t &item, std::string_view name)
    {
        switch (request_.style) {
        case listing_style_t::long_lines:
            sink_(ls_line(item, name, request_.owners, now_));
            break;
        case listing_style_t::names:
            sink_(prefix_ + std::string(name));
            break;
        case listing_style_t::facts:
            sink_(facts_text(item, entry_kind_t::child, child_path(folder_, name), request_.facts,
                             request_.owners) +
                  " " + std::string(name));
            break;
        }
    }

    const listing_request_t &request_;
    std::string folder_;
    std::string pattern_;
    name_filter_t filter_;
    const line_sink_t &sink_;
    std::string prefix_;
    std::time_t now_;
    bool shown_ = false;
};

std::optional<failure_t> list_into(storage_session_t &storage, const std::string &folder,
                                   line_maker_t &maker)
{
    return storage.list(folder, [&](const item_t &item, std::string_view name, entry_kind_t kind) {
        maker.take(item, name, kind);
    });
}

/* Lists what matches the last name of the path; `missing` is the answer when nothing does. */
std::optional<failure_t> list_matches(storage_session_t &storage, const listing_request_t &request,
                                      const line_sink_t &sink, const failure_t &missing)
{
    const std::string folder = parent_path(request.path);
    const auto found = storage.stat(folder);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return *failure;
    }
    if (!std::get<item_t>(found).is_folder()) {
        return missing;
    }
    line_maker_t maker(request, folder, std::string(base_name(request.path)), sink);
    auto failure = list_into(storage, folder, maker);
    if (!failure && !maker.has_shown()) {
        return missing;
    }
    return failure;
}

} // namespace

listing_result_t run_listing(storage_session_t &storage, const listing_request_t &request,
                             const line_sink_t &sink)
{
    const auto found = storage.stat(request.path);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        const bool pattern = failure->is_not_found() && request.style != listing_style_t::facts &&
                             has_wildcards(base_name(request.path));
        return {pattern ? list_matches(storage, request, sink, *failure) : *failure, pattern};
    }
    const auto &item = std::get<item_t>(found);
    line_maker_t maker(request, request.path, "", sink);
    if (item.is_folder()) {
        return {list_into(storage, request.path, maker), true};
    }
    if (request.style == listing_style_t::facts) {
        return {make_failure(501, "Not a directory"), false};
    }
    maker.take_single(item);
    return {std::nullopt, false};
}

} // namespace tirval::server
