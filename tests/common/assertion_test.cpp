/* Failed assertions. */
#include "tirval_common.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>

namespace {

constexpr char variable[] = "TIRVAL_COMMON_TEST_DEBUG";

tirval_debug_handle_t open_channel;
tirval_debug_handle_t closed_channel;

class Assertion : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "tirval_assertion_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }

    void TearDown() override
    {
        unsetenv(variable);
        std::filesystem::remove_all(folder_);
    }

    void init(tirval_debug_handle_t &handle, const char *file) const
    {
        setenv(variable, ("levels=TRACE;file=" + (folder_ / file).string()).c_str(), 1);
        tirval_debug_init(variable, "TRACE", &handle);
    }

    std::string written(const char *file) const
    {
        std::ifstream stream(folder_ / file);
        std::stringstream text;
        text << stream.rdbuf();
        return text.str();
    }

    std::filesystem::path folder_;
};

void fail_at_line_seventy()
{
    const int one = 1;
#line 70 "place.cpp"
    TIRVAL_ASSERT(one == 2 || one == 3);
}

TEST_F(Assertion, ATrueConditionIsEvaluatedOnceAndGoesOn)
{
    int evaluated = 0;
    TIRVAL_ASSERT(++evaluated > 0);
    EXPECT_EQ(evaluated, 1);
}

TEST_F(Assertion, AFalseOneEndsTheProcessWithItsTextAndPlaceOnStandardError)
{
    EXPECT_EXIT(fail_at_line_seventy(), testing::KilledBySignal(SIGABRT),
                "^assertion failed: one == 2 \\|\\| one == 3 \\(place\\.cpp:70\\)\n$");
}

TEST_F(Assertion, IsToldToTheObserver)
{
    const auto die = [] {
        tirval_assertion_observe(
            [](const char *text) { (void)std::fprintf(stderr, "told: %s", text); });
        fail_at_line_seventy();
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT),
                "told: assertion failed: one == 2 \\|\\| one == 3 \\(place\\.cpp:70\\)\n");
}

TEST_F(Assertion, IsWrittenToEveryOpenDebugChannel)
{
    const auto die = [this] {
        init(open_channel, "open");
        init(closed_channel, "closed");
        std::fclose(closed_channel.file);
        closed_channel.file = nullptr;
        std::fputs("a line that was not complete; ", open_channel.file);
        tirval_assertion_failed("list != NULL", "list.cpp", 3);
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "list != NULL");
    EXPECT_EQ(written("open"),
              "a line that was not complete; assertion failed: list != NULL (list.cpp:3)\n");
    EXPECT_EQ(written("closed"), "");
}

TEST_F(Assertion, AChannelThatAnotherThreadKeepsLockedDoesNotKeepTheProcessAlive)
{
    const auto die = [this] {
        init(open_channel, "open");
        std::thread([] { flockfile(open_channel.file); }).join();
        tirval_assertion_failed("owned", "x.cpp", 1);
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "assertion failed: owned");
    EXPECT_EQ(written("open"), "");
}

} // namespace
