#include "vorn/text/parse.hpp"

#include <gmock/gmock.h>

#include "support/internals.hpp"
#include "support/malloc_probe.hpp"
#include "support/small_stack.hpp"
#include "vorn/expr/instantiate.hpp"
#include "vorn/text/write.hpp"

namespace vorn {
namespace {

using I = detail::SexpManagerInternals;

Sexp S(SexpManager& m, const char* name) { return m.sh_sym(m.make_symbol(name)); }

// what(), provided it is "LINE:COLUMN: MESSAGE" made from the error's parts.
std::string Described(const ParseError& e) {
  const auto s = std::to_string(e.line()) + ':' + std::to_string(e.column()) + ": " + e.message();
  return s == e.what() ? s : s + " but what() is " + e.what();
}

TEST(Parse, ErrorsSayWhatAndWhereAndLeaveNoTrace) {
  // clang-format off
  const std::pair<std::string_view, std::string> cases[] = {
      {"(a\n (b)", "2:5: unterminated list opened at 1:1"}, {{"|a\0|", 4}, "1:3: NUL byte in name"},
      {"|a\nb", "2:2: unterminated |name| opened at 1:1"}, {"(#)", "1:2: invalid number after '#'"},
      {"|ab\\", "1:5: unterminated |name| opened at 1:1"}, {"(a\n . b c)", "2:2: misplaced '.'"},
      {"|b\\qc|", "1:3: unknown escape '\\q' in |name|"}, {"#12a", "1:1: invalid number after '#'"},
      {"|\\\n|", "1:2: unknown escape: '\\' followed by byte 0x0A in |name|"},
      {"#18446744073709551616", "1:1: invalid number after '#'"}, {"(a . .)", "1:4: misplaced '.'"},
      {{"(ab\0c)", 6}, "1:4: NUL byte in name"}, {"a b c", "1:3: expected one expression, found 3"},
      {";\n", "2:1: expected an expression, found end of input"}, {"(a)\n.", "2:1: misplaced '.'"},
      {")", "1:1: unexpected ')'"}, {"(.)", "1:2: misplaced '.'"}, {"(a .)", "1:4: misplaced '.'"},
  };
  // clang-format on
  SexpManager m;
  const Sexp a = S(m, "a");
  // What a failed parse leaves alone; sym(0) takes the next free slot, then gives its id back.
  const auto state = [&] {
    return std::vector<std::size_t>{std::size_t(m.sym(0).get()), --I::next_id(m), I::shared_size(m),
                                    I::name_count(m), a.get()->refcount};
  };
  for (const auto& c : cases) {
    const auto before = state();
    const auto fails = ::testing::Throws<ParseError>(::testing::ResultOf(Described, c.second));
    // parse_all takes any count, so a count error is parse's alone.
    for (const bool all : {false, c.second.find(": exp") == c.second.npos})
      EXPECT_THAT([&] { all ? parse_all(m, c.first) : std::vector{parse(m, c.first)}; }, fails);
    EXPECT_EQ(state(), before) << c.first;
  }
}

TEST(Parse, GrammarGivesCanonicalNodesAndAllReadsZeroOrMore) {
  SexpManager m;
  // clang-format off
  const std::pair<const char*, const char*> same[] = {  // texts read as one node
      {"#0", "||"}, {"(a . (b . ()))", "(a b)"}, {"(a b . c)", "(a . (b . c))"}, {"..", "|..|"},
      {"(f(g)x)", "(f (g) x)"}, {"#007", "#7"}, {"a\\b", "|a\\\\b|"}, {"a.b#", "|a.b#|"},
      {"(|x|y)", "(x y)"}, {"(\t\r\va;c\n\f)", "(a)"}, {"((a) . b)", " ( ( a ) . b ) "},
  };
  // clang-format on
  for (const auto& [text, other] : same) EXPECT_EQ(parse(m, text), parse(m, other)) << text;
  EXPECT_TRUE(parse_all(m, " ; nothing\n\t").empty());
  const Sexp f = m.sh_cons(S(m, "f"), m.sh_cons(S(m, "a b"), m.sh_cons(m.sh_sym(7), S(m, "x"))));
  const std::vector<Sexp> want{f, m.nil(), S(m, "a|b\\c"), m.sh_sym(~0ul)};
  EXPECT_EQ(parse_all(m, " ; c\n(f |a b| #7 . x) ; d\n()|a\\|b\\\\c|#18446744073709551615"), want);
}

TEST(Text, MillionDeepAndMillionLongOnASmallStack) {
  test::run_on_small_stack([] {
    SexpManager m;
    std::string text = std::string(1'000'000, '(') + "a";  // the innermost list a million long
    for (int i = 1; i < 1'000'000; ++i) text += " a";
    const Sexp e = parse(m, text += std::string(1'000'000, ')'));
    EXPECT_TRUE(to_text(e) == text);  // no 2 MB diff on failure
    EXPECT_TRUE(to_text(e, {Dialect::scheme}) == text);
    EXPECT_EQ(parse(m, text, {Dialect::scheme}), e);
    EXPECT_EQ(instantiate(m, e, SexpMatcher()), e);
  });
}

// Atoms that repeat, near-repeat (same bytes as string and as name, shared prefixes, lengths
// around the reader's short-atom limit) and collide in any small cache, read into one manager
// in automatic-collection mode or not: the same nodes, ids and counts as making each atom in
// text order and each list from its end by hand.
TEST(Parse, RepeatedAtomsAreTheNodesMadeByHand) {
  std::vector<std::pair<std::string, bool>> atoms;  // content, is a string
  for (int i = 0; i < 3000; ++i) {
    const std::string base = "n" + std::to_string(i * 7919 % 700);
    atoms.emplace_back(i % 5 == 0 ? base + std::string(static_cast<std::size_t>(i % 23), 'z') : base,
                       i % 3 == 0);
  }
  std::string text = "(";
  for (const auto& [content, is_string] : atoms) text += (is_string ? '"' + content + '"' : content) + ' ';
  text += ")";
  for (const bool automatic : {false, true}) {
    SexpManager read, made;
    read.set_auto_collect(automatic);
    made.set_auto_collect(automatic);
    const Sexp r = parse(read, text);
    std::vector<Sexp> items;
    for (const auto& [content, is_string] : atoms)
      items.push_back(is_string ? made.sh_string(content) : S(made, content.c_str()));
    Sexp list = made.nil();
    while (!items.empty()) {
      list = made.sh_cons(items.back(), list);
      items.pop_back();
    }
    EXPECT_EQ(to_text(r), to_text(list));
    EXPECT_EQ(r.id(), list.id());
    EXPECT_EQ(r.get()->refcount, list.get()->refcount);
    EXPECT_EQ(I::next_id(read), I::next_id(made));
    EXPECT_EQ(I::shared_size(read), I::shared_size(made));
    EXPECT_EQ(I::name_count(read), I::name_count(made));
    for (Sexp a = r, b = list; !a.is_symbol(); a = a.cdr(), b = b.cdr()) {
      ASSERT_EQ(a.car().id(), b.car().id());
      ASSERT_EQ(a.car().get()->refcount, b.car().get()->refcount);
    }
  }
}

// An atom met again in one text is a sharing hit, and needs what sh_sym's hit needs: at the
// counter's end a snapshot of the live ids, and on a full node pool a chunk.
TEST(Parse, RepeatedAtomNeedsAnIdAndASlotAsSharingHitsDo) {
  for (const bool ids_run_out : {true, false}) {
    SexpManager m;
    std::vector<Sexp> fill;
    if (ids_run_out) I::set_next_id(m, 0xFFFFFFFFu);  // the first `fresh` takes the last id
    while (!ids_run_out && I::slots_in_use(m) < 1023) fill.push_back(m.sym(1));  // one slot left
    test::MallocProbe probe;
    EXPECT_EQ(parse_all(m, "fresh fresh").size(), 2u);
    EXPECT_EQ(ids_run_out ? I::snapshot_size(m) : probe.granted(8 + 1024 * 32),
              ids_run_out ? 2u : 1u)
        << ids_run_out;
  }
}

}  // namespace
}  // namespace vorn
