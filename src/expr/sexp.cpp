// Reclaiming dead nodes.
#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {
namespace detail {

namespace {

// One reference less on a child of a dying cons; true when the child dies with it.
inline bool drop(Sexp_* child) noexcept {
  child->refcount = (child->refcount + 0x7FFFFFFFu) & 0x7FFFFFFFu;
  return child->refcount == 0 && child->mgr != nullptr;
}

}  // namespace

// Does what "~Sexp_() then give the slot back" does, for a whole dying subtree, without
// recursing and without allocating. Dying conses whose children are still being
// released wait on a stack threaded through their own `car` words (the car has been
// released by then, so the word is free); a null `cdr` marks a cons whose cdr has been
// released too. Slots go back in post-order: the car subtree's, the cdr subtree's,
// then the cons's own, exactly as the recursive definition would return them.
void reclaim(Sexp_* node) noexcept {
  Sexp_* waiting = nullptr;  // dying conses, innermost first, linked through `car`
  while (node != nullptr) {
    Sexp_* next = nullptr;
    if (node->is_symbol != 0) {
      node->mgr->sexp_pool.deallocate(node);
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
        cons->mgr->sexp_pool.deallocate(cons);
      }
    }
    node = next;
  }
}

}  // namespace detail
}  // namespace vorn
