/*
 * Runs one entry of a storage's interface table, with the surroundings that each entry needs: an
 * error scope, blocked signals, and the proof that it answered exactly once.
 */
#include "operation.h"

#include "cancel.h"
#include "errors.h"

#include <csignal>
#include <cstdio>

namespace {

using tirval_gfs::entry;

const char *name_of(entry which)
{
    switch (which) {
    case entry::session_start:
        return "init_func";
    case entry::stat:
        return "stat_func";
    case entry::command:
        return "command_func";
    case entry::send:
        return "send_func";
    case entry::recv:
        break;
    }
    return "recv_func";
}

/* Blocks every signal that is not a fault of the thread's own, so that no system call of a storage
 * ends early. */
class signals_blocked {
  public:
    signals_blocked()
    {
        sigset_t all;
        sigfillset(&all);
        for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    signals_blocked(const signals_blocked &) = delete;
    signals_blocked &operator=(const signals_blocked &) = delete;

  private:
    sigset_t before_;
};

/* A new error scope, current while it lives; its end releases what was put meanwhile. */
class error_scope {
  public:
    error_scope() : scope_(tirval_error_scope_create()), before_(tirval_error_scope_enter(scope_))
    {
    }
    ~error_scope()
    {
        tirval_error_scope_enter(before_);
        tirval_error_scope_destroy(scope_);
    }
    error_scope(const error_scope &) = delete;
    error_scope &operator=(const error_scope &) = delete;
    tirval_error_scope_t *get() const { return scope_; }

