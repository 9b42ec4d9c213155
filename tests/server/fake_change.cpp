/*
 * The service's answer is a real one, taken by the REST library from a peer of the command's own.
 */
#include "fake_change.h"

#include "http_peer.h"
#include "tirval_dsi_rest.h"
#include "vpath.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace tirval::tests {
namespace {

std::string describe(const tirval_gfs_command_info_t &info)
{
    const std::string path = info.pathname;
    switch (info.command) {
    case TIRVAL_GFS_CMD_MKD:
        return "MKD " + path;
    case TIRVAL_GFS_CMD_RMD:
        return "RMD " + path;
    case TIRVAL_GFS_CMD_DELE:
        return "DELE " + path;
    case TIRVAL_GFS_CMD_SITE_RDEL:
        return "RDEL " + path;
    case TIRVAL_GFS_CMD_RNTO:
        return std::string("RNTO ") + info.from_pathname + " -> " + path;
    case TIRVAL_GFS_CMD_SITE_UTIME:
        return "UTIME " + std::to_string(info.utime_time) + " " + path;
    case TIRVAL_GFS_CMD_SITE_CHMOD:
        return "CHMOD " + std::to_string(info.chmod_mode) + " " + path;
    default:
        return "command " + std::to_string(info.command) + " " + path;
    }
}

void record(const std::string &text, fake_storage_shared_t &shared)
{
    const std::size_t used = shared.commands_size;
    const std::size_t room = shared.commands.size() - used;
    const std::string line = text + "\n";
    if (line.size() <= room) {
        std::memcpy(shared.commands.data() + used, line.data(), line.size());
        shared.commands_size = used + line.size();
    }
}

bool lies_in(const std::string &path, const std::string &folder)
{
    return path == folder || path.starts_with(folder + "/");
}

void remove_tree(fake_storage_t &storage, const std::string &path)
{
    std::erase_if(storage.nodes, [&](const auto &entry) { return lies_in(entry.first, path); });
}

void move_tree(fake_storage_t &storage, const std::string &from, const std::string &to)
{
    std::map<std::string, fake_node_t> moved;
    for (const auto &[path, node] : storage.nodes) {
        if (lies_in(path, from)) {
            moved[to + path.substr(from.size())] = node;
        }
    }
    remove_tree(storage, from);
    storage.nodes.merge(moved);
}

/* What the storage knows without asking the service. */
tirval_result_t check(const tirval_gfs_command_info_t &info, const fake_storage_t &storage,
                      const std::set<std::string> &missing)
{
    const auto exists = [&](const std::string &path) {
        const auto found = storage.nodes.find(path);
        return found != storage.nodes.end() && !missing.contains(path) && !found->second.hidden;
    };
    if (info.command == TIRVAL_GFS_CMD_MKD || info.command == TIRVAL_GFS_CMD_RNTO) {
        const auto parent = storage.nodes.find(server::parent_path(info.pathname));
        if (parent == storage.nodes.end() || !parent->second.folder) {
            return put({553, "NOT_A_DIRECTORY", ""});
        }
        return exists(info.pathname) ? put({553, "PATH_EXISTS", ""}) : TIRVAL_SUCCESS;
    }
    return exists(info.pathname) ? TIRVAL_SUCCESS : put({550, "PATH_NOT_FOUND", ""});
}

void apply(const tirval_gfs_command_info_t &info, fake_storage_t &storage)
{
    switch (info.command) {
    case TIRVAL_GFS_CMD_MKD:
        storage.add_folder(info.pathname);
        break;
    case TIRVAL_GFS_CMD_RNTO:
        move_tree(storage, info.from_pathname, info.pathname);
        break;
    case TIRVAL_GFS_CMD_RMD:
    case TIRVAL_GFS_CMD_DELE:
    case TIRVAL_GFS_CMD_SITE_RDEL:
        remove_tree(storage, info.pathname);
        break;
    case TIRVAL_GFS_CMD_SITE_UTIME:
        storage.nodes[info.pathname].modified = info.utime_time;
        break;
    default:
        break;
    }
}

void remember(const tirval_gfs_command_info_t &info, bool done, std::set<std::string> &missing)
{
    switch (info.command) {
    case TIRVAL_GFS_CMD_RNTO:
        if (done) {
            missing.insert(info.from_pathname);
            missing.erase(info.pathname);
        }
        break;
    case TIRVAL_GFS_CMD_RMD:
    case TIRVAL_GFS_CMD_DELE:
    case TIRVAL_GFS_CMD_SITE_RDEL:
        missing.insert(info.pathname);
        break;
    default:
        if (done) {
            missing.erase(info.pathname);
        }
        break;
    }
}

fake_change_plan_t next_plan(fake_storage_t &storage, const std::string &path)
{
    const auto plans = storage.change_plans.find(path);
    if (plans == storage.change_plans.end() || plans->second.empty()) {
        return {};
    }
    fake_change_plan_t plan = plans->second.front();
    plans->second.erase(plans->second.begin());
    return plan;
}

} // namespace

void meet_status(int status)
{
    tirval_module_activate(&tirval_i_dsi_rest_module);
    http_peer peer;
    peer.answer(http_peer_answer::complete(status));
    tirval_dsi_rest_request("DELETE", peer.url("/item").c_str(), nullptr, nullptr, nullptr);
    tirval_module_deactivate(&tirval_i_dsi_rest_module);
}

tirval_result_t fake_change(const tirval_gfs_command_info_t &info, fake_storage_t &storage,
                            std::set<std::string> &missing)
{
    record(describe(info), *storage.shared);
    const auto refused = check(info, storage, missing);
    if (refused != TIRVAL_SUCCESS) {
        return refused;
    }
    const fake_change_plan_t plan = next_plan(storage, info.pathname);
    while (plan.until_cancelled && tirval_gfs_cancelled() == TIRVAL_GFS_CANCEL_NONE) {
        usleep(1000);
    }
    if (plan.status != 0) {
        meet_status(plan.status);
    }
    if (plan.reveals) {
        storage.shared->reveal = true;
    }
    if (plan.applies) {
        apply(info, storage);
    }
    const auto result = plan.error.message.empty() ? TIRVAL_SUCCESS : put(plan.error);
    remember(info, result == TIRVAL_SUCCESS, missing);
    return result;
}

} // namespace tirval::tests
