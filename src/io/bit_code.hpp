// The bit level of the binary format: bit streams, prefix codes, and the classes in which
// references are coded. Shared by the writer and the reader, so both read one definition.
#ifndef VORN_SRC_IO_BIT_CODE_HPP
#define VORN_SRC_IO_BIT_CODE_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <queue>
#include <utility>
#include <vector>

namespace vorn::detail::binary {

inline unsigned bit_length(std::uint64_t v) noexcept {
  return v == 0 ? 0 : 64 - static_cast<unsigned>(__builtin_clzll(v));
}

inline std::uint64_t load_le64(const unsigned char* p) noexcept {
  std::uint64_t w;
  std::memcpy(&w, p, 8);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap64(w);
#endif
  return w;
}

// ---- reference classes -----------------------------------------------------------------
//
// A reference is a number v >= 1: an atom's rank + 1, or how far back the cons it names
// stands (the distance). Its symbol says which class [2^(L-1), 2^L - 1] of bit length L
// holds v; the class is cut at the largest value possible there (`limit`), and v's offset
// in what is left is written in truncated binary. Child symbols:
//   0 .. 31   an atom, L = symbol + 1, limit the atom count;
//   32 .. 43  a near cons, L = symbol - 31 (up to 2^12), limit the conses before;
//   44 .. 75  a far cons, L = bit_length(conses before) - (symbol - 44), L > 12.
// Far distances are told by how much shorter they are than the longest possible: for
// children drawn uniformly from all earlier nodes that count is about geometric, whatever
// the size, so the code costs the entropy (about log2 of the conses before) plus a little.
// Root symbols: 0 .. 31 an atom; 32 .. 63 a cons after the previous cons root by
// 2^(L-1) .. (L = symbol - 31); 64 .. 95 at or before it by that much minus one.

constexpr unsigned atom_symbols = 32;
constexpr unsigned near_lengths = 12;
constexpr unsigned child_symbols = atom_symbols + near_lengths + 32;  // 76
constexpr unsigned root_symbols = 96;

/// A class: its symbol and the values [lo, hi] it holds.
struct Class {
  unsigned symbol;
  std::uint64_t lo, hi;
};

inline Class class_of(unsigned symbol, unsigned length, std::uint64_t limit) noexcept {
  const std::uint64_t lo = std::uint64_t{1} << (length - 1);
  return {symbol, lo, std::min((lo << 1) - 1, limit)};
}

/// The class of atom reference v (rank + 1) among `atoms` atoms.
inline Class atom_class(std::uint64_t v, std::uint64_t atoms) noexcept {
  const unsigned length = bit_length(v);
  return class_of(length - 1, length, atoms);
}

/// The child symbol of a distance of bit length `length` back from a cons whose conses
/// before it have bit length `before_length`.
inline unsigned distance_symbol(unsigned length, unsigned before_length) noexcept {
  return length <= near_lengths ? atom_symbols + length - 1
                                : atom_symbols + near_lengths + before_length - length;
}

/// The class of distance d back from the cons with `before` conses before it.
inline Class distance_class(std::uint64_t d, std::uint64_t before) noexcept {
  const unsigned length = bit_length(d);
  return class_of(distance_symbol(length, bit_length(before)), length, before);
}

/// The class of child symbol `symbol` for a cons with `before` conses before it, among
/// `atoms` atoms: false when no value can have it there (lo > hi, or a far length that a
/// near symbol codes).
inline bool child_class(unsigned symbol, std::uint64_t before, std::uint64_t atoms, Class& c,
                        bool& is_atom) noexcept {
  is_atom = symbol < atom_symbols;
  if (is_atom) {
    c = class_of(symbol, symbol + 1, atoms);
  } else if (symbol < atom_symbols + near_lengths) {
    c = class_of(symbol, symbol - atom_symbols + 1, before);
  } else {
    const unsigned shorter = symbol - atom_symbols - near_lengths;
    const unsigned length = bit_length(before);
    if (shorter >= length || length - shorter <= near_lengths) return false;
    c = class_of(symbol, length - shorter, before);
  }
  return c.lo <= c.hi;
}

// ---- truncated binary ------------------------------------------------------------------
//
// Offset x among n values: with k = floor(log2 n) and u = 2^(k+1) - n, an x below u takes
// k bits, any other x is written as x + u in k + 1 bits (the first k, then the last).

inline unsigned offset_bits(std::uint64_t n, std::uint64_t x) noexcept {
  const unsigned k = bit_length(n) - 1;
  return x < (std::uint64_t{2} << k) - n ? k : k + 1;
}

// ---- bit streams -----------------------------------------------------------------------
//
// Bits go least significant first into bytes filled from their lowest bit.

inline void store_le64(unsigned char* p, std::uint64_t w) noexcept {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap64(w);
#endif
  std::memcpy(p, &w, 8);
}

/// Bits into a byte sink with `void bytes(const unsigned char*, std::size_t)`, handed over
/// in blocks. Each put stores the whole accumulator as one word and moves on by the bytes
/// it completed, so putting bits takes no branch but a predictable one per block.
template <class Sink>
class BitWriter {
 public:
  explicit BitWriter(Sink& sink) : sink_(sink), buf_(block + 8) {}

