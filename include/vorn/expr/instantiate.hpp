// Filling a template with a matcher's bindings: vorn::instantiate.
#ifndef VORN_EXPR_INSTANTIATE_HPP
#define VORN_EXPR_INSTANTIATE_HPP

#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

/// The canonical expression obtained from `tmpl` by replacing every symbol that has a
/// binding in `bindings` (by value, as SexpMatcher::get finds it) with the expression it
/// is bound to. With the list form of SexpMatcher::match this is one rewriting step:
/// match a left-hand side, instantiate the right-hand side.
///
/// The result is canonical whatever the inputs: every node of it is the one sh_sym and
/// sh_cons give for its shape, so it is the node that parsing its text gives. A bound
/// expression made of plain nodes (cons, sym), or of nodes of another manager, is
/// rebuilt canonically in this manager; one that is canonical already is found, not
/// copied. Nodes are made in post-order, car side first, a bound expression where its
/// variable is first met. Iterative (any depth); each distinct node of the template and
/// of the bound expressions it uses is built once, so the cost is linear in those
/// distinct nodes, not in their paths. Neither `tmpl` nor a bound expression may contain
/// a cycle. With no bindings this gives the canonical node of `tmpl`'s shape.
///
/// Memory exhaustion throws std::bad_alloc; the canonical nodes made before it stay, as
/// canonical nodes always do. Safe with automatic collection: every node built is held
/// until the call returns.
Sexp instantiate(SexpManager& m, const Sexp& tmpl, const SexpMatcher& bindings);

}  // namespace vorn

#endif  // VORN_EXPR_INSTANTIATE_HPP
