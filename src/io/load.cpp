// Reading the binary format: everything is checked before anything is built.
#include <algorithm>
#include <cstring>
#include <istream>
#include <string>
#include <vector>

#include "bit_code.hpp"
#include "build.hpp"
#include "checksum.hpp"
#include "format.hpp"
#include "io_access.hpp"
#include "listing.hpp"
#include "vorn/io/binary.hpp"

namespace vorn {

FormatError::FormatError(const std::string& message, std::uint64_t offset)
    : std::runtime_error("byte " + std::to_string(offset) + ": " + message),
      message_(message),
      offset_(offset) {}

namespace {

using namespace detail::binary;
using detail::Listing;

[[noreturn]] void fail(std::uint64_t offset, const std::string& message) {
  throw FormatError(message, offset);
}

/// The bytes of one file, read from the stream's buffer as they are needed and no further.
/// The buffer grows with what arrives (at most doubling), never with what the data claims.
class Input {
 public:
  explicit Input(std::istream& in) noexcept : in_(in.rdbuf()) {}

  /// Makes sure bytes [0, end) have arrived; otherwise throws at the end of what did.
  void need(std::uint64_t end, const std::string& what) {
    while (bytes_.size() < end) {
      const std::size_t have = bytes_.size();
      const std::uint64_t want =
          std::min<std::uint64_t>(end - have, std::max<std::size_t>(have, std::size_t{1} << 16));
      bytes_.resize(have + static_cast<std::size_t>(want));
      const std::streamsize got =
          in_ == nullptr ? 0
                         : in_->sgetn(reinterpret_cast<char*>(bytes_.data() + have),
                                      static_cast<std::streamsize>(want));
      bytes_.resize(have + static_cast<std::size_t>(got > 0 ? got : 0));
      if (got <= 0) fail(bytes_.size(), "unexpected end of data: expected " + what);
    }
  }
  /// Zero bytes after the data, so bit codes can be read a word at a time up to its end.
  void pad() { bytes_.resize(bytes_.size() + 32, 0); }
  const unsigned char* data() const noexcept { return bytes_.data(); }

 private:
  std::streambuf* in_;
  std::vector<unsigned char> bytes_;
};

struct Atom {
  AtomKind kind;
  std::uint64_t at;     // name, string: offset of the bytes
  std::uint64_t value;  // name, string: their length; raw: the value
};

enum Context : unsigned { car_refs, cdr_refs, root_refs };
const char* const context_name[3] = {"car", "cdr", "root"};
constexpr unsigned alphabet[3] = {child_symbols, child_symbols, root_symbols};

/// One file: its header, then (once every byte the header announces is there and the
/// checksum agrees) its atoms and codes, into a plan that build() follows.
class Decoder {
 public:
  explicit Decoder(std::istream& in) : in_(in) {}

  void read() {
    for (std::size_t i = 0; i < binary_magic.size(); ++i)
      if (byte("the magic number") != static_cast<unsigned char>(binary_magic[i]))
        fail(i, "not vorn binary data (wrong magic number)");
    const unsigned version = byte("the format version");
    if (version != format_version)
      fail(at_ - 1, "unsupported format version " + std::to_string(version) +
                        " (this library reads version " + std::to_string(format_version) + ")");
    read_counts();
    in_.need(end_, "the " + std::to_string(end_) + " bytes the header announces");
    in_.pad();
    check_sum();
    read_atoms();
    read_codes();
  }

  std::vector<Sexp> build(SexpManager& m) const {
    detail::Builder b(m, atoms_.size(), conses_);
    b.grow_table_ahead();
    const char* text = reinterpret_cast<const char*>(in_.data());
    for (const Atom& a : atoms_) {
      switch (a.kind) {
        case name_atom:
          b.atom(detail::IoAccess::intern(m, text + a.at, a.value));
          break;
        case string_atom:
          b.atom(m.make_string(std::string_view(text + a.at, a.value)));
          break;
        default:
          b.atom(a.value);
      }
    }
    b.conses(refs_.data(), conses_);
    return b.roots(roots_.data(), roots_.size());
  }

 private:
  unsigned char byte(const std::string& what) {
    in_.need(at_ + 1, what);
    return in_.data()[at_++];
  }

  // A LEB128 number below `limit_end` (the end of its section, if any).
  std::uint64_t number(const std::string& what, std::uint64_t limit_end = UINT64_MAX) {
    const std::uint64_t start = at_;
    std::uint64_t v = 0;
    for (unsigned shift = 0;; shift += 7) {
      if (at_ >= limit_end) fail(at_, what + " runs past the end of its section");
      const unsigned char b = byte(what);
      if (shift == 63 && b > 1) fail(start, "malformed number (over 64 bits) in " + what);
      v |= std::uint64_t{b & 0x7Fu} << shift;
      if ((b & 0x80) == 0) {
        if (b == 0 && shift != 0) fail(start, "malformed number (a needless last zero byte) in " + what);
        return v;
      }
    }
  }