  /// The `k` low bits of `bits` (k <= 56, no higher bit set).
  void put(std::uint64_t bits, unsigned k) {
    batch([bits, k](auto& put_bits) { put_bits(bits, k); });
  }

  /// Runs `body(put_bits)`, where put_bits(bits, k) is put(bits, k), with the writer's
  /// state held in locals meanwhile: stores into the byte buffer may alias any member, so
  /// put() on members would go through memory each time, one put waiting on the last.
  /// Always inlined, so that a loop in `body` is compiled for its caller's processor.
  template <class Body>
  __attribute__((always_inline)) void batch(Body body) {
    std::uint64_t acc = acc_;
    unsigned used = used_;
    std::size_t at = at_;
    unsigned char* const buf = buf_.data();
    auto put_bits = [&](std::uint64_t bits, unsigned k) __attribute__((always_inline)) {
      acc |= bits << used;
      used += k;
      store_le64(buf + at, acc);
      at += used >> 3;
      acc >>= used & 56;
      used &= 7;
      if (at >= block) {
        sink_.bytes(buf, at);
        at = 0;  // the bits of a partial byte are still in acc
      }
    };
    body(put_bits);
    acc_ = acc;
    used_ = used;
    at_ = at;
  }

  /// The bits that code offset x among n values in truncated binary (with k = floor(log2 n)
  /// and u = 2^(k+1) - n: x itself in k bits when x < u, else the k high bits of x + u, then
  /// its low bit), as `bits` and a count.
  static std::uint64_t offset_code(std::uint64_t n, std::uint64_t x, unsigned& count) noexcept {
    const unsigned k = bit_length(n) - 1;
    const std::uint64_t u = (std::uint64_t{2} << k) - n, y = x + u;
    // Chosen by mask: which form is due depends on the data, and a branch on it would be
    // mispredicted about as often as not.
    const std::uint64_t longer = x >= u ? 1 : 0, mask = 0 - longer;
    count = k + static_cast<unsigned>(longer);
    return ((y >> 1 | (y & 1) << k) & mask) | (x & ~mask);
  }

  /// Offset x among n values, in truncated binary.
  void put_offset(std::uint64_t n, std::uint64_t x) {
    unsigned count;
    const std::uint64_t bits = offset_code(n, x, count);
    put(bits, count);
  }

  /// Pads the last byte with zero bits and hands everything over.
  void finish() {
    at_ += (used_ + 7) / 8;  // the partial byte is stored already
    used_ = 0;
    acc_ = 0;
    drain();
  }

