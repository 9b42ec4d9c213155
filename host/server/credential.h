/*
 * A user's credential for the storage service: read from the file that the user's sign-in wrote,
 * renewed when it is about to expire, and handed to the storage as a fresh JSON text.
 *
 * The file is a JSON object: "access_token", "token_expiry" (YYYY-MM-DDTHH:MM:SS.ffffff+00:00),
 * "sub", "tid" (left out when there is none), and for renewal (RFC 6749, section 6)
 * "refresh_token", "client_id", "token_endpoint", "scope".  Whoever writes it holds a lock on
 * PATH.lock, and replaces it by way of PATH.new, so that several sessions renew once between them
 * and a refresh token that the service changed is not lost.
 */
#ifndef TIRVAL_SERVER_CREDENTIAL_H
#define TIRVAL_SERVER_CREDENTIAL_H

#include "privileges.h"

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace tirval::server {

/* Why there is no credential: what() is for the log; client_text() is for the user, one sentence
 * that tells what to do and no path or detail of the server.  Neither holds a secret. */
class credential_error_t : public std::runtime_error {
  public:
    credential_error_t(const std::string &log_text, std::string client_text)
        : std::runtime_error(log_text), client_text_(std::move(client_text))
    {
    }
    const std::string &client_text() const { return client_text_; }

  private:
    std::string client_text_;
};

/* One session's source of credentials.  Used by the operation thread only. */
class credential_source_t {
  public:
    /*
     * path_template  the file's absolute path; "$HOME" and "$LOGNAME" in it are the home and the
     *                name that the user database has for the process's real user, whatever the
     *                environment says
     *
     * To be made after become_user().  Throws credential_error_t when the user database has no
     * entry for the user, or no home where one is needed.
     */
    explicit credential_source_t(const std::string &path_template);
    credential_source_t(const std::string &path_template, const account_t &account);

    /*
     * The credential as JSON: "access_token", "token_expiry", "sub" and, when there is one, "tid".
     * For the storage's keys "creds" and "renew-creds" alike: with less than 300 seconds of life
     * left the token is renewed first.  When that fails and more than 99 seconds are left, the
     * token is used and the log warns.
     *
     * Blocks for a request to the token endpoint, or while another session makes one; ends early
     * when the running operation is cancelled.  Throws credential_error_t, also when the file has
     * come to belong to another account than at the first call.
     */
    std::string fetch();

    const std::filesystem::path &path() const { return path_; }
    /* The credential's "sub"; empty before the first success of fetch(). */
    const std::string &sub() const { return sub_; }

  private:
    std::filesystem::path path_;
    uid_t owner_;
    std::optional<std::string> identity_; /* "sub" and "tid" of the first call */
    std::string sub_;
};

} // namespace tirval::server

#endif
