#include "vorn/text/write.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "vorn/expr/manager.hpp"

namespace vorn {
namespace {

Sexp S(SexpManager& m, const char* name) { return m.sh_sym(m.make_symbol(name)); }

TEST(WriteText, ExactTextMarkedCyclesAndNoMarksLeft) {
  SexpManager m;
  const Sexp a = S(m, "a"), nil = m.nil();
  Sexp c1 = m.cons(a, nil), c2 = m.cons(a, c1), self = m.cons(nil, nil), in = m.cons(a, nil);
  const Sexp s = m.cons(a, m.sym(0)), out = m.cons(a, m.cons(in, nil));  // s: shared, no cycle
  c1.setcdr(c2), self.setcar(self), in.setcdr(out);
  // clang-format off
  const std::pair<Sexp, const char*> cases[] = {
      {m.cons(out, m.cons(s, m.cons(c1, m.cons(s, nil)))),
       "((a (a . #cycle)) (a) (a a . #cycle) (a))"},
      {m.cons(m.cons(nil, nil), m.cons(a, m.sym(~0ul))), "((()) a . #18446744073709551615)"},
      {self, "(#cycle)"}, {S(m, "b c"), "|b c|"}, {S(m, "#x"), "|#x|"}, {S(m, "."), "|.|"},
      {S(m, ".."), ".."}, {S(m, "x#."), "x#."}, {S(m, "a|b"), "|a\\|b|"}, {S(m, "a\\b"), "a\\b"},
      {S(m, ")"), "|)|"}, {S(m, "\\|"), "|\\\\\\||"}, {S(m, "x(y"), "|x(y|"}, {S(m, ";"), "|;|"},
      {S(m, "\v"), "|\v|"}, {S(m, "a\nb"), "|a\nb|"}, {S(m, "\xC3\xA9\x01"), "\xC3\xA9\x01"},
  };
  // clang-format on
  // Each is written twice: a mark left behind would show as a cycle the second time.
  for (const auto& [e, text] : cases) EXPECT_EQ(to_text(e) + to_text(e), std::string(text) + text);

  // A long list written in pieces: to a good stream, and to one that fails partway through.
  for (int i = 0; i < 20000; ++i) c2 = m.cons(a, c2);
  std::ostringstream good;
  write_text(good, c2);
  std::stringstream failing(std::ios_base::in);  // takes no output
  failing.exceptions(std::ios_base::badbit);
  EXPECT_THROW(write_text(failing, c2), std::ios_base::failure);
  EXPECT_TRUE(to_text(c2) == good.str());  // so no mark was left behind

}

}  // namespace
}  // namespace vorn
