/*
 * A queue with one consumer.
 */
#include "operation_thread.h"

#include <csignal>

namespace tirval::server {
namespace {

/* A thread inherits its maker's signal mask: blocked while it is made, so that signals go to the
 * thread that waits for them and no system call of a storage ends early. */
std::thread start_without_signals(const std::function<void()> &body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
        std::thread thread(body);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return thread;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
}

} // namespace

operation_thread_t::operation_thread_t() : thread_(start_without_signals([this] { run(); })) {}

operation_thread_t::~operation_thread_t()
{
    {
        const std::lock_guard lock(mutex_);
        finishing_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void operation_thread_t::post(std::function<void()> task)
{
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    changed_.notify_all();
}

bool operation_thread_t::finish_within(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    finishing_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, limit, [this] { return ended_; });
}

void operation_thread_t::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return finishing_ || !tasks_.empty(); });
        if (tasks_.empty()) {
            break;
        }
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
    ended_ = true;
    changed_.notify_all();
}

} // namespace tirval::server
