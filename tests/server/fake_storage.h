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

#include <array>
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
    std::atomic<std::int64_t> send_offset{-1}; /* of the last range sent */
    std::atomic<std::int64_t> send_length{-1};
    std::atomic<int> checksums{0}; /* asked for by command */
    std::atomic<std::int64_t> checksum_offset{-1};
    std::atomic<std::int64_t> checksum_length{0};
    std::atomic<bool> proceed{false}; /* checksums that wait go on */
    std::atomic<int> recvs{0};
    std::atomic<int> stores{0};               /* that were completed */
    std::atomic<int> probes{0};               /* reads registered for the end of a client's data */
    std::atomic<std::int64_t> store_size{-1}; /* of the last store, as the storage was told */
    std::atomic<bool> store_truncates{false};
    std::atomic<std::int64_t> store_offset{-1};
    std::atomic<std::int64_t> store_modified{-1};
    std::atomic<bool> storing{false};  /* a store that is silent has begun */
    std::array<char, 4096> commands{}; /* that change the tree, each ended by LF */
    std::atomic<std::size_t> commands_size{0};
    std::atomic<int> paths_not_canonical{0};
    std::atomic<bool> credential_is_clean{false}; /* what was given holds what it should, no more */
    std::atomic<bool> policy_given{false};
    std::atomic<bool> sleeping{false}; /* a deaf_sleep is on */
    std::atomic<bool> reveal{false};   /* hidden nodes exist from now on */
};

struct fake_error_t {
    int code = 0; /* 0: a generic error */
    std::string tag;
    std::string message; /* may be empty where there is a code */
};

/* Puts the error and returns its result. */
tirval_result_t put(const fake_error_t &error);

enum class fake_send_t {
    whole,
    fail_before_begin,
    fail_after_some,    /* 1,000 bytes, then a generic error */
    short_of_announced, /* success, though the range was not delivered to its end */
    repeated,           /* half of the range, then all of it from its first byte */
    success_without_begin,
    until_cancelled,        /* sends a little for ever */
    silent_until_cancelled, /* sends nothing for ever */
    deaf_sleep              /* sends a little, sleeps a second whatever is asked, then goes on */
};

enum class fake_checksum_t {
    as_told,
    fail,
    wait,                  /* after its progress reports, until told to proceed */
    silent_until_cancelled /* never answers by itself */
};

enum class fake_list_t { whole, fail_at_once, fail_after_two_batches, endless };

struct fake_node_t {
    bool folder = false;
    std::string content; /* of a file, unless `size` says that it is generated */
    std::int64_t size = -1;
    std::int64_t size_told = -1; /* what a stat says instead, once the file has changed */
    std::time_t modified = 0;
    bool hidden = false; /* missing until revealed */
    fake_send_t send = fake_send_t::whole;
    fake_list_t list = fake_list_t::whole;
    fake_checksum_t checksum = fake_checksum_t::as_told;
    /* By the algorithm's name; an algorithm that is not here is answered with no text. */
    std::map<std::string, std::string> checksums;
    std::vector<int> checksum_statuses;          /* the service's answers to the first checksums */
    std::vector<std::int64_t> checksum_progress; /* bytes reported, where reports are wanted */
    std::vector<std::string> odd_names;          /* listed in addition, as files */
};

/* How the stores of a path go wrong. */
struct fake_store_plan_t {
    fake_error_t refusal;              /* with a message: before the transfer begins */
    int status = 0;                    /* of the service's answer that the refusal is about */
    std::vector<std::int64_t> fail_at; /* the part from each offset fails, once for each entry */
    fake_error_t part_error{0, "", "the service broke off"};
    bool nameless = false;      /* the result names no error object */
    bool without_begin = false; /* success at once, with nothing stored */
    bool silent = false;        /* takes nothing and answers only when cancelled */
};

/* How a command that changes the tree is answered. */
struct fake_change_plan_t {
    fake_error_t error; /* with a message it fails */
    int status = 204;   /* of the service's answer; 0: none came */
    bool applies = true;
    bool reveals = false;         /* hidden nodes exist from now on */
    bool until_cancelled = false; /* waits for that before anything else */
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
    /* The commands run so far that change the tree, "VERB path". */
    std::vector<std::string> commands() const;

    std::map<std::string, fake_node_t> nodes; /* by canonical path */
    std::map<std::string, fake_error_t> stat_errors;
    std::map<std::string, fake_store_plan_t> store_plans; /* by path */
    /* By path, for one command after the other; with none left all goes well. */
    std::map<std::string, std::vector<fake_change_plan_t>> change_plans;
    fake_error_t start_error; /* with a message the start fails */
    bool start_hangs = false; /* until cancelled, and a second more */
    int descriptor = TIRVAL_GFS_DSI_DESCRIPTOR_BLOCKING | TIRVAL_GFS_DSI_DESCRIPTOR_RANGES;
    std::string checksum_support;  /* announced at each start, unless empty */
    bool wants_credential = false; /* the start fails without one, and notes the policy */
    fake_storage_shared_t *shared; /* never null */
};

char fake_byte(std::int64_t offset);

/* The interface table; works on the fake_storage_t that was made last. */
const tirval_gfs_storage_iface_t &fake_storage_interface();

} // namespace tirval::tests

#endif
