#include "vorn/expr/matcher.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <vector>

#include "support/small_stack.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn {
namespace {

std::uint32_t Count(const Sexp& s) { return s.get()->refcount; }

// Lower-case symbols are constants; X and Y are the usual variables.
class Matcher : public testing::Test {
 protected:
  Sexp S(const char* name) { return m.sh_sym(m.make_symbol(name)); }
  Sexp L(const std::vector<Sexp>& items) {  // (p q r ...): canonical conses ending in nil
    return std::accumulate(items.rbegin(), items.rend(), nil,
                           [this](const Sexp& out, const Sexp& x) { return m.sh_cons(x, out); });
  }
  SexpManager m;
  Sexp nil = m.nil(), f = S("f"), g = S("g"), a = S("a"), b = S("b"), X = S("X"), Y = S("Y");
};

TEST_F(Matcher, VerdictsBindingsAndTheListForm) {
  const Sexp fab = L({f, a, b}), gb = L({g, b}), pa = m.sym(a.value()), e = L({f, X, gb, X, Y});
  int row = 0;  // `bound`: variable, node, variable, node...
  auto check = [&](std::vector<Sexp> vars, Sexp p, Sexp x, bool ok, std::vector<Sexp> bound) {
    SCOPED_TRACE(++row);
    SexpMatcher mt(vars);
    EXPECT_EQ(mt.match(p, x), ok);
    for (std::size_t i = 0; i < bound.size(); i += 2) EXPECT_EQ(mt.get(bound[i]), bound[i + 1]);
  };
  check({X}, L({f, X, X}), L({f, a, a}), true, {X, a});
  check({X}, L({f, X, X}), fab, false, {X, a});
  check({X}, L({f, X, X}), L({g, a, a}), false, {X, Sexp()});               // heads differ
  check({X}, L({f, X, X}), m.cons(f, m.cons(pa, L({a}))), false, {X, pa});  // a and pa: two ids
  check({X}, X, fab, true, {X, fab});
  check({X}, L({f, X}), fab, false, {X, a});  // nil meets (b)
  check({X}, a, pa, true, {a, Sexp()});
  check({X}, L({f, X}), a, false, {X, Sexp()});
  check({X}, L({X, a}), L({gb, a}), true, {X, gb});  // a variable head skips the head check
  check({X}, L({f, X, X}), L({f, gb, m.cons(g, L({b}))}), false, {X, gb});
  check({X, nil}, L({f, X}), fab, true, {X, a, nil, L({b})});
  check({X, nil}, L({f, L({a}), b}), L({f, L({a, b}), b}), false, {nil, L({b})});
  check({m.sym(X.value())}, L({f, X}), L({f, gb}), true, {X, gb});  // any node of the value
  // The number that gb's car pointer reads as declared: a cons is still no variable.
  check({m.sym(gb.get()->value)}, L({f, gb}), L({f, L({g, a})}), false, {});
  check({X, Y, f, g, nil}, e, e, true, {X, X, Y, Y, f, f, g, g, nil, nil});
  SexpMatcher mt({X, Y});
  EXPECT_EQ(mt.match({L({g, X}), L({f, X, X}), L({f, X, Y})}, fab), 2u);
  EXPECT_TRUE(mt.match(std::vector<Sexp>{}, a) == 0 && mt.get(X) == a && mt.get(Y) == b);
  mt.put(b, a);  // gone once a match starts, even one that fails at the head check
  EXPECT_TRUE(mt.match(std::vector<Sexp>{L({g})}, fab) == 1 && mt.get(b).is_null());
}

// Variables of any value, declared by either constructor, are found, and constants are not
// taken for them: N differs from V in bit 6 only, U in bit 32 only (and binds apart from V).
TEST_F(Matcher, VariablesOfEveryValueEitherConstructor) {
  for (const unsigned long v :
       {32ul, 47ul, 63ul, 104ul, (1ul << 32) | 33, SexpManager::string_tag | 60, ~0ul}) {
    const Sexp V = m.sh_sym(v), U = m.sh_sym(v ^ (1ul << 32)), N = m.sh_sym(v ^ 64);
    SexpMatcher by_vector({V, U}), by_add_var;
    by_add_var.add_var(V), by_add_var.add_var(U);
    for (SexpMatcher* mt : {&by_vector, &by_add_var}) {
      SCOPED_TRACE(testing::Message() << v << (mt == &by_vector ? " by vector" : " by add_var"));
      const Sexp p = L({f, V, L({g, V}), U, N});
      EXPECT_TRUE(mt->match(p, L({f, a, L({g, a}), b, N})));
      EXPECT_TRUE(mt->get(V) == a && mt->get(U) == b && mt->get(N).is_null());
      EXPECT_FALSE(mt->match(p, L({f, a, L({g, b}), b, N})));
      EXPECT_FALSE(mt->match(p, L({f, a, L({g, a}), b, a})));
      EXPECT_TRUE(mt->match(L({V, a}), L({L({g, b}), a})));  // a variable head: no head check
    }
  }
}

TEST_F(Matcher, GetPutEraseAndPostOrderRelease) {
  for (bool by_destruction : {false, true}) {
    auto mt = std::make_unique<SexpMatcher>();
    const Sexp k1 = m.sym(7), k2 = m.sym(7);  // a and b start with 2: the table's and ours
    mt->put(X, a);
    mt->put(X, b);
    mt->erase(Y);  // no entry: nothing changes
    mt->put(k1, a);
    EXPECT_TRUE(mt->get(X) == b && mt->get(k2) == a);  // any node of the value finds the entry
    mt->put(k2, Sexp());  // the entry keeps its key node; its value is now null
    EXPECT_TRUE(mt->get(k1).is_null() && Count(a) == 2 && Count(b) == 3 && Count(k1) == 2);
    mt->erase(X);
    mt->erase(k2);
    EXPECT_TRUE(mt->get(X).is_null() && Count(b) == 2 && Count(k1) == 1);
    std::vector<const Sexp_*> slot;  // key and value of 1, 2, 3: a tree of 2 over 1 and 3
    for (unsigned long v = 1; v <= 3; ++v) {
      const Sexp k = m.sym(v), x = m.sym(100 + v);  // only mt holds them after this pass
      mt->put(k, x);
      slot.insert(slot.end(), {k.get(), x.get()});
    }
    by_destruction ? mt.reset() : void(mt->match(nil, nil));
    std::vector<Sexp> fresh;  // the free list hands the last node released back first
    for (const Sexp_* want : {slot[2], slot[3], slot[4], slot[5], slot[0], slot[1]})
      EXPECT_EQ(fresh.emplace_back(m.sym(0)).get(), want);
  }
}

TEST_F(Matcher, DeepInputOnSmallStackAndLeftoverPairs) {
  test::run_on_small_stack([this] {
    const Sexp t = m.sym(1234);
    Sexp p = X, e = b;  // a million levels ((t . p) . t): each one step down car and one down cdr
    for (int i = 0; i < 1000000; ++i) p = m.cons(m.cons(t, p), t);
    for (int i = 0; i < 1000000; ++i) e = m.cons(m.cons(t, e), t);
    SexpMatcher mt({X});
    EXPECT_TRUE(mt.match(p, e) && mt.get(X) == b);
    const std::uint32_t ct = Count(t);
    EXPECT_FALSE(mt.match(e, p));  // b meets X: each level left a (t, t) pair behind
    // A failing head check leaves the stack alone; the next match that passes it empties it.
    EXPECT_TRUE(!mt.match(L({f}), L({g})) && Count(t) == ct + 2000000);
    EXPECT_TRUE(mt.match(a, a) && Count(t) == ct);
    EXPECT_FALSE(std::make_unique<SexpMatcher>()->match(e, p));  // destroyed at once
    EXPECT_EQ(Count(t), ct);
  });
}

}  // namespace
}  // namespace vorn
