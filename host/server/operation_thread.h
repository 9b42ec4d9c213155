/*
 * The thread that runs what blocks: the storage's entries and the data connections.  One for each
 * session, one task at a time, in the order of posting.
 */
#ifndef TIRVAL_SERVER_OPERATION_THREAD_H
#define TIRVAL_SERVER_OPERATION_THREAD_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tirval::server {

class operation_thread_t {
  public:
    /* Starts the thread, with all signals blocked on it.  Throws std::system_error. */
    operation_thread_t();
    /* Waits for the end of the tasks posted, unless abandoned. */
    ~operation_thread_t();
    operation_thread_t(const operation_thread_t &) = delete;
    operation_thread_t &operator=(const operation_thread_t &) = delete;

    /* Any thread.  A task must not throw. */
    void post(std::function<void()> task);

    /* Takes no more tasks and waits until those posted have ended; false when they have not within
     * `limit`.  Then the process must be left without destroying this object. */
    bool finish_within(std::chrono::milliseconds limit);

  private:
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool finishing_ = false;
    bool ended_ = false;
    std::thread thread_; /* last: it uses the others */
};

} // namespace tirval::server

#endif
