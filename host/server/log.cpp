/*
 * The log over spdlog, and the transfer log beside it.  Both write whole lines by single appends to
 * descriptors of their own, without buffers.
 */
#include "log.h"

#include "unique_fd.h"

#include "tirval_common.h"

#include <fcntl.h>
#include <jansson.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace tirval::server {

namespace {

/* One append is one line: lines of several processes in one file stay whole. */
void append(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return; /* there is no place left to say it */
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

unique_fd_t open_for_append(const std::filesystem::path &file)
{
    return unique_fd_t{
        ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640)};
}

/* Writes formatted entries to a descriptor: the log's file, or standard error. */
class descriptor_sink_t : public spdlog::sinks::base_sink<std::mutex> {
  public:
    /* Takes over `file`; an empty one stands for standard error. */
    void use(unique_fd_t file)
    {
        const std::lock_guard lock{mutex_};
        file_ = std::move(file);
    }

  protected:
    void sink_it_(const spdlog::details::log_msg &message) override
    {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        append(file_ ? file_.get() : STDERR_FILENO, line.data(), line.size());
    }
    void flush_() override {}

  private:
    unique_fd_t file_;
};

struct logs_t {
    std::shared_ptr<descriptor_sink_t> sink = std::make_shared<descriptor_sink_t>();
    spdlog::logger logger{"server", sink};
    log_config_t config;
    std::uint64_t session = 0;
    unique_fd_t transfers;
};

constexpr const char *text_pattern = "%Y-%m-%dT%H:%M:%S.%e%z [%P] %l: %v";
constexpr const char *json_pattern =
    R"({"time":"%Y-%m-%dT%H:%M:%S.%e%z","pid":%P,"level":"%l",%v})";

void set_format(logs_t &logs)
{
    logs.logger.set_pattern(logs.config.format == log_format_t::json ? json_pattern : text_pattern);
    switch (logs.config.level) {
    case log_level_t::debug:
        logs.logger.set_level(spdlog::level::debug);
        break;
    case log_level_t::info:
        logs.logger.set_level(spdlog::level::info);
        break;
    case log_level_t::warning:
        logs.logger.set_level(spdlog::level::warn);
        break;
    case log_level_t::error:
        logs.logger.set_level(spdlog::level::err);
        break;
    }
}

logs_t &all_logs()
{
    static logs_t logs = [] {
        logs_t made;
        set_format(made);
        return made;
    }();
    return logs;
}

/* A JSON text's characters, with quotes.  Bytes that are not UTF-8 become "?". */
std::string json_quoted(const std::string &text)
{
    const std::unique_ptr<json_t, decltype(&json_decref)> valid{json_string(text.c_str()),
                                                                &json_decref};
    if (valid == nullptr) {
        std::string ascii = text;
        for (char &c : ascii) {
            c = static_cast<unsigned char>(c) < 0x80 ? c : '?';
        }
        return json_quoted(ascii);
    }
    const std::unique_ptr<char, decltype(&std::free)> quoted{
        json_dumps(valid.get(), JSON_ENCODE_ANY), &std::free};
    return quoted == nullptr ? "\"\"" : std::string{quoted.get()};
}

std::string format_text(const char *format, va_list arguments)
{
    const std::unique_ptr<char, decltype(&std::free)> text{
        tirval_common_v_create_string(format, arguments), &std::free};
    return text == nullptr ? std::string{format} : std::string{text.get()};
}

void log_text(spdlog::level::level_enum level, const char *format, va_list arguments)
{
    logs_t &logs = all_logs();
    if (!logs.logger.should_log(level)) {
        return;
    }
    std::string text = clean_text(format_text(format, arguments));
    if (logs.config.format == log_format_t::json) {
        text = "\"session\":" + std::to_string(logs.session) + ",\"message\":" + json_quoted(text);
    } else if (logs.session != 0) {
        text.insert(0, "session " + std::to_string(logs.session) + ": ");
    }
    logs.logger.log(level, spdlog::string_view_t{text});
}

std::string timestamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%03ldZ", date, now.tv_nsec / 1'000'000);
    return text;
}

