/*
 * The entries of the storage in memory.  They answer as plug-ins do: through the host's functions,
 * exactly once, with records that they free right after.
 */
#include "fake_storage.h"

#include "fake_change.h"
#include "fake_store.h"

#include "tirval_gfs_stream.h"
#include "vpath.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <set>
#include <sstream>

namespace tirval::tests {

tirval_result_t put(const fake_error_t &error)
{
    const char *message = error.message.c_str();
    if (error.code == 0) {
        return tirval_error_put(
            tirval_error_construct_error(nullptr, nullptr, TIRVAL_ERROR_TYPE_SERVICE_ANSWER,
                                         "fake_storage", "put", 1, "%s", message));
    }
    return tirval_error_put(
        tirval_gfs_ftp_response_error_construct(nullptr, nullptr, error.code, error.tag.c_str(),
                                                *message == '\0' ? nullptr : "%s", message));
}

namespace {

fake_storage_t *current = nullptr;

constexpr int batch_records = 100;
constexpr std::size_t block_bytes = 16384;

struct fake_session_t {
    std::set<std::string> missing; /* once missing, always missing */
    fake_uploads_t uploads;
};

tirval_result_t not_found(const std::string &path)
{
    return put({550, "PATH_NOT_FOUND", "GridFTP-Path: \"" + path + "\""});
}

void check_path(const char *path)
{
    if (!server::is_canonical_path(path)) {
        ++current->shared->paths_not_canonical;
    }
}

void wait_until_cancelled()
{
    while (tirval_gfs_cancelled() == TIRVAL_GFS_CANCEL_NONE) {
        usleep(1000);
    }
}

const fake_node_t *find(fake_session_t &session, const std::string &path)
{
    const auto found = current->nodes.find(path);
    if (found == current->nodes.end() || session.missing.contains(path) ||
        (found->second.hidden && !current->shared->reveal)) {
        session.missing.insert(path);
        return nullptr;
    }
    return &found->second;
}

std::int64_t size_of(const fake_node_t &node)
{
    return node.size >= 0 ? node.size : static_cast<std::int64_t>(node.content.size());
}

tirval_gridftp_server_control_stat_t make_record(const fake_node_t &node, const std::string &name)
{
    tirval_gridftp_server_control_stat_t record{};
    record.mode = node.folder ? S_IFDIR | 0700U : S_IFREG | 0700U;
    record.nlink = 1;
    record.name = strdup(name.c_str());
    record.size = node.folder ? 0 : size_of(node);
    record.mtime = record.atime = record.ctime = node.modified;
    return record;
}

/* Collects records and gives them away in batches. */
class batches_t {
  public:
    explicit batches_t(tirval_gfs_operation_t op) : op_(op) {}
    ~batches_t() { clear(); }
    batches_t(const batches_t &) = delete;
    batches_t &operator=(const batches_t &) = delete;

    void add(const fake_node_t &node, const std::string &name)
    {
        records_.push_back(make_record(node, name));
        if (records_.size() == batch_records) {
            ++delivered_;
            tirval_gridftp_server_finished_stat_partial(op_, TIRVAL_SUCCESS, records_.data(),
                                                        batch_records);
            clear();
        }
    }
    int delivered() const { return delivered_; }
    void finish(tirval_result_t result)
    {
        tirval_gridftp_server_finished_stat(op_, result, records_.data(),
                                            static_cast<int>(records_.size()));
    }

  private:
    void clear()
    {
        for (auto &record : records_) {
            std::free(record.name);
        }
        records_.clear();
    }

