/*
 * QuickXorHash in its fast form: XOR whole periods word by word, shift once at the end.
 */
#include "quickxor.h"

#include <algorithm>
#include <cstring>

namespace tirval_gfs {

void quick_xor::fold_periods(const unsigned char *data, std::size_t count)
{
    constexpr std::size_t words = period / sizeof(std::uint64_t);
    std::uint64_t sum[words];
    memcpy(sum, folded_.data(), period);
    for (; count > 0; --count, data += period) {
        std::uint64_t block[words];
        memcpy(block, data, period);
        for (std::size_t word = 0; word < words; ++word) {
            sum[word] ^= block[word];
        }
    }
    memcpy(folded_.data(), sum, period);
}

void quick_xor::update(const unsigned char *data, std::size_t size)
{
    std::size_t place = length_ % period;
    length_ += size;
    while (size > 0) {
        if (place == 0 && size >= period) {
            fold_periods(data, size / period);
            data += size - size % period;
            size %= period;
            continue;
        }
        std::size_t count = std::min(size, period - place);
        for (std::size_t index = 0; index < count; ++index) {
            folded_[place + index] ^= data[index];
        }
        data += count;
        size -= count;
        place = 0;
    }
}

std::array<unsigned char, 20> quick_xor::finish() const
{
    std::array<unsigned char, 20> hash{};
    for (std::size_t place = 0; place < period; ++place) {
        std::size_t bit = place * 11 % period;
        unsigned shifted = static_cast<unsigned>(folded_[place]) << (bit % 8);
        hash[bit / 8] ^= static_cast<unsigned char>(shifted);
        hash[(bit / 8 + 1) % hash.size()] ^= static_cast<unsigned char>(shifted >> 8);
    }
    for (std::size_t byte = 0; byte < 8; ++byte) {
        hash[12 + byte] ^= static_cast<unsigned char>(length_ >> (8 * byte));
    }
    return hash;
}

} // namespace tirval_gfs
