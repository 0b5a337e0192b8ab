// Making the canonical nodes of a listed shape in a manager: what load and copy end with.
#ifndef VORN_SRC_IO_BUILD_HPP
#define VORN_SRC_IO_BUILD_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

#include "listing.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn::detail {

/// Makes, in order, the canonical symbol of each atom's value and the canonical cons of
/// each listed cons, exactly as sh_sym and sh_cons would one call at a time; references
/// are as in Listing, each to an atom or an earlier cons (the caller has made sure).
///
/// While the manager collects by itself, the builder holds a reference on every node it
/// made, so a collection in the middle cannot take one, and drops them when destroyed.
///
/// As long as every node asked for so far was new (each call a miss, so entries and new
/// nodes are one to one), an entry no cons has yet had as a child is a node that no
/// canonical cons has as a child: it was made by this builder with an id no live node had,
/// and every cons made since is the builder's own. A cons over such a child is absent from
/// the table, and is entered without looking it up, which has exactly the effects of the
/// look-up's miss. The first hit (a duplicate entry, a value or shape the manager held
/// already) ends that for the rest of the build.
class Builder {
 public:
  Builder(SexpManager& m, std::size_t atoms, std::size_t conses);
  ~Builder();
  Builder(const Builder&) = delete;
  Builder& operator=(const Builder&) = delete;

  /// Grows the shared table once to hold every node still to be made, unless the manager
  /// collects by itself (it then collects at its growth points, as inserts one by one do).
  void grow_table_ahead();
  /// The next atom: the canonical symbol of `value`.
  void atom(std::uint64_t value);
  /// The `n` conses of `refs` (two each).
  void conses(const std::uint32_t* refs, std::size_t n);
  /// Handles on the nodes of `refs`.
  std::vector<Sexp> roots(const std::uint32_t* refs, std::size_t n) const;

 private:
  static constexpr std::uintptr_t has_parent = 1;
  static_assert(alignof(Sexp_) > has_parent, "a node address leaves its low bit free");

  std::size_t index(std::uint32_t ref) const noexcept {
    return (ref & Listing::atom_tag) != 0 ? std::size_t{ref ^ Listing::atom_tag} : atoms_ + ref;
  }
  Sexp_* node_at(std::size_t i) const noexcept { return reinterpret_cast<Sexp_*>(nodes_[i] & ~has_parent); }
  Sexp_* node(std::uint32_t ref) const noexcept { return node_at(index(ref)); }
  // Whether every node asked for so far was made new.
  bool all_new() const noexcept { return m_.ids_handed_out() - ids_before_ == nodes_.size(); }

  SexpManager& m_;
  bool hold_;                   // the manager collects by itself: nodes_ hold a reference each
  std::size_t atoms_;           // atoms announced: conses start there in nodes_
  std::size_t planned_;         // nodes announced
  std::uint64_t ids_before_;    // ids the manager had handed out when the build began
  // The nodes asked for so far (atoms, then conses), each with `has_parent` set once a cons
  // over it has been asked for.
  std::vector<std::uintptr_t> nodes_;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_BUILD_HPP
