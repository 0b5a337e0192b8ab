// Filling a template with a matcher's bindings: vorn::instantiate.
#ifndef VORN_EXPR_INSTANTIATE_HPP
#define VORN_EXPR_INSTANTIATE_HPP

#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

/// The canonical expression obtained from `tmpl` by replacing every symbol that has a
/// binding in `bindings` (by value, as SexpMatcher::get finds it) with the node it is
/// bound to; everything else is rebuilt with sh_sym/sh_cons. With the list form of
/// SexpMatcher::match this is one rewriting step: match a left-hand side, instantiate
/// the right-hand side. Iterative (any depth); a subtree shared in `tmpl` is built once,
/// so the cost is linear in the template's distinct nodes, not in its paths.
///
/// A bound node is put in as it is: the result is canonical when the bound nodes are
/// (as after matching canonical expressions). `tmpl` must not contain a cycle. With no
/// bindings this gives the canonical node of `tmpl`'s shape.
Sexp instantiate(SexpManager& m, const Sexp& tmpl, const SexpMatcher& bindings);

}  // namespace vorn

#endif  // VORN_EXPR_INSTANTIATE_HPP
