#include "vorn/expr/instantiate.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/internals.hpp"
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
  // A bound expression made of plain nodes is built canonically: the result is the node
  // its text reads as, shared parts and all.
  const Sexp pair = m.cons(m.sym(m.make_symbol("a")), m.sym(m.make_symbol("b")));
  b.put(y, m.cons(pair, m.cons(pair, m.sym(0))));
  EXPECT_EQ(instantiate(m, parse(m, "(f y)"), b), parse(m, "(f ((a . b) (a . b)))"));
  EXPECT_EQ(instantiate(m, y, b), parse(m, "((a . b) (a . b))"));

  // 2^40 paths from the root to a leaf: each shared subtemplate is built once.
  Sexp s = x, p = m.sym(x.value()), want = parse(m, "(g #1)");  // shared, plain
  for (int i = 0; i < 40; ++i) s = m.sh_cons(s, s), p = m.cons(p, p), want = m.sh_cons(want, want);
  for (const Sexp& t : {s, p}) EXPECT_EQ(instantiate(m, t, b), want);
  b.put(x, p);  // and a bound expression with 2^40 paths is built once per node too
  EXPECT_EQ(instantiate(m, parse(m, "(x)"), b), m.sh_cons(s, m.nil()));  // not replaced again
}

// With automatic collection, building a node may collect: the nodes built so far must
// survive it. A long template instantiated just before the shared table's growth point,
// with garbage for the collection to take.
TEST(Instantiate, NodesBuiltSurviveACollectionOnTheWay) {
  SexpManager m;
  m.set_auto_collect(true);
  const Sexp x = parse(m, "x");
  SexpMatcher b({x});
  ASSERT_TRUE(b.match(x, parse(m, "(v w)")));
  std::string text, want;
  for (int i = 0; i < 3000; ++i) {
    text += " (k" + std::to_string(i) + " x)";
    want += " (k" + std::to_string(i) + " (v w))";
  }
  const Sexp tmpl = parse(m, "(" + text + ")");
  std::vector<Sexp> garbage;
  for (std::uint64_t v = 1000;; ++v) {
    const std::uint64_t grow_at =
        hsh::detail::growth_threshold(detail::SexpManagerInternals::shared_buckets(m));
    if (m.canonical_count() > 20000 && m.canonical_count() + 100 == grow_at) break;
    garbage.push_back(m.sh_sym(v));
  }
  garbage.clear();
  const Sexp made = instantiate(m, tmpl, b);
  EXPECT_EQ(made, parse(m, "(" + want + ")"));
}

}  // namespace
}  // namespace vorn
