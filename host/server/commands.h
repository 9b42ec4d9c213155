/*
 * The handlers of the commands, as the command table names them (RFC 959, 2389, 2428, 3659).  Each
 * replies, or starts an operation that will.
 */
#ifndef TIRVAL_SERVER_COMMANDS_H
#define TIRVAL_SERVER_COMMANDS_H

#include "command_session.h"

#include <optional>
#include <string>

namespace tirval::server {

/* Log-in */
void handle_user(command_session_t &session, const std::string &argument);
void handle_pass(command_session_t &session, const std::string &argument);
void handle_quit(command_session_t &session, const std::string &argument);

/* Parameters and information */
void handle_allo(command_session_t &session, const std::string &argument);
void handle_clnt(command_session_t &session, const std::string &argument);
void handle_feat(command_session_t &session, const std::string &argument);
void handle_help(command_session_t &session, const std::string &argument);
void handle_mode(command_session_t &session, const std::string &argument);
void handle_noop(command_session_t &session, const std::string &argument);
void handle_opts(command_session_t &session, const std::string &argument);
void handle_rest(command_session_t &session, const std::string &argument);
void handle_stru(command_session_t &session, const std::string &argument);
void handle_syst(command_session_t &session, const std::string &argument);
void handle_type(command_session_t &session, const std::string &argument);

/* Data connections */
void handle_pasv(command_session_t &session, const std::string &argument);
void handle_epsv(command_session_t &session, const std::string &argument);
void handle_port(command_session_t &session, const std::string &argument);
void handle_eprt(command_session_t &session, const std::string &argument);
void handle_abor(command_session_t &session, const std::string &argument);

/* The tree */
void handle_pwd(command_session_t &session, const std::string &argument);
void handle_cwd(command_session_t &session, const std::string &argument);
void handle_cdup(command_session_t &session, const std::string &argument);
void handle_size(command_session_t &session, const std::string &argument);
void handle_mdtm(command_session_t &session, const std::string &argument);
void handle_mlst(command_session_t &session, const std::string &argument);

/* Listings; STAT without an argument tells the session's status */
void handle_list(command_session_t &session, const std::string &argument);
void handle_nlst(command_session_t &session, const std::string &argument);
void handle_mlsd(command_session_t &session, const std::string &argument);
void handle_stat(command_session_t &session, const std::string &argument);

/* Changes to the tree */
void handle_mkd(command_session_t &session, const std::string &argument);
void handle_rmd(command_session_t &session, const std::string &argument);
void handle_dele(command_session_t &session, const std::string &argument);
void handle_rnfr(command_session_t &session, const std::string &argument);
void handle_rnto(command_session_t &session, const std::string &argument);
void handle_mfmt(command_session_t &session, const std::string &argument);
void handle_site(command_session_t &session, const std::string &argument);

/* Transfers */
void handle_retr(command_session_t &session, const std::string &argument);
void handle_stor(command_session_t &session, const std::string &argument);
void handle_stou(command_session_t &session, const std::string &argument);
void handle_appe(command_session_t &session, const std::string &argument);

/* Checksums and ranges */
void handle_cksm(command_session_t &session, const std::string &argument);
void handle_hash(command_session_t &session, const std::string &argument);
void handle_rang(command_session_t &session, const std::string &argument);

/* ---- Shared by them ------------------------------------------------------------------------ */

/* The canonical path that the argument means; replies and returns nothing when it is none. */
std::optional<std::string> path_argument(command_session_t &session, const std::string &argument);

/* Deletes what the argument means by TIRVAL_GFS_CMD_RMD, DELE or SITE_RDEL.  Replies. */
void remove_item(command_session_t &session, tirval_gfs_command_type_t by,
                 const std::string &argument);

/*
 * Runs a command that changes the item at its paths, on the operation thread.  The user's other
 * sessions are told, also of a failure, which does not say that nothing was done; after one the
 * storage session is not trusted any more.
 */
std::optional<failure_t> run_change(storage_session_t &storage, tirval_gfs_command_info_t &info);

/* Whether the storage's descriptor word has the bits. */
bool storage_has(const command_session_t &session, int descriptor_bits);

/* The reply to SITE HELP and HELP SITE. */
std::string site_help(const command_session_t &session);

/* What a transfer command takes from the session; the restart point or range is cleared with it. */
struct transfer_setup_t {
    std::shared_ptr<std::unique_ptr<data_endpoint_t>> endpoint; /* to be moved out once */
    data_sender_t::options_t options;                           /* `ascii` is not set */
    std::int64_t restart_at = 0;
    std::optional<byte_range_t> range; /* then `restart_at` is 0 */

    bool is_partial() const { return restart_at > 0 || range; }
};

/* Takes the data connection that was set up; replies and returns nothing when there is none. */
std::optional<transfer_setup_t> take_transfer_setup(command_session_t &session);

/* Runs a transfer, which returns its final reply, and notes what the transfer log tells of it.
 * `path` is read after the transfer. */
outcome_t run_transfer(operation_context_t &context, std::string_view verb, const std::string &path,
                       const std::function<std::string()> &transfer);

/* The reply to STAT without an argument; `bytes` of a running transfer, if one runs. */
std::string status_reply(const session_state_t &state, std::optional<std::uint64_t> bytes);

/* OPTS CKSM and OPTS HASH; `setting` is what follows. */
void set_checksum_options(command_session_t &session, const std::string &setting);
void set_hash_options(command_session_t &session, const std::string &setting);

/* The lines of FEAT about checksums; none where the storage has none to offer. */
std::vector<std::string> checksum_features(command_session_t &session);

/* Whether the storage can deliver parts of files. */
bool offers_ranges(const command_session_t &session);

/* The number that the text is, without sign or blanks; nothing when it is none or too large. */
std::optional<std::int64_t> parse_number(std::string_view text);

} // namespace tirval::server

#endif
