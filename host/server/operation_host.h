/*
 * The server's side of one running storage operation, as a class: what the storage tells and asks
 * is turned into calls of its functions, and no exception goes back into the storage.
 */
#ifndef TIRVAL_SERVER_OPERATION_HOST_H
#define TIRVAL_SERVER_OPERATION_HOST_H

#include "failure.h"

#include "tirval_gfs_host.h"

#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tirval::server {

using record_t = tirval_gridftp_server_control_stat_t;

/* Answers the session's questions for configuration, in any operation. */
class session_settings_t {
  public:
    virtual ~session_settings_t() = default;
    /* A text that stays valid until the operation ends; null when there is none for `key`. */
    virtual char *setting(std::string_view key) = 0;
    /* The checksums that the storage offers, as it announces them. */
    virtual void announce_checksums(std::string_view support) = 0;
};

/* All functions are called on the operation thread. */
class operation_host_t {
  public:
    explicit operation_host_t(session_settings_t &settings) : settings_(settings) {}
    virtual ~operation_host_t() = default;
    operation_host_t(const operation_host_t &) = delete;
    operation_host_t &operator=(const operation_host_t &) = delete;

    /* What the storage answered: nothing for success.  To be asked after the run. */
    const std::optional<failure_t> &outcome() const { return outcome_; }

    virtual void session_started(void *session, std::string_view home);
    virtual void records(std::span<const record_t> batch);
    virtual std::optional<failure_t> begin_transfer();
    /* The next range wanted, `length` -1: to the end; false: no more. */
    virtual bool read_range(tirval_off_t &offset, tirval_off_t &length);
    virtual std::optional<failure_t> send(std::string_view data);
    virtual std::optional<failure_t> flush();

    /* Stores: where the client's data goes, `length` -1: to its end. */
    virtual void write_range(tirval_off_t &offset, tirval_off_t &length);
    /* The next bytes of the client's data; all as tirval_gfs_backend_t's receive. */
    virtual std::optional<failure_t> receive(std::span<char> buffer, bool wait,
                                             std::size_t &received, bool &would_block);
    virtual int receive_descriptor();
    virtual std::optional<failure_t> register_read(std::span<char> buffer,
                                                   tirval_gfs_read_done_t done, void *done_arg);
    /* The storage has taken everything before `offset`, and goes on from there. */
    virtual void stored_up_to(tirval_off_t offset);
    /* What the client wants the stored file's modification time to be; -1: nothing. */
    virtual std::time_t modification_time() { return -1; }

    /* Commands: progress, at most once in `update_interval` seconds; 0: none is wanted. */
    virtual int update_interval() { return 0; }
    virtual void command_progress(std::string_view text);
    /* The text that the storage ended the command with; empty when there is none. */
    const std::string &response() const { return response_; }

    /* The code of a failure that does not bring one. */
    virtual int default_code() const { return 550; }

    session_settings_t &settings() { return settings_; }
    void finished(tirval_result_t result);
    void fail(failure_t failure);
    void respond(std::string_view text) { response_ = text; }

  private:
    session_settings_t &settings_;
    std::string response_;
    std::optional<failure_t> outcome_;
};

/* The functions that the runs of tirval_gfs_host.h take; `host` must point to an operation_host_t.
 */
const tirval_gfs_backend_t &operation_backend();

} // namespace tirval::server

#endif
