/* The debug channel: how lines are framed, and which lines the plug-in's functions write. */
#include "frame_support.h"

#include <fstream>
#include <gmock/gmock.h>
#include <thread>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

std::string process()
{
    return std::to_string(getpid());
}

void write_line(uint32_t level, const char *text)
{
    TIRVAL_ONEDRIVE_LOG_AS(level, "some_function", "%s\n", text);
}

TEST(DebugChannel, NamesLevelsByTheirBit)
{
    std::vector<std::string> names;
    for (const char *name : tirval_i_onedrive_debug_level_names) {
        names.emplace_back(name != nullptr ? name : "-");
    }
    EXPECT_THAT(names, ElementsAre("-", "TRACE", "DEBUG", "-", "INFO", "-", "-", "-", "WARN", "-",
                                   "-", "-", "-", "-", "-", "-", "ERROR"));
    EXPECT_EQ(TIRVAL_ONEDRIVE_ALL, TIRVAL_ONEDRIVE_TRACE | TIRVAL_ONEDRIVE_DEBUG |
                                       TIRVAL_ONEDRIVE_INFO | TIRVAL_ONEDRIVE_WARN |
                                       TIRVAL_ONEDRIVE_ERROR);
}

TEST(DebugChannel, WritesNothingWithoutAStreamWhateverTheLevels)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    FILE *const file = tirval_i_TIRVAL_ONEDRIVE_debug_handle.file;
    tirval_i_TIRVAL_ONEDRIVE_debug_handle.file = nullptr;
    write_line(TIRVAL_ONEDRIVE_ERROR, "lost");
    tirval_i_TIRVAL_ONEDRIVE_debug_printf("lost\n");
    tirval_i_TIRVAL_ONEDRIVE_debug_time_printf("lost\n");
    tirval_i_TIRVAL_ONEDRIVE_debug_fwrite("lost", 1, 4);
    tirval_i_TIRVAL_ONEDRIVE_debug_handle.file = file;
    EXPECT_EQ(channel.text(), "");
}

TEST(DebugChannel, FramesALineWithLevelProcessAndFunction)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    write_line(TIRVAL_ONEDRIVE_TRACE, "hello");
    EXPECT_EQ(channel.text(), "OneDrive: TRACE: " + process() + ": some_function: hello\n");
}

TEST(DebugChannel, AlignsShortLevelNamesToTheRight)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    write_line(TIRVAL_ONEDRIVE_INFO, "a");
    write_line(TIRVAL_ONEDRIVE_WARN, "b");
    EXPECT_EQ(channel.text(), "OneDrive:  INFO: " + process() + ": some_function: a\n" +
                                  "OneDrive:  WARN: " + process() + ": some_function: b\n");
}

TEST(DebugChannel, WritesOnlyEnabledLevels)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_WARN | TIRVAL_ONEDRIVE_TRACE);
    write_line(TIRVAL_ONEDRIVE_TRACE, "a");
    write_line(TIRVAL_ONEDRIVE_DEBUG, "b");
    write_line(TIRVAL_ONEDRIVE_INFO, "c");
    write_line(TIRVAL_ONEDRIVE_WARN, "d");
    write_line(TIRVAL_ONEDRIVE_ERROR, "e");
    EXPECT_THAT(channel.lines(), ElementsAre("TRACE some_function: a", "WARN some_function: d"));
}

TEST(DebugChannel, PutsTheTimeWithThreeFinalZerosBeforeLinesOfTimestampedLevels)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL, TIRVAL_ONEDRIVE_TRACE);
    write_line(TIRVAL_ONEDRIVE_TRACE, "enter");
    write_line(TIRVAL_ONEDRIVE_DEBUG, "plain");
    EXPECT_THAT(channel.text(), MatchesRegex("[0-9]+\\.[0-9]{6}000::OneDrive: TRACE: " + process() +
                                             ": some_function: enter\nOneDrive: DEBUG: " +
                                             process() + ": some_function: plain\n"));
}

