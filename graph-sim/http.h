// Requests and responses as the service sees them, free of sockets.
#pragma once

#include "content.h"
#include "text.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace graph_sim {

struct header {
    std::string name;
    std::string value;
};

// Header fields in their order; names compare without case.
class header_list {
  public:
    header_list() = default;
    header_list(std::initializer_list<header> fields) : fields_(fields) {}

    // The first value of that name, or null.
    [[nodiscard]] const std::string *find(std::string_view name) const;
    void add(std::string name, std::string value);
    // Replaces all fields of that name by one.
    void set(std::string_view name, std::string value);
    void remove(std::string_view name);
    [[nodiscard]] auto begin() const { return fields_.begin(); }
    [[nodiscard]] auto end() const { return fields_.end(); }

  private:
    std::vector<header> fields_;
};

// What a listener serves: with a download listener beside it, the other one refuses downloads.
enum class listener_role { everything, service, downloads };

struct request {
    std::string method;
    std::string target; // as it stood in the request line
    header_list headers;
    std::string body;
    content_ptr data;   // in place of `body`: that of a PUT of content
    std::string origin; // scheme and authority by which the client came, "http://127.0.0.1:80"
    std::string host;   // the authority's host name alone
    std::uint64_t connection = 0;
    listener_role role = listener_role::everything;
    bool tls = false;
    bool resumed = false; // the TLS session was

    // The target before and after the first "?".
    [[nodiscard]] std::string_view path() const;
    [[nodiscard]] std::string_view query() const;
    // The first value of a query parameter, decoded.
    [[nodiscard]] std::optional<std::string> parameter(std::string_view name) const;
    // The number in Content-Length; null without one.
    [[nodiscard]] std::optional<std::uint64_t> announced_length() const;
    [[nodiscard]] bool is_chunked() const;
};

struct response {
    unsigned status = 200;
    header_list headers;
    std::string body;
    // Set for file content, which takes the place of the body: `length` bytes from `offset` on.
    content_ptr data;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    bool chunked = false; // body only: no Content-Length

    [[nodiscard]] std::uint64_t body_size() const { return data ? length : body.size(); }
};

// Wire damage in place of a proper response.
enum class damage {
    none,
    status_line,         // a first line that is not HTTP
    chunk_size,          // chunked coding with a size that is not a number
    endless_headers,     // header lines until the client gives up
    endless_header_line, // one header line without an end
    endless_body,        // a chunked body without an end
};

// How a request's body is taken in and how the response goes out.
struct delivery {
    // After that many bytes of the request's body, and before the rest is read:
    std::optional<std::uint64_t> reset_after_received;
    std::optional<std::uint64_t> stall_after_received;
    std::optional<std::uint64_t> answer_after_received; // and the connection ends
    std::optional<std::uint64_t> receive_bytes_per_second;

    std::chrono::milliseconds delay{};
    bool drop = false;                        // close without an answer
    bool reset = false;                       // reset without an answer
    bool stall = false;                       // no answer until the client goes away
    std::optional<std::uint64_t> reset_after; // body bytes
    std::optional<std::uint64_t> close_after; // body bytes, an orderly end
    std::optional<std::uint64_t> stall_after; // body bytes
    std::optional<std::uint64_t> bytes_per_second;
    bool close = false; // close afterwards without having said so
    damage garbage = damage::none;
};

struct answer {
    response reply;
    delivery how;
    std::uint64_t record = 0; // the request's number, 0 when it is not recorded
};

// How a response ended, for the record.
enum class outcome { running, complete, cut, peer_closed };

// Refusal of a request; the service turns it into an error body.
class api_error : public std::runtime_error {
  public:
    api_error(unsigned status, std::string code, const std::string &message, std::string inner = {})
        : std::runtime_error(message), status_(status), code_(std::move(code)),
          inner_(std::move(inner))
    {
    }
    [[nodiscard]] unsigned status() const { return status_; }
    [[nodiscard]] const std::string &code() const { return code_; }
    [[nodiscard]] const std::string &inner_code() const { return inner_; }

  private:
    unsigned status_;
    std::string code_;
    std::string inner_;
};

// Throws 400 invalidRequest in its most general words.
[[noreturn]] void bad_argument();

std::string_view reason_phrase(unsigned status);

// The status line and headers with the empty line that ends them; adds what frames the body
// (Content-Length or Transfer-Encoding) and Date unless they are there.
std::string head_text(const response &reply);

} // namespace graph_sim
