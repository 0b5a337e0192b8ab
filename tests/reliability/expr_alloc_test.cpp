// Allocation behaviour of nodes, names, the matcher and the string table: slots reused
// before any new chunk, and what a refused allocation leaves.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them and can make any of them fail.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/internals.hpp"
#include "support/malloc_probe.hpp"
#include "support/string_samples.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/string_table.hpp"
#include "vorn/text/parse.hpp"

namespace vorn {
namespace {

using Internals = detail::SexpManagerInternals;
using test::MallocProbe;
using Words = std::vector<std::uint64_t>;

// The slots of a released list serve the next nodes: no chunk is taken while they last.
TEST(SexpHandle, ReleasedSlotsServeNewNodesFirst) {
  SexpManager m;
  const Sexp nil = m.nil();
  Sexp list = nil, chain = nil;
  for (int i = 0; i < 1'000'000; ++i) list = m.cons(nil, list);
  list = Sexp();
  MallocProbe probe;
  for (int i = 0; i < 1'000'000; ++i) chain = m.cons(chain, nil);
  EXPECT_EQ(probe.calls(), 0u);
}

// A name whose copy cannot be made is not entered: the name table and the symbol table keep
// their sizes.
TEST(SexpManagerSymbols, AFailedNameCopyEntersNothing) {
  SexpManager m;
  for (const char* name : {"f", "abc", "ABC"}) m.make_symbol(name);
  const std::size_t names = Internals::name_count(m), symbols = Internals::symbol_size(m);
  MallocProbe probe;
  probe.fail_at(0);
  EXPECT_THROW(m.make_symbol("fresh"), std::bad_alloc);
  EXPECT_EQ(probe.size(0), 6u);  // the copy of the name
  EXPECT_EQ(Internals::name_count(m), names);
  EXPECT_EQ(Internals::symbol_size(m), symbols);
}

// A match that runs out of memory part way leaves pairs on its stack; they must hold their
// references, so that every count is whole again once the matcher is gone.
TEST(Matcher, FailedAllocationMidWalkLeavesCountsWhole) {
  SexpManager m;
  const Sexp X = parse(m, "X"), Y = parse(m, "Y");
  const Sexp p = parse(m, "(f X (g X Y) Y)"), e = parse(m, "(f a (g a b) b)");
  std::vector<Sexp_*> nodes;
  for (std::vector<Sexp_*> todo{p.get(), e.get()}; !todo.empty();) {
    Sexp_* n = todo.back();
    todo.pop_back();
    nodes.push_back(n);
    if (n->is_symbol == 0) todo.insert(todo.end(), {n->car, n->cdr});
  }
  std::vector<std::uint32_t> before;
  for (const Sexp_* n : nodes) before.push_back(n->refcount);
  bool thrown = true;
  for (std::size_t call = 0; thrown; ++call) {
    auto mt = std::make_unique<SexpMatcher>(std::vector<Sexp>{X, Y});
    MallocProbe probe(true);
    probe.fail_at(call);
    try {
      EXPECT_TRUE(mt->match(p, e));
      thrown = false;
    } catch (const std::bad_alloc&) {
    }
    mt.reset();
    for (std::size_t i = 0; i < nodes.size(); ++i) ASSERT_EQ(nodes[i]->refcount, before[i]) << call;
  }
}

// Contents are numbered densely in order of first sight, and a view of one never moves; a
// failed allocation leaves the table as it was, and the content goes in afterwards.
TEST(StringTable, DenseIndicesStableViewsAndAFailedAllocationLeavesTheTableAsItWas) {
  const std::vector<std::string> contents = test::string_samples();
  std::vector<const char*> data;
  data.reserve(contents.size());  // not while the probe counts
  for (std::size_t fail = 0;; ++fail) {
    StringTable t;
    std::size_t done = 0;
    bool failed = false;
    data.clear();
    {
      MallocProbe probe(true);
      probe.fail_at(fail);
      for (; done < contents.size(); ++done) {
        try {
          ASSERT_EQ(t.intern(contents[done]), done);
          data.push_back(t.at(done).data());
        } catch (const std::bad_alloc&) {
          failed = true;
          break;
        }
      }
    }
    ASSERT_EQ(t.size(), done);
    for (std::size_t i = 0; i < done; ++i) {
      ASSERT_EQ(t.at(i), contents[i]) << fail << " " << i;
      ASSERT_EQ(t.at(i).data(), data[i]) << fail << " " << i;
    }
    if (failed) {
      EXPECT_EQ(t.intern(contents[done]), done);  // the failed one goes in afterwards
      continue;
    }
    EXPECT_FALSE(t.contains(done));
    for (std::size_t i = 0; i < done; ++i) ASSERT_EQ(t.intern(std::string(contents[i])), i) << i;
    EXPECT_EQ(t.size(), done);  // found again from another copy
    break;
  }
}

// sh_sym and sh_cons make their node whether or not its shape exists: a hit, like a miss,
// needs an id, so at the counter's end it takes a snapshot of the live ids, and a slot, so a
// full node pool takes a chunk. Refused that memory, either throws and changes nothing.
TEST(SexpManagerSharing, HitsNeedAnIdAndASlotAsMissesDo) {
  for (const bool ids_run_out : {true, false}) {
    for (const bool cons : {false, true}) {
      for (const bool hit : {true, false}) {
        SCOPED_TRACE(testing::Message() << (ids_run_out ? "ids, " : "slots, ")
                                        << (cons ? "sh_cons, " : "sh_sym, ") << hit);
        SexpManager m;
        const Sexp a = m.sh_sym(1), c = m.sh_cons(a, a);
        std::vector<Sexp> fill;
        if (ids_run_out) Internals::set_next_id(m, 0);  // every id has been handed out
        while (!ids_run_out && Internals::slots_in_use(m) < 1024) fill.push_back(m.sym(2));
        const std::size_t need = ids_run_out ? 4 * Internals::slots_in_use(m) : 8 + 1024 * 32;
        const auto share = [&] { return cons ? m.sh_cons(hit ? a : c, a) : m.sh_sym(hit ? 1 : 3); };
        const auto state = [&] {  // an array: the probe counts every allocation
          return std::array<std::uint64_t, 6>{
              Internals::next_id(m),       Internals::shared_size(m), Internals::slots_in_use(m),
              Internals::snapshot_size(m), a.get()->refcount,         c.get()->refcount};
        };
        const auto before = state();
        MallocProbe probe(true);
        probe.fail_at(0);
        EXPECT_THROW(share(), std::bad_alloc);
        EXPECT_EQ(state(), before);
        EXPECT_EQ(share() == (cons ? c : a), hit);
        const std::size_t calls = probe.calls();  // the retry asked for the same memory
        EXPECT_EQ((Words{calls, probe.size(0), probe.size(1)}), (Words{2, need, need}));
      }
    }
  }
}

}  // namespace
}  // namespace vorn
