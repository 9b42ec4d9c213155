/*
 * Reads the client's data as plug-ins do: bodies from the operation's stream, and at last one byte
 * by a registered read, which must find the end.
 */
#include "fake_store.h"

#include "fake_change.h"

#include "tirval_gfs_stream.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace tirval::tests {
namespace {

/* Waits once, as storages do, for a read that another thread completes. */
struct probe_t {
    std::mutex lock;
    std::condition_variable completed;
    tirval_result_t result = TIRVAL_SUCCESS;
};

void note_probe(tirval_gfs_operation_t, tirval_result_t result, tirval_byte_t *, tirval_size_t,
                tirval_off_t, bool eof, void *user_arg)
{
    auto *probe = static_cast<probe_t *>(user_arg);
    const std::lock_guard<std::mutex> guard(probe->lock);
    const bool surplus = result == TIRVAL_SUCCESS && !eof;
    probe->result = surplus ? put({451, "QUOTA_EXCEEDED", "Too much data was sent."}) : result;
    probe->completed.notify_one();
}

tirval_result_t expect_end(tirval_gfs_operation_t op, fake_storage_t &storage)
{
    if (tirval_gfs_stream_at_end(op)) {
        return TIRVAL_SUCCESS;
    }
    ++storage.shared->probes;
    probe_t probe;
    tirval_byte_t scratch = 0;
    std::unique_lock<std::mutex> guard(probe.lock);
    const auto registered =
        tirval_gridftp_server_register_read(op, &scratch, 1, note_probe, &probe);
    if (registered != TIRVAL_SUCCESS) {
        return registered;
    }
    probe.completed.wait(guard);
    return probe.result;
}

tirval_result_t read_body(tirval_gfs_operation_t op, std::int64_t offset, std::int64_t length,
                          std::string &data)
{
    auto result = tirval_gfs_stream_open_read(op, offset, length);
    std::string block(16384, '\0');
    while (result == TIRVAL_SUCCESS) {
        tirval_size_t count = 0;
        result = tirval_gfs_stream_read(op, block.data(), block.size(), &count);
        if (count == 0) {
            break;
        }
        data.append(block, 0, count);
    }
    return result;
}

/* Whether the part from `offset` is to fail this time. */
bool fails_at(fake_store_plan_t &plan, std::int64_t offset)
{
    const auto found = std::find(plan.fail_at.begin(), plan.fail_at.end(), offset);
    if (found == plan.fail_at.end()) {
        return false;
    }
    plan.fail_at.erase(found);
    return true;
}

tirval_result_t store_parts(tirval_gfs_operation_t op, std::int64_t offset, std::int64_t size,
                            fake_store_plan_t &plan, std::string &stored)
{
    const std::int64_t limit = size <= fake_small_bytes ? fake_small_bytes : fake_part_bytes;
    do {
        std::string part;
        const auto result = read_body(op, offset, std::min(limit, size - offset), part);
        if (result != TIRVAL_SUCCESS) {
            return result;
        }
        if (fails_at(plan, offset)) {
            return put(plan.part_error);
        }
        stored += part;
        offset += static_cast<std::int64_t>(part.size());
    } while (offset < size);
    return TIRVAL_SUCCESS;
}

/* What a store may not begin with. */
tirval_result_t check_start(const tirval_gfs_transfer_info_t &info, std::int64_t offset,
                            fake_uploads_t &uploads)
{
    const bool in_parts = info.alloc_size > fake_small_bytes;
    const bool known = uploads.contains(info.pathname);
    if (!in_parts) {
        return offset == 0 ? TIRVAL_SUCCESS : put({553, "APPEND_NOT_SUPPORTED", ""});
    }
    if (info.truncate) {
        return known ? put({0, "", "Failed cache update!"}) : TIRVAL_SUCCESS;
    }
    if (!known) {
        return put({553, "MULTI_PART_UPLOAD_NOT_FOUND", ""});
    }
    const bool at_part = offset % fake_part_bytes == 0 &&
                         offset <= static_cast<std::int64_t>(uploads[info.pathname].size());
    return at_part ? TIRVAL_SUCCESS : put({553, "APPEND_NOT_SUPPORTED", ""});
}

void note_start(fake_storage_shared_t &shared, const tirval_gfs_transfer_info_t &info,
                std::int64_t offset)
{
    ++shared.recvs;
    shared.store_size = info.alloc_size;
    shared.store_truncates = info.truncate;
    shared.store_offset = offset;
}

tirval_result_t complete(tirval_gfs_operation_t op, const char *path, std::string content,
                         fake_storage_t &storage)
{
    ++storage.shared->stores;
    time_t modified = 0;
    (void)tirval_gridftp_server_get_recv_modification_time(op, &modified);
    storage.shared->store_modified = modified;
    fake_node_t &node = storage.add_file(path, content);
    node.size = -1;
    if (modified != -1) {
        node.modified = modified;
    }
    return expect_end(op, storage);
}

} // namespace

tirval_result_t fake_store(tirval_gfs_operation_t op, const tirval_gfs_transfer_info_t &info,
                           fake_storage_t &storage, fake_uploads_t &uploads)
{
    tirval_off_t offset = 0;
    tirval_off_t length = 0;
    tirval_gridftp_server_get_write_range(op, &offset, &length);
    TIRVAL_ASSERT(length == -1);
    note_start(*storage.shared, info, offset);
    fake_store_plan_t &plan = storage.store_plans[info.pathname];
    if (plan.without_begin) {
        return TIRVAL_SUCCESS;
    }
    if (plan.status != 0) {
        meet_status(plan.status);
    }
    auto result =
        plan.refusal.message.empty() ? check_start(info, offset, uploads) : put(plan.refusal);
    if (result != TIRVAL_SUCCESS) {
        return result;
    }
    tirval_gridftp_server_begin_transfer(op, 0, nullptr);
    if (plan.nameless) {
        return TIRVAL_FAILURE;
    }
    storage.shared->storing = true;
    while (plan.silent) {
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            return tirval_gfs_cancel_error();
        }
        usleep(1000);
    }
    std::string &stored = uploads[info.pathname];
    stored.resize(static_cast<std::size_t>(offset));
    result = store_parts(op, offset, info.alloc_size, plan, stored);
    const bool done = result == TIRVAL_SUCCESS;
    if (done) {
        result = complete(op, info.pathname, stored, storage);
    }
    if (done || info.alloc_size <= fake_small_bytes) {
        uploads.erase(info.pathname);
    }
    return result;
}

} // namespace tirval::tests
