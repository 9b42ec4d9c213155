// The JSON forms of accounts, drives, items and sites (Microsoft Graph v1.0: user, drive,
// driveItem, site).
#pragma once

#include "download_links.h"
#include "settings.h"
#include "world.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace graph_sim {

// The members that $select asks for; all of them without it.  Names compare without case, unknown
// ones select nothing, and "id" always comes along.
class field_set {
  public:
    field_set() = default;
    explicit field_set(const std::optional<std::string> &select);

    [[nodiscard]] bool all() const { return all_; }
    [[nodiscard]] bool wants(std::string_view member) const;
    // Takes away members that were not asked for.
    void trim(const json &object) const;

  private:
    bool all_ = true;
    std::set<std::string, std::less<>> names_; // in lower case
};

// What the resources of one answer need to know.
struct resource_context {
    const download_links &links;
    const settings &options;
    std::string download_origin;
    timestamp now{};
};

json account_resource(const account &who);
json drive_resource(const drive &shown, const field_set &fields);
json item_resource(const drive &home, const item &shown, const field_set &fields,
                   const resource_context &context);
// The entry of sharedWithMe for an item of another drive.
json shared_resource(const share &entry, const item &shown, const field_set &fields,
                     const resource_context &context);
json site_resource(const site &shown, const field_set &fields);

} // namespace graph_sim
