/*
 * The commands that the server knows, and the checks that all of them share.
 */
#ifndef TIRVAL_SERVER_COMMAND_TABLE_H
#define TIRVAL_SERVER_COMMAND_TABLE_H

#include "command_session.h"
#include "control_line.h"

#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

using command_handler_t = void (*)(command_session_t &session, const std::string &argument);

enum class argument_rule_t { none, optional, required };

struct command_t {
    std::string_view verb;     /* in capitals */
    command_handler_t handler; /* null: known, but not offered */
    bool before_login;
    argument_rule_t argument;
    std::string_view syntax; /* of the argument, for HELP */
    int needs = 0;           /* bits of the storage's descriptor word: offered only with them */
};

/* Null when the verb is unknown. */
const command_t *find_command(std::string_view verb);

/* The command as a log may show it: an argument only where it can be no secret. */
std::string loggable_text(const command_text_t &text);

/* The verbs that the server offers with the session's storage, in the table's order. */
std::vector<std::string_view> offered_verbs(const command_session_t &session);

/* Checks the command against the table and the session's state and calls its handler; replies with
 * the error otherwise.  On the I/O thread. */
void dispatch_command(command_session_t &session, const command_text_t &text);

} // namespace tirval::server

#endif
