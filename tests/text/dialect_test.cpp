// The dialects: what each construct reads as, every error and its position, the first
// expression found for a stream, and random expressions written (compact and pretty)
// and read back in each dialect.
#include <gmock/gmock.h>

#include <cstring>
#include <random>

#include "support/internals.hpp"
#include "text/scan.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn {
namespace {

constexpr Dialect V = Dialect::vorn, L = Dialect::smtlib, C = Dialect::scheme;
using I = detail::SexpManagerInternals;

Sexp S(SexpManager& m, const char* name) { return m.sh_sym(m.make_symbol(name)); }

TEST(Dialects, ConstructsReadAsDocumented) {
  // clang-format off
  const std::tuple<Dialect, const char*, Dialect, const char*> same[] = {
      {C, "('x `(a ,b ,@c))", V, "((quote x) (quasiquote (a (unquote b) (unquote-splicing c))))"},
      {C, "(#true #F #false #T)", V, "(|#t| |#f| |#f| |#t|)"},
      {C, "(#\\x41 #\\x20 #\\xa #\\x3bb #\\x7f #\\( #\\nul #\\x1)", C,
          "(#\\A #\\space #\\newline #\\\xCE\xBB #\\delete #\\x28 #\\null #\\x01)"},
      {C, "(#(1 #u8(2)) #())", V, "((|#vector| 1 (|#u8| 2)) (|#vector|))"},
      {C, "#| a #| |# |# [a #;(b c) . #;d e]", V, "(a . e)"},
      {C, "#!/bin/sh x\n#!fold-case (AbC #!no-fold-case AbC #\\A |X| #:K #X1F)", V,
          "(abc AbC |#\\\\A| X |#:K| |#X1F|)"},
      {C, "\"\\a\\b\\t\\n\\r\\\"\\\\\\|\\x41;\\x3bb;a\\  \n  b\"", V,
          "\"\\x07\\x08\\t\\n\\r\\\"\\\\|A\xCE\xBB" "ab\""},
      {V, "\"\\a\\b\\f\\v\\0\\x4A\\/\\'\\|\n\"", C, "\"\\a\\b\\x0c;\\x0b;\\x0;J/'|\\n\""},
      {L, "(|abc| \"a\"\"\\\" :k #x1F #b01 1.5 |a b| ||)", V,
          "(abc \"a\\\"\\\\\" :k |#x1F| |#b01| 1.5 |a b| ())"},
  };
  // clang-format on
  SexpManager m;
  for (const auto& [d1, t1, d2, t2] : same) EXPECT_EQ(parse(m, t1, {d1}), parse(m, t2, {d2})) << t1;
  // A string atom is never the symbol of the same bytes.
  EXPECT_NE(parse(m, "\"abc\""), parse(m, "abc"));
  EXPECT_NE(parse(m, "\"#t\"", {C}), parse(m, "#t", {C}));
  EXPECT_EQ(m.get_string(parse(m, "\"a\"\"b\"", {L}).value()), "a\"b");
}

TEST(Dialects, ErrorsSayWhereAndLeaveNoTrace) {
  // clang-format off
  const std::tuple<Dialect, const char*, const char*> cases[] = {
      {V, "(\"ab)", "1:6: unterminated string opened at 1:2"},
      {V, "\"a\\q\"", "1:3: unknown escape '\\q' in string"},
      {V, "\"\\x4g\"", "1:2: \\x takes two hex digits in string"},
      {L, "(a . b)", "1:4: a lone '.' is no symbol in this dialect (write |.|)"},
      {L, "(|a\\b|)", "1:4: '\\' in |name|"}, {L, "\"a\"\"", "1:5: unterminated string opened at 1:1"},
      {L, "#xZ1", "1:1: invalid literal after '#' (#x and hex digits, or #b and binary digits)"},
      {C, "(a ')", "1:5: expected a datum after ''' at 1:4"}, {C, "#;", "1:3: expected a datum after '#;' at 1:1"},
      {C, "#| a #| b |#", "1:13: unterminated block comment opened at 1:1"},
      {C, "[a)", "1:3: ')' closes the '[' opened at 1:1"}, {C, "#\\zz", "1:1: unknown character '#\\zz'"},
      {C, "#0a", "1:1: a datum label is '#N=' or '#N#'"}, {C, "(#y)", "1:2: unknown '#' syntax"},
      {C, "#!r6rs", "1:1: unknown directive '#!r6rs'"}, {C, "#(a . b)", "1:5: misplaced '.'"},
      {C, "\"\\x110000;\"", "1:2: \\x takes hex digits (at most 10FFFF) and ';' in string"},
      {C, "|a\\x0;|", "1:3: NUL byte in name"}, {C, "\"a\\ b\"", "1:3: unknown escape: '\\' followed by byte 0x20 in string"},
      {C, "\"\\x41\"", "1:2: \\x takes hex digits (at most 10FFFF) and ';' in string"},
  };
  // clang-format on
  SexpManager m;
  m.make_string("kept");
  const auto state = [&] {
    return std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m),
                           m.get_string(SexpManager::string_tag | 1).has_value());
  };
  const auto before = state();
  for (const auto& [d, text, message] : cases) {
    try {
      parse_all(m, text, {d});
      ADD_FAILURE() << text << " was read";
    } catch (const ParseError& e) {
      EXPECT_EQ(e.what(), std::string(message));
    }
    EXPECT_EQ(state(), before) << text;
  }
}

