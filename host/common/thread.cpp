/*
 * Locks, condition variables and the clock.  A condition variable keeps its waiters in a queue,
 * each with a flag of its own that only a signal sets: so a wait cannot end without a signal, no
 * later waiter takes an earlier one's, and a waiter that gives up loses none.
 */
#include "tirval_common.h"

#include <cerrno>
#include <ctime>

struct tirval_cond_waiter_s {
    pthread_cond_t wake;
    bool chosen;
    tirval_cond_waiter_s *previous;
    tirval_cond_waiter_s *next;
};

namespace {

using waiter = tirval_cond_waiter_s;

void enqueue(tirval_cond_t &cond, waiter &last)
{
    last.previous = cond.last;
    (cond.last == nullptr ? cond.first : cond.last->next) = &last;
    cond.last = &last;
}

void dequeue(tirval_cond_t &cond, waiter &leaving)
{
    (leaving.previous == nullptr ? cond.first : leaving.previous->next) = leaving.next;
    (leaving.next == nullptr ? cond.last : leaving.next->previous) = leaving.previous;
}

int make_wake(pthread_cond_t &wake, clockid_t clock)
{
    pthread_condattr_t attributes;
    int result = pthread_condattr_init(&attributes);
    if (result != 0) {
        return result;
    }
    result = pthread_condattr_setclock(&attributes, clock);
    if (result == 0) {
        result = pthread_cond_init(&wake, &attributes);
    }
    pthread_condattr_destroy(&attributes);
    return result;
}

/* Waits until chosen, or until the deadline unless it is null. */
int wait(tirval_cond_t &cond, tirval_mutex_t &mutex, const tirval_abstime_t *deadline)
{
    waiter self = {};
    int result = make_wake(self.wake, cond.clock);
    if (result != 0) {
        return result;
    }
    enqueue(cond, self);
    while (!self.chosen && result == 0) {
        result = deadline == nullptr ? pthread_cond_wait(&self.wake, &mutex)
                                     : pthread_cond_timedwait(&self.wake, &mutex, deadline);
    }
    if (self.chosen) {
        result = 0; /* a signal that crossed the deadline must not get lost */
    } else {
        dequeue(cond, self);
    }
    pthread_cond_destroy(&self.wake);
    return result;
}

/* Chooses the waiter that has waited longest; false when there is none. */
bool choose_first(tirval_cond_t &cond)
{
    waiter *first = cond.first;
    if (first == nullptr) {
        return false;
    }
    dequeue(cond, *first);
    first->chosen = true;
    pthread_cond_signal(&first->wake);
    return true;
}

} // namespace

extern "C" {

int tirval_mutex_init(tirval_mutex_t *mutex, const pthread_mutexattr_t *attributes)
{
    return pthread_mutex_init(mutex, attributes);
}

int tirval_mutex_destroy(tirval_mutex_t *mutex)
{
    return pthread_mutex_destroy(mutex);
}

int tirval_mutex_lock(tirval_mutex_t *mutex)
{
    return pthread_mutex_lock(mutex);
}

int tirval_mutex_unlock(tirval_mutex_t *mutex)
{
    return pthread_mutex_unlock(mutex);
}

int tirval_cond_init(tirval_cond_t *cond, const pthread_condattr_t *attributes)
{
    *cond = {nullptr, nullptr, CLOCK_REALTIME};
    if (attributes == nullptr) {
        return 0;
    }
    int shared = PTHREAD_PROCESS_PRIVATE;
    const int result = pthread_condattr_getpshared(attributes, &shared);
    if (result != 0 || shared != PTHREAD_PROCESS_PRIVATE) {
        return result != 0 ? result : ENOTSUP;
    }
    return pthread_condattr_getclock(attributes, &cond->clock);
}

int tirval_cond_destroy(tirval_cond_t *cond)
{
    return cond->first == nullptr ? 0 : EBUSY;
}

int tirval_cond_wait(tirval_cond_t *cond, tirval_mutex_t *mutex)
{
    return wait(*cond, *mutex, nullptr);
}

int tirval_cond_timedwait(tirval_cond_t *cond, tirval_mutex_t *mutex,
                          const tirval_abstime_t *deadline)
{
    return deadline == nullptr ? EINVAL : wait(*cond, *mutex, deadline);
}

int tirval_cond_signal(tirval_cond_t *cond)
{
    choose_first(*cond);
    return 0;
}

int tirval_cond_broadcast(tirval_cond_t *cond)
{
    while (choose_first(*cond)) {
    }
    return 0;
}

unsigned long tirval_thread_self(void)
{
    return pthread_self();
}

void tirval_abstime_get_current(tirval_abstime_t *now)
{
    clock_gettime(CLOCK_REALTIME, now);
}

int tirval_abstime_cmp(const tirval_abstime_t *a, const tirval_abstime_t *b)
{
    if (a->tv_sec != b->tv_sec) {
        return a->tv_sec < b->tv_sec ? -1 : 1;
    }
    if (a->tv_nsec != b->tv_nsec) {
        return a->tv_nsec < b->tv_nsec ? -1 : 1;
    }
    return 0;
}
}
