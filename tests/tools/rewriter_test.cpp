#include "rewriter.hpp"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace vorn::tool
