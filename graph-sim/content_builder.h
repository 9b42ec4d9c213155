// Content under construction: bytes as they are received, hashed on their way.
#pragma once

#include "blocks.h"
#include "content.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace graph_sim {

// One owner at a time.  Several builders may be filled at once and joined afterwards, which copies
// nothing.
class content_builder {
  public:
    // Begins at a place in the whole content; 0 unless it is to be appended to another.
    explicit content_builder(std::shared_ptr<block_store> store, std::uint64_t offset = 0);

    // Where the next bytes are to be put: at least one byte and at most `expected`, which is how
    // many more are coming, or a guess.  Throws as block_store::take().
    std::span<unsigned char> room(std::uint64_t expected);
    // Takes over the first bytes of the latest room.  Throws std::system_error when the disk is
    // full.
    void commit(std::size_t count);
    // Copies bytes in.
    void add(byte_view bytes);
    // Takes over what follows directly; `next` must begin where this one ends.
    void append(content_builder &&next);

    // Bytes so far, and the place behind them in the whole content.
    [[nodiscard]] std::uint64_t size() const { return size_; }
    [[nodiscard]] std::uint64_t end() const { return offset_ + size_; }

    // The content that consists of the bytes so far; the builder is of no more use.
    content_ptr finish() &&;

    // A block and the place of its first byte.
    struct part {
        std::uint64_t start = 0;
        std::size_t size = 0;
        block where;
    };

  private:
    std::shared_ptr<block_store> store_;
    std::uint64_t offset_;
    std::uint64_t size_ = 0;
    quick_xor hash_;
    std::vector<part> parts_;
    std::vector<unsigned char> staged_; // for a block in the file
};

} // namespace graph_sim