 private:
  static constexpr std::size_t block = std::size_t{1} << 16;

  void drain() {
    sink_.bytes(buf_.data(), at_);
    at_ = 0;  // the bits of a partial byte are still in acc_
  }

  Sink& sink_;
  std::vector<unsigned char> buf_;  // block bytes and room for one word past them
  std::size_t at_ = 0;              // complete bytes in buf_
  std::uint64_t acc_ = 0;           // bits not yet complete, used_ of them
  unsigned used_ = 0;
};

/// Bits out of bytes that stay readable for at least 8 bytes past the last bit asked for;
/// the caller checks the position against its end often enough to keep it so.
class BitReader {
 public:
  BitReader(const unsigned char* data, std::uint64_t bit) noexcept : data_(data), bit_(bit) {}

  std::uint64_t peek(unsigned k) const noexcept {  // k <= 56
    return (load_le64(data_ + (bit_ >> 3)) >> (bit_ & 7)) & ((std::uint64_t{1} << k) - 1);
  }
  void skip(unsigned k) noexcept { bit_ += k; }
  std::uint64_t get(unsigned k) noexcept {
    const std::uint64_t v = peek(k);
    bit_ += k;
    return v;
  }
  /// An offset among n values (n < 2^32), in truncated binary. The k + 1 bits it may take
  /// are read at once and the form chosen by mask: a branch on it would be mispredicted
  /// about as often as not.
  std::uint64_t get_offset(std::uint64_t n) noexcept {
    const unsigned k = bit_length(n) - 1;
    const std::uint64_t u = (std::uint64_t{2} << k) - n;
    const std::uint64_t w = peek(k + 1), x = w & ((std::uint64_t{1} << k) - 1);
    const std::uint64_t longer = x >= u ? 1 : 0, mask = 0 - longer;
    bit_ += k + longer;
    return (((x << 1 | w >> k) - u) & mask) | (x & ~mask);
  }
  std::uint64_t position() const noexcept { return bit_; }

 private:
  const unsigned char* data_;
  std::uint64_t bit_;
};

// ---- prefix codes ----------------------------------------------------------------------

constexpr unsigned max_code_length = 11;  // so one look-up of 11 bits decodes a symbol
constexpr unsigned length_bits = 4;       // a code length is written in 4 bits

/// A canonical prefix code over up to 96 symbols, codes at most max_code_length bits,
/// given by its code lengths (0: symbol absent).
class PrefixCode {
 public:
  static constexpr unsigned max_symbols = 96;

  /// The empty code, over no symbol.
  PrefixCode() noexcept = default;

  /// Huffman code lengths for `freq`, limited to max_code_length: while too long, the
  /// counts are halved (rounding up) and the code made again. One used symbol gets 1 bit.
  static PrefixCode fitted(const std::uint64_t* freq, unsigned n) {
    PrefixCode code(n);
    std::vector<std::uint64_t> weight(freq, freq + n);
    for (;;) {
      unsigned longest = huffman(weight, code.length_);
      if (longest <= max_code_length) break;
      for (std::uint64_t& w : weight) w = w == 0 ? 0 : (w + 1) / 2;
    }
    code.assign_codes();
    return code;
  }

  /// A code of the given lengths (0: unused); false when one is over 11 or they claim more
  /// codes than exist (an incomplete code is allowed: its unused bit patterns fail to decode).
  static bool from_lengths(const std::uint8_t* lengths, unsigned n, PrefixCode& code) {
    code = PrefixCode(n);
    std::uint64_t kraft = 0;
    for (unsigned s = 0; s < n; ++s) {
      if (lengths[s] > max_code_length) return false;
      code.length_[s] = lengths[s];
      if (lengths[s] != 0) kraft += std::uint64_t{1} << (max_code_length - lengths[s]);
    }
    if (kraft > (std::uint64_t{1} << max_code_length)) return false;
    code.assign_codes();
    code.make_table();
    return true;
  }

