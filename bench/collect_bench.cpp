// Cost of collection, of automatic collection, and of making nodes after the ids wrap.
// Each "Off"/"On" pair runs side by side in this one binary: compare their medians.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "support/internals.hpp"
#include "vorn/vorn.hpp"

namespace {

using vorn::Sexp;
using vorn::SexpManager;
using I = vorn::detail::SexpManagerInternals;

// A list of n canonical conses over one symbol; each cons is a new shape.
Sexp shared_list(SexpManager& m, std::int64_t n) {
  Sexp list = m.nil();
  const Sexp x = m.sh_sym(1);
  for (std::int64_t i = 0; i < n; ++i) list = m.sh_cons(x, list);
  return list;
}

// collect() over a table of n live entries with nothing to give back: ns per entry swept.
void BM_CollectNothingToGiveBack(benchmark::State& state) {
  SexpManager m;
  const Sexp held = shared_list(m, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(m.collect());
  state.counters["ns_per_entry"] = benchmark::Counter(
      static_cast<double>(I::shared_size(m)) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CollectNothingToGiveBack)->Arg(1 << 16)->Arg(1 << 20);

// collect() of a table of n live entries and one dead one: the full sweep, ns per entry.
void BM_CollectSweepOneDead(benchmark::State& state) {
  SexpManager m;
  const Sexp held = shared_list(m, state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    m.sh_sym(2);
    state.ResumeTiming();
    benchmark::DoNotOptimize(m.collect());
  }
  state.counters["ns_per_entry"] = benchmark::Counter(
      static_cast<double>(I::shared_size(m)) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CollectSweepOneDead)->Arg(1 << 16)->Arg(1 << 20);

// collect() giving back a whole unheld list of n canonical conses (and its symbol): ns per
// node given back, sweep included.
void BM_CollectGiveBack(benchmark::State& state) {
  SexpManager m;
  std::int64_t given = 0;
  for (auto _ : state) {
    state.PauseTiming();
    shared_list(m, state.range(0));
    state.ResumeTiming();
    given += static_cast<std::int64_t>(m.collect());
  }
  state.counters["ns_per_node"] = benchmark::Counter(
      static_cast<double>(given), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CollectGiveBack)->Arg(1 << 16)->Arg(1 << 20);

// Share-miss: 2^20 new canonical conses per iteration in a fresh manager, all kept (so
// automatic collection finds nothing and only costs). Arg: automatic mode off (0) or on (1).
void BM_ShareMiss(benchmark::State& state) {
  constexpr int n = 1 << 20;
  for (auto _ : state) {
    state.PauseTiming();
    {
      SexpManager m;
      m.set_auto_collect(state.range(0) != 0);
      std::vector<Sexp> kept;
      kept.reserve(n);
      const Sexp x = m.sh_sym(1);
      Sexp list = m.nil();
      state.ResumeTiming();
      for (int i = 0; i < n; ++i) list = m.sh_cons(x, list);
      state.PauseTiming();
      benchmark::DoNotOptimize(list.get());
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ShareMiss)->ArgName("auto")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Share-hit: one existing shape looked up again. Arg: automatic mode off (0) or on (1).
void BM_ShareHit(benchmark::State& state) {
  SexpManager m;
  m.set_auto_collect(state.range(0) != 0);
  const Sexp list = shared_list(m, 1 << 16), x = m.sh_sym(1), tail = list.cdr();
  for (auto _ : state) benchmark::DoNotOptimize(m.sh_cons(x, tail).get());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ShareHit)->ArgName("auto")->Arg(0)->Arg(1);

// Churn: 2^21 terms (f_i . (a_j . nil)) made and dropped, one in 64 kept. Reports the
// table's final buckets and entries and the node slots taken, off (0) against on (1).
void BM_Churn(benchmark::State& state) {
  constexpr unsigned long n = 1ul << 21;
  std::size_t buckets = 0, entries = 0, slots = 0;
  for (auto _ : state) {
    SexpManager m;
    m.set_auto_collect(state.range(0) != 0);
    std::vector<Sexp> kept;
    kept.reserve(n / 64);
    for (unsigned long i = 0; i < n; ++i) {
      Sexp t = m.sh_cons(m.sh_sym(i), m.sh_cons(m.sh_sym(i % 1000), m.nil()));
      if (i % 64 == 0) kept.push_back(t);
    }
    buckets = I::shared_buckets(m), entries = I::shared_size(m);
    slots = I::free_slots(m) + I::slots_in_use(m);
  }
  state.counters["table_buckets"] = static_cast<double>(buckets);
  state.counters["table_entries"] = static_cast<double>(entries);
  state.counters["node_slots"] = static_cast<double>(slots);
  // Bucket array, chain nodes (16 bytes) and node slots (32 bytes), in MiB.
  state.counters["MiB"] = static_cast<double>(buckets * 8 + entries * 16 + slots * 32) / (1 << 20);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}
BENCHMARK(BM_Churn)->ArgName("auto")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// 2^16 nodes that stay alive. With `wrapped`, their ids are spread over the whole id space
// and the counter is taken past its end, so new ids skip a live one every 2^16 and the
// counter runs out again (a new snapshot) every 2^32 nodes; otherwise ids are as made.
std::vector<Sexp> live_nodes(SexpManager& m, bool wrapped) {
  std::vector<Sexp> live;
  constexpr std::uint32_t spread = 1u << 16;
  for (std::uint32_t i = 1; i <= spread; ++i) {
    if (wrapped) I::set_next_id(m, i * (0xFFFFFFFFu / spread));
    live.push_back(m.sym(i));
  }
  if (wrapped) {
    I::set_next_id(m, 0xFFFFFFFFu);
    m.sym(0), m.sym(0);  // the last id, then the snapshot
  }
  return live;
}

// Making and dropping a plain node, before (0) and after (1) the ids wrap.
void BM_MakeNode(benchmark::State& state) {
  SexpManager m;
  const std::vector<Sexp> live = live_nodes(m, state.range(0) != 0);
  for (auto _ : state) benchmark::DoNotOptimize(m.sym(0).get());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeNode)->ArgName("wrapped")->Arg(0)->Arg(1);

// The same for a canonical miss (dropped at once, so its slot and id come back next time
// only through collection, which is left out here).
void BM_MakeSharedNode(benchmark::State& state) {
  SexpManager m;
  const std::vector<Sexp> live = live_nodes(m, state.range(0) != 0);
  Sexp list = m.nil();
  const Sexp x = m.sh_sym(1);
  for (auto _ : state) list = m.sh_cons(x, list);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeSharedNode)->ArgName("wrapped")->Arg(0)->Arg(1);

}  // namespace
