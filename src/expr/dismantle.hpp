// The walk that ends the life of a dying subtree, shared by release and collection.
#ifndef VORN_SRC_EXPR_DISMANTLE_HPP
#define VORN_SRC_EXPR_DISMANTLE_HPP

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

// One reference less on a child of a dying cons; true when the child dies with it.
inline bool drop(Sexp_* child) noexcept {
  child->refcount = (child->refcount + 0x7FFFFFFFu) & 0x7FFFFFFFu;
  return child->refcount == 0 && child->mgr != nullptr;
}

// Ends the life of `node` (count 0, managed): releases its car subtree, then its cdr
// subtree, then calls `done(n)` for the node itself, so `done` sees the dying nodes in
// post-order, each once, after its children have been released. Nothing recurses and
// nothing is allocated: conses whose children are still being released wait on a stack
// threaded through their own `car` words (the car has been released by then, so the word
// is free); a null `cdr` marks a cons whose cdr has been released too. When `done(n)` is
// called, n's `car` and `cdr` words are free for the caller's use; its first word
// (id and count) is untouched.
template <class Done>
inline void dismantle(Sexp_* node, Done done) noexcept {
  Sexp_* waiting = nullptr;  // dying conses, innermost first, linked through `car`
  while (node != nullptr) {
    Sexp_* next = nullptr;
    if (node->is_symbol != 0) {
      done(node);
    } else {
      Sexp_* car = node->car;
      node->car = waiting;
      waiting = node;
      if (drop(car)) next = car;
    }
    // Resume the innermost waiting cons: release its cdr, or finish it.
    while (next == nullptr && waiting != nullptr) {
      Sexp_* cons = waiting;
      if (cons->cdr != nullptr) {
        Sexp_* cdr = cons->cdr;
        cons->cdr = nullptr;
        if (drop(cdr)) next = cdr;
      } else {
        waiting = cons->car;
        done(cons);
      }
    }
    node = next;
  }
}

}  // namespace vorn::detail

#endif  // VORN_SRC_EXPR_DISMANTLE_HPP
