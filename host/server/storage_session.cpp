/*
 * Entries of the storage are run here and nowhere else.
 */
#include "storage_session.h"

#include "log.h"
#include "pacing.h"
#include "vpath.h"

#include "tirval_dsi_rest.h"

#include <algorithm>
#include <utility>

namespace tirval::server {
namespace {

using steady_t = std::chrono::steady_clock;

class start_host_t final : public operation_host_t {
  public:
    using operation_host_t::operation_host_t;
    void session_started(void *session, std::string_view home) override
    {
        handle = session;
        home_dir = home;
    }
    int default_code() const override { return 530; }

    void *handle = nullptr;
    std::string home_dir;
};

class stat_host_t final : public operation_host_t {
  public:
    using operation_host_t::operation_host_t;
    void records(std::span<const record_t> batch) override { item = item_from_record(batch[0]); }

    std::optional<item_t> item;
};

class list_host_t final : public operation_host_t {
  public:
    list_host_t(session_settings_t &settings, const item_sink_t &sink)
        : operation_host_t(settings), sink_(sink)
    {
    }
    void records(std::span<const record_t> batch) override
    {
        for (const record_t &record : batch) {
            /* The folder comes first, as "."; any later "." is a child's own name. */
            const auto kind =
                std::exchange(first_, false) ? entry_kind_t::current_folder : entry_kind_t::child;
            sink_(item_from_record(record), record.name == nullptr ? "" : record.name, kind);
        }
    }

