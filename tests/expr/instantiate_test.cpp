#include "vorn/expr/instantiate.hpp"

#include <gtest/gtest.h>

#include "vorn/text/parse.hpp"

namespace vorn {
namespace {

// The same shape made of plain (unshared) nodes. Recursive: small inputs only.
Sexp Plain(SexpManager& m, const Sexp& e) {
  return e.is_symbol() ? m.sym(e.value()) : m.cons(Plain(m, e.car()), Plain(m, e.cdr()));
}

TEST(Instantiate, ReplacesBoundSymbolsKeepsTheRestAndBuildsCanonically) {
  SexpManager m;
  const Sexp x = parse(m, "x"), y = parse(m, "y"), tmpl = parse(m, "(h x (z . y) x . w)");
  SexpMatcher b({x, y, parse(m, "z")});  // z is declared but stays unbound, w is no variable
  ASSERT_TRUE(b.match(parse(m, "(f x y)"), parse(m, "(f (g #1) #5)")));
  for (const Sexp& t : {tmpl, Plain(m, tmpl)}) {
    EXPECT_EQ(instantiate(m, t, b), parse(m, "(h (g #1) (z . #5) (g #1) . w)"));
    EXPECT_EQ(instantiate(m, t, SexpMatcher()), tmpl);
  }
  EXPECT_EQ(instantiate(m, x, b), parse(m, "(g #1)"));
  const Sexp plain = m.sym(99);  // a bound node is put in as it is
  b.put(y, plain);
  EXPECT_EQ(instantiate(m, tmpl, b).cdr().cdr().car().cdr(), plain);

  // 2^40 paths from the root to a leaf: each shared subtemplate is built once.
  Sexp s = x, p = m.sym(x.value()), want = parse(m, "(g #1)");  // shared, plain
  for (int i = 0; i < 40; ++i) s = m.sh_cons(s, s), p = m.cons(p, p), want = m.sh_cons(want, want);
  for (const Sexp& t : {s, p}) EXPECT_EQ(instantiate(m, t, b), want);
}

}  // namespace
}  // namespace vorn
