/* Module activation. */
#include "tirval_common.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

std::vector<const char *> events;
int inner_answer = 0;

int activate_inner()
{
    events.push_back("inner on");
    return inner_answer;
}

int deactivate_inner()
{
    events.push_back("inner off");
    return 0;
}

void exit_inner()
{
    std::fputs("inner exit\n", stderr);
}

tirval_module_descriptor_t inner = {"inner",    activate_inner, deactivate_inner,
                                    exit_inner, nullptr,        nullptr};

int activate_outer()
{
    const int result = tirval_module_activate(&inner);
    events.push_back("outer on");
    return result;
}

int deactivate_outer()
{
    events.push_back("outer off");
    return tirval_module_deactivate(&inner) == 0 ? 3 : 4;
}

void exit_outer()
{
    std::fputs("outer exit\n", stderr);
}

tirval_module_descriptor_t outer = {"outer",    activate_outer, deactivate_outer,
                                    exit_outer, nullptr,        nullptr};

class Module : public testing::Test {
  protected:
    void SetUp() override
    {
        events.clear();
        inner_answer = 0;
    }
};

TEST_F(Module, RunsItsFunctionsForTheFirstAndTheLastUserOnly)
{
    EXPECT_EQ(tirval_module_activate(&inner), 0);
    EXPECT_EQ(tirval_module_activate(&inner), 0);
    EXPECT_EQ(tirval_module_reference_count(&inner), 2);
    EXPECT_EQ(tirval_module_deactivate(&inner), 0);
    EXPECT_EQ(events, (std::vector{"inner on"}));
    EXPECT_EQ(tirval_module_deactivate(&inner), 0);
    EXPECT_EQ(tirval_module_reference_count(&inner), 0);
    EXPECT_EQ(events, (std::vector{"inner on", "inner off"}));
}

TEST_F(Module, MayActivateOthersFromItsOwnActivation)
{
    EXPECT_EQ(tirval_module_activate(&outer), 0);
    EXPECT_EQ(tirval_module_reference_count(&inner), 1);
    EXPECT_EQ(tirval_module_deactivate(&outer), 3) << "the deactivation function's own value";
    EXPECT_EQ(tirval_module_reference_count(&inner), 0);
    EXPECT_EQ(events, (std::vector{"inner on", "outer on", "outer off", "inner off"}));
}

TEST_F(Module, StaysInactiveAndUncountedWhenItsActivationFails)
{
    inner_answer = 5;
    EXPECT_EQ(tirval_module_activate(&inner), 5);
    EXPECT_EQ(tirval_module_reference_count(&inner), 0);
    EXPECT_EQ(tirval_module_deactivate(&inner), -1);
    inner_answer = 0;
    EXPECT_EQ(tirval_module_activate(&inner), 0);
    EXPECT_EQ(tirval_module_deactivate(&inner), 0);
    EXPECT_EQ(events, (std::vector{"inner on", "inner on", "inner off"}));
}

TEST_F(Module, CannotBeDeactivatedWhileInactive)
{
    EXPECT_EQ(tirval_module_deactivate(&inner), -1);
    EXPECT_EQ(tirval_module_reference_count(&inner), 0);
    EXPECT_TRUE(events.empty());
}

TEST_F(Module, NeedsNoFunctions)
{
    static tirval_module_descriptor_t plain = {"plain", nullptr, nullptr,
                                               nullptr, nullptr, nullptr};
    EXPECT_EQ(tirval_module_activate(&plain), 0);
    EXPECT_EQ(tirval_module_reference_count(&plain), 1);
    EXPECT_EQ(tirval_module_deactivate(&plain), 0);
}

TEST_F(Module, NullIsRefused)
{
    EXPECT_EQ(tirval_module_activate(nullptr), -1);
    EXPECT_EQ(tirval_module_deactivate(nullptr), -1);
    EXPECT_EQ(tirval_module_reference_count(nullptr), 0);
}

TEST_F(Module, TheRuntimesOwnCanBeActivated)
{
    EXPECT_STREQ(tirval_i_common_module.module_name, "tirval_common");
    EXPECT_EQ(tirval_module_activate(&tirval_i_common_module), 0);
    EXPECT_EQ(tirval_module_deactivate(&tirval_i_common_module), 0);
}

/* The count is plain on purpose: only the runtime's lock keeps it right. */
int active_plain = 0;

TEST_F(Module, IsReadyForEveryThreadThatHasActivatedIt)
{
    static tirval_module_descriptor_t shared = {"shared",
                                                [] {
                                                    ++active_plain;
                                                    return 0;
                                                },
                                                [] {
                                                    --active_plain;
                                                    return 0;
                                                },
                                                nullptr,
                                                nullptr,
                                                nullptr};
    std::atomic<int> not_ready{0};
    const auto work = [&] {
        for (int i = 0; i < 5000; ++i) {
            not_ready += tirval_module_activate(&shared) != 0 || active_plain != 1 ||
                         tirval_module_reference_count(&shared) < 1;
            tirval_module_deactivate(&shared);
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back(work);
        }
    }
    EXPECT_EQ(not_ready, 0);
    EXPECT_EQ(active_plain, 0);
    EXPECT_EQ(tirval_module_reference_count(&shared), 0);
}

TEST_F(Module, ExitFunctionsRunOnceUsersBeforeTheModulesThatTheyUse)
{
    EXPECT_EXIT(
        {
            for (int i = 0; i < 2; ++i) {
                tirval_module_activate(&outer);
                tirval_module_deactivate(&outer);
            }
            std::fputs("begin\n", stderr);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "begin\nouter exit\ninner exit\n$");
}

tirval_module_descriptor_t returning = {"returning",
                                        nullptr,
                                        nullptr,
                                        [] {
                                            std::fputs("returning exit\n", stderr);
                                            tirval_module_activate(&returning);
                                        },
                                        nullptr,
                                        nullptr};

TEST_F(Module, AnExitFunctionThatActivatesItsModuleAgainStillRunsOnce)
{
    EXPECT_EXIT(
        {
            tirval_module_activate(&returning);
            tirval_module_deactivate(&returning);
            std::fputs("begin\n", stderr);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "^begin\nreturning exit\n(outer|inner|$)");
}

TEST_F(Module, ExitFunctionsDoNotRunWithoutASuccessfulActivation)
{
    static tirval_module_descriptor_t broken = {
        "broken", [] { return 1; }, nullptr, [] { std::fputs("broken exit\n", stderr); },
        nullptr,  nullptr};
    EXPECT_EXIT(
        {
            tirval_module_activate(&broken);
            std::exit(0);
        },
        testing::ExitedWithCode(0), testing::Not(testing::HasSubstr("broken exit")));
}

} // namespace
