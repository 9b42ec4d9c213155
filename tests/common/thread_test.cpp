/* Mutexes, condition variables and times. */
#include "tirval_common.h"

#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

thread_local int stray_wake_ups = 0;

} // namespace

/* The system's wait, which may return without a signal; here it does so when a test says so. */
extern "C" __attribute__((visibility("default"))) int pthread_cond_wait(pthread_cond_t *cond,
                                                                        pthread_mutex_t *mutex)
{
    static const auto system_wait = reinterpret_cast<int (*)(pthread_cond_t *, pthread_mutex_t *)>(
        dlsym(RTLD_NEXT, "pthread_cond_wait"));
    if (stray_wake_ups > 0) {
        --stray_wake_ups;
        return 0;
    }
    return system_wait(cond, mutex);
}

namespace {

/* A mutex and a condition variable, and how many threads wait, as the lock's holder sees it. */
class monitor {
  public:
    explicit monitor(const pthread_condattr_t *attributes = nullptr)
    {
        EXPECT_EQ(tirval_mutex_init(&mutex, nullptr), 0);
        EXPECT_EQ(tirval_cond_init(&cond, attributes), 0);
    }
    ~monitor()
    {
        EXPECT_EQ(tirval_cond_destroy(&cond), 0);
        EXPECT_EQ(tirval_mutex_destroy(&mutex), 0);
    }
    monitor(const monitor &) = delete;
    monitor &operator=(const monitor &) = delete;

    void lock() { EXPECT_EQ(tirval_mutex_lock(&mutex), 0); }
    void unlock() { EXPECT_EQ(tirval_mutex_unlock(&mutex), 0); }

    /* Starts a thread that waits, and returns once it does. */
    std::jthread start_waiter(int number)
    {
        const int before = locked_count(waiting);
        std::jthread thread([this, number] {
            lock();
            ++waiting;
            EXPECT_EQ(tirval_cond_wait(&cond, &mutex), 0);
            woken.push_back(number);
            unlock();
        });
        while (locked_count(waiting) == before) {
            std::this_thread::yield();
        }
        return thread;
    }

    void signal()
    {
        lock();
        EXPECT_EQ(tirval_cond_signal(&cond), 0);
        unlock();
    }

    void wait_for_woken(std::size_t count)
    {
        for (;;) {
            lock();
            const bool reached = woken.size() >= count;
            unlock();
            if (reached) {
                return;
            }
            std::this_thread::yield();
        }
    }

    tirval_mutex_t mutex;
    tirval_cond_t cond;
    int waiting = 0;
    std::vector<int> woken;

  private:
    int locked_count(const int &count)
    {
        lock();
        const int seen = count;
        unlock();
        return seen;
    }
};

constexpr tirval_abstime_t long_ago = {1, 0};

TEST(Cond, SignalsWakeOneWaiterEachInTheOrderOfWaiting)
{
    monitor shared;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.push_back(shared.start_waiter(number));
    }
    for (std::size_t signals = 1; signals <= threads.size(); ++signals) {
        shared.signal();
        shared.wait_for_woken(signals);
        shared.lock();
        EXPECT_EQ(shared.woken.size(), signals);
        shared.unlock();
    }
    threads.clear();
    EXPECT_EQ(shared.woken, (std::vector{0, 1, 2, 3}));
}

TEST(Cond, ALaterWaiterDoesNotTakeAnEarlierOnesSignal)
{
    monitor shared;
    const std::jthread earlier = shared.start_waiter(1);
    shared.lock();
    EXPECT_EQ(tirval_cond_signal(&shared.cond), 0);
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &long_ago), ETIMEDOUT);
    shared.unlock();
    shared.wait_for_woken(1);
}

TEST(Cond, BroadcastWakesThoseWhoWaitAndNobodyLater)
{
    monitor shared;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.push_back(shared.start_waiter(number));
    }
    shared.lock();
    EXPECT_EQ(tirval_cond_broadcast(&shared.cond), 0);
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &long_ago), ETIMEDOUT);
    shared.unlock();
    threads.clear();
    EXPECT_EQ(shared.woken.size(), 3U);
}

