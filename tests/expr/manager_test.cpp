#include "vorn/expr/manager.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/internals.hpp"

namespace vorn {
namespace {

using Internals = detail::SexpManagerInternals;
using Words = std::vector<std::uint64_t>;

template <class... Handles>
Words counts_of(const Handles&... h) {
  return {h.get()->refcount...};
}

TEST(SexpManager, NilAndPlainNodes) {
  SexpManager m;
  const Sexp nil = m.nil(), a = m.sym(7), b = m.sym(7);
  EXPECT_EQ((Words{nil.id(), nil.value(), a.id(), b.id(), b.value()}), (Words{0, 0, 1, 2, 7}));
  EXPECT_EQ(counts_of(a, m.cons(a, a)), (Words{3, 1}));
  Sexp_* const raw = m.alloc_sexp();  // id 4: the dead cons took 3
  EXPECT_EQ((Words{raw->id, raw->refcount, raw->is_symbol, raw->value}), (Words{4, 1, 1, 0}));
  m.free_sexp(raw);
  EXPECT_EQ(m.sym(1).get(), raw);  // a dropped node's slot comes next
}

// Past the counter's end, new nodes take the ids no live node has, in increasing order; a
// snapshot of the live ids is taken at the end and again when its gaps run out.
TEST(SexpManager, IdsWrapIntoTheGapsBetweenLiveIds) {
  SexpManager m;
  const Sexp a = m.sh_sym(1), b = m.sh_sym(2);  // ids 1, 2
  m.sym(3);                                     // id 3 dies: free after the wrap
  Internals::set_next_id(m, 6);
  const Sexp ab = m.sh_cons(a, b), six_b = m.cons(m.sym(7), b);  // ids 6; 7 (the sym), 8
  Internals::set_next_id(m, 0xFFFFFFFEu);
  std::vector<Sexp> held{m.sym(9), m.sh_sym(10)};  // the counter's last two ids
  EXPECT_EQ(Internals::snapshot_size(m), 0u);      // nothing taken before the end
  std::vector<std::uint32_t> ids;
  for (int i = 0; i < 3; ++i) held.push_back(m.sym(11)), ids.push_back(held.back().id());
  EXPECT_EQ(ids, (std::vector<std::uint32_t>{3, 4, 5}));
  EXPECT_EQ(Internals::snapshot_size(m), 8u);  // nil, a, b, ab, six_b and its car, held
  // Sharing still finds by the live children's ids, and a hit gives its id back.
  EXPECT_EQ(m.sh_cons(a, b), ab);
  Sexp hit = m.cons(a, b);
  EXPECT_EQ(m.strhash(hit), ab);
  EXPECT_EQ(m.sh_cons(held[2], b).id(), 9u);  // 6, 7 and 8 are live; the hit gave 9 back
  EXPECT_NE(m.sh_cons(held[3], b), m.sh_cons(held[2], b));
  // Once the gaps run out a new snapshot is taken: 5 died since, 3 and 4 are held by the
  // two canonical conses above. Within one snapshot, ids are not reused.
  held.resize(2);
  Internals::set_next_id(m, 0xFFFFFFFDu);
  ids.clear();
  for (int i = 0; i < 3; ++i) ids.push_back(m.sym(12).id());  // each dies at once
  EXPECT_EQ(ids, (std::vector<std::uint32_t>{0xFFFFFFFDu, 5, 11}));
}

// The counters follow what the manager does and change nothing themselves.
TEST(SexpManager, CountersReadWhatTheManagerDid) {
  SexpManager m;
  const auto counters = [&m] {
    return Words{m.next_id(), m.ids_handed_out(), m.canonical_count(), m.name_count()};
  };
  EXPECT_EQ(counters(), (Words{1, 1, 1, 1}));  // nil and the empty name
  EXPECT_EQ(counters(), counters());
  const Sexp a = m.sh_sym(m.make_symbol("a")), plain = m.sym(9);  // ids 1, 2
  EXPECT_EQ(counters(), (Words{3, 3, 2, 2}));
  const Sexp pair = m.sh_cons(a, a);  // id 3; a hit makes nothing
  EXPECT_EQ(m.sh_cons(a, a), pair);
  Sexp again = m.cons(a, a);  // id 4, given back by the sharing hit
  m.strhash(again);
  EXPECT_EQ(counters(), (Words{4, 4, 3, 2}));
  m.sh_cons(pair, pair);  // id 4 again: garbage, collected with its id not reused
  EXPECT_EQ(m.collect(), 1u);
  EXPECT_EQ(counters(), (Words{5, 5, 3, 2}));
  // Past the counter's end the 32-bit ids start again; the count of ids does not.
  Internals::set_next_id(m, 0xFFFFFFFFu);
  m.sym(1), m.sym(2);
  EXPECT_EQ(m.ids_handed_out(), 7u);
  EXPECT_LT(m.next_id(), 16u);
}

TEST(SexpManagerSymbols, InterningAndGrowth) {
  SexpManager m;
  char abc[] = "abc";  // a caller's buffer
  const char* const names[] = {"", "f", "abc", "ABC", "F", nullptr};
  // "abc" and "ABC" fall in one bucket of 31, so only the bytes tell them apart.
  for (unsigned long id = 0; id < 5; ++id) EXPECT_EQ(m.make_symbol(id == 2 ? abc : names[id]), id);
  abc[0] = 'x';  // the manager keeps its own copy, and finds it by content
  EXPECT_EQ(m.make_symbol("abc"), 2u);
  for (unsigned long id = 0; id < 6; ++id) EXPECT_STREQ(m.get_symbol_value(id), names[id]) << id;
  // The 23rd name grows the table from 31 buckets to 73; the second pass finds every name.
  for (int pass = 0; pass < 2; ++pass) {
    for (unsigned long id = 5; id <= 22; ++id) {
      EXPECT_EQ(m.make_symbol(("n" + std::to_string(id)).c_str()), id);
      EXPECT_EQ(Internals::symbol_buckets(m), pass || id == 22 ? 73u : 31u) << id;
    }
  }
  EXPECT_EQ((Words{Internals::name_count(m), Internals::symbol_size(m)}), (Words{23, 23}));
}

TEST(SexpManagerSharing, EqualShapesShareOneCanonicalNode) {
  SexpManager m;
  EXPECT_EQ(m.sh_sym(0), m.nil());
  const Sexp plain = m.sym(1), a = m.sh_sym(1);  // plain nodes are never canonical
  // Counted: the table's hold, a and the hit.
  EXPECT_EQ(counts_of(a, m.sh_sym(1)), (Words{3, 3}));
  const Sexp b = m.sh_sym(2), plain_ab = m.cons(a, b), c = m.sh_cons(a, b);
  // sh_sym(0) and the hit took no id
  EXPECT_EQ((Words{plain.id(), a.id(), b.id(), plain_ab.id(), c.id()}), (Words{1, 2, 3, 4, 5}));
  EXPECT_EQ(counts_of(c, a, b), (Words{2, 4, 4}));
  for (bool via_strhash : {false, true}) {  // a hit gives back the new node's slot and id
    // Dropped at once, so its slot is the next one handed out.
    Sexp_* const slot = m.sym(0).get();
    const std::uint32_t id = Internals::next_id(m);
    Sexp hit = via_strhash ? m.cons(a, b) : m.sh_cons(a, b);
    EXPECT_EQ(via_strhash ? &m.strhash(hit) : &hit, &hit);
    EXPECT_EQ(hit, c);
    EXPECT_EQ(counts_of(c, a, b), (Words{3, 4, 4}));
    const Sexp next = m.sym(0);
    EXPECT_EQ(std::make_pair(next.get(), next.id()), std::make_pair(slot, id));
  }
  EXPECT_NE(m.sh_cons(plain, b), c);  // the content of (a . b), another child id
  // c becomes (b . b) but stays filed under the shape (a . b).
  Sexp(c).setcar(b);
  EXPECT_NE(m.sh_cons(a, b), c);
}

TEST(SexpManagerSharing, StrhashEqReadsKindValuesAndChildIds) {
  Sexp_ kid[5], sym[3], cell[4];  // unmanaged symbols of value 0; cells die first
  const int links[] = {0, 1, 2, 3, 1, 0, 4, 4};
  for (int i = 0; i < 5; ++i) kid[i].id = i < 4 ? i % 2 + 1 : 0xFFFFFFFFu;
  for (std::size_t i = 0; i < 4; ++i)
    cell[i].is_symbol = 0, cell[i].car = &kid[links[2 * i]], cell[i].cdr = &kid[links[2 * i + 1]];
  sym[0].value = 5, sym[1].value = 0x100000005, sym[2].value = 16777218;
  const SexpManager::Sexp_strhash_eq f;
  EXPECT_EQ((Words{f(nullptr), f(&sym[1]), f(&cell[0]), f(&cell[3])}),
            (Words{0, 0x100000005, 16777218, 0x1000000FEFFFFFF}));
  const std::tuple<const Sexp_*, const Sexp_*, bool> pairs[] = {
      {nullptr, &kid[0], false},  {&kid[0], &kid[1], true},    {&sym[0], &sym[1], false},
      {&cell[0], &cell[1], true}, {&cell[0], &cell[2], false}, {&cell[0], &sym[2], false}};
  for (const auto& [x, y, equal] : pairs) EXPECT_EQ(f(x, y), equal) << x << " " << y;
}

// Sharing compares children by id, also where their addresses say otherwise: children of
// another manager, a foreign child set in place in a canonical cons, and an id given back by
// strhash while its node lives on (the next node takes the same id).
TEST(SexpManagerSharing, ChildrenCompareByIdWhereAddressesDiffer) {
  // One foreign child x, on either side, of a canonical cons entered by sh_cons, by strhash or
  // set in place, or of the shape sought: x and a have one id, so (x . b) is (a . b).
  for (int way = 0; way < 4; ++way) {
    for (const bool car_side : {true, false}) {
      SCOPED_TRACE(testing::Message() << "way " << way << (car_side ? ", car" : ", cdr"));
      SexpManager m, other;
      const Sexp a = m.sh_sym(10), b = m.sh_sym(11), x = other.sh_sym(20);
      const auto with = [&](const Sexp& k, bool shared) {  // (k . b) or (b . k)
        const Sexp &car = car_side ? k : b, &cdr = car_side ? b : k;
        return shared ? m.sh_cons(car, cdr) : m.cons(car, cdr);
      };
      Sexp c = with(way < 2 ? x : a, way != 1);
      if (way == 1) m.strhash(c);
      if (way == 2) car_side ? c.setcar(x) : c.setcdr(x);
      EXPECT_EQ(with(way == 3 ? x : a, true), c);
    }
  }
  SexpManager m, other;
  const Sexp a = m.sh_sym(10), b = m.sh_sym(11), x = other.sh_sym(20), y = other.sh_sym(21);
  ASSERT_EQ((Words{a.id(), b.id(), x.id(), y.id()}), (Words{1, 2, 1, 2}));
  Sexp c = m.sh_cons(a, b);
  EXPECT_EQ(m.sh_cons(x, y), c);
  EXPECT_NE(m.sh_cons(b, a), c);
  c.setcar(x);
  EXPECT_EQ(m.sh_cons(a, b), c);  // the ids of c's children are still those of a and b
  const Sexp xy = other.sh_cons(x, y);
  Sexp fresh = other.cons(x, y);
  const Sexp kept = fresh;
  EXPECT_EQ(other.strhash(fresh), xy);
  const Sexp twin = other.sym(12);
  ASSERT_EQ(twin.id(), kept.id());
  EXPECT_EQ(other.sh_cons(twin, y), other.sh_cons(kept, y));
}

}  // namespace
}  // namespace vorn
