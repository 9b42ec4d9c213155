/*
 * A back end in memory: it runs one entry of a storage after the other without a network client,
 * plays the client by script, and keeps all that the storage said.
 *
 *     memory_backend host(iface);
 *     host.config["creds"] = ...;
 *     host.start("alice");
 *     host.send("/My files/a.txt");
 *     EXPECT_EQ(host.answer.text, "");
 *     EXPECT_EQ(host.sent_bytes(), "hello");
 *     host.end();
 *
 * The script is set before a run; what was recorded is cleared when the next run begins.  One run
 * at a time, on the test's thread.
 */
#ifndef TIRVAL_MEMORY_BACKEND_H
#define TIRVAL_MEMORY_BACKEND_H

#include "tirval_gfs_host.h"
#include "tirval_gfs_stream.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/* What a result told at the moment when it was given. */
struct memory_outcome {
    bool given = false;
    tirval_result_t result = TIRVAL_SUCCESS;
    std::string text;    /* the printed chain; empty for success */
    int type = 0;        /* of a generic error */
    int code = 0;        /* of an FTP response error; 0: the result's object is none */
    std::string tag;     /* empty also when there is none */
    std::string message; /* empty also when there is none */

    bool success() const { return given && result == TIRVAL_SUCCESS; }
    static memory_outcome of(tirval_result_t result);
};

struct memory_record {
    mode_t mode = 0;
    int nlink = 0;
    std::optional<std::string> name;
    std::optional<std::string> symlink_target;
    uid_t uid = 0;
    gid_t gid = 0;
    tirval_off_t size = 0;
    time_t atime = 0;
    time_t ctime = 0;
    time_t mtime = 0;
    uint64_t dev = 0;
    uint64_t ino = 0;
};

struct memory_range {
    tirval_off_t offset;
    tirval_off_t length;
};

/* Bytes that followed one another without a gap. */
struct memory_piece {
    tirval_off_t offset;
    std::string bytes;
};

/* How a registered read is completed, always by a thread of its own. */
enum class memory_read {
    at_once,   /* with the next bytes of `upload`, or its end */
    late,      /* likewise, after `read_delay` */
    fails,     /* at once, with an FTP response error 426 */
    on_cancel, /* with the cancel error, as soon as the operation is cancelled */
    refused    /* not at all: the registration fails */
};

class memory_backend {
  public:
    explicit memory_backend(const tirval_gfs_storage_iface_t *storage_iface = nullptr);
    ~memory_backend();
    memory_backend(const memory_backend &) = delete;
    memory_backend &operator=(const memory_backend &) = delete;

    /* The functions, for use with the tirval_gfs_run_*() themselves; `host` is the object. */
    static const tirval_gfs_backend_t *functions();

    /* ---- Runs.  Each returns the answer's success. ---- */
    bool start(const std::string &name = "alice"); /* keeps the handle in `session` */
    void end();                                    /* nothing when there is no session */
    bool stat(const std::string &path);            /* this one item */
    bool list(const std::string &path);            /* the folder and its children */
    bool command(tirval_gfs_command_info_t info);
    bool command(tirval_gfs_command_type_t type, const std::string &path);
    bool rename(const std::string &from, const std::string &to);
    bool checksum(const std::string &path, const std::string &algorithm, tirval_off_t offset = 0,
                  tirval_off_t length = -1);
    bool send(const std::string &path, tirval_off_t known_size = -1);
    /* Stores `upload`, announcing its size, or `announced`. */
    bool recv(const std::string &path);
    bool recv(const std::string &path, tirval_off_t announced, bool truncate = true);

    /* Runs a function of the test's in place of a storage's entry, so that it has an operation.
     * Without an answer of its own it answers with success. */
    using body = std::function<void(tirval_gfs_operation_t op)>;
    void in_start(const body &function);
    void in_stat(const body &function);
    void in_command(const body &function);
    void in_send(const body &function, tirval_off_t known_size = -1);
    void in_recv(const body &function, tirval_off_t announced = 0);

