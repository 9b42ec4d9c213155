// The three kinds of content, and hashes over any of them.
#include "content.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <numeric>

namespace graph_sim {

namespace {

constexpr std::size_t block = std::size_t{1} << 20;

class inline_content final : public content {
  public:
    explicit inline_content(std::string text) : content(text.size()), text_(std::move(text)) {}

    byte_view read(std::uint64_t offset, size_t most, std::vector<unsigned char> &) const override
    {
        const byte_view all = bytes_of(text_);
        return offset >= all.size()
                   ? byte_view{}
                   : all.subspan(offset, std::min<size_t>(most, all.size() - offset));
    }

  private:
    std::string text_;
};

// Any slice of a periodic content is a slice of one buffer that holds a block and a period.
class cycle_content final : public content {
  public:
    cycle_content(std::uint64_t size, std::uint64_t length, std::uint64_t shift)
        : content(size), length_(length), shift_(shift % length), buffer_(buffer_of(length))
    {
    }

    byte_view read(std::uint64_t offset, size_t most, std::vector<unsigned char> &) const override
    {
        if (offset >= size()) {
            return {};
        }
        const auto first = static_cast<size_t>((offset + shift_) % length_);
        const std::uint64_t left = size() - offset;
        return byte_view(*buffer_).subspan(first, std::min<std::uint64_t>({most, left, block}));
    }

  protected:
    std::uint64_t period() const override { return length_; }

  private:
    using buffer = std::vector<unsigned char>;

    static std::shared_ptr<const buffer> buffer_of(std::uint64_t length)
    {
        static const auto zeros = filled(1);
        static const auto counted = filled(251);
        return length == 1 ? zeros : counted;
    }

    static std::shared_ptr<const buffer> filled(unsigned length)
    {
        auto made = std::make_shared<buffer>(block + length);
        for (size_t i = 0; i < made->size(); ++i) {
            (*made)[i] = static_cast<unsigned char>(i % length);
        }
        return made;
    }

    std::uint64_t length_;
    std::uint64_t shift_;
    std::shared_ptr<const buffer> buffer_;
};

std::uint64_t splitmix64(std::uint64_t index)
{
    std::uint64_t z = (index + 1) * 0x9E3779B97F4A7C15U;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
}

class random_content final : public content {
  public:
    random_content(std::uint64_t size, std::uint64_t key) : content(size), key_(key) {}

    byte_view read(std::uint64_t offset, size_t most,
                   std::vector<unsigned char> &scratch) const override
    {
        if (offset >= size()) {
            return {};
        }
        const auto count = static_cast<size_t>(std::min<std::uint64_t>(most, size() - offset));
        const auto lead = static_cast<size_t>(offset % 8);
        const size_t words = (lead + count + 7) / 8;
        scratch.resize(std::max(scratch.size(), words * 8));
        for (size_t i = 0; i < words; ++i) {
            const std::uint64_t word = splitmix64(key_ + offset / 8 + i);
            std::memcpy(scratch.data() + i * 8, &word, sizeof word);
        }
        return byte_view(scratch).subspan(lead, count);
    }

  private:
    std::uint64_t key_;
};

class file_descriptor {
  public:
    explicit file_descriptor(const std::string &file)
        : fd_(open(file.c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    ~file_descriptor()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    file_descriptor(const file_descriptor &) = delete;
    file_descriptor &operator=(const file_descriptor &) = delete;
    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_;
};

class file_content final : public content {
  public:
    file_content(std::uint64_t size, std::string file) : content(size), file_(std::move(file)) {}

    // Opened for each block: an import of many files must not hold a descriptor for each of them.
    byte_view read(std::uint64_t offset, size_t most,
                   std::vector<unsigned char> &scratch) const override
    {
        if (offset >= size()) {
            return {};
        }
        const auto count =
            static_cast<size_t>(std::min<std::uint64_t>({most, size() - offset, block}));
        scratch.resize(std::max(scratch.size(), count));
        const file_descriptor fd(file_);
        const ssize_t got = pread(fd.get(), scratch.data(), count, static_cast<off_t>(offset));
        return byte_view(scratch).subspan(0, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }

  private:
    std::string file_;
};

} // namespace

template <class Take>
void content::feed(std::uint64_t first, std::uint64_t end, const Take &take) const
{
    std::vector<unsigned char> scratch;
    while (first < end) {
        const byte_view bytes =
            read(first, static_cast<size_t>(std::min<std::uint64_t>(block, end - first)), scratch);
        if (bytes.empty()) {
            return;
        }
        take(bytes);
        first += bytes.size();
    }
}

std::string content::quick_xor_text() const
{
    quick_xor running;
    std::uint64_t start = 0;
    if (const std::uint64_t length = period(); length != 0) {
        // The same bytes at the same ring positions twice cancel out: of all repetitions only an
        // odd one out and the rest at the end leave a trace.
        const std::uint64_t repeat = std::lcm(length, quick_xor::cycle);
        // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): neither number is 0
        start = size() / repeat / 2 * 2 * repeat;
        running.skip(start);
    }
    feed(start, size(), [&running](byte_view bytes) { running.update(bytes); });
    return base64(running.digest());
}

hash_set content::hashes(std::uint64_t limit, bool all) const
{
    std::call_once(quick_xor_computed_, [this, limit] {
        quick_xor_ = known_quick_xor();
        if (!quick_xor_ && (size_ <= limit || period() != 0)) {
            quick_xor_ = quick_xor_text();
        }
    });
    if (!all) {
        return {quick_xor_, std::nullopt, std::nullopt};
    }
    std::call_once(sha_computed_, [this, limit] {
        if (size_ <= limit) {
            digest sha1("SHA1");
            digest sha256("SHA256");
            feed(0, size_, [&](byte_view bytes) {
                sha1.update(bytes);
                sha256.update(bytes);
            });
            sha1_ = upper_hex(bytes_of(sha1.finish()));
            sha256_ = upper_hex(bytes_of(sha256.finish()));
        }
    });
    return {quick_xor_, sha1_, sha256_};
}

const std::string &content::sha256_hex() const
{
    std::call_once(digest_computed_, [this] {
        digest running("SHA256");
        feed(0, size_, [&running](byte_view bytes) { running.update(bytes); });
        digest_ = hex(bytes_of(running.finish()));
    });
    return digest_;
}

content_ptr text_content(std::string text)
{
    return std::make_shared<inline_content>(std::move(text));
}

content_ptr pattern_content(std::uint64_t size, const std::string &pattern)
{
    const size_t plus = std::min(pattern.find('+'), pattern.size());
    const std::string kind = pattern.substr(0, plus);
    std::uint64_t key = 0;
    if (plus != pattern.size()) {
        const char *end = pattern.data() + pattern.size();
        const auto [stop, error] = std::from_chars(pattern.data() + plus + 1, end, key);
        if (error != std::errc{} || stop != end) {
            return nullptr;
        }
    }
    if (kind == "cycle") {
        return std::make_shared<cycle_content>(size, 251, key);
    }
    if (kind == "random") {
        return std::make_shared<random_content>(size, key);
    }
    return pattern == "zero" ? std::make_shared<cycle_content>(size, 1, 0) : nullptr;
}

content_ptr disk_content(std::uint64_t size, std::string file)
{
    return std::make_shared<file_content>(size, std::move(file));
}

} // namespace graph_sim