TEST(Cond, ASignalThatNobodyWaitsForIsNotKept)
{
    monitor shared;
    shared.lock();
    EXPECT_EQ(tirval_cond_signal(&shared.cond), 0);
    EXPECT_EQ(tirval_cond_broadcast(&shared.cond), 0);
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &long_ago), ETIMEDOUT);
    shared.unlock();
}

TEST(Cond, AWaiterThatGaveUpTakesNoSignal)
{
    monitor shared;
    const std::jthread first = shared.start_waiter(1);
    shared.lock();
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &long_ago), ETIMEDOUT);
    shared.unlock();
    const std::jthread second = shared.start_waiter(2);
    shared.signal();
    shared.signal();
    shared.wait_for_woken(2);
}

TEST(Cond, GivingUpInTheMiddleOfTheQueueLeavesTheOthersInIt)
{
    monitor shared;
    std::vector<std::jthread> threads;
    threads.push_back(shared.start_waiter(1));
    bool gave_up = false;
    std::jthread middle([&] {
        shared.lock();
        tirval_abstime_t deadline;
        tirval_abstime_get_current(&deadline);
        ++deadline.tv_sec;
        ++shared.waiting;
        EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &deadline), ETIMEDOUT);
        gave_up = true;
        shared.unlock();
    });
    for (bool begun = false; !begun; std::this_thread::yield()) {
        shared.lock();
        begun = shared.waiting == 2;
        shared.unlock();
    }
    threads.push_back(shared.start_waiter(2));
    middle.join();
    EXPECT_TRUE(gave_up);
    shared.signal();
    shared.signal();
    threads.clear();
    EXPECT_EQ(shared.woken.size(), 2U);
}

tirval_abstime_t from_now(long nanoseconds)
{
    tirval_abstime_t time;
    tirval_abstime_get_current(&time);
    time.tv_nsec += nanoseconds;
    time.tv_sec += time.tv_nsec / 1'000'000'000;
    time.tv_nsec %= 1'000'000'000;
    return time;
}

TEST(Cond, ASignalThatComesAfterTheDeadlineButBeforeTheWaiterIsBackCounts)
{
    monitor shared;
    bool waits = false;
    const tirval_abstime_t deadline = from_now(20'000'000);
    const std::jthread waiter([&] {
        shared.lock();
        waits = true;
        EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &deadline), 0);
        shared.unlock();
    });
    for (bool signalled = false; !signalled; std::this_thread::yield()) {
        shared.lock();
        if (waits) { /* the waiter cannot come back while the mutex is held */
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            tirval_cond_signal(&shared.cond);
            signalled = true;
        }
        shared.unlock();
    }
}

TEST(Cond, AStrayWakeUpDoesNotEndAWait)
{
    monitor shared;
    bool waits = false;
    bool signalled = false;
    const std::jthread waiter([&] {
        shared.lock();
        waits = true;
        stray_wake_ups = 3;
        EXPECT_EQ(tirval_cond_wait(&shared.cond, &shared.mutex), 0);
        EXPECT_EQ(stray_wake_ups, 0);
        EXPECT_TRUE(signalled);
        shared.unlock();
    });
    for (bool sent = false; !sent; std::this_thread::yield()) {
        shared.lock();
        if (waits) {
            signalled = true;
            sent = tirval_cond_signal(&shared.cond) == 0;
        }
        shared.unlock();
    }
}

