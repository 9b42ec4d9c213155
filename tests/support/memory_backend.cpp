/*
 * Plays the client of a storage from memory.  The thread that completes a registered read shares
 * only the client's data with the entry's thread; a lock guards it.
 */
#include "memory_backend.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

tirval_result_t put_reply(int code, const char *tag, const char *message)
{
    return tirval_error_put(
        tirval_gfs_ftp_response_error_construct(nullptr, nullptr, code, tag, "%s", message));
}

/* True when the operation was cancelled within the time; -1: without limit. */
bool cancelled_within(int milliseconds)
{
    pollfd cancel = {tirval_gfs_cancel_descriptor(), POLLIN, 0};
    return poll(&cancel, 1, milliseconds) == 1;
}

std::optional<std::string> optional_text(const char *text)
{
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

memory_record copy_record(const tirval_gridftp_server_control_stat_t &record)
{
    memory_record copy;
    copy.mode = record.mode;
    copy.nlink = record.nlink;
    copy.name = optional_text(record.name);
    copy.symlink_target = optional_text(record.symlink_target);
    copy.uid = record.uid;
    copy.gid = record.gid;
    copy.size = record.size;
    copy.atime = record.atime;
    copy.ctime = record.ctime;
    copy.mtime = record.mtime;
    copy.dev = record.dev;
    copy.ino = record.ino;
    return copy;
}

/* A test's function in the place of an entry. */
struct stand_in {
    const memory_backend::body &function;
    memory_backend &host;

    void call(tirval_gfs_operation_t op, const std::function<void()> &answer) const
    {
        function(op);
        if (host.answers == 0) {
            answer();
        }
    }
};

/* The start entry has no argument of the host's. */
thread_local const stand_in *start_stand_in = nullptr;

void start_entry(tirval_gfs_operation_t op, tirval_gfs_session_info_t *)
{
    start_stand_in->call(op, [op] {
        tirval_gridftp_server_finished_session_start(op, TIRVAL_SUCCESS, nullptr, nullptr, nullptr);
    });
}

void stat_entry(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *, void *user_arg)
{
    static_cast<const stand_in *>(user_arg)->call(
        op, [op] { tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, nullptr, 0); });
}

void command_entry(tirval_gfs_operation_t op, tirval_gfs_command_info_t *, void *user_arg)
{
    static_cast<const stand_in *>(user_arg)->call(
        op, [op] { tirval_gridftp_server_finished_command(op, TIRVAL_SUCCESS, nullptr); });
}

void transfer_entry(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *, void *user_arg)
{
    static_cast<const stand_in *>(user_arg)->call(
        op, [op] { tirval_gridftp_server_finished_transfer(op, TIRVAL_SUCCESS); });
}

tirval_gfs_storage_iface_t stand_in_iface()
{
    tirval_gfs_storage_iface_t table = {};
    table.init_func = start_entry;
    table.stat_func = stat_entry;
    table.command_func = command_entry;
    table.send_func = transfer_entry;
    table.recv_func = transfer_entry;
    return table;
}

} // namespace

memory_outcome memory_outcome::of(tirval_result_t result)
{
    memory_outcome outcome;
    outcome.given = true;
    outcome.result = result;
    if (result == TIRVAL_SUCCESS) {
        return outcome;
    }
    tirval_object_t *error = tirval_error_peek(result);
    char *text = tirval_error_print_chain(error);
    outcome.text = text != nullptr ? text : "";
    free(text);
    const char *tag = nullptr;
    const char *message = nullptr;
    tirval_gfs_ftp_response_error_get(error, &outcome.code, &tag, &message);
    outcome.tag = tag != nullptr ? tag : "";
    outcome.message = message != nullptr ? message : "";
    outcome.type = tirval_error_get_type(error);
    return outcome;
}

memory_backend::memory_backend(const tirval_gfs_storage_iface_t *storage_iface)
    : iface(storage_iface)
{
}

