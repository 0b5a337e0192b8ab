// What expressions cost as plain trees and as canonical nodes: the counts and the table
// behind `vorn stats`.
#ifndef VORN_TOOLS_STATS_HPP
#define VORN_TOOLS_STATS_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vorn/expr/sexp.hpp"

namespace vorn::tool {

/// Counts, over the expressions added, the nodes a plain tree would have (every shared
/// node counted once per place it appears) and the distinct nodes reached.
///
/// A tree's nodes are those of its cons cells and atoms: a symbol is 1, a cons 1 plus
/// its car's and its cdr's (so a list counts its cells and its closing nil). Each node's
/// tree size is worked out once and kept by id, so the count takes time linear in the
/// distinct nodes, not in the tree, and sizes past 2^64 - 1 stay at 2^64 - 1. The walk
/// keeps its stack on the heap: any depth.
///
/// The nodes must belong to one manager, hold no cycle (canonical nodes never do) and
/// keep their ids while the counter lives.
class TreeCounter {
 public:
  void add(const Sexp& e);

  /// The tree sizes of the expressions added, summed (saturating).
  std::uint64_t elements() const noexcept { return elements_; }
  /// The distinct nodes reached from the expressions added.
  std::uint64_t distinct() const noexcept { return distinct_; }
  /// The heap bytes the counter holds itself (to tell them from the manager's).
  std::size_t own_bytes() const noexcept;

 private:
  std::vector<std::uint64_t> size_by_id_;  // tree size of the node of each id; 0: not yet known
  std::vector<const Sexp_*> todo_;
  std::uint64_t elements_ = 0;
  std::uint64_t distinct_ = 0;
};

/// The in-use bytes of the C heap (memory handed out by malloc and not freed), where the
/// C library can tell; nothing otherwise.
std::optional<std::size_t> heap_in_use();

/// One line of the `vorn stats` table.
struct StatsRow {
  std::string name;
  std::uint64_t bytes = 0;            // of text read
  std::uint64_t elements = 0;         // TreeCounter::elements
  std::uint64_t distinct = 0;         // TreeCounter::distinct
  std::optional<std::uint64_t> heap;  // heap bytes held by the manager after reading
  double seconds = 0;                 // spent reading
};

/// The rows as an aligned table with a header and, for more than one row, a total that
/// adds them up; one line each, ending in a newline.
std::string stats_table(const std::vector<StatsRow>& rows);

}  // namespace vorn::tool

#endif  // VORN_TOOLS_STATS_HPP
