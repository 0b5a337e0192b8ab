// Writing expressions in the binary format.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <ostream>
#include <string>
#include <vector>

#include "bit_code.hpp"
#include "checksum.hpp"
#include "format.hpp"
#include "listing.hpp"
#include "../support/bit_instructions.hpp"
#include "vorn/io/binary.hpp"

namespace vorn {

namespace {

using namespace detail::binary;
using detail::Listing;

/// Bytes to a stream in pieces of 64 KiB, summed on their way.
class Sink {
 public:
  explicit Sink(std::ostream& out) : out_(out), buf_(std::size_t{1} << 16) {}

  void bytes(const unsigned char* p, std::size_t n) {
    while (n > 0) {
      if (used_ == buf_.size()) flush();
      const std::size_t k = std::min(n, buf_.size() - used_);
      std::memcpy(buf_.data() + used_, p, k);
      used_ += k;
      p += k;
      n -= k;
    }
  }
  void bytes(const std::string& s) { bytes(reinterpret_cast<const unsigned char*>(s.data()), s.size()); }
  void number(std::uint64_t v) {
    unsigned char b[10];
    std::size_t n = 0;
    for (; v >= 0x80; v >>= 7) b[n++] = static_cast<unsigned char>(v | 0x80);
    b[n++] = static_cast<unsigned char>(v);
    bytes(b, n);
  }
  /// Writes what is buffered, then the checksum of everything.
  void finish() {
    flush();
    const std::uint64_t sum = sum_.value();
    unsigned char b[8];
    for (unsigned i = 0; i < 8; ++i) b[i] = static_cast<unsigned char>(sum >> (8 * i));
    out_.write(reinterpret_cast<const char*>(b), 8);
  }

 private:
  void flush() {
    sum_.update(buf_.data(), used_);
    out_.write(reinterpret_cast<const char*>(buf_.data()), static_cast<std::streamsize>(used_));
    used_ = 0;
  }

  std::ostream& out_;
  std::vector<unsigned char> buf_;
  std::size_t used_ = 0;
  Checksum sum_;
};

void append_number(std::string& s, std::uint64_t v) {
  for (; v >= 0x80; v >>= 7) s += static_cast<char>(v | 0x80);
  s += static_cast<char>(v);
}

/// The symbol and offset length of a distance back from one cons, as distance_class() and
/// offset_bits() give them, with what depends only on the cons worked out once for both
/// its references. A class [2^(L-1), 2^L - 1] is cut at the conses before only when L is
/// their bit length (the top class): a shorter distance's offset takes L - 1 bits, and only
/// the top class needs the truncated binary threshold, which is the cons's.
class DistanceCount {
 public:
  explicit DistanceCount(std::uint64_t before) noexcept {
    const std::uint64_t b = before == 0 ? 1 : before;  // none before: nothing to count
    top_length_ = bit_length(b);
    const std::uint64_t n = b - (std::uint64_t{1} << (top_length_ - 1)) + 1;  // values in the top class
    top_k_ = bit_length(n) - 1;
    top_u_ = (std::uint64_t{2} << top_k_) - n;
  }

  /// For a distance d, 1 <= d <= before.
  unsigned symbol(std::uint64_t d) const noexcept { return distance_symbol(length_of(d), top_length_); }
  unsigned offset_bits(std::uint64_t d) const noexcept {
    const unsigned length = length_of(d);
    const std::uint64_t x = d - (std::uint64_t{1} << (length - 1));
    return length != top_length_ ? length - 1 : top_k_ + (x >= top_u_ ? 1 : 0);
  }

 private:
  static unsigned length_of(std::uint64_t d) noexcept { return 64 - static_cast<unsigned>(__builtin_clzll(d)); }

  unsigned top_length_, top_k_;  // the bit length of the conses before; k of the top class
  std::uint64_t top_u_;          // 2^(k+1) - n of the top class
};

enum Context : unsigned { car_refs, cdr_refs, root_refs };
constexpr unsigned alphabet[3] = {child_symbols, child_symbols, root_symbols};

/// Writes one listing: atoms ranked by use, then the codes fitted and the references
/// written. The references are read twice, not three times: the pass that counts each
/// atom's uses also counts the cons references' symbols, which do not depend on the atoms'
/// ranks; the atom references' symbols and bits follow from the ranks and the counts.
class Encoder {
 public:
  explicit Encoder(const Listing& l) : l_(l) {}

