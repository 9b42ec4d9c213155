/*
 * The table between results and error objects, and the scopes that empty it.
 *
 *   - A handle is a slot's number in its low 20 bits and the slot's generation above; generations
 *     run from 1 to 4094, so that no handle is 0 or 0xFFFFFFFF.
 *   - A slot is reused only when many others have been free for longer, so that a handle comes back
 *     after millions of puts at the earliest.
 *   - The objects noted in a scope are linked through their slots: taking an object out also takes
 *     its note away, and a scope costs nothing for what came and went.
 */
#include "immortal.h"
#include "object.h"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace {

constexpr std::uint32_t index_bits = 20;
constexpr std::uint32_t index_mask = (1U << index_bits) - 1;
constexpr std::uint32_t last_generation = (1U << (32 - index_bits)) - 2;
constexpr std::uint32_t slots_per_block = 1024;
constexpr std::uint32_t block_count = (1U << index_bits) / slots_per_block;
constexpr std::uint32_t idle_slots = 1024; /* free slots kept back before one is used again */
constexpr std::uint32_t nowhere = UINT32_MAX;

} // namespace

struct tirval_error_scope_s {
    std::uint32_t first = nowhere; /* slot of the object noted last */
};

namespace {

using tirval::common::immortal;
using tirval::common::owned_object;

struct slot {
    tirval_object_t *object = nullptr; /* null while the slot is free */
    tirval_error_scope_t *scope = nullptr;
    std::uint32_t previous = nowhere; /* within the scope */
    std::uint32_t next = nowhere;     /* within the scope, or among the free slots */
    std::uint32_t generation = 0;
};

class error_table {
  public:
    /* The new handle, or TIRVAL_FAILURE when no slot can be had. */
    tirval_result_t put(tirval_object_t *object, tirval_error_scope_t *scope)
    {
        const std::lock_guard guard(lock_);
        const std::uint32_t index = take_slot();
        if (index == nowhere) {
            return TIRVAL_FAILURE;
        }
        slot &chosen = at(index);
        chosen.object = object;
        chosen.generation = chosen.generation % last_generation + 1;
        note(chosen, index, scope);
        ++live_;
        return chosen.generation << index_bits | index;
    }

    tirval_object_t *peek(tirval_result_t handle)
    {
        const std::lock_guard guard(lock_);
        const slot *found = find(handle);
        return found == nullptr ? nullptr : found->object;
    }

    owned_object get(tirval_result_t handle)
    {
        const std::lock_guard guard(lock_);
        return find(handle) == nullptr ? nullptr : release(handle & index_mask);
    }

    /* Takes out one object that is noted in the scope; null when there is none. */
    owned_object get_noted(const tirval_error_scope_t &scope)
    {
        const std::lock_guard guard(lock_);
        return scope.first == nowhere ? nullptr : release(scope.first);
    }

    std::size_t count()
    {
        const std::lock_guard guard(lock_);
        return live_;
    }

  private:
    slot &at(std::uint32_t index)
    {
        return (*blocks_[index / slots_per_block])[index % slots_per_block];
    }

    slot *find(tirval_result_t handle)
    {
        const std::uint32_t index = handle & index_mask;
        if (index >= made_) {
            return nullptr;
        }
        slot &named = at(index);
        const bool same = named.object != nullptr && named.generation == handle >> index_bits;
        return same ? &named : nullptr;
    }

    std::uint32_t take_slot()
    {
        if (free_ <= idle_slots) {
            const std::uint32_t fresh = make_slot();
            if (fresh != nowhere) {
                return fresh;
            }
        }
        if (free_ == 0) {
            return nowhere;
        }
        const std::uint32_t oldest = first_free_;
        first_free_ = at(oldest).next;
        --free_;
        return oldest;
    }

    std::uint32_t make_slot()
    {
        const std::uint32_t block = made_ / slots_per_block;
        if (block == block_count) {
            return nowhere;
        }
        if (blocks_[block] == nullptr) {
            blocks_[block].reset(new (std::nothrow) slot_block);
        }
        return blocks_[block] == nullptr ? nowhere : made_++;
    }

    owned_object release(std::uint32_t index)
    {
        slot &left = at(index);
        owned_object object(left.object);
        left.object = nullptr;
        forget(left);
        if (free_ == 0) {
            first_free_ = index;
        } else {
            at(last_free_).next = index;
        }
        last_free_ = index;
        ++free_;
        --live_;
        return object;
    }

    void note(slot &noted, std::uint32_t index, tirval_error_scope_t *scope)
    {
        noted.scope = scope;
        noted.previous = nowhere;
        noted.next = nowhere;
        if (scope == nullptr) {
            return;
        }
        noted.next = scope->first;
        if (noted.next != nowhere) {
            at(noted.next).previous = index;
        }
        scope->first = index;
    }

    void forget(slot &noted)
    {
        if (noted.scope != nullptr) {
            std::uint32_t &before =
                noted.previous == nowhere ? noted.scope->first : at(noted.previous).next;
            before = noted.next;
            if (noted.next != nowhere) {
                at(noted.next).previous = noted.previous;
            }
        }
        noted.scope = nullptr;
        noted.next = nowhere;
    }

    using slot_block = std::array<slot, slots_per_block>;

    std::mutex lock_; /* guards all of the table, and the scopes' lists */
    std::array<std::unique_ptr<slot_block>, block_count> blocks_; /* made as they are needed */
    std::uint32_t made_ = 0;                                      /* slots in use or free */
    std::uint32_t free_ = 0;
    std::uint32_t first_free_ = nowhere; /* free for the longest time */
    std::uint32_t last_free_ = nowhere;
    std::size_t live_ = 0;
};

error_table &table()
{
    return immortal<error_table>();
}

thread_local tirval_error_scope_t *current_scope = nullptr;

} // namespace

extern "C" {

tirval_result_t tirval_error_put(tirval_object_t *error)
{
    owned_object owned(error);
    if (owned == nullptr) {
        return TIRVAL_FAILURE;
    }
    const tirval_result_t handle = table().put(owned.get(), current_scope);
    if (handle != TIRVAL_FAILURE) {
        (void)owned.release();
    }
    return handle;
}

tirval_object_t *tirval_error_peek(tirval_result_t result)
{
    return table().peek(result);
}

tirval_object_t *tirval_error_get(tirval_result_t result)
{
    return table().get(result).release();
}

size_t tirval_error_count(void)
{
    return table().count();
}

tirval_error_scope_t *tirval_error_scope_create(void)
{
    return new (std::nothrow) tirval_error_scope_t;
}

tirval_error_scope_t *tirval_error_scope_enter(tirval_error_scope_t *scope)
{
    return std::exchange(current_scope, scope);
}

void tirval_error_scope_destroy(tirval_error_scope_t *scope)
{
    const std::unique_ptr<tirval_error_scope_t> owned(scope);
    if (scope == nullptr) {
        return;
    }
    /* Each object is freed with the table unlocked: its free function may use the table. */
    while (table().get_noted(*scope) != nullptr) {
    }
}
}
