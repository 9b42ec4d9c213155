/*
 * Hash tables over pointers.  Each node keeps its key's hash, so that growing the table, walking it
 * and taking it down read no key: by then a key may lie in a value that is gone.
 */
#include "tirval_common.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

struct node {
    void *key;
    void *value;
    std::uint32_t hash;
    std::unique_ptr<node> next;
};

using buckets = std::unique_ptr<std::unique_ptr<node>[]>;

buckets make_buckets(std::size_t count)
{
    return buckets(new (std::nothrow) std::unique_ptr<node>[count]);
}

} // namespace

struct tirval_hashtable_impl_s {
    buckets heads;
    std::size_t bucket_count;
    std::size_t size;
    tirval_hashtable_hash_func_t hash;
    tirval_hashtable_keyeq_func_t keyeq;

    std::uint32_t hash_of(void *key) const
    {
        return static_cast<std::uint32_t>(hash(key, INT_MAX));
    }

    /* The link that holds the key's node, or the empty link where it would be put. */
    std::unique_ptr<node> &find(void *key) const
    {
        const std::uint32_t wanted = hash_of(key);
        std::unique_ptr<node> *link = &heads[wanted % bucket_count];
        while (*link != nullptr && !((*link)->hash == wanted && keyeq((*link)->key, key) != 0)) {
            link = &(*link)->next;
        }
        return *link;
    }

    /* Memory for more buckets may be refused: the table works on with those that it has. */
    void grow()
    {
        const std::size_t more_count = 2 * bucket_count + 1;
        buckets more = make_buckets(more_count);
        if (more == nullptr) {
            return;
        }
        for (std::size_t i = 0; i < bucket_count; ++i) {
            while (std::unique_ptr<node> moved = std::move(heads[i])) {
                heads[i] = std::move(moved->next);
                std::unique_ptr<node> &head = more[moved->hash % more_count];
                moved->next = std::move(head);
                head = std::move(moved);
            }
        }
        heads = std::move(more);
        bucket_count = more_count;
    }

    /* Calls `take` for the value of each node until it returns false. */
    template <class Take> void for_each(Take take) const
    {
        for (std::size_t i = 0; i < bucket_count; ++i) {
            for (const node *at = heads[i].get(); at != nullptr; at = at->next.get()) {
                if (!take(at->value)) {
                    return;
                }
            }
        }
    }

    ~tirval_hashtable_impl_s()
    {
        for (std::size_t i = 0; i < bucket_count; ++i) {
            while (heads[i] != nullptr) { /* one by one: a long chain must not recurse */
                heads[i] = std::move(heads[i]->next);
            }
        }
    }
};

namespace {

/* Takes the implementation out, so that whatever is called meanwhile meets an empty table. */
std::unique_ptr<tirval_hashtable_impl_s> detach(tirval_hashtable_t *table)
{
    return std::unique_ptr<tirval_hashtable_impl_s>(
        table == nullptr ? nullptr : std::exchange(table->impl, nullptr));
}

bool is_ready(const tirval_hashtable_t *table)
{
    return table != nullptr && table->impl != nullptr;
}

} // namespace

extern "C" {

int tirval_hashtable_init(tirval_hashtable_t *table, int size, tirval_hashtable_hash_func_t hash,
                          tirval_hashtable_keyeq_func_t keyeq)
{
    table->impl = nullptr;
    if (size <= 0 || hash == nullptr || keyeq == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const auto count = static_cast<std::size_t>(size);
    buckets heads = make_buckets(count);
    if (heads != nullptr) {
        table->impl =
            new (std::nothrow) tirval_hashtable_impl_s{std::move(heads), count, 0, hash, keyeq};
    }
    if (table->impl == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int tirval_hashtable_insert(tirval_hashtable_t *table, void *key, void *value)
{
    if (!is_ready(table)) {
        return -1;
    }
    tirval_hashtable_impl_s &impl = *table->impl;
    std::unique_ptr<node> &link = impl.find(key);
    if (link != nullptr) {
        return -1;
    }
    link.reset(new (std::nothrow) node{key, value, impl.hash_of(key), nullptr});
    if (link == nullptr) {
        return -1;
    }
    if (++impl.size > impl.bucket_count) {
        impl.grow();
    }
    return 0;
}

void *tirval_hashtable_lookup(tirval_hashtable_t *table, void *key)
{
    const node *found = is_ready(table) ? table->impl->find(key).get() : nullptr;
    return found == nullptr ? nullptr : found->value;
}

void *tirval_hashtable_remove(tirval_hashtable_t *table, void *key)
{
    if (!is_ready(table)) {
        return nullptr;
    }
    std::unique_ptr<node> &link = table->impl->find(key);
    if (link == nullptr) {
        return nullptr;
    }
    void *value = link->value;
    link = std::move(link->next);
    --table->impl->size;
    return value;
}

size_t tirval_hashtable_size(const tirval_hashtable_t *table)
{
    return is_ready(table) ? table->impl->size : 0;
}

void tirval_hashtable_walk(tirval_hashtable_t *table, bool (*visit)(void *value, void *argument),
                           void *argument)
{
    if (is_ready(table)) {
        table->impl->for_each([=](void *value) { return visit(value, argument); });
    }
}

void tirval_hashtable_destroy(tirval_hashtable_t *table)
{
    detach(table);
}

void tirval_hashtable_destroy_all(tirval_hashtable_t *table, void (*free_value)(void *value))
{
    const auto impl = detach(table);
    if (impl != nullptr && free_value != nullptr) {
        impl->for_each([=](void *value) {
            free_value(value);
            return true;
        });
    }
}

int tirval_hashtable_string_hash(void *key, int limit)
{
    if (key == nullptr || limit <= 0) {
        return 0;
    }
    std::uint64_t hash = 0xcbf29ce484222325U; /* FNV-1a */
    for (const char *text = static_cast<const char *>(key); *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001b3U;
    }
    return static_cast<int>(hash % static_cast<unsigned>(limit));
}

int tirval_hashtable_string_keyeq(void *key1, void *key2)
{
    if (key1 == nullptr || key2 == nullptr) {
        return key1 == key2;
    }
    return std::strcmp(static_cast<const char *>(key1), static_cast<const char *>(key2)) == 0;
}
}
