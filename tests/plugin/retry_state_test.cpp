/* Pacing: the shared retry file, its lock, and how long a request waits. */
#include "system_seams.h"

#include "faked_user.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t default_delay = 66666;

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

tirval_onedrive_retry_shared_s read_record(const std::string &path)
{
    tirval_onedrive_retry_shared_s record = {};
    const std::string content = read_file(path);
    if (content.size() == sizeof(record)) {
        memcpy(&record, content.data(), sizeof(record));
    }
    return record;
}

std::string text_of(const tirval_onedrive_retry_shared_s &record)
{
    std::string text(sizeof(record), '\0');
    memcpy(text.data(), &record, sizeof(record));
    return text;
}

/* A folder for retry files, and the path of the one that the tests use. */
class RetryState : public ::testing::Test {
  protected:
    void SetUp() override
    {
        user = {};
        seams = {};
        tirval_i_onedrive_retry_path = folder.c_str();
    }
    void TearDown() override
    {
        seams = {};
        tirval_i_onedrive_retry_path = template_before;
    }

    void create(uint32_t rate = 15) { tirval_i_onedrive_retry_state_create("S", rate, &state); }
    void destroy() { tirval_i_onedrive_retry_state_destroy(&state); }
    void make_folder() const { std::filesystem::create_directory(folder); }

    const char *const template_before = tirval_i_onedrive_retry_path;
    const error_scope scope;
    const temporary_folder temporary;
    const std::string folder = temporary / "onedrive-r";
    const std::string file = folder + "/S";
    tirval_onedrive_retry_t state = {};
};

/* ---- Creating ---- */

TEST_F(RetryState, MakesItsFolderAndAZeroedFile)
{
    create();
    EXPECT_TRUE(state.is);
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(state.delay, default_delay);
    EXPECT_EQ(mode_of(folder), 0700U);
    EXPECT_EQ(mode_of(file), 0600U);
    EXPECT_EQ(read_file(file), std::string(24, '\0'));
    EXPECT_TRUE(lock_is_free(file));
    destroy();
}

TEST_F(RetryState, LeavesAnExistingFolderAsItIs)
{
    make_folder();
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    create();
    destroy();
    EXPECT_EQ(mode_of(folder), 0755U);
}

TEST_F(RetryState, LiesInTheRealUsersHomeByDefault)
{
    user.home = temporary.path();
    std::filesystem::create_directory(temporary / ".tirval");
    tirval_i_onedrive_retry_path = template_before;
    create();
    destroy();
    EXPECT_EQ(size_of(temporary / ".tirval/onedrive-r/S"), 24);
}

TEST_F(RetryState, AdoptsTheFileOfEarlierSessions)
{
    make_folder();
    write_file(file, text_of({.not_until = 7, .last = {.tv_sec = 8, .tv_nsec = 9000}}));
    create();
    ASSERT_GE(state.fd, 0);
    EXPECT_EQ(state.shared->not_until, 7);
    EXPECT_EQ(state.shared->last.tv_sec, 8);
    EXPECT_EQ(state.shared->last.tv_nsec, 9000);
    EXPECT_EQ(seams.truncated, 0);
    destroy();
}

TEST_F(RetryState, InitialisesAFileOfAnotherSizeAndClearsOnlyTheLastRequest)
{
    for (const size_t size : {0, 1, 23, 25, 100}) {
        make_folder();
        write_file(file, std::string(size, 'x'));
        create();
        ASSERT_GE(state.fd, 0);
        destroy();
        const std::string kept(std::min<size_t>(size, 8), 'x');
        EXPECT_EQ(read_file(file), kept + std::string(24 - kept.size(), '\0')) << size;
        std::filesystem::remove_all(folder);
    }
}

TEST_F(RetryState, MapsTheWholeFileToInitialiseAndToUseIt)
{
    create();
    EXPECT_THAT(seams.mapped, ElementsAre(24, 24));
    EXPECT_THAT(seams.calls, ElementsAre("try lock", "unlock"));
    seams.unmapped.clear();
    destroy();
    EXPECT_THAT(seams.unmapped, ElementsAre(24));
}

