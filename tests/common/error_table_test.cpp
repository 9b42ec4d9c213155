/* The error table and its scopes. */
#include "support.h"

#include <gtest/gtest.h>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

constexpr std::size_t table_capacity = std::size_t{1} << 20;

/* A current scope for the life of the value. */
class in_scope {
  public:
    explicit in_scope(tirval_error_scope_t *scope) : before_(tirval_error_scope_enter(scope)) {}
    ~in_scope() { tirval_error_scope_enter(before_); }
    in_scope(const in_scope &) = delete;
    in_scope &operator=(const in_scope &) = delete;
    tirval_error_scope_t *before() const { return before_; }

  private:
    tirval_error_scope_t *before_;
};

void release(tirval_result_t result)
{
    tirval_object_free(tirval_error_get(result));
}

TEST(ErrorTable, PeekBorrowsAndGetTakesOut)
{
    tirval_object_t *error = make_counted(1);
    const tirval_result_t result = tirval_error_put(error);
    EXPECT_EQ(tirval_error_peek(result), error);
    EXPECT_EQ(tirval_error_peek(result), error);
    EXPECT_EQ(tirval_error_count(), 1U);
    const object_ptr taken(tirval_error_get(result));
    EXPECT_EQ(taken.get(), error);
    EXPECT_EQ(tirval_error_peek(result), nullptr);
    EXPECT_EQ(tirval_error_get(result), nullptr);
    EXPECT_EQ(tirval_error_count(), 0U);
}

TEST(ErrorTable, PuttingNothingIsAFailureThatNamesNothing)
{
    EXPECT_EQ(tirval_error_put(nullptr), TIRVAL_FAILURE);
    EXPECT_EQ(tirval_error_peek(TIRVAL_FAILURE), nullptr);
    EXPECT_EQ(tirval_error_get(TIRVAL_FAILURE), nullptr);
}

TEST(ErrorTable, ValuesThatNameNothingAreTolerated)
{
    const tirval_result_t result = tirval_error_put(make_counted(1));
    for (const tirval_result_t value :
         {TIRVAL_SUCCESS, tirval_result_t{1}, result + 1, result ^ 0x80000000U, 0x7fffffffU}) {
        EXPECT_EQ(tirval_error_peek(value), nullptr) << value;
        EXPECT_EQ(tirval_error_get(value), nullptr) << value;
    }
    release(result);
}

TEST(ErrorTable, AReleasedHandleDoesNotComeBackWithinAMillionPuts)
{
    const tirval_result_t stale = tirval_error_put(make_counted(0));
    release(stale);
    for (int i = 0; i < 1'000'000; ++i) {
        const tirval_result_t result =
            tirval_error_put(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
        ASSERT_NE(result, TIRVAL_SUCCESS);
        ASSERT_NE(result, TIRVAL_FAILURE);
        ASSERT_NE(result, stale);
        ASSERT_EQ(tirval_error_peek(stale), nullptr);
        release(result);
    }
    EXPECT_EQ(tirval_error_count(), 0U);
}

TEST(ErrorTable, HoldsAMillionObjectsAndRefusesMoreUntilSomeLeave)
{
    std::vector<tirval_result_t> results(table_capacity);
    for (auto &result : results) {
        result = tirval_error_put(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
        ASSERT_NE(result, TIRVAL_FAILURE);
        ASSERT_NE(result, TIRVAL_SUCCESS);
    }
    EXPECT_EQ(std::unordered_set<tirval_result_t>(results.begin(), results.end()).size(),
              table_capacity);
    EXPECT_EQ(tirval_error_put(make_counted(1)), TIRVAL_FAILURE);
    EXPECT_EQ(counted_live, 0);
    EXPECT_EQ(tirval_error_count(), table_capacity);

    release(results.back());
    const tirval_result_t last = results.back();
    results.back() = tirval_error_put(make_counted(2));
    EXPECT_NE(results.back(), last);
    EXPECT_EQ(take(tirval_error_print(tirval_error_peek(results.back()))), "counted 2");
    for (const auto result : results) {
        release(result);
    }
    EXPECT_EQ(tirval_error_count(), 0U);
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorTable, ServesManyThreadsAtOnce)
{
    const auto work = [](int seed) {
        std::vector<tirval_result_t> mine;
        for (int i = 0; i < 3000; ++i) {
            tirval_object_t *error = make_counted(seed);
            mine.push_back(tirval_error_put(error));
            ASSERT_EQ(tirval_error_peek(mine.back()), error);
            if (i % 3 == 0) {
                const object_ptr taken(tirval_error_get(mine[mine.size() / 2]));
                mine.erase(mine.begin() + static_cast<std::ptrdiff_t>(mine.size() / 2));
                ASSERT_EQ(*static_cast<int *>(tirval_object_get_instance_data(taken.get())), seed);
            }
        }
        for (const auto result : mine) {
            release(result);
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int seed = 0; seed < 4; ++seed) {
            threads.emplace_back(work, seed);
        }
    }
    EXPECT_EQ(tirval_error_count(), 0U);
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorScope, ReleasesWhatIsStillInTheTable)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    tirval_result_t noted = 0;
    {
        const in_scope current(scope);
        noted = tirval_error_put(make_counted(1, make_counted(2)));
        tirval_error_put(make_counted(3));
    }
    const tirval_result_t outside = tirval_error_put(make_counted(4));
    EXPECT_EQ(counted_live, 4);
    tirval_error_scope_destroy(scope);
    EXPECT_EQ(tirval_error_peek(noted), nullptr);
    EXPECT_EQ(take(tirval_error_print(tirval_error_peek(outside))), "counted 4");
    EXPECT_EQ(counted_live, 1);
    release(outside);
}

TEST(ErrorScope, LeavesAloneWhatWasTakenOut)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    std::vector<object_ptr> taken;
    {
        const in_scope current(scope);
        std::vector<tirval_result_t> results;
        for (int i = 0; i < 5; ++i) {
            results.push_back(tirval_error_put(make_counted(i)));
        }
        for (const int first_middle_and_last : {0, 2, 4}) {
            taken.emplace_back(
                tirval_error_get(results[static_cast<std::size_t>(first_middle_and_last)]));
        }
    }
    tirval_error_scope_destroy(scope);
    EXPECT_EQ(counted_live, 3);
    EXPECT_EQ(take(tirval_error_print(taken[1].get())), "counted 2");
    EXPECT_EQ(tirval_error_count(), 0U);
}

