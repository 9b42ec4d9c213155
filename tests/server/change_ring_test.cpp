/* What sessions learn of each other's changes. */
#include "change_ring.h"

#include "child_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <memory>
#include <vector>

using namespace tirval::server;

TEST(ChangeRing, NothingHasChangedAtFirst)
{
    const change_ring_t ring;
    EXPECT_EQ(ring.position(), 0U);
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, 0));
}

TEST(ChangeRing, AnotherSessionsChangeOfThePathIsSeenOnceItIsNewer)
{
    change_ring_t ring;
    ring.note_change("anna", "/My files/a", 2);
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a", 1, 0));
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, ring.position()));
}

TEST(ChangeRing, ASessionsOwnChangesDoNotCount)
{
    change_ring_t ring;
    ring.note_change("anna", "/My files/a", 1);
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, 0));
}

TEST(ChangeRing, AnotherUsersChangesDoNotCount)
{
    change_ring_t ring;
    ring.note_change("bert", "/My files/a", 2);
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, 0));
}

TEST(ChangeRing, UserAndPathDoNotRunIntoEachOther)
{
    change_ring_t ring;
    ring.note_change("anna/x", "/y", 2);
    EXPECT_FALSE(ring.changed_since("anna", "/x/y", 1, 0));
}

TEST(ChangeRing, AChangedFolderConcernsEverythingBelowIt)
{
    change_ring_t ring;
    ring.note_change("anna", "/My files/a", 2);
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a/b", 1, 0));
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a/b/c/d", 1, 0));
}

TEST(ChangeRing, OtherItemsAreNotConcerned)
{
    change_ring_t ring;
    ring.note_change("anna", "/My files/a", 2);
    EXPECT_FALSE(ring.changed_since("anna", "/My files/ab", 1, 0));
    EXPECT_FALSE(ring.changed_since("anna", "/My files", 1, 0));
    EXPECT_FALSE(ring.changed_since("anna", "/", 1, 0));
    EXPECT_FALSE(ring.changed_since("anna", "/Shared/My files/a", 1, 0));
}

TEST(ChangeRing, CaseMakesNoDifferenceAsWithTheService)
{
    change_ring_t ring;
    ring.note_change("anna", "/My files/REPORT.txt", 2);
    EXPECT_TRUE(ring.changed_since("anna", "/my files/report.TXT", 1, 0));
}

TEST(ChangeRing, WhatTheRingHasForgottenCountsAsChanged)
{
    change_ring_t ring{4};
    for (int i = 0; i < 4; ++i) {
        ring.note_change("bert", "/other", 2);
    }
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, 0));
    ring.note_change("bert", "/other", 2);
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a", 1, 0));
    EXPECT_FALSE(ring.changed_since("anna", "/My files/a", 1, 1));
}

TEST(ChangeRing, APositionFromTheFutureCountsAsChanged)
{
    const change_ring_t ring;
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a", 1, 7));
}

TEST(ChangeRing, ProcessesForkedLaterShareIt)
{
    change_ring_t ring;
    const auto result = run_in_child([&] {
        ring.note_change("anna", "/My files/a", 2);
        return std::string{"done"};
    });
    EXPECT_EQ(result.text, "done");
    EXPECT_TRUE(ring.changed_since("anna", "/My files/a", 1, 0));
}

TEST(ChangeRing, ManyProcessesWriteWithoutLosingAnEntry)
{
    constexpr int writers = 4;
    constexpr int changes = 500;
    change_ring_t ring{writers * changes};
    std::vector<std::unique_ptr<child_process_t>> children;
    for (int w = 1; w <= writers; ++w) {
        children.push_back(std::make_unique<child_process_t>([&ring, w] {
            for (int i = 0; i < changes; ++i) {
                ring.note_change("anna", "/" + std::to_string(w) + "-" + std::to_string(i),
                                 static_cast<std::uint64_t>(w));
            }
            return std::string{};
        }));
    }
    for (const auto &child : children) {
        EXPECT_EQ(child->wait().exit_status, 0);
    }
    EXPECT_EQ(ring.position(), static_cast<std::uint64_t>(writers * changes));
    EXPECT_FALSE(ring.changed_since("anna", "/never", 99, 0));
    for (int w = 1; w <= writers; ++w) {
        const std::string last = "/" + std::to_string(w) + "-" + std::to_string(changes - 1);
        EXPECT_TRUE(ring.changed_since("anna", last, 99, 0));
        EXPECT_FALSE(ring.changed_since("anna", last, static_cast<std::uint64_t>(w), 0));
    }
}

TEST(ChangeRing, AWriterThatIsKilledDoesNotSpoilItForOthers)
{
    change_ring_t ring{64};
    for (int round = 0; round < 20; ++round) {
        child_process_t writer{[&ring]() -> std::string {
            for (;;) {
                ring.note_change("anna", "/busy", 2);
            }
        }};
        const std::uint64_t before = ring.position();
        while (ring.position() < before + 100) {
            const timespec moment{0, 100'000};
            nanosleep(&moment, nullptr);
        }
        kill(writer.pid(), SIGKILL);
        EXPECT_EQ(writer.wait().signal, SIGKILL);
        const std::uint64_t now = ring.position();
        EXPECT_FALSE(ring.changed_since("anna", "/calm", 1, now));
        ring.note_change("anna", "/calm", 2);
        EXPECT_TRUE(ring.changed_since("anna", "/calm", 1, now));
    }
}
