// Datum labels: shared conses written once (WriteOptions::shared) and read back in every
// dialect, cycles, scope, and every error of the label reader with its position.
#include <gmock/gmock.h>

#include <map>
#include <random>
#include <sstream>

#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/vorn.hpp"

namespace vorn {
namespace {

constexpr Dialect V = Dialect::vorn, L = Dialect::smtlib, C = Dialect::scheme;
using I = detail::SexpManagerInternals;

WriteOptions Shared(Dialect d, bool pretty = false, std::size_t width = 80) {
  return {d, pretty, width, 2, true};
}

TEST(Labels, SharedConsesAreWrittenOnceInTextOrder) {
  // clang-format off
  const std::tuple<WriteOptions, const char*, const char*> cases[] = {  // read as vorn
      {Shared(V), "(a (b) c)", "(a (b) c)"},
      {Shared(V), "((x b c) b c)", "((x . #0=(b c)) . #0#)"},
      {Shared(V), "(h (f a b c) (g b c))", "(h (f a . #0=(b c)) (g . #0#))"},
      {Shared(V), "(((a . a) a . a) (a . a) a . a)", "(#0=(#1=(a . a) . #1#) . #0#)"},
      {Shared(L), "(h (f a b c) (g b c))", "(h (f a . #0=(b c)) (g . #0#))"},
      {Shared(C), "((quote (b c)) (quote (b c)) b c)", "(#0='#1=(b c) #0# . #1#)"},
      {Shared(C), "((|#vector| a b c) b c)", "((|#vector| a . #0=(b c)) . #0#)"},
      {Shared(V, true, 20), "(h (f a b c) (g b c))", "(h\n  (f a . #0=(b c))\n  (g . #0#))"},
      // Trials that do not fit give their labels back: numbers stay in text order.
      {Shared(V, true, 20), "(#0=(#1=(#2=(a a) #2#) #1#) #0#)",
       "(#0=(#1=(#2=(a a)\n          #2#)\n      #1#)\n  #0#)"},
  };
  // clang-format on
  SexpManager m;
  for (const auto& [options, text, written] : cases) {
    const Sexp e = parse(m, text);
    EXPECT_EQ(to_text(e, options), written) << text;
    EXPECT_EQ(parse(m, written, {options.dialect}), e) << written;
  }
  // Cycles made by hand are written with labels, and no walk leaves a mark behind.
  const Sexp a = parse(m, "a");
  Sexp ring = m.cons(a, a), self = m.cons(a, a), inner = m.cons(a, a);
  ring.setcdr(ring), self.setcar(self), inner.setcdr(m.cons(inner, a));
  const std::pair<Sexp, std::string> cycles[] = {
      {ring, "#0=(a . #0#)"}, {self, "#0=(#0# . a)"}, {m.cons(a, inner), "(a . #0=(a #0# . a))"}};
  for (const auto& [e, text] : cycles) {
    EXPECT_EQ(to_text(e, Shared(V)) + to_text(e, Shared(C, true)), text + text);
  }
}

// The conses written in full under `#N=`: those that two places refer to, as a plain count
// over the distinct conses finds them.
std::size_t SharedConses(const Sexp& root) {
  std::map<Sexp_*, int> refs{{root.get(), 1}};
  for (std::vector<Sexp_*> todo{root.get()}; !todo.empty();) {
    Sexp_* n = todo.back();
    todo.pop_back();
    for (Sexp_* child : {n->car, n->cdr})
      if (!child->is_symbol && refs[child]++ == 0) todo.push_back(child);
  }
  std::size_t shared = 0;
  for (const auto& [n, count] : refs) shared += count > 1;
  return shared;
}

TEST(Labels, RandomDagsRoundTripInEveryDialect) {
  std::mt19937_64 rng(4242);
  for (const Dialect d : {V, L, C}) {
    SexpManager m;
    m.set_auto_collect(d == C);  // reading, labelled nodes included, holds what it makes
    std::vector<Sexp> pool;
    for (const char* name : {"a", "quote", "#vector", "x y"})
      pool.push_back(m.sh_sym(m.make_symbol(name)));
    pool.push_back(m.nil());
    for (int round = 0; round < 400; ++round) {
      const Sexp& car = pool[rng() % pool.size()];
      const Sexp& cdr = pool[d == L ? 4 + rng() % (pool.size() - 4)
                                    : rng() % pool.size()];  // smtlib: nil or a cons
      const Sexp e = pool.emplace_back(m.sh_cons(car, cdr));
      const std::string text = to_text(e, Shared(d, rng() % 2 == 1, rng() % 30));
      ASSERT_EQ(parse(m, text, {d}), e) << text;
      std::size_t defined = 0;  // #0=, #1=, ... in text order
      for (std::size_t at = text.find('#'); at != text.npos; at = text.find('#', at + 1)) {
        const std::string label = "#" + std::to_string(defined) + "=";
        defined += text.compare(at, label.size(), label) == 0;
      }
      ASSERT_EQ(defined, SharedConses(e)) << text;
    }
  }
}

TEST(Labels, DeepDagsWriteAndReadBackOnASmallStack) {
  test::run_on_small_stack([] {
    SexpManager m;
    for (const int depth : {60, 100'000}) {
      Sexp x = m.sh_sym(m.make_symbol("a"));
      for (int k = 0; k < depth; ++k) x = m.sh_cons(x, x);
      const std::string text = to_text(x, Shared(V));
      EXPECT_LT(text.size(), 20u * depth) << text.substr(0, 200);
      EXPECT_EQ(parse(m, text), x);
      EXPECT_EQ(parse(m, to_text(x, Shared(C, true)), {C}), x);
    }
  });
}

TEST(Labels, ReadWhereverADatumStandsEachTopLevelExpressionApart) {
  // clang-format off
  const std::tuple<Dialect, const char*, const char*> same[] = {  // second: read as vorn
      {V, "(#007=(a) #7# #0=b #0#)", "((a) (a) b b)"}, {V, "(#0=#1=(a) #1# . #0#)", "((a) (a) a)"},
      {V, "(#0= ; c\n (a) . #0#)", "((a) a)"},
      {V, "(#18446744073709551615=(z) #18446744073709551615#)", "((z) (z))"},
      {L, "(#0=(b c) . #0#)", "((b c) b c)"}, {L, "(#1=(a) . #2=(#1#))", "((a) (a))"},
      {L, "(#3=c #0=#1=(b) #3# . #2=#1#)", "(c (b) c b)"}, {L, "(a . #0=(#1=b #1#))", "(a b b)"},
      {V, "(#0=b . #0#)", "(b . b)"},
      {C, "(#0=(a) '#0# #(#0#) #;#0=b [#1=#;x c . #1#])",
          "((a) (quote (a)) (|#vector| (a)) (c . c))"},
  };
  // clang-format on
  SexpManager m;
  for (const auto& [d, text, vorn_text] : same)
    EXPECT_EQ(parse(m, text, {d}), parse(m, vorn_text)) << text;
  EXPECT_EQ(parse_all(m, "(#0=(a) #0#) #0=b (#0=(c) #0#)"), parse_all(m, "((a) (a)) b ((c) (c))"));
}

TEST(Labels, ErrorsSayWhereAndLeaveNoTrace) {
  const std::string cycle = ": a cycle, which canonical nodes cannot hold";
  const std::string lone_dot = "a lone '.' is no symbol in this dialect (write |.|)";
  // clang-format off
  const std::tuple<Dialect, const char*, std::string> cases[] = {
      {V, "(#0=(a) #1#)", "1:9: undefined label '#1#' (no '#1=' before it in this expression)"},
      {V, "(#0=(a)) #0#", "1:10: undefined label '#0#' (no '#0=' before it in this expression)"},
      {V, "(#0=a\n #0=(b))", "2:2: label '#0=' defined twice (first at 1:2)"},
      {V, "#0=(a . #0#)", "1:9: '#0#' refers to the datum it stands in, labelled at 1:1" + cycle},
      {V, "(a #0= )", "1:8: expected a datum after '#0=' at 1:4"},
      {V, "(#0=a #0#b)", "1:10: expected a delimiter after '#0#'"},
      {V, "#18446744073709551616=a", "1:1: label number too large (at most 18446744073709551615)"},
      {L, "(#0=a . b)", "1:7: a lone '.' is no symbol in this dialect (write |.|)"},
      {L, "(#0=(a) . #0# b)", "1:9: misplaced '.'"},
      // smtlib takes a dot before a label of a list only.
      {L, "(a . #0=b)", "1:4: " + lone_dot}, {L, "(a\n . #0=#1=\"s\")", "2:2: " + lone_dot},
      {L, "(#0=b . #0#)", "1:7: " + lone_dot}, {L, "(#1=#0=b (x . #2=#1#))", "1:13: " + lone_dot},
      {C, "(#;#0=(a) #0#)", "1:11: undefined label '#0#' (no '#0=' before it in this expression)"},
      {C, "('#0=(b #0#))", "1:9: '#0#' refers to the datum it stands in, labelled at 1:3" + cycle},
  };
  // clang-format on
  SexpManager m;
  m.make_symbol("kept");
  const auto state = [&] {
    return std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m));
  };
  const auto before = state();
  const auto read = [&m](Dialect d, const char* text) {
    return [&m, d, text] { parse_all(m, text, {d}); };
  };
  for (const auto& [d, text, message] : cases) {
    EXPECT_THAT(read(d, text), ::testing::ThrowsMessage<ParseError>(::testing::StrEq(message)));
    EXPECT_EQ(state(), before) << text;
  }
  // A stream reports both positions in its own lines.
  std::istringstream in("(a)\n(#0=a\n #0=(b))");
  TextReader reader(m, in);
  Sexp e;
  reader.next(e);
  EXPECT_THAT([&] { reader.next(e); }, ::testing::ThrowsMessage<ParseError>(::testing::StrEq(
                                           "3:2: label '#0=' defined twice (first at 2:2)")));
}

}  // namespace
}  // namespace vorn
