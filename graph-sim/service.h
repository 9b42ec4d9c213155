// The simulated service: takes a request and gives the answer and how it is to be delivered.
#pragma once

#include "content_builder.h"
#include "control.h"
#include "download_links.h"
#include "faults.h"
#include "http.h"
#include "recorder.h"
#include "seed.h"
#include "settings.h"
#include "tokens.h"
#include "upload_sessions.h"
#include "world.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace graph_sim {

// What is known about a request before it is carried out.
struct incoming {
    route asked;
    std::optional<api_error> refused; // the address could not be read
    bool misplaced = false;           // asked of a listener that does not serve it
    std::string tenant;               // of token requests
    token_store::checked bearer;
    std::string account_name;
};

// A request on its way: its head has been read, and its body may be still to come.
struct exchange {
    request got;
    std::uint64_t record = 0; // the request's number, 0 when it is not recorded
    incoming in;
    std::optional<fired_fault> fault;

    // Where the body is to go: into `got.body`, into `file`, or nowhere, since it cannot change the
    // answer any more.
    enum class sink { text, file, nowhere } body = sink::nowhere;
    std::uint64_t largest_body = UINT64_MAX; // a larger one is refused
    std::optional<content_builder> file;
    std::uint64_t received = 0;      // body bytes so far
    std::optional<response> refused; // the answer, known from the head

    [[nodiscard]] const fault_action *action() const
    {
        return fault ? fault->action.get() : nullptr;
    }
};

// Everything but the sockets.  May be called by any thread; an exchange belongs to one at a time.
class service {
  public:
    // Keeps a record of the latest `record_capacity` requests; 0 keeps none.
    explicit service(std::size_t record_capacity = 100'000);

    // For filling it before it serves; see seed.h.
    seed_target target() { return {world_, tokens_, settings_, faults_}; }

    // Says that downloads have a listener of their own, at this port of the same host.
    void use_download_port(unsigned short port) { download_port_ = port; }

    // Judges a request by its head and says what to do with its body.
    exchange open(request head);
    // Refuses a body while it is received: 413 when it is larger than the exchange takes, 507 when
    // there is no place for it.
    static void refuse_body(exchange &going, unsigned status);
    // Carries the request out once its body is there.
    answer finish(exchange &going);
    // The connection has ended, or is to end, before the body was there.
    void abandon(exchange &going, outcome how);

    // All three steps for a request whose body is there already.
    answer handle(const request &got);

    // Body bytes that have gone out for a recorded request.
    void sent(std::uint64_t record, std::uint64_t bytes, outcome how)
    {
        recorder_.sent(record, bytes, how);
    }

  private:
    incoming classify(const request &got);
    void classify_transfer(const request &got, incoming &in);
    void plan_body(exchange &going);
    void plan_file(exchange &going);
    response carry_out(exchange &going);
    response carry_out_locked(exchange &going);
    response answer_graph(const request &got, const incoming &in, const fault_action *fault);
    // Calls `run` with what an upload address works with; the lock is held.
    template <class Run> auto at_upload_address(const request &got, const Run &run);
    std::string download_origin(const request &got) const;

    std::mutex mutex_; // guards what stands below, up to the links
    world world_;
    token_store tokens_;
    settings settings_;
    download_links links_;
    upload_session_store sessions_;

    fault_set faults_;  // has its own lock
    recorder recorder_; // has its own lock
    control control_;
    std::atomic<unsigned short> download_port_{0};
};

} // namespace graph_sim
