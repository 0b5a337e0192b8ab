// The checksum that ends every file of the binary format.
#ifndef VORN_SRC_IO_CHECKSUM_HPP
#define VORN_SRC_IO_CHECKSUM_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "bit_code.hpp"

namespace vorn::detail::binary {

/// A 64-bit checksum of a byte sequence fed in pieces of any size. Each 8-byte word
/// (little-endian) goes through h = (h ^ w) * K, h ^= h >> 29; both steps are one-to-one in
/// h, so bytes that differ within one word always give another sum, and any other
/// corruption goes unseen with odds of about 2^-64. The length is mixed in at the end, so
/// trailing zero bytes count too.
class Checksum {
 public:
  void update(const unsigned char* p, std::size_t n) noexcept {
    length_ += n;
    if (pending_ != 0) {
      while (n > 0 && pending_ < 8) tail_[pending_++] = *p++, --n;
      if (pending_ < 8) return;
      mix(load_le64(tail_));
      pending_ = 0;
    }
    for (; n >= 8; p += 8, n -= 8) mix(load_le64(p));
    std::memcpy(tail_, p, n);
    pending_ = static_cast<unsigned>(n);
  }

  /// The sum of everything fed so far.
  std::uint64_t value() const noexcept {
    Checksum c = *this;
    if (pending_ != 0) {
      std::memset(c.tail_ + pending_, 0, 8 - pending_);
      c.mix(load_le64(c.tail_));
    }
    c.mix(length_);
    std::uint64_t h = c.h_ * k;
    return h ^ (h >> 32);
  }

 private:
  static constexpr std::uint64_t k = 0x9E3779B97F4A7C15ull;
  void mix(std::uint64_t w) noexcept {
    h_ = (h_ ^ w) * k;
    h_ ^= h_ >> 29;
  }

  std::uint64_t h_ = 0x76C3A1D5E94B0F27ull;
  std::uint64_t length_ = 0;
  unsigned char tail_[8] = {};
  unsigned pending_ = 0;
};

}  // namespace vorn::detail::binary

#endif  // VORN_SRC_IO_CHECKSUM_HPP
