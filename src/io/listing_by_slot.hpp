// Listing the nodes under some roots in the order of their slots in one manager's pool.
#ifndef VORN_SRC_IO_LISTING_BY_SLOT_HPP
#define VORN_SRC_IO_LISTING_BY_SLOT_HPP

#include <cstddef>

#include "listing.hpp"

namespace vorn::detail {

/// Lists what `roots[0 .. n)` (none null) reach into `out` (empty), conses in the order
/// of their slots in the node pool of `m` (chunks oldest first, each in address order),
/// which is the order of their ids while no slot has been reused. Nodes are read in two
/// sweeps over the pool's memory instead of one pointer after another, so the cost is a
/// stream through the pool plus, per node, look-ups in tables a few bytes per 64 slots
/// large; it pays when the nodes reached are a fair share of the pool.
///
/// Returns false, with `out` in any state, when that order is no order for a listing (a
/// cons child in a later slot than its parent, as after setcar/setcdr or slot reuse; a
/// cycle is one such case) or when a node is not in a slot of `m` (a node of another
/// manager or of none), or when the pool's chunks lie so far apart in memory that the
/// table from address to slot would outweigh them. Reads nodes and changes none.
/// Throws std::length_error past 2^31 - 1 atoms or conses, std::bad_alloc.
bool list_by_slot(const SexpManager& m, const Sexp* roots, std::size_t n, Listing& out);

/// The nodes a listing in id order may reach before listing by slot pays better for `m`.
std::size_t slot_listing_threshold(const SexpManager& m) noexcept;

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_LISTING_BY_SLOT_HPP
