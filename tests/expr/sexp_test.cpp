#include "vorn/expr/sexp.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "vorn/expr/manager.hpp"

namespace vorn {
namespace {

using Counts = std::vector<std::uint32_t>;
using Slots = std::vector<Sexp_*>;

template <class... Handles>
Counts counts_of(const Handles&... h) {
  return {h.get()->refcount...};
}

TEST(SexpNode, CountWrapsModulo2To31BesideTheKindBit) {
  Sexp_ n;  // an unmanaged symbol of count 1: reaching 0 reclaims nothing
  n.release();
  n.release();
  std::uint32_t word;  // the word after the id: count in bits 0-30, kind in bit 31
  std::memcpy(&word, reinterpret_cast<const char*>(&n) + 4, sizeof word);
  n.add_ref();
  EXPECT_EQ((Counts{word, n.refcount, n.is_symbol}), (Counts{0xFFFFFFFFu, 0, 1}));
}

TEST(SexpHandle, CopyAssignmentAndSetcarCount) {
  SexpManager m;
  const Sexp null, leaf = m.sym(1), x = m.sym(2);
  EXPECT_TRUE(Sexp(null).is_null());
  Sexp s = m.sym(5), copy = s;
  s = copy;  // between two holders of one node
  EXPECT_EQ(counts_of(s), Counts{2});
  copy = Sexp();
  Sexp& self = s;
  s = self;  // the only holder, assigned to itself, keeps the node
  EXPECT_EQ(counts_of(s), Counts{1});
  EXPECT_NE(m.sym(6).get(), s.get());
  Sexp old = m.cons(leaf, m.nil()), c = m.cons(old, leaf);
  c.setcar(old);  // the same car again
  EXPECT_EQ(counts_of(old, leaf, c), (Counts{2, 3, 1}));
  Sexp_* const freed = old.get();
  old = Sexp();
  c.setcar(x);  // the old car dies, and its reference on leaf with it
  EXPECT_EQ(counts_of(x, leaf), (Counts{2, 2}));
  EXPECT_EQ(m.sym(0).get(), freed);
}

TEST(SexpHandle, DyingTreesReturnSlotsInPostOrder) {
  SexpManager m;
  const Sexp kept = m.sym(99);  // also held outside the trees, so it survives
  // Postfix: x a new symbol, k kept, '.' a cons of the two before. "xx." is one cons.
  for (const char* rpn : {"xx.", "xk.k.xxxkxx...xxkx.x.xkxx.x..x...xx........"}) {
    std::vector<Sexp> st;
    Slots made, reused;  // made: the nodes that die, car subtree then cdr subtree then node
    for (const char* p = rpn; *p != '\0'; ++p) {
      st.push_back(*p == '.' ? m.cons(st.end()[-2], st.back()) : *p == 'k' ? kept : m.sym(0));
      if (*p == '.') st.erase(st.end() - 3, st.end() - 1);
      if (*p != 'k') made.push_back(st.back().get());
    }
    st.clear();  // drops the root, the only node still held
    for (std::size_t i = 0; i < made.size(); ++i) reused.push_back(st.emplace_back(m.sym(0)).get());
    EXPECT_EQ(reused, Slots(made.rbegin(), made.rend())) << rpn;  // last freed, first reused
  }
  EXPECT_EQ(counts_of(kept), Counts{1});
}

}  // namespace
}  // namespace vorn
