/*
 * How items are shown to clients: `ls -l` lines, and the facts of MLST and MLSD (RFC 3659, section
 * 7).  Pure functions, but for the filter, which logs what it leaves out.
 */
#ifndef TIRVAL_SERVER_LISTING_H
#define TIRVAL_SERVER_LISTING_H

#include "tirval_gridftp_server.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace tirval::server {

/* An item's description, without its name.  Times are seconds since the epoch, UTC. */
struct item_t {
    mode_t mode = 0;
    int links = 1;
    uid_t uid = 0; /* 0: the session's local user */
    gid_t gid = 0; /* 0: the session's local user's group */
    std::int64_t size = 0;
    std::time_t modified = 0; /* 0: not known */
    std::string link_target;  /* empty: no symbolic link */

    bool is_folder() const;
};

item_t item_from_record(const tirval_gridftp_server_control_stat_t &record);

/* Whom items belong to when the storage names nobody; one word each. */
struct owner_names_t {
    std::string user;
    std::string group;
};

/* The owner's and the group's name as one word, without bytes that a fact cannot hold. */
owner_names_t make_owner_names(std::string_view user, std::string_view group);

/* ---- ls -l --------------------------------------------------------------------------------- */

/*
 * An `ls -l` line in the C locale, in UTC, without its end.  The time of day is shown for the 182
 * days before `now`, the year otherwise.
 */
std::string ls_line(const item_t &item, std::string_view name, const owner_names_t &owners,
                    std::time_t now);

/* ---- Facts --------------------------------------------------------------------------------- */

/* A set of facts. */
class fact_set_t {
  public:
    enum fact_t : unsigned {
        type = 1U << 0,
        size = 1U << 1,
        modify = 1U << 2,
        perm = 1U << 3,
        unique = 1U << 4,
        unix_mode = 1U << 5,
        unix_owner = 1U << 6,
        unix_group = 1U << 7
    };

    /* All of them. */
    fact_set_t();
    bool has(fact_t fact) const { return (bits_ & fact) != 0; }

    /* Reads a list as OPTS MLST has it, "type;size;": unknown names are dropped, without case.
     * Nothing when the list is malformed. */
    static std::optional<fact_set_t> parse(std::string_view list);

    /* "type;size;" of the facts in the set. */
    std::string list() const;
    /* "type*;size;" of all facts known, those in the set marked, as FEAT has it. */
    std::string feature_list() const;

  private:
    explicit fact_set_t(unsigned bits) : bits_(bits) {}
    unsigned bits_;
};

/* How an entry of a listing relates to what is listed. */
enum class entry_kind_t { child, current_folder, parent_folder };

/*
 * The facts, each ended by ";", without the blank and the name that follow.
 *
 * path  the item's canonical path: the unique fact is made from it alone, so the same item has the
 *       same value in every listing
 */
std::string facts_text(const item_t &item, entry_kind_t kind, std::string_view path,
                       const fact_set_t &facts, const owner_names_t &owners);

/* A time as facts and MDTM have it: YYYYMMDDHHMMSS, UTC. */
std::string time_value(std::time_t time);

/* ---- Names --------------------------------------------------------------------------------- */

/*
 * Decides which children of one folder are shown.  Left out and logged are names that no client
 * could address, because they hold "/", NUL, CR or LF or are empty, "." or "..".  Of several
 * children of one name the first is shown: the rest cannot be told apart.
 */
class name_filter_t {
  public:
    /* `folder` is for the log. */
    explicit name_filter_t(std::string folder) : folder_(std::move(folder)) {}
    bool shows(std::string_view name);

  private:
    std::string folder_;
    std::unordered_set<std::string> seen_;
};

} // namespace tirval::server

#endif
