/*
 * Checksums by the storage's command, and by a download into the checksum engine.
 */
#include "checksum_run.h"

#include "commands.h"
#include "reply.h"
#include "vpath.h"

#include "tirval_dsi_rest.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tirval::server {
namespace {

using steady_t = std::chrono::steady_clock;

/* What a result of the checksum engine says; the result is released. */
std::optional<failure_t> take_failure(tirval_result_t result)
{
    if (result == TIRVAL_SUCCESS) {
        return std::nullopt;
    }
    failure_t failure = describe_result(result, 451);
    tirval_object_free(tirval_error_get(result));
    return failure;
}

struct free_text_t {
    void operator()(char *text) const { std::free(text); }
};

/* A checksum in the making. */
class digest_t {
  public:
    explicit digest_t(const std::string &algorithm)
        : failure_(take_failure(tirval_gfs_checksum_init(algorithm.c_str(), &checksum_)))
    {
    }
    ~digest_t()
    {
        if (checksum_ != nullptr) {
            char *text = nullptr;
            tirval_object_free(tirval_error_get(tirval_gfs_checksum_finalize(checksum_, &text)));
            std::free(text);
        }
    }
    digest_t(const digest_t &) = delete;
    digest_t &operator=(const digest_t &) = delete;

    std::optional<failure_t> update(std::string_view data)
    {
        if (!failure_) {
            failure_ =
                take_failure(tirval_gfs_checksum_update(checksum_, data.data(), data.size()));
        }
        return failure_;
    }

    /* To be called once. */
    std::variant<std::string, failure_t> finish()
    {
        if (failure_) {
            return *failure_;
        }
        char *text = nullptr;
        failure_ =
            take_failure(tirval_gfs_checksum_finalize(std::exchange(checksum_, nullptr), &text));
        const std::unique_ptr<char, free_text_t> owner(text);
        if (failure_) {
            return *failure_;
        }
        return std::string(text);
    }
    const std::optional<failure_t> &failure() const { return failure_; }

  private:
    tirval_gfs_checksum_t checksum_ = nullptr;
    std::optional<failure_t> failure_;
};

/* Sends the status markers of a running checksum (GFD.47). */
class markers_t {
  public:
    markers_t(operation_context_t &context, std::chrono::seconds interval)
        : context_(context), interval_(interval), due_(steady_t::now() + interval)
    {
    }

    void tell(std::int64_t bytes)
    {
        if (interval_.count() == 0) {
            return;
        }
        const std::chrono::duration<double> now =
            std::chrono::system_clock::now().time_since_epoch();
        std::array<char, 32> seconds{};
        (void)std::snprintf(seconds.data(), seconds.size(), "%.1f", now.count());
        context_.announce(body_reply(113, "Status Marker",
                                     {std::string("Timestamp: ") + seconds.data(),
                                      "Bytes Processed: " + std::to_string(bytes)},
                                     "End."));
    }

    void tell_when_due(std::int64_t bytes)
    {
        if (interval_.count() > 0 && steady_t::now() >= due_) {
            tell(bytes);
            due_ = steady_t::now() + interval_;
        }
    }

  private:
    operation_context_t &context_;
    std::chrono::seconds interval_;
    steady_t::time_point due_;
};

/* The other side of the storage's command; the storage keeps the interval itself. */
class storage_checksum_host_t final : public operation_host_t {
  public:
    storage_checksum_host_t(operation_context_t &context, std::chrono::seconds interval)
        : operation_host_t(context.storage.settings()), interval_(interval),
          markers_(context, interval)
    {
    }
    int update_interval() override { return static_cast<int>(interval_.count()); }
    void command_progress(std::string_view text) override
    {
        if (const auto bytes = parse_number(text)) {
            markers_.tell(*bytes);
        }
    }

  private:
    std::chrono::seconds interval_;
    markers_t markers_;
};

/* The other side of a download that goes into the checksum engine. */
class part_checksum_host_t final : public operation_host_t {
  public:
    part_checksum_host_t(operation_context_t &context, const checksum_request_t &request,
                         digest_t &digest)
        : operation_host_t(context.storage.settings()), request_(request), digest_(digest),
          markers_(context, request.marker_interval)
    {
    }

    bool read_range(tirval_off_t &offset, tirval_off_t &length) override
    {
        offset = request_.offset;
        length = request_.length;
        return !std::exchange(range_given_, true);
    }

    std::optional<failure_t> send(std::string_view data) override
    {
        auto failure = digest_.update(data);
        bytes_ += static_cast<std::int64_t>(data.size());
        markers_.tell_when_due(bytes_);
        return failure;
    }

    bool is_whole() const { return request_.length == -1 || bytes_ == request_.length; }

  private:
    const checksum_request_t &request_;
    digest_t &digest_;
    markers_t markers_;
    std::int64_t bytes_ = 0;
    bool range_given_ = false;
};

/* Sees to it that the storage does not answer with the same checksum again.  Its record of the file
 * is renewed by a listing where the session cannot be opened anew. */
void forget_checksum(storage_session_t &storage, const std::string &path)
{
    storage.distrust();
    const bool renewed =
        !storage.keeps_store() ||
        !storage.list(parent_path(path), [](const item_t &, std::string_view, entry_kind_t) {});
    if (!renewed) {
        storage.open();
    }
}

std::variant<std::string, failure_t> checksum_by_storage(operation_context_t &context,
                                                         const checksum_request_t &request)
{
    tirval_gfs_command_info_t info{};
    info.command = TIRVAL_GFS_CMD_CKSM;
    info.pathname = request.path.c_str();
    info.cksm_offset = 0;
    info.cksm_length = -1;
    info.cksm_alg = request.algorithm.c_str();
    storage_checksum_host_t host(context, request.marker_interval);
    if (auto failure = context.storage.command(info, host)) {
        return std::move(*failure);
    }
    /* A refused download without a body looks like one of nothing to the storage. */
    const int status = tirval_dsi_rest_last_status();
    const bool asked = status != 0;
    if (asked && status / 100 != 2) {
        forget_checksum(context.storage, request.path);
        return make_failure(451, "The storage service did not deliver the file's content");
    }
    if (host.response().empty()) {
        return make_failure(451, "Storage gave no checksum");
    }
    return host.response();
}

std::variant<std::string, failure_t> checksum_by_download(operation_context_t &context,
                                                          const checksum_request_t &request)
{
    digest_t digest(request.algorithm);
    if (digest.failure() || request.length == 0) {
        return digest.finish();
    }
    part_checksum_host_t host(context, request, digest);
    if (auto failure = context.storage.send(request.path, -1, host)) {
        return std::move(*failure);
    }
    if (!host.is_whole()) {
        context.storage.distrust(); /* the file has become shorter than the storage remembers */
        return make_failure(451, "The file ended before the range did");
    }
    return digest.finish();
}

} // namespace

std::variant<std::string, failure_t> run_checksum(operation_context_t &context,
                                                  const checksum_request_t &request)
{
    checksum_request_t part = request;
    if (request.length == -1 && request.offset > 0 && request.offset == request.size) {
        part.length = 0;
    }
    const bool whole =
        part.offset == 0 && part.length != 0 && (part.length == -1 || part.length == part.size);
    return whole ? checksum_by_storage(context, request) : checksum_by_download(context, part);
}

} // namespace tirval::server
