/*
 * When a session's view of the drive is made anew, and when a store that waits to be continued
 * keeps it.
 */
#include "session_harness.h"

#include "storage_session.h"

#include <gtest/gtest.h>

namespace tirval::tests {
namespace {

using server::item_t;
using server::storage_session_t;
using std::chrono::hours;
using std::chrono::seconds;

class StorageSession : public ::testing::Test {
  protected:
    StorageSession() { fake.add_file("/My files/a.txt", "hello"); }

    storage_session_t::setup_t setup(seconds store_wait)
    {
        return {.storage = &fake_storage_interface(),
                .changes = &changes,
                .config = &config,
                .store_wait = store_wait,
                .session_id = 1,
                .account = test_account(),
                .client = "127.0.0.1"};
    }

    static bool sees(storage_session_t &storage, const char *path = "/My files/a.txt")
    {
        return std::holds_alternative<item_t>(storage.stat(path));
    }

    void change_by_another_session(const char *path)
    {
        changes.note_change(test_account().name, path, 2);
    }

    fake_storage_t fake;
    server::change_ring_t changes;
    server::storage_config_t config;
};

TEST_F(StorageSession, IsOpenedOnceForManyOperations)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    EXPECT_TRUE(sees(storage));
    EXPECT_EQ(fake.shared->starts, 1);
}

TEST_F(StorageSession, IsOpenedAnewOnceAfterDistrust)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    storage.distrust();
    EXPECT_TRUE(sees(storage));
    EXPECT_TRUE(sees(storage));
    EXPECT_EQ(fake.shared->starts, 2);
    EXPECT_EQ(fake.shared->ends, 1);
}

TEST_F(StorageSession, StaysOpenWhileAStoreWaitsToBeContinued)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    storage.remember_broken_store("/My files/big", {100, 50});
    EXPECT_TRUE(storage.keeps_store());
    storage.distrust();
    change_by_another_session("/My files");
    EXPECT_TRUE(sees(storage));
    EXPECT_FALSE(sees(storage, "/My files/nothing"));
    EXPECT_EQ(fake.shared->starts, 1);
    ASSERT_NE(storage.broken_store("/My files/big"), nullptr);
    EXPECT_EQ(storage.broken_store("/My files/big")->total, 100);
    EXPECT_EQ(storage.broken_store("/My files/big")->stored, 50);
}

TEST_F(StorageSession, IsOpenedAnewAsSoonAsTheStoreHasBeenContinued)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    storage.remember_broken_store("/My files/big", {100, 50});
    storage.distrust();
    EXPECT_TRUE(sees(storage));
    storage.forget_broken_store("/My files/big");
    EXPECT_TRUE(sees(storage));
    EXPECT_EQ(fake.shared->starts, 2);
}

TEST_F(StorageSession, AStoreThatNobodyContinuesInTimeIsGivenUp)
{
    storage_session_t storage(setup(seconds(0)));
    EXPECT_TRUE(sees(storage));
    storage.remember_broken_store("/My files/big", {100, 50});
    EXPECT_FALSE(storage.keeps_store());
    EXPECT_EQ(storage.broken_store("/My files/big"), nullptr);
    EXPECT_TRUE(sees(storage));
    EXPECT_EQ(fake.shared->starts, 2); /* so that the storage forgets it, too */
}

TEST_F(StorageSession, ForgetsTheStoresThatWaitedWhenItIsOpenedAnew)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    storage.remember_broken_store("/My files/big", {100, 50});
    EXPECT_FALSE(storage.open());
    EXPECT_EQ(storage.broken_store("/My files/big"), nullptr);
    EXPECT_FALSE(storage.keeps_store());
}

TEST_F(StorageSession, ForgetsTheStoresAlsoWhenItCannotBeOpenedAnew)
{
    storage_session_t storage(setup(hours(1)));
    EXPECT_TRUE(sees(storage));
    storage.remember_broken_store("/My files/big", {100, 50});
    fake.start_error = {530, "", "not today"};
    EXPECT_TRUE(storage.open());
    EXPECT_EQ(storage.broken_store("/My files/big"), nullptr);
}

TEST_F(StorageSession, WhatIsMissingAfterAChangeIsLookedForAgain)
{
    fake.add_file("/My files/late", "x").hidden = true;
    storage_session_t storage(setup(hours(1)));
    EXPECT_FALSE(sees(storage, "/My files/late"));
    fake.shared->reveal = true;
    EXPECT_FALSE(sees(storage, "/My files/late"));
    change_by_another_session("/My files/late");
    EXPECT_TRUE(sees(storage, "/My files/late"));
    EXPECT_EQ(fake.shared->starts, 2);
}

} // namespace
} // namespace tirval::tests
