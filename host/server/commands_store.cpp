/*
 * STOR, STOU and APPE.
 *
 * Storages must be told a file's true size before it begins, and few clients announce it.  So only
 * a store of announced size goes straight through, and there the storage's stream sees to it that
 * the size was true; any other is taken in to its end first.
 *
 * A store that broke off part-way can be continued: by the server itself from what it has taken in,
 * else by the client, which must bring the rest of a file of the same size.
 */
#include "commands.h"
#include "path_rules.h"
#include "reply.h"
#include "store_host.h"
#include "utf8.h"
#include "vpath.h"

#include "tirval_dsi_rest.h"

#include <array>
#include <memory>
#include <random>

namespace tirval::server {
namespace {

using steady_t = std::chrono::steady_clock;

constexpr std::size_t receive_block_bytes = std::size_t{256} * 1024;
/* For the session to find out that a client has gone which has closed its control connection. */
constexpr std::chrono::seconds decision_limit{1};
/* How often the server continues a store by itself after the first attempt. */
constexpr int more_rounds = 3;
constexpr int unique_name_attempts = 5;
constexpr int http_conflict = 409;
constexpr const char *append_tag = "APPEND_NOT_SUPPORTED";

struct store_t {
    std::string_view verb;
    std::string path; /* canonical; STOU: the wish, then the one chosen */
    std::string name; /* as the client wrote it */
    bool ascii = false;
    bool must_be_new = false;              /* APPE */
    bool unique = false;                   /* STOU */
    bool unnamed = false;                  /* STOU without a name */
    std::optional<std::int64_t> announced; /* bytes, above 0 */
    std::optional<std::time_t> modified;
    transfer_setup_t setup;
    std::filesystem::path spool_directory;

    std::int64_t offset() const { return setup.restart_at; }
    /* Whether the data goes to the storage as it comes. */
    bool is_streamed() const { return announced && !ascii && offset() == 0; }
};

failure_t tagged_failure(int code, const char *tag, const char *reason)
{
    return {.code = code, .tag = tag, .lines = {}, .reason = reason};
}

failure_t append_failure()
{
    return tagged_failure(553, append_tag, "Files cannot be appended to");
}

bool is_of_connection(const failure_t &failure)
{
    return failure.code == 425 || failure.code == 426;
}

/* Whether the service no longer has the upload that broke off, or has more of it than the storage
 * knows, which it refuses to take twice. */
bool is_upload_lost()
{
    constexpr int http_not_found = 404;
    constexpr int http_gone = 410;
    constexpr int http_range_not_satisfiable = 416;
    const int status = tirval_dsi_rest_last_status();
    return status == http_not_found || status == http_gone || status == http_range_not_satisfiable;
}

/* Whether the storage would refuse every further attempt to continue; it may like another offset
 * better. */
bool is_final(const failure_t &failure)
{
    return is_upload_lost() || (failure.code >= 500 && failure.tag != append_tag);
}

/* Work accounts take one large upload of a file at a time, and hold on to one that broke off until
 * they forget it.  Clients try again by themselves only what they are told is temporary. */
void explain_conflict(failure_t &failure)
{
    if (!is_of_connection(failure) && tirval_dsi_rest_last_status() == http_conflict) {
        failure.code = 450;
        failure.reason = "The storage service still holds another upload of this file, perhaps one "
                         "that broke off, try again later";
    }
}

std::string random_letters(std::size_t count)
{
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device random;
    std::string text;
    while (text.size() < count) {
        text += letters[random() % letters.size()];
    }
    return text;
}

/* One store, from its guards to its reply.  On the operation thread. */
class store_run_t {
  public:
    store_run_t(operation_context_t &context, store_t &store)
        : context_(context), storage_(context.storage), store_(store)
    {
    }

    /* The final reply. */
    std::string run();

  private:
    std::optional<failure_t> prepare();
    std::optional<failure_t> choose_name();
    std::optional<failure_t> check_target();
    std::optional<failure_t> check_missing();
    std::optional<failure_t> check_parent();
    std::optional<failure_t> check_new();
    std::optional<failure_t> check_continuation();

