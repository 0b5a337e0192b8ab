#include "vorn/rewrite/rewriter.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/expr/instantiate.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/rewrite/load.hpp"
#include "vorn/rewrite/variables.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn {
namespace {

using Rules = std::vector<std::pair<const char*, const char*>>;  // pattern, replacement

// The steps taken to normalise `term` (at most `max_steps`, -1 for no bound), each as
// "RULE: BEFORE -> AFTER, ", then its normal form. The term is normalised a second time,
// which must take no step: its normal form is known by then.
std::string Rewrite(const Rules& rules, const std::string& term, std::uint64_t max_steps = -1) {
  SexpManager m;
  Rewriter rw(m);
  rw.set_max_steps(max_steps);
  for (const auto& [p, r] : rules) rw.add_rule(parse(m, p), parse(m, r));
  std::string log;
  rw.set_trace([&](std::size_t rule, const Sexp& before, const Sexp& after) {
    log += std::to_string(rule) + ": " + to_text(before) + " -> " + to_text(after) + ", ";
  });
  const Sexp t = parse(m, term), nf = rw.normalize(t);
  const std::uint64_t steps = rw.stats().steps;
  EXPECT_EQ(rw.normalize(t), nf);
  EXPECT_EQ(rw.stats().steps, steps) << term;
  return log + to_text(nf);
}

TEST(Rewriter, InnermostFirstFirstRuleWinsResultsRewrittenAgainAndStepsBounded) {
  // clang-format off
  const std::tuple<Rules, const char*, const char*> cases[] = {  // rules, term, log
      {{{"(f ?x)", "(?x)"}}, "(f (f a))", "0: (f a) -> (a), 0: (f (a)) -> ((a)), ((a))"},
      {{{"a", "b"}, {"b", "c"}}, "(p a)", "0: a -> b, 1: b -> c, (p c)"},
      {{{"(f ?x)", "(g ?x a)"}, {"a", "b"}}, "(f z)", "0: (f z) -> (g z a), 1: a -> b, (g z b)"},
      {{{"a", "b"}}, "(a x . a)", "0: a -> b, (b x . b)"}, {{{"(x)", "y"}}, "(f x)", "(f x)"},
      {{{"(f a)", "one"}, {"(f ?x)", "two"}}, "(f a)", "0: (f a) -> one, one"},
      {{{"(f ?x)", "two"}, {"(f a)", "one"}}, "(f a)", "0: (f a) -> two, two"},
      // A chain of rules at one place, a replacement list inside another, constants that
      // rewrite (as elements and as a dotted tail), and a rule on the rebuilt list.
      {{{"(g ?x)", "(h (k ?x) . c)"}, {"(k ?x)", "(?x ?x)"}, {"c", "d"}, {"(h (z z) . d)", "done"}},
       "(g z)", "0: (g z) -> (h (k z) . c), 1: (k z) -> (z z), 2: c -> d, 3: (h (z z) . d) -> done, done"},
      // A variable bound to the rest of a spine is a term of its own where it is an element.
      {{{"(f . ?r)", "(g ?r . ?r)"}, {"(a b)", "ab"}}, "(f a b)", "0: (f a b) -> (g (a b) a b), 1: (a b) -> ab, (g ab a b)"},
      // A replacement with a shared part, and a non-linear pattern.
      {{{"(d ?x)", "(p (q ?x) (q ?x))"}, {"(p ?y ?y)", "same"}}, "(d 1)", "0: (d 1) -> (p (q 1) (q 1)), 1: (p (q 1) (q 1)) -> same, same"},
  };
  // clang-format on
  for (const auto& [rules, term, log] : cases) EXPECT_EQ(Rewrite(rules, term), log) << term;
  EXPECT_THROW(Rewrite({{"x", "y"}, {"y", "x"}}, "x", 10), StepLimitExceeded);  // a cycle
  SexpManager m;
  Rewriter rw(m);
  // A pattern that is one variable matches every term, its own replacement's parts first.
  std::string log;
  rw.set_trace([&](std::size_t, const Sexp& before, const Sexp& after) {
    log += to_text(before) + " -> " + to_text(after) + ", ";
  });
  rw.add_rule(parse(m, "?x"), parse(m, "(w . ?x)"));
  rw.set_max_steps(3);
  EXPECT_THROW(rw.normalize(parse(m, "q")), StepLimitExceeded);
  EXPECT_EQ(log, "q -> (w . q), w -> (w . w), w -> (w . w), ");
  EXPECT_EQ(rw.memo_size(), 0u);  // nothing finished
  EXPECT_THROW(rw.add_rule(parse(m, "(f ?x)"), parse(m, "?y")), std::invalid_argument);
  EXPECT_EQ(rw.rule_count(), 1u);
}

// The normal form by the definition, without memo: elements first, then the first rule
// that matches, its replacement normalised again. Recursive: small terms only. Counts the
// steps; past `limit` gives up (returns null). `matcher` knows every pattern's variables.
Sexp Reference(SexpManager& m, SexpMatcher& matcher, const std::vector<Sexp>& patterns,
               const std::vector<Sexp>& replacements, const Sexp& t, std::uint64_t& steps,
               std::uint64_t limit) {
  const auto again = [&](const Sexp& e) { return Reference(m, matcher, patterns, replacements, e, steps, limit); };
  Sexp current = t;
  if (!t.is_symbol()) {
    std::vector<Sexp> elements;
    Sexp p = t;
    for (; !p.is_symbol(); p = p.cdr()) elements.push_back(again(p.car()));
    Sexp list = p.value() == 0 ? p : again(p);
    for (const Sexp& e : elements) {
      if (e.is_null()) return Sexp();
    }
    if (list.is_null()) return Sexp();
    for (auto it = elements.rbegin(); it != elements.rend(); ++it) list = m.sh_cons(*it, list);
    current = list;
  }
  const std::uint64_t rule = matcher.match(patterns, current);
  if (rule == patterns.size()) return current;
  if (++steps > limit) return Sexp();
  return again(instantiate(m, replacements[rule], matcher));
}

// Random rules over a small signature against random terms: the rewriter reaches the normal
// form the definition gives, in no more steps (the memo only saves some).
TEST(Rewriter, ReachesTheNormalFormOfTheDefinition) {
  std::mt19937 rng(14);
  const auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  const char* const symbols[] = {"a", "b", "f", "g", "nil2"};
  const char* const variables[] = {"?x", "?y", "?z"};
  // A random expression of depth at most `depth`; `vars` how many variables it may use.
  std::function<std::string(int, int)> expr = [&](int depth, int vars) -> std::string {
    const int kind = depth == 0 ? pick(2) : pick(5);
    if (kind == 0 && vars > 0) return variables[pick(vars)];
    if (kind <= 1) return symbols[pick(5)];
    std::string s = "(";
    s += pick(3) == 0 ? expr(depth - 1, vars) : symbols[pick(4)];
    for (int n = pick(3); n > 0; --n) s += " " + expr(depth - 1, vars);
    if (pick(6) == 0) s += std::string(" . ") + (vars > 0 && pick(2) == 0 ? variables[pick(vars)] : "b");
    return s + ")";
  };
  int compared = 0;
  for (int trial = 0; trial < 300; ++trial) {
    SexpManager m;
    Rewriter rw(m);
    std::vector<Sexp> patterns, replacements;
    for (int count = pick(5) + 1; count > 0; --count) {
      const Sexp p = parse(m, expr(2, 3));
      const std::vector<Sexp> bound = variables_of(m, p);
      // A replacement whose variables are the pattern's: each one it names, bound or not,
      // stands for one of those (or for a symbol when there are none).
      std::string text = expr(2, 3);
      for (std::size_t at; (at = text.find('?')) != std::string::npos;) {
        text.replace(at, 2, bound.empty() ? "a" : to_text(bound[text.size() % bound.size()]).replace(0, 1, "\x01"));
      }
      std::replace(text.begin(), text.end(), '\x01', '?');
      const Sexp r = parse(m, text);
      patterns.push_back(p), replacements.push_back(r);
      rw.add_rule(p, r);
    }
    rw.set_max_steps(200);
    SexpMatcher matcher;
    for (const Sexp& pattern : patterns) {
      for (const Sexp& v : variables_of(m, pattern)) matcher.add_var(v);
    }
    for (int k = 0; k < 4; ++k) {
      const Sexp t = parse(m, expr(3, 0));
      std::uint64_t steps = 0;
      const Sexp want = Reference(m, matcher, patterns, replacements, t, steps, 200);
      if (want.is_null()) continue;  // no normal form within the bound
      const std::uint64_t before = rw.stats().steps;
      ASSERT_EQ(to_text(rw.normalize(t)), to_text(want)) << to_text(t);
      EXPECT_LE(rw.stats().steps - before, steps);
      ++compared;
    }
  }
  EXPECT_GT(compared, 500);
}

TEST(Rewriter, DeepTermsRunOnA256KiBStack) {
  test::run_on_small_stack([] {
    SexpManager m;
    Rewriter rw(m);
    load_rules(rw, "(rule (+ z ?n) ?n) (rule (+ (s ?m) ?n) (s (+ ?m ?n)))  (rule (h ?x) ?x)");
    // (+ N N) for a numeral N 200,000 deep: the sum recurses as deep as N, the result is
    // 400,000 deep; the term's own depth is walked too, under (h ...).
    const int n = 200000;
    std::string text;
    for (int i = 0; i < n; ++i) text += "(s ";
    text += "z" + std::string(n, ')');
    const Sexp number = parse(m, text);
    const Sexp sum = rw.normalize(parse(m, "(+ " + text + " (h " + text + "))"));
    EXPECT_EQ(rw.stats().steps, std::uint64_t{n} + 2);
    Sexp p = sum;
    for (int i = 0; i < n; ++i) p = p.cdr().car();
    EXPECT_EQ(p, number);  // n levels of s, then N itself
  });
}

TEST(Rewriter, BoundedMemoAndCollectingBetweenTermsKeepTheLiveNodesBounded) {
  SexpManager m;
  Rewriter rw(m);
  rw.add_rule(parse(m, "(f ?x)"), parse(m, "(g ?x)"));
  rw.set_memo_limit(64);
  rw.set_collect_every(512);
  std::size_t most_nodes = 0, most_entries = 0;
  for (int i = 0; i < 4096; ++i) {  // distinct terms (f (B0 ... B11)), Bk the bits of i
    std::string bits;
    for (int b = 0; b < 12; ++b) bits += (i >> b & 1) != 0 ? " 1" : " 0";
    const Sexp term = parse(m, "(f (" + bits.substr(1) + "))");
    most_entries = std::max(most_entries, rw.memo_size());  // as kept from the terms before
    ASSERT_EQ(to_text(rw.normalize(term)), "(g (" + bits.substr(1) + "))");
    most_nodes = std::max(most_nodes, m.canonical_count());
  }
  // Unbounded, the table would hold every term: over 20,000 nodes. The memo keeps its
  // limit plus the entries of one term (about 16); the rest is at most 512 ids of garbage.
  EXPECT_LE(most_entries, 64u + 16u);
  EXPECT_LT(most_nodes, 2500u);
  EXPECT_GT(rw.stats().collections, 10u);  // some 5 ids a term read and rewritten
}

TEST(Rewriter, WithinALongTermTheMemoStaysBoundedAndGarbageIsCollected) {
  SexpManager m;
  Rewriter rw(m);
  // Two nested loops counting numerals down, some 90,000 steps over a few hundred live
  // nodes: each inner step grows an accumulator (t (t ... n)) by a cell, and each outer
  // step drops it.
  load_rules(rw, R"((rule (loop z ?m ?a) done)
                    (rule (loop (s ?n) ?m ?a) (inner ?n ?m ?m ?n))
                    (rule (inner ?n ?m z ?a) (loop ?n ?m ?a))
                    (rule (inner ?n ?m (s ?k) ?a) (inner ?n ?m ?k (t ?a))))");
  rw.set_memo_limit(256);
  rw.set_collect_every(1024);
  std::string numeral;
  for (int i = 0; i < 300; ++i) numeral += "(s ";
  numeral += "z" + std::string(300, ')');
  const Sexp term = parse(m, "(loop " + numeral + " (s " + numeral + ") z)");
  const std::size_t read = m.canonical_count();
  EXPECT_EQ(to_text(rw.normalize(term)), "done");
  EXPECT_EQ(rw.stats().steps, 300u * 303 + 1);
  EXPECT_LE(rw.memo_size(), 256u);
  // Some 180,000 cells were made; at most about twice what lives stays uncollected.
  EXPECT_GT(rw.stats().nodes_made, 150000u);
  EXPECT_GT(rw.stats().collections, 50u);
  EXPECT_LT(m.canonical_count(), read + 4096);
}

TEST(Rewriter, MemoHoldsItsNodesThroughACollect) {
  SexpManager m;
  Rewriter rw(m);
  rw.add_rule(parse(m, "(f ?x)"), parse(m, "done"));
  EXPECT_EQ(to_text(rw.normalize(parse(m, "(f (a b))"))), "done");
  m.collect();  // only the table and the memo hold (f (a b)) now
  // New nodes take the slots collect freed first: a key left dangling would name one.
  EXPECT_EQ(to_text(rw.normalize(parse(m, "(h (c d))"))), "(h (c d))");
  const Rewriter::Stats before = rw.stats();
  EXPECT_EQ(to_text(rw.normalize(parse(m, "(f (a b))"))), "done");
  EXPECT_EQ(rw.stats().steps, before.steps);  // known across terms and the collect
  EXPECT_EQ(rw.stats().memo_hits, before.memo_hits + 1);
}

TEST(Rewriter, SharingHitsAndNodesMadeComeFromTheManagersCounters) {
  for (const bool wrap : {false, true}) {
    SexpManager m;
    Rewriter rw(m);
    rw.add_rule(parse(m, "a"), parse(m, "b"));
    rw.set_collect_every(1);
    rw.normalize(parse(m, "(q a y)"));  // garbage for the next term's collect
    const Rewriter::Stats before = rw.stats();
    const Sexp term = parse(m, "(p a x)");
    // The next new node takes the counter's last id, the one after it a gap near 0.
    if (wrap) detail::SexpManagerInternals::set_next_id(m, UINT32_MAX);
    EXPECT_EQ(to_text(rw.normalize(term)), "(p b x)");
    EXPECT_EQ(rw.stats().collections, before.collections + 1);
    // (x) is the term's own cell; (b x) and (p b x) are new.
    EXPECT_EQ(rw.stats().sharing_hits - before.sharing_hits, 1u) << wrap;
    EXPECT_EQ(rw.stats().nodes_made - before.nodes_made, 2u) << wrap;
  }
}

}  // namespace
}  // namespace vorn
