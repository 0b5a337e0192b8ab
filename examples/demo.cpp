// A tour of vorn: nodes and handles, slot reuse, sharing, printing and matching.
#include <iostream>
#include <vector>

#include <vorn/vorn.hpp>

using vorn::Sexp;
using vorn::SexpManager;
using vorn::SexpMatcher;

namespace {

// (e0 e1 ...) built from canonical nodes, so equal lists are one node.
Sexp list(SexpManager& m, const std::vector<Sexp>& elements) {
  Sexp tail = m.nil();
  for (auto it = elements.rbegin(); it != elements.rend(); ++it) tail = m.sh_cons(*it, tail);
  return tail;
}

void section(const char* title) { std::cout << "\n== " << title << " ==\n"; }

}  // namespace

int main() {
  SexpManager m;

  section("Handles count references; a dead node's slot is reused first");
  {
    Sexp a = m.sym(m.make_symbol("a"));
    Sexp pair = m.cons(a, a);
    Sexp copy = pair;
    std::cout << "pair " << pair.debug_to_str() << "\n(two handles on the pair, a held by"
              << " one handle and twice by the pair)\n";
    const vorn::Sexp_* old_slot = pair.get();
    copy = Sexp();
    pair = Sexp();
    Sexp next = m.sym(0);
    std::cout << "after dropping the pair, the next node " << (next.get() == old_slot ? "reuses" : "does not reuse")
              << " its slot, with the new id " << next.id() << "\n";
  }

  section("Sharing: equal shapes built with sh_sym/sh_cons are one node");
  Sexp f = m.sh_sym(m.make_symbol("f"));
  Sexp x = m.sh_sym(m.make_symbol("x"));
  Sexp y = m.sh_sym(m.make_symbol("y"));
  Sexp fx = list(m, {f, x});
  Sexp fx_again = list(m, {f, x});
  std::cout << "(f x) built twice is " << (fx == fx_again ? "one node" : "two nodes") << ", id "
            << fx.id() << "\n";
  Sexp expr = list(m, {m.sh_sym(m.make_symbol("+")), fx, fx, y});
  std::cout << "(+ (f x) (f x) y), each shared node written once, then as @id:\n" << expr << "\n";

  section("Matching: (+ ?A ?A ?B) against (+ (f x) (f x) y)");
  Sexp var_a = m.sh_sym(m.make_symbol("?A"));
  Sexp var_b = m.sh_sym(m.make_symbol("?B"));
  SexpMatcher matcher({var_a, var_b});
  Sexp pattern = list(m, {m.sh_sym(m.make_symbol("+")), var_a, var_a, var_b});
  if (matcher.match(pattern, expr)) {
    std::cout << "matches; ?A is bound to\n" << matcher.get(var_a) << "\n?B is bound to\n"
              << matcher.get(var_b) << "\n";
  }
  Sexp other = list(m, {m.sh_sym(m.make_symbol("+")), fx, y, y});
  std::cout << "(+ (f x) y y) " << (matcher.match(pattern, other) ? "matches" : "does not match")
            << ": ?A would need (f x) and y at once\n";

  std::vector<Sexp> alternatives = {list(m, {f, var_a}), pattern};
  std::cout << "first of [(f ?A), (+ ?A ?A ?B)] that matches: #"
            << matcher.match(alternatives, expr) << "\n";
  return 0;
}
