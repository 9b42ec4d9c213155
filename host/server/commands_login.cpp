/*
 * USER, PASS and QUIT.
 */
#include "commands.h"
#include "reply.h"

namespace tirval::server {

void handle_user(command_session_t &session, const std::string &argument)
{
    /* The same answer for every name: it must not tell which ones exist. */
    session_state_t &state = session.state();
    state.login_name = argument;
    state.awaits_password = true;
    state.logged_in = false;
    session.reply(single_reply(331, "Password required for " + argument + "."));
}

void handle_pass(command_session_t &session, const std::string &argument)
{
    session_state_t &state = session.state();
    if (!state.awaits_password) {
        session.reply(single_reply(503, "Send USER first."));
        return;
    }
    state.awaits_password = false;
    session.log_in(argument);
}

void handle_quit(command_session_t &session, const std::string &)
{
    session.leave(single_reply(221, "Goodbye."));
}

} // namespace tirval::server
