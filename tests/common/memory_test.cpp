/*
 * What becomes of the runtime when memory runs out, and how much it keeps.  The program's own
 * operator new counts, and refuses the allocation that a test names.
 */
#include "support.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <malloc.h>
#include <new>
#include <string>
#include <vector>

namespace {

thread_local long refused_call = 0; /* 1: the next allocation fails; 0: none does */
thread_local std::size_t live_bytes = 0;

void *allocate(std::size_t size) noexcept
{
    if (refused_call > 0 && --refused_call == 0) {
        return nullptr;
    }
    void *memory = std::malloc(size);
    live_bytes += memory == nullptr ? 0 : malloc_usable_size(memory);
    return memory;
}

void release(void *memory) noexcept
{
    live_bytes -= memory == nullptr ? 0 : malloc_usable_size(memory);
    std::free(memory);
}

} // namespace

void *operator new(std::size_t size)
{
    void *memory = allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size);
}
void *operator new[](std::size_t size)
{
    return operator new(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size);
}
void operator delete(void *memory) noexcept
{
    release(memory);
}
void operator delete[](void *memory) noexcept
{
    release(memory);
}
void operator delete(void *memory, std::size_t) noexcept
{
    release(memory);
}
void operator delete[](void *memory, std::size_t) noexcept
{
    release(memory);
}

namespace {

/*
 * Runs `work` with its first allocation refused, then its second, and so on until it gets through
 * untouched.  `work` says whether it succeeded; it must, exactly when nothing was refused, and
 * leave nothing behind.  Returns how many allocations could be refused.
 */
int refuse_each_allocation(const std::function<bool()> &work)
{
    work(); /* what is made once for the whole process */
    for (int call = 1;; ++call) {
        const std::size_t before = live_bytes;
        refused_call = call;
        const bool succeeded = work();
        const bool refused = refused_call == 0;
        refused_call = 0;
        EXPECT_EQ(succeeded, !refused) << "allocation " << call;
        EXPECT_EQ(live_bytes, before) << "allocation " << call;
        if (!refused || testing::Test::HasFailure()) {
            return call - 1;
        }
    }
}

TEST(MemoryRunsOut, WhileAnErrorIsMade)
{
    const int refusable = refuse_each_allocation([] {
        const object_ptr error(make_error("text"));
        return error != nullptr;
    });
    EXPECT_EQ(refusable, 2);
}

TEST(MemoryRunsOut, AndTheCauseOfTheUnmadeErrorIsFreed)
{
    tirval_object_t *cause = make_counted(1);
    refused_call = 1;
    EXPECT_EQ(make_error("text", cause), nullptr);
    EXPECT_EQ(refused_call, 0);
    EXPECT_EQ(counted_live, 0);
}

TEST(MemoryRunsOut, WhileAChainIsCopied)
{
    const object_ptr chain(make_error("a", make_error("b")));
    const int refusable = refuse_each_allocation([&chain] {
        const object_ptr copy(tirval_object_copy(chain.get()));
        return copy != nullptr;
    });
    EXPECT_EQ(refusable, 4);
}

TEST(MemoryRunsOut, WhileAChainIsPrinted)
{
    const object_ptr chain(make_error(std::string(100, 'a').c_str(), make_error("b")));
    const int refusable = refuse_each_allocation([&chain] {
        const std::unique_ptr<char, decltype(&std::free)> text(
            tirval_error_print_chain(chain.get()), &std::free);
        return text != nullptr;
    });
    EXPECT_GE(refusable, 1);
}

TEST(MemoryRunsOut, WhileAScopeIsMade)
{
    const int refusable = refuse_each_allocation([] {
        tirval_error_scope_t *scope = tirval_error_scope_create();
        const bool made = scope != nullptr;
        tirval_error_scope_destroy(scope);
        return made;
    });
    EXPECT_EQ(refusable, 1);
}

TEST(MemoryRunsOut, WhileTheTableGrows)
{
    std::vector<tirval_result_t> results(8192);
    results.clear();
    bool refused = false;
    while (!refused && results.size() < 8192) {
        tirval_object_t *error = make_counted(1);
        refused_call = 1;
        const tirval_result_t result = tirval_error_put(error);
        refused = refused_call == 0;
        refused_call = 0;
        if (refused) {
            EXPECT_EQ(result, TIRVAL_FAILURE) << "no place is free, and none can be made";
        } else {
            ASSERT_NE(result, TIRVAL_FAILURE);
            results.push_back(result);
        }
    }
    EXPECT_TRUE(refused);
    EXPECT_EQ(tirval_error_count(), results.size());
    EXPECT_EQ(counted_live, static_cast<int>(results.size()));
    for (const auto result : results) {
        tirval_object_free(tirval_error_get(result));
    }
}

TEST(MemoryRunsOut, WhileAHashTableIsMadeAndFilled)
{
    static std::vector<std::string> keys;
    for (int i = 0; i < 5; ++i) {
        keys.push_back(std::to_string(i));
    }
    for (const int sized_to_grow : {64, 1}) {
        tirval_hashtable_t table{};
        const int refusable = refuse_each_allocation([&table, sized_to_grow] {
            if (tirval_hashtable_init(&table, sized_to_grow, tirval_hashtable_string_hash,
                                      tirval_hashtable_string_keyeq) != 0) {
                EXPECT_EQ(errno, ENOMEM);
                return false;
            }
            const bool inserted = tirval_hashtable_insert(&table, keys[0].data(), &keys[0]) == 0;
            EXPECT_EQ(tirval_hashtable_lookup(&table, keys[0].data()),
                      inserted ? &keys[0] : nullptr);
            tirval_hashtable_destroy(&table);
            return inserted;
        });
        EXPECT_EQ(refusable, 3);
    }
}

TEST(MemoryRunsOut, AndAHashTableThatCannotGrowWorksOn)
{
    std::vector<int> values(50);
    tirval_hashtable_t table{};
    ASSERT_EQ(tirval_hashtable_init(
                  &table, 1, [](void *key, int limit) { return *static_cast<int *>(key) % limit; },
                  [](void *a, void *b) {
                      return *static_cast<int *>(a) == *static_cast<int *>(b) ? 1 : 0;
                  }),
              0);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<int>(i);
        refused_call = 2; /* the first is the entry's own */
        ASSERT_EQ(tirval_hashtable_insert(&table, &values[i], &values[i]), 0);
        refused_call = 0;
    }
    for (auto &value : values) {
        EXPECT_EQ(tirval_hashtable_lookup(&table, &value), &value);
    }
    EXPECT_EQ(tirval_hashtable_size(&table), values.size());
    tirval_hashtable_destroy(&table);
}

