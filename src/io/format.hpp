// The layout of the binary format, shared by save and load.
//
//   magic        8 bytes, vorn::binary_magic
//   version      1 byte, 1
//   counts       LEB128 numbers (7 bits a byte, low first, no needless last zero byte):
//                atoms A, conses C, roots R, bytes of the atom section, bytes of the codes
//   atoms        A atoms, most referenced first: a number (length << 2 | kind), then for a
//                name (kind 0, no NUL) or a string (kind 1) that many bytes, for a raw
//                value (kind 2, length 0) the value as a number
//   codes        bits, least significant first:
//                  if C > 0, the code lengths of the car and the cdr codes (76 each), and
//                  if R > 0, of the root code (96): a 0 bit for an unused symbol, else
//                  a 1 bit and the length (1 to 11) in 4 bits;
//                  each cons: its car, then its cdr reference;
//                  each root: its reference;
//                  zero bits to the end of the last byte
//                a reference is its symbol's code, then the value's offset within the
//                symbol's class in truncated binary (bit_code.hpp)
//   checksum     8 bytes, little-endian: Checksum of every byte before it
#ifndef VORN_SRC_IO_FORMAT_HPP
#define VORN_SRC_IO_FORMAT_HPP

#include <cstdint>

namespace vorn::detail::binary {

constexpr unsigned char format_version = 1;

enum AtomKind : unsigned { name_atom = 0, string_atom = 1, raw_atom = 2 };

/// Each cons takes at least two bits and each root one (a code is at least one bit long).
constexpr std::uint64_t min_cons_bits = 2, min_root_bits = 1;

}  // namespace vorn::detail::binary

#endif  // VORN_SRC_IO_FORMAT_HPP
