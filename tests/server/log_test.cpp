/* The log and the transfer log, as files on disk. */
#include "log.h"

#include "child_process.h"
#include "temp_dir.h"

#include "tirval_common.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace tirval::server;
using testing::HasSubstr;

namespace {

/* Each test writes to a log of its own, and leaves standard error as the log. */
class Log : public testing::Test {
  protected:
    void open(log_level_t level = log_level_t::info, log_format_t format = log_format_t::text)
    {
        log_config_t config;
        config.level = level;
        config.format = format;
        config.file = dir_ / "log";
        config.transfer_log = dir_ / "transfers";
        open_logs(config);
    }

    void TearDown() override
    {
        set_log_session(0);
        open_logs({});
    }

    std::vector<std::string> lines(const char *file = "log") const
    {
        std::vector<std::string> all;
        std::ifstream stream{dir_ / file};
        for (std::string line; std::getline(stream, line);) {
            all.push_back(line);
        }
        return all;
    }

    temp_dir_t dir_;
};

using TransferLog = Log;

std::string member(const std::string &text, const char *key)
{
    json_t *json = json_loads(text.c_str(), 0, nullptr);
    const char *value = json_string_value(json_object_get(json, key));
    const std::string copy = value == nullptr ? "(none)" : value;
    json_decref(json);
    return copy;
}

/* The line with each digit among its first `count` characters as "d". */
std::string masked(std::string line, std::size_t count)
{
    for (std::size_t i = 0; i < std::min(count, line.size()); ++i) {
        line[i] = line[i] >= '0' && line[i] <= '9' ? 'd' : line[i];
    }
    return line;
}

transfer_record_t record()
{
    transfer_record_t made;
    made.user = "anna";
    made.client = "192.0.2.1";
    made.verb = "RETR";
    made.path = "/My files/a \"b\".txt";
    made.bytes = 12345;
    made.duration = std::chrono::milliseconds{1234};
    made.code = 226;
    return made;
}

} // namespace

TEST_F(Log, AFailedAssertionIsInTheLogFileToo)
{
    const auto die = [this] {
        open();
        set_log_session(7);
        TIRVAL_ASSERT(dir_.path().empty());
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "assertion failed");
    EXPECT_THAT(lines(), testing::ElementsAre(
                             HasSubstr("session 7: assertion failed: dir_.path().empty()")));
}

TEST_F(Log, AnEntryIsALineWithTimeProcessLevelAndText)
{
    open();
    log_info("%d users", 3);
    ASSERT_EQ(lines().size(), 1U);
    EXPECT_EQ(masked(lines()[0], 23), "dddd-dd-ddTdd:dd:dd.ddd" + lines()[0].substr(23, 6) + " [" +
                                          std::to_string(getpid()) + "] info: 3 users");
}

TEST_F(Log, EntriesBelowTheLevelAreLeftOut)
{
    open(log_level_t::warning);
    log_debug("a");
    log_info("b");
    log_warning("c");
    log_error("d");
    ASSERT_EQ(lines().size(), 2U);
    EXPECT_THAT(lines()[0], HasSubstr("warning: c"));
    EXPECT_THAT(lines()[1], HasSubstr("error: d"));
    EXPECT_FALSE(log_enabled(log_level_t::info));
    EXPECT_TRUE(log_enabled(log_level_t::warning));
}

TEST_F(Log, ASessionsEntriesNameIt)
{
    open();
    set_log_session(12);
    log_info("x");
    EXPECT_THAT(lines().at(0), HasSubstr("info: session 12: x"));
}

TEST_F(Log, NoTextCanForgeALine)
{
    open();
    log_info("%s", "name\r\n2026-01-01 error: forged\x1b[31m\x7f");
    ASSERT_EQ(lines().size(), 1U);
    EXPECT_THAT(lines()[0], HasSubstr("name??2026-01-01 error: forged?[31m?"));
}

TEST_F(Log, BracesAndPercentSignsInTextsMeanNothing)
{
    open();
    log_info("%s", "100% {} {0} %s");
    EXPECT_THAT(lines().at(0), HasSubstr("info: 100% {} {0} %s"));
}

