// Collection of canonical nodes held by the shared table alone, and automatic collection.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/vorn.hpp"

namespace vorn {
namespace {

using Internals = detail::SexpManagerInternals;

// Builds something in `m` (with `other` for foreign children) and returns what holds it.
struct Holders {
  Holders(std::vector<Sexp> h = {}) : handles(std::move(h)) {}  // NOLINT: lists convert
  std::vector<Sexp> handles;
  std::unique_ptr<SexpMatcher> matcher;
};
struct Case {
  const char* name;
  std::function<Holders(SexpManager& m, SexpManager& other)> build;
  std::size_t while_held, once_dropped;  // what collect() returns
};

const Case cases[] = {
    {"nothing", [](SexpManager&, SexpManager&) { return Holders{}; }, 0, 0},
    {"symbol", [](SexpManager& m, SexpManager&) { return Holders({m.sh_sym(1)}); }, 0, 1},
    {"cascade over a shared list",
     [](SexpManager& m, SexpManager&) {
       return Holders(
           {m.sh_cons(m.sh_sym(1), m.sh_cons(m.sh_sym(2), m.sh_cons(m.sh_sym(1), m.nil())))});
     },
     0, 5},
    {"nil is never given back",
     [](SexpManager& m, SexpManager&) { return Holders({m.sh_cons(m.sh_sym(0), m.nil())}); }, 0, 1},
    {"a canonical parent holds its children",
     [](SexpManager& m, SexpManager&) {
       const Sexp c = m.sh_cons(m.sh_sym(1), m.sh_sym(2));
       m.sh_cons(c, c);  // unheld: collected, with c and 2 (1 stays held)
       return Holders({m.sh_cons(m.sh_sym(3), m.sh_sym(1))});
     },
     3, 3},
    {"a plain parent holds canonical children",
     [](SexpManager& m, SexpManager&) { return Holders({m.cons(m.sh_sym(1), m.sh_sym(2))}); }, 0,
     2},
    {"plain children of a canonical cons die with it",
     [](SexpManager& m, SexpManager&) {
       return Holders({m.sh_cons(m.sym(1), m.cons(m.sym(2), m.nil()))});
     },
     0, 4},
    {"a foreign plain child goes back to its own pool",
     [](SexpManager& m, SexpManager& other) { return Holders({m.sh_cons(other.sym(1), m.nil())}); },
     0, 2},
    {"a changed canonical cons is found in its old chain",
     [](SexpManager& m, SexpManager&) {
       Sexp c = m.sh_cons(m.sh_sym(1), m.sh_sym(2));
       c.setcar(m.sh_sym(3));  // (1 . 2) becomes (3 . 2): 1 is unheld
       c.setcdr(m.cons(c.cdr(), m.nil()));
       return Holders({c});
     },
     1, 4},
    {"matcher bindings",
     [](SexpManager& m, SexpManager&) {
       Holders h;
       h.matcher = std::make_unique<SexpMatcher>(std::vector<Sexp>{m.sym(9)});
       EXPECT_TRUE(
           h.matcher->match(m.sh_cons(m.sh_sym(1), m.sym(9)), m.sh_cons(m.sh_sym(1), m.sh_sym(2))));
       return h;  // the binding holds sh_sym(2)
     },
     3, 1},
    {"a failed match's stack",
     [](SexpManager& m, SexpManager&) {
       Holders h;
       h.matcher = std::make_unique<SexpMatcher>();
       const Sexp f = m.sh_sym(1), b = m.sh_cons(m.sh_sym(2), m.nil());
       // (f 3 2) against (f 4 2): stops at 3/4 with the pair ((2), (2)) left on the stack.
       EXPECT_FALSE(h.matcher->match(m.sh_cons(f, m.sh_cons(m.sh_sym(3), b)),
                                     m.sh_cons(f, m.sh_cons(m.sh_sym(4), b))));
       return h;
     },
     7, 2},
};

TEST(Collect, CountsWhatNothingButTheTableHolds) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SexpManager m, other;
    Holders h = c.build(m, other);
    EXPECT_EQ(m.collect(), c.while_held);
    EXPECT_EQ(m.collect(), 0u);  // a second call finds nothing more
    const std::size_t kept = Internals::shared_size(m);
    h = Holders{};
    EXPECT_EQ(m.collect(), c.once_dropped);
    EXPECT_EQ(Internals::shared_size(m), 1u) << kept;  // nil alone
    EXPECT_EQ(m.nil().get()->refcount, 3u);  // the manager's, the table's and this handle's
  }
}

