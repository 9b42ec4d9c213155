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
    std::string description;    // kept by the older consumer store alone
    bool locked = false;        // neither it nor anything below it may be changed by requests
    json extra;                 // members laid over the resource, to make odd items
    std::uint64_t sequence = 0; // of its last change in the drive's history

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

// What is remembered of an item that was deleted.
struct tombstone {
    std::string id;
    std::string name;
    std::vector<std::string> above; // ids of the folders in which it was, the nearest first
};

// An entry of a drive's history: the item as it is now, or what is left of it.
struct change {
    std::uint64_t sequence;
    const item *there;     // null for one that was deleted
    const tombstone *gone; // null for one that is there
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

    // Null when there is none.  Ids are compared exactly, names by fold_case().
    [[nodiscard]] item *find(std::string_view id);
    [[nodiscard]] static item *child(const item &folder, std::string_view name);
    // Walks down from an item; an empty path names the item itself.
    [[nodiscard]] static item *resolve(item &from, std::span<const std::string> path);

    // Adds an item; null, and nothing changed, when the name is taken or `parent` is a file.
    // An empty `id` lets the drive choose one; one that is taken also gives null.
    // The times of the folder stay: what a request adds is told to it by child_changed().
    item *add_folder(item &parent, std::string name, const item_times &times, std::string id = {});
    item *add_file(item &parent, std::string name, content_ptr data, const item_times &times,
                   std::string id = {});
    // A folder has another child: counts on it and on all folders above.
    void child_changed(item &folder, timestamp now);
    // Gives a file new bytes; the item keeps its id.
    void replace_content(item &file, content_ptr data, timestamp now);
    // Renames or moves; false when the new name is taken by another item, or the new parent is a
    // file or lies inside the item.  Changing only the case of a name is allowed.  Resets the
    // client's time of modification, as the service does.
    bool move(item &moved, item &new_parent, std::string new_name, timestamp now);
    // Counts a change of what describes the item.
    void touch(item &changed, timestamp now);
    // Takes an item and everything below it away; the root stays.  The bytes count as deleted ones
    // unless they go for good.
    void remove(item &gone, timestamp now, bool for_good = false);
    // Moves an item of another drive here, where it gets a new id; null, and nothing changed, when
    // the name is taken or the new parent is a file.
    item *take_over(drive &from, item &moved, item &new_parent, const std::string &new_name,
                    timestamp now);

    [[nodiscard]] std::uint64_t bytes_used() const { return root_->size; }
    [[nodiscard]] std::uint64_t bytes_deleted() const { return bytes_deleted_; }

    // The history: each item that is there once, at its last change, and each deletion.  The root
    // is the first entry as long as nothing below it was changed by a request.
    [[nodiscard]] std::uint64_t last_change() const { return last_change_; }
    // Another one in each run of the service.
    [[nodiscard]] const std::string &history_id() const { return history_id_; }
    // The entries behind `after`, in their order; good until the next change.
    [[nodiscard]] std::vector<change> changes_after(std::uint64_t after) const;

    // "/a/b" of an item, "" for the root.
    [[nodiscard]] static std::string path_of(const item &of);

  private:
    item *add(item &parent, std::unique_ptr<item> made, std::string id);
    void name_item(item &made, std::string id);
    item *copy(const item &from, item &parent, const std::string &name);
    void forget(item &gone, const std::vector<std::string> &above);
    void note(item &changed);
    // Counts a change of size and content on all folders above.
    static void spread(item *folder, std::int64_t size_change);

    drive_facts facts_;
    std::uint64_t last_number_ = 100; // ids of the older consumer store count from here
    std::unordered_map<std::string, std::unique_ptr<item>> items_;
    item *root_;
    std::uint64_t bytes_deleted_ = 0;
    std::string history_id_ = hex(guid::random().bytes).substr(0, 8);
    std::uint64_t last_change_ = 0;
    std::map<std::uint64_t, const item *> changed_;
    std::map<std::uint64_t, tombstone> deleted_;
};

// The MIME type by the extension of a name.
std::string mime_type_of(std::string_view name);

} // namespace graph_sim
