/*
 * What went wrong, in the words that a client is told: made from a storage's result or by the
 * server itself.
 */
#ifndef TIRVAL_SERVER_FAILURE_H
#define TIRVAL_SERVER_FAILURE_H

#include "tirval_common.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

struct failure_t {
    int code = 550;                 /* of the reply, RFC 959 */
    std::string tag;                /* symbolic reason; may be empty */
    std::vector<std::string> lines; /* details, none empty; without secrets */
    std::string reason;             /* one short sentence without a full stop */

    /* The path does not exist, as far as the storage knows. */
    bool is_not_found() const { return code == 550 && tag == "PATH_NOT_FOUND"; }
};

/* A failure of the server's own, that needs no details. */
failure_t make_failure(int code, std::string_view reason);

/*
 * What a storage's result says.  The first FTP response error in the chain of causes gives the
 * code, the tag and the message; any other result gets `default_code`.  Addresses in the texts are
 * cut behind the host, since they may carry an authorisation.  The result is borrowed.
 */
failure_t describe_result(tirval_result_t result, int default_code);

/* Puts the failure as an FTP response error; TIRVAL_SUCCESS for none. */
tirval_result_t put_result(const std::optional<failure_t> &failure);

/*
 * The reply: with details a multi-line one, "GridFTP-Reason: TAG" and each detail first.  The last
 * line is "reason: subject" and says enough by itself; an empty subject leaves only the reason.
 */
std::string failure_reply(const failure_t &failure, std::string_view subject);

} // namespace tirval::server

#endif
