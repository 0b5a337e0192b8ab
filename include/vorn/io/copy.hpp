// Copying expressions into another manager: vorn::copy.
#ifndef VORN_IO_COPY_HPP
#define VORN_IO_COPY_HPP

#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

/// The canonical node of `to` with the shape of `e`, a node of any manager (or of none):
/// names are interned in `to` by content, string atoms made from their bytes, and a raw
/// value (one that names nothing in its manager, or any value of an unmanaged symbol) is
/// kept as it is. Copying a canonical node into its own manager gives the node itself.
///
/// This is how terms move between threads (one manager per thread: copy on the receiving
/// side while the sender's manager is not in use) and how a long-lived manager is
/// compacted into a fresh one. Each distinct node is visited once, so a shared DAG costs
/// its distinct nodes, not its tree size; nothing recurses. `e` must not be null.
///
/// Throws std::invalid_argument, having made nothing, when `e` reaches a cycle (made with
/// setcar/setcdr), which canonical nodes cannot hold. Nodes are made atoms first, then
/// conses, children first, as sh_sym and sh_cons would make them; when every node of `e`
/// belongs to one other manager, the shared table of `to` is first grown once to hold them
/// all (unless it collects by itself). Memory exhaustion throws std::bad_alloc, and
/// canonical nodes and names made before it stay.
Sexp copy(SexpManager& to, const Sexp& e);

/// copy() of every root at once, in order: what they share is visited once.
std::vector<Sexp> copy(SexpManager& to, const std::vector<Sexp>& roots);

}  // namespace vorn

#endif  // VORN_IO_COPY_HPP
