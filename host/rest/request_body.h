/*
 * A request's body: whose bytes, how many, and how far they have been read.
 */
#ifndef TIRVAL_REST_REQUEST_BODY_H
#define TIRVAL_REST_REQUEST_BODY_H

#include "idle_clock.h"
#include "request_headers.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace tirval::rest {

class request_body {
  public:
    static constexpr std::int64_t unknown_length = -1;

    explicit request_body(const tirval_dsi_rest_callbacks_t &callbacks) : told(callbacks) {}

    /* Works out the length, and opens the client's stream where the body comes from there. */
    problem open(const request_headers &headers);

    bool present() const { return told.data_write_callback != nullptr; }
    std::int64_t length() const { return total; }
    bool read_completely() const { return ended || (total >= 0 && position >= total); }

    /* Reads the next bytes; `*filled` 0 at the body's end. */
    problem read(char *buffer, std::size_t capacity, idle_clock &idle, std::size_t *filled);

    /* The operation whose client sends the body; null when there is none. */
    tirval_gfs_operation_t operation() const;
    /* Notes whether the client's data has ended. */
    void close();

  private:
    problem open_stream();
    tirval_dsi_rest_gridftp_op_arg_t *stream() const;

    const tirval_dsi_rest_callbacks_t &told;
    std::int64_t total = 0;
    std::int64_t position = 0;
    bool ended = false;
};

/* How many bytes of the thread's running request's body have been read so far. */
std::size_t thread_body_position();

} // namespace tirval::rest

#endif
