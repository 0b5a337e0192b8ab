#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"

namespace vorn {
namespace {

// Runs `body` on a thread with a 256 KiB stack, so a walk that recursed per level would crash.
void RunOnSmallStack(std::function<void()> body) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  auto run = [](void* f) -> void* { return (*static_cast<std::function<void()>*>(f))(), nullptr; };
  ASSERT_EQ(pthread_create(&thread, &attr, run, &body), 0);
  pthread_join(thread, nullptr);
}

std::uint32_t Count(const Sexp& s) { return s.get()->refcount; }

// Lower-case symbols are constants; X and Y are the usual variables.
class Matcher : public testing::Test {
 protected:
  Sexp S(const char* name) { return m.sh_sym(m.make_symbol(name)); }
  Sexp L(const std::vector<Sexp>& items) {  // (p q r ...): canonical conses ending in nil
    Sexp out = nil;
    for (auto it = items.rbegin(); it != items.rend(); ++it) out = m.sh_cons(*it, out);
    return out;
  }
  SexpManager m;
  Sexp nil = m.nil(), f = S("f"), g = S("g"), h = S("h"), a = S("a"), b = S("b"), X = S("X"),
       Y = S("Y");
};
using MatcherBindings = Matcher;

TEST_F(Matcher, VerdictsAndBindings) {
  const Sexp fab = L({f, a, b}), hb = L({h, b}), plain_hb = m.cons(h, m.cons(b, nil));
  const Sexp plain_faa =
      m.cons(m.sym(f.value()), m.cons(m.sym(a.value()), m.cons(m.sym(a.value()), nil)));
  const Sexp cons_car_word = m.sym(hb.get()->value);  // the number a cons's car pointer reads as
  const Sexp none;
  struct Case {
    std::vector<Sexp> vars;
    Sexp pattern, expr;
    bool matches;
    std::vector<std::pair<Sexp, Sexp>> bound;  // get(first) == second afterwards
  };
  const std::vector<Case> cases = {
      {{X}, L({f, X, X}), L({f, a, a}), true, {{X, a}}},
      {{X}, L({f, X, X}), fab, false, {{X, a}}},
      {{X}, L({f, X, X}), L({g, a, a}), false, {{X, none}}},  // heads differ
      {{X}, L({f, X, X}), plain_faa, false, {{X, plain_faa.cdr().car()}}},
      {{X}, X, fab, true, {{X, fab}}},
      {{X}, X, a, true, {{X, a}}},
      {{X}, L({f, X}), fab, false, {{X, a}}},  // nil meets (b)
      {{X}, a, m.sym(a.value()), true, {{a, none}}},
      {{X}, a, L({a}), false, {}},
      {{X}, L({f, X}), a, false, {{X, none}}},
      {{X}, L({X, a}), L({hb, a}), true, {{X, hb}}},  // a variable head skips the head check
      {{X}, L({f, X, X}), L({f, hb, hb}), true, {{X, hb}}},
      {{X}, L({f, X, X}), L({f, hb, plain_hb}), false, {{X, hb}}},
      {{X, nil}, L({f, X}), fab, true, {{X, a}, {nil, L({b})}}},
      {{X, nil}, L({f, L({a}), b}), L({f, L({a, b}), b}), false, {{nil, L({b})}}},
      {{m.sym(X.value())}, L({f, X}), L({f, hb}), true, {{X, hb}}},  // any node of the value
      {{}, L({f, X}), L({f, hb}), false, {}},
      {{cons_car_word}, L({f, hb}), L({f, L({h, a})}), false, {{cons_car_word, none}}},
      {{cons_car_word}, L({f, hb}), L({f, hb}), true, {{cons_car_word, none}}},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SexpMatcher mt(cases[i].vars);
    mt.put(m.sym(999), a);  // gone once match starts
    EXPECT_EQ(mt.match(cases[i].pattern, cases[i].expr), cases[i].matches) << "case " << i;
    EXPECT_TRUE(mt.get(m.sym(999)).is_null()) << "case " << i;
    for (const auto& [var, node] : cases[i].bound) EXPECT_EQ(mt.get(var), node) << "case " << i;
  }
  const Sexp e = L({f, X, L({g, a, X}), Y});
  for (const auto& vars : std::vector<std::vector<Sexp>>{{}, {X}, {f, a}, {X, Y, f, g, a, nil}}) {
    SexpMatcher mt(vars);
    EXPECT_TRUE(mt.match(e, e));
    for (const Sexp& v : vars) EXPECT_EQ(mt.get(v), v);
  }
}

TEST_F(Matcher, ListOfPatternsAndLeftoverStack) {
  SexpMatcher mt({X, Y});
  const Sexp fXX = L({f, X, X}), fab = L({f, a, b}), gaa = L({g, a, a});
  EXPECT_EQ(mt.match({L({g, X}), fXX, L({f, X, Y})}, fab), 2u);
  EXPECT_TRUE(mt.get(X) == a && mt.get(Y) == b);
  EXPECT_EQ(mt.match(std::vector<Sexp>{}, a), 0u);
  EXPECT_EQ(mt.get(Y), b);
  EXPECT_EQ(mt.match(std::vector<Sexp>{L({g}), L({h}), b}, fab), 3u);
  const std::uint32_t nil_count = Count(nil);
  EXPECT_FALSE(mt.match(fXX, fab));
  EXPECT_EQ(Count(nil), nil_count + 2);  // the nil/nil pair still waits on the stack
  EXPECT_FALSE(mt.match(fXX, gaa));      // a failing head check leaves the stack alone
  EXPECT_EQ(Count(nil), nil_count + 2);
  EXPECT_TRUE(mt.match(X, a));
  EXPECT_EQ(Count(nil), nil_count);
}

TEST_F(MatcherBindings, GetPutErase) {
  SexpMatcher mt;
  EXPECT_TRUE(mt.get(X).is_null());
  const std::uint32_t ca = Count(a), cb = Count(b);
  mt.put(X, a);
  mt.put(X, b);
  EXPECT_EQ(mt.get(X), b);
  EXPECT_TRUE(Count(a) == ca && Count(b) == cb + 1);  // the first value's reference is gone
  mt.erase(X);
  EXPECT_TRUE(mt.get(X).is_null() && Count(b) == cb);
  const Sexp k1 = m.sym(7), k2 = m.sym(7);
  mt.put(k1, a);
  EXPECT_EQ(mt.get(k2), a);
  mt.erase(k2);
  EXPECT_TRUE(mt.get(k1).is_null() && Count(k1) == 1 && Count(a) == ca);
  mt.put(k1, Sexp());
  mt.put(k2, Sexp());  // the entry keeps its first key node
  EXPECT_TRUE(mt.get(k1).is_null() && Count(k1) == 2 && Count(k2) == 1);
  mt.erase(k1);
  EXPECT_EQ(Count(k1), 1u);
  mt.put(X, b);
  mt.erase(Y);
  EXPECT_EQ(Count(b), cb + 1);
  EXPECT_EQ(mt.get(X), b);
}

TEST_F(MatcherBindings, ReleasedInPostOrderValueBeforeKey) {
  for (bool by_destruction : {false, true}) {
    auto mt = std::make_unique<SexpMatcher>();
    std::vector<const Sexp_*> key(4), val(4);
    for (unsigned long v = 1; v <= 3; ++v) {  // a tree of 2 over 1 and 3; only mt holds these
      const Sexp k = m.sym(v), x = m.sym(100 + v);
      key[v] = k.get();
      val[v] = x.get();
      mt->put(k, x);
    }
    by_destruction ? mt.reset() : void(mt->match(nil, nil));
    // Released: 1 (value, key), 3, 2; the free list hands the last one back first.
    std::vector<Sexp> fresh;
    std::vector<const Sexp_*> got;
    for (int i = 0; i < 6; ++i) got.push_back(fresh.emplace_back(m.sym(0)).get());
    EXPECT_EQ(got, (std::vector<const Sexp_*>{key[2], val[2], key[3], val[3], key[1], val[1]}));
  }
}

TEST_F(Matcher, LongInputOnSmallStack) {
  RunOnSmallStack([this] {
    const int n = 1000000;
    Sexp expr = m.cons(b, nil), pattern = m.cons(X, nil);
    for (int i = 1; i < n; ++i) {
      expr = m.cons(a, expr);
      pattern = m.cons(a, pattern);
    }
    SexpMatcher mt({X});
    EXPECT_TRUE(mt.match(expr, expr));
    EXPECT_TRUE(mt.match(pattern, expr));
    EXPECT_EQ(mt.get(X), b);
    // Nested in the car: every level leaves a (t, t) pair behind when the bottom differs.
    const Sexp t = m.sym(1234);
    Sexp deep_p = a, deep_e = b;
    for (int i = 0; i < n; ++i) {
      deep_p = m.cons(deep_p, t);
      deep_e = m.cons(deep_e, t);
    }
    const std::uint32_t ct = Count(t);
    EXPECT_FALSE(mt.match(deep_p, deep_e));
    EXPECT_EQ(Count(t), ct + 2 * n);
    EXPECT_TRUE(mt.match(a, a));
    EXPECT_EQ(Count(t), ct);
    EXPECT_FALSE(std::make_unique<SexpMatcher>()->match(deep_p, deep_e));  // destroyed at once
    EXPECT_EQ(Count(t), ct);
  });
}

}  // namespace
}  // namespace vorn
