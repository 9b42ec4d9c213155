// The simulated service: takes a request and gives the answer and how it is to be delivered.
#pragma once

#include "control.h"
#include "download_links.h"
#include "faults.h"
#include "http.h"
#include "recorder.h"
#include "seed.h"
#include "settings.h"
#include "tokens.h"
#include "world.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace graph_sim {

// Everything but the sockets.  handle() and sent() may be called by any thread.
class service {
  public:
    // Keeps a record of the latest `record_capacity` requests; 0 keeps none.
    explicit service(std::size_t record_capacity = 100'000);

    // For filling it before it serves; see seed.h.
    seed_target target() { return {world_, tokens_, settings_, faults_}; }

    // Says that downloads have a listener of their own, at this port of the same host.
    void use_download_port(unsigned short port) { download_port_ = port; }

    answer handle(const request &got);
    // Body bytes that have gone out for a recorded request.
    void sent(std::uint64_t record, std::uint64_t bytes, outcome how)
    {
        recorder_.sent(record, bytes, how);
    }

  private:
    // What is known about a request before it is carried out.
    struct incoming {
        route asked;
        std::optional<api_error> refused; // the address could not be read
        bool misplaced = false;           // asked of a listener that does not serve it
        std::string tenant;               // of token requests
        token_store::checked bearer;
        std::string account_name;
    };

    incoming classify(const request &got);
    response carry_out(const request &got, const incoming &in, const fault_action *fault);
    response answer_graph(const request &got, const incoming &in, const fault_action *fault);
    std::string download_origin(const request &got) const;

    std::mutex mutex_; // guards what stands below, up to the links
    world world_;
    token_store tokens_;
    settings settings_;
    download_links links_;

    fault_set faults_;  // has its own lock
    recorder recorder_; // has its own lock
    control control_;
    std::atomic<unsigned short> download_port_{0};
};

} // namespace graph_sim
