/*
 * Extension registries.  An entry is shared by its registry and its look-ups, and lives until the
 * last of them lets go.  The lock is never held while a module is activated or a visitor runs: both
 * may come back here, the former with the modules' lock held.
 */
#include "immortal.h"
#include "tirval_common.h"

#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace {

struct extension {
    tirval_module_descriptor_t *module; /* may be null */
    void *data;
};
using shared_extension = std::shared_ptr<const extension>;
using extension_map = std::map<std::string, shared_extension, std::less<>>;

} // namespace

struct tirval_extension_table_s {
    extension_map entries; /* never empty between calls */
};

struct tirval_extension_entry_s {
    shared_extension extension;
};

namespace {

using entry_hold = std::unique_ptr<tirval_extension_entry_s>;

struct registry_lock {
    std::mutex mutex; /* guards all registries */
};

std::mutex &lock()
{
    return tirval::common::immortal<registry_lock>().mutex;
}

/* Throws std::bad_alloc. */
bool insert(tirval_extension_registry_t &registry, const char *key, const shared_extension &added)
{
    auto made = registry.table == nullptr ? std::make_unique<tirval_extension_table_s>() : nullptr;
    tirval_extension_table_s *table = made == nullptr ? registry.table : made.get();
    const bool inserted = table->entries.try_emplace(key, added).second;
    (void)made.release();
    registry.table = table;
    return inserted;
}

/* A hold on the entry under `key`; null when the key is absent or memory ran out. */
entry_hold find(const tirval_extension_registry_t &registry, const char *key)
{
    const std::lock_guard guard(lock());
    if (registry.table == nullptr) {
        return nullptr;
    }
    const auto &entries = registry.table->entries;
    const auto found = entries.find(std::string_view(key));
    if (found == entries.end()) {
        return nullptr;
    }
    return entry_hold(new (std::nothrow) tirval_extension_entry_s{found->second});
}

/* The key that follows `key` (null: the first) and its extension; null at the end.  Throws
 * std::bad_alloc. */
shared_extension next_entry(const tirval_extension_registry_t &registry, const std::string *key,
                            std::string &next_key)
{
    const std::lock_guard guard(lock());
    if (registry.table == nullptr) {
        return nullptr;
    }
    const auto &entries = registry.table->entries;
    const auto next = key == nullptr ? entries.begin() : entries.upper_bound(*key);
    if (next == entries.end()) {
        return nullptr;
    }
    next_key = next->first;
    return next->second;
}

} // namespace

extern "C" {

int tirval_extension_registry_add(tirval_extension_registry_t *registry, const char *key,
                                  tirval_module_descriptor_t *module, void *data)
{
    if (registry == nullptr || key == nullptr || data == nullptr) {
        return -1;
    }
    try {
        const auto added = std::make_shared<const extension>(extension{module, data});
        const std::lock_guard guard(lock());
        return insert(*registry, key, added) ? 0 : -1;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

void *tirval_extension_registry_remove(tirval_extension_registry_t *registry, const char *key)
{
    if (registry == nullptr || key == nullptr) {
        return nullptr;
    }
    const std::lock_guard guard(lock());
    if (registry->table == nullptr) {
        return nullptr;
    }
    auto &entries = registry->table->entries;
    const auto found = entries.find(std::string_view(key));
    if (found == entries.end()) {
        return nullptr;
    }
    void *data = found->second->data;
    entries.erase(found);
    if (entries.empty()) {
        const std::unique_ptr<tirval_extension_table_s> unused(
            std::exchange(registry->table, nullptr));
    }
    return data;
}

void *tirval_extension_lookup(tirval_extension_handle_t *handle,
                              tirval_extension_registry_t *registry, const char *key)
{
    if (handle == nullptr) {
        return nullptr;
    }
    handle->entry = nullptr;
    if (registry == nullptr || key == nullptr) {
        return nullptr;
    }
    entry_hold held = find(*registry, key);
    if (held == nullptr) {
        return nullptr;
    }
    const extension &found = *held->extension;
    if (found.module != nullptr && tirval_module_activate(found.module) != 0) {
        return nullptr;
    }
    handle->entry = held.release();
    return found.data;
}

void tirval_extension_release(tirval_extension_handle_t *handle)
{
    if (handle == nullptr) {
        return;
    }
    const entry_hold held(std::exchange(handle->entry, nullptr));
    if (held != nullptr && held->extension->module != nullptr) {
        (void)tirval_module_deactivate(held->extension->module);
    }
}

void tirval_extension_registry_walk(tirval_extension_registry_t *registry,
                                    bool (*visit)(const char *key, void *data, void *argument),
                                    void *argument)
{
    if (registry == nullptr) {
        return;
    }
    try {
        std::string key;
        std::string next_key;
        auto next = next_entry(*registry, nullptr, next_key);
        while (next != nullptr && visit(next_key.c_str(), next->data, argument)) {
            key.swap(next_key);
            next = next_entry(*registry, &key, next_key);
        }
    } catch (const std::bad_alloc &) { /* the walk ends where memory ended */
    }
}
}
