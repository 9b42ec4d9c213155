// How the bytes of an answer are cut into writes, free of sockets.
#pragma once

#include "http.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace graph_sim {

// Walks through an answer's bytes in the order in which they go out, up to the point where its
// delivery says that something happens.  Borrows the answer.
class answer_bytes {
  public:
    explicit answer_bytes(const answer &told);

    // The next bytes to write: valid until the next call, at most `most` of body among them; empty
    // when all have been given or the file on disk has no more.
    std::string_view next(std::size_t most);
    // Body bytes given so far.
    [[nodiscard]] std::uint64_t body_given() const { return given_; }
    // True when the end was reached as announced, not cut short.
    [[nodiscard]] bool whole() const { return finished_; }

  private:
    [[nodiscard]] std::string_view body_at(std::uint64_t at, std::size_t most);

    const answer &told_;
    std::uint64_t size_;  // of the body
    std::uint64_t limit_; // body bytes to give before something happens
    std::uint64_t given_ = 0;
    bool headed_ = false;
    bool finished_ = false;
    std::string head_;
    std::string piece_; // a chunk with its framing
    std::vector<unsigned char> scratch_;
};

// Endless or broken text in place of a proper answer: its start, and what repeats after it until
// the client goes away ("" when nothing does).
struct garbage_text {
    std::string start;
    std::string repeat;
};
garbage_text garbage_for(damage kind, const response &reply);

} // namespace graph_sim
