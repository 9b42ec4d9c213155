// Upload sessions: a file's bytes in fragments, one after another, sent to an address that carries
// its own permission.
#pragma once

#include "changes.h"
#include "content_builder.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace graph_sim {

// The path prefix of all upload addresses.
inline constexpr std::string_view upload_prefix = "/_upload/";

struct upload_session {
    std::string id;
    std::string target; // path and query of its address
    drive *home = nullptr;
    account *who = nullptr;
    std::string parent_id; // of the folder into which the file comes
    std::string name;
    conflict wanted = conflict::replace;
    std::optional<std::string> match;       // a tag that the file must have until the end
    json client_times;                      // "fileSystemInfo", may be absent
    std::optional<std::uint64_t> file_size; // as announced when it was opened
    std::optional<std::uint64_t> total;     // as the first fragment said
    bool deferred = false;                  // the file is made when the client says so
    timestamp expires{};
    content_builder data;
};

// The sessions that are open.  Callers hold the service's lock.
class upload_session_store {
  public:
    // Null when there is none of that id, or it has expired.
    [[nodiscard]] upload_session *find(std::string_view id, timestamp now);
    // True when a session for that file is open.
    [[nodiscard]] bool is_open_for(const drive &home, std::string_view parent_id,
                                   std::string_view name, timestamp now);
    upload_session &open(upload_session made);
    void close(const std::string &id) { sessions_.erase(id); }
    // Ends all sessions, as if they had expired.
    void clear() { sessions_.clear(); }
    // Every session with what has been received.
    [[nodiscard]] json list(timestamp now);
    // Where their bytes are kept.
    [[nodiscard]] const std::shared_ptr<block_store> &blocks() const { return blocks_; }

  private:
    void drop_expired(timestamp now);

    std::shared_ptr<block_store> blocks_ = std::make_shared<block_store>(UINT64_MAX);
    std::map<std::string, upload_session, std::less<>> sessions_; // by id
};

// POST createUploadSession.  Throws api_error.
response create_upload_session(const write_context &context, const route &asked);

// What the answer to a request of an upload address needs.  All borrowed; the service's lock is
// held.
struct upload_request {
    world &all;
    const settings &options;
    const request &got;
    const resource_context &resources;
    upload_session_store &sessions;
};

// The account that opened the session of an upload address, or null.
account *owner_of_upload(upload_session_store &sessions, std::string_view target, timestamp now);

// Judges a fragment (PUT of an upload address) by its head and gives the place of its first byte
// in the file.  Throws api_error.
std::uint64_t check_fragment(const upload_request &context);

// Takes a whole fragment in and answers; the last one makes the file.  Throws api_error.
response take_fragment(const upload_request &context, content_builder &&fragment);

// Keeps what has come of a fragment whose connection broke, where the settings ask for that.
void keep_part(const upload_request &context, content_builder &&fragment);

// GET: what is missing; DELETE: cancels; POST without a body: makes the file of a session that has
// all its bytes.  Throws api_error.
response answer_upload_status(const upload_request &context);

// The error of the transfer hosts: {"error":{"code","message","innererror":{"code"}}}.
response transfer_error(const api_error &error);

} // namespace graph_sim
