/*
 * The border between the storage's C interface and the server's classes.
 */
#include "operation_host.h"

#include <exception>

namespace tirval::server {
namespace {

operation_host_t &host_of(void *host)
{
    return *static_cast<operation_host_t *>(host);
}

failure_t internal_failure(const std::exception &error)
{
    return make_failure(451, std::string("Internal error of the server, ") + error.what());
}

/* Calls `call`; an exception becomes the operation's failure and ends the operation soon. */
template <typename call_t> void guarded(operation_host_t &host, call_t call) noexcept
{
    try {
        call();
    } catch (const std::exception &error) {
        host.fail(internal_failure(error));
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
    }
}

template <typename call_t> tirval_result_t guarded_result(call_t call) noexcept
{
    try {
        return put_result(call());
    } catch (const std::exception &) {
        return TIRVAL_FAILURE;
    }
}

void take_session(void *host, tirval_result_t result, void *session, const char *,
                  const char *home_dir)
{
    guarded(host_of(host), [&] {
        host_of(host).finished(result);
        if (result == TIRVAL_SUCCESS) {
            host_of(host).session_started(session, home_dir);
        }
    });
}

void take_records(void *host, const record_t *records, int count)
{
    guarded(host_of(host), [&] {
        host_of(host).records({records, static_cast<std::size_t>(count)});
    });
}

void take_outcome(void *host, tirval_result_t result)
{
    guarded(host_of(host), [&] { host_of(host).finished(result); });
}

void take_command_outcome(void *host, tirval_result_t result, const char *response)
{
    guarded(host_of(host), [&] { host_of(host).respond(response == nullptr ? "" : response); });
    take_outcome(host, result);
}

void take_progress(void *host, const char *text)
{
    guarded(host_of(host), [&] { host_of(host).command_progress(text == nullptr ? "" : text); });
}

int give_update_interval(void *host)
{
    int seconds = 0;
    guarded(host_of(host), [&] { seconds = host_of(host).update_interval(); });
    return seconds;
}

time_t give_modification_time(void *host)
{
    time_t modified = -1;
    guarded(host_of(host), [&] { modified = host_of(host).modification_time(); });
    return modified;
}

char *give_setting(void *host, const char *key)
{
    char *text = nullptr;
    guarded(host_of(host), [&] { text = host_of(host).settings().setting(key); });
    return text;
}

void take_checksum_support(void *host, const char *support)
{
    guarded(host_of(host), [&] { host_of(host).settings().announce_checksums(support); });
}

tirval_result_t begin_transfer(void *host)
{
    return guarded_result([&] { return host_of(host).begin_transfer(); });
}

bool give_read_range(void *host, tirval_off_t *offset, tirval_off_t *length)
{
    bool more = false;
    guarded(host_of(host), [&] { more = host_of(host).read_range(*offset, *length); });
    return more;
}

tirval_result_t send_data(void *host, const void *data, tirval_size_t size, tirval_off_t)
{
    return guarded_result([&] {
        return host_of(host).send({static_cast<const char *>(data), size});
    });
}

tirval_result_t flush_data(void *host)
{
    return guarded_result([&] { return host_of(host).flush(); });
}

void give_write_range(void *host, tirval_off_t *offset, tirval_off_t *length)
{
    guarded(host_of(host), [&] { host_of(host).write_range(*offset, *length); });
}

tirval_result_t receive_data(void *host, void *buffer, tirval_size_t capacity, bool wait,
                             tirval_size_t *received, bool *would_block)
{
    return guarded_result([&] {
        return host_of(host).receive({static_cast<char *>(buffer), capacity}, wait, *received,
                                     *would_block);
    });
}

int give_receive_descriptor(void *host)
{
    int descriptor = -1;
    guarded(host_of(host), [&] { descriptor = host_of(host).receive_descriptor(); });
    return descriptor;
}

tirval_result_t register_read(void *host, void *buffer, tirval_size_t length,
                              tirval_gfs_read_done_t done, void *done_arg)
{
    return guarded_result([&] {
        return host_of(host).register_read({static_cast<char *>(buffer), length}, done, done_arg);
    });
}

void take_stored_up_to(void *host, tirval_off_t offset)
{
    guarded(host_of(host), [&] { host_of(host).stored_up_to(offset); });
}

tirval_gfs_backend_t make_backend()
{
    tirval_gfs_backend_t backend{};
    backend.session_started = take_session;
    backend.stat_records = take_records;
    backend.stat_finished = take_outcome;
    backend.command_progress = take_progress;
    backend.command_finished = take_command_outcome;
    backend.transfer_finished = take_outcome;
    backend.config_data = give_setting;
    backend.checksum_support = take_checksum_support;
    backend.update_interval = give_update_interval;
    backend.modification_time = give_modification_time;
    backend.begin_transfer = begin_transfer;
    backend.read_range = give_read_range;
    backend.send = send_data;
    backend.flush = flush_data;
    backend.write_range = give_write_range;
    backend.receive = receive_data;
    backend.receive_descriptor = give_receive_descriptor;
    backend.register_read = register_read;
    backend.stored_up_to = take_stored_up_to;
    return backend;
}

} // namespace

void operation_host_t::session_started(void *, std::string_view) {}
void operation_host_t::records(std::span<const record_t>) {}
std::optional<failure_t> operation_host_t::begin_transfer()
{
    return std::nullopt;
}
bool operation_host_t::read_range(tirval_off_t &, tirval_off_t &)
{
    return false;
}
std::optional<failure_t> operation_host_t::send(std::string_view)
{
    return std::nullopt;
}
std::optional<failure_t> operation_host_t::flush()
{
    return std::nullopt;
}
void operation_host_t::write_range(tirval_off_t &offset, tirval_off_t &length)
{
    offset = 0;
    length = -1;
}
std::optional<failure_t> operation_host_t::receive(std::span<char>, bool, std::size_t &received,
                                                   bool &would_block)
{
    received = 0;
    would_block = false;
    return std::nullopt;
}
int operation_host_t::receive_descriptor()
{
    return -1;
}
std::optional<failure_t> operation_host_t::register_read(std::span<char>, tirval_gfs_read_done_t,
                                                         void *)
{
    return make_failure(451, "There is no data to read");
}
void operation_host_t::stored_up_to(tirval_off_t) {}
void operation_host_t::command_progress(std::string_view) {}

void operation_host_t::finished(tirval_result_t result)
{
    if (result != TIRVAL_SUCCESS) {
        fail(describe_result(result, default_code()));
    }
}

void operation_host_t::fail(failure_t failure)
{
    if (!outcome_) {
        outcome_ = std::move(failure);
    }
}

const tirval_gfs_backend_t &operation_backend()
{
    static const tirval_gfs_backend_t backend = make_backend();
    return backend;
}

} // namespace tirval::server