/* The consumer's deadlines are so near that many cross the producer's signals. */
TEST(Cond, SignalsThatCrossDeadlinesAreNeitherLostNorCountedTwice)
{
    monitor shared;
    bool waits = false;
    bool done = false;
    int signalled = 0;
    int received = 0;
    std::jthread consumer([&] {
        shared.lock();
        while (!done) {
            const tirval_abstime_t deadline = from_now(20'000);
            waits = true;
            received += tirval_cond_timedwait(&shared.cond, &shared.mutex, &deadline) == 0;
            waits = false;
        }
        shared.unlock();
    });
    while (signalled < 2000) {
        shared.lock();
        if (waits) {
            tirval_cond_signal(&shared.cond);
            waits = false;
            ++signalled;
        }
        shared.unlock();
    }
    shared.lock();
    done = true;
    shared.unlock();
    consumer.join();
    EXPECT_EQ(received, signalled);
}

/* What an upload's end-of-data probe does: the monitor is gone as soon as the wait returns. */
TEST(Cond, MayBeDestroyedByTheWaiterThatItWoke)
{
    for (int i = 0; i < 300; ++i) {
        std::jthread signaller;
        {
            monitor shared;
            shared.lock();
            signaller = std::jthread([&shared] {
                shared.lock();
                tirval_cond_signal(&shared.cond);
                shared.unlock();
            });
            EXPECT_EQ(tirval_cond_wait(&shared.cond, &shared.mutex), 0);
            shared.unlock();
        }
    }
}

TEST(Cond, CannotBeDestroyedWhileAThreadWaits)
{
    monitor shared;
    const std::jthread waiter = shared.start_waiter(1);
    shared.lock();
    EXPECT_EQ(tirval_cond_destroy(&shared.cond), EBUSY);
    shared.unlock();
    shared.signal();
    shared.wait_for_woken(1);
}

TEST(Cond, CountsDeadlinesByTheClockOfItsAttributes)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    monitor shared(&attributes);
    pthread_condattr_destroy(&attributes);
    tirval_abstime_t deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 1;
    shared.lock();
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &deadline), ETIMEDOUT);
    shared.unlock();
    tirval_abstime_t now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_GE(tirval_abstime_cmp(&now, &deadline), 0);
}

TEST(Cond, RefusesWhatItCannotDo)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    tirval_cond_t between_processes;
    EXPECT_EQ(tirval_cond_init(&between_processes, &attributes), ENOTSUP);
    pthread_condattr_destroy(&attributes);

    monitor shared;
    const tirval_abstime_t broken = {1, -1};
    shared.lock();
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, &broken), EINVAL);
    EXPECT_EQ(tirval_cond_timedwait(&shared.cond, &shared.mutex, nullptr), EINVAL);
    shared.unlock();
}

TEST(Mutex, ReportsWhatTheSystemReports)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    tirval_mutex_t mutex;
    ASSERT_EQ(tirval_mutex_init(&mutex, &attributes), 0);
    pthread_mutexattr_destroy(&attributes);
    EXPECT_EQ(tirval_mutex_lock(&mutex), 0);
    EXPECT_EQ(tirval_mutex_lock(&mutex), EDEADLK);
    EXPECT_EQ(tirval_mutex_unlock(&mutex), 0);
    EXPECT_EQ(tirval_mutex_destroy(&mutex), 0);
}

TEST(ThreadSelf, DiffersBetweenThreadsAndIsStableInOne)
{
    const unsigned long here = tirval_thread_self();
    unsigned long there = here;
    std::thread([&there] { there = tirval_thread_self(); }).join();
    EXPECT_EQ(tirval_thread_self(), here);
    EXPECT_NE(there, here);
}

TEST(Abstime, ComparesSecondsThenNanoseconds)
{
    const tirval_abstime_t early = {5, 999'999'999};
    const tirval_abstime_t late = {6, 0};
    const tirval_abstime_t later = {6, 1};
    EXPECT_EQ(tirval_abstime_cmp(&early, &late), -1);
    EXPECT_EQ(tirval_abstime_cmp(&late, &early), 1);
    EXPECT_EQ(tirval_abstime_cmp(&late, &later), -1);
    EXPECT_EQ(tirval_abstime_cmp(&later, &late), 1);
    EXPECT_EQ(tirval_abstime_cmp(&late, &late), 0);
}

TEST(Abstime, IsTheWallClock)
{
    const std::time_t before = std::time(nullptr);
    tirval_abstime_t now;
    tirval_abstime_get_current(&now);
    EXPECT_GE(now.tv_sec, before);
    EXPECT_LE(now.tv_sec, std::time(nullptr) + 1);
    EXPECT_GE(now.tv_nsec, 0);
    EXPECT_LT(now.tv_nsec, 1'000'000'000);
}

} // namespace
