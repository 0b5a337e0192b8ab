#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn {
namespace {

// Unbuffered: counts the bytes of the text of `s`.
struct CountBuf : std::streambuf {
  explicit CountBuf(const Sexp& s) { std::ostream(this) << s; }
  std::uint64_t count = 0;
  int_type overflow(int_type c) override { return ++count, c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return count += n, n; }
};

// Keeps the first `limit` bytes written to it and refuses the rest.
struct FixedBuf : std::streambuf {
  explicit FixedBuf(std::size_t limit) : text(limit, '\0') { setp(&text[0], &text[0] + limit); }
  std::string text;
};

struct Commas : std::numpunct<char> {  // a comma between any two digits
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\1"; }
};

// The text of `s` on a fresh stream with locale `loc`, set up by `format`.
template <typename Format>
std::string Text(const Sexp& s, Format format, const std::locale& loc = std::locale::classic()) {
  std::ostringstream os;
  return (os.imbue(loc), os << format << s, os.str());
}

TEST(SexpPrint, WorkedTextsBackReferencesAndCycles) {
  SexpManager m;
  Sexp a = m.sym(m.make_symbol("a")), b = m.sym(m.make_symbol("b"));  // ids and values 1, 2
  Sexp list = m.cons(a, m.cons(b, m.nil())), tail = list.cdr();       // id 4 over id 3
  const std::string text =
      "{4}[1](cons\n  {1}[2]<1>|a|\n  {3}[2](cons\n    {2}[2]<2>|b|  \n    {0}[3]<0>||\n  )\n)";
  std::ostringstream os;
  list.print(os << a << ';' << list << ';' << Sexp());  // a second call writes it all again
  EXPECT_EQ(os.str(), "{1}[2]<1>|a|;" + text + ";<NIL>" + text);
  EXPECT_EQ(list.debug_to_str() + Sexp().debug_to_str(), text + "<NIL>");
  testing::internal::CaptureStdout();
  list.debug_print();
  Sexp().debug_print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), text + "\n<NIL>\n");
  Sexp pair = m.cons(a, a);
  list = tail = a = Sexp();  // the cons alone holds a, twice
  EXPECT_EQ(pair.debug_to_str(), "{5}[1](cons\n  {1}[2]<1>|a|\n  @1\n)");
  EXPECT_EQ(m.sym(m.make_symbol("x|y")).debug_to_str(), "{6}[1]<3>|x\\|y|");
  EXPECT_EQ(m.sym(m.make_symbol("\\||")).debug_to_str(), "{7}[1]<4>|\\\\|\\||");  // \ unescaped
  // Unnamed: a value without a name, a node without a manager.
  EXPECT_EQ(m.sym(12345).debug_to_str() + Sexp_().debug_to_str(), "{8}[1]<12345>?{0}[1]<0>?");
  Sexp inner = m.cons(b, m.nil()), outer = m.cons(b, inner);  // ids 9, 10
  inner.setcdr(outer);
  for (int pass = 0; pass < 2; ++pass)  // printing a cycle leaves no mark: the same text again
    EXPECT_EQ(outer.debug_to_str(),
              "{10}[2](cons\n  {2}[3]<2>|b|\n  {9}[2](cons\n    @2  \n    @10!\n  )\n)");
  inner.setcdr(m.nil());  // a cons's back-reference follows the closing line of its full text
  EXPECT_EQ(m.cons(inner, inner).debug_to_str(),
            "{11}[1](cons\n  {9}[4](cons\n    {2}[3]<2>|b|  \n    {0}[3]<0>||\n  )\n  @9\n)");
}

TEST(SexpPrint, DeepListAndLargeTreeOnSmallStack) {
  test::run_on_small_stack([] {
    SexpManager m;
    detail::SexpManagerInternals::next_id(m) = 1000000;  // every id below has seven digits
    Sexp a = m.sym(m.make_symbol("a")), list = m.nil();  // a: value 1
    const std::uint64_t n = 20000;
    for (std::uint64_t k = 0; k < n; ++k) list = m.cons(a, list);
    // A cons at depth d writes 6d + 21 bytes; its car at depth d + 1 is a in full the first time
    // (2 + 22 bytes, count n + 1), then "@1000000" (2d + 10); nil ends it at depth n (2n + 11).
    // In all: 3n(n - 1) + 21n + 24 + (n - 1)(n + 10) + 2n + 11.
    EXPECT_EQ(CountBuf(list).count, 4 * n * n + 29 * n + 25);
    // 2^19 distinct leaves at depth 19 (2 * 19 + 18 bytes each) and 2^d conses at each depth d.
    std::vector<Sexp> level(1u << 19);
    for (Sexp& leaf : level) leaf = m.sym(1);
    for (std::size_t w = level.size() / 2; w > 0; level.resize(w), w /= 2)  // parents hold all
      for (std::size_t i = 0; i < w; ++i) level[i] = m.cons(level[2 * i], level[2 * i + 1]);
    // In all: 56 * 2^19 + the sum of 2^d (6d + 21) over d < 19, 6 (17 * 2^19 + 2) + 21 (2^19 - 1).
    EXPECT_EQ(CountBuf(level[0]).count, (179u << 19) - 9);
  });
}

TEST(SexpPrint, StreamFormatIsHonouredAndExceptionsLeaveNodesIntact) {
  SexpManager m;
  detail::SexpManagerInternals::next_id(m) = 4000000000u;  // ten-digit ids
  const std::vector<Sexp> x(12, m.sym(30));                // 12 holders of id 4000000000
  EXPECT_EQ(Text(x[0], std::hex), "{ee6b2800}[c]<1e>?");
  EXPECT_EQ(Text(x[0], std::setw(6)), "     {4000000000}[12]<30>?");  // width: first piece only
  EXPECT_EQ(Text(x[0], std::dec, std::locale({}, new Commas)), "{4,0,0,0,0,0,0,0,0,0}[1,2]<3,0>?");
  Sexp a = m.sym(m.make_symbol("a|\\")), list = m.nil();
  for (int i = 0; i < 200; ++i) list = m.cons(i % 2 ? a : m.sym(~0ul), list);
  for (auto* base : {std::dec, std::hex}) {
    const std::string good = Text(list, base);  // default format: the fast path, same bytes
    EXPECT_EQ(Text(list, base, std::locale({}, new std::numpunct<char>)), good);
    for (std::size_t limit : {100u, 10000u}) {  // every cons written is still open at the failure
      FixedBuf buf(limit);
      std::ostream os(&buf);
      os.exceptions(std::ios_base::badbit);
      EXPECT_THROW(list.print(os << base), std::ios_base::failure);
      EXPECT_EQ(buf.text, good.substr(0, limit));
      EXPECT_EQ(Text(list, base), good);
    }
  }
}

}  // namespace
}  // namespace vorn
