#include "operation_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <vector>

namespace tirval::server {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(OperationThread, RunsTasksInTheOrderOfPosting)
{
    std::vector<int> order;
    operation_thread_t thread;
    for (int n = 0; n < 100; ++n) {
        thread.post([&order, n] { order.push_back(n); });
    }
    ASSERT_TRUE(thread.finish_within(seconds(30)));
    ASSERT_EQ(order.size(), 100U);
    for (int n = 0; n < 100; ++n) {
        EXPECT_EQ(order[static_cast<std::size_t>(n)], n);
    }
}

TEST(OperationThread, RunsOneTaskAtATimeWhoeverPosts)
{
    std::atomic<int> inside{0};
    int most = 0;
    int count = 0;
    operation_thread_t thread;
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 4; ++poster) {
        posters.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                thread.post([&] {
                    most = std::max(most, ++inside);
                    ++count;
                    --inside;
                });
            }
        });
    }
    for (std::thread &poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(thread.finish_within(seconds(30)));
    EXPECT_EQ(count, 200);
    EXPECT_EQ(most, 1);
}

TEST(OperationThread, ATaskIsReleasedBeforeTheNextOneRuns)
{
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = held;
    std::promise<bool> gone;
    operation_thread_t thread;
    thread.post([held = std::move(held)] {});
    thread.post([&] { gone.set_value(watched.expired()); });
    EXPECT_TRUE(gone.get_future().get());
}

TEST(OperationThread, BlocksSignals)
{
    std::promise<bool> blocked;
    operation_thread_t thread;
    thread.post([&] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        blocked.set_value(sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGALRM) == 1 &&
                          sigismember(&mask, SIGSEGV) == 0);
    });
    EXPECT_TRUE(blocked.get_future().get());
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST(OperationThread, TellsWhenATaskDoesNotEndInTime)
{
    std::promise<void> release;
    operation_thread_t thread;
    thread.post([waiting = release.get_future().share()] { waiting.wait(); });
    EXPECT_FALSE(thread.finish_within(milliseconds(20)));
    release.set_value();
    EXPECT_TRUE(thread.finish_within(seconds(30)));
}

} // namespace
} // namespace tirval::server