TEST(Dialects, ScanFirstFindsTheFirstExpressionOrAsksForMore) {
  using detail::Scan;
  // clang-format off
  const std::tuple<Dialect, const char*, bool, Scan::Kind, std::size_t, std::size_t> cases[] = {
      {V, " (a \"b)\") c", false, Scan::expression, 1, 9}, {V, "abc", false, Scan::incomplete, 0, 3},
      {V, "abc", true, Scan::expression, 0, 3}, {V, " ; c", false, Scan::incomplete, 1, 4},
      {V, " ; c", true, Scan::none, 4, 4}, {V, "x \"a", false, Scan::expression, 0, 1},
      {V, " \"a\\", false, Scan::incomplete, 1, 4}, {L, "\"a\"", false, Scan::incomplete, 0, 3},
      {L, "\"a\" ", false, Scan::expression, 0, 3}, {C, "#| c |# #;x 'y z", false, Scan::expression, 12, 14},
      {C, " #| c ", false, Scan::incomplete, 1, 6}, {C, "#", false, Scan::incomplete, 0, 1},
      {C, "(a #tr", false, Scan::incomplete, 0, 6}, {C, "#;", false, Scan::incomplete, 0, 2},
      {C, "#\\( ", false, Scan::expression, 0, 3}, {C, "'#\\(", false, Scan::incomplete, 0, 4},
  };
  // clang-format on
  for (const auto& [d, text, final, kind, begin, end] : cases) {
    const Scan s = detail::scan_first(text, d, final);
    EXPECT_EQ(std::make_tuple(s.kind, s.begin, s.end), std::make_tuple(kind, begin, end)) << text;
  }
  EXPECT_THROW(detail::scan_first("#", C, true), ParseError);
  EXPECT_THROW(detail::scan_first("(a #ty b", C, false), ParseError);
}