    tirval_gfs_operation_t op_;
    std::vector<tirval_gridftp_server_control_stat_t> records_;
    int delivered_ = 0;
};

void note_settings(tirval_gfs_operation_t op, const std::string &credential)
{
    const auto holds = [&](const char *text) { return credential.find(text) != std::string::npos; };
    current->shared->credential_is_clean = holds("\"access_token\"") && holds("\"sub\"") &&
                                           holds("\"token_expiry\"") && !holds("refresh");
    char *policy = nullptr;
    tirval_gridftp_server_get_config_data(op, "config", &policy);
    current->shared->policy_given = policy != nullptr;
    char *unknown = policy;
    tirval_gridftp_server_get_config_data(op, "no such key", &unknown);
    TIRVAL_ASSERT(unknown == nullptr);
}

void start(tirval_gfs_operation_t op, tirval_gfs_session_info_t *)
{
    ++current->shared->starts;
    if (current->start_hangs) {
        wait_until_cancelled();
        sleep(1);
    }
    if (current->wants_credential) {
        char *credential = nullptr;
        tirval_gridftp_server_get_config_data(op, "creds", &credential);
        if (credential == nullptr) {
            const auto result = put({0, "", "Error loading user credential: wrong arguments\n"});
            tirval_gridftp_server_finished_session_start(op, result, nullptr, nullptr, nullptr);
            return;
        }
        note_settings(op, credential);
    }
    if (!current->checksum_support.empty()) {
        TIRVAL_ASSERT(tirval_gridftp_server_set_checksum_support(
                          op, current->checksum_support.c_str()) == TIRVAL_SUCCESS);
    }
    if (!current->start_error.message.empty()) {
        tirval_gridftp_server_finished_session_start(op, put(current->start_error), nullptr,
                                                     nullptr, nullptr);
        return;
    }
    tirval_gridftp_server_finished_session_start(op, TIRVAL_SUCCESS, new fake_session_t, nullptr,
                                                 "/My files");
}

void destroy(void *session)
{
    ++current->shared->ends;
    delete static_cast<fake_session_t *>(session);
}

void stat_single(tirval_gfs_operation_t op, const std::string &path, fake_session_t &session)
{
    ++current->shared->stats;
    const auto error = current->stat_errors.find(path);
    if (error != current->stat_errors.end()) {
        tirval_gridftp_server_finished_stat(op, put(error->second), nullptr, 0);
        return;
    }
    const fake_node_t *node = find(session, path);
    if (node == nullptr) {
        tirval_gridftp_server_control_stat_t nothing{};
        tirval_gridftp_server_finished_stat(op, not_found(path), &nothing, 1);
        return;
    }
    auto record = make_record(*node, path);
    record.size = node->size_told >= 0 ? node->size_told : record.size;
    tirval_gridftp_server_finished_stat(op, TIRVAL_SUCCESS, &record, 1);
    std::free(record.name);
}

/* What a listing shows is not missing any more. */
void add_children(batches_t &batches, const std::string &path, fake_session_t &session)
{
    for (const auto &[child, node] : current->nodes) {
        if (child != "/" && server::parent_path(child) == path &&
            (!node.hidden || current->shared->reveal)) {
            session.missing.erase(child);
            batches.add(node, std::string(server::base_name(child)));
        }
    }
}

void stat_folder(tirval_gfs_operation_t op, const std::string &path, fake_session_t &session)
{
    ++current->shared->lists;
    batches_t batches(op);
    const fake_node_t *node = find(session, path);
    if (node == nullptr) {
        batches.finish(not_found(path));
        return;
    }
    if (node->list == fake_list_t::fail_at_once) {
        batches.finish(put({0, "", "listing failed"}));
        return;
    }
    batches.add(*node, ".");
    int n = 0;
    fake_node_t generated;
    while (node->list == fake_list_t::endless ||
           (node->list == fake_list_t::fail_after_two_batches && batches.delivered() < 2)) {
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            batches.finish(tirval_gfs_cancel_error());
            return;
        }
        batches.add(generated, "item" + std::to_string(n++));
    }
    if (node->list == fake_list_t::fail_after_two_batches) {
        batches.finish(put({550, "PERMISSION_DENIED", "the next page was refused"}));
        return;
    }
    for (const std::string &name : node->odd_names) {
        batches.add(generated, name);
    }
    add_children(batches, path, session);
    batches.finish(TIRVAL_SUCCESS);
}

void stat(tirval_gfs_operation_t op, tirval_gfs_stat_info_t *info, void *user_arg)
{
    check_path(info->pathname);
    auto &session = *static_cast<fake_session_t *>(user_arg);
    if (info->file_only) {
        stat_single(op, info->pathname, session);
    } else {
        stat_folder(op, info->pathname, session);
    }
}

std::string block_of(const fake_node_t &node, std::int64_t offset, std::int64_t end)
{
    const auto bytes = std::min<std::int64_t>(block_bytes, end - offset);
    if (node.size < 0) {
        return node.content.substr(static_cast<std::size_t>(offset),
                                   static_cast<std::size_t>(bytes));
    }
    std::string block(static_cast<std::size_t>(bytes), '\0');
    for (std::size_t n = 0; n < block.size(); ++n) {
        block[n] = fake_byte(offset + static_cast<std::int64_t>(n));
    }
    return block;
}

/* Delivers the bytes from `offset` to `end`. */
tirval_result_t deliver(tirval_gfs_operation_t op, const fake_node_t &node, std::int64_t offset,
                        std::int64_t end)
{
    while (offset < end) {
        const std::string block = block_of(node, offset, end);
        const auto result = tirval_gfs_stream_write(op, block.data(), block.size());
        if (result != TIRVAL_SUCCESS) {
            return result;
        }
        offset += static_cast<std::int64_t>(block.size());
    }
    return TIRVAL_SUCCESS;
}

tirval_result_t send_range(tirval_gfs_operation_t op, const fake_node_t &node, std::int64_t offset,
                           std::int64_t length)
{
    auto result = tirval_gfs_stream_open_write(op, offset, length);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    const std::int64_t size = size_of(node);
    const std::int64_t end = length < 0 ? size : std::min(size, offset + length);
    switch (node.send) {
    case fake_send_t::fail_after_some:
        (void)deliver(op, node, offset, std::min<std::int64_t>(end, offset + 1000));
        (void)tirval_gfs_stream_close_write(op, false);
        return put({0, "", "the service broke off at https://cdn.example.org/secret?sig=abc"});
    case fake_send_t::short_of_announced:
        (void)deliver(op, node, offset, end / 2);
        return tirval_gfs_stream_close_write(op, false);
    case fake_send_t::repeated:
        (void)deliver(op, node, offset, offset + (end - offset) / 2);
        (void)tirval_gfs_stream_close_write(op, false);
        result = tirval_gfs_stream_open_write(op, offset, length);
        TIRVAL_ASSERT(result == TIRVAL_SUCCESS);
        break;
    case fake_send_t::until_cancelled:
        while (result == TIRVAL_SUCCESS) {
            result = tirval_gfs_stream_write(op, "x", 1);
            usleep(100);
        }
        return result;
    case fake_send_t::silent_until_cancelled:
        wait_until_cancelled();
        return tirval_gfs_cancel_error();
    case fake_send_t::deaf_sleep:
        current->shared->sleeping = true;
        sleep(1);
        current->shared->sleeping = false;
        break;
    default:
        break;
    }
    result = deliver(op, node, offset, end);
    return result != TIRVAL_SUCCESS ? result : tirval_gfs_stream_close_write(op, true);
}

void send(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info, void *user_arg)
{
    ++current->shared->sends;
    check_path(info->pathname);
    const fake_node_t *node = find(*static_cast<fake_session_t *>(user_arg), info->pathname);
    if (node == nullptr) {
        tirval_gridftp_server_finished_transfer(op, not_found(info->pathname));
        return;
    }
    if (node->send == fake_send_t::fail_before_begin) {
        tirval_gridftp_server_finished_transfer(
            op, put({550, "PERMISSION_DENIED", "the service refused"}));
        return;
    }
    if (node->send == fake_send_t::success_without_begin) {
        tirval_gridftp_server_finished_transfer(op, TIRVAL_SUCCESS);
        return;
    }
    tirval_gridftp_server_begin_transfer(op, 0, nullptr);
    tirval_result_t result = TIRVAL_SUCCESS;
    while (result == TIRVAL_SUCCESS) {
        tirval_off_t offset = 0;
        tirval_off_t length = 0;
        tirval_gridftp_server_get_read_range(op, &offset, &length);
        if (length == 0) {
            break;
        }
        current->shared->send_offset = offset;
        current->shared->send_length = length;
        result = send_range(op, *node, offset, length);
        if (length == -1) {
            break;
        }
    }
    tirval_gridftp_server_finished_transfer(op, result);
}

void report_progress(tirval_gfs_operation_t op, const fake_node_t &node)
{
    int interval = 0;
    tirval_gridftp_server_get_update_interval(op, &interval);
    for (const std::int64_t bytes : node.checksum_progress) {
        if (interval > 0) {
            tirval_gridftp_server_intermediate_command(op, TIRVAL_SUCCESS,
                                                       std::to_string(bytes).c_str());
        }
    }
}

void checksum(tirval_gfs_operation_t op, const tirval_gfs_command_info_t &info,
              const fake_node_t &node)
{
    ++current->shared->checksums;
    current->shared->checksum_offset = info.cksm_offset;
    current->shared->checksum_length = info.cksm_length;
    report_progress(op, node);
    switch (node.checksum) {
    case fake_checksum_t::fail:
        tirval_gridftp_server_finished_command(op, put({451, "TOO_BUSY", "busy"}), nullptr);
        return;
    case fake_checksum_t::silent_until_cancelled:
        wait_until_cancelled();
        tirval_gridftp_server_finished_command(op, tirval_gfs_cancel_error(), nullptr);
        return;
    case fake_checksum_t::wait:
        while (!current->shared->proceed) {
            usleep(1000);
        }
        break;
    case fake_checksum_t::as_told:
        break;
    }
    const auto asked = static_cast<std::size_t>(current->shared->checksums);
    if (asked <= node.checksum_statuses.size()) {
        meet_status(node.checksum_statuses[asked - 1]);
    }
    const auto text = node.checksums.find(info.cksm_alg);
    tirval_gridftp_server_finished_command(
        op, TIRVAL_SUCCESS, text == node.checksums.end() ? nullptr : text->second.c_str());
}

void command(tirval_gfs_operation_t op, tirval_gfs_command_info_t *info, void *user_arg)
{
    check_path(info->pathname);
    auto &session = *static_cast<fake_session_t *>(user_arg);
    if (info->command != TIRVAL_GFS_CMD_CKSM) {
        const auto result = fake_change(*info, *current, session.missing);
        tirval_gridftp_server_finished_command(op, result, nullptr);
        return;
    }
    const fake_node_t *node = find(session, info->pathname);
    if (node != nullptr) {
        checksum(op, *info, *node);
    } else {
        tirval_gridftp_server_finished_command(op, not_found(info->pathname), nullptr);
    }
}

void recv(tirval_gfs_operation_t op, tirval_gfs_transfer_info_t *info, void *user_arg)
{
    check_path(info->pathname);
    auto &session = *static_cast<fake_session_t *>(user_arg);
    const fake_node_t *parent = find(session, server::parent_path(info->pathname));
    const auto result = parent == nullptr ? not_found(info->pathname)
                                          : fake_store(op, *info, *current, session.uploads);
    if (current->nodes.contains(info->pathname)) {
        session.missing.erase(info->pathname);
    }
    tirval_gridftp_server_finished_transfer(op, result);
}

} // namespace

