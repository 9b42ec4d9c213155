/*
 * What commands see of a session: its state, the operations that they start, and the few things
 * that they ask of the session itself.
 */
#ifndef TIRVAL_SERVER_COMMAND_SESSION_H
#define TIRVAL_SERVER_COMMAND_SESSION_H

#include "config.h"
#include "data_connection.h"
#include "listing.h"
#include "log.h"
#include "socket_address.h"
#include "storage_session.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tirval::server {

enum class transfer_type_t { ascii, image };

/* Bytes of a file, from `first` to `last`, which belongs to them. */
struct byte_range_t {
    std::int64_t first;
    std::int64_t last;
};

/* What the client has set, and what is known of it.  On the I/O thread only. */
struct session_state_t {
    std::string login_name;       /* as USER gave it */
    bool awaits_password = false; /* USER was the last of the log-in commands */
    bool logged_in = false;

    std::string cwd = "/"; /* canonical */
    transfer_type_t type = transfer_type_t::ascii;
    std::int64_t restart_at = 0;                 /* of the next transfer */
    std::optional<byte_range_t> range;           /* of the next transfer or HASH; then no restart */
    std::optional<std::uint64_t> announced_size; /* of the next store */
    std::optional<std::time_t> store_modified;   /* the next store's modification time */
    fact_set_t facts;
    std::optional<std::string> rename_from; /* after RNFR: what RNTO renames; canonical */
    std::string checksums;                  /* as the storage announced them; empty before log-in */
    std::string hash_name = "SHA-256";      /* of HASH, unless the storage has no such checksum */
    std::chrono::seconds marker_interval{0}; /* between the markers of a checksum; 0: none */
    bool extended_passive_only = false;      /* after EPSV ALL */
    std::unique_ptr<data_endpoint_t> data;   /* for the next data connection; null: none set up */

    socket_address_t local;  /* of the control connection */
    socket_address_t client; /* of the control connection */
    owner_names_t owners;    /* of what the storage names no owner for */
};

/* What the operation thread gets for an operation. */
struct operation_context_t {
    storage_session_t &storage;
    std::function<void(std::string reply)> announce; /* sends a preliminary reply */
    std::atomic<std::uint64_t> &bytes;               /* moved so far, for STAT */
    std::function<bool()> client_sends_no_more;      /* it has closed its side, or is gone */
};

/* What comes of an operation. */
struct outcome_t {
    std::string reply;                         /* complete */
    std::optional<std::string> cwd;            /* the new one, if it changes */
    bool logged_in = false;                    /* this was the log-in, and it succeeded */
    std::string checksums;                     /* of a log-in: what the storage announced */
    std::optional<std::string> rename_from;    /* what the next command, RNTO, renames */
    std::optional<transfer_record_t> transfer; /* for the transfer log; the session adds whose */
};

/* An outcome that is only a reply. */
inline outcome_t answer(std::string reply)
{
    outcome_t outcome;
    outcome.reply = std::move(reply);
    return outcome;
}

/* Runs on the operation thread.  What it needs of the session's state it has copied. */
using operation_t = std::function<outcome_t(operation_context_t &)>;

/* On the I/O thread only. */
class command_session_t {
  public:
    virtual ~command_session_t() = default;
    virtual session_state_t &state() = 0;
    virtual const config_t &config() const = 0;
    virtual const tirval_gfs_storage_iface_t &storage() const = 0;

    /* Sends a complete reply. */
    virtual void reply(const std::string &text) = 0;
    /* Starts an operation; the next command waits for its end.  Only after log-in. */
    virtual void run(operation_t operation) = 0;
    /* Checks the password of state().login_name and goes on with the log-in.  Replies. */
    virtual void log_in(const std::string &password) = 0;
    /* Sends a last reply and ends the session. */
    virtual void leave(const std::string &text) = 0;
};

} // namespace tirval::server

#endif