TEST(ErrorScope, DoesNotReleaseALaterObjectInAPlaceThatItOnceNoted)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    {
        const in_scope current(scope);
        for (int i = 0; i < 10'000; ++i) {
            release(tirval_error_put(make_counted(i)));
        }
    }
    std::vector<tirval_result_t> outside;
    for (int i = 0; i < 10'000; ++i) { /* more than there are places */
        outside.push_back(tirval_error_put(make_counted(i)));
    }
    tirval_error_scope_destroy(scope);
    EXPECT_EQ(tirval_error_count(), 10'000U);
    for (const auto result : outside) {
        release(result);
    }
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorScope, EnteringReturnsTheOneBefore)
{
    tirval_error_scope_t *outer = tirval_error_scope_create();
    tirval_error_scope_t *inner = tirval_error_scope_create();
    tirval_result_t of_outer = 0;
    {
        const in_scope first(outer);
        EXPECT_EQ(first.before(), nullptr);
        {
            const in_scope second(inner);
            EXPECT_EQ(second.before(), outer);
            tirval_error_put(make_counted(1));
        }
        of_outer = tirval_error_put(make_counted(2));
    }
    tirval_error_scope_destroy(inner);
    EXPECT_NE(tirval_error_peek(of_outer), nullptr);
    EXPECT_EQ(counted_live, 1);
    tirval_error_scope_destroy(outer);
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorScope, IsOneThreadsOwn)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    tirval_result_t elsewhere = 0;
    {
        const in_scope current(scope);
        std::thread([&] { elsewhere = tirval_error_put(make_counted(1)); }).join();
    }
    tirval_error_scope_destroy(scope);
    EXPECT_NE(tirval_error_peek(elsewhere), nullptr);
    release(elsewhere);
}

TEST(ErrorScope, CollectsWhatSeveralThreadsPutIntoIt)
{
    tirval_error_scope_t *scope = tirval_error_scope_create();
    const auto work = [scope](int seed) {
        const in_scope current(scope);
        for (int i = 0; i < 2000; ++i) {
            const tirval_result_t result = tirval_error_put(make_counted(seed));
            if (i % 2 == 0) {
                release(result);
            }
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int seed = 0; seed < 4; ++seed) {
            threads.emplace_back(work, seed);
        }
    }
    EXPECT_EQ(tirval_error_count(), 4000U);
    tirval_error_scope_destroy(scope);
    EXPECT_EQ(tirval_error_count(), 0U);
    EXPECT_EQ(counted_live, 0);
}

void put_and_release_another(void *)
{
    release(tirval_error_put(make_counted(9)));
}

TEST(ErrorScope, MayReleaseObjectsThatUseTheTableThemselves)
{
    static const tirval_object_type_t busy = {TIRVAL_ERROR_TYPE_BASE_DEFINITION, nullptr,
                                              put_and_release_another, nullptr};
    tirval_error_scope_t *scope = tirval_error_scope_create();
    {
        const in_scope current(scope);
        tirval_object_t *object = tirval_object_construct(&busy);
        tirval_object_set_instance_data(object, object);
        tirval_error_put(object);
    }
    tirval_error_scope_destroy(scope);
    EXPECT_EQ(tirval_error_count(), 0U);
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorScope, DestroyingNoneDoesNothing)
{
    tirval_error_scope_destroy(nullptr);
}

} // namespace
