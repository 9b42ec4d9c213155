/* Hash tables. */
#include "support.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <vector>

namespace {

/* A value with its key inside, as most are. */
struct record {
    explicit record(const std::string &text) : name(strdup(text.c_str()), &std::free) {}
    std::unique_ptr<char, decltype(&std::free)> name;
};

std::vector<std::string> freed;

void free_record(void *value)
{
    const std::unique_ptr<record> owned(static_cast<record *>(value));
    freed.emplace_back(owned->name.get());
}

class StringTable : public testing::Test {
  protected:
    void SetUp() override
    {
        freed.clear();
        ASSERT_EQ(tirval_hashtable_init(&table_, 7, tirval_hashtable_string_hash,
                                        tirval_hashtable_string_keyeq),
                  0);
    }
    void TearDown() override { tirval_hashtable_destroy_all(&table_, free_record); }

    record *add(const std::string &name)
    {
        auto made = std::make_unique<record>(name);
        if (tirval_hashtable_insert(&table_, made->name.get(), made.get()) != 0) {
            return nullptr;
        }
        return made.release();
    }

    void *find(std::string name) { return tirval_hashtable_lookup(&table_, name.data()); }

    tirval_hashtable_t table_{};
};

TEST_F(StringTable, FindsWhatWasInserted)
{
    record *a = add("a");
    record *b = add("b");
    EXPECT_EQ(find("a"), a);
    EXPECT_EQ(find("b"), b);
    EXPECT_EQ(find("c"), nullptr);
    EXPECT_EQ(find(""), nullptr);
    EXPECT_EQ(tirval_hashtable_size(&table_), 2U);
}

TEST_F(StringTable, RefusesAPresentKeyAndStaysUnchanged)
{
    record *first = add("a");
    EXPECT_EQ(add("a"), nullptr);
    EXPECT_EQ(find("a"), first);
    EXPECT_EQ(tirval_hashtable_size(&table_), 1U);
}

TEST_F(StringTable, RemovesByTheKeyInsideTheValue)
{
    record *a = add("a");
    void *removed = tirval_hashtable_remove(&table_, a->name.get());
    EXPECT_EQ(removed, a);
    free_record(removed);
    EXPECT_EQ(find("a"), nullptr);
    EXPECT_EQ(tirval_hashtable_size(&table_), 0U);
}

TEST_F(StringTable, RemovingAnAbsentKeyReturnsNull)
{
    add("a");
    std::string absent = "b";
    EXPECT_EQ(tirval_hashtable_remove(&table_, absent.data()), nullptr);
    EXPECT_EQ(tirval_hashtable_size(&table_), 1U);
}

TEST_F(StringTable, KeepsEveryEntryWhileItGrowsAndShrinks)
{
    std::vector<record *> records;
    for (int i = 0; i < 20'000; ++i) {
        records.push_back(add("/My files/" + std::to_string(i)));
    }
    EXPECT_EQ(tirval_hashtable_size(&table_), records.size());
    for (std::size_t i = 0; i < records.size(); i += 2) {
        ASSERT_EQ(tirval_hashtable_remove(&table_, records[i]->name.get()), records[i]);
        free_record(records[i]);
    }
    for (std::size_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(find("/My files/" + std::to_string(i)), i % 2 == 0 ? nullptr : records[i]);
    }
}

TEST_F(StringTable, WalkMeetsEachValueOnce)
{
    add("a");
    add("b");
    add("c");
    std::multiset<std::string> met;
    tirval_hashtable_walk(
        &table_,
        [](void *value, void *argument) {
            static_cast<std::multiset<std::string> *>(argument)->emplace(
                static_cast<record *>(value)->name.get());
            return true;
        },
        &met);
    EXPECT_EQ(met, (std::multiset<std::string>{"a", "b", "c"}));
}

TEST_F(StringTable, WalkStopsWhenTheVisitorSaysSo)
{
    add("a");
    add("b");
    add("c");
    int calls = 0;
    tirval_hashtable_walk(
        &table_, [](void *, void *argument) { return ++*static_cast<int *>(argument) < 2; },
        &calls);
    EXPECT_EQ(calls, 2);
}

TEST_F(StringTable, DestroyAllFreesEachValueOnceAndReadsNoFreedKey)
{
    for (int i = 0; i < 100; ++i) {
        add(std::to_string(i));
    }
    tirval_hashtable_destroy_all(&table_, free_record);
    EXPECT_EQ(freed.size(), 100U);
    EXPECT_EQ(std::set<std::string>(freed.begin(), freed.end()).size(), 100U);
    EXPECT_EQ(tirval_hashtable_size(&table_), 0U);
}

TEST_F(StringTable, DestroyLeavesTheValuesAlone)
{
    const std::unique_ptr<record> a(add("a"));
    tirval_hashtable_destroy(&table_);
    EXPECT_STREQ(a->name.get(), "a");
    EXPECT_TRUE(freed.empty());
}

TEST_F(StringTable, IsEmptyAndUsableNoMoreOnceDestroyed)
{
    tirval_hashtable_destroy(&table_);
    std::string key = "a";
    EXPECT_EQ(tirval_hashtable_lookup(&table_, key.data()), nullptr);
    EXPECT_EQ(tirval_hashtable_remove(&table_, key.data()), nullptr);
    EXPECT_EQ(tirval_hashtable_insert(&table_, key.data(), &key), -1);
    EXPECT_EQ(tirval_hashtable_size(&table_), 0U);
    tirval_hashtable_destroy(&table_);
    tirval_hashtable_destroy_all(&table_, free_record);
}

TEST(Hashtable, InitRefusesASizeThatIsNotPositive)
{
    for (const int size : {0, -1}) {
        tirval_hashtable_t table{};
        errno = 0;
        EXPECT_EQ(tirval_hashtable_init(&table, size, tirval_hashtable_string_hash,
                                        tirval_hashtable_string_keyeq),
                  -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(tirval_hashtable_size(&table), 0U);
    }
}

TEST(Hashtable, WorksWithAHashThatPutsEverythingTogether)
{
    tirval_hashtable_t table{};
    ASSERT_EQ(tirval_hashtable_init(
                  &table, 1, [](void *, int limit) { return limit - 1; },
                  [](void *a, void *b) { return a == b ? 1 : 0; }),
              0);
    std::vector<int> values(500);
    for (auto &value : values) {
        ASSERT_EQ(tirval_hashtable_insert(&table, &value, &value), 0);
    }
    for (auto &value : values) {
        ASSERT_EQ(tirval_hashtable_insert(&table, &value, &value), -1);
        ASSERT_EQ(tirval_hashtable_lookup(&table, &value), &value);
    }
    tirval_hashtable_destroy(&table);
}

TEST(StringHash, IsBelowTheLimitAndNotNegativeForAnyBytes)
{
    std::string key;
    for (int i = 0; i < 3000; ++i) {
        key += static_cast<char>(i % 255 + 1);
        for (const int limit : {1, 2, 7, 1023, INT_MAX}) {
            const int hash = tirval_hashtable_string_hash(key.data(), limit);
            ASSERT_GE(hash, 0);
            ASSERT_LT(hash, limit);
        }
    }
}

TEST(StringHash, DependsOnTheTextAloneAndSpreadsIt)
{
    std::string a = "/My files/a";
    std::string again = a;
    EXPECT_EQ(tirval_hashtable_string_hash(a.data(), 1023),
              tirval_hashtable_string_hash(again.data(), 1023));
    std::set<int> met;
    for (int i = 0; i < 1023; ++i) {
        std::string key = "/My files/folder/" + std::to_string(i);
        met.insert(tirval_hashtable_string_hash(key.data(), 1023));
    }
    EXPECT_GT(met.size(), 500U);
}

TEST(StringKeyeq, ComparesExactly)
{
    std::string a = "a";
    std::string again = "a";
    std::string upper = "A";
    std::string longer = "aa";
    EXPECT_NE(tirval_hashtable_string_keyeq(a.data(), again.data()), 0);
    EXPECT_EQ(tirval_hashtable_string_keyeq(a.data(), upper.data()), 0);
    EXPECT_EQ(tirval_hashtable_string_keyeq(a.data(), longer.data()), 0);
}

} // namespace
