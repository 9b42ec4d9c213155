// The tree of a drive and its changes.
#include "item_store.h"

#include <algorithm>
#include <array>

namespace graph_sim {

drive::drive(drive_facts facts) : facts_(std::move(facts))
{
    auto made = std::make_unique<item>();
    made->name = "root";
    made->folder = true;
    made->times = item_times::all(facts_.created);
    root_ = made.get();
    if (facts_.kind == flavour::personal) {
        name_item(*made, {});
    } else {
        made->unique = root_guid();
        made->id = is_personal(facts_.kind)
                       ? personal_item_id(facts_.id, facts_.kind, 0, made->unique)
                       : business_item_id(facts_.id, made->unique);
    }
    items_.emplace(made->id, std::move(made));
    note(*root_);
}

item *drive::find(std::string_view id)
{
    if (id == "root") {
        return root_;
    }
    const auto found = items_.find(std::string(id));
    return found == items_.end() ? nullptr : found->second.get();
}

item *drive::child(const item &folder, std::string_view name)
{
    const auto found = folder.children.find(fold_case(name));
    return found == folder.children.end() ? nullptr : found->second;
}

item *drive::resolve(item &from, std::span<const std::string> path)
{
    item *at = &from;
    for (const std::string &name : path) {
        at = child(*at, name);
        if (at == nullptr) {
            return nullptr;
        }
    }
    return at;
}

void drive::name_item(item &made, std::string id)
{
    const std::uint64_t number = ++last_number_;
    made.unique = guid::from_name(facts_.id + "/" + std::to_string(number));
    if (!id.empty()) {
        made.id = std::move(id);
    } else if (is_personal(facts_.kind)) {
        made.id = personal_item_id(facts_.id, facts_.kind, number, made.unique);
    } else {
        made.id = business_item_id(facts_.id, made.unique);
    }
}

item *drive::add(item &parent, std::unique_ptr<item> made, std::string id)
{
    std::string key = fold_case(made->name);
    if (!parent.folder || parent.children.contains(key) || (!id.empty() && items_.contains(id))) {
        return nullptr;
    }
    item *added = made.get();
    name_item(*added, std::move(id));
    added->parent = &parent;
    items_.emplace(added->id, std::move(made));
    parent.children.emplace(std::move(key), added);
    spread(&parent, static_cast<std::int64_t>(added->size));
    note(*added);
    return added;
}

item *drive::add_folder(item &parent, std::string name, const item_times &times, std::string id)
{
    auto made = std::make_unique<item>();
    made->name = std::move(name);
    made->folder = true;
    made->times = times;
    return add(parent, std::move(made), std::move(id));
}

item *drive::add_file(item &parent, std::string name, content_ptr data, const item_times &times,
                      std::string id)
{
    auto made = std::make_unique<item>();
    made->mime_type = mime_type_of(name);
    made->name = std::move(name);
    made->size = data->size();
    made->data = std::move(data);
    made->times = times;
    return add(parent, std::move(made), std::move(id));
}

void drive::note(item &changed)
{
    changed_.erase(changed.sequence);
    changed.sequence = ++last_change_;
    changed_.emplace(changed.sequence, &changed);
}

void drive::child_changed(item &folder, timestamp now)
{
    folder.times.modified = now;
    for (item *above = &folder; above != nullptr; above = above->parent) {
        note(*above);
    }
}

void drive::replace_content(item &file, content_ptr data, timestamp now)
{
    const auto change =
        static_cast<std::int64_t>(data->size()) - static_cast<std::int64_t>(file.size);
    file.size = data->size();
    file.data = std::move(data);
    file.times.client_modified = now;
    ++file.content_count;
    touch(file, now);
    spread(file.parent, change);
    child_changed(*file.parent, now);
}

bool drive::move(item &moved, item &new_parent, std::string new_name, timestamp now)
{
    for (const item *above = &new_parent; above != nullptr; above = above->parent) {
        if (above == &moved) {
            return false;
        }
    }
    std::string key = fold_case(new_name);
    const auto taken = new_parent.children.find(key);
    const bool free = taken == new_parent.children.end() || taken->second == &moved;
    if (!new_parent.folder || !free || moved.parent == nullptr) {
        return false;
    }
    item &old_parent = *moved.parent;
    old_parent.children.erase(fold_case(moved.name));
    spread(&old_parent, -static_cast<std::int64_t>(moved.size));
    if (!moved.folder && moved.mime_type == mime_type_of(moved.name)) {
        moved.mime_type = mime_type_of(new_name);
    }
    moved.name = std::move(new_name);
    moved.parent = &new_parent;
    moved.times.client_modified = now;
    if (!is_personal(facts_.kind)) {
        ++moved.content_count; // these stores count a rename as new content
    }
    new_parent.children.emplace(std::move(key), &moved);
    spread(&new_parent, static_cast<std::int64_t>(moved.size));
    touch(moved, now);
    child_changed(old_parent, now);
    child_changed(new_parent, now);
    return true;
}

void drive::touch(item &changed, timestamp now)
{
    ++changed.change_count;
    changed.times.modified = now;
    note(changed);
}

void drive::remove(item &gone, timestamp now, bool for_good)
{
    if (gone.parent == nullptr) {
        return;
    }
    item &parent = *gone.parent;
    parent.children.erase(fold_case(gone.name));
    spread(&parent, -static_cast<std::int64_t>(gone.size));
    bytes_deleted_ += for_good ? 0 : gone.size;
    std::vector<std::string> above;
    for (const item *folder = &parent; folder != nullptr; folder = folder->parent) {
        above.push_back(folder->id);
    }
    forget(gone, above);
    child_changed(parent, now);
}

void drive::forget(item &gone, const std::vector<std::string> &above)
{
    std::vector<std::string> above_children{gone.id};
    above_children.insert(above_children.end(), above.begin(), above.end());
    for (const auto &[key, below] : gone.children) {
        forget(*below, above_children);
    }
    changed_.erase(gone.sequence);
    deleted_.emplace(++last_change_, tombstone{gone.id, gone.name, above});
    items_.erase(std::string(gone.id));
}

item *drive::copy(const item &from, item &parent, const std::string &name)
{
    item *made = from.folder ? add_folder(parent, name, from.times)
                             : add_file(parent, name, from.data, from.times);
    if (made == nullptr) {
        return nullptr;
    }
    made->mime_type = from.mime_type;
    made->hashes = from.hashes;
    made->extra = from.extra;
    for (const auto &[key, below] : from.children) {
        copy(*below, *made, below->name);
    }
    return made;
}

item *drive::take_over(drive &from, item &moved, item &new_parent, const std::string &new_name,
                       timestamp now)
{
    item *made = copy(moved, new_parent, new_name);
    if (made != nullptr) {
        made->times.modified = now;
        made->times.client_modified = now;
        from.remove(moved, now, true);
        child_changed(new_parent, now);
    }
    return made;
}

std::vector<change> drive::changes_after(std::uint64_t after) const
{
    std::vector<change> found;
    auto there = changed_.upper_bound(after);
    auto gone = deleted_.upper_bound(after);
    while (there != changed_.end() || gone != deleted_.end()) {
        const bool deleted =
            there == changed_.end() || (gone != deleted_.end() && gone->first < there->first);
        if (deleted) {
            found.push_back({gone->first, nullptr, &gone->second});
            ++gone;
        } else {
            found.push_back({there->first, there->second, nullptr});
            ++there;
        }
    }
    return found;
}

void drive::spread(item *folder, std::int64_t size_change)
{
    for (; folder != nullptr; folder = folder->parent) {
        folder->size += static_cast<std::uint64_t>(size_change);
        ++folder->content_count;
    }
}

std::string drive::path_of(const item &of)
{
    return of.parent == nullptr ? "" : path_of(*of.parent) + "/" + of.name;
}

std::string mime_type_of(std::string_view name)
{
    struct known_type {
        std::string_view extension, type;
    };
    static constexpr std::array types{
        known_type{"csv", "text/csv"},
        known_type{"docx",
                   "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        known_type{"html", "text/html"},
        known_type{"jpg", "image/jpeg"},
        known_type{"json", "application/json"},
        known_type{"md", "text/markdown"},
        known_type{"pdf", "application/pdf"},
        known_type{"png", "image/png"},
        known_type{"txt", "text/plain"},
        known_type{"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        known_type{"zip", "application/zip"},
    };
    const size_t dot = name.rfind('.');
    if (dot != std::string_view::npos) {
        const std::string extension = to_lower(name.substr(dot + 1));
        for (const known_type &known : types) {
            if (known.extension == extension) {
                return std::string(known.type);
            }
        }
    }
    return "application/octet-stream";
}

} // namespace graph_sim
