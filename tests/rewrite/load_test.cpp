#include "vorn/rewrite/load.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn {
namespace {

TEST(LoadRules, AddsTheFormsInOrderInAnyDialectAndValuesMeanTheManagersNames) {
  SexpManager m;
  Rewriter rw(m);
  EXPECT_EQ(load_rules(rw, "; Peano\n(rule (+ z ?n) ?n)\n(rule (+ (s ?m) ?n) (s (+ ?m ?n)))"), 2u);
  EXPECT_EQ(load_rules(rw, "[rule (double ?n) (+ ?n ?n)] #| none |#", {Dialect::scheme}), 1u);
  EXPECT_EQ(load_rules(rw, "  ; nothing\n"), 0u);
  EXPECT_EQ(rw.rule_count(), 3u);
  EXPECT_EQ(to_text(rw.normalize(parse(m, "(double (s (s z)))"))), "(s (s (s (s z))))");
  // A symbol written by its value means what that value means in the rewriter's manager.
  const unsigned long rule = m.make_symbol("rule"), var = m.make_symbol("?v");
  const std::string r = "#" + std::to_string(rule), v = "#" + std::to_string(var);
  EXPECT_EQ(load_rules(rw, "(" + r + " (f " + v + ") " + v + ")"), 1u);
  EXPECT_EQ(to_text(rw.normalize(parse(m, "(f q)"))), "q");
  EXPECT_THROW(load_rules(rw, "(" + r + " f " + v + ")"), ParseError);  // ?v unbound
}

// Every error is a ParseError where the form (or the bad byte) is, and leaves the manager
// as it was: no node, id or name made, no rule added.
TEST(LoadRules, BadFormsAreReportedWhereTheyBeginAndChangeNothing) {
  // clang-format off
  const std::tuple<const char*, std::size_t, std::size_t, const char*> cases[] = {
      {"(rule a b)\n  (rule x)", 2, 3, "expected (rule PATTERN REPLACEMENT)"},
      {"(rule a b c)", 1, 1, "expected (rule PATTERN REPLACEMENT)"},
      {"(rules a b)", 1, 1, "expected (rule PATTERN REPLACEMENT)"},
      {"rule", 1, 1, "expected (rule PATTERN REPLACEMENT)"},
      {"(rule a b . c)", 1, 1, "expected (rule PATTERN REPLACEMENT)"},
      {"(rule (f ?x) (g ?x ?y))", 1, 1, "?y in the replacement is not bound by the pattern"},
      {"(rule a b) (rule (+ z", 1, 22, "unterminated list opened at 1:18"},
      {"(rule a b) (bad", 1, 16, "unterminated list opened at 1:12"},  // a syntax error comes first
  };
  // clang-format on
  for (const auto& [text, line, column, message] : cases) {
    SexpManager m;
    m.make_symbol("known");  // names the manager has already keep their ids
    Rewriter rw(m);
    const auto before = std::make_tuple(m.next_id(), m.ids_handed_out(), m.canonical_count(), m.name_count());
    try {
      load_rules(rw, text);
      ADD_FAILURE() << text;
    } catch (const ParseError& e) {
      EXPECT_EQ(std::make_tuple(e.line(), e.column(), e.message()), std::make_tuple(line, column, std::string(message)))
          << text;
    }
    EXPECT_EQ(std::make_tuple(m.next_id(), m.ids_handed_out(), m.canonical_count(), m.name_count()), before) << text;
    EXPECT_EQ(rw.rule_count(), 0u);
  }
}

}  // namespace
}  // namespace vorn
