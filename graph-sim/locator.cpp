// Finding drives, sites and items for an account.
#include "locator.h"

namespace graph_sim {

void item_not_found(bool personal)
{
    throw api_error(404, "itemNotFound",
                    personal ? "Item does not exist" : "The resource could not be found.");
}

account &locator::owner_of(const drive_address &address) const
{
    if (address.how != drive_address::by::user) {
        return who_;
    }
    account *user = all_.find_user(address.value);
    if (user == nullptr) {
        throw api_error(404, "Request_ResourceNotFound",
                        "Resource '" + address.value + "' does not exist.");
    }
    return *user;
}

site &locator::site_of(const drive_address &address) const
{
    if (is_personal(who_.kind)) {
        throw api_error(400, "BadRequest", "This API is not supported for MSA accounts");
    }
    const size_t colon = address.value.find(':');
    site *found = colon == std::string::npos
                      ? all_.find_site(address.value)
                      : all_.find_site_by_address(address.value.substr(0, colon),
                                                  address.value.substr(colon + 1));
    if (found == nullptr) {
        throw api_error(404, "itemNotFound", "Requested site could not be found");
    }
    if (!world::may_read(who_, *found)) {
        throw api_error(403, "accessDenied", "Access denied");
    }
    return *found;
}

drive &locator::drive_of(const drive_address &address) const
{
    switch (address.how) {
    case drive_address::by::id: {
        drive *found = all_.find_drive(address.value);
        if (found == nullptr) {
            item_not_found(is_personal(who_.kind));
        }
        return *found;
    }
    case drive_address::by::site: {
        const site &home = site_of(address);
        if (home.libraries.empty()) {
            item_not_found(false);
        }
        return *home.libraries.front();
    }
    case drive_address::by::me:
    case drive_address::by::user:
        break;
    }
    drive *own = owner_of(address).own;
    if (own == nullptr) {
        throw api_error(404, "ResourceNotFound", "User's mysite not found.");
    }
    return *own;
}

item *locator::visible(drive &home, std::string_view id) const
{
    const world::access access = all_.access_to(who_, home);
    item *found = home.find(id);
    // Of another owner's drive only what is shared can be seen, and what lies below it.
    const bool seen =
        access == world::access::full || (access == world::access::shared_items_only &&
                                          found != nullptr && world::is_shared_with(who_, *found));
    return seen ? found : nullptr;
}

locator::place locator::start_of(const route &asked) const
{
    drive &home = drive_of(asked.drive);
    const bool personal = is_personal(home.kind());
    if (all_.access_to(who_, home) == world::access::none) {
        throw api_error(403, "accessDenied", "Access denied");
    }
    if (asked.item.by_path && asked.item.path.empty() && !personal && asked.item.id == "root") {
        bad_argument();
    }
    item *start = visible(home, asked.item.id);
    if (start == nullptr) {
        item_not_found(personal);
    }
    return {&home, start};
}

locator::place locator::find(const route &asked) const
{
    const auto [home, start] = start_of(asked);
    item *found = drive::resolve(*start, asked.item.path);
    if (found == nullptr) {
        item_not_found(is_personal(home->kind()));
    }
    return {home, found};
}

} // namespace graph_sim
