/*
 * QuickXorHash, the hash by which OneDrive describes content: each byte is XORed into a 160-bit
 * circular register, 11 bits further than the byte before; the length is XORed into the end.
 */
#ifndef TIRVAL_GRIDFTP_QUICKXOR_H
#define TIRVAL_GRIDFTP_QUICKXOR_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace tirval_gfs {

class quick_xor {
  public:
    void update(const unsigned char *data, std::size_t size);
    std::array<unsigned char, 20> finish() const;

  private:
    /* Bytes that are this many apart meet the same register position, so they are XORed together
     * first, and the register is made of them at the end. */
    static constexpr std::size_t period = 160;

    void fold_periods(const unsigned char *data, std::size_t count);

    alignas(16) std::array<unsigned char, period> folded_{};
    std::uint64_t length_ = 0;
};

} // namespace tirval_gfs

#endif
