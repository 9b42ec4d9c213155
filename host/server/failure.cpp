/*
 * Reads chains of error objects.  Clients differ in what they show of a reply, so the last line
 * alone must make sense, and everything before it is detail.
 */
#include "failure.h"

#include "reply.h"

#include "tirval_gridftp_server.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>

namespace tirval::server {
namespace {

/* More would be a listing of its own; a chain that long tells nothing to a person. */
constexpr std::size_t max_detail_lines = 40;

struct known_tag_t {
    std::string_view tag;
    std::string_view reason;
};

/* Some grid clients look for the words of the first entry. */
constexpr std::array known_tags = {
    known_tag_t{"PATH_NOT_FOUND", "No such file or directory"},
    known_tag_t{"PERMISSION_DENIED", "Permission denied"},
    known_tag_t{"NOT_A_DIRECTORY", "Not a directory"},
    known_tag_t{"IS_A_DIRECTORY", "Is a directory"},
    known_tag_t{"PATH_EXISTS", "File exists"},
    known_tag_t{"INVALID_PATH_NAME", "Name not allowed"},
    known_tag_t{"QUOTA_EXCEEDED", "Quota exceeded"},
    known_tag_t{"TOO_BUSY", "The storage service is busy, try again later"},
    known_tag_t{"APPEND_NOT_SUPPORTED", "Files cannot be appended to"},
    known_tag_t{"INCORRECT_CHECKSUM", "The checksum does not match"},
    known_tag_t{"INTERNAL_ERROR", "The storage met an internal error"},
};

struct free_text_t {
    void operator()(char *text) const { std::free(text); }
};
using text_t = std::unique_ptr<char, free_text_t>;

/* Cuts each http or https address behind its host. */
std::string without_addresses(std::string_view text)
{
    std::string clean;
    for (;;) {
        const std::size_t scheme = text.find("://");
        if (scheme == std::string_view::npos) {
            return clean.append(text);
        }
        const std::size_t host = scheme + 3;
        const std::size_t host_end = std::min(text.find_first_of("/?# \t\"'<>", host), text.size());
        const std::size_t end = std::min(text.find_first_of(" \t\"'<>", host_end), text.size());
        clean.append(text.substr(0, host_end));
        clean.append(end > host_end ? "/..." : "");
        text.remove_prefix(end);
    }
}

void add_lines(failure_t &failure, const char *text)
{
    std::string_view rest = text == nullptr ? "" : text;
    while (!rest.empty() && failure.lines.size() < max_detail_lines) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string line(rest.substr(0, end));
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
        if (!line.empty()) {
            failure.lines.push_back(without_addresses(line));
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
}

std::string reason_of(const failure_t &failure)
{
    for (const known_tag_t &known : known_tags) {
        if (known.tag == failure.tag) {
            return std::string(known.reason);
        }
    }
    return failure.lines.empty() ? "Storage reported an error" : failure.lines.front();
}

} // namespace

failure_t make_failure(int code, std::string_view reason)
{
    return {.code = code, .tag = {}, .lines = {}, .reason = std::string(reason)};
}

failure_t describe_result(tirval_result_t result, int default_code)
{
    tirval_object_t *error = tirval_error_peek(result);
    if (error == nullptr) {
        return make_failure(default_code, "Storage reported an unknown error");
    }
    failure_t failure{.code = default_code, .tag = {}, .lines = {}, .reason = {}};
    bool answered = false; /* the reply's code and tag are found */
    for (; error != nullptr; error = tirval_error_get_cause(error)) {
        int code = 0;
        const char *tag = nullptr;
        const char *message = nullptr;
        if (!answered && tirval_gfs_ftp_response_error_get(error, &code, &tag, &message)) {
            answered = true;
            failure.code = code >= 400 && code <= 599 ? code : default_code;
            failure.tag = tag == nullptr ? "" : tag;
            add_lines(failure, message);
        } else {
            add_lines(failure, text_t(tirval_error_print(error)).get());
        }
    }
    failure.reason = reason_of(failure);
    return failure;
}

tirval_result_t put_result(const std::optional<failure_t> &failure)
{
    if (!failure) {
        return TIRVAL_SUCCESS;
    }
    return tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, nullptr, failure->code, failure->tag.empty() ? nullptr : failure->tag.c_str(),
        "%s", failure->reason.c_str()));
}

std::string failure_reply(const failure_t &failure, std::string_view subject)
{
    std::vector<std::string> lines;
    if (!failure.tag.empty()) {
        lines.push_back("GridFTP-Reason: " + failure.tag);
    }
    lines.insert(lines.end(), failure.lines.begin(), failure.lines.end());
    std::string last = failure.reason;
    if (!subject.empty()) {
        last += ": ";
        last += subject;
    }
    return multi_line_reply(failure.code, lines, last);
}

} // namespace tirval::server
