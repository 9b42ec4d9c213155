/*
 * Debug channels: the reading of a channel's environment variable and the opening of its stream.
 * Several processes append to one file or to one terminal, each line in pieces, so a stream is
 * line-buffered with a buffer that is larger than any reasonable line: a line reaches the file in
 * one write.
 */
#include "debug_channels.h"
#include "immortal.h"
#include "text.h"
#include "tirval_common.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <string_view>
#include <strings.h>
#include <unistd.h>

namespace {

using tirval::common::immortal;
using tirval::common::owned_text;

constexpr std::size_t line_buffer_size = 65536;

/* What a channel keeps for the life of the process: its handle is static, and its stream is closed
 * by others, who do not know of the buffer. */
struct channel {
    tirval_debug_handle_t *handle;
    channel *next;
    std::array<char, line_buffer_size> buffer;
};

/* Channels are only ever added, at the front, so that a failing thread can walk them unlocked. */
struct channel_list {
    std::atomic<channel *> first{nullptr};
};

channel *first_channel()
{
    return immortal<channel_list>().first.load(std::memory_order_acquire);
}

/* The handle's channel, made when it is new; null when memory ran out. */
channel *channel_of(tirval_debug_handle_t *handle)
{
    for (channel *known = first_channel(); known != nullptr; known = known->next) {
        if (known->handle == handle) {
            return known;
        }
    }
    auto *made = new (std::nothrow) channel;
    if (made != nullptr) {
        made->handle = handle;
        made->next = first_channel();
        while (!immortal<channel_list>().first.compare_exchange_weak(made->next, made)) {
        }
    }
    return made;
}

struct settings {
    std::uint32_t levels = 0;
    std::uint32_t timestamp_levels = 0;
    bool thread_ids = false;
    std::string_view file; /* empty: standard error */
};

/* Takes the first field off `rest`, which is left without data after the last one. */
std::string_view take_field(std::string_view &rest, char separator)
{
    const std::size_t end = rest.find(separator);
    const std::string_view field = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return field;
}

bool same_name(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool parse_bits(std::string_view text, std::uint32_t &bits)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(hexadecimal ? 2 : 0);
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), bits, hexadecimal ? 16 : 10);
    return error == std::errc() && end == text.data() + text.size();
}

/* The bits of one level: a known name, ALL, or a number. */
bool parse_level(std::string_view level, std::string_view names, std::uint32_t &bits)
{
    std::uint32_t bit = 1;
    std::uint32_t all = 0;
    for (; names.data() != nullptr && bit != 0; bit <<= 1) {
        if (same_name(level, take_field(names, ' '))) {
            bits = bit;
            return true;
        }
        all |= bit;
    }
    if (same_name(level, "ALL")) {
        bits = all;
        return true;
    }
    return parse_bits(level, bits);
}

bool parse_levels(std::string_view list, std::string_view names, std::uint32_t &levels)
{
    levels = 0;
    while (list.data() != nullptr) {
        std::uint32_t bits = 0;
        if (!parse_level(take_field(list, '|'), names, bits)) {
            return false;
        }
        levels |= bits;
    }
    return true;
}

bool parse_item(std::string_view item, std::string_view names, settings &parsed)
{
    if (item.empty()) {
        return true; /* a semicolon too many does no harm */
    }
    if (item == "threads") {
        parsed.thread_ids = true;
        return true;
    }
    const std::size_t equals = item.find('=');
    if (equals == std::string_view::npos) {
        return false;
    }
    const std::string_view key = item.substr(0, equals);
    const std::string_view value = item.substr(equals + 1);
    if (key == "file") {
        parsed.file = value;
        return !value.empty();
    }
    if (key == "levels") {
        return parse_levels(value, names, parsed.levels);
    }
    return key == "times" && parse_levels(value, names, parsed.timestamp_levels);
}

/* The first item that is not understood, or an empty text. */
std::string_view parse_settings(std::string_view value, std::string_view names, settings &parsed)
{
    while (value.data() != nullptr) {
        const std::string_view item = take_field(value, ';');
        if (!parse_item(item, names, parsed)) {
            return item;
        }
    }
    return {};
}

int open_output(const char *path)
{
    if (path == nullptr) {
        return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
}

/* The channel's stream; null, with errno set, when it cannot be had. */
FILE *open_stream(tirval_debug_handle_t *handle, const char *path)
{
    channel *kept = channel_of(handle);
    if (kept == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const int descriptor = open_output(path);
    if (descriptor < 0) {
        return nullptr;
    }
    /* Not "a" for standard error: that would change it for everyone who shares it. */
    FILE *stream = fdopen(descriptor, path == nullptr ? "w" : "a");
    if (stream == nullptr) {
        const int reason = errno;
        close(descriptor);
        errno = reason;
        return nullptr;
    }
    (void)std::setvbuf(stream, kept->buffer.data(), _IOLBF, kept->buffer.size());
    return stream;
}

void open_channel(const char *env_name, const settings &parsed, tirval_debug_handle_t *handle)
{
    const owned_text path(parsed.file.empty() ? nullptr
                                              : strndup(parsed.file.data(), parsed.file.size()));
    const bool has_path = parsed.file.empty() || path != nullptr;
    FILE *stream = has_path ? open_stream(handle, path.get()) : nullptr;
    if (stream == nullptr) {
        (void)std::fprintf(stderr, "%s: cannot open %s: %s; the debug channel stays off\n",
                           env_name, path == nullptr ? "standard error" : path.get(),
                           std::strerror(errno));
        return;
    }
    handle->levels = parsed.levels;
    handle->timestamp_levels = parsed.timestamp_levels;
    handle->thread_ids = parsed.thread_ids;
    handle->using_file = true;
    handle->file = stream;
}

/* Takes the stream's lock, unless another thread keeps it for long. */
bool lock_briefly(FILE *stream)
{
    constexpr timespec pause = {0, 1'000'000};
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (ftrylockfile(stream) == 0) {
            return true;
        }
        nanosleep(&pause, nullptr);
    }
    return false;
}

} // namespace

void tirval::common::write_to_debug_channels(const char *text) noexcept
{
    for (const channel *at = first_channel(); at != nullptr; at = at->next) {
        FILE *stream = at->handle->file;
        if (stream != nullptr && lock_briefly(stream)) {
            (void)std::fputs(text, stream);
            (void)std::fflush(stream);
            funlockfile(stream);
        }
    }
}

extern "C" void tirval_debug_init(const char *env_name, const char *level_names,
                                  tirval_debug_handle_t *handle)
{
    if (handle->file != nullptr && handle->using_file) {
        (void)std::fclose(handle->file);
    }
    *handle = {};
    const char *value = getenv(env_name);
    if (value == nullptr || *value == '\0') {
        return;
    }
    settings parsed;
    const std::string_view bad = parse_settings(value, level_names, parsed);
    if (!bad.empty()) {
        (void)std::fprintf(stderr, "%s: \"%.*s\" is not understood; the debug channel stays off\n",
                           env_name, static_cast<int>(bad.size()), bad.data());
        return;
    }
    open_channel(env_name, parsed, handle);
}
