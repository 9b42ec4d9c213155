/*
 * Listings over a data connection (LIST, NLST, MLSD) and over the control connection (STAT).
 */
#include "commands.h"
#include "listing_run.h"
#include "reply.h"
#include "vpath.h"

namespace tirval::server {
namespace {

/* So many lines are sent together, so that a long listing is seen to come in. */
constexpr int lines_together = 100;

/*
 * The data connection of a listing.  It is opened with the first line, or with the success of a
 * listing without lines: until then a failure can still be answered without one.
 */
class listing_stream_t {
  public:
    listing_stream_t(operation_context_t &context, const transfer_setup_t &setup)
        : context_(context), sender_(std::move(*setup.endpoint), setup.options, context.bytes)
    {
    }

    void add(std::string_view line)
    {
        if (!begin()) {
            return;
        }
        note(sender_.write(line));
        note(sender_.write("\r\n"));
        if (++lines_ % lines_together == 0) {
            note(sender_.flush());
        }
    }

    bool begin()
    {
        if (!failure_ && !begun_) {
            begun_ = true;
            context_.announce(single_reply(150, "Opening ASCII mode data connection for listing."));
            note(sender_.open());
        }
        return !failure_;
    }

    /* The final reply, after the storage has ended with `result`. */
    std::string end(std::optional<failure_t> result, const std::string &path)
    {
        if (result && !failure_) {
            if (begun_) {
                result->code = 451;
                note(sender_.finish());
            }
            return failure_reply(*result, path);
        }
        if (begin()) {
            note(sender_.finish());
        }
        return failure_ ? failure_reply(*failure_, "") : single_reply(226, "Transfer complete.");
    }

  private:
    /* The client cannot be served any more: the storage need not go on. */
    void note(std::optional<failure_t> failure)
    {
        if (failure && !failure_) {
            failure_ = std::move(failure);
            tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
        }
    }

    operation_context_t &context_;
    data_sender_t sender_;
    std::optional<failure_t> failure_;
    bool begun_ = false;
    int lines_ = 0;
};

listing_request_t make_request(const session_state_t &state, listing_style_t style)
{
    listing_request_t request;
    request.style = style;
    request.facts = state.facts;
    request.owners = state.owners;
    return request;
}

/*
 * Clients send the options of ls before the path, each word followed by one blank.  They change
 * nothing here; a name that begins with "-" is written "./-name".
 */
std::string without_options(const std::string &argument)
{
    std::string_view rest = argument;
    while (rest.starts_with('-')) {
        const std::size_t end = rest.find(' ');
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return std::string(rest);
}

void send_listing(command_session_t &session, listing_style_t style, const std::string &argument)
{
    const auto setup = take_transfer_setup(session);
    if (!setup) {
        return;
    }
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    listing_request_t request = make_request(session.state(), style);
    request.path = *path;
    request.argument = argument;
    session.run([request, setup = *setup](operation_context_t &context) {
        listing_stream_t stream(context, setup);
        const line_sink_t sink = [&](std::string_view line) { stream.add(line); };
        listing_result_t result = run_listing(context.storage, request, sink);
        return answer(stream.end(std::move(result.failure), request.path));
    });
}

} // namespace

void handle_list(command_session_t &session, const std::string &argument)
{
    send_listing(session, listing_style_t::long_lines, without_options(argument));
}

void handle_nlst(command_session_t &session, const std::string &argument)
{
    send_listing(session, listing_style_t::names, without_options(argument));
}

void handle_mlsd(command_session_t &session, const std::string &argument)
{
    send_listing(session, listing_style_t::facts, argument);
}

void handle_stat(command_session_t &session, const std::string &argument)
{
    if (argument.empty()) {
        session.reply(status_reply(session.state(), std::nullopt));
        return;
    }
    if (!session.state().logged_in) {
        session.reply(single_reply(530, "Log in with USER and PASS first."));
        return;
    }
    const std::string wanted = without_options(argument);
    const auto path = path_argument(session, wanted);
    if (!path) {
        return;
    }
    listing_request_t request = make_request(session.state(), listing_style_t::long_lines);
    request.path = *path;
    request.argument = wanted;
    session.run([request](operation_context_t &context) {
        std::vector<std::string> lines;
        const line_sink_t sink = [&](std::string_view line) { lines.emplace_back(line); };
        const listing_result_t result = run_listing(context.storage, request, sink);
        std::string reply =
            result.failure ? failure_reply(*result.failure, request.path)
                           : body_reply(result.is_folder ? 212 : 213,
                                        "Status of " + request.path + ":", lines, "End of status");
        return answer(std::move(reply));
    });
}

} // namespace tirval::server