TEST(DebugChannel, TheTimeIsTheWallClocks)
{
    const time_t before = time(nullptr);
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL, TIRVAL_ONEDRIVE_ALL);
    write_line(TIRVAL_ONEDRIVE_TRACE, "enter");
    const time_t written = std::stol(channel.text());
    EXPECT_GE(written, before);
    EXPECT_LE(written, time(nullptr));
}

TEST(DebugChannel, PutsTheThreadBeforePrefixAndMessage)
{
    const std::string self = std::to_string(tirval_thread_self());
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL, 0, true);
    write_line(TIRVAL_ONEDRIVE_TRACE, "hello");
    EXPECT_EQ(channel.text(),
              self + "::OneDrive: TRACE: " + process() + ": some_function: " + self + "::hello\n");
}

TEST(DebugChannel, PutsThreadAndTimeBeforeThePrefixButOnlyTheThreadBeforeTheMessage)
{
    const std::string self = std::to_string(tirval_thread_self());
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL, TIRVAL_ONEDRIVE_ALL, true);
    write_line(TIRVAL_ONEDRIVE_TRACE, "hello");
    EXPECT_THAT(channel.text(), MatchesRegex(self + ":[0-9]+\\.[0-9]{6}000::OneDrive: TRACE: " +
                                             process() + ": some_function: " + self + "::hello\n"));
}

TEST(DebugChannel, CutsALongFormatWhenAThreadOrTimeIsPutBeforeIt)
{
    const std::string format(5000, 'x');
    {
        const memory_channel channel(TIRVAL_ONEDRIVE_ALL, 0, true);
        tirval_i_TIRVAL_ONEDRIVE_debug_printf(format.c_str(), "");
        const std::string prefix = std::to_string(tirval_thread_self()) + "::";
        EXPECT_EQ(channel.text(), prefix + std::string(4095 - prefix.size(), 'x'));
    }
    {
        const memory_channel channel(TIRVAL_ONEDRIVE_ALL, TIRVAL_ONEDRIVE_ALL);
        tirval_i_TIRVAL_ONEDRIVE_debug_time_printf(format.c_str(), "");
        EXPECT_EQ(channel.text().size(), 4095U);
    }
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    tirval_i_TIRVAL_ONEDRIVE_debug_printf(format.c_str(), "");
    EXPECT_EQ(channel.text(), format);
}

TEST(DebugChannel, LongArgumentsAreNotCut)
{
    const std::string argument(5000, 'x');
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL, 0, true);
    tirval_i_TIRVAL_ONEDRIVE_debug_printf("%s", argument.c_str());
    EXPECT_THAT(channel.text(), HasSubstr("::" + argument));
}

TEST(DebugChannel, WritesRawBytes)
{
    const memory_channel channel(0);
    tirval_i_TIRVAL_ONEDRIVE_debug_fwrite("a\0%s", 2, 2);
    EXPECT_EQ(channel.text(), std::string("a\0%s", 4));
}

