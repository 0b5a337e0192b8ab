// Filling a template with a matcher's bindings.
#include "vorn/expr/instantiate.hpp"

#include <functional>
#include <utility>
#include <vector>

#include "vorn/support/hashtable.hpp"

namespace vorn {

namespace {

// Template node -> the node built for it. The built nodes need no reference here: each
// is canonical (held by the manager's shared table) or a bound node (held by the
// matcher, which this call does not change).
using Built =
    hsh::Hashtable<std::pair<const Sexp_*, Sexp_*>, hsh::GetKey_pair<const Sexp_*, Sexp_*>,
                   const Sexp_*, hsh::hash<const Sexp_*>, std::equal_to<const Sexp_*>>;

Sexp_* built_for(Built& built, const Sexp_* n) { return built.find(n)->second; }

}  // namespace

// Post-order over the template, car before cdr, with the walk's stack on the heap. Each
// distinct template node is built once, so the cost is linear in the template's
// distinct nodes, however many paths sharing gives it.
Sexp instantiate(SexpManager& m, const Sexp& tmpl, const SexpMatcher& bindings) {
  Built built;
  std::vector<std::pair<Sexp_*, bool>> stack;  // (node, children already pushed)
  stack.push_back({tmpl.get(), false});
  while (!stack.empty()) {
    auto& [n, expanded] = stack.back();
    Sexp_* const node = n;
    if (built.find(node) != built.end()) {
      stack.pop_back();
    } else if (node->is_symbol != 0) {
      Sexp made = bindings.get(Sexp(node));
      if (made.is_null()) made = m.sh_sym(node->value);
      built.insert({node, made.get()});
      stack.pop_back();
    } else if (!expanded) {
      expanded = true;
      stack.push_back({node->cdr, false});  // may move the entry `n` refers to
      stack.push_back({node->car, false});
    } else {
      const Sexp made =
          m.sh_cons(Sexp(built_for(built, node->car)), Sexp(built_for(built, node->cdr)));
      built.insert({node, made.get()});
      stack.pop_back();
    }
  }
  return Sexp(built_for(built, tmpl.get()));
}

}  // namespace vorn