    std::optional<failure_t> stream();
    std::optional<failure_t> take_in_and_store();
    std::optional<failure_t> take_in(spool_t &spool);
    std::optional<failure_t> check_client() const;
    std::optional<failure_t> check_total(std::int64_t total) const;
    std::optional<failure_t> store_from(const spool_t &spool, std::int64_t total);

    data_options_t data_options() const;
    void announce() const;
    void note_failure(failure_t &failure);
    std::string unique_text() const;

    operation_context_t &context_;
    storage_session_t &storage_;
    store_t &store_;
    bool storage_ran_ = false;
    /* What the client could continue after a failure. */
    std::optional<storage_session_t::broken_store_t> rest_;
};

std::string store_run_t::run()
{
    auto failure = prepare();
    if (!failure) {
        failure = store_.is_streamed() ? stream() : take_in_and_store();
        if (storage_ran_) {
            /* Also a store that failed may have changed something. */
            storage_.note_change(store_.path);
        }
    }
    if (failure) {
        note_failure(*failure);
        return failure_reply(*failure, is_of_connection(*failure) ? "" : store_.path);
    }
    storage_.forget_broken_store(store_.path);
    return single_reply(226, store_.unique ? unique_text() : "Transfer complete.");
}

/* ---- Guards: what is refused before the data connection ------------------------------------ */

std::optional<failure_t> store_run_t::prepare()
{
    if (store_.offset() > 0) {
        return check_continuation();
    }
    if (auto failure = store_.unique ? choose_name() : check_target()) {
        return failure;
    }
    if (storage_.broken_store(store_.path) == nullptr) {
        return std::nullopt;
    }
    /* The storage would take this for the store that broke off. */
    storage_.forget_broken_store(store_.path);
    return storage_.open();
}

std::optional<failure_t> store_run_t::check_target()
{
    const auto found = storage_.stat(store_.path);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return failure->is_not_found() ? check_missing() : *failure;
    }
    if (std::get<item_t>(found).is_folder()) {
        return make_failure(550, "Not a plain file");
    }
    if (store_.must_be_new) {
        return append_failure();
    }
    return std::nullopt;
}

std::optional<failure_t> store_run_t::check_parent()
{
    const auto found = storage_.stat(parent_path(store_.path));
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return *failure;
    }
    if (!std::get<item_t>(found).is_folder()) {
        return tagged_failure(553, "NOT_A_DIRECTORY", "Not a directory");
    }
    return std::nullopt;
}

/* What stands against a path that the storage does not know. */
std::optional<failure_t> store_run_t::check_missing()
{
    auto failure = check_parent();
    return !failure && (store_.must_be_new || store_.unique) ? check_new() : failure;
}

/* The storage tells names apart by their case and its service does not: a store would replace a
 * file whose name differs in nothing else.  (How the service folds other letters than ASCII's is
 * not known here.) */
std::optional<failure_t> store_run_t::check_new()
{
    bool taken = false;
    auto failure = storage_.list(
        parent_path(store_.path), [&](const item_t &, std::string_view name, entry_kind_t kind) {
            taken = taken || (kind == entry_kind_t::child &&
                              equal_without_case(name, base_name(store_.path)));
        });
    return taken ? append_failure() : failure;
}

/* Tries the client's own wish first. */
std::optional<failure_t> store_run_t::choose_name()
{
    const std::string wish = store_.path;
    if (store_.unnamed) {
        store_.path = wish + "." + random_letters(8);
    }
    for (int n = 0; n < unique_name_attempts; ++n) {
        const auto found = storage_.stat(store_.path);
        if (const auto *failure = std::get_if<failure_t>(&found)) {
            if (!failure->is_not_found()) {
                return *failure;
            }
            auto problem = check_missing();
            if (!problem || problem->tag != append_tag) {
                return problem;
            }
        }
        store_.path = wish + "." + random_letters(8);
    }
    return make_failure(450, "No unique name was found");
}