TEST(Dialects, WritesEachDialectsFormsAndLaysOutForPeople) {
  SexpManager m;
  // clang-format off
  const std::tuple<const char*, WriteOptions, const char*> cases[] = {
      {"(quote (|#vector| a (unquote-splicing b) |#t| |#\\\\A| \"\\n\\x01\" |@x| |a\\|b|))", {C},
       "'#(a ,@b #t #\\A \"\\n\\x01;\" |@x| |a\\|b|)"},
      {"(quote a b)", {C}, "(quote a b)"}, {"(|#u8| . a)", {C}, "(|#u8| . a)"},
      {"(\"a\\\"b\\n\" |a b| |#x1f| . #1000)", {L}, "(\"a\"\"b\n\" |a b| #x1f . #1000)"},
      {"(|a\\|b c| \"\\t\\x01\")", {L}, "(|a\\|b c| \"\t\x01\")"},  // the bars: vorn's, not read in smtlib
      {"(footprint \"X\" (layer \"F.Cu\") (fp_line (start 0 0) (end 1 1) (width 0.12)) x)",
       {V, true, 30, 2},
       "(footprint \"X\"\n  (layer \"F.Cu\")\n  (fp_line\n    (start 0 0)\n    (end 1 1)\n"
       "    (width 0.12))\n  x)"},
      {"((a b c d) e f (g h) i . j)", {V, true, 6, 1}, "((a b\n  c\n  d)\n e\n f\n (g h)\n i . j)"},
      {"(quote (a b c))", {C, true, 8, 3}, "'(a b c)"}, {"(|#vector| aa bb cc)", {C, true, 8, 1}, "#(aa bb\n cc)"},
  };
  // clang-format on
  for (const auto& [vorn_text, options, text] : cases) {
    EXPECT_EQ(to_text(parse(m, vorn_text), options), text) << vorn_text;
  }
  for (const char* unreadable : {"(a . b)", "#1000", "|a\\|b c|"})
    EXPECT_THROW(parse(m, to_text(parse(m, unreadable), {L}), {L}), ParseError) << unreadable;
  EXPECT_THROW(parse(m, to_text(m.sh_sym(1000), {C}), {C}), ParseError);
  // A cycle inside a pretty list: marked, and no mark left behind.
  Sexp self = m.cons(m.nil(), m.nil());
  self.setcar(self);
  const Sexp outer = m.cons(self, m.cons(S(m, "a"), m.nil()));
  for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(to_text(outer, {V, true, 4, 1}), "((#cycle)\n a)");
}

// Random names and strings over the bytes each dialect treats specially, in lists with
// dotted tails and scheme's forms: every dialect writes them, compact and pretty, as text
// that reads back as the same node.
TEST(Dialects, RandomExpressionsRoundTripInEveryDialect) {
  std::mt19937_64 rng(1357);
  const char* const pieces[] = {"a", "Z", "\xCE\xBB", " ", "\"", "|", "\\", "#", "'", "`", ",",
                                "@", ".", ";", "(", ")", "[", "]", "\n", "\t", "\x01", "\x7F",
                                "\xFF", "0", "x", ":", "#\\", "#t", "#f", "#vector", "#u8"};
  const char* const heads[] = {"quote", "unquote-splicing", "#vector", "#u8", "#t", "#x1F", "#\\A"};
  for (const Dialect d : {V, L, C}) {
    SexpManager m;
    const auto text = [&](bool string) {
      std::string s;
      for (int k = rng() % 4 + !string; k > 0; --k) {
        const char* p = pieces[rng() % std::size(pieces)];
        if (d == L && !string && std::strpbrk(p, "|\\")) continue;  // not expressible
        s += p;
      }
      if (string && rng() % 4 == 0) s += '\0';
      return s;
    };
    const auto atom = [&]() -> Sexp {
      switch (rng() % 6) {
        case 0: return m.nil();
        case 1: return m.sh_string(text(true));
        case 2: return S(m, heads[rng() % (std::size(heads) - (d == L))]);
        case 3: if (d == V) return m.sh_sym(rng() % 9 + 1000); [[fallthrough]];
        default: { const std::string s = text(false); return s.empty() ? m.nil() : S(m, s.c_str()); }
      }
    };
    for (int round = 0; round < 300; ++round) {
      Sexp e = d == L ? m.sh_cons(atom(), m.nil()) : atom();  // no dotted tail in smtlib
      for (int i = rng() % 25; i > 0; --i) {
        const int r = rng() % 5;
        e = r < 2 ? m.sh_cons(atom(), e) : r == 2 && d != L ? m.sh_cons(e, atom())
            : r == 3 ? m.sh_cons(atom(), m.sh_cons(e, m.nil())) : m.sh_cons(e, m.nil());
      }
      for (const bool pretty : {false, true}) {
        const std::string written = to_text(e, {d, pretty, std::size_t(rng() % 40), rng() % 4});
        EXPECT_EQ(parse(m, written, {d}), e) << written;
        const detail::Scan s = detail::scan_first(written + " ", d, false);
        EXPECT_EQ(std::make_pair(s.kind, s.end), std::make_pair(detail::Scan::expression, written.size()));
      }
    }
  }
}

}  // namespace
}  // namespace vorn