fake_storage_t::fake_storage_t()
{
    void *memory =
        mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    shared = new (memory) fake_storage_shared_t;
    add_folder("/");
    add_folder("/My files");
    current = this;
}

fake_storage_t::~fake_storage_t()
{
    munmap(shared, sizeof *shared);
}

fake_node_t &fake_storage_t::add_folder(const std::string &path)
{
    fake_node_t &node = nodes[path];
    node.folder = true;
    return node;
}

fake_node_t &fake_storage_t::add_file(const std::string &path, const std::string &content)
{
    fake_node_t &node = nodes[path];
    node.content = content;
    node.modified = 1705321800; /* 2024-01-15 12:30:00 */
    return node;
}

fake_node_t &fake_storage_t::add_generated(const std::string &path, std::int64_t size)
{
    fake_node_t &node = add_file(path, "");
    node.size = size;
    return node;
}

std::vector<std::string> fake_storage_t::commands() const
{
    std::istringstream text(std::string(shared->commands.data(), shared->commands_size));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

char fake_byte(std::int64_t offset)
{
    return static_cast<char>((offset * 31 + (offset >> 12) * 7) & 0xFF);
}

const tirval_gfs_storage_iface_t &fake_storage_interface()
{
    static tirval_gfs_storage_iface_t interface = [] {
        tirval_gfs_storage_iface_t table{};
        table.init_func = start;
        table.destroy_func = destroy;
        table.stat_func = stat;
        table.send_func = send;
        table.recv_func = recv;
        table.command_func = command;
        return table;
    }();
    interface.descriptor = current->descriptor;
    return interface;
}

} // namespace tirval::tests
