/* Paces a user's requests: all sessions of the user, in all processes, share the time of the last
 * request in one small file. */
#include "tirval_onedrive_common.h"

#include <algorithm>
#include <sys/time.h>
#include <unistd.h>

extern "C" {
static void tirval_l_clear_last(void *first_mapping)
{
    static_cast<tirval_onedrive_retry_shared_s *>(first_mapping)->last = {};
}
}

static constexpr tirval_i_onedrive_state_kind_t tirval_l_kind = {
    .folder = &tirval_i_onedrive_retry_path,
    .length = sizeof(tirval_onedrive_retry_shared_s),
    .first_length = sizeof(tirval_onedrive_retry_shared_s),
    .initialise = tirval_l_clear_last,
    .mapping_checked = true,
    .lock_function = "tirval_i_onedrive_retry_state_lock",
    .unlock_function = "tirval_i_onedrive_retry_state_unlock",
};

static constexpr uint32_t tirval_l_second = 1000000; /* microseconds */

extern "C" void tirval_i_onedrive_retry_state_create(const char *name, uint32_t max_per_second,
                                                     tirval_onedrive_retry_t *retry_state)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    retry_state->delay = tirval_l_second / max_per_second;
    retry_state->shared = static_cast<tirval_onedrive_retry_shared_s *>(
        tirval_i_onedrive_state_attach(&tirval_l_kind, name, &retry_state->fd));
    retry_state->is = true;
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

extern "C" tirval_result_t tirval_i_onedrive_retry_state_lock(tirval_onedrive_retry_t *retry_state,
                                                              bool blocking)
{
    return tirval_i_onedrive_state_lock(&tirval_l_kind, retry_state->fd, blocking);
}

extern "C" tirval_result_t
tirval_i_onedrive_retry_state_unlock(tirval_onedrive_retry_t *retry_state)
{
    return tirval_i_onedrive_state_unlock(&tirval_l_kind, retry_state->fd);
}

/* As long as a second or more is asked for, the system refuses the interval and this returns at
 * once: a user's rate of one request a second is not paced. */
static void tirval_l_sleep_microseconds(uint32_t microseconds)
{
    const timespec interval = {.tv_sec = 0, .tv_nsec = static_cast<long>(microseconds) * 1000};
    (void)nanosleep(&interval, nullptr);
}

static void tirval_l_sleep_retry_after(uint64_t retry_after)
{
    const uint64_t seconds =
        std::min(retry_after, static_cast<uint64_t>(tirval_i_onedrive_max_delay));
    TIRVAL_ONEDRIVE_LOG_AS(TIRVAL_ONEDRIVE_DEBUG, "tirval_i_onedrive_retry_delay",
                           "retry_after=%lu sleep=%lu\n", retry_after, seconds);
    (void)sleep(static_cast<unsigned>(seconds));
}

static tirval_abstime_t tirval_l_now()
{
    timeval now = {};
    (void)gettimeofday(&now, nullptr);
    return {.tv_sec = now.tv_sec, .tv_nsec = now.tv_usec * 1000};
}

/* Microseconds still to wait after the user's last request.  A clock that was set back counts like
 * one that ran on: only the distance matters. */
static uint32_t tirval_l_rest_of_delay(uint32_t delay, const tirval_abstime_t &last)
{
    tirval_abstime_t earlier = last;
    tirval_abstime_t later = tirval_l_now();
    if (tirval_abstime_cmp(&later, &earlier) < 0) {
        std::swap(earlier, later);
    }
    uint64_t seconds = static_cast<uint64_t>(later.tv_sec) - static_cast<uint64_t>(earlier.tv_sec);
    int64_t microseconds = later.tv_nsec / 1000 - earlier.tv_nsec / 1000;
    if (microseconds < 0) {
        seconds--;
        microseconds += tirval_l_second;
    }
    return seconds == 0 && microseconds < delay ? static_cast<uint32_t>(delay - microseconds) : 0;
}

extern "C" void tirval_i_onedrive_retry_delay(uint64_t retry_after,
                                              tirval_onedrive_retry_t *retry_state)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    if (retry_after != 0) {
        tirval_l_sleep_retry_after(retry_after);
    }
    if (tirval_i_onedrive_retry_state_lock(retry_state, true) != TIRVAL_SUCCESS) {
        TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_DEBUG, "sleep=%u lockfailed\n", retry_state->delay);
        tirval_l_sleep_microseconds(retry_state->delay);
        return;
    }
    /* Slept with the lock held, so that the next one to come measures from this request. */
    const uint32_t rest = tirval_l_rest_of_delay(retry_state->delay, retry_state->shared->last);
    if (rest != 0) {
        tirval_l_sleep_microseconds(rest);
        TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_DEBUG, "sleep=%u\n", rest);
    }
    retry_state->shared->last = tirval_l_now();
    (void)tirval_i_onedrive_retry_state_unlock(retry_state);
    TIRVAL_ONEDRIVE_LOG_EXIT();
}

extern "C" void tirval_i_onedrive_retry_state_destroy(tirval_onedrive_retry_t *retry_state)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_i_onedrive_state_detach(&tirval_l_kind, retry_state->shared, &retry_state->fd);
    retry_state->shared = nullptr;
    TIRVAL_ONEDRIVE_LOG_EXIT();
}
