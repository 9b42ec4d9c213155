// Where received bytes are kept: blocks in memory up to a limit, and beyond it in one unnamed
// temporary file.
#pragma once

#include "text.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace graph_sim {

class block_store;

// Room for some bytes; gives it back when it ends.  One owner at a time.
class block {
  public:
    block() = default;
    ~block() { give_back(); }
    block(block &&other) noexcept;
    block &operator=(block &&other) noexcept;
    block(const block &) = delete;
    block &operator=(const block &) = delete;

    [[nodiscard]] std::size_t capacity() const { return capacity_; }
    // Null when the block lies in the file.
    [[nodiscard]] unsigned char *memory() const { return memory_; }
    // Only for blocks in the file.  write() throws std::system_error, for example when the disk is
    // full; read() gives fewer bytes when the file cannot be read.
    void write(std::size_t at, byte_view bytes) const;
    std::size_t read(std::size_t at, unsigned char *to, std::size_t count) const;

  private:
    friend class block_store;
    void give_back();

    std::shared_ptr<block_store> home_;
    unsigned char *memory_ = nullptr;
    std::uint64_t offset_ = 0; // in the file
    std::size_t capacity_ = 0;
};

// Hands out blocks.  Memory that comes back is kept for later blocks, which spares the system's
// clearing of fresh pages.  Any thread.
class block_store : public std::enable_shared_from_this<block_store> {
  public:
    static constexpr std::size_t largest = std::size_t{2} << 20;

    explicit block_store(std::uint64_t memory_limit) : memory_limit_(memory_limit) {}
    ~block_store();
    block_store(const block_store &) = delete;
    block_store &operator=(const block_store &) = delete;

    // A block for `capacity` bytes, 1 to `largest`.  Throws std::bad_alloc or std::system_error.
    block take(std::size_t capacity);
    // Counts for blocks that are taken from now on.
    void limit_memory(std::uint64_t bytes);
    // Bytes of blocks that are in use, in memory and in the file.
    [[nodiscard]] std::uint64_t in_memory() const;
    [[nodiscard]] std::uint64_t in_file() const;

  private:
    friend class block;
    bool take_memory(block &made);
    void take_file(block &made);
    void release(const block &done);

    mutable std::mutex mutex_;
    std::uint64_t memory_limit_;
    std::uint64_t memory_used_ = 0;
    std::vector<unsigned char *> idle_; // whole blocks, counted as free
    int file_ = -1;
    std::uint64_t file_end_ = 0;
    std::uint64_t file_used_ = 0;
    std::vector<std::uint64_t> holes_; // offsets of file blocks that came back
};

} // namespace graph_sim