TEST(MemoryRunsOut, WhileAnExtensionIsAdded)
{
    static const std::string key(100, 'k');
    tirval_extension_registry_t registry{};
    const int refusable = refuse_each_allocation([&registry] {
        const int added = tirval_extension_registry_add(&registry, key.c_str(), nullptr, &registry);
        EXPECT_EQ(tirval_extension_registry_remove(&registry, key.c_str()),
                  added == 0 ? &registry : nullptr);
        return added == 0;
    });
    EXPECT_GE(refusable, 3);
    EXPECT_EQ(registry.table, nullptr);
}

TEST(MemoryRunsOut, WhileAnExtensionIsLookedUp)
{
    static tirval_module_descriptor_t owner = {"owner", nullptr, nullptr,
                                               nullptr, nullptr, nullptr};
    tirval_extension_registry_t registry{};
    ASSERT_EQ(tirval_extension_registry_add(&registry, "a", &owner, &registry), 0);
    const int refusable = refuse_each_allocation([&registry] {
        tirval_extension_handle_t handle{};
        const void *found = tirval_extension_lookup(&handle, &registry, "a");
        EXPECT_EQ(tirval_module_reference_count(&owner), found == nullptr ? 0 : 1);
        tirval_extension_release(&handle);
        return found != nullptr;
    });
    EXPECT_EQ(refusable, 1);
    tirval_extension_registry_remove(&registry, "a");
}

TEST(MemoryRunsOut, WhileAModuleIsActivatedForTheFirstTime)
{
    static tirval_module_descriptor_t fresh = {"fresh", [] { return 0; }, nullptr,
                                               nullptr, nullptr,          nullptr};
    refused_call = 1;
    EXPECT_EQ(tirval_module_activate(&fresh), -1);
    EXPECT_EQ(refused_call, 0);
    EXPECT_EQ(tirval_module_reference_count(&fresh), 0);
    EXPECT_EQ(tirval_module_activate(&fresh), 0);
    EXPECT_EQ(tirval_module_deactivate(&fresh), 0);
}

TEST(MemoryStaysFlat, OverAMillionErrorsThatComeAndGoInOneScope)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    tirval_error_scope_enter(scope);
    const auto put_and_take = [](int count) {
        for (int i = 0; i < count; ++i) {
            tirval_object_free(tirval_error_get(tirval_error_put(make_error("text"))));
        }
    };
    put_and_take(10'000);
    const std::size_t before = live_bytes;
    put_and_take(1'000'000);
    EXPECT_EQ(live_bytes, before);
    tirval_error_scope_enter(nullptr);
    tirval_error_scope_destroy(scope);
}

TEST(MemoryStaysFlat, OverScopeAfterScopeOfErrorsThatNobodyReleases)
{
    const auto run_entries = [](int count) {
        for (int i = 0; i < count; ++i) {
            tirval_error_scope_t *scope = tirval_error_scope_create();
            tirval_error_scope_enter(scope);
            for (int j = 0; j < 5; ++j) {
                tirval_error_put(make_error("text"));
            }
            tirval_error_scope_enter(nullptr);
            tirval_error_scope_destroy(scope);
        }
    };
    run_entries(2000);
    const std::size_t before = live_bytes;
    run_entries(200'000);
    EXPECT_EQ(live_bytes, before);
    EXPECT_EQ(tirval_error_count(), 0U);
}

} // namespace
