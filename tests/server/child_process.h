/*
 * Runs a piece of a test in a process of its own: for what changes the process for good.
 */
#ifndef TIRVAL_TESTS_CHILD_PROCESS_H
#define TIRVAL_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>

/* How a child ended, and the text that its function returned. */
struct child_result_t {
    std::string text;
    int exit_status = -1; /* -1: ended by a signal */
    int signal = 0;       /* 0: ended by itself */
};

/* A child that was forked with one thread, and runs beside the test. */
class child_process_t {
  public:
    /* `body` runs in the child; a thrown exception's text is returned as "exception: ...". */
    explicit child_process_t(const std::function<std::string()> &body);
    child_process_t(const child_process_t &) = delete;
    child_process_t &operator=(const child_process_t &) = delete;
    /* Ends the child if it still runs. */
    ~child_process_t();

    pid_t pid() const { return pid_; }
    /* Waits until it has ended. */
    child_result_t wait();

  private:
    pid_t pid_ = -1;
    int output_ = -1;
};

inline child_result_t run_in_child(const std::function<std::string()> &body)
{
    return child_process_t{body}.wait();
}

#endif
