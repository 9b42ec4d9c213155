/* Extension registries. */
#include "tirval_common.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

tirval_module_descriptor_t owner = {"owner", nullptr, nullptr, nullptr, nullptr, nullptr};
int first_data = 1;
int second_data = 2;

class Registry : public testing::Test {
  protected:
    void TearDown() override
    {
        for (const char *key : {"a", "b", "B", "ab", "\xff"}) {
            tirval_extension_registry_remove(&registry_, key);
        }
        EXPECT_EQ(registry_.table, nullptr) << "an empty registry keeps no memory";
        EXPECT_EQ(tirval_module_reference_count(&owner), 0);
    }

    std::vector<std::string> keys()
    {
        std::vector<std::string> met;
        tirval_extension_registry_walk(
            &registry_,
            [](const char *key, void *, void *argument) {
                static_cast<std::vector<std::string> *>(argument)->emplace_back(key);
                return true;
            },
            &met);
        return met;
    }

    tirval_extension_registry_t registry_{};
};

TEST_F(Registry, IsOrderedByKeyBytewise)
{
    for (const char *key : {"b", "\xff", "B", "ab", "a"}) {
        EXPECT_EQ(tirval_extension_registry_add(&registry_, key, &owner, &first_data), 0);
    }
    EXPECT_EQ(keys(), (std::vector<std::string>{"B", "a", "ab", "b", "\xff"}));
}

TEST_F(Registry, CopiesItsKeys)
{
    std::string key = "a";
    tirval_extension_registry_add(&registry_, key.c_str(), &owner, &first_data);
    key[0] = 'b';
    EXPECT_EQ(keys(), (std::vector<std::string>{"a"}));
}

TEST_F(Registry, AddingAPresentKeyFailsAndChangesNothing)
{
    EXPECT_EQ(tirval_extension_registry_add(&registry_, "a", &owner, &first_data), 0);
    EXPECT_EQ(tirval_extension_registry_add(&registry_, "a", &owner, &second_data), -1);
    EXPECT_EQ(tirval_extension_registry_remove(&registry_, "a"), &first_data);
    EXPECT_EQ(tirval_extension_registry_remove(&registry_, "a"), nullptr);
}

TEST_F(Registry, RefusesAnEntryWithoutKeyOrData)
{
    EXPECT_EQ(tirval_extension_registry_add(&registry_, nullptr, &owner, &first_data), -1);
    EXPECT_EQ(tirval_extension_registry_add(&registry_, "a", &owner, nullptr), -1);
    EXPECT_EQ(tirval_extension_registry_add(nullptr, "a", &owner, &first_data), -1);
    EXPECT_TRUE(keys().empty());
}

TEST_F(Registry, ALookUpKeepsTheModuleActiveUntilReleased)
{
    tirval_extension_registry_add(&registry_, "a", &owner, &first_data);
    tirval_extension_handle_t handle{};
    EXPECT_EQ(tirval_extension_lookup(&handle, &registry_, "a"), &first_data);
    EXPECT_EQ(tirval_module_reference_count(&owner), 1);
    tirval_extension_handle_t second{};
    EXPECT_EQ(tirval_extension_lookup(&second, &registry_, "a"), &first_data);
    EXPECT_EQ(tirval_module_reference_count(&owner), 2);
    tirval_extension_release(&handle);
    tirval_extension_release(&handle);
    EXPECT_EQ(tirval_module_reference_count(&owner), 1);
    tirval_extension_release(&second);
    EXPECT_EQ(tirval_module_reference_count(&owner), 0);
}

TEST_F(Registry, ALookUpStaysValidWhenItsEntryIsRemoved)
{
    tirval_extension_registry_add(&registry_, "a", &owner, &first_data);
    tirval_extension_handle_t handle{};
    void *data = tirval_extension_lookup(&handle, &registry_, "a");
    EXPECT_EQ(tirval_extension_registry_remove(&registry_, "a"), &first_data);
    EXPECT_EQ(data, &first_data);
    EXPECT_EQ(tirval_module_reference_count(&owner), 1);
    tirval_extension_handle_t later{};
    EXPECT_EQ(tirval_extension_lookup(&later, &registry_, "a"), nullptr);
    tirval_extension_registry_add(&registry_, "a", &owner, &second_data);
    tirval_extension_release(&handle);
    EXPECT_EQ(tirval_module_reference_count(&owner), 0);
}