/* A field of the transfer log's text form: in quotes, with quotes and backslashes escaped. */
std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (const char c : clean_text(text)) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + '"';
}

std::string transfer_line(const transfer_record_t &record, bool json, std::uint64_t session)
{
    const auto text = [&](const char *key, const std::string &value) {
        return json ? "," + json_quoted(key) + ":" + json_quoted(clean_text(value))
                    : std::string{" "} + key + "=" + quoted(value);
    };
    const auto number = [&](const char *key, const std::string &value) {
        return json ? "," + json_quoted(key) + ":" + value : std::string{" "} + key + "=" + value;
    };
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f",
                  static_cast<double>(record.duration.count()) / 1000.0);
    std::string line = json ? "{\"time\":\"" + timestamp() + "\"" : timestamp();
    line += number("session", std::to_string(session));
    line += text("user", record.user) + text("client", record.client) + text("verb", record.verb);
    line += text("path", record.path) + number("bytes", std::to_string(record.bytes));
    line += number("seconds", seconds) + number("code", std::to_string(record.code));
    return line + (json ? "}\n" : "\n");
}

/* Throws std::runtime_error. */
unique_fd_t open_or_throw(const std::filesystem::path &file)
{
    unique_fd_t fd = open_for_append(file);
    if (!fd) {
        throw std::runtime_error(file.string() + ": cannot be opened: " + std::strerror(errno));
    }
    return fd;
}

} // namespace

static void log_assertion(const char *text)
{
    log_error("%.*s", static_cast<int>(std::strcspn(text, "\n")), text);
}

void open_logs(const log_config_t &config)
{
    logs_t &logs = all_logs();
    unique_fd_t file = config.file.empty() ? unique_fd_t{} : open_or_throw(config.file);
    logs.transfers =
        config.transfer_log.empty() ? unique_fd_t{} : open_or_throw(config.transfer_log);
    logs.sink->use(std::move(file));
    logs.config = config;
    set_format(logs);
    /* Without a file the text is on standard error already. */
    tirval_assertion_observe(config.file.empty() ? nullptr : log_assertion);
}

void reopen_logs()
{
    logs_t &logs = all_logs();
    if (!logs.config.file.empty()) {
        if (unique_fd_t file = open_for_append(logs.config.file)) {
            logs.sink->use(std::move(file));
        } else {
            log_error("%s: cannot be opened again: %s", logs.config.file.c_str(),
                      std::strerror(errno));
        }
    }
    if (!logs.config.transfer_log.empty()) {
        if (unique_fd_t file = open_for_append(logs.config.transfer_log)) {
            logs.transfers = std::move(file);
        } else {
            log_error("%s: cannot be opened again: %s", logs.config.transfer_log.c_str(),
                      std::strerror(errno));
        }
    }
}

void set_log_session(std::uint64_t session_id)
{
    all_logs().session = session_id;
}

void log_debug(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_text(spdlog::level::debug, format, arguments);
    va_end(arguments);
}

void log_info(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_text(spdlog::level::info, format, arguments);
    va_end(arguments);
}

void log_warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_text(spdlog::level::warn, format, arguments);
    va_end(arguments);
}

void log_error(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_text(spdlog::level::err, format, arguments);
    va_end(arguments);
}

bool log_enabled(log_level_t level)
{
    return level >= all_logs().config.level;
}

void flush_logs()
{
    all_logs().logger.flush();
}

void log_transfer(const transfer_record_t &record)
{
    const logs_t &logs = all_logs();
    if (!logs.transfers) {
        return;
    }
    const bool json = logs.config.format == log_format_t::json;
    const std::string line = transfer_line(record, json, logs.session);
    append(logs.transfers.get(), line.data(), line.size());
}

std::string clean_text(std::string_view text)
{
    std::string clean{text};
    for (char &c : clean) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            c = '?';
        }
    }
    return clean;
}

} // namespace tirval::server
