/*
 * A session's session with the storage, with what keeps its view of the drive true.  On the
 * operation thread only.
 *
 * Storages remember what they have seen, also what they have seen to be missing, and never forget
 * it by themselves.  So the storage session is opened anew (which costs no request) before an
 * operation when it is older than storage.refresh_after, when something has shown that it may not
 * be true, or when another session of the same user has changed the operation's path or a folder
 * above it since; and a "not found" that such a change may explain is tried once more.
 *
 * All this is put off while a store waits to be continued, which only the session that began it can
 * do.
 */
#ifndef TIRVAL_SERVER_STORAGE_SESSION_H
#define TIRVAL_SERVER_STORAGE_SESSION_H

#include "change_ring.h"
#include "config.h"
#include "credential.h"
#include "failure.h"
#include "listing.h"
#include "operation_host.h"
#include "privileges.h"

#include "tirval_gfs_host.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace tirval::server {

/* A child of a listed folder, or the folder itself under the name ".". */
using item_sink_t =
    std::function<void(const item_t &item, std::string_view name, entry_kind_t kind)>;

class storage_session_t final : private session_settings_t {
  public:
    struct setup_t {
        const tirval_gfs_storage_iface_t *storage; /* borrowed, as all that is pointed to */
        change_ring_t *changes;
        const storage_config_t *config;
        /* A store that broke off waits so long to be continued, then it counts as given up. */
        std::chrono::seconds store_wait;
        std::uint64_t session_id;
        account_t account;
        std::string client; /* numeric address */
    };

    explicit storage_session_t(setup_t setup);
    ~storage_session_t() override;
    storage_session_t(const storage_session_t &) = delete;
    storage_session_t &operator=(const storage_session_t &) = delete;

    /* Opens the storage session; one that is open is ended first.  Returns what went wrong. */
    std::optional<failure_t> open();
    /* Where the storage wants a client to begin; a canonical path. */
    const std::string &home() const { return home_; }

    /* Describes one item.  `path` is canonical, here and below. */
    std::variant<item_t, failure_t> stat(const std::string &path);

    /*
     * Lists a folder, itself first; the items come in as the storage delivers them.  Names are
     * borrowed for the call.  A failure may follow items.  The path is to be one that stat() has
     * just described: nothing is refreshed in between.
     */
    std::optional<failure_t> list(const std::string &path, const item_sink_t &sink);

    /* Runs a download with `host` as its other side.  `known_size` -1: not known.  The path as for
     * list(). */
    std::optional<failure_t> send(const std::string &path, std::int64_t known_size,
                                  operation_host_t &host);

    /* Runs a store with `host` as its other side.  Nothing is refreshed: the path as for list().
     * Afterwards tirval_dsi_rest_last_status() is as after command(). */
    std::optional<failure_t> recv(tirval_gfs_transfer_info_t &info, operation_host_t &host);

    /* Runs a command with `host` as its other side.  Nothing is refreshed: the path as for list().
     * Afterwards tirval_dsi_rest_last_status() tells of this command alone, 0 when it got no answer
     * from the service. */
    std::optional<failure_t> command(tirval_gfs_command_info_t &info, operation_host_t &host);

    /* Opens the session, or opens it anew, where an operation on `path` needs that. */
    std::optional<failure_t> refresh(const std::string &path);

    /* Tells the user's other sessions that this one has changed the item at `path`. */
    void note_change(const std::string &path) const;
    /* What the storage remembers may not be true any more: the session is opened anew before the
     * next operation, unless a store waits to be continued. */
    void distrust() { distrusted_ = true; }

    /* A store that broke off, which the storage may remember as long as its session is open. */
    struct broken_store_t {
        std::int64_t total = -1; /* bytes that the file was to have; -1: nobody can continue it */
        std::int64_t stored = 0; /* bytes from the file's start that the service has */

        bool can_continue() const { return total >= 0; }
    };
    /* Null when no store of the path has broken off in this session of the storage. */
    const broken_store_t *broken_store(const std::string &path);
    /* Whether a store waits to be continued, so that the session is not opened anew. */
    bool keeps_store();
    void remember_broken_store(const std::string &path, const broken_store_t &store);
    void forget_broken_store(const std::string &path);

    /* What the storage announced when it was opened, "NAME:NUMBER;" for each checksum. */
    const std::string &checksums() const { return checksums_; }

    /* For the hosts of operations. */
    session_settings_t &settings() { return *this; }

  private:
    char *setting(std::string_view key) override;
    void announce_checksums(std::string_view support) override;

    void close();
    bool changed_by_others(const std::string &path) const;
    bool expired() const;
    bool must_reopen();
    /* Gives up the stores that nobody has continued in time. */
    void drop_late_stores();
    /* Opens the session, or opens it anew, where that is needed before an operation on `path`. */
    std::optional<failure_t> refresh(const std::string &path, bool &changed);
    std::optional<failure_t> with_credential_reason(std::optional<failure_t> failure);
    std::variant<item_t, failure_t> stat_once(const std::string &path);
    std::string credential_text();
    /* Warns, once, of a storage that cannot pace this session together with the user's others. */
    void check_pacing();
    template <typename run_t>
    std::optional<failure_t> run(operation_host_t &host, const run_t &run_entry);

    setup_t setup_;
    std::optional<credential_source_t> credential_;
    bool is_open_ = false;
    void *handle_ = nullptr; /* the storage's own; may be null in an open session */
    std::string home_ = "/";
    std::uint64_t change_position_ = 0;
    std::chrono::steady_clock::time_point opened_at_;
    std::deque<std::string> settings_given_; /* texts that the running operation holds */
    std::string credential_reason_;          /* why the running operation got no credential */
    std::string checksums_;
    bool distrusted_ = false;
    struct waiting_store_t {
        broken_store_t store;
        std::chrono::steady_clock::time_point since;
    };
    std::map<std::string, waiting_store_t> broken_stores_;
    bool pacing_checked_ = false;
};

} // namespace tirval::server

#endif