// (1 2 ...) is swept bucket by bucket: nil, 1, 2, then the cons (bucket 18 of 31), whose
// death takes the already swept 1 and 2 with it. Slots go back in that order of death, so
// the cons's slot is handed out first, then 2's, then 1's. Built again, the shape is new.
TEST(Collect, SlotsGoBackInTheOrderNodesDie) {
  SexpManager m;
  Sexp_* slot[3];
  std::uint32_t id;
  {
    const Sexp one = m.sh_sym(1), two = m.sh_sym(2), c = m.sh_cons(one, two);
    slot[0] = one.get(), slot[1] = two.get(), slot[2] = c.get(), id = c.id();
  }
  ASSERT_EQ(m.collect(), 3u);
  EXPECT_EQ(Internals::free_slots(m), 1023u);  // nil and nothing else in use
  const Sexp c2 = m.sym(0), b2 = m.sym(0), a2 = m.sym(0);
  EXPECT_EQ((std::vector<Sexp_*>{a2.get(), b2.get(), c2.get()}),
            (std::vector<Sexp_*>{slot[0], slot[1], slot[2]}));
  EXPECT_GT(m.sh_cons(m.sh_sym(1), m.sh_sym(2)).id(), id);
}

TEST(Collect, TenMillionChainOnASmallStack) {
  SexpManager m;
  {
    Sexp list = m.nil();
    const Sexp x = m.sh_sym(1);
    for (int i = 0; i < 10000000; ++i) list = m.sh_cons(x, list);
  }
  test::run_on_small_stack([&m] { EXPECT_EQ(m.collect(), 10000001u); });
  EXPECT_EQ(Internals::shared_size(m), 1u);
}

// Churn: terms made and dropped, some kept. Automatic collection keeps the table within a
// constant factor of what is held (a growth needs half its growth point held, and the next
// bucket count is about twice the last: under 6 buckets per live entry); the kept nodes
// stay.
TEST(Collect, AutomaticModeGrowsTheTableOnlyForLiveNodes) {
  std::size_t buckets[2];
  for (bool on : {false, true}) {
    SexpManager m;
    EXPECT_FALSE(m.auto_collect());  // off unless asked for
    m.set_auto_collect(on);
    std::vector<Sexp> kept;
    for (unsigned long i = 1; i <= 100000; ++i) {
      const Sexp t = m.sh_cons(m.sh_sym(i), m.nil());
      if (i % 100 == 0) kept.push_back(t);
    }
    buckets[on] = Internals::shared_buckets(m);
    const std::size_t dead = Internals::shared_size(m) - 1 - 2000;  // all but nil and kept
    EXPECT_EQ(m.collect(), dead);
    for (std::size_t k = 0; k < kept.size(); ++k) {
      EXPECT_EQ(m.sh_cons(m.sh_sym(100 * (k + 1)), m.nil()), kept[k]);
    }
  }
  EXPECT_LT(buckets[1], 6 * 2001 + 31);
  EXPECT_GT(buckets[0], 10 * buckets[1]);
}

// Once a growth point found every entry held, the next one looks at the counts while it
// grows. If many were dropped since, the growth is undone after collecting; if few, it
// stands; either way the table ends as collecting first would leave it, and what was dropped
// is given back.
TEST(Collect, AutomaticModeAfterEveryEntryWasHeld) {
  for (const bool drop_most : {true, false}) {
    SexpManager m;
    m.set_auto_collect(true);
    std::vector<Sexp> held;
    unsigned long value = 1;
    // Through three growth points (22, 52, 106 entries) with everything held.
    while (Internals::shared_size(m) < 150) held.push_back(m.sh_sym(value++));
    ASSERT_EQ(Internals::shared_buckets(m), 313u);
    for (std::size_t i = 0; i < held.size(); ++i) {
      if (drop_most ? i % 10 != 0 : i % 10 == 0) held[i] = Sexp();
    }
    const std::size_t live = Internals::shared_size(m) - (drop_most ? 134 : 15);
    // Up to the growth point at 220 entries, then one insert more.
    while (Internals::shared_size(m) < 220) held.push_back(m.sh_sym(value++));
    held.push_back(m.sh_sym(value++));
    EXPECT_EQ(Internals::shared_buckets(m), drop_most ? 313u : 643u) << drop_most;
    EXPECT_EQ(Internals::shared_size(m), live + 220 - 150 + 1) << drop_most;
    EXPECT_EQ(m.collect(), 0u) << drop_most;
  }
}

}  // namespace
}  // namespace vorn
