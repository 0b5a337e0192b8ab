#include "rewriter.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn::tool {
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
  rw.normalize(t);
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
  };
  // clang-format on
  for (const auto& [rules, term, log] : cases) EXPECT_EQ(Rewrite(rules, term), log) << term;
  EXPECT_THROW(Rewrite({{"x", "y"}, {"y", "x"}}, "x", 10), StepLimitExceeded);  // a cycle
}

TEST(Rewriter, DeepTermsRunOnA256KiBStack) {
  test::run_on_small_stack([] {
    std::string chain, sum;  // (f (f ... a)) and (+ 0 (+ 0 ... x)), 50000 deep
    for (int i = 0; i < 50000; ++i) chain += "(f ", sum += "(+ 0 ";
    const std::string close(50000, ')'), nf = "(" + chain + "b" + close + " x)";
    const std::string log = Rewrite({{"a", "b"}, {"(+ 0 ?u)", "?u"}},
                                    "(" + chain + "a" + close + " " + sum + "x" + close + ")");
    // Ends in the normal form, however many steps it took (EXPECT_TRUE: no 400 KB diff).
    EXPECT_TRUE(log.size() > nf.size() && log.substr(log.size() - nf.size()) == nf);
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
    most_nodes = std::max(most_nodes, detail::SexpManagerInternals::shared_size(m));
  }
  // Unbounded, the table would hold every term: over 20,000 nodes. The memo keeps its
  // limit plus the entries of one term (about 16); the rest is at most 512 ids of garbage.
  EXPECT_LE(most_entries, 64u + 16u);
  EXPECT_LT(most_nodes, 2500u);
  EXPECT_GT(rw.stats().collections, 10u);  // some 5 ids a term read and rewritten
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

TEST(Rewriter, SharingHitsAndNodesMadeStayExactAcrossCollectsAndTheIdWrap) {
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
    if (!wrap) {
      EXPECT_EQ(rw.stats().nodes_made - before.nodes_made, 2u);
    }
  }
}

}  // namespace
}  // namespace vorn::tool
