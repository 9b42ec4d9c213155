/* Debug channels: the variable's syntax, and how the stream behaves. */
#include "tirval_common.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char variable[] = "TIRVAL_COMMON_TEST_DEBUG";
constexpr char level_names[] = "TRACE DEBUG INFO WARN ERROR";

tirval_debug_handle_t handle;

void close_channel()
{
    if (handle.file != nullptr && handle.using_file) {
        std::fclose(handle.file);
    }
    handle.file = nullptr;
}

class Debug : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "tirval_debug_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
        file_ = folder_ / "trace";
    }

    void TearDown() override
    {
        close_channel();
        unsetenv(variable);
        std::filesystem::remove_all(folder_);
    }

    static void init(const std::string &value)
    {
        setenv(variable, value.c_str(), 1);
        tirval_debug_init(variable, level_names, &handle);
    }

    void init_with_file(const std::string &items) { init(items + ";file=" + file_.string()); }

    /* What initialising says on standard error. */
    static std::string complaint(const std::string &value)
    {
        testing::internal::CaptureStderr();
        init(value);
        return testing::internal::GetCapturedStderr();
    }

    std::string written() const
    {
        std::ifstream stream(file_);
        std::stringstream text;
        text << stream.rdbuf();
        return text.str();
    }

    std::filesystem::path folder_;
    std::filesystem::path file_;
};

TEST_F(Debug, IsOffWithoutTheVariableAndWhenItIsEmpty)
{
    handle.levels = 31;
    unsetenv(variable);
    tirval_debug_init(variable, level_names, &handle);
    EXPECT_EQ(handle.file, nullptr);
    EXPECT_EQ(handle.levels, 0U);
    EXPECT_EQ(complaint(""), "");
    EXPECT_EQ(handle.file, nullptr);
}

TEST_F(Debug, ReadsEveryItemInAnyOrder)
{
    init("threads;times=WARN;file=" + file_.string() + ";levels=TRACE|ERROR");
    ASSERT_NE(handle.file, nullptr);
    EXPECT_EQ(handle.levels, 17U);
    EXPECT_EQ(handle.timestamp_levels, 8U);
    EXPECT_TRUE(handle.thread_ids);
    EXPECT_TRUE(handle.using_file);
}

TEST_F(Debug, LeavesOutWhatIsNotAskedFor)
{
    init_with_file("levels=INFO");
    EXPECT_EQ(handle.levels, 4U);
    EXPECT_EQ(handle.timestamp_levels, 0U);
    EXPECT_FALSE(handle.thread_ids);
}

TEST_F(Debug, TakesLevelsAsNamesWithoutCaseNumbersAndAll)
{
    const std::map<std::string, std::uint32_t> cases = {
        {"trace", 1},     {"Debug", 2},       {"error", 16}, {"ALL", 31}, {"all", 31},
        {"5", 5},         {"0x1f", 31},       {"0X10", 16},  {"0", 0},    {"TRACE|0x8|2", 11},
        {"WARN|ALL", 31}, {"4294967295", ~0U}};
    for (const auto &[text, levels] : cases) {
        init_with_file("levels=" + text + ";times=" + text);
        EXPECT_EQ(handle.levels, levels) << text;
        EXPECT_EQ(handle.timestamp_levels, levels) << text;
    }
}

TEST_F(Debug, ToleratesEmptyItems)
{
    EXPECT_EQ(complaint(";levels=ALL;;file=" + file_.string() + ";"), "");
    EXPECT_NE(handle.file, nullptr);
    EXPECT_EQ(handle.levels, 31U);
}

TEST_F(Debug, ABadItemIsReportedOnceAndLeavesTheChannelOff)
{
    for (const std::string bad :
         {"nonsense", "levels", "levels=", "levels=TRACE|", "levels=TRAC", "levels=TRACE DEBUG",
          "levels=-1", "levels=0x", "levels=4294967296", "levels=1x", "times=x", "threads=1",
          "file", "file=", "Levels=ALL", "=ALL", " levels=ALL"}) {
        const std::string said = complaint("levels=ALL;" + bad + ";other nonsense");
        EXPECT_EQ(said, std::string(variable) + ": \"" + bad +
                            "\" is not understood; the debug channel stays off\n");
        EXPECT_EQ(handle.file, nullptr) << bad;
        EXPECT_EQ(handle.levels, 0U) << bad;
        EXPECT_FALSE(handle.using_file) << bad;
    }
}

