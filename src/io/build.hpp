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
  Sexp_* node(std::uint32_t ref) const noexcept {
    return nodes_[(ref & Listing::atom_tag) != 0 ? ref ^ Listing::atom_tag : atoms_ + ref];
  }

  SexpManager& m_;
  bool hold_;                   // the manager collects by itself: nodes_ hold a reference each
  std::size_t atoms_;           // atoms announced: conses start there in nodes_
  std::size_t planned_;         // nodes announced
  std::vector<Sexp_*> nodes_;   // made so far: atoms, then conses
};

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_BUILD_HPP
