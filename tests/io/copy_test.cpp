#include "vorn/io/copy.hpp"

#include <gtest/gtest.h>

#include "vorn/text/parse.hpp"

namespace vorn {
namespace {

TEST(Copy, ReinternsNamesAndStringsAndKeepsRawValues) {
  SexpManager from, to;
  to.make_symbol("taken first");  // ids differ between the managers
  to.make_string("also first");
  const Sexp e = parse(from, "(f \"s\\0t\" |a b| #3 #99 (f \"s\\0t\") ())");
  const Sexp c = copy(to, e);
  EXPECT_EQ(c, parse(to, "(f \"s\\0t\" |a b| #3 #99 (f \"s\\0t\") ())"));
  // #3 named nothing in `from`; in `to` it is the name of id 3, as its value says.
  EXPECT_EQ(to.get_symbol_value(c.cdr().cdr().cdr().car().value()), std::string("a b"));
  Sexp_ unmanaged;  // a symbol of no manager: its value kept
  unmanaged.value = 1234;
  EXPECT_EQ(copy(to, Sexp(&unmanaged)), to.sh_sym(1234));
}

TEST(Copy, MixedManagersAndSharingAtTheCostOfDistinctNodes) {
  SexpManager m1, m2, to;
  Sexp x = m1.sh_sym(m1.make_symbol("x"));
  for (int i = 0; i < 64; ++i) x = m1.sh_cons(x, x);  // a tree of 2^65 - 1 nodes
  const Sexp mixed = m2.cons(x, parse(m2, "(y)"));
  const Sexp c = copy(to, mixed);
  const std::uint32_t next = to.sym(0).id() + 1;
  EXPECT_EQ(copy(to, c), c);  // canonical in its own manager: itself, and no node made
  EXPECT_EQ(to.sym(0).id(), next);
  Sexp y = to.sh_sym(to.make_symbol("x"));
  for (int i = 0; i < 64; ++i) y = to.sh_cons(y, y);
  EXPECT_EQ(c, to.sh_cons(y, parse(to, "(y)")));
}

}  // namespace
}  // namespace vorn