  // The counts, each checked against what the bytes announced could hold, and where each
  // section ends.
  void read_counts() {
    const std::uint64_t atoms_at = at_, atoms = number("the atom count");
    const std::uint64_t conses_at = at_, conses = number("the cons count");
    const std::uint64_t roots_at = at_, roots = number("the root count");
    const std::uint64_t atom_bytes = number("the size of the atoms");
    const std::uint64_t code_bytes_at = at_, code_bytes = number("the size of the codes");
    constexpr std::uint64_t max_count = Listing::atom_tag - 1, max_size = std::uint64_t{1} << 60;
    if (atoms > max_count) fail(atoms_at, std::to_string(atoms) + " atoms: at most 2^31 - 1 can be read");
    if (conses > max_count) fail(conses_at, std::to_string(conses) + " conses: at most 2^31 - 1 can be read");
    if (atom_bytes > max_size || code_bytes > max_size) fail(code_bytes_at, "section sizes past 2^60 bytes");
    if (atoms > atom_bytes)
      fail(atoms_at, std::to_string(atoms) + " atoms cannot fit in the " + std::to_string(atom_bytes) +
                         " bytes of the atoms");
    if (conses > code_bytes * 8 / min_cons_bits)
      fail(conses_at, std::to_string(conses) + " conses cannot fit in the " + std::to_string(code_bytes) +
                          " bytes of the codes");
    if (roots > code_bytes * 8 / min_root_bits)
      fail(roots_at, std::to_string(roots) + " roots cannot fit in the " + std::to_string(code_bytes) +
                         " bytes of the codes");
    atom_count_ = atoms;
    conses_ = static_cast<std::size_t>(conses);
    root_count_ = roots;
    atoms_end_ = at_ + atom_bytes;
    codes_end_ = atoms_end_ + code_bytes;
    end_ = codes_end_ + 8;
  }

  void check_sum() const {
    Checksum sum;
    sum.update(in_.data(), static_cast<std::size_t>(codes_end_));
    if (sum.value() != load_le64(in_.data() + codes_end_))
      fail(codes_end_, "checksum mismatch: the data is corrupted");
  }

  void read_atoms() {
    atoms_.reserve(static_cast<std::size_t>(atom_count_));  // no more than the bytes there
    for (std::uint64_t j = 0; j < atom_count_; ++j) {
      const std::string what = "atom " + std::to_string(j);
      const std::uint64_t tag_at = at_, tag = number(what, atoms_end_);
      const auto kind = static_cast<AtomKind>(tag & 3);
      const std::uint64_t length = tag >> 2;
      if (kind == raw_atom) {
        if (length != 0) fail(tag_at, what + ": a raw value has no bytes");
        atoms_.push_back({kind, 0, number(what, atoms_end_)});
        continue;
      }
      if (kind != name_atom && kind != string_atom) fail(tag_at, what + ": unknown kind 3");
      if (length > atoms_end_ - at_) fail(tag_at, what + ": its " + std::to_string(length) +
                                                      " bytes run past the end of the atoms");
      if (kind == name_atom) {
        const void* nul = std::memchr(in_.data() + at_, '\0', static_cast<std::size_t>(length));
        if (nul != nullptr)
          fail(static_cast<std::uint64_t>(static_cast<const unsigned char*>(nul) - in_.data()),
               what + ": NUL byte in name");
      }
      atoms_.push_back({kind, at_, length});
      at_ += length;
    }
    if (at_ != atoms_end_)
      fail(at_, std::to_string(atoms_end_ - at_) + " bytes left over after the atoms");
  }

  // ---- codes -------------------------------------------------------------------------

  std::uint64_t offset_of(const BitReader& in) const noexcept { return at_ + (in.position() >> 3); }
  std::uint64_t end_bit() const noexcept { return (codes_end_ - at_) * 8; }

