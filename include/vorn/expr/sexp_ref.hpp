// SexpRef: a non-owning reference to a node, for the library's internal bookkeeping.
#ifndef VORN_EXPR_SEXP_REF_HPP
#define VORN_EXPR_SEXP_REF_HPP

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// Names a node without holding a reference on it: making, copying and dropping one moves
/// no count. Whoever borrows makes sure the node stays alive by other means for as long as
/// the reference is used (a parent, a handle of the caller). `own()` turns the borrow into
/// a counted reference where one is needed; `handle()` lends it to code that takes a
/// `const Sexp&` and copies what it keeps.
class SexpRef {
 public:
  SexpRef() noexcept = default;
  /// A reference to `n` that takes no count.
  static SexpRef borrow(Sexp_* n) noexcept { return SexpRef(n); }

  SexpRef(const SexpRef& other) noexcept { view.node = other.view.node; }
  SexpRef& operator=(const SexpRef& other) noexcept {
    view.node = other.view.node;
    return *this;
  }
  ~SexpRef() { view.node = nullptr; }  // let go without a release

  Sexp_* get() const noexcept { return view.node; }
  /// The node as a handle, valid while this reference is; copies of it count as usual.
  const Sexp& handle() const noexcept { return view; }
  /// Takes one reference on the node for whoever keeps this reference from now on; the
  /// node then stays alive until that reference is released.
  void own() const noexcept { view.node->add_ref(); }

  /// Takes over the reference `h` holds, leaving `h` null: the caller owns it from now on.
  static Sexp_* take(Sexp& h) noexcept {
    Sexp_* n = h.node;
    h.node = nullptr;
    return n;
  }
  /// A handle that takes over a reference the caller owns on `n` (not null).
  static Sexp adopt(Sexp_* n) noexcept { return Sexp(n, Sexp::Adopt{}); }

 private:
  explicit SexpRef(Sexp_* n) noexcept { view.node = n; }
  Sexp view;  // never releases: the destructor empties it first
};

}  // namespace vorn::detail

#endif  // VORN_EXPR_SEXP_REF_HPP
