// Marking the conses a walk is still inside, to catch cycles.
#ifndef VORN_SRC_EXPR_OPEN_MARKS_HPP
#define VORN_SRC_EXPR_OPEN_MARKS_HPP

#include <cstdint>
#include <vector>

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// Whether cons `n` carries the open mark: the low bit of its `mgr` word, which is never
/// set otherwise (managers are aligned) and which no walk reads for a cons.
inline bool is_open(const Sexp_* n) noexcept {
  return (reinterpret_cast<std::uintptr_t>(n->mgr) & 1u) != 0;
}

/// Sets or removes the open mark of cons `n`.
inline void toggle_open(const Sexp_* n) noexcept {
  auto* node = const_cast<Sexp_*>(n);  // pool slots are never const objects
  node->mgr = reinterpret_cast<SexpManager*>(reinterpret_cast<std::uintptr_t>(node->mgr) ^ 1u);
}

/// Guards a walk that marks the conses it is inside (a cons met again while marked is a
/// cycle; the mark costs no memory and no lookup). Invariant: no mark outlives the walk,
/// so callers never see a changed node. The walk removes marks as it finishes conses;
/// whatever is left when it ends, by return or by exception, this guard removes by
/// calling `unmark()` (noexcept: clear the marks this entry set) on every `Entry` still
/// on the walk's stack.
template <class Entry>
class OpenMarks {
 public:
  explicit OpenMarks(const std::vector<Entry>& stack) noexcept : stack_(stack) {}
  OpenMarks(const OpenMarks&) = delete;
  OpenMarks& operator=(const OpenMarks&) = delete;
  ~OpenMarks() {
    for (const Entry& e : stack_) e.unmark();
  }

 private:
  const std::vector<Entry>& stack_;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_EXPR_OPEN_MARKS_HPP
