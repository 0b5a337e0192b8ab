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
///
/// While every node is new, counts are kept ahead rather than one call at a time: each
/// cons is made with the count it will end with (its parents among all the listed conses,
/// counted before the first is made, the table's reference and the builder's), and making
/// it adds nothing to its children that are conses (it does to atoms, which may be older
/// nodes). Nothing reads a count in between (a collection in the middle sees every node
/// of the build held either way), so only the end state shows, and settle() makes it the
/// one sh_cons one call at a time leaves: at the first hit, and when making a node fails.
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
  // A node asked for, with its id beside it: the shape of a cons over it hashes without
  // reading the node. Sixteen bytes, so that one never straddles two cache lines.
  struct alignas(16) Entry {
    Sexp_* node;
    std::uint32_t id;
  };

  std::size_t index(std::uint32_t ref) const noexcept {
    return (ref & Listing::atom_tag) != 0 ? std::size_t{ref ^ Listing::atom_tag} : atoms_ + ref;
  }
  // The first stage of a cons's prefetching: asks memory for the two entries cons `j`
  // reads, if there is such a cons. Always inlined: GCC drops a call to a function that
  // only prefetches (and the prefetches with it) unless it has inlined the call first.
  __attribute__((always_inline)) void prefetch_entries(const std::uint32_t* refs, std::size_t j, std::size_t n) const noexcept {
    if (j >= n) return;
    __builtin_prefetch(nodes_.data() + index(refs[2 * j]));
    __builtin_prefetch(nodes_.data() + index(refs[2 * j + 1]));
  }
  Sexp_* node(std::uint32_t ref) const noexcept { return nodes_[index(ref)].node; }
  // The conses from the first while every node is new, counts kept ahead; returns how many
  // were made (all `n` unless a shape was found in the table).
  std::size_t conses_all_new(const std::uint32_t* refs, std::size_t n);
  // The conses from `k` on, each looked up as sh_cons does.
  void conses_looked_up(const std::uint32_t* refs, std::size_t k, std::size_t n);
  // Takes back from the first `made` conses the references counted ahead for them by the
  // conses of `refs` from `from` to `n`, which were not made.
  void settle(const std::uint32_t* refs, std::size_t from, std::size_t n, std::size_t made) noexcept;
  // Whether every node asked for so far was made new.
  bool all_new() const noexcept { return m_.ids_handed_out() - ids_before_ == nodes_.size(); }

  SexpManager& m_;
  bool hold_;                   // the manager collects by itself: nodes_ hold a reference each
  std::size_t atoms_;           // atoms announced: conses start there in nodes_
  std::size_t planned_;         // nodes announced
  std::uint64_t ids_before_;    // ids the manager had handed out when the build began
  std::vector<Entry> nodes_;    // the nodes asked for so far: atoms, then conses
};

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_BUILD_HPP