TEST_F(Debug, AFileThatCannotBeOpenedIsReportedAndLeavesTheChannelOff)
{
    const std::string path = folder_ / "missing/trace";
    EXPECT_EQ(complaint("levels=ALL;file=" + path),
              std::string(variable) + ": cannot open " + path +
                  ": No such file or directory; the debug channel stays off\n");
    EXPECT_EQ(handle.file, nullptr);
    EXPECT_EQ(handle.levels, 0U);
}

TEST_F(Debug, OpensItsFileForAppendPrivatelyAndCloseOnExec)
{
    const mode_t mask = umask(0);
    init_with_file("levels=ALL");
    umask(mask);
    const int descriptor = fileno(handle.file);
    struct stat facts = {};
    ASSERT_EQ(fstat(descriptor, &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600U);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_APPEND, 0);
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Debug, AppendsToAFileThatExists)
{
    std::ofstream(file_) << "before\n";
    init_with_file("levels=ALL");
    std::fputs("after\n", handle.file);
    EXPECT_EQ(written(), "before\nafter\n");
}

TEST_F(Debug, WritesALineWhenItIsCompleteHoweverManyPrintsItTakes)
{
    init_with_file("levels=ALL");
    std::fputs("prefix: ", handle.file);
    std::fputs(std::string(20'000, 'x').c_str(), handle.file);
    EXPECT_EQ(written(), "");
    std::fputs(" end\n", handle.file);
    EXPECT_EQ(written(), "prefix: " + std::string(20'000, 'x') + " end\n");
}

/* A line that names its writer in each of its three prints. */
void write_lines(char writer)
{
    for (int i = 0; i < 200; ++i) {
        std::fprintf(handle.file, "%c: ", writer);
        std::fprintf(handle.file, "%s", std::string(3000, writer).c_str());
        std::fprintf(handle.file, " :%c\n", writer);
    }
}

TEST_F(Debug, LinesOfSeveralProcessesDoNotMix)
{
    init_with_file("levels=ALL");
    for (const char writer : {'a', 'b', 'c'}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            write_lines(writer);
            _exit(0);
        }
    }
    for (int status = 0; wait(&status) > 0;) {
        EXPECT_EQ(status, 0);
    }
    std::istringstream lines(written());
    std::map<char, int> whole;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_FALSE(line.empty());
        const std::string writer = line.substr(0, 1);
        ASSERT_EQ(line, writer + ": " + std::string(3000, line[0]) + " :" + writer);
        ++whole[line[0]];
    }
    EXPECT_EQ(whole, (std::map<char, int>{{'a', 200}, {'b', 200}, {'c', 200}}));
}

TEST_F(Debug, WithoutAFileGoesToStandardErrorByAStreamOfItsOwn)
{
    testing::internal::CaptureStderr();
    init("levels=ALL");
    ASSERT_NE(handle.file, nullptr);
    EXPECT_NE(handle.file, stderr);
    EXPECT_TRUE(handle.using_file);
    const int descriptor = fileno(handle.file);
    EXPECT_NE(descriptor, STDERR_FILENO);
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    struct stat before = {};
    fstat(STDERR_FILENO, &before);
    std::fputs("prefix ", handle.file);
    struct stat between = {};
    fstat(STDERR_FILENO, &between);
    EXPECT_EQ(between.st_size, before.st_size) << "a line goes out whole";
    std::fputs("message\n", handle.file);
    close_channel();
    EXPECT_GE(fcntl(STDERR_FILENO, F_GETFD), 0) << "standard error itself stays open";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prefix message\n");
}

TEST_F(Debug, CanBeSetUpAgainWhetherOrNotItWasClosed)
{
    init_with_file("levels=TRACE");
    const int descriptor = fileno(handle.file);
    std::fputs("first ", handle.file);
    init_with_file("levels=DEBUG");
    EXPECT_EQ(handle.levels, 2U);
    EXPECT_EQ(fileno(handle.file), descriptor) << "the stream before was closed";
    std::fputs("second\n", handle.file);
    close_channel();
    init_with_file("levels=INFO");
    std::fputs("third\n", handle.file);
    EXPECT_EQ(written(), "first second\nthird\n");
}

TEST_F(Debug, TakesUpToThirtyTwoLevels)
{
    std::string names;
    for (int i = 0; i < 32; ++i) {
        names += (i == 0 ? "L" : " L") + std::to_string(i);
    }
    setenv(variable, ("levels=L31|l0;times=ALL;file=" + file_.string()).c_str(), 1);
    tirval_debug_init(variable, names.c_str(), &handle);
    EXPECT_EQ(handle.levels, 0x80000001U);
    EXPECT_EQ(handle.timestamp_levels, 0xffffffffU);
}

} // namespace
