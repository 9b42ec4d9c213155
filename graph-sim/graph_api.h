// The answers to requests below /v1.0: items, lists and content redirects, and the way to changes.
#pragma once

#include "changes.h"
#include "download_links.h"
#include "faults.h"
#include "http.h"
#include "locator.h"
#include "resources.h"
#include "routing.h"
#include "settings.h"
#include "world.h"

namespace graph_sim {

// One request of an account that has been checked.  Callers hold the service's lock.
class graph_api {
  public:
    // All borrowed.  `fault` changes lists and may be null.
    graph_api(world &all, const download_links &links, const settings &options, const request &got,
              account &who, const fault_action *fault, const std::string &download_origin,
              upload_session_store &sessions);
    // What is carried out refers to members of this object.
    graph_api(const graph_api &) = delete;
    graph_api &operator=(const graph_api &) = delete;

    // Throws api_error for everything that the service refuses.
    response answer(const route &asked);

  private:
    [[nodiscard]] json shown_item(const drive &home, const item &shown,
                                  const field_set &wanted) const;
    response show_item(const route &asked) const;
    response redirect(const route &asked) const;
    response list_children(const route &asked) const;
    response list_changes(const route &asked) const;
    response list_shared() const;
    response list_sites() const;
    response list_drives(const std::vector<drive *> &drives, const std::string &context) const;
    [[nodiscard]] response ok(const json &body, const std::string &context) const;
    [[nodiscard]] bool unchanged(const item &what, flavour kind) const;
    [[nodiscard]] field_set fields() const;

    world &all_;
    const settings &options_;
    const request &got_;
    account &who_;
    const fault_action *fault_;
    locator where_;
    resource_context context_;
    write_context writing_;
};

// The answer to a GET of a pre-authenticated address, which knows no accounts.
response answer_download(world &all, const download_links &links, const settings &options,
                         const request &got, const fault_action *fault);

} // namespace graph_sim