  void read_codes() {
    BitReader in(in_.data() + at_, 0);  // at_ stays at the start of the codes from here on
    PrefixCode code[3];
    for (unsigned c = 0; c < 3; ++c) {
      if (c == root_refs ? root_count_ == 0 : conses_ == 0) continue;
      const std::uint64_t table_at = offset_of(in);
      std::uint8_t lengths[PrefixCode::max_symbols];
      bool zero = false;  // a used symbol of length 0
      for (unsigned s = 0; s < alphabet[c]; ++s) {
        lengths[s] = static_cast<std::uint8_t>(in.get(1) != 0 ? in.get(length_bits) : 16);
        zero |= lengths[s] == 0;
        if (lengths[s] == 16) lengths[s] = 0;
      }
      if (in.position() > end_bit()) fail(codes_end_, "the code lengths run past the end of the codes");
      if (zero || !PrefixCode::from_lengths(lengths, alphabet[c], code[c]))
        fail(table_at, std::string("invalid ") + context_name[c] +
                           " code lengths (0 or over 11 bits, or more codes than bit patterns)");
    }
    refs_.reserve(2 * conses_);  // no more than the bytes there can hold
    for (std::uint64_t i = 0; i < conses_; ++i) {
      const std::uint64_t record_at = offset_of(in);
      if (in.position() >= end_bit()) past_end("cons", i);
      for (const Context c : {car_refs, cdr_refs}) {
        unsigned symbol;
        Class k;
        bool is_atom;
        if (!code[c].decode(in, symbol)) fail(record_at, at_cons(i, c) + "invalid code");
        if (!child_class(symbol, i, atom_count_, k, is_atom))
          fail(record_at, at_cons(i, c) + (is_atom ? atom_out_of_range() : cons_out_of_range(i)));
        const std::uint64_t v = k.lo + in.get_offset(k.hi - k.lo + 1);
        refs_.push_back(is_atom ? Listing::atom_tag | static_cast<std::uint32_t>(v - 1)
                                : static_cast<std::uint32_t>(i - v));
      }
      if (in.position() > end_bit()) past_end("cons", i);
    }
    read_roots(in, code[root_refs]);
    const std::uint64_t left = end_bit() - in.position();
    if (left >= 8) fail(codes_end_ - left / 8, std::to_string(left / 8) + " bytes left over after the roots");
    if (in.peek(static_cast<unsigned>(left)) != 0) fail(offset_of(in), "nonzero bits after the roots");
  }

  [[noreturn]] void past_end(const char* what, std::uint64_t i) const {
    fail(codes_end_, std::string(what) + " " + std::to_string(i) + " runs past the end of the codes");
  }
  static std::string at_cons(std::uint64_t i, Context c) {
    return "cons " + std::to_string(i) + ": " + context_name[c] + " reference: ";
  }
  std::string atom_out_of_range() const {
    return "out of range: an atom past the " + std::to_string(atom_count_) + " atoms";
  }
  static std::string cons_out_of_range(std::uint64_t before) {
    return "out of range: a cons before the first (of the " + std::to_string(before) +
           " conses before this one; a cons refers only to atoms and earlier conses)";
  }

  void read_roots(BitReader& in, const PrefixCode& code) {
    roots_.reserve(static_cast<std::size_t>(root_count_));  // no more than the bytes there can hold
    std::int64_t previous = -1;  // the last cons root
    const auto conses = static_cast<std::int64_t>(conses_);
    for (std::uint64_t r = 0; r < root_count_; ++r) {
      const std::uint64_t at = offset_of(in);
      if (in.position() >= end_bit()) past_end("root", r);
      unsigned symbol;
      if (!code.decode(in, symbol)) fail(at, "root " + std::to_string(r) + ": invalid code");
      const bool atom = symbol < atom_symbols, after = symbol < atom_symbols + 32;
      const unsigned length = symbol + 1 - (atom ? 0 : after ? atom_symbols : atom_symbols + 32);
      const std::int64_t room = atom ? static_cast<std::int64_t>(atom_count_)
                                     : after ? conses - 1 - previous : previous + 1;
      const Class k = class_of(symbol, length, room > 0 ? static_cast<std::uint64_t>(room) : 0);
      if (k.lo > k.hi)
        fail(at, "root " + std::to_string(r) + ": " +
                     (atom ? atom_out_of_range()
                           : "out of range: a cons " + std::string(after ? "after" : "at or before") +
                                 " cons " + std::to_string(previous) + " by " + std::to_string(k.lo) +
                                 " or more, of " + std::to_string(conses_) + " conses"));
      const auto v = static_cast<std::int64_t>(k.lo + in.get_offset(k.hi - k.lo + 1));
      if (atom) {
        roots_.push_back(Listing::atom_tag | static_cast<std::uint32_t>(v - 1));
      } else {
        previous = after ? previous + v : previous - v + 1;
        roots_.push_back(static_cast<std::uint32_t>(previous));
      }
      if (in.position() > end_bit()) past_end("root", r);
    }
  }

  Input in_;
  std::uint64_t at_ = 0;  // offset of the next byte to read; the start of the codes once there
  std::uint64_t atom_count_ = 0, root_count_ = 0;
  std::size_t conses_ = 0;
  std::uint64_t atoms_end_ = 0, codes_end_ = 0, end_ = 0;
  std::vector<Atom> atoms_;
  std::vector<std::uint32_t> refs_;   // as Listing's
  std::vector<std::uint32_t> roots_;  // as Listing's
};

}  // namespace

std::vector<Sexp> load(SexpManager& m, std::istream& in) {
  Decoder d(in);
  d.read();
  return d.build(m);
}

}  // namespace vorn
