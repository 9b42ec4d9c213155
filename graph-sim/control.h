// The control paths below /__sim/, by which tests and people look into the service and change it.
#pragma once

#include "download_links.h"
#include "faults.h"
#include "http.h"
#include "recorder.h"
#include "settings.h"
#include "tokens.h"
#include "upload_sessions.h"
#include "world.h"

#include <mutex>
#include <string>

namespace graph_sim {

inline constexpr std::string_view control_prefix = "/__sim/";

// docs/graph-sim.md lists the paths.  Borrows everything; `mutex` guards all but the faults and the
// record.
class control {
  public:
    control(std::mutex &mutex, world &all, token_store &tokens, settings &options,
            download_links &links, fault_set &faults, recorder &requests,
            upload_session_store &sessions);

    // Never throws: what is wrong with a request comes back as 400, 404 or 405 and a JSON text.
    response answer(const request &got);

  private:
    using handler = response (control::*)(const request &, const json &body);

    response health(const request &got, const json &body);
    response show_requests(const request &got, const json &body);
    response clear_requests(const request &got, const json &body);
    response show_faults(const request &got, const json &body);
    response add_faults(const request &got, const json &body);
    response clear_faults(const request &got, const json &body);
    response show_file(const request &got, const json &body);
    response show_uploads(const request &got, const json &body);
    response expire_uploads(const request &got, const json &body);
    response change_item(const request &got, const json &body);
    response change_throttle(const request &got, const json &body);
    response change_token(const request &got, const json &body);
    response show_settings(const request &got, const json &body);
    response change_settings(const request &got, const json &body);
    response show_device(const request &got, const json &body);
    response decide_device(const request &got, const json &body);

    drive &drive_named(object_reader &reader);
    drive &drive_of(const std::string &account, const std::string &drive_id,
                    const std::string &site, const std::string &library);
    account &account_named(const std::string &name);

    std::mutex &mutex_;
    world &all_;
    token_store &tokens_;
    settings &options_;
    download_links &links_;
    fault_set &faults_;
    recorder &requests_;
    upload_session_store &sessions_;
};

} // namespace graph_sim
