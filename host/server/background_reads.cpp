/*
 * One thread a read; there are one or two in a store.
 */
#include "background_reads.h"

#include <exception>
#include <utility>

namespace tirval::server {
namespace {

std::optional<failure_t> attempt(const background_reads_t::read_t &read, std::size_t &received)
{
    try {
        return read(received);
    } catch (const std::exception &error) {
        return make_failure(451, std::string("Internal error of the server, ") + error.what());
    }
}

/* The result of a failure lives in a scope of this thread's, until the completion has returned. */
void read_and_complete(const background_reads_t::read_t &read, std::int64_t offset,
                       tirval_gfs_read_done_t done, void *done_arg)
{
    std::size_t received = 0;
    const auto failure = attempt(read, received);
    tirval_error_scope_t *scope = tirval_error_scope_create();
    tirval_error_scope_t *before = tirval_error_scope_enter(scope);
    done(done_arg, put_result(failure), failure ? 0 : received, offset);
    tirval_error_scope_enter(before);
    tirval_error_scope_destroy(scope);
}

} // namespace

background_reads_t::~background_reads_t()
{
    for (std::thread &thread : threads_) {
        thread.join();
    }
}

std::optional<failure_t> background_reads_t::start(read_t read, std::int64_t offset,
                                                   tirval_gfs_read_done_t done, void *done_arg)
{
    try {
        threads_.emplace_back([read = std::move(read), offset, done, done_arg] {
            read_and_complete(read, offset, done, done_arg);
        });
    } catch (const std::exception &error) {
        return make_failure(451, std::string("No thread could be started, ") + error.what());
    }
    return std::nullopt;
}

} // namespace tirval::server
