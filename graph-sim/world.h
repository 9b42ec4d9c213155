// Who and what exists in the simulated service: accounts, their drives, sites with libraries, and
// what is shared with whom.
#pragma once

#include "item_store.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

struct site;

// An item of another drive that is shared with an account.
struct share {
    drive *home = nullptr;
    std::string item_id;
    timestamp since{};
    bool writable = true;
    json outer_extra;  // laid over the entry of sharedWithMe
    json remote_extra; // laid over the entry's remoteItem
};

// A limit on an account's Graph requests; none while `per_second` is 0.
struct throttle_limit {
    double per_second = 0;
    double burst = 1;
    std::string retry_after = "1"; // the header's text; "" leaves the header out

    // Counts a request; false when it is one too many.
    bool take(std::chrono::steady_clock::time_point now);

  private:
    double used_ = 0; // of the burst
    std::chrono::steady_clock::time_point seen_{};
};

struct account {
    std::string name; // how seeds, rules and controls call it
    flavour kind = flavour::business;
    std::string user_id;
    std::string subject; // the id token's "sub"
    std::string tenant;  // GUID
    std::string display_name;
    std::string email;
    drive *own = nullptr;
    std::vector<share> shared;
    std::vector<site *> followed;
    throttle_limit limit;

    [[nodiscard]] identity as_identity() const { return {user_id, display_name, email}; }
};

struct site {
    std::string name; // the last part of its address
    std::string display_name;
    std::string hostname;
    guid collection;
    guid web;
    std::string tenant;
    timestamp created{};
    std::vector<drive *> libraries;
    std::vector<std::string> members;  // account names that have access; those that follow have too
    std::vector<std::string> visitors; // account names that may read, but not write
    json extra;                        // laid over the resource

    // "hostname,collection,web"
    [[nodiscard]] std::string id() const
    {
        return hostname + "," + collection.lower() + "," + web.lower();
    }
    [[nodiscard]] std::string web_url() const { return "https://" + hostname + "/sites/" + name; }
};

// The consumer tenant that every personal account reports.
inline constexpr std::string_view consumer_tenant = "9188040d-6c67-4c5b-b112-36a304b66dad";

// The tenant of work accounts and sites that name none.
inline constexpr std::string_view work_tenant = "11111111-2222-3333-4444-555555555555";

// Owns everything above.  Callers hold the service's lock; additions happen while seeding.
class world {
  public:
    account &add_account(account made);
    drive &add_drive(drive_facts facts); // throws input_error for an id that is taken
    site &add_site(site made);

    [[nodiscard]] const std::vector<std::unique_ptr<account>> &accounts() const
    {
        return accounts_;
    }
    [[nodiscard]] const std::vector<std::unique_ptr<site>> &sites() const { return sites_; }

    [[nodiscard]] account *find_account(std::string_view name) const;
    // A user by id, mail address or account name.
    [[nodiscard]] account *find_user(std::string_view who) const;
    // By drive id; without case, since the consumer store writes one id in both cases.
    [[nodiscard]] drive *find_drive(std::string_view id) const;
    // By the three-part id, or by the collection's GUID alone.
    [[nodiscard]] site *find_site(std::string_view id) const;
    [[nodiscard]] site *find_site_by_address(std::string_view hostname,
                                             std::string_view path) const;

    enum class access { none, shared_items_only, full };
    // What an account may see of a drive.
    [[nodiscard]] access access_to(const account &who, const drive &what) const;
    // True for an item in or below something shared with the account.
    [[nodiscard]] static bool is_shared_with(const account &who, const item &what,
                                             bool for_writing = false);
    // True for a drive that is the account's own, a library of a site where it is more than a
    // visitor, and an item in or below something shared with it for writing.
    [[nodiscard]] bool may_write(const account &who, const drive &home, const item &what) const;
    [[nodiscard]] static bool may_read(const account &who, const site &what);

  private:
    std::vector<std::unique_ptr<account>> accounts_;
    std::vector<std::unique_ptr<drive>> drives_;
    std::vector<std::unique_ptr<site>> sites_;
};

} // namespace graph_sim
