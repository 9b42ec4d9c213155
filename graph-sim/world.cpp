// Look-ups and access in the simulated service.
#include "world.h"

#include <algorithm>

namespace graph_sim {

bool throttle_limit::take(std::chrono::steady_clock::time_point now)
{
    if (per_second <= 0) {
        return true;
    }
    const std::chrono::duration<double> passed = now - seen_;
    seen_ = now;
    used_ = std::max(0.0, used_ - passed.count() * per_second);
    if (used_ + 1 > burst) {
        return false;
    }
    used_ += 1;
    return true;
}

account &world::add_account(account made)
{
    return *accounts_.emplace_back(std::make_unique<account>(std::move(made)));
}

drive &world::add_drive(drive_facts facts)
{
    if (find_drive(facts.id) != nullptr) {
        throw input_error("the drive id " + facts.id + " is used twice");
    }
    return *drives_.emplace_back(std::make_unique<drive>(std::move(facts)));
}

site &world::add_site(site made)
{
    return *sites_.emplace_back(std::make_unique<site>(std::move(made)));
}

account *world::find_account(std::string_view name) const
{
    const auto found = std::ranges::find(accounts_, name, [](const auto &a) { return a->name; });
    return found == accounts_.end() ? nullptr : found->get();
}

account *world::find_user(std::string_view who) const
{
    const auto found = std::ranges::find_if(accounts_, [who](const auto &a) {
        return a->user_id == who || equal_without_case(a->email, who) || a->name == who;
    });
    return found == accounts_.end() ? nullptr : found->get();
}

drive *world::find_drive(std::string_view id) const
{
    const auto found = std::ranges::find_if(drives_, [id](const auto &d) {
        return is_personal(d->kind()) ? equal_without_case(d->id(), id) : d->id() == id;
    });
    return found == drives_.end() ? nullptr : found->get();
}

site *world::find_site(std::string_view id) const
{
    const auto found = std::ranges::find_if(sites_, [id](const auto &s) {
        return s->id() == id || equal_without_case(s->collection.lower(), id);
    });
    return found == sites_.end() ? nullptr : found->get();
}

site *world::find_site_by_address(std::string_view hostname, std::string_view path) const
{
    const auto found = std::ranges::find_if(sites_, [&](const auto &s) {
        return equal_without_case(s->hostname, hostname) &&
               equal_without_case("/sites/" + s->name, path);
    });
    return found == sites_.end() ? nullptr : found->get();
}

world::access world::access_to(const account &who, const drive &what) const
{
    const bool in_site = std::ranges::any_of(sites_, [&](const auto &s) {
        return may_read(who, *s) && std::ranges::find(s->libraries, &what) != s->libraries.end();
    });
    if (who.own == &what || in_site) {
        return access::full;
    }
    const bool has_share =
        std::ranges::any_of(who.shared, [&what](const share &s) { return s.home == &what; });
    return has_share ? access::shared_items_only : access::none;
}

bool world::is_shared_with(const account &who, const item &what, bool for_writing)
{
    const auto is_shared = [&](const item &candidate) {
        return std::ranges::any_of(who.shared, [&](const share &s) {
            return (s.writable || !for_writing) && s.item_id == candidate.id &&
                   s.home->find(s.item_id) == &candidate;
        });
    };
    for (const item *at = &what; at != nullptr; at = at->parent) {
        if (is_shared(*at)) {
            return true;
        }
    }
    return false;
}

bool world::may_write(const account &who, const drive &home, const item &what) const
{
    const bool in_site = std::ranges::any_of(sites_, [&](const auto &s) {
        return may_read(who, *s) && std::ranges::find(s->visitors, who.name) == s->visitors.end() &&
               std::ranges::find(s->libraries, &home) != s->libraries.end();
    });
    return who.own == &home || in_site || is_shared_with(who, what, true);
}

bool world::may_read(const account &who, const site &what)
{
    return std::ranges::find(who.followed, &what) != who.followed.end() ||
           std::ranges::find(what.members, who.name) != what.members.end() ||
           std::ranges::find(what.visitors, who.name) != what.visitors.end();
}

} // namespace graph_sim