TEST_F(RetryState, SharesItsFileBetweenSessions)
{
    tirval_onedrive_retry_t other = {};
    create();
    tirval_i_onedrive_retry_state_create("S", 15, &other);
    EXPECT_NE(state.fd, other.fd);
    state.shared->last.tv_sec = 42;
    EXPECT_EQ(other.shared->last.tv_sec, 42);
    tirval_i_onedrive_retry_state_destroy(&other);
    destroy();
}

TEST_F(RetryState, DividesASecondByTheRate)
{
    for (const auto &[rate, delay] : std::vector<std::pair<uint32_t, uint32_t>>{
             {1, 1000000}, {3, 333333}, {15, 66666}, {1000000, 1}, {1000001, 0}}) {
        create(rate);
        EXPECT_EQ(state.delay, delay) << rate;
        destroy();
    }
}

TEST_F(RetryState, ANegativeRateMeansNoDelay)
{
    create(static_cast<uint32_t>(-3));
    EXPECT_EQ(state.delay, 0U);
    destroy();
}

/* ---- Falling back to private memory ---- */

TEST_F(RetryState, UsesPrivateMemoryWhenItsFolderCannotBeMade)
{
    const std::string below_nothing = temporary / "nothing/onedrive-r";
    tirval_i_onedrive_retry_path = below_nothing.c_str();
    create();
    EXPECT_TRUE(state.is);
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, nullptr);
    EXPECT_EQ(text_of(*state.shared), std::string(24, '\0'));
    EXPECT_EQ(state.delay, default_delay);
    destroy();
    EXPECT_EQ(state.shared, nullptr);
}

TEST_F(RetryState, UsesPrivateMemoryWhenTheUserCannotBeLookedUp)
{
    user.failure = EIO;
    create();
    EXPECT_EQ(state.fd, -1);
    EXPECT_NE(state.shared, nullptr);
    destroy();
}

TEST_F(RetryState, OpensItsFileTenTimesAtMost)
{
    make_folder();
    seams.open = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
    create();
    EXPECT_GE(state.fd, 0) << "the tenth attempt worked";
    destroy();
    seams.open = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
    create();
    EXPECT_EQ(state.fd, -1);
    EXPECT_TRUE(seams.open.used_up());
    destroy();
}

TEST_F(RetryState, DoesNotUseAFileOfAnotherUser)
{
    ASSERT_EQ(geteuid(), 0U) << "this test gives a file away";
    make_folder();
    const std::string content = text_of({.not_until = 0, .last = {.tv_sec = 8, .tv_nsec = 9000}});
    write_file(file, content);
    ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
    create();
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, nullptr);
    state.shared->last.tv_sec = 1;
    EXPECT_EQ(read_file(file), content);
    destroy();
}

TEST_F(RetryState, UsesPrivateMemoryWhenTheFilesStatusCannotBeRead)
{
    make_folder();
    seams.fstat = {EIO};
    create();
    EXPECT_EQ(state.fd, -1);
    destroy();
}

TEST_F(RetryState, UsesPrivateMemoryWhenTheFileCannotBeMapped)
{
    seams.mmap = {0, ENODEV};
    create();
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, MAP_FAILED);
    EXPECT_EQ(state.shared->last.tv_sec, 0);
    destroy();
    std::filesystem::remove_all(folder);
    seams.mmap = {ENODEV, ENODEV};
    create();
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, MAP_FAILED);
    destroy();
}

/* ---- Initialising together with other processes ---- */

TEST_F(RetryState, MapsAFileOfTheRightSizeAlsoWhileAnotherProcessHoldsItsLock)
{
    make_folder();
    write_file(file, text_of({.not_until = 0, .last = {.tv_sec = 8, .tv_nsec = 0}}));
    const lock_holder other(file);
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(state.shared->last.tv_sec, 8);
    EXPECT_THAT(seams.sleeps, IsEmpty());
    destroy();
}

TEST_F(RetryState, WaitsInStepsOfASecondWhileAnotherProcessInitialisesTheFile)
{
    make_folder();
    const lock_holder other(file);
    seams.while_sleeping = [this] {
        if (seams.sleeps.size() == 3) {
            ASSERT_EQ(truncate(file.c_str(), 24), 0);
        }
    };
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_THAT(seams.sleeps, ElementsAre(1, 1, 1));
    EXPECT_EQ(seams.truncated, 0) << "the other process sets the size";
    destroy();
}

