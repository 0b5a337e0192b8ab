// The engine's matching (rule index, then compiled patterns) against SexpMatcher's list form.
#include "rewrite/pattern.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "rewrite/rule_index.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn::detail {
namespace {

// Random rule lists and terms over a small signature, fixed seeds: the first rule whose
// compiled pattern matches, among those the index offers (by head and by an element),
// is SexpMatcher's first match, with the same binding for every variable. Patterns are non-linear, have variable and
// list heads, dotted tails and bare variables; terms reuse the patterns' symbols, the
// variables' names included (in a term they are plain symbols).
TEST(PatternCode, FindsSexpMatchersFirstRuleAndBindings) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    std::mt19937 rng(seed);
    const auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const char* const atoms[] = {"a", "b", "f", "g", "?x", "?y", "?z"};
    std::function<std::string(int, int)> expr = [&](int depth, int choices) -> std::string {
      if (depth == 0 || pick(3) == 0) return atoms[pick(choices)];
      std::string s = "(" + expr(depth - 1, choices);
      for (int n = pick(3); n > 0; --n) s += " " + expr(depth - 1, choices);
      if (pick(5) == 0) s += " . " + expr(depth - 1, choices);
      return s + ")";
    };
    SexpManager m;
    std::vector<Sexp> variables;
    for (const char* v : {"?x", "?y", "?z"}) variables.push_back(parse(m, v));
    const auto is_var = [&variables](const Sexp_* n) {
      for (const Sexp& v : variables) {
        if (v.get()->value == n->value) return true;
      }
      return false;
    };
    int matched = 0;
    for (int trial = 0; trial < 200; ++trial) {
      std::vector<Sexp> patterns;
      std::vector<PatternCode> codes;
      std::vector<PatternHead> heads;
      std::uint32_t registers = 0;
      for (int r = pick(6) + 1; r > 0; --r) {
        patterns.push_back(parse(m, expr(3, 7)));
        codes.emplace_back(patterns.back().get(), is_var);
        heads.push_back(codes.back().head());
        registers = std::max(registers, codes.back().registers());
      }
      RuleIndex index;
      index.build(heads);
      std::vector<const Sexp_*> regs(registers);
      std::vector<Sexp_*> slots(3);
      SexpMatcher matcher(variables);
      for (int k = 0; k < 20; ++k) {
        const Sexp term = parse(m, expr(4, 4 + pick(4)));
        const std::uint64_t want = matcher.match(patterns, term);
        std::uint64_t got = patterns.size();
        const RuleIndex::Span s = index.all_candidates(term.get());
        for (const std::uint32_t* r = s.begin; r != s.end && got == patterns.size(); ++r) {
          if (codes[*r].run(term.get(), regs.data(), slots.data())) got = *r;
        }
        ASSERT_EQ(got, want) << to_text(term);
        // A list not made yet, its elements and its end side by side, matches as the list
        // does, for every pattern that can match such a list.
        if (!term.is_symbol()) {
          std::vector<Sexp_*> elements;
          Sexp_* cell = term.get();
          for (; cell->is_symbol == 0; cell = cell->cdr) elements.push_back(cell->car);
          elements.push_back(cell);
          for (std::size_t r = 0; r < codes.size(); ++r) {
            const bool other_head = heads[r].kind == PatternHead::headed_list &&
                                    (!term.car().is_symbol() || term.car().value() != heads[r].value);
            if (codes[r].needs_node() || other_head) continue;  // the index keeps such pairs apart
            std::vector<Sexp_*> unmade_slots(3), made_slots(3);
            const bool unmade = codes[r].run_unmade(elements.data(), elements.size() - 1, regs.data(),
                                                    unmade_slots.data());
            EXPECT_EQ(unmade, codes[r].run(term.get(), regs.data(), made_slots.data())) << to_text(term);
            if (unmade) {
              EXPECT_EQ(unmade_slots, made_slots) << to_text(term);
            }
          }
        }
        if (got == patterns.size()) continue;
        ++matched;
        const std::vector<std::uint64_t>& vars = codes[got].variables();
        for (std::size_t v = 0; v < vars.size(); ++v) {
          EXPECT_EQ(slots[v], matcher.get(m.sh_sym(vars[v])).get()) << to_text(term);
        }
      }
    }
    EXPECT_GT(matched, 300) << seed;  // the seeds make matches, not only misses
  }
}

}  // namespace
}  // namespace vorn::detail
