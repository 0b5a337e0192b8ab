// Which conses of an expression the text writer labels, and the label each has been given:
// the bookkeeping behind WriteOptions::shared.
#ifndef VORN_SRC_TEXT_CONS_LABELS_HPP
#define VORN_SRC_TEXT_CONS_LABELS_HPP

#include <cstdint>
#include <vector>

#include "../support/flat_map.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// The conses reachable from a root, each with the number of places that refer to it (a
/// parent's car, a parent's cdr, the caller for the root), counted up to two. A cons
/// referred to from two places or more is shared: written once in full after a label
/// `#N=` and as `#N#` everywhere else, so the text holds every distinct cons once. A cons
/// referred to once is written in full where it stands; so is each of its descendants
/// that is not shared, and a cycle always passes through a shared cons (the first of its
/// conses to be reached is also reached back), so the writer never goes round one.
///
/// Memory: one FlatMap entry per distinct cons and a work stack of conses still to look
/// into; nothing per occurrence. Counting is iterative: along a cdr chain it goes on in
/// place, and only cars wait on the stack. The nodes are only read.
class ConsLabels {
 public:
  explicit ConsLabels(const Sexp_* root) {
    if (root->is_symbol != 0) return;
    std::vector<const Sexp_*> pending;
    state_.at(key(root)) = once;
    for (const Sexp_* n = root;;) {
      if (refer(n->car)) pending.push_back(n->car);
      if (refer(n->cdr)) {
        n = n->cdr;
        continue;
      }
      if (pending.empty()) break;
      n = pending.back();
      pending.pop_back();
    }
  }

  /// Whether cons `n` is shared (labelled where it is first written).
  bool shared(const Sexp_* n) noexcept { return state(n) >= unwritten; }

  /// The label of cons `n` once it has one; -1 (all bits set) when it has none yet.
  std::uint64_t label(const Sexp_* n) noexcept {
    const std::uint64_t s = state(n);
    return s > unwritten ? s - first_label : ~std::uint64_t{0};
  }

  /// Gives shared cons `n`, which has no label yet, the next label; returns it.
  std::uint64_t define(const Sexp_* n) noexcept {
    *state_.find(key(n)) = first_label + next_;
    return next_++;
  }

  /// The next label to give. `rewind(next)` takes back the labels given since next() was
  /// `next`, after the caller has undone each with `undefine`.
  std::uint64_t next() const noexcept { return next_; }
  void undefine(const Sexp_* n) noexcept { *state_.find(key(n)) = unwritten; }
  void rewind(std::uint64_t next) noexcept { next_ = next; }

 private:
  // The value kept per cons: referred to once; shared without a label yet; shared with
  // label L, kept as first_label + L.
  static constexpr std::uint64_t once = 1, unwritten = 2, first_label = 3;

  static std::uint64_t key(const Sexp_* n) noexcept {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(n));
  }

  std::uint64_t state(const Sexp_* n) noexcept {
    const std::uint64_t* s = state_.find(key(n));
    return s != nullptr ? *s : 0;
  }

  // Counts one more reference to `child`; true when it is a cons met for the first time.
  bool refer(const Sexp_* child) {
    if (child->is_symbol != 0) return false;
    std::uint64_t& s = state_.at(key(child));
    if (s != 0) {
      s = unwritten;
      return false;
    }
    s = once;
    return true;
  }

  FlatMap state_;
  std::uint64_t next_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_TEXT_CONS_LABELS_HPP