std::optional<failure_t> store_run_t::check_continuation()
{
    if (auto failure = storage_.refresh(store_.path)) {
        return failure;
    }
    const auto *broken = storage_.broken_store(store_.path);
    if (broken == nullptr || !broken->can_continue()) {
        return make_failure(554, "No store of this file can be continued");
    }
    rest_ = *broken;
    const auto announced = store_.announced;
    if (announced && *announced != rest_->total && *announced != rest_->total - store_.offset()) {
        return make_failure(554, "The size is not that of the store to be continued");
    }
    return std::nullopt;
}

/* ---- The transfer -------------------------------------------------------------------------- */

data_options_t store_run_t::data_options() const
{
    data_options_t options = store_.setup.options;
    options.ascii = store_.ascii;
    return options;
}

void store_run_t::announce() const
{
    context_.announce(single_reply(
        150, store_.unique ? unique_text()
                           : std::string("Opening ") + (store_.ascii ? "ASCII" : "BINARY") +
                                 " mode data connection for " + store_.name + "."));
}

/* RFC 1123, section 4.1.2.9. */
std::string store_run_t::unique_text() const
{
    return "FILE: " + std::string(store_.name.find('/') == std::string::npos
                                      ? base_name(store_.path)
                                      : std::string_view(store_.path));
}

std::optional<failure_t> store_run_t::stream()
{
    const std::int64_t total = *store_.announced;
    const std::function<void()> announce_it = [this] { announce(); };
    data_receiver_t receiver(std::move(*store_.setup.endpoint), data_options(), context_.bytes);
    streamed_store_host_t host(storage_.settings(), {0, store_.modified}, receiver, announce_it);
    tirval_gfs_transfer_info_t info{store_.path.c_str(), total, true};
    storage_ran_ = true;
    auto failure = storage_.recv(info, host);
    receiver.close();
    /* A client that sent too much, or does not want the file any more, continues nothing. */
    const bool wanted =
        receiver.delivered() <= total && tirval_gfs_cancelled() == TIRVAL_GFS_CANCEL_NONE;
    if (failure && host.begun() && host.stored() > 0 && wanted && !is_upload_lost()) {
        rest_ = {total, host.stored()};
    }
    /* What the storage makes of a lost connection is not the reason. */
    return failure && receiver.failure() ? receiver.failure() : failure;
}

std::optional<failure_t> store_run_t::take_in_and_store()
{
    spool_t spool(store_.spool_directory);
    if (auto failure = take_in(spool)) {
        return failure;
    }
    const std::int64_t total = store_.offset() + spool.size();
    if (auto failure = check_total(total)) {
        return failure;
    }
    return store_from(spool, total);
}

std::optional<failure_t> store_run_t::take_in(spool_t &spool)
{
    announce();
    data_receiver_t receiver(std::move(*store_.setup.endpoint), data_options(), context_.bytes);
    if (auto failure = receiver.open()) {
        return failure;
    }
    const auto block = std::make_unique_for_overwrite<char[]>(receive_block_bytes);
    for (;;) {
        std::size_t received = 0;
        bool would_block = false;
        if (auto failure =
                receiver.receive({block.get(), receive_block_bytes}, true, received, would_block)) {
            return failure;
        }
        if (received == 0) {
            break;
        }
        if (auto failure = spool.append({block.get(), received})) {
            return failure;
        }
    }
    return check_client();
}

/*
 * A client that dies closes its data connection in order, too, so that the end of data alone does
 * not say that this was all; but its control connection has ended before.  A client that has sent
 * QUIT may have closed its side and counts: the session knows.
 */
std::optional<failure_t> store_run_t::check_client() const
{
    if (context_.client_sends_no_more()) {
        constexpr int no_connection = -1;
        (void)wait_for_data(no_connection, 0, steady_t::now() + decision_limit);
    }
    const bool cancelled = tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE;
    return cancelled ? std::optional(cancelled_failure()) : std::nullopt;
}

/* Otherwise bytes of two files would be mixed. */
std::optional<failure_t> store_run_t::check_total(std::int64_t total) const
{
    if (rest_ && total != rest_->total) {
        return make_failure(554, "The size is not that of the store to be continued");
    }
    return std::nullopt;
}

