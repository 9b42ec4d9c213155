/* The syntax of a debug channel's environment variable. */
#include "fuzz.h"

#include "tirval_common.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

/* Takes the complaints about values that are not understood. */
class complaints_dropped {
  public:
    complaints_dropped() : kept(stderr), dropped(std::fopen("/dev/null", "w")) { stderr = dropped; }
    complaints_dropped(const complaints_dropped &) = delete;
    complaints_dropped &operator=(const complaints_dropped &) = delete;
    ~complaints_dropped()
    {
        stderr = kept;
        std::fclose(dropped);
    }

  private:
    FILE *kept;
    FILE *dropped;
};

/* Inputs that would make files other than /dev/null are not tried. */
bool names_other_file(std::string_view value)
{
    constexpr std::string_view harmless = "file=/dev/null";
    for (auto at = value.find("file="); at != std::string_view::npos;
         at = value.find("file=", at + 1)) {
        const std::string_view item = value.substr(at, value.find(';', at) - at);
        if (item != harmless && item != "file=") {
            return true;
        }
    }
    return false;
}

void close(tirval_debug_handle_t &channel)
{
    if (channel.file != nullptr) {
        std::fclose(channel.file);
    }
    channel.file = nullptr;
}

void parse(std::string_view input)
{
    static tirval_debug_handle_t channel;
    const std::string value = fuzz::c_text(input);
    if (names_other_file(value)) {
        return;
    }
    const complaints_dropped quiet;
    setenv("TIRVAL_FUZZ_DEBUG", value.c_str(), 1);
    tirval_debug_init("TIRVAL_FUZZ_DEBUG", "TRACE DEBUG INFO WARN ERROR", &channel);
    const bool on = channel.file != nullptr;
    const tirval_debug_handle_t first = channel;
    close(channel);
    fuzz::require(on == first.using_file, "a channel that is on closes its own stream");
    fuzz::require(on || (first.levels == 0 && first.timestamp_levels == 0 && !first.thread_ids),
                  "a channel that is off has no setting");
    fuzz::require(!on || !value.empty(), "an empty variable leaves the channel off");
    setenv("TIRVAL_FUZZ_DEBUG", (value + ";").c_str(), 1);
    tirval_debug_init("TIRVAL_FUZZ_DEBUG", "TRACE DEBUG INFO WARN ERROR", &channel);
    const tirval_debug_handle_t second = channel;
    close(channel);
    fuzz::require(value.empty() ||
                      (on == (second.file != nullptr) && first.levels == second.levels &&
                       first.timestamp_levels == second.timestamp_levels &&
                       first.thread_ids == second.thread_ids),
                  "a semicolon at the end changes nothing");
}

} // namespace

TIRVAL_FUZZ_ENTRY(DebugVariable,
                  (fuzz::entry{parse,
                               {"levels=TRACE|DEBUG;file=/dev/null;threads;times=ALL", "levels=ALL",
                                "levels=0x1F|info;times=4", "threads;;levels=warn",
                                "file=;levels=ERROR", "levels=4294967296", "levels="},
                               40000}))
