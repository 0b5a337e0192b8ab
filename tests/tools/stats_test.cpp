#include "stats.hpp"

#include <gmock/gmock.h>

#include "support/small_stack.hpp"
#include "vorn/text/parse.hpp"

namespace vorn::tool {
namespace {

TEST(TreeCounter, CountsTreeNodesAndDistinctNodesOverExpressions) {
  // clang-format off
  const std::tuple<std::vector<const char*>, std::uint64_t, std::uint64_t> cases[] = {
      {{"a"}, 1, 1}, {{"()"}, 1, 1},
      {{"(f x x)"}, 7, 6},             // 3 cells, f, x twice, nil; x once
      {{"(a . b)", "(a . b)"}, 6, 3},  // an expression added twice counts twice as a tree
      {{"((x y) (x y) . (x y))"}, 17, 7},
      {{"(f x)", "(g (f x))"}, 5 + 9, 5 + 3},
  };
  // clang-format on
  for (const auto& [texts, elements, distinct] : cases) {
    SexpManager m;
    TreeCounter counter;
    for (const char* text : texts) counter.add(parse(m, text));
    EXPECT_EQ(counter.elements(), elements) << texts[0];
    EXPECT_EQ(counter.distinct(), distinct) << texts[0];
  }
}

TEST(TreeCounter, DeepAndExponentialDagsOnASmallStack) {
  test::run_on_small_stack([] {
    SexpManager m;
    TreeCounter counter;
    Sexp e = m.sh_sym(m.make_symbol("a"));
    for (int i = 0; i < 63; ++i) e = m.sh_cons(e, e);  // 2^64 - 1 tree nodes
    counter.add(e);
    EXPECT_EQ(counter.elements(), ~std::uint64_t{0});
    counter.add(m.sh_cons(e, e));  // past it: saturates
    EXPECT_EQ(counter.elements(), ~std::uint64_t{0});
    EXPECT_EQ(counter.distinct(), 65u);

    TreeCounter list;  // a million-element list: a million cells, its atoms and nil
    Sexp l = m.nil();
    for (int i = 0; i < 1'000'000; ++i)
      l = m.sh_cons(m.sh_sym(m.make_symbol(i % 2 ? "x" : "y")), l);
    list.add(l);
    EXPECT_EQ(list.elements(), 2'000'001u);
    EXPECT_EQ(list.distinct(), 1'000'003u);
  });
}

TEST(StatsTable, AlignsColumnsAndAddsATotalForSeveralRows) {
  const StatsRow a{"a.sx", 2048, 700, 100, std::uint64_t{40960}, 0.002};
  const StatsRow b{"long/name.sx", 10, 5, 5, std::nullopt, 0};
  EXPECT_EQ(stats_table({a}),
            "file    bytes  elements  distinct  sharing      heap  heap/node      read  MB/s\n"
            "a.sx  2.0 KiB       700       100     7.00  40.0 KiB    409.6 B  2.000 ms   1.0\n");
  EXPECT_EQ(
      stats_table({a, b}),
      "file            bytes  elements  distinct  sharing      heap  heap/node      read  MB/s\n"
      "a.sx          2.0 KiB       700       100     7.00  40.0 KiB    409.6 B  2.000 ms   1.0\n"
      "long/name.sx     10 B         5         5     1.00         -          -  0.000 ms     -\n"
      "total         2.0 KiB       705       105     6.71         -          -  2.000 ms   1.0\n");
}

}  // namespace
}  // namespace vorn::tool
