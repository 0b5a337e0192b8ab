// Unsigned decimal digits without a stream, for the writers' own output buffers.
#ifndef VORN_SRC_SUPPORT_DECIMAL_HPP
#define VORN_SRC_SUPPORT_DECIMAL_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::detail {

/// Room for the digits of any 64-bit value (2^64 - 1 has 20).
constexpr std::size_t max_decimal_digits = 20;

/// Writes the digits of `v` so that they end just before `end` and returns where they
/// begin: the bytes a stream in the classic locale, with no width and a decimal base,
/// writes for `v` (no sign, no leading zeros, "0" for zero). `end` must have
/// max_decimal_digits bytes of room before it.
inline char* decimal_digits(std::uint64_t v, char* end) noexcept {
  do {
    *--end = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  return end;
}

}  // namespace vorn::detail

#endif  // VORN_SRC_SUPPORT_DECIMAL_HPP