TEST(DebugChannel, LinesOfSeveralThreadsDoNotMix)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    const temporary_folder folder;
    const std::string path = folder / "trace";
    FILE *const memory = tirval_i_TIRVAL_ONEDRIVE_debug_handle.file;
    tirval_i_TIRVAL_ONEDRIVE_debug_handle.file = fopen(path.c_str(), "w");
    ASSERT_NE(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file, nullptr);
    std::vector<std::thread> threads;
    for (const char *text : {"aaaaaaaa", "bbbbbbbb", "cccccccc"}) {
        threads.emplace_back([text] {
            for (int i = 0; i < 500; i++) {
                write_line(TIRVAL_ONEDRIVE_TRACE, text);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    (void)fclose(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file);
    tirval_i_TIRVAL_ONEDRIVE_debug_handle.file = memory;
    std::ifstream file(path);
    size_t lines = 0;
    for (std::string line; std::getline(file, line); lines++) {
        ASSERT_THAT(line, MatchesRegex("OneDrive: TRACE: [0-9]+: some_function: "
                                       "(a{8}|b{8}|c{8})"));
    }
    EXPECT_EQ(lines, 1500U);
}

/* ---- The exit line of a result ---- */

tirval_result_t a_failure()
{
    tirval_object_t *const cause = tirval_i_gfs_error_system(nullptr, ENOENT, "inner");
    return tirval_error_put(
        tirval_gfs_ftp_response_error_construct(nullptr, cause, 550, "PATH_NOT_FOUND", "outer"));
}

TEST(DebugChannel, SuccessIsAnExitLineAtTrace)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    EXPECT_EQ(tirval_i_onedrive_log_result(TIRVAL_SUCCESS, "f"), TIRVAL_SUCCESS);
    EXPECT_THAT(channel.lines(), ElementsAre("TRACE f: exit: result=TIRVAL_SUCCESS"));
}

TEST(DebugChannel, AFailureIsAnExitLineAtErrorWithItsWholeChain)
{
    const error_scope scope;
    const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
    const tirval_result_t result = a_failure();
    EXPECT_EQ(tirval_i_onedrive_log_result(result, "f"), result);
    char code[32] = {};
    (void)snprintf(code, sizeof(code), "%#x", result);
    EXPECT_EQ(channel.text(), "OneDrive: ERROR: " + process() + ": f: exit: result=" + code +
                                  " message=" + message_of(result) + "\n");
    EXPECT_THAT(channel.text(), HasSubstr("outer"));
    EXPECT_THAT(channel.text(), HasSubstr("inner"));
}

TEST(DebugChannel, AFailureIsAnExitLineAtTraceWhenNoLevelIsNamedError)
{
    const error_scope scope;
    const memory_channel channel(TIRVAL_ONEDRIVE_TRACE);
    const char *const name = tirval_i_onedrive_debug_level_names[TIRVAL_ONEDRIVE_ERROR];
    tirval_i_onedrive_debug_level_names[TIRVAL_ONEDRIVE_ERROR] = nullptr;
    (void)tirval_i_onedrive_log_result(a_failure(), "f");
    tirval_i_onedrive_debug_level_names[TIRVAL_ONEDRIVE_ERROR] = name;
    EXPECT_TRUE(channel.text().starts_with("OneDrive: TRACE: ")) << channel.text();
}

TEST(DebugChannel, AResultThatNamesNoErrorStillGetsItsExitLine)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_EQ(tirval_i_onedrive_log_result(TIRVAL_FAILURE, "f"), TIRVAL_FAILURE);
    EXPECT_THAT(channel.text(), MatchesRegex(".*: f: exit: result=0xffffffff message=.+\n"));
}

TEST(DebugChannelDeathTest, TheChainOfAFailureIsMadeAlsoWhileTheChannelIsOff)
{
    const error_scope scope;
    tirval_dsi_rest_key_value_t pair = {.key = "message", .value = ""};
    const tirval_dsi_rest_key_array_t unprintable = {.count = 1, .key_value = &pair};
    const tirval_result_t result =
        tirval_error_put(tirval_onedrive_error_construct(nullptr, nullptr, &unprintable));
    EXPECT_DEATH((void)tirval_i_onedrive_log_result(result, "f"), "strlen\\(msg\\) == len");
}

/* ---- The lines of the plug-in's functions ---- */

TEST(DebugChannel, AFunctionWithoutAResultWritesEnterAndExit)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    (void)tirval_onedrive_error_get_info(nullptr, "key");
    EXPECT_THAT(channel.lines(), ElementsAre("TRACE tirval_onedrive_error_get_info: enter",
                                             "TRACE tirval_onedrive_error_get_info: exit"));
}

