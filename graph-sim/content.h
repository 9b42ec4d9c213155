// The bytes of a file: given as text, computed from the offset, or read from a file on disk.
#pragma once

#include "hashes.h"
#include "text.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace graph_sim {

// Never changes once made, so any thread may read it; an item that gets new bytes gets a new one.
class content {
  public:
    virtual ~content() = default;
    content(const content &) = delete;
    content &operator=(const content &) = delete;

    [[nodiscard]] std::uint64_t size() const { return size_; }

    // The bytes from `offset` on: at most `most` and at least one, all of them if they lie within
    // one block.  They lie in memory of the content's own or in `scratch`, which is enlarged to
    // `most` when it is needed.  Empty at the end, or when the file on disk has shrunk or is gone.
    [[nodiscard]] virtual byte_view read(std::uint64_t offset, size_t most,
                                         std::vector<unsigned char> &scratch) const = 0;

    // The hashes, computed at the first call and kept.  Those that would take reading more than
    // `limit` bytes are left out; the QuickXorHash of periodic and of received content costs
    // nothing at any size.  Without `all` the SHA digests may be left out, too.
    [[nodiscard]] hash_set hashes(std::uint64_t limit, bool all = true) const;

    // SHA-256 in lower-case hex, always over all bytes; kept once it has been computed.
    [[nodiscard]] const std::string &sha256_hex() const;

  protected:
    explicit content(std::uint64_t size) : size_(size) {}
    // The number of bytes after which the content repeats; 0 when it does not.
    [[nodiscard]] virtual std::uint64_t period() const { return 0; }
    // The QuickXorHash in base64 where it is known without reading.
    [[nodiscard]] virtual std::optional<std::string> known_quick_xor() const { return {}; }

  private:
    [[nodiscard]] std::string quick_xor_text() const;
    template <class Take> void feed(std::uint64_t first, std::uint64_t end, const Take &take) const;

    std::uint64_t size_;
    mutable std::once_flag quick_xor_computed_;
    mutable std::optional<std::string> quick_xor_;
    mutable std::once_flag sha_computed_;
    mutable std::optional<std::string> sha1_;
    mutable std::optional<std::string> sha256_;
    mutable std::once_flag digest_computed_;
    mutable std::string digest_;
};

using content_ptr = std::shared_ptr<const content>;

content_ptr text_content(std::string text);

// Bytes computed from the offset i.  Patterns, K being a number that may be left out (0):
//   "cycle+K"   (i + K) mod 251
//   "zero"      0
//   "random+K"  byte i mod 8, counted from the lowest, of splitmix64's output for K + i div 8
// Null for any other pattern.
content_ptr pattern_content(std::uint64_t size, const std::string &pattern);

// The first `size` bytes of a file on disk, read when they are asked for.
content_ptr disk_content(std::uint64_t size, std::string file);

} // namespace graph_sim
