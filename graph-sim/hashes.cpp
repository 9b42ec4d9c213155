// Digests over OpenSSL, and QuickXorHash.
#include "hashes.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace graph_sim {

void quick_xor::mix(size_t lane, byte_view bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i) {
        lanes_[lane + i] ^= bytes[i];
    }
}

// Whole cycles by words that the compiler keeps in vector registers.
byte_view quick_xor::mix_cycles(byte_view bytes)
{
    std::array<std::uint64_t, cycle / 8> words{};
    std::array<std::uint64_t, cycle / 8> next{};
    std::memcpy(words.data(), lanes_.data(), cycle);
    for (; bytes.size() >= cycle; bytes = bytes.subspan(cycle)) {
        std::memcpy(next.data(), bytes.data(), cycle);
        for (size_t i = 0; i < words.size(); ++i) {
            words[i] ^= next[i];
        }
    }
    std::memcpy(lanes_.data(), words.data(), cycle);
    return bytes;
}

void quick_xor::update(byte_view bytes)
{
    const size_t lane = total_ % cycle;
    total_ += bytes.size();
    if (lane != 0) {
        const size_t count = std::min<size_t>(cycle - lane, bytes.size());
        mix(lane, bytes.first(count));
        bytes = bytes.subspan(count);
    }
    mix(0, mix_cycles(bytes));
}

void quick_xor::append(const quick_xor &next)
{
    mix(0, next.lanes_);
    total_ = next.total_;
}

std::array<unsigned char, 20> quick_xor::digest() const
{
    std::array<unsigned char, 20> ring{};
    for (size_t lane = 0; lane < cycle; ++lane) {
        const size_t bit = lane * 11 % cycle;
        const unsigned spread = static_cast<unsigned>(lanes_[lane]) << (bit % 8);
        ring[bit / 8] ^= static_cast<unsigned char>(spread);
        ring[(bit / 8 + 1) % ring.size()] ^= static_cast<unsigned char>(spread >> 8);
    }
    for (size_t i = 0; i < 8; ++i) {
        ring[12 + i] ^= static_cast<unsigned char>(total_ >> (8 * i));
    }
    return ring;
}

void digest::release::operator()(evp_md_ctx_st *context) const noexcept
{
    EVP_MD_CTX_free(context);
}

digest::digest(const char *name) : context_(EVP_MD_CTX_new())
{
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_get_digestbyname(name), nullptr) != 1) {
        throw std::runtime_error(std::string("digest is not available: ") + name);
    }
}

void digest::update(byte_view bytes)
{
    EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string digest::finish()
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    EVP_DigestFinal_ex(context_.get(), bytes.data(), &size);
    return {bytes.begin(), bytes.begin() + size};
}

std::string sha256(std::string_view text)
{
    digest running("SHA256");
    running.update(bytes_of(text));
    return running.finish();
}

std::string hmac_sha256(std::string_view key, std::string_view text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    const byte_view data = bytes_of(text);
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
         bytes.data(), &size);
    return {bytes.begin(), bytes.begin() + size};
}

std::string random_bytes(size_t count)
{
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), static_cast<int>(count)) != 1) {
        throw std::runtime_error("no random numbers");
    }
    return bytes;
}

} // namespace graph_sim