TEST(DebugChannel, AFunctionWithAResultWritesEnterAndItsOutcome)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    int32_t rate = 0;
    (void)tirval_onedrive_config_parse_json("{}", &rate);
    EXPECT_THAT(channel.lines(), ElementsAre("TRACE tirval_onedrive_config_parse_json: enter",
                                             "TRACE tirval_onedrive_config_parse_json: exit: "
                                             "result=TIRVAL_SUCCESS"));
}

TEST(DebugChannel, EvaluatingAPathWritesNoEnterLine)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    char *path = nullptr;
    (void)tirval_onedrive_evaluate_path("/x", &path);
    EXPECT_EQ(taken(path), "/x");
    EXPECT_THAT(channel.lines(),
                ElementsAre("TRACE tirval_onedrive_evaluate_path: exit: result=TIRVAL_SUCCESS"));
}

/* ---- Set up from the environment ---- */

/* The module activated with the variable set, in a process of its own: the channel is made once. */
int with_channel(const char *setting, const std::function<int()> &check)
{
    return child_process([&] {
               (void)(setting != nullptr ? setenv("TIRVAL_ONEDRIVE_DEBUG", setting, 1)
                                         : unsetenv("TIRVAL_ONEDRIVE_DEBUG"));
               if (tirval_module_activate(&tirval_i_onedrive_common_module) != 0) {
                   return 100;
               }
               const int failure = check();
               (void)tirval_module_deactivate(&tirval_i_onedrive_common_module);
               return failure != 0 || tirval_i_TIRVAL_ONEDRIVE_debug_handle.file == nullptr
                          ? failure
                          : 101;
           })
        .wait();
}

TEST(DebugChannel, StaysOffWhileTheVariableIsUnset)
{
    EXPECT_EQ(with_channel(nullptr,
                           [] {
                               tirval_i_TIRVAL_ONEDRIVE_debug_handle.levels = TIRVAL_ONEDRIVE_ALL;
                               write_line(TIRVAL_ONEDRIVE_ERROR, "lost");
                               return tirval_i_TIRVAL_ONEDRIVE_debug_handle.file == nullptr ? 0 : 1;
                           }),
              0);
}

TEST(DebugChannel, WritesTheNamedLevelsToTheNamedFileAndClosesItAtTheEnd)
{
    const temporary_folder folder;
    const std::string path = folder / "trace";
    EXPECT_EQ(with_channel(("levels=WARN|ERROR;times=WARN;file=" + path).c_str(),
                           [] {
                               const auto &handle = tirval_i_TIRVAL_ONEDRIVE_debug_handle;
                               write_line(TIRVAL_ONEDRIVE_TRACE, "left out");
                               write_line(TIRVAL_ONEDRIVE_ERROR, "kept");
                               return handle.levels ==
                                                  (TIRVAL_ONEDRIVE_WARN | TIRVAL_ONEDRIVE_ERROR) &&
                                              handle.timestamp_levels == TIRVAL_ONEDRIVE_WARN &&
                                              !handle.thread_ids && handle.using_file
                                          ? 0
                                          : 1;
                           }),
              0);
    std::ifstream file(path);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_THAT(line, MatchesRegex("OneDrive: ERROR: [0-9]+: some_function: kept"));
    EXPECT_FALSE(std::getline(file, line));
}

TEST(DebugChannel, WritesToStandardErrorAndLeavesItOpenAtTheEnd)
{
    EXPECT_EQ(
        with_channel("levels=ERROR",
                     [] { return tirval_i_TIRVAL_ONEDRIVE_debug_handle.file != nullptr ? 0 : 1; }),
        0);
    EXPECT_EQ(child_process([] {
                  (void)setenv("TIRVAL_ONEDRIVE_DEBUG", "levels=ERROR", 1);
                  (void)tirval_module_activate(&tirval_i_onedrive_common_module);
                  (void)tirval_module_deactivate(&tirval_i_onedrive_common_module);
                  return write(STDERR_FILENO, "", 0) == 0 ? 0 : 1;
              }).wait(),
              0);
}

} // namespace