  void write(std::ostream& out) {
    for (auto& u : uses_) u.assign(l_.atoms.size(), 0);
    if (detail::has_bit_instructions()) count_references_with_bit_instructions();
    else count_references();
    rank_atoms();
    const std::string atoms = atom_section();
    const std::uint64_t bits = fit_codes();
    Sink sink(out);
    sink.bytes(reinterpret_cast<const unsigned char*>(binary_magic.data()), binary_magic.size());
    const unsigned char version = format_version;
    sink.bytes(&version, 1);
    for (const std::uint64_t n : {std::uint64_t{l_.atoms.size()}, std::uint64_t{l_.conses()},
                                  std::uint64_t{l_.roots.size()}, std::uint64_t{atoms.size()},
                                  (bits + 7) / 8})
      sink.number(n);
    sink.bytes(atoms);
    BitWriter<Sink> w(sink);
    for (unsigned c = 0; c < 3; ++c) {
      if (!used(static_cast<Context>(c))) continue;
      for (unsigned s = 0; s < alphabet[c]; ++s) {
        const unsigned length = code_[c].length(s);
        w.put(length == 0 ? 0 : 1 | length << 1, length == 0 ? 1 : 1 + length_bits);
      }
    }
    if (detail::has_bit_instructions()) put_references_with_bit_instructions(w);
    else put_references(w);
    w.finish();
    sink.finish();
  }

 private:
  bool used(Context c) const noexcept { return c == root_refs ? !l_.roots.empty() : l_.conses() != 0; }

  // Each reference's code: a symbol's code (11 bits at most), then its offset (31 at
  // most), in one put. This loop and the counting's are bit lengths, shifts and masks.
  VORN_WITH_BIT_INSTRUCTIONS void put_references_with_bit_instructions(BitWriter<Sink>& w) const { put_references(w); }
  VORN_INLINE_INTO_CALLER void put_references(BitWriter<Sink>& w) const {
    w.batch([this](auto& put_bits) VORN_INLINE_LAMBDA {
      each_reference([&](Context c, const Class& k, std::uint64_t v) VORN_INLINE_LAMBDA {
        const unsigned length = code_[c].length(k.symbol);
        unsigned count;
        const std::uint64_t offset = BitWriter<Sink>::offset_code(k.hi - k.lo + 1, v - k.lo, count);
        put_bits(code_[c].bits(k.symbol) | offset << length, length + count);
      });
    });
  }

  // Each atom's uses in each context; for cons references, each symbol's count and the
  // bits of their offsets. The uses are counted into zeros.
  VORN_WITH_BIT_INSTRUCTIONS void count_references_with_bit_instructions() { count_references(); }
  VORN_INLINE_INTO_CALLER void count_references() {
    // Symbols are counted in four lanes in turn: one symbol often follows itself, and each
    // count would otherwise wait for the one before to be stored.
    std::uint64_t lane_freq[4][2][PrefixCode::max_symbols] = {};
    std::uint64_t* uses[2] = {uses_[car_refs].data(), uses_[cdr_refs].data()};
    unsigned lane = 0;
    std::uint64_t bits = 0;  // a local, not offset_bits_, which the stores to uses may alias
    const std::uint64_t conses = l_.conses();
    const std::uint32_t* refs = l_.refs.data();
    for (std::uint64_t i = 0; i < conses; ++i) {
      const DistanceCount distance(i);
      for (const Context c : {car_refs, cdr_refs}) {
        const std::uint32_t r = refs[2 * i + c];
        if ((r & Listing::atom_tag) != 0) {
          ++uses[c][r ^ Listing::atom_tag];
        } else {
          ++lane_freq[lane][c][distance.symbol(i - r)];
          lane = (lane + 1) & 3;
          bits += distance.offset_bits(i - r);
        }
      }
    }
    offset_bits_ = bits;
    for (const auto& f : lane_freq)
      for (unsigned c = 0; c < 2; ++c)
        for (unsigned s = 0; s < PrefixCode::max_symbols; ++s) freq_[c][s] += f[c][s];
    each_root([this](std::uint32_t j) { ++uses_[root_refs][j]; },
              [this](const Class& k, std::uint64_t v) {
                ++freq_[root_refs][k.symbol];
                offset_bits_ += offset_bits(k.hi - k.lo + 1, v - k.lo);
              });
  }

  // Atoms most referenced first (then in listing order), so the common ones code short.
  void rank_atoms() {
    std::vector<std::uint64_t> total(l_.atoms.size());
    for (std::size_t j = 0; j < total.size(); ++j)
      total[j] = uses_[car_refs][j] + uses_[cdr_refs][j] + uses_[root_refs][j];
    by_rank_.resize(l_.atoms.size());
    std::iota(by_rank_.begin(), by_rank_.end(), 0u);
    // Not stable_sort: its buffer, when it cannot be had, is done without silently.
    std::sort(by_rank_.begin(), by_rank_.end(), [&total](std::uint32_t a, std::uint32_t b) {
      return total[a] != total[b] ? total[a] > total[b] : a < b;
    });
    rank_.resize(l_.atoms.size());
    for (std::uint32_t k = 0; k < by_rank_.size(); ++k) rank_[by_rank_[k]] = k;
  }

