// The manager's entry points for the rewriting engine, which makes cells it knows are new.
#ifndef VORN_SRC_REWRITE_REWRITE_ACCESS_HPP
#define VORN_SRC_REWRITE_REWRITE_ACCESS_HPP

#include "vorn/expr/manager.hpp"

namespace vorn::detail {

struct RewriteAccess {
  /// sh_cons of a shape absent from the table, without the caller's reference: `car` or
  /// `cdr` is the node `m` made last, and `m` has handed out no id since (see
  /// SexpManager::shared_cons_absent).
  static Sexp_* new_cons(SexpManager& m, Sexp_* car, Sexp_* cdr) {
    return m.shared_cons_absent(car, cdr);
  }
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_REWRITE_ACCESS_HPP