TEST_F(Registry, AnAbsentKeyLeavesTheHandleEmpty)
{
    tirval_extension_handle_t handle{};
    EXPECT_EQ(tirval_extension_lookup(&handle, &registry_, "a"), nullptr);
    tirval_extension_registry_add(&registry_, "b", &owner, &first_data);
    EXPECT_EQ(tirval_extension_lookup(&handle, &registry_, "a"), nullptr);
    EXPECT_EQ(handle.entry, nullptr);
    tirval_extension_release(&handle);
    tirval_extension_release(nullptr);
}

TEST_F(Registry, ALookUpFailsWhenTheModuleCannotBeActivated)
{
    static tirval_module_descriptor_t broken = {"broken", [] { return 9; }, nullptr,
                                                nullptr,  nullptr,          nullptr};
    tirval_extension_registry_add(&registry_, "a", &broken, &first_data);
    tirval_extension_handle_t handle{};
    EXPECT_EQ(tirval_extension_lookup(&handle, &registry_, "a"), nullptr);
    EXPECT_EQ(handle.entry, nullptr);
}

TEST_F(Registry, AnEntryNeedsNoModule)
{
    tirval_extension_registry_add(&registry_, "a", nullptr, &first_data);
    tirval_extension_handle_t handle{};
    EXPECT_EQ(tirval_extension_lookup(&handle, &registry_, "a"), &first_data);
    tirval_extension_release(&handle);
}

TEST_F(Registry, AWalkStopsWhenTheVisitorSaysSo)
{
    tirval_extension_registry_add(&registry_, "a", &owner, &first_data);
    tirval_extension_registry_add(&registry_, "b", &owner, &second_data);
    void *met = nullptr;
    tirval_extension_registry_walk(
        &registry_,
        [](const char *, void *data, void *argument) {
            *static_cast<void **>(argument) = data;
            return false;
        },
        &met);
    EXPECT_EQ(met, &first_data);
}

TEST_F(Registry, AVisitorMayLookUpAndRemove)
{
    tirval_extension_registry_add(&registry_, "a", &owner, &first_data);
    tirval_extension_registry_add(&registry_, "b", &owner, &second_data);
    tirval_extension_registry_walk(
        &registry_,
        [](const char *key, void *data, void *argument) {
            auto *registry = static_cast<tirval_extension_registry_t *>(argument);
            tirval_extension_handle_t handle{};
            EXPECT_EQ(tirval_extension_lookup(&handle, registry, key), data);
            tirval_extension_release(&handle);
            EXPECT_EQ(tirval_extension_registry_remove(registry, key), data);
            return true;
        },
        &registry_);
    EXPECT_TRUE(keys().empty());
}

tirval_extension_registry_t self_made{};

tirval_module_descriptor_t self_adding = {
    "self adding",
    [] { return tirval_extension_registry_add(&self_made, "self", &self_adding, &first_data); },
    [] { return tirval_extension_registry_remove(&self_made, "self") != nullptr ? 0 : 1; },
    nullptr,
    nullptr,
    nullptr};

TEST(RegistryThreads, ModulesRegisterThemselvesWhileOthersLookThemUp)
{
    std::atomic<int> wrong{0};
    const auto look_up = [&wrong] {
        for (int i = 0; i < 3000; ++i) {
            tirval_extension_handle_t handle{};
            void *data = tirval_extension_lookup(&handle, &self_made, "self");
            wrong += data != nullptr && data != &first_data;
            wrong += data != nullptr && tirval_module_reference_count(&self_adding) < 1;
            tirval_extension_release(&handle);
        }
    };
    const auto come_and_go = [&wrong] {
        for (int i = 0; i < 3000; ++i) {
            wrong += tirval_module_activate(&self_adding) != 0;
            tirval_module_deactivate(&self_adding);
        }
    };
    {
        std::vector<std::jthread> threads;
        threads.emplace_back(look_up);
        threads.emplace_back(come_and_go);
        threads.emplace_back(look_up);
        threads.emplace_back(come_and_go);
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(self_made.table, nullptr);
}

} // namespace