  std::string atom_section() const {
    std::string s;
    for (const std::uint32_t j : by_rank_) {
      const Sexp_* a = l_.atoms[j];
      const SexpManager* m = a->mgr;
      if (const char* name = m != nullptr ? m->get_symbol_value(a->value) : nullptr) {
        const std::size_t n = std::strlen(name);
        append_number(s, std::uint64_t{n} << 2 | name_atom);
        s.append(name, n);
      } else if (const auto str = m != nullptr ? m->get_string(a->value) : std::nullopt) {
        append_number(s, std::uint64_t{str->size()} << 2 | string_atom);
        s.append(str->data(), str->size());
      } else {
        append_number(s, raw_atom);
        append_number(s, a->value);
      }
    }
    return s;
  }

  // Adds the atom references to the counts, fits the codes and returns the bits of the
  // code section.
  std::uint64_t fit_codes() {
    const std::uint64_t atoms = l_.atoms.size();
    std::uint64_t bits = offset_bits_;
    for (std::uint64_t j = 0; j < atoms; ++j) {
      const std::uint64_t v = rank_[j] + 1;
      const Class k = atom_class(v, atoms);
      const unsigned offset = offset_bits(k.hi - k.lo + 1, v - k.lo);
      for (unsigned c = 0; c < 3; ++c) {
        freq_[c][k.symbol] += uses_[c][j];
        bits += uses_[c][j] * offset;
      }
    }
    for (unsigned c = 0; c < 3; ++c) {
      code_[c] = PrefixCode::fitted(freq_[c], alphabet[c]);
      for (unsigned s = 0; s < alphabet[c]; ++s) {
        const unsigned length = code_[c].length(s);
        if (used(static_cast<Context>(c))) bits += length == 0 ? 1 : 1 + length_bits;
        bits += freq_[c][s] * length;
      }
    }
    return bits;
  }

  // For every root in order: atom(index) for an atom, cons(class, value) for a cons, coded
  // by where it stands from the last cons root before it.
  template <class Atom, class Cons>
  VORN_INLINE_INTO_CALLER void each_root(Atom atom, Cons cons) const {
    const auto conses = static_cast<std::int64_t>(l_.conses());
    std::int64_t previous = -1;  // the last cons root
    for (const std::uint32_t r : l_.roots) {
      if ((r & Listing::atom_tag) != 0) {
        atom(r ^ Listing::atom_tag);
        continue;
      }
      const std::int64_t p = r;
      const bool after = p > previous;
      const auto v = static_cast<std::uint64_t>(after ? p - previous : previous - p + 1);
      const unsigned length = bit_length(v);
      const auto limit = static_cast<std::uint64_t>(after ? conses - 1 - previous : previous + 1);
      cons(class_of(atom_symbols + (after ? 0 : 32) + length - 1, length, limit), v);
      previous = p;
    }
  }

  // Calls visit(context, class, value) for every reference in the order they are written.
  template <class Visit>
  VORN_INLINE_INTO_CALLER void each_reference(Visit visit) const {
    const std::uint64_t atoms = l_.atoms.size(), conses = l_.conses();
    const std::uint32_t* refs = l_.refs.data();
    for (std::uint64_t i = 0; i < conses; ++i) {
      // Unrolled: with the context a constant, its code table lies at a fixed place and the
      // bit writer's state keeps to registers (about 30 ms of 220 at 10^7 conses).
#pragma GCC unroll 2
      for (const Context c : {car_refs, cdr_refs}) {
        const std::uint32_t r = refs[2 * i + c];
        if ((r & Listing::atom_tag) != 0) {
          const std::uint64_t v = rank_[r ^ Listing::atom_tag] + 1;
          visit(c, atom_class(v, atoms), v);
        } else {
          visit(c, distance_class(i - r, i), i - r);
        }
      }
    }
    each_root(
        [&](std::uint32_t j) {
          const std::uint64_t v = rank_[j] + 1;
          visit(root_refs, atom_class(v, atoms), v);
        },
        [&](const Class& k, std::uint64_t v) { visit(root_refs, k, v); });
  }

  const Listing& l_;
  std::vector<std::uint32_t> by_rank_;  // rank -> atom index
  std::vector<std::uint32_t> rank_;     // atom index -> rank
  std::vector<std::uint64_t> uses_[3];  // by context: atom index -> references to it there
  std::uint64_t freq_[3][PrefixCode::max_symbols] = {};  // by context: symbol -> count
  std::uint64_t offset_bits_ = 0;       // of the references counted so far
  PrefixCode code_[3];
};

}  // namespace

bool is_binary(std::string_view first_bytes) noexcept {
  const std::size_t n = std::min(first_bytes.size(), binary_magic.size());
  return n > 0 && first_bytes.substr(0, n) == binary_magic.substr(0, n);
}

void save(std::ostream& out, const std::vector<Sexp>& roots) {
  const Listing listing = detail::list_nodes(roots.data(), roots.size());
  Encoder(listing).write(out);
}

}  // namespace vorn
