// Cost of one match: a non-linear pattern, and the list form over many alternatives.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <vorn/vorn.hpp>

namespace {

using vorn::Sexp;

struct Terms {
  vorn::SexpManager m;
  Sexp sym(const std::string& name) { return m.sh_sym(m.make_symbol(name.c_str())); }
  Sexp list(const std::vector<Sexp>& xs) {
    Sexp tail = m.nil();
    for (auto it = xs.rbegin(); it != xs.rend(); ++it) tail = m.sh_cons(*it, tail);
    return tail;
  }
};

// (f X (g X Y) Y) against (f t (g t u) u) and against (f t (g t u) t), where t and u are
// small shared subtrees: every pass binds or compares a variable, the repeat costs an id check.
void BM_MatchNonLinear(benchmark::State& state) {
  Terms t;
  const Sexp X = t.sym("X"), Y = t.sym("Y"), f = t.sym("f"), g = t.sym("g");
  vorn::SexpMatcher matcher({X, Y});
  const Sexp pattern = t.list({f, X, t.list({g, X, Y}), Y});
  const Sexp a = t.list({t.sym("h"), t.sym("a"), t.sym("b")});
  const Sexp b = t.list({t.sym("k"), t.sym("c")});
  const bool succeed = state.range(0) == 1;
  const Sexp expr = t.list({f, a, t.list({g, a, b}), succeed ? b : a});
  for (auto _ : state) {
    const bool ok = matcher.match(pattern, expr);
    if (ok != succeed) state.SkipWithError("unexpected match result");
    benchmark::DoNotOptimize(ok);
  }
  state.SetItemsProcessed(state.iterations());
}

// 100 patterns (op_i X Y), each with its own head; the expression matches the last one.
// All but one are rejected by the head check before the walk starts.
void BM_MatchFirstOfMany(benchmark::State& state) {
  Terms t;
  const Sexp X = t.sym("X"), Y = t.sym("Y");
  vorn::SexpMatcher matcher({X, Y});
  std::vector<Sexp> patterns;
  const int count = static_cast<int>(state.range(0));
  for (int i = 0; i < count; ++i) patterns.push_back(t.list({t.sym("op" + std::to_string(i)), X, Y}));
  const Sexp expr = t.list({t.sym("op" + std::to_string(count - 1)), t.sym("a"), t.sym("b")});
  for (auto _ : state) {
    const auto index = matcher.match(patterns, expr);
    if (index != static_cast<std::uint64_t>(count - 1)) state.SkipWithError("wrong pattern");
    benchmark::DoNotOptimize(index);
  }
  state.SetItemsProcessed(state.iterations());
}

// A pattern over a long list: (e0 e1 ... X) against the same list ending in a symbol.
void BM_MatchLongList(benchmark::State& state) {
  Terms t;
  const Sexp X = t.sym("X");
  vorn::SexpMatcher matcher({X});
  std::vector<Sexp> elements;
  for (int i = 0; i < state.range(0); ++i) elements.push_back(t.sym("e" + std::to_string(i % 64)));
  const Sexp expr = t.list(elements);
  elements.back() = X;
  const Sexp pattern = t.list(elements);
  for (auto _ : state) benchmark::DoNotOptimize(matcher.match(pattern, expr));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_MatchNonLinear)->Arg(1)->Arg(0);
BENCHMARK(BM_MatchFirstOfMany)->Arg(100);
BENCHMARK(BM_MatchLongList)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
