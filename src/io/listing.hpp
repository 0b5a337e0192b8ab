// Listing the distinct nodes under some roots, children before parents: the shape that
// saving writes and that copying and loading build.
#ifndef VORN_SRC_IO_LISTING_HPP
#define VORN_SRC_IO_LISTING_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// The distinct nodes reachable from some roots: the symbol nodes (atoms) in one list, the
/// conses in an order where every cons comes after both its children.
///
/// A reference names an atom as `atom_tag | index` and a cons by its position; each cons
/// refers only to earlier ones. At most 2^31 - 1 atoms and as many conses.
struct Listing {
  static constexpr std::uint32_t atom_tag = 0x80000000u;

  std::vector<const Sexp_*> atoms;   // by index
  std::vector<std::uint32_t> refs;   // two per cons, by position: car, then cdr
  std::vector<std::uint32_t> roots;  // one per root, in order
  const SexpManager* manager = nullptr;  // when known, the one manager of every node

  std::size_t conses() const noexcept { return refs.size() / 2; }
};

/// Lists what `roots[0 .. n)` (none null) reach, reading nodes and changing none.
///
/// Nodes of one manager whose ids say no two live nodes share one are listed in id order
/// when that puts every child first, as building bottom-up does: one breadth-first pass
/// over the nodes, which fetches many at a time, then ranks computed from a bitmap of the
/// ids. Anything else (nodes of several managers, a child with a later id, ids spread so
/// thinly that their bitmap would outweigh the nodes) is listed in depth-first post-order
/// from the roots, nodes found through a hash table keyed by address.
///
/// Throws std::invalid_argument when a root reaches a cycle (made with setcar/setcdr),
/// std::length_error past 2^31 - 1 atoms or conses, std::bad_alloc.
Listing list_nodes(const Sexp* roots, std::size_t n);

/// The number of set bits of `x`: one instruction where the function it is inlined into
/// may use it, a few shifts and adds elsewhere. (GCC turns this form into the instruction
/// where it can, but calls a table-driven library routine for its builtin where it cannot;
/// Clang does the opposite.)
inline unsigned popcount(std::uint64_t x) noexcept {
#if defined(__clang__)
  return static_cast<unsigned>(__builtin_popcountll(x));
#else
  x -= (x >> 1) & 0x5555555555555555ull;
  x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
  x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
  return static_cast<unsigned>((x * 0x0101010101010101ull) >> 56);
#endif
}

/// The message of the std::invalid_argument thrown for a cycle.
extern const char* const cycle_message;

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_LISTING_HPP
