/*
 * RETR: one stat, which knows what the path is and how long, then the download.
 */
#include "commands.h"
#include "reply.h"
#include "vpath.h"

#include <algorithm>

namespace tirval::server {
namespace {

struct retrieval_t {
    std::string path; /* canonical */
    std::string name; /* as the client wrote it */
    bool ascii = false;
    transfer_setup_t setup;
};

/* What the storage is asked for. */
struct extent_t {
    std::int64_t offset;
    std::int64_t length; /* -1: to the end; 0: nothing */
};

/* Of a range the client gets what exists of it.  The end of a file is asked for as such, and only
 * when something is there. */
extent_t extent_of(const transfer_setup_t &setup, std::int64_t size)
{
    if (setup.range) {
        const std::int64_t end = std::min(setup.range->last, size - 1) + 1;
        return {setup.range->first, std::max<std::int64_t>(end - setup.range->first, 0)};
    }
    const bool nothing = setup.restart_at > 0 && setup.restart_at == size;
    return {setup.restart_at, nothing ? 0 : -1};
}

/* The other side of a running download: the client's data connection. */
class download_host_t final : public operation_host_t {
  public:
    download_host_t(operation_context_t &context, const retrieval_t &retrieval, std::int64_t size)
        : operation_host_t(context.storage.settings()), context_(context), retrieval_(retrieval),
          sender_(std::move(*retrieval.setup.endpoint), options_of(retrieval), context.bytes),
          size_(size), extent_(extent_of(retrieval.setup, size))
    {
    }

    std::optional<failure_t> begin_transfer() override
    {
        begun_ = true;
        context_.announce(single_reply(150, opening()));
        return note(sender_.open());
    }

    /* One range; none at all when the client has everything already. */
    bool read_range(tirval_off_t &offset, tirval_off_t &length) override
    {
        offset = extent_.offset;
        length = extent_.length;
        return !std::exchange(range_given_, true) && length != 0;
    }

    std::optional<failure_t> send(std::string_view data) override
    {
        return note(sender_.write(data));
    }

    std::optional<failure_t> flush() override { return note(sender_.flush()); }

    int default_code() const override { return begun_ ? 451 : 550; }

    /* The final reply, after the storage has ended with `result`. */
    std::string end(const std::optional<failure_t> &result)
    {
        if (!result && !client_failure_) {
            note(sender_.finish());
        }
        if (client_failure_) {
            return failure_reply(*client_failure_, "");
        }
        return result ? failure_reply(*result, retrieval_.path)
                      : single_reply(226, "Transfer complete.");
    }

  private:
    static data_sender_t::options_t options_of(const retrieval_t &retrieval)
    {
        data_sender_t::options_t options = retrieval.setup.options;
        options.ascii = retrieval.ascii;
        return options;
    }

    /* Clients take the number in parentheses as the length of what follows. */
    std::string opening() const
    {
        const bool exact = !retrieval_.ascii && !retrieval_.setup.is_partial();
        return std::string("Opening ") + (retrieval_.ascii ? "ASCII" : "BINARY") +
               " mode data connection for " + retrieval_.name +
               (exact ? " (" + std::to_string(size_) + " bytes)." : ".");
    }

    std::optional<failure_t> note(std::optional<failure_t> failure)
    {
        if (failure && !client_failure_) {
            client_failure_ = failure;
        }
        return failure;
    }

    operation_context_t &context_;
    const retrieval_t &retrieval_;
    data_sender_t sender_;
    std::int64_t size_;
    extent_t extent_;
    bool begun_ = false;
    bool range_given_ = false;
    std::optional<failure_t> client_failure_;
};

std::string retrieve(operation_context_t &context, const retrieval_t &retrieval)
{
    const auto found = context.storage.stat(retrieval.path);
    if (const auto *failure = std::get_if<failure_t>(&found)) {
        return failure_reply(*failure, retrieval.path);
    }
    const auto &item = std::get<item_t>(found);
    if (item.is_folder()) {
        return single_reply(550, "Not a plain file: " + retrieval.path);
    }
    if (retrieval.setup.restart_at > item.size) {
        return single_reply(554, "Restart beyond the end of the file: " + retrieval.path);
    }
    download_host_t host(context, retrieval, item.size);
    return host.end(context.storage.send(retrieval.path, item.size, host));
}

} // namespace

void handle_retr(command_session_t &session, const std::string &argument)
{
    auto setup = take_transfer_setup(session);
    if (!setup) {
        return;
    }
    const auto path = path_argument(session, argument);
    if (!path) {
        return;
    }
    retrieval_t retrieval;
    retrieval.path = *path;
    retrieval.name = argument;
    retrieval.ascii = session.state().type == transfer_type_t::ascii;
    retrieval.setup = std::move(*setup);
    if (retrieval.ascii && retrieval.setup.is_partial()) {
        session.reply(single_reply(501, "REST and RANG need TYPE I."));
        return;
    }
    session.run([retrieval = std::move(retrieval)](operation_context_t &context) {
        return run_transfer(context, "RETR", retrieval.path,
                            [&] { return retrieve(context, retrieval); });
    });
}

} // namespace tirval::server