  private:
    tirval_error_scope_t *scope_;
    tirval_error_scope_t *before_;
};

template <typename Call> void run(tirval_gfs_operation_s &op, Call call)
{
    signals_blocked blocked;
    error_scope scope;
    op.scope = scope.get();
    call();
    tirval_gfs::finish_registered_reads(&op);
    if (!op.answered) {
        tirval_gfs::broken_contract(op, "returned without an answer");
    }
    tirval_gfs::clear_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
}

tirval_result_t not_offered()
{
    return tirval_gfs::put_reply(nullptr, 502, "NOT_IMPLEMENTED",
                                 "The storage does not offer this operation.");
}

/* Notes the entry's answer; a second one, or one of another kind, is a programming error. */
void take_answer(tirval_gfs_operation_t op, bool right_kind)
{
    if (!right_kind) {
        tirval_gfs::broken_contract(*op, "gave the answer of another kind of entry");
    }
    if (op->answered) {
        tirval_gfs::broken_contract(*op, "answered a second time");
    }
    op->answered = true;
}

/* Checks that something which comes before the answer does. */
void expect_unanswered(tirval_gfs_operation_t op, bool right_kind)
{
    if (!right_kind || op->answered) {
        tirval_gfs::broken_contract(*op, right_kind
                                             ? "reported something after its answer"
                                             : "reported what another kind of entry reports");
    }
}

void deliver_records(tirval_gfs_operation_t op, tirval_result_t result,
                     const tirval_gridftp_server_control_stat_t *records, int count)
{
    if (result == TIRVAL_SUCCESS && records != nullptr && count > 0 &&
        op->backend.stat_records != nullptr) {
        op->backend.stat_records(op->host, records, count);
    }
}

bool is_transfer(const tirval_gfs_operation_s &op)
{
    return op.kind == entry::send || op.kind == entry::recv;
}

} // namespace

void tirval_gfs::broken_contract(const tirval_gfs_operation_s &op, const char *what)
{
    char text[160];
    snprintf(text, sizeof text, "the storage's entry %s %s", name_of(op.kind), what);
    tirval_assertion_failed(text, __FILE__, __LINE__);
}

/* ---- Runs ---------------------------------------------------------------------------------- */

void tirval_gfs_run_session_start(const tirval_gfs_storage_iface_t *iface,
                                  tirval_gfs_session_info_t *session_info,
                                  const tirval_gfs_backend_t *backend, void *host)
{
    tirval_gfs_operation_s op(entry::session_start, backend, host);
    run(op, [&] {
        if (iface->init_func != nullptr) {
            iface->init_func(&op, session_info);
        } else {
            tirval_gridftp_server_finished_session_start(&op, not_offered(), nullptr, nullptr,
                                                         nullptr);
        }
    });
}

void tirval_gfs_run_session_end(const tirval_gfs_storage_iface_t *iface, void *session)
{
    signals_blocked blocked;
    error_scope scope;
    if (iface->destroy_func != nullptr) {
        iface->destroy_func(session);
    }
}

void tirval_gfs_run_stat(const tirval_gfs_storage_iface_t *iface, void *session,
                         tirval_gfs_stat_info_t *stat_info, const tirval_gfs_backend_t *backend,
                         void *host)
{
    tirval_gfs_operation_s op(entry::stat, backend, host);
    run(op, [&] {
        if (iface->stat_func != nullptr) {
            iface->stat_func(&op, stat_info, session);
        } else {
            tirval_gridftp_server_finished_stat(&op, not_offered(), nullptr, 0);
        }
    });
}

void tirval_gfs_run_command(const tirval_gfs_storage_iface_t *iface, void *session,
                            tirval_gfs_command_info_t *command_info,
                            const tirval_gfs_backend_t *backend, void *host)
{
    tirval_gfs_operation_s op(entry::command, backend, host);
    run(op, [&] {
        if (iface->command_func != nullptr) {
            iface->command_func(&op, command_info, session);
        } else {
            tirval_gridftp_server_finished_command(&op, not_offered(), nullptr);
        }
    });
}

void tirval_gfs_run_send(const tirval_gfs_storage_iface_t *iface, void *session,
                         tirval_gfs_transfer_info_t *transfer_info, tirval_off_t known_size,
                         const tirval_gfs_backend_t *backend, void *host)
{
    tirval_gfs_operation_s op(entry::send, backend, host);
    op.download.known_size = known_size;
    run(op, [&] {
        if (iface->send_func != nullptr) {
            iface->send_func(&op, transfer_info, session);
        } else {
            tirval_gridftp_server_finished_transfer(&op, not_offered());
        }
    });
}

void tirval_gfs_run_recv(const tirval_gfs_storage_iface_t *iface, void *session,
                         tirval_gfs_transfer_info_t *transfer_info,
                         const tirval_gfs_backend_t *backend, void *host)
{
    tirval_gfs_operation_s op(entry::recv, backend, host);
    op.upload.announced = transfer_info->alloc_size;
    run(op, [&] {
        if (iface->recv_func != nullptr) {
            iface->recv_func(&op, transfer_info, session);
        } else {
            tirval_gridftp_server_finished_transfer(&op, not_offered());
        }
    });
}

/* ---- Answers ------------------------------------------------------------------------------- */

void tirval_gridftp_server_finished_session_start(tirval_gfs_operation_t op, tirval_result_t result,
                                                  void *session, const char *username,
                                                  const char *home_dir)
{
    take_answer(op, op->kind == entry::session_start);
    if (op->backend.session_started == nullptr) {
        return;
    }
    if (result == TIRVAL_SUCCESS) {
        op->backend.session_started(op->host, result, session, username,
                                    home_dir != nullptr ? home_dir : "/");
    } else {
        op->backend.session_started(op->host, result, nullptr, nullptr, nullptr);
    }
}

void tirval_gridftp_server_finished_stat(tirval_gfs_operation_t op, tirval_result_t result,
                                         const tirval_gridftp_server_control_stat_t *records,
                                         int count)
{
    take_answer(op, op->kind == entry::stat);
    deliver_records(op, result, records, count);
    if (op->backend.stat_finished != nullptr) {
        op->backend.stat_finished(op->host, result);
    }
}

void tirval_gridftp_server_finished_stat_partial(
    tirval_gfs_operation_t op, tirval_result_t result,
    const tirval_gridftp_server_control_stat_t *records, int count)
{
    expect_unanswered(op, op->kind == entry::stat);
    deliver_records(op, result, records, count);
}

void tirval_gridftp_server_finished_command(tirval_gfs_operation_t op, tirval_result_t result,
                                            const char *response)
{
    take_answer(op, op->kind == entry::command);
    if (op->backend.command_finished != nullptr) {
        op->backend.command_finished(op->host, result, response);
    }
}

void tirval_gridftp_server_intermediate_command(tirval_gfs_operation_t op, tirval_result_t result,
                                                const char *response)
{
    expect_unanswered(op, op->kind == entry::command);
    if (result == TIRVAL_SUCCESS && response != nullptr &&
        op->backend.command_progress != nullptr) {
        op->backend.command_progress(op->host, response);
    }
}

void tirval_gridftp_server_finished_transfer(tirval_gfs_operation_t op, tirval_result_t result)
{
    take_answer(op, is_transfer(*op));
    tirval_result_t outcome = tirval_gfs::transfer_outcome(op, result);
    if (op->backend.transfer_finished != nullptr) {
        op->backend.transfer_finished(op->host, outcome);
    }
}

/* ---- What an operation may ask ------------------------------------------------------------- */

tirval_result_t tirval_gridftp_server_get_recv_modification_time(tirval_gfs_operation_t op,
                                                                 time_t *modtime)
{
    bool known = op->kind == entry::recv && op->backend.modification_time != nullptr;
    *modtime = known ? op->backend.modification_time(op->host) : time_t{-1};
    return TIRVAL_SUCCESS;
}

void tirval_gridftp_server_get_update_interval(tirval_gfs_operation_t op, int *seconds)
{
    bool known = op->backend.update_interval != nullptr;
    *seconds = known ? op->backend.update_interval(op->host) : 0;
}

void tirval_gridftp_server_get_config_data(tirval_gfs_operation_t op, const char *key, char **data)
{
    bool known = key != nullptr && op->backend.config_data != nullptr;
    *data = known ? op->backend.config_data(op->host, key) : nullptr;
}

tirval_result_t tirval_gridftp_server_set_checksum_support(tirval_gfs_operation_t op,
                                                           const char *support)
{
    if (support == nullptr) {
        return tirval_gfs::put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                                     "The checksum support text is missing.");
    }
    if (op->backend.checksum_support != nullptr) {
        op->backend.checksum_support(op->host, support);
    }
    return TIRVAL_SUCCESS;
}
