// Filling blocks, and the content that they become.
#include "content_builder.h"

#include <algorithm>
#include <cstring>

namespace graph_sim {

namespace {

// What is received at once: small enough to be hashed while it is in the processor's cache.
constexpr std::size_t largest_room = std::size_t{512} << 10;

class received_content final : public content {
  public:
    received_content(std::uint64_t size, std::string quick_xor_text,
                     std::vector<content_builder::part> parts)
        : content(size), quick_xor_(std::move(quick_xor_text)), parts_(std::move(parts))
    {
    }

    byte_view read(std::uint64_t offset, size_t most,
                   std::vector<unsigned char> &scratch) const override
    {
        if (offset >= size()) {
            return {};
        }
        const auto behind =
            std::ranges::upper_bound(parts_, offset, {}, &content_builder::part::start);
        const content_builder::part &found = *std::prev(behind);
        const auto at = static_cast<std::size_t>(offset - found.start);
        const std::size_t count = std::min(most, found.size - at);
        if (const unsigned char *memory = found.where.memory()) {
            return {memory + at, count};
        }
        scratch.resize(std::max(scratch.size(), count));
        return byte_view(scratch).first(found.where.read(at, scratch.data(), count));
    }

  protected:
    std::optional<std::string> known_quick_xor() const override { return quick_xor_; }

  private:
    std::string quick_xor_;
    std::vector<content_builder::part> parts_; // without gaps, in order
};

} // namespace

content_builder::content_builder(std::shared_ptr<block_store> store, std::uint64_t offset)
    : store_(std::move(store)), offset_(offset), hash_(offset)
{
}

std::span<unsigned char> content_builder::room(std::uint64_t expected)
{
    const std::uint64_t wanted = std::max<std::uint64_t>(expected, 1);
    if (parts_.empty() || parts_.back().size == parts_.back().where.capacity()) {
        const auto capacity =
            static_cast<std::size_t>(std::min<std::uint64_t>(wanted, block_store::largest));
        parts_.push_back({end(), 0, store_->take(capacity)});
    }
    const part &last = parts_.back();
    const auto count = static_cast<std::size_t>(
        std::min<std::uint64_t>({wanted, last.where.capacity() - last.size, largest_room}));
    if (unsigned char *memory = last.where.memory()) {
        return {memory + last.size, count};
    }
    staged_.resize(std::max(staged_.size(), count));
    return {staged_.data(), count};
}

void content_builder::commit(std::size_t count)
{
    part &last = parts_.back();
    const unsigned char *memory = last.where.memory();
    const byte_view bytes(memory == nullptr ? staged_.data() : memory + last.size, count);
    if (memory == nullptr) {
        last.where.write(last.size, bytes);
    }
    hash_.update(bytes);
    last.size += count;
    size_ += count;
}

void content_builder::add(byte_view bytes)
{
    while (!bytes.empty()) {
        const std::span<unsigned char> free = room(bytes.size());
        const std::size_t count = std::min(free.size(), bytes.size());
        std::memcpy(free.data(), bytes.data(), count);
        commit(count);
        bytes = bytes.subspan(count);
    }
}

void content_builder::append(content_builder &&next)
{
    hash_.append(next.hash_);
    size_ += next.size_;
    std::ranges::move(next.parts_, std::back_inserter(parts_));
    std::erase_if(parts_, [](const part &candidate) { return candidate.size == 0; });
}

content_ptr content_builder::finish() &&
{
    std::erase_if(parts_, [](const part &candidate) { return candidate.size == 0; });
    return std::make_shared<received_content>(size_, base64(hash_.digest()), std::move(parts_));
}

} // namespace graph_sim
