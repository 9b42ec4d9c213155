// Blocks of memory and of the temporary file.
#include "blocks.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace graph_sim {

namespace {

// Whole blocks are aligned to their size, so that each can be one huge page.
unsigned char *allocate(std::size_t capacity)
{
    const bool whole = capacity == block_store::largest;
    void *made = whole ? std::aligned_alloc(capacity, capacity) : std::malloc(capacity);
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    if (whole) {
        madvise(made, capacity, MADV_HUGEPAGE);
    }
    return static_cast<unsigned char *>(made);
}

int open_unnamed()
{
    const char *chosen = std::getenv("TMPDIR");
    const std::string directory = chosen == nullptr || *chosen == '\0' ? "/var/tmp" : chosen;
    int fd = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        // Not every file system knows unnamed files.
        std::string name = directory + "/graph-sim.XXXXXX";
        fd = mkostemp(name.data(), O_CLOEXEC);
        if (fd >= 0) {
            unlink(name.c_str());
        }
    }
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), directory);
    }
    return fd;
}

} // namespace

block::block(block &&other) noexcept
    : home_(std::move(other.home_)), memory_(std::exchange(other.memory_, nullptr)),
      offset_(other.offset_), capacity_(std::exchange(other.capacity_, 0))
{
}

block &block::operator=(block &&other) noexcept
{
    if (this != &other) {
        give_back();
        home_ = std::move(other.home_);
        memory_ = std::exchange(other.memory_, nullptr);
        offset_ = other.offset_;
        capacity_ = std::exchange(other.capacity_, 0);
    }
    return *this;
}

void block::give_back()
{
    if (home_) {
        home_->release(*this);
        home_ = nullptr;
    }
}

void block::write(std::size_t at, byte_view bytes) const
{
    while (!bytes.empty()) {
        const ssize_t put =
            pwrite(home_->file_, bytes.data(), bytes.size(), static_cast<off_t>(offset_ + at));
        if (put < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "the temporary file");
        }
        const auto count = static_cast<std::size_t>(std::max<ssize_t>(put, 0));
        bytes = bytes.subspan(count);
        at += count;
    }
}

std::size_t block::read(std::size_t at, unsigned char *to, std::size_t count) const
{
    const ssize_t got = pread(home_->file_, to, count, static_cast<off_t>(offset_ + at));
    return static_cast<std::size_t>(std::max<ssize_t>(got, 0));
}

block_store::~block_store()
{
    for (unsigned char *memory : idle_) {
        std::free(memory);
    }
    if (file_ >= 0) {
        close(file_);
    }
}

block block_store::take(std::size_t capacity)
{
    block made;
    made.capacity_ = capacity;
    const std::lock_guard lock(mutex_);
    if (!take_memory(made)) {
        take_file(made);
    }
    made.home_ = shared_from_this();
    return made;
}

bool block_store::take_memory(block &made)
{
    if (memory_used_ + made.capacity_ > memory_limit_) {
        return false;
    }
    if (made.capacity_ == largest && !idle_.empty()) {
        made.memory_ = idle_.back();
        idle_.pop_back();
    } else {
        made.memory_ = allocate(made.capacity_);
    }
    memory_used_ += made.capacity_;
    return true;
}

void block_store::take_file(block &made)
{
    if (file_ < 0) {
        file_ = open_unnamed();
    }
    if (holes_.empty()) {
        made.offset_ = file_end_;
        file_end_ += largest;
    } else {
        made.offset_ = holes_.back();
        holes_.pop_back();
    }
    file_used_ += made.capacity_;
}

void block_store::release(const block &done)
{
    const std::lock_guard lock(mutex_);
    if (done.memory_ == nullptr) {
        holes_.push_back(done.offset_);
        file_used_ -= done.capacity_;
        fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                  static_cast<off_t>(done.offset_), static_cast<off_t>(largest));
        return;
    }
    memory_used_ -= done.capacity_;
    if (done.capacity_ == largest && memory_used_ + (idle_.size() + 1) * largest <= memory_limit_) {
        idle_.push_back(done.memory_);
    } else {
        std::free(done.memory_);
    }
}

void block_store::limit_memory(std::uint64_t bytes)
{
    const std::lock_guard lock(mutex_);
    memory_limit_ = bytes;
    while (!idle_.empty() && memory_used_ + idle_.size() * largest > memory_limit_) {
        std::free(idle_.back());
        idle_.pop_back();
    }
}

std::uint64_t block_store::in_memory() const
{
    const std::lock_guard lock(mutex_);
    return memory_used_;
}

std::uint64_t block_store::in_file() const
{
    const std::lock_guard lock(mutex_);
    return file_used_;
}

} // namespace graph_sim