  private:
    const item_sink_t &sink_;
    bool first_ = true;
};

} // namespace

storage_session_t::storage_session_t(setup_t setup) : setup_(std::move(setup)) {}

storage_session_t::~storage_session_t()
{
    close();
}

void storage_session_t::close()
{
    broken_stores_.clear();
    if (std::exchange(is_open_, false)) {
        tirval_gfs_run_session_end(setup_.storage, std::exchange(handle_, nullptr));
    }
}

template <typename run_t>
std::optional<failure_t> storage_session_t::run(operation_host_t &host, const run_t &run_entry)
{
    credential_reason_.clear();
    run_entry();
    settings_given_.clear();
    return with_credential_reason(host.outcome());
}

std::optional<failure_t> storage_session_t::open()
{
    close();
    /* Taken before the start: a change during it must be seen later. */
    change_position_ = setup_.changes->position();
    tirval_gfs_session_info_t info{};
    info.username = setup_.account.name.c_str();
    info.client_address = setup_.client.c_str();
    start_host_t host(*this);
    auto failure = run(host, [&] {
        tirval_gfs_run_session_start(setup_.storage, &info, &operation_backend(), &host);
    });
    if (failure) {
        return failure;
    }
    is_open_ = true;
    distrusted_ = false;
    handle_ = host.handle;
    home_ = resolve_path("/", host.home_dir).value_or("/");
    opened_at_ = steady_t::now();
    check_pacing();
    return std::nullopt;
}

void storage_session_t::check_pacing()
{
    if (setup_.config->name != "onedrive" || !credential_ || credential_->sub().empty() ||
        std::exchange(pacing_checked_, true)) {
        return;
    }
    const std::string problem = pacing_problem(setup_.account, credential_->sub());
    if (!problem.empty()) {
        log_warning("the pacing of requests is not shared with the user's other sessions: %s",
                    problem.c_str());
    }
}

bool storage_session_t::changed_by_others(const std::string &path) const
{
    return setup_.changes->changed_since(setup_.account.name, path, setup_.session_id,
                                         change_position_);
}

bool storage_session_t::expired() const
{
    const auto limit = setup_.config->refresh_after;
    return limit.count() > 0 && steady_t::now() - opened_at_ >= limit;
}

void storage_session_t::drop_late_stores()
{
    const auto now = steady_t::now();
    const auto dropped = std::erase_if(broken_stores_, [&](const auto &entry) {
        return now - entry.second.since >= setup_.store_wait;
    });
    if (dropped > 0) {
        distrust(); /* the storage still remembers where they were */
    }
}

bool storage_session_t::keeps_store()
{
    drop_late_stores();
    return std::any_of(broken_stores_.begin(), broken_stores_.end(),
                       [](const auto &entry) { return entry.second.store.can_continue(); });
}

bool storage_session_t::must_reopen()
{
    return !keeps_store() && (distrusted_ || expired());
}

std::optional<failure_t> storage_session_t::refresh(const std::string &path, bool &changed)
{
    changed = is_open_ && !keeps_store() && changed_by_others(path);
    return !is_open_ || changed || must_reopen() ? open() : std::nullopt;
}

std::optional<failure_t> storage_session_t::refresh(const std::string &path)
{
    bool changed = false;
    return refresh(path, changed);
}

std::variant<item_t, failure_t> storage_session_t::stat(const std::string &path)
{
    bool changed = false;
    if (auto failure = refresh(path, changed)) {
        return std::move(*failure);
    }
    auto found = stat_once(path);
    const auto *failure = std::get_if<failure_t>(&found);
    if (failure == nullptr || !failure->is_not_found() || keeps_store() ||
        !(changed || changed_by_others(path))) {
        return found;
    }
    /* The change may have come in the middle, or the service may have answered from before it. */
    if (auto reopening = open()) {
        return std::move(*reopening);
    }
    return stat_once(path);
}

std::variant<item_t, failure_t> storage_session_t::stat_once(const std::string &path)
{
    tirval_gfs_stat_info_t info{true, path.c_str()};
    stat_host_t host(*this);
    auto failure = run(host, [&] {
        tirval_gfs_run_stat(setup_.storage, handle_, &info, &operation_backend(), &host);
    });
    if (failure) {
        return std::move(*failure);
    }
    if (!host.item) {
        return make_failure(550, "Storage described no item");
    }
    return std::move(*host.item);
}

std::optional<failure_t> storage_session_t::list(const std::string &path, const item_sink_t &sink)
{
    tirval_gfs_stat_info_t info{false, path.c_str()};
    list_host_t host(*this, sink);
    return run(host, [&] {
        tirval_gfs_run_stat(setup_.storage, handle_, &info, &operation_backend(), &host);
    });
}

std::optional<failure_t> storage_session_t::send(const std::string &path, std::int64_t known_size,
                                                 operation_host_t &host)
{
    tirval_gfs_transfer_info_t info{};
    info.pathname = path.c_str();
    return run(host, [&] {
        tirval_gfs_run_send(setup_.storage, handle_, &info, known_size, &operation_backend(),
                            &host);
    });
}

std::optional<failure_t> storage_session_t::recv(tirval_gfs_transfer_info_t &info,
                                                 operation_host_t &host)
{
    tirval_dsi_rest_clear_last_status();
    return run(host, [&] {
        tirval_gfs_run_recv(setup_.storage, handle_, &info, &operation_backend(), &host);
    });
}

std::optional<failure_t> storage_session_t::command(tirval_gfs_command_info_t &info,
                                                    operation_host_t &host)
{
    tirval_dsi_rest_clear_last_status();
    return run(host, [&] {
        tirval_gfs_run_command(setup_.storage, handle_, &info, &operation_backend(), &host);
    });
}

void storage_session_t::note_change(const std::string &path) const
{
    setup_.changes->note_change(setup_.account.name, path, setup_.session_id);
}

const storage_session_t::broken_store_t *storage_session_t::broken_store(const std::string &path)
{
    drop_late_stores();
    const auto found = broken_stores_.find(path);
    return found == broken_stores_.end() ? nullptr : &found->second.store;
}

void storage_session_t::remember_broken_store(const std::string &path, const broken_store_t &store)
{
    broken_stores_.insert_or_assign(path, waiting_store_t{store, steady_t::now()});
}

void storage_session_t::forget_broken_store(const std::string &path)
{
    broken_stores_.erase(path);
}

std::optional<failure_t> storage_session_t::with_credential_reason(std::optional<failure_t> failure)
{
    /* The storage can only tell that it got nothing; why is known here. */
    if (failure && !credential_reason_.empty()) {
        failure->lines.clear();
        failure->tag.clear();
        failure->reason = credential_reason_;
    }
    return failure;
}

char *storage_session_t::setting(std::string_view key)
{
    std::string text;
    if (key == "creds" || key == "renew-creds") {
        text = credential_text();
    } else if (key == "config") {
        text = setup_.config->onedrive.policy;
    }
    if (text.empty()) {
        return nullptr;
    }
    settings_given_.push_back(std::move(text));
    return settings_given_.back().data();
}

std::string storage_session_t::credential_text()
{
    try {
        if (!credential_) {
            credential_.emplace(setup_.config->onedrive.credential, setup_.account);
        }
        return credential_->fetch();
    } catch (const credential_error_t &error) {
        log_warning("no credential: %s", error.what());
        credential_reason_ = error.client_text();
        return {};
    }
}

void storage_session_t::announce_checksums(std::string_view support)
{
    checksums_ = support;
}

} // namespace tirval::server
