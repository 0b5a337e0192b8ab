// Filling a template with a matcher's bindings.
#include "vorn/expr/instantiate.hpp"

#include <cstdint>
#include <vector>

#include "../support/node_map.hpp"

namespace vorn {

namespace {

// A walk's node and which side of the call it comes from: a template node (bound symbols
// are replaced) or a node of a bound expression (taken as it is, made canonical). The
// side is the low bit of the key (nodes are 32-byte aligned).
const void* key_of(const Sexp_* n, bool bound) {
  return reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(n) | (bound ? 1 : 0));
}

struct Step {
  Sexp_* node;
  bool bound;     // a node of a bound expression
  bool expanded;  // a cons whose children are pushed
};

}  // namespace

// Post-order, car side before cdr side, with the walk's stack on the heap; a bound
// expression is walked where its variable is first met. Each distinct node of either side
// is built once, so the cost is linear in the distinct nodes of the template and of the
// expressions bound to the variables it uses, however many paths sharing gives them.
//
// Every node built is held (in `held`) until the call returns: a manager that collects by
// itself may collect while a later node is made, and a canonical node that nothing else
// holds yet would go with it.
Sexp instantiate(SexpManager& m, const Sexp& tmpl, const SexpMatcher& bindings) {
  detail::NodeMap built;  // key_of(node, side) -> the canonical node built for it
  std::vector<Sexp> held;
  std::vector<Step> stack{{tmpl.get(), false, false}};
  const auto built_for = [&built](const Sexp_* n, bool bound) {
    return detail::SexpRef::borrow(built.find(key_of(n, bound))->value);
  };
  const auto record = [&](const Step& s, Sexp made) {
    held.push_back(made);
    built.insert_absent(key_of(s.node, s.bound), made.get());
  };
  while (!stack.empty()) {
    Step& top = stack.back();
    const Step s = top;
    if (built.find(key_of(s.node, s.bound)) != nullptr) {
      stack.pop_back();
    } else if (s.node->is_symbol != 0) {
      Sexp bound_to;
      if (!s.bound) bound_to = bindings.get(detail::SexpRef::borrow(s.node).handle());
      if (bound_to.is_null()) {
        record(s, m.sh_sym(s.node->value));
        stack.pop_back();
      } else if (const auto* e = built.find(key_of(bound_to.get(), true))) {
        record(s, Sexp(e->value));
        stack.pop_back();
      } else {
        // The bound expression is built first; this step then finds it.
        stack.push_back({bound_to.get(), true, false});
      }
    } else if (!s.expanded) {
      top.expanded = true;
      stack.push_back({s.node->cdr, s.bound, false});  // may move `top`
      stack.push_back({s.node->car, s.bound, false});
    } else {
      record(s, m.sh_cons(built_for(s.node->car, s.bound).handle(),
                          built_for(s.node->cdr, s.bound).handle()));
      stack.pop_back();
    }
  }
  return Sexp(built_for(tmpl.get(), false).get());
}

}  // namespace vorn