    /* ---- The script ---- */
    const tirval_gfs_storage_iface_t *iface;
    void *session = nullptr;
    std::map<std::string, std::string> config;
    /* When set, asked instead of `config`. */
    std::function<std::optional<std::string>(const std::string &key)> on_config;
    int update_interval = 0;
    time_t modification_time = -1;

    bool begin_fails = false;                     /* with an FTP response error 425 */
    std::function<void()> on_begin;               /* called first */
    std::vector<memory_range> ranges = {{0, -1}}; /* for each send */
    memory_range write_range = {0, -1};
    std::optional<size_t> send_fails_after;    /* bytes taken in a run, then 426 */
    std::function<void(size_t total)> on_send; /* after each accepted block */
    bool flush_fails = false;                  /* with 426 */

    std::string upload;                        /* the client's data, for each recv */
    size_t upload_chunk = 0;                   /* most bytes of one receive; 0: any */
    bool upload_ends = true;                   /* false: after the data the client is silent */
    std::optional<size_t> receive_fails_after; /* bytes given in a run, then 426 */
    std::optional<size_t> unhurried; /* bytes that are there without waiting; unset: all */
    memory_read reads = memory_read::at_once;
    std::chrono::milliseconds read_delay{50};
    std::function<void()> on_receive;  /* before each receive that may wait */
    std::function<void()> on_register; /* after an accepted registration, on the entry's thread */

    /* ---- What was recorded ---- */
    memory_outcome answer; /* of the last run */
    int answers = 0;
    std::optional<std::string> username; /* of the start answer */
    std::optional<std::string> home_dir;
    std::string checksum_support;
    std::vector<std::string> config_asked; /* in order */
    std::vector<memory_record> records;    /* all batches together */
    std::vector<int> batches;              /* their sizes */
    std::optional<std::string> response;
    std::vector<std::string> progress;
    int begins = 0;
    int ranges_asked = 0;
    std::vector<memory_piece> sent;
    std::vector<size_t> sent_blocks; /* the size of each send */
    int flushes = 0;
    size_t received = 0; /* bytes that the storage got, by receiving or registered reads */
    int receives = 0;
    std::vector<tirval_off_t> stored_up_to; /* in order */
    int reads_registered = 0;
    std::string sent_bytes() const; /* all pieces together */

  private:
    static memory_backend &self(void *host) { return *static_cast<memory_backend *>(host); }
    static void session_started(void *host, tirval_result_t result, void *session,
                                const char *username, const char *home_dir);
    static void stat_records(void *host, const tirval_gridftp_server_control_stat_t *records,
                             int count);
    static void answered(void *host, tirval_result_t result);
    static void command_progress(void *host, const char *text);
    static void command_finished(void *host, tirval_result_t result, const char *text);
    static char *config_data(void *host, const char *key);
    static tirval_result_t begin_transfer(void *host);
    static bool read_range(void *host, tirval_off_t *offset, tirval_off_t *length);
    static tirval_result_t send_block(void *host, const void *data, tirval_size_t size,
                                      tirval_off_t offset);
    static tirval_result_t flush(void *host);
    static tirval_result_t receive(void *host, void *buffer, tirval_size_t capacity, bool wait,
                                   tirval_size_t *received, bool *would_block);
    static int receive_descriptor(void *host);
    static tirval_result_t register_read(void *host, void *buffer, tirval_size_t length,
                                         tirval_gfs_read_done_t done, void *done_arg);

    void forget();
    bool finish_run();
    bool silent() const;
    size_t give(void *buffer, size_t capacity);
    bool has_something_now() const;
    void complete_read(void *buffer, tirval_size_t length, tirval_gfs_read_done_t done,
                       void *done_arg);

    std::deque<std::string> texts_; /* configuration that was given out */
    std::mutex lock_;               /* what a reading thread shares with the test's */
    std::vector<std::thread> readers_;
    bool started_ = false;
    size_t next_range_ = 0;
    size_t sent_total_ = 0;
    int descriptor_ = -1;
};

#endif