memory_backend::~memory_backend()
{
    end();
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

const tirval_gfs_backend_t *memory_backend::functions()
{
    static const tirval_gfs_backend_t table = [] {
        tirval_gfs_backend_t all = {};
        all.session_started = session_started;
        all.stat_records = stat_records;
        all.stat_finished = answered;
        all.command_progress = command_progress;
        all.command_finished = command_finished;
        all.transfer_finished = answered;
        all.config_data = config_data;
        all.checksum_support = [](void *host, const char *support) {
            self(host).checksum_support = support;
        };
        all.update_interval = [](void *host) { return self(host).update_interval; };
        all.modification_time = [](void *host) { return self(host).modification_time; };
        all.begin_transfer = begin_transfer;
        all.read_range = read_range;
        all.write_range = [](void *host, tirval_off_t *offset, tirval_off_t *length) {
            *offset = self(host).write_range.offset;
            *length = self(host).write_range.length;
        };
        all.send = send_block;
        all.flush = flush;
        all.receive = receive;
        all.receive_descriptor = receive_descriptor;
        all.stored_up_to = [](void *host, tirval_off_t offset) {
            self(host).stored_up_to.push_back(offset);
        };
        all.register_read = register_read;
        return all;
    }();
    return &table;
}

/* ---- Runs ---------------------------------------------------------------------------------- */

void memory_backend::forget()
{
    answer = {};
    answers = 0;
    username.reset();
    home_dir.reset();
    checksum_support.clear();
    config_asked.clear();
    records.clear();
    batches.clear();
    response.reset();
    progress.clear();
    begins = ranges_asked = flushes = receives = reads_registered = 0;
    sent.clear();
    sent_blocks.clear();
    stored_up_to.clear();
    received = 0;
    texts_.clear();
    next_range_ = 0;
    sent_total_ = 0;
}

bool memory_backend::finish_run()
{
    for (std::thread &reader : readers_) {
        reader.join();
    }
    readers_.clear();
    return answer.success();
}

bool memory_backend::start(const std::string &name)
{
    end();
    forget();
    tirval_gfs_session_info_t info = {name.c_str(), "127.0.0.1"};
    tirval_gfs_run_session_start(iface, &info, functions(), this);
    started_ = finish_run();
    return started_;
}

void memory_backend::end()
{
    if (started_) {
        started_ = false;
        tirval_gfs_run_session_end(iface, session);
    }
    session = nullptr;
}

bool memory_backend::stat(const std::string &path)
{
    forget();
    tirval_gfs_stat_info_t info = {true, path.c_str()};
    tirval_gfs_run_stat(iface, session, &info, functions(), this);
    return finish_run();
}

bool memory_backend::list(const std::string &path)
{
    forget();
    tirval_gfs_stat_info_t info = {false, path.c_str()};
    tirval_gfs_run_stat(iface, session, &info, functions(), this);
    return finish_run();
}

bool memory_backend::command(tirval_gfs_command_info_t info)
{
    forget();
    tirval_gfs_run_command(iface, session, &info, functions(), this);
    return finish_run();
}

bool memory_backend::command(tirval_gfs_command_type_t type, const std::string &path)
{
    tirval_gfs_command_info_t info = {};
    info.command = type;
    info.pathname = path.c_str();
    return command(info);
}

bool memory_backend::rename(const std::string &from, const std::string &to)
{
    tirval_gfs_command_info_t info = {};
    info.command = TIRVAL_GFS_CMD_RNTO;
    info.pathname = to.c_str();
    info.from_pathname = from.c_str();
    return command(info);
}

bool memory_backend::checksum(const std::string &path, const std::string &algorithm,
                              tirval_off_t offset, tirval_off_t length)
{
    tirval_gfs_command_info_t info = {};
    info.command = TIRVAL_GFS_CMD_CKSM;
    info.pathname = path.c_str();
    info.cksm_alg = algorithm.c_str();
    info.cksm_offset = offset;
    info.cksm_length = length;
    return command(info);
}

bool memory_backend::send(const std::string &path, tirval_off_t known_size)
{
    forget();
    tirval_gfs_transfer_info_t info = {path.c_str(), 0, false};
    tirval_gfs_run_send(iface, session, &info, known_size, functions(), this);
    return finish_run();
}

bool memory_backend::recv(const std::string &path)
{
    return recv(path, static_cast<tirval_off_t>(upload.size()));
}

bool memory_backend::recv(const std::string &path, tirval_off_t announced, bool truncate)
{
    forget();
    tirval_gfs_transfer_info_t info = {path.c_str(), announced, truncate};
    tirval_gfs_run_recv(iface, session, &info, functions(), this);
    return finish_run();
}

void memory_backend::in_start(const body &function)
{
    forget();
    const tirval_gfs_storage_iface_t table = stand_in_iface();
    stand_in storage = {function, *this};
    start_stand_in = &storage;
    tirval_gfs_session_info_t info = {"alice", nullptr};
    tirval_gfs_run_session_start(&table, &info, functions(), this);
    start_stand_in = nullptr;
    finish_run();
}

void memory_backend::in_stat(const body &function)
{
    forget();
    const tirval_gfs_storage_iface_t table = stand_in_iface();
    stand_in storage = {function, *this};
    tirval_gfs_stat_info_t info = {true, "/"};
    tirval_gfs_run_stat(&table, &storage, &info, functions(), this);
    finish_run();
}

void memory_backend::in_command(const body &function)
{
    forget();
    const tirval_gfs_storage_iface_t table = stand_in_iface();
    stand_in storage = {function, *this};
    tirval_gfs_command_info_t info = {};
    info.pathname = "/";
    tirval_gfs_run_command(&table, &storage, &info, functions(), this);
    finish_run();
}

void memory_backend::in_send(const body &function, tirval_off_t known_size)
{
    forget();
    const tirval_gfs_storage_iface_t table = stand_in_iface();
    stand_in storage = {function, *this};
    tirval_gfs_transfer_info_t info = {"/", 0, false};
    tirval_gfs_run_send(&table, &storage, &info, known_size, functions(), this);
    finish_run();
}

void memory_backend::in_recv(const body &function, tirval_off_t announced)
{
    forget();
    const tirval_gfs_storage_iface_t table = stand_in_iface();
    stand_in storage = {function, *this};
    tirval_gfs_transfer_info_t info = {"/", announced, true};
    tirval_gfs_run_recv(&table, &storage, &info, functions(), this);
    finish_run();
}

/* ---- Answers ------------------------------------------------------------------------------- */

void memory_backend::answered(void *host, tirval_result_t result)
{
    self(host).answer = memory_outcome::of(result);
    ++self(host).answers;
}

void memory_backend::session_started(void *host, tirval_result_t result, void *session,
                                     const char *username, const char *home_dir)
{
    answered(host, result);
    self(host).session = session;
    self(host).username = optional_text(username);
    self(host).home_dir = optional_text(home_dir);
}

void memory_backend::stat_records(void *host, const tirval_gridftp_server_control_stat_t *records,
                                  int count)
{
    memory_backend &client = self(host);
    client.batches.push_back(count);
    std::transform(records, records + count, std::back_inserter(client.records), copy_record);
}

void memory_backend::command_progress(void *host, const char *text)
{
    self(host).progress.emplace_back(text);
}

void memory_backend::command_finished(void *host, tirval_result_t result, const char *text)
{
    answered(host, result);
    self(host).response = optional_text(text);
}

char *memory_backend::config_data(void *host, const char *key)
{
    memory_backend &client = self(host);
    client.config_asked.emplace_back(key);
    std::optional<std::string> text;
    auto entry = client.config.find(key);
    if (client.on_config) {
        text = client.on_config(key);
    } else if (entry != client.config.end()) {
        text = entry->second;
    }
    if (!text.has_value()) {
        return nullptr;
    }
    client.texts_.push_back(std::move(*text));
    return client.texts_.back().data();
}

/* ---- Downloads ----------------------------------------------------------------------------- */

tirval_result_t memory_backend::begin_transfer(void *host)
{
    memory_backend &client = self(host);
    ++client.begins;
    if (client.on_begin) {
        client.on_begin();
    }
    return client.begin_fails ? put_reply(425, "CONNECTION_FAILED", "Can't open data connection.")
                              : TIRVAL_SUCCESS;
}

bool memory_backend::read_range(void *host, tirval_off_t *offset, tirval_off_t *length)
{
    memory_backend &client = self(host);
    ++client.ranges_asked;
    if (client.next_range_ >= client.ranges.size()) {
        return false;
    }
    const memory_range &range = client.ranges[client.next_range_++];
    *offset = range.offset;
    *length = range.length;
    return true;
}

tirval_result_t memory_backend::send_block(void *host, const void *data, tirval_size_t size,
                                           tirval_off_t offset)
{
    memory_backend &client = self(host);
    if (client.send_fails_after.has_value() &&
        client.sent_total_ + size > *client.send_fails_after) {
        return put_reply(426, "CONNECTION_BROKEN", "The data connection broke.");
    }
    client.sent_blocks.push_back(size);
    client.sent_total_ += size;
    bool follows =
        !client.sent.empty() &&
        client.sent.back().offset + static_cast<tirval_off_t>(client.sent.back().bytes.size()) ==
            offset;
    if (!follows) {
        client.sent.push_back({offset, {}});
    }
    client.sent.back().bytes.append(static_cast<const char *>(data), size);
    if (client.on_send) {
        client.on_send(client.sent_total_);
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t memory_backend::flush(void *host)
{
    memory_backend &client = self(host);
    ++client.flushes;
    return client.flush_fails ? put_reply(426, "CONNECTION_BROKEN", "The data connection broke.")
                              : TIRVAL_SUCCESS;
}

std::string memory_backend::sent_bytes() const
{
    std::string all;
    for (const memory_piece &piece : sent) {
        all += piece.bytes;
    }
    return all;
}

/* ---- Uploads ------------------------------------------------------------------------------- */

/* The lock must be held. */
size_t memory_backend::give(void *buffer, size_t capacity)
{
    size_t count = std::min(capacity, upload.size() - received);
    if (upload_chunk > 0) {
        count = std::min(count, upload_chunk);
    }
    if (count > 0) {
        memcpy(buffer, upload.data() + received, count);
    }
    received += count;
    return count;
}

/* Whether nothing will ever come.  The lock must be held. */
bool memory_backend::silent() const
{
    return received == upload.size() && !upload_ends;
}

/* Whether bytes, or the end, can be had without waiting.  The lock must be held. */
bool memory_backend::has_something_now() const
{
    return !silent() && (!unhurried.has_value() || received < *unhurried);
}

tirval_result_t memory_backend::receive(void *host, void *buffer, tirval_size_t capacity, bool wait,
                                        tirval_size_t *received, bool *would_block)
{
    memory_backend &client = self(host);
    if (wait && client.on_receive) {
        client.on_receive();
    }
    std::unique_lock<std::mutex> guard(client.lock_);
    ++client.receives;
    *received = 0;
    *would_block = false;
    if (client.receive_fails_after.has_value() && client.received >= *client.receive_fails_after) {
        return put_reply(426, "CONNECTION_BROKEN", "The data connection broke.");
    }
    if (!wait && !client.has_something_now()) {
        *would_block = true;
        return TIRVAL_SUCCESS;
    }
    if (client.silent()) {
        guard.unlock();
        cancelled_within(-1);
        return tirval_gfs_cancel_error();
    }
    size_t most = capacity;
    if (!wait && client.unhurried.has_value()) {
        most = std::min(most, *client.unhurried - client.received);
    }
    if (client.receive_fails_after.has_value()) {
        most = std::min(most, *client.receive_fails_after - client.received);
    }
    *received = client.give(buffer, most);
    return TIRVAL_SUCCESS;
}

int memory_backend::receive_descriptor(void *host)
{
    memory_backend &client = self(host);
    std::lock_guard<std::mutex> guard(client.lock_);
    if (client.descriptor_ < 0) {
        client.descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    eventfd_t count = 0;
    (void)eventfd_read(client.descriptor_, &count);
    if (client.has_something_now()) {
        (void)eventfd_write(client.descriptor_, 1);
    }
    return client.descriptor_;
}

tirval_result_t memory_backend::register_read(void *host, void *buffer, tirval_size_t length,
                                              tirval_gfs_read_done_t done, void *done_arg)
{
    memory_backend &client = self(host);
    if (client.reads == memory_read::refused) {
        return put_reply(426, "READ_REFUSED", "There is no data connection.");
    }
    ++client.reads_registered;
    client.readers_.emplace_back(&memory_backend::complete_read, &client, buffer, length, done,
                                 done_arg);
    if (client.on_register) {
        client.on_register();
    }
    return TIRVAL_SUCCESS;
}

/* On a thread of its own.  What it puts is released by it, as by any host outside of a run. */
void memory_backend::complete_read(void *buffer, tirval_size_t length, tirval_gfs_read_done_t done,
                                   void *done_arg)
{
    std::unique_lock<std::mutex> guard(lock_);
    bool for_ever = reads == memory_read::on_cancel || silent();
    guard.unlock();
    tirval_result_t result = TIRVAL_SUCCESS;
    int delay = reads == memory_read::late ? static_cast<int>(read_delay.count()) : 0;
    if (cancelled_within(for_ever ? -1 : delay)) {
        result = tirval_gfs_cancel_error();
    } else if (reads == memory_read::fails) {
        result = put_reply(426, "CONNECTION_BROKEN", "The data connection broke.");
    }
    guard.lock();
    auto offset = static_cast<tirval_off_t>(received);
    size_t count = result == TIRVAL_SUCCESS ? give(buffer, length) : 0;
    guard.unlock();
    done(done_arg, result, count, offset);
    tirval_object_free(tirval_error_get(result));
}