TEST_F(RetryState, TriesAgainAtOnceWhenTheStatusOfALockedFileCannotBeRead)
{
    make_folder();
    const lock_holder other(file);
    ASSERT_EQ(truncate(file.c_str(), 24), 0);
    seams.fstat = {0, EIO, EIO};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_THAT(seams.sleeps, IsEmpty());
    EXPECT_THAT(seams.calls, ElementsAre("try lock", "try lock", "try lock"));
    destroy();
}

TEST_F(RetryState, TriesAgainWhenTheFileCannotBeExtended)
{
    seams.ftruncate = {ENOSPC, EIO, EPERM};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(size_of(file), 24);
    EXPECT_EQ(seams.truncated, 5) << "three failures, and twice for real";
    destroy();
}

TEST_F(RetryState, TriesTheSecondExtensionAgainOnlyWhenItWasInterrupted)
{
    seams.ftruncate = {0, EINTR, EINTR};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(seams.truncated, 4);
    destroy();
}

TEST_F(RetryState, AnInterruptedFirstExtensionLeavesTheClosedDescriptorsNumber)
{
    EXPECT_EQ(child_process([this] {
                  make_folder();
                  const int next_fd = dup(0);
                  (void)close(next_fd);
                  seams.ftruncate = {EINTR};
                  create();
                  const bool closed = fcntl(state.fd, F_GETFD) == -1 && errno == EBADF;
                  return state.is && state.fd == next_fd && closed && size_of(file) == 0 &&
                                 text_of(*state.shared) == std::string(24, '\0')
                             ? 0
                             : 1;
              }).wait(),
              0);
}

TEST_F(RetryState, AFailedSecondExtensionLeavesTheMappingThatIsGone)
{
    EXPECT_EQ(child_process([this] {
                  seams.ftruncate = {0, EIO};
                  create();
                  const bool gone = msync(state.shared, 24, MS_ASYNC) == -1 && errno == ENOMEM;
                  return state.is && state.fd == -1 && state.shared != nullptr && gone ? 0 : 1;
              }).wait(),
              0);
}

TEST(StateFileDeathTest, APathWithoutASlashEndsTheProcess)
{
    char path[] = "file";
    EXPECT_DEATH((void)tirval_i_onedrive_state_file_open(path), "assertion failed: slash != NULL ");
}

/* ---- The lock ---- */

TEST_F(RetryState, ItsLockKeepsOtherProcessesOut)
{
    create();
    ASSERT_EQ(tirval_i_onedrive_retry_state_lock(&state, false), TIRVAL_SUCCESS);
    EXPECT_FALSE(lock_is_free(file));
    ASSERT_EQ(tirval_i_onedrive_retry_state_unlock(&state), TIRVAL_SUCCESS);
    EXPECT_TRUE(lock_is_free(file));
    destroy();
}

TEST_F(RetryState, ALockHeldElsewhereFailsAtOnceWhenNotWaitedFor)
{
    create();
    const lock_holder other(file);
    const tirval_result_t result = tirval_i_onedrive_retry_state_lock(&state, false);
    EXPECT_NE(result, TIRVAL_SUCCESS);
    EXPECT_EQ(message_of(result), "System error in fnctl: Resource temporarily unavailable");
    destroy();
}

TEST_F(RetryState, ALockHeldElsewhereIsWaitedForWhenAsked)
{
    create();
    const gate waiting;
    const gate got;
    std::optional<child_process> waiter;
    {
        const lock_holder other(file);
        waiter.emplace([&] {
            waiting.open();
            if (tirval_i_onedrive_retry_state_lock(&state, true) != TIRVAL_SUCCESS) {
                return 1;
            }
            got.open();
            return 0;
        });
        waiting.pass();
        EXPECT_FALSE(got.passable_within(50)) << "the lock is held elsewhere";
    }
    EXPECT_EQ(waiter->wait(), 0);
    EXPECT_TRUE(got.passable_within(0));
    destroy();
}

