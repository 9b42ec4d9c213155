/*
 * A storage in memory, for driving sessions without a service: a tree that tests fill, and ways to
 * fail that they choose.  Like real storages, its sessions remember which paths were missing.
 *
 * Sessions run in forked processes: what is set before the fork holds there, and what is in the
 * shared record is seen on both sides.
 */
#ifndef TIRVAL_TESTS_SERVER_FAKE_STORAGE_H
#define TIRVAL_TESTS_SERVER_FAKE_STORAGE_H

#include "tirval_gfs_host.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace tirval::tests {

/* Lives in memory that forked processes share. */
struct fake_storage_shared_t {
    std::atomic<int> starts{0};
    std::atomic<int> ends{0};
    std::atomic<int> stats{0};
    std::atomic<int> lists{0};
    std::atomic<int> sends{0};
    std::atomic<int> paths_not_canonical{0};
    std::atomic<bool> credential_is_clean{false}; /* what was given holds what it should, no more */
    std::atomic<bool> policy_given{false};
    std::atomic<bool> sleeping{false}; /* a deaf_sleep is on */
    std::atomic<bool> reveal{false};   /* hidden nodes exist from now on */
};

struct fake_error_t {
    int code = 0; /* 0: a generic error */
    std::string tag;
    std::string message;
};

enum class fake_send_t {
    whole,
    fail_before_begin,
    fail_after_some,    /* 1,000 bytes, then a generic error */
    short_of_announced, /* success, though the range was not delivered to its end */
    success_without_begin,
    until_cancelled,        /* sends a little for ever */
    silent_until_cancelled, /* sends nothing for ever */
    deaf_sleep              /* sends a little, sleeps a second whatever is asked, then goes on */
};

enum class fake_list_t { whole, fail_at_once, fail_after_two_batches, endless };

struct fake_node_t {
    bool folder = false;
    std::string content; /* of a file, unless `size` says that it is generated */
    std::int64_t size = -1;
    std::time_t modified = 0;
    bool hidden = false; /* missing until revealed */
    fake_send_t send = fake_send_t::whole;
    fake_list_t list = fake_list_t::whole;
    std::vector<std::string> odd_names; /* listed in addition, as files */
};

struct fake_storage_t {
    fake_storage_t();
    ~fake_storage_t();
    fake_storage_t(const fake_storage_t &) = delete;
    fake_storage_t &operator=(const fake_storage_t &) = delete;

    fake_node_t &add_folder(const std::string &path);
    fake_node_t &add_file(const std::string &path, const std::string &content);
    /* A file whose byte at n is fake_byte(n). */
    fake_node_t &add_generated(const std::string &path, std::int64_t size);

    std::map<std::string, fake_node_t> nodes; /* by canonical path */
    std::map<std::string, fake_error_t> stat_errors;
    fake_error_t start_error;      /* with a message the start fails */
    bool start_hangs = false;      /* until cancelled, and a second more */
    bool wants_credential = false; /* the start fails without one, and notes the policy */
    fake_storage_shared_t *shared; /* never null */
};

char fake_byte(std::int64_t offset);

/* The interface table; works on the fake_storage_t that was made last. */
const tirval_gfs_storage_iface_t &fake_storage_interface();

} // namespace tirval::tests

#endif
