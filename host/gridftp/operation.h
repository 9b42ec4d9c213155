/*
 * A running operation: whom it answers, whether it has, and how far its transfer has come.  All of
 * it belongs to the entry's thread, but for registered_reads.
 */
#ifndef TIRVAL_GRIDFTP_OPERATION_H
#define TIRVAL_GRIDFTP_OPERATION_H

#include "registered_reads.h"
#include "tirval_gfs_host.h"
#include "transfer.h"

namespace tirval_gfs {

enum class entry { session_start, stat, command, send, recv };

} // namespace tirval_gfs

struct tirval_gfs_operation_s {
    tirval_gfs_operation_s(tirval_gfs::entry which, const tirval_gfs_backend_t *functions,
                           void *host_arg)
        : kind(which), backend(*functions), host(host_arg)
    {
    }
    tirval_gfs_operation_s(const tirval_gfs_operation_s &) = delete;
    tirval_gfs_operation_s &operator=(const tirval_gfs_operation_s &) = delete;

    const tirval_gfs::entry kind;
    const tirval_gfs_backend_t &backend;
    void *const host;
    tirval_error_scope_t *scope = nullptr;
    bool answered = false;
    tirval_gfs::transfer_state transfer;
    tirval_gfs::download_state download;
    tirval_gfs::upload_state upload;
    tirval_gfs::registered_reads reads;
};

namespace tirval_gfs {

/* Makes a scope the thread's current one while it lives. */
class scope_entered {
  public:
    explicit scope_entered(tirval_error_scope_t *scope) : before_(tirval_error_scope_enter(scope))
    {
    }
    ~scope_entered() { tirval_error_scope_enter(before_); }
    scope_entered(const scope_entered &) = delete;
    scope_entered &operator=(const scope_entered &) = delete;

  private:
    tirval_error_scope_t *before_;
};

/* Ends the process: the storage's entry, or the back end, broke the interface's rules. */
[[noreturn]] void broken_contract(const tirval_gfs_operation_s &op, const char *what);

} // namespace tirval_gfs

#endif
