// Drives and the items in them: the tree, addressing by id and by path, and every change to it.
#pragma once

#include "content.h"
#include "ids.h"
#include "json.h"
#include "times.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace graph_sim {

// The four points in time of an item: the service's own, and the client's (fileSystemInfo).
struct item_times {
    timestamp created{};
    timestamp modified{};
    timestamp client_created{};
    timestamp client_modified{};

    static item_times all(timestamp time) { return {time, time, time, time}; }
};

// Which hashes a file tells.
struct hash_choice {
    enum class how { computed, none, given } kind = how::computed;
    json given; // the "hashes" object itself
};

// A file or a folder.  Only its drive changes it; everyone else reads it under the world's lock.
struct item {
    std::string id;
    guid unique;
    std::string name;
    item *parent = nullptr; // null for the root
    bool folder = false;
    // By folded name, which is both the listing's order and the comparison of names.
    std::map<std::string, item *> children;
    content_ptr data;       // of a file
    std::uint64_t size = 0; // of a folder: the bytes below it
    item_times times;
    std::uint64_t change_count = 1;  // the eTag's counter
    std::uint64_t content_count = 1; // the cTag's counter
    std::string mime_type;           // of a file
    hash_choice hashes;
    json extra; // members laid over the resource, to make odd items

    [[nodiscard]] std::string etag(flavour kind) const
    {
        return entity_tag(kind, id, unique, change_count);
    }
    [[nodiscard]] std::string ctag(flavour kind) const
    {
        return content_tag(kind, id, unique, content_count, folder);
    }
};

// Who a drive belongs to, for resources only.
struct identity {
    std::string id;
    std::string display_name;
    std::string email;
};

struct drive_facts {
    std::string id;
    flavour kind = flavour::business;
    std::string name;    // "OneDrive", or the library's name
    std::string web_url; // without a trailing slash
    std::string site_id; // the site collection's GUID; "" for the older consumer store
    identity owner;
    timestamp created{};
    std::uint64_t quota_total = 1'099'511'627'776;
};

class drive {
  public:
    explicit drive(drive_facts facts);
    drive(const drive &) = delete;
    drive &operator=(const drive &) = delete;

    [[nodiscard]] const drive_facts &facts() const { return facts_; }
    [[nodiscard]] flavour kind() const { return facts_.kind; }
    [[nodiscard]] const std::string &id() const { return facts_.id; }
    [[nodiscard]] item &root() { return *root_; }
    [[nodiscard]] const item &root() const { return *root_; }

    // Null when there is none.  Ids are compared exactly, names without case.
    [[nodiscard]] item *find(std::string_view id);
    [[nodiscard]] static item *child(const item &folder, std::string_view name);
    // Walks down from an item; an empty path names the item itself.
    [[nodiscard]] static item *resolve(item &from, std::span<const std::string> path);

    // Adds an item; null, and nothing changed, when the name is taken or `parent` is a file.
    // An empty `id` lets the drive choose one; one that is taken also gives null.
    item *add_folder(item &parent, std::string name, const item_times &times, std::string id = {});
    item *add_file(item &parent, std::string name, content_ptr data, const item_times &times,
                   std::string id = {});
    // Gives a file new bytes; the item keeps its id.
    void replace_content(item &file, content_ptr data, timestamp now);
    // Renames or moves; false when the new name is taken by another item, or the new parent is a
    // file or lies inside the item.  Changing only the case of a name is allowed.
    bool move(item &moved, item &new_parent, std::string new_name, timestamp now);
    // Counts a change of what describes the item.
    static void touch(item &changed, timestamp now);
    // Takes an item and everything below it away; the root stays.
    void remove(item &gone, timestamp now);

    [[nodiscard]] std::uint64_t bytes_used() const { return root_->size; }

    // "/a/b" of an item, "" for the root.
    [[nodiscard]] static std::string path_of(const item &of);

  private:
    item *add(item &parent, std::unique_ptr<item> made, std::string id);
    void name_item(item &made, std::string id);
    void forget(item &gone);
    // Counts a change of size and content on all folders above.
    static void spread(item *folder, std::int64_t size_change);

    drive_facts facts_;
    std::uint64_t last_number_ = 100; // ids of the older consumer store count from here
    std::unordered_map<std::string, std::unique_ptr<item>> items_;
    item *root_;
};

// The MIME type by the extension of a name.
std::string mime_type_of(std::string_view name);

// True for a name that an item may have: UTF-8, not empty, "." or "..", no control characters and
// none of "*:<>?/\|, no blank at either end, no dot at the end.
bool is_legal_name(std::string_view name);

} // namespace graph_sim
