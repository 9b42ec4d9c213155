// What an address means for the account that asks: drives, sites and items, as far as it may see
// them.
#pragma once

#include "routing.h"
#include "world.h"

namespace graph_sim {

// 404 itemNotFound in the words of the consumer or the work store.
[[noreturn]] void item_not_found(bool personal);

// Borrows the world and the account.  Everything throws api_error for what is not there (404) or
// not to be seen (403, 404).
class locator {
  public:
    locator(world &all, account &who) : all_(all), who_(who) {}

    [[nodiscard]] account &owner_of(const drive_address &address) const;
    [[nodiscard]] site &site_of(const drive_address &address) const;
    [[nodiscard]] drive &drive_of(const drive_address &address) const;

    struct place {
        drive *home;
        item *what;
    };
    // The item by id from which the path of an address goes down.
    [[nodiscard]] place start_of(const route &asked) const;
    // The item at the end of the path.
    [[nodiscard]] place find(const route &asked) const;
    // An item of a drive, if the account may see it; null otherwise.
    [[nodiscard]] item *visible(drive &home, std::string_view id) const;

  private:
    world &all_;
    account &who_;
};

} // namespace graph_sim