std::optional<failure_t> store_run_t::store_from(const spool_t &spool, std::int64_t total)
{
    storage_ran_ = true;
    std::int64_t from = store_.offset();
    for (int round = 0;; ++round) {
        spooled_store_host_t host(storage_.settings(), {from, store_.modified}, spool,
                                  store_.offset());
        tirval_gfs_transfer_info_t info{store_.path.c_str(), total, from == 0};
        auto failure = storage_.recv(info, host);
        const bool got_further = host.stored() > from;
        from = host.stored();
        if (failure && rest_) {
            rest_->stored = from;
        }
        if (failure && !got_further && is_final(*failure)) {
            rest_.reset();
        }
        if (!failure || !got_further || round == more_rounds ||
            tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            return failure;
        }
        log_info("a store broke off at byte %lld of %lld and is continued",
                 static_cast<long long>(from), static_cast<long long>(total));
    }
}

/* ---- Afterwards ---------------------------------------------------------------------------- */

void store_run_t::note_failure(failure_t &failure)
{
    if (storage_ran_) {
        /* Another store may keep the storage's session open, and with it what it remembers. */
        storage_.remember_broken_store(store_.path, {});
        storage_.distrust();
        explain_conflict(failure);
    }
    if (rest_) {
        storage_.remember_broken_store(store_.path, *rest_);
        failure.lines.push_back("GridFTP-Restart: REST " + std::to_string(rest_->stored) +
                                " and STOR continue this store");
    }
}

/* ---- Commands ------------------------------------------------------------------------------ */

/* What the session knows of the next store; it is for this one alone, whatever becomes of it. */
store_t take_store(command_session_t &session)
{
    session_state_t &state = session.state();
    store_t store;
    const auto announced = std::exchange(state.announced_size, std::nullopt);
    if (announced && *announced > 0) {
        store.announced = static_cast<std::int64_t>(*announced);
    }
    store.modified = std::exchange(state.store_modified, std::nullopt);
    store.ascii = state.type == transfer_type_t::ascii;
    store.spool_directory = session.config().spool.directory;
    return store;
}

/* Fills in what the command says; replies and returns false when it is refused. */
bool accept_store(command_session_t &session, store_t &store, const std::string &argument)
{
    auto setup = take_transfer_setup(session);
    if (!setup) {
        return false;
    }
    auto path = path_argument(session, argument);
    if (!path) {
        return false;
    }
    store.setup = std::move(*setup);
    store.path = std::move(*path);
    store.name = argument;
    if (const auto refusal = refuse_new_path(store.path)) {
        session.reply(*refusal);
    } else if (store.setup.range) {
        session.reply(single_reply(554, "A range cannot be stored."));
    } else if (store.unique && store.offset() > 0) {
        session.reply(single_reply(450, "REST cannot come before STOU."));
    } else if (store.ascii && store.offset() > 0) {
        session.reply(single_reply(501, "REST needs TYPE I."));
    } else {
        return true;
    }
    return false;
}

void start_store(command_session_t &session, store_t &&store, const std::string &argument)
{
    if (!accept_store(session, store, argument)) {
        return;
    }
    /* The operation is copied, and what it changes must not be. */
    const auto shared = std::make_shared<store_t>(std::move(store));
    session.run([shared](operation_context_t &context) {
        return run_transfer(context, shared->verb, shared->path,
                            [&] { return store_run_t(context, *shared).run(); });
    });
}

} // namespace

void handle_stor(command_session_t &session, const std::string &argument)
{
    store_t store = take_store(session);
    store.verb = "STOR";
    start_store(session, std::move(store), argument);
}

void handle_appe(command_session_t &session, const std::string &argument)
{
    store_t store = take_store(session);
    store.verb = "APPE";
    store.must_be_new = true;
    start_store(session, std::move(store), argument);
}

void handle_stou(command_session_t &session, const std::string &argument)
{
    store_t store = take_store(session);
    store.verb = "STOU";
    store.unique = true;
    store.unnamed = argument.empty();
    start_store(session, std::move(store), store.unnamed ? "file" : argument);
}

} // namespace tirval::server