TEST_F(RetryState, AnInterruptedLockIsTriedAgain)
{
    create();
    seams.calls.clear();
    seams.fcntl = {EINTR, EINTR};
    EXPECT_EQ(tirval_i_onedrive_retry_state_lock(&state, true), TIRVAL_SUCCESS);
    seams.fcntl = {EINTR};
    EXPECT_EQ(tirval_i_onedrive_retry_state_unlock(&state), TIRVAL_SUCCESS);
    EXPECT_THAT(seams.calls,
                ElementsAre("wait for lock", "wait for lock", "wait for lock", "unlock", "unlock"));
    destroy();
}

TEST_F(RetryState, ALockThatFailsIsASystemErrorInFnctl)
{
    create();
    seams.fcntl = {ENOLCK, EIO};
    EXPECT_EQ(message_of(tirval_i_onedrive_retry_state_lock(&state, true)),
              "System error in fnctl: No locks available");
    EXPECT_EQ(message_of(tirval_i_onedrive_retry_state_unlock(&state)),
              "System error in fnctl: Input/output error");
    destroy();
    EXPECT_EQ(message_of(tirval_i_onedrive_retry_state_lock(&state, true)),
              "System error in fnctl: Bad file descriptor");
}

TEST_F(RetryState, AFailedLockIsWrittenAsTheErrorExitLineOfTheLockFunction)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
    state.fd = -1;
    (void)tirval_i_onedrive_retry_state_lock(&state, true);
    (void)tirval_i_onedrive_retry_state_unlock(&state);
    EXPECT_THAT(channel.lines(),
                ElementsAre(HasSubstr("ERROR tirval_i_onedrive_retry_state_lock: exit: result=0x"),
                            HasSubstr("ERROR tirval_i_onedrive_retry_state_unlock: exit: ")));
    EXPECT_THAT(channel.text(), HasSubstr("message=System error in fnctl: Bad file descriptor\n"));
}

/* ---- Destroying ---- */