  unsigned size() const noexcept { return n_; }
  unsigned length(unsigned s) const noexcept { return length_[s]; }
  /// The code of `s`, bit-reversed so that its first bit is written first.
  unsigned bits(unsigned s) const noexcept { return code_[s]; }

  /// Decodes one symbol: false for a bit pattern that is no code.
  bool decode(BitReader& in, unsigned& symbol) const noexcept {
    const std::uint16_t e = table_[in.peek(max_code_length)];
    if (e == 0) return false;
    symbol = e >> 4;
    in.skip(e & 15);
    return true;
  }

 private:
  explicit PrefixCode(unsigned n) noexcept : n_(n) {}

  // Code lengths of a Huffman code for `weight` (zero weights get none); returns the longest.
  static unsigned huffman(const std::vector<std::uint64_t>& weight, std::uint8_t* length) {
    const unsigned n = static_cast<unsigned>(weight.size());
    std::vector<unsigned> parent(2 * n, 0);
    using Item = std::pair<std::uint64_t, unsigned>;  // weight, node (leaves 0 .. n-1)
    std::priority_queue<Item, std::vector<Item>, std::greater<Item>> heap;
    unsigned used = 0;
    for (unsigned s = 0; s < n; ++s) {
      length[s] = 0;
      if (weight[s] != 0) heap.push({weight[s], s}), ++used;
    }
    if (used == 1) length[heap.top().second] = 1;
    if (used <= 1) return used;
    unsigned next = n;
    while (heap.size() > 1) {
      const Item a = heap.top();
      heap.pop();
      const Item b = heap.top();
      heap.pop();
      parent[a.second] = parent[b.second] = next;
      heap.push({a.first + b.first, next++});
    }
    // Inner nodes are made after their children, so a walk down from the root (the last
    // one) finds every parent's depth before its children's.
    std::vector<unsigned> depth(next, 0);
    for (unsigned v = next - 1; v-- > n;) depth[v] = depth[parent[v]] + 1;
    unsigned longest = 0;
    for (unsigned s = 0; s < n; ++s) {
      if (weight[s] == 0) continue;
      length[s] = static_cast<std::uint8_t>(depth[parent[s]] + 1);
      longest = std::max<unsigned>(longest, length[s]);
    }
    return longest;
  }

  // Canonical codes: shorter first, then by symbol.
  void assign_codes() noexcept {
    unsigned count[max_code_length + 1] = {};
    for (unsigned s = 0; s < n_; ++s) ++count[length_[s]];
    count[0] = 0;
    unsigned next[max_code_length + 2] = {};
    for (unsigned len = 1, code = 0; len <= max_code_length; ++len) {
      code = (code + count[len - 1]) << 1;
      next[len] = code;
    }
    for (unsigned s = 0; s < n_; ++s) {
      const unsigned len = length_[s];
      if (len == 0) continue;
      unsigned c = next[len]++, reversed = 0;
      for (unsigned i = 0; i < len; ++i, c >>= 1) reversed = reversed << 1 | (c & 1);
      code_[s] = static_cast<std::uint16_t>(reversed);
    }
  }

  void make_table() noexcept {
    std::fill(std::begin(table_), std::end(table_), std::uint16_t{0});
    for (unsigned s = 0; s < n_; ++s) {
      const unsigned len = length_[s];
      if (len == 0) continue;
      for (unsigned fill = 0; fill < (1u << (max_code_length - len)); ++fill)
        table_[code_[s] | fill << len] = static_cast<std::uint16_t>(s << 4 | len);
    }
  }

  unsigned n_ = 0;
  std::uint8_t length_[max_symbols] = {};
  std::uint16_t code_[max_symbols] = {};
  std::uint16_t table_[1u << max_code_length] = {};  // by the next 11 bits: symbol << 4 | length
};

}  // namespace vorn::detail::binary

#endif  // VORN_SRC_IO_BIT_CODE_HPP
