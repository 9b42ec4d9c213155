/*
 * One checksum of a file or of a part of it.  On the operation thread.
 *
 * A whole file's checksum is the storage's to answer: it may know it without reading the file.  A
 * part is downloaded and computed here, because storages answer for parts in ways that cannot be
 * relied on, and may remember such an answer as the whole file's.
 */
#ifndef TIRVAL_SERVER_CHECKSUM_RUN_H
#define TIRVAL_SERVER_CHECKSUM_RUN_H

#include "command_session.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <variant>

namespace tirval::server {

struct checksum_request_t {
    std::string algorithm; /* as the storage has it */
    std::string path;      /* canonical, of a file that stat() has just described */
    std::int64_t size;     /* of the file */
    std::int64_t offset;   /* 0 to `size` */
    std::int64_t length;   /* at most `size` - `offset`; -1: to the file's end, wherever that is */
    std::chrono::seconds marker_interval; /* between status markers; 0: none are sent */
};

/*
 * The checksum's text, or what went wrong.  Of a part the text tells exactly the bytes asked for: a
 * download that ends early is a failure.  No bytes need no request.  The markers are preliminary
 * replies 113, "Status Marker", with the bytes processed so far.
 */
std::variant<std::string, failure_t> run_checksum(operation_context_t &context,
                                                  const checksum_request_t &request);

} // namespace tirval::server

#endif