TEST_F(RetryState, ClosesItsFileWhenDestroyed)
{
    create();
    const int fd = state.fd;
    destroy();
    EXPECT_EQ(state.fd, -1);
    EXPECT_EQ(state.shared, nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(size_of(file), 24) << "the file stays";
}

/* ---- Waiting ---- */

/* Requests at set times of a set clock; sleeps are noted, not slept. */
class RetryDelay : public RetryState {
  protected:
    void SetUp() override
    {
        RetryState::SetUp();
        seams.real_naps = false;
    }

    /* The microseconds that a request at `now` waits for after one at `last`; -1: it does not. */
    long wait_after(tirval_abstime_t last, timeval now)
    {
        state.shared->last = last;
        seams.clock = now;
        seams.naps.clear();
        tirval_i_onedrive_retry_delay(0, &state);
        EXPECT_LE(seams.naps.size(), 1U);
        return seams.naps.empty() ? -1 : seams.naps[0].tv_nsec / 1000;
    }
};

TEST_F(RetryDelay, TheFirstRequestOfAllDoesNotWait)
{
    create();
    EXPECT_EQ(wait_after({}, {1000, 0}), -1);
    destroy();
}

TEST_F(RetryDelay, ARequestAtTheTimeOfTheLastWaitsForTheWholeDelay)
{
    create();
    EXPECT_EQ(wait_after({1000, 500000000}, {1000, 500000}), default_delay);
    destroy();
}

TEST_F(RetryDelay, ARequestSoonAfterTheLastWaitsForTheRestOfTheDelay)
{
    create();
    EXPECT_EQ(wait_after({1000, 500000000}, {1000, 510000}), default_delay - 10000);
    EXPECT_EQ(wait_after({1000, 999990000}, {1001, 10}), default_delay - 20) << "with a borrow";
    destroy();
}

TEST_F(RetryDelay, ALastRequestInTheFutureCountsLikeOneInThePast)
{
    create();
    EXPECT_EQ(wait_after({1000, 510000000}, {1000, 500000}), default_delay - 10000);
    EXPECT_EQ(wait_after({1001, 10000}, {1000, 999990}), default_delay - 20);
    EXPECT_EQ(wait_after({1002, 0}, {1000, 999999}), -1);
    destroy();
}

TEST_F(RetryDelay, ARequestAfterTheDelayDoesNotWait)
{
    create();
    EXPECT_EQ(wait_after({1000, 0}, {1000, default_delay - 1}), 1);
    EXPECT_EQ(wait_after({1000, 0}, {1000, default_delay}), -1);
    EXPECT_EQ(wait_after({1000, 0}, {1000, default_delay + 1}), -1);
    destroy();
}

TEST_F(RetryDelay, AGapOfASecondOrMoreNeverWaits)
{
    create(1);
    EXPECT_EQ(wait_after({1000, 0}, {1000, 999999}), 1);
    EXPECT_EQ(wait_after({1000, 0}, {1001, 0}), -1);
    EXPECT_EQ(wait_after({1000, 0}, {1001, 1}), -1);
    destroy();
}

TEST_F(RetryDelay, ADelayOfZeroNeverWaits)
{
    create(static_cast<uint32_t>(-1));
    EXPECT_EQ(wait_after({1000, 0}, {1000, 0}), -1);
    destroy();
}

TEST_F(RetryDelay, ARateOfOneAsksForAnIntervalThatTheSystemRejects)
{
    create(1);
    EXPECT_EQ(state.delay, 1000000U);
    seams.real_naps = true;
    EXPECT_EQ(wait_after({1000, 0}, {1000, 0}), 1000000);
    EXPECT_EQ(seams.naps[0].tv_sec, 0);
    EXPECT_EQ(seams.naps[0].tv_nsec, 1000000000);
    EXPECT_EQ(seams.last_nap, -1);
    destroy();
}

TEST_F(RetryDelay, NotesWhenTheRequestWasReleasedAndNothingElse)
{
    create();
    state.shared->not_until = 7;
    seams.while_napping = [] { seams.clock = timeval{2000, 123456}; };
    EXPECT_EQ(wait_after({1000, 0}, {1000, 0}), default_delay);
    const tirval_onedrive_retry_shared_s record = read_record(file);
    EXPECT_EQ(record.last.tv_sec, 2000);
    EXPECT_EQ(record.last.tv_nsec, 123456000);
    EXPECT_EQ(record.not_until, 7);
    destroy();
}

TEST_F(RetryDelay, HoldsTheLockWhileItWaitsAndReleasesItThen)
{
    create();
    bool free_while_waiting = true;
    seams.while_napping = [&] { free_while_waiting = lock_is_free(file); };
    EXPECT_EQ(wait_after({1000, 0}, {1000, 0}), default_delay);
    EXPECT_FALSE(free_while_waiting);
    EXPECT_TRUE(lock_is_free(file));
    destroy();
}

TEST_F(RetryDelay, FollowsARetryAfterWithoutHoldingTheLock)
{
    create();
    bool free_while_sleeping = false;
    seams.while_sleeping = [&] { free_while_sleeping = lock_is_free(file); };
    seams.calls.clear();
    state.shared->last = {1000, 0};
    seams.clock = timeval{1000, 0};
    tirval_i_onedrive_retry_delay(3, &state);
    EXPECT_TRUE(free_while_sleeping);
    EXPECT_THAT(seams.calls, ElementsAre("sleep", "wait for lock", "nap", "unlock"));
    destroy();
}

TEST_F(RetryDelay, SleepsForAtMostTheLongestDelay)
{
    create();
    for (const uint64_t retry_after : {UINT64_C(3), UINT64_C(25), UINT64_C(120), UINT64_MAX}) {
        tirval_i_onedrive_retry_delay(retry_after, &state);
    }
    EXPECT_THAT(seams.sleeps, ElementsAre(3, 25, 25, 25));
    const int32_t before = tirval_i_onedrive_max_delay;
    tirval_i_onedrive_max_delay = 2;
    tirval_i_onedrive_retry_delay(120, &state);
    tirval_i_onedrive_max_delay = before;
    EXPECT_EQ(seams.sleeps.back(), 2U);
    destroy();
}

TEST_F(RetryDelay, InPrivateMemoryEveryRequestWaitsForTheWholeDelay)
{
    user.failure = EIO;
    create();
    ASSERT_EQ(state.fd, -1);
    for (int i = 0; i < 3; i++) {
        tirval_i_onedrive_retry_delay(0, &state);
    }
    ASSERT_EQ(seams.naps.size(), 3U);
    for (const timespec &nap : seams.naps) {
        EXPECT_EQ(nap.tv_nsec, default_delay * 1000L);
    }
    EXPECT_EQ(state.shared->last.tv_sec, 0);
    destroy();
}

TEST_F(RetryDelay, WritesWhatItSleeps)
{
    create();
    state.shared->last = {1000, 0};
    seams.clock = timeval{1000, 6666};
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    tirval_i_onedrive_retry_delay(120, &state);
    EXPECT_THAT(channel.lines(),
                ElementsAre("TRACE tirval_i_onedrive_retry_delay: enter",
                            "DEBUG tirval_i_onedrive_retry_delay: retry_after=120 sleep=25",
                            "TRACE tirval_i_onedrive_retry_state_lock: enter",
                            "TRACE tirval_i_onedrive_retry_state_lock: exit: result=TIRVAL_SUCCESS",
                            "DEBUG tirval_i_onedrive_retry_delay: sleep=60000",
                            "TRACE tirval_i_onedrive_retry_state_unlock: enter",
                            "TRACE tirval_i_onedrive_retry_state_unlock: exit: "
                            "result=TIRVAL_SUCCESS",
                            "TRACE tirval_i_onedrive_retry_delay: exit"));
    destroy();
}

TEST_F(RetryDelay, WritesNoExitLineAfterAFailedLock)
{
    state.fd = -1;
    state.delay = 5;
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    tirval_i_onedrive_retry_delay(0, &state);
    EXPECT_THAT(channel.lines(),
                ElementsAre("TRACE tirval_i_onedrive_retry_delay: enter",
                            "TRACE tirval_i_onedrive_retry_state_lock: enter",
                            HasSubstr("ERROR tirval_i_onedrive_retry_state_lock: exit: "),
                            "DEBUG tirval_i_onedrive_retry_delay: sleep=5 lockfailed"));
}

/* ---- Several processes ---- */

/* Requests of several processes, each with its own attachment; the times, in microseconds, at which
 * they were released. */
std::vector<int64_t> released(int processes, int requests)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    std::deque<child_process> children;
    for (int i = 0; i < processes; i++) {
        children.emplace_back([&ends, requests] {
            tirval_onedrive_retry_t state = {};
            tirval_i_onedrive_retry_state_create("S", 15, &state);
            int failure = state.fd == -1 ? 1 : 0;
            for (int n = 0; n < requests; n++) {
                tirval_i_onedrive_retry_delay(0, &state);
                const int64_t time =
                    seams.last_reading.tv_sec * INT64_C(1000000) + seams.last_reading.tv_usec;
                failure |= write(ends[1], &time, sizeof(time)) == sizeof(time) ? 0 : 2;
            }
            tirval_i_onedrive_retry_state_destroy(&state);
            return failure;
        });
    }
    for (child_process &child : children) {
        EXPECT_EQ(child.wait(), 0);
    }
    (void)close(ends[1]);
    std::vector<int64_t> times;
    for (int64_t time = 0; read(ends[0], &time, sizeof(time)) == sizeof(time);) {
        times.push_back(time);
    }
    (void)close(ends[0]);
    std::sort(times.begin(), times.end());
    return times;
}

TEST_F(RetryState, SpacesTheRequestsOfTwoProcesses)
{
    const std::vector<int64_t> times = released(2, 4);
    ASSERT_EQ(times.size(), 8U);
    for (size_t i = 1; i < times.size(); i++) {
        /* The wall clock may be slewed a little while a process sleeps by another clock. */
        EXPECT_GE(times[i] - times[i - 1], default_delay - 500) << i;
    }
}

TEST_F(RetryState, ManyProcessesInitialiseOneFileTogether)
{
    const std::vector<int64_t> times = released(6, 1);
    EXPECT_EQ(times.size(), 6U);
    EXPECT_EQ(size_of(file), 24);
}

} // namespace
