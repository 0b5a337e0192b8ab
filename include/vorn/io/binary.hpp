// Saving expressions with their sharing in a compact binary form, and loading them back:
// vorn::save, vorn::load, vorn::FormatError.
#ifndef VORN_IO_BINARY_HPP
#define VORN_IO_BINARY_HPP

#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

/// Binary data that does not load: what is wrong and at which byte (0-based, from the
/// first byte `load` read). what() is "byte OFFSET: message"; message() is the message alone.
class FormatError : public std::runtime_error {
 public:
  FormatError(const std::string& message, std::uint64_t offset);
  std::uint64_t offset() const noexcept { return offset_; }
  const std::string& message() const noexcept { return message_; }

 private:
  std::string message_;
  std::uint64_t offset_;
};

/// The eight bytes every saved file starts with. The first, 0x89, begins no UTF-8 text and
/// no S-expression a person writes, so one byte tells binary input from text.
inline constexpr std::string_view binary_magic{"\x89vorn\r\n\x1a", 8};

/// Whether input starting with `first_bytes` may be binary data: `first_bytes` is not
/// empty and agrees with binary_magic over their common length (so a single peeked byte
/// suffices, and eight bytes are a full check).
bool is_binary(std::string_view first_bytes) noexcept;

/// Writes the expressions `roots` (none null) and everything they reach, each distinct node
/// once, so that `load` gives them back in order with their sharing.
///
/// The data: binary_magic, a version byte, the counts, then the atoms (symbols and string
/// atoms: a name, a string's bytes, or a raw value that names nothing in its manager),
/// most used first, then every distinct cons after its children, each child a reference
/// to an atom or to an earlier cons, and the roots; last a checksum of all bytes before it.
/// References are bit-level codes of the atom's rank or of the distance back to the cons,
/// under prefix codes fitted to the data (docs/binary-format.md tells the layout), so a
/// random DAG of 10^7 conses over 1024 names takes under 6 bytes a node.
///
/// Nodes are listed in the order of their ids when that puts every child first (as it
/// does for nodes built bottom-up in one manager, the usual case, found in one pass over
/// the nodes with memory-level parallelism), or, for a fair share of a manager's nodes, in
/// the order of their slots in its pool, found in a sweep of it; otherwise in depth-first
/// post-order from the roots. The time is linear in the distinct nodes (the sweep's in the
/// pool's slots, taken only past 1/256 of them) and nothing recurses; no
/// node and no count is changed. Bytes go to `out` unformatted, in pieces of about 64 KiB.
///
/// Throws std::invalid_argument when a root reaches a cycle (made with setcar/setcdr),
/// which no file can hold, and std::length_error past 2^31 - 1 distinct conses or atoms;
/// nothing is written then. Otherwise nothing but memory exhaustion (std::bad_alloc) and
/// the stream's own exceptions is thrown; a failing stream shows in its state.
void save(std::ostream& out, const std::vector<Sexp>& roots);

/// Reads one file that `save` wrote, from the current position of `in` to the end of its
/// checksum and no further, and returns its roots as canonical nodes of `m`: names are
/// interned by content, string atoms made from their bytes, raw values kept as they are.
/// Loading what save wrote of canonical nodes of `m` gives those very nodes.
///
/// The data is hostile until checked: bytes are read only as far as the header says, and
/// memory grows with the bytes that actually arrive, never with a count the data claims.
/// Everything is checked before anything is built, so a FormatError (truncated data, a
/// wrong magic number or version, a count the data cannot hold, a bad checksum, a
/// malformed code, a reference out of range or not to an earlier node, bytes left over)
/// leaves `m` exactly as it was: no node made, no id used, no name or string interned.
/// Nodes are then made in the file's order, atoms first, as sh_sym and sh_cons would
/// make them; a shared table that collects by itself is not grown ahead, any other is
/// grown once to hold every node of the data. Memory exhaustion while building throws
/// std::bad_alloc; canonical nodes and names made before it stay, as canonical nodes
/// always do. Linear in the size of the data; nothing recurses.
std::vector<Sexp> load(SexpManager& m, std::istream& in);

}  // namespace vorn

#endif  // VORN_IO_BINARY_HPP
