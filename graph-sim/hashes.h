// Digests: QuickXorHash as documented for OneDrive, SHA-1 and SHA-256.
#pragma once

#include "text.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct evp_md_ctx_st;

namespace graph_sim {

// QuickXorHash: each byte is XORed into a 160-bit ring, 11 bits further for each byte, and the
// length into the last 8 of the 20 bytes.
class quick_xor {
  public:
    static constexpr std::uint64_t cycle = 160; // bytes after which the ring position repeats

    quick_xor() = default;
    // Begins in the middle of the data; for append().
    explicit quick_xor(std::uint64_t offset) : total_(offset) {}

    void update(byte_view bytes);
    // Adds what was hashed from where this one ends.
    void append(const quick_xor &next);
    // Passes over data that is known to cancel out; `count` is a multiple of `cycle`.
    void skip(std::uint64_t count) { total_ += count; }
    [[nodiscard]] std::array<unsigned char, 20> digest() const;

  private:
    void mix(size_t lane, byte_view bytes);
    byte_view mix_cycles(byte_view bytes); // returns the rest

    // Bytes `cycle` apart fall on the same bits, so they are XORed together first.
    std::array<unsigned char, cycle> lanes_{};
    std::uint64_t total_ = 0;
};

// A running digest of OpenSSL.
class digest {
  public:
    explicit digest(const char *name); // "SHA1", "SHA256"
    void update(byte_view bytes);
    [[nodiscard]] std::string finish(); // raw bytes; ends the digest

  private:
    struct release {
        void operator()(evp_md_ctx_st *context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, release> context_;
};

// Raw bytes of SHA-256, and of HMAC with SHA-256.
std::string sha256(std::string_view text);
std::string hmac_sha256(std::string_view key, std::string_view text);
std::string random_bytes(size_t count);

// The hashes of a file as a drive item tells them; each may be missing.
struct hash_set {
    std::optional<std::string> quick_xor; // base64
    std::optional<std::string> sha1;      // upper-case hex
    std::optional<std::string> sha256;    // upper-case hex
};

} // namespace graph_sim