TEST_F(Log, InJsonEachLineIsAnObject)
{
    open(log_level_t::debug, log_format_t::json);
    set_log_session(7);
    log_debug("%s", "say \"hé\" \\");
    log_info("%s", "raw \xff byte");
    ASSERT_EQ(lines().size(), 2U);
    EXPECT_EQ(member(lines()[0], "message"), "say \"hé\" \\");
    EXPECT_EQ(member(lines()[0], "level"), "debug");
    EXPECT_EQ(member(lines()[1], "message"), "raw ? byte");
    EXPECT_THAT(lines()[0], HasSubstr("\"session\":7,"));
}

TEST_F(Log, LinesOfManyProcessesAndThreadsStayWhole)
{
    open();
    std::vector<std::unique_ptr<child_process_t>> children;
    for (int i = 0; i < 8; ++i) {
        children.push_back(std::make_unique<child_process_t>([] {
            std::thread other{[] {
                for (int n = 0; n < 100; ++n) {
                    log_info("%s.", std::string(300, 'b').c_str());
                }
            }};
            for (int n = 0; n < 100; ++n) {
                log_info("%s.", std::string(300, 'a').c_str());
            }
            other.join();
            return std::string{};
        }));
    }
    for (const auto &child : children) {
        EXPECT_EQ(child->wait().exit_status, 0);
    }
    const auto all = lines();
    EXPECT_EQ(all.size(), 1600U);
    for (const std::string &line : all) {
        EXPECT_TRUE(line.ends_with(": " + std::string(300, 'a') + ".") ||
                    line.ends_with(": " + std::string(300, 'b') + "."))
            << line;
    }
}

TEST_F(Log, ReopeningFollowsARename)
{
    open();
    log_info("before");
    std::filesystem::rename(dir_ / "log", dir_ / "log.1");
    log_info("between");
    reopen_logs();
    log_info("after");
    EXPECT_EQ(lines("log.1").size(), 2U);
    ASSERT_EQ(lines().size(), 1U);
    EXPECT_THAT(lines()[0], HasSubstr("after"));
}

TEST_F(Log, AFileThatCannotBeReopenedIsKept)
{
    open();
    std::filesystem::rename(dir_ / "log", dir_ / "log.1");
    std::filesystem::create_directory(dir_ / "log");
    reopen_logs();
    log_info("after");
    const auto kept = lines("log.1");
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_THAT(kept[0], HasSubstr("log: cannot be opened again: Is a directory"));
    EXPECT_THAT(kept[1], HasSubstr("after"));
}

TEST_F(Log, AFileThatCannotBeOpenedIsNamed)
{
    log_config_t config;
    config.file = dir_ / "no" / "log";
    try {
        open_logs(config);
        FAIL() << "was opened";
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(error.what(),
                  config.file.string() + ": cannot be opened: No such file or directory");
    }
}

TEST_F(TransferLog, ATransferIsALineOfFields)
{
    open();
    set_log_session(5);
    log_transfer(record());
    ASSERT_EQ(lines("transfers").size(), 1U);
    EXPECT_EQ(masked(lines("transfers")[0], 23),
              "dddd-dd-ddTdd:dd:dd.dddZ session=5 user=\"anna\" client=\"192.0.2.1\" verb=\"RETR\" "
              R"(path="/My files/a \"b\".txt" bytes=12345 seconds=1.234 code=226)");
    EXPECT_TRUE(lines().empty());
}

TEST_F(TransferLog, InJsonItIsAnObject)
{
    open(log_level_t::info, log_format_t::json);
    log_transfer(record());
    ASSERT_EQ(lines("transfers").size(), 1U);
    const std::string line = lines("transfers")[0];
    EXPECT_EQ(member(line, "path"), "/My files/a \"b\".txt");
    EXPECT_THAT(line, HasSubstr("\"bytes\":12345,\"seconds\":1.234,\"code\":226}"));
}

TEST_F(TransferLog, ANameCannotForgeALine)
{
    open();
    transfer_record_t odd = record();
    odd.path = "/a\nb";
    log_transfer(odd);
    ASSERT_EQ(lines("transfers").size(), 1U);
    EXPECT_THAT(lines("transfers")[0], HasSubstr("path=\"/a?b\""));
}

TEST_F(TransferLog, ReopeningFollowsARename)
{
    open();
    log_transfer(record());
    std::filesystem::rename(dir_ / "transfers", dir_ / "transfers.1");
    reopen_logs();
    log_transfer(record());
    EXPECT_EQ(lines("transfers").size(), 1U);
    EXPECT_EQ(lines("transfers.1").size(), 1U);
}
