// Sharing compares a cons's children by id. The manager may compare them by address instead
// while that gives the same answer; these are the cases where the two differ, and sharing
// must still follow the ids.
#include <gtest/gtest.h>

#include "vorn/expr/manager.hpp"

namespace vorn {
namespace {

// Children from another manager whose ids equal those of this manager's children.
TEST(SharingByIds, ChildrenOfAnotherManager) {
  SexpManager m1, m2;
  const Sexp a = m1.sh_sym(10), b = m1.sh_sym(11);  // ids 1, 2
  const Sexp c = m1.sh_cons(a, b);
  const Sexp x = m2.sh_sym(20), y = m2.sh_sym(21);  // ids 1, 2 as well
  ASSERT_EQ(x.id(), a.id());
  ASSERT_EQ(y.id(), b.id());
  EXPECT_EQ(m1.sh_cons(x, y), c);
  EXPECT_NE(m1.sh_cons(b, a), c);
}

// A canonical cons given, by setcar, a foreign child with the id of the child it had.
TEST(SharingByIds, ForeignChildSetInPlace) {
  SexpManager m1, m2;
  const Sexp a = m1.sh_sym(10), b = m1.sh_sym(11);
  Sexp c = m1.sh_cons(a, b);
  const Sexp q = m2.sh_sym(30);  // id 1, as a
  ASSERT_EQ(q.id(), a.id());
  c.setcar(q);
  EXPECT_EQ(m1.sh_cons(a, b), c);  // same ids as c's children: c, though its car is q
}

// strhash gives back the id of a node that another handle keeps alive: the next node takes
// the same id, and sharing cannot tell the two apart.
TEST(SharingByIds, IdGivenBackWhileItsNodeLives) {
  SexpManager m;
  const Sexp a = m.sh_sym(10), b = m.sh_sym(11);
  const Sexp c = m.sh_cons(a, b);
  Sexp fresh = m.cons(a, b);
  const Sexp kept = fresh;
  m.strhash(fresh);
  ASSERT_EQ(fresh, c);
  const Sexp twin = m.sym(12);  // takes kept's id
  ASSERT_EQ(twin.id(), kept.id());
  const Sexp d = m.sh_cons(kept, b);
  EXPECT_EQ(m.sh_cons(twin, b), d);
}

}  // namespace
}  // namespace vorn
