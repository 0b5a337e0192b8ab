// Allocation behaviour of nodes, names, the matcher and the string table: slots reused
// before any new chunk, and what a refused allocation leaves.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them and can make any of them fail.
#include <gtest/gtest.h>

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

namespace vorn {
namespace {

using Internals = detail::SexpManagerInternals;
using test::MallocProbe;

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
  const auto S = [&m](const char* name) { return m.sh_sym(m.make_symbol(name)); };
  const auto L = [&m](std::vector<Sexp> items) {  // (p q r ...): canonical, ending in nil
    Sexp list = m.nil();
    for (auto i = items.rbegin(); i != items.rend(); ++i) list = m.sh_cons(*i, list);
    return list;
  };
  const Sexp f = S("f"), g = S("g"), a = S("a"), b = S("b"), X = S("X"), Y = S("Y");
  const Sexp p = L({f, X, L({g, X, Y}), Y}), e = L({f, a, L({g, a, b}), b});
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

TEST(StringTable, AFailedAllocationLeavesTheTableAsItWas) {
  const std::vector<std::string> contents = test::string_samples();
  for (std::size_t fail = 0;; ++fail) {
    StringTable t;
    std::size_t done = 0;
    bool failed = false;
    {
      MallocProbe probe(true);
      probe.fail_at(fail);
      for (; done < contents.size(); ++done) {
        try {
          t.intern(contents[done]);
        } catch (const std::bad_alloc&) {
          failed = true;
          break;
        }
      }
    }
    ASSERT_EQ(t.size(), done);
    for (std::size_t i = 0; i < done; ++i) ASSERT_EQ(t.at(i), contents[i]) << fail << " " << i;
    if (!failed) break;
    EXPECT_EQ(t.intern(contents[done]), done);  // the failed one goes in afterwards
  }
}

}  // namespace
}  // namespace vorn
