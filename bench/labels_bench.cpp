// Text with datum labels (WriteOptions::shared): writing and reading back shared expressions.
//
//   depth/K      the DAG x0 = a, x(k+1) = (x(k) . x(k)) of depth K: K + 1 distinct nodes,
//                2^K leaves as a tree. Plain text is written for K = 20 only, to show what
//                the labels save; at 60 it would be 2^60 leaves.
//   share-miss/N the random DAG of bench/compare's share-miss workload (N distinct conses
//                over 1024 leaves, children drawn uniformly), under one list of its conses
//                that no other cons refers to.
//
// Reading makes a fresh manager each iteration (inside the timing), as a program loading a
// file does. Counters: items_per_second counts distinct conses; text_bytes_per_cons is the
// size of the labelled text per distinct cons.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include <vorn/vorn.hpp>

#include "suite/inputs.hpp"

namespace {

const vorn::WriteOptions labelled{vorn::Dialect::vorn, false, 80, 2, true};

struct Dag {
  vorn::SexpManager m;
  vorn::Sexp root;
  std::size_t conses = 0;
};

// The depth-K DAG.
void depth_dag(Dag& d, int depth) {
  d.root = d.m.sh_sym(d.m.make_symbol("a"));
  for (int k = 0; k < depth; ++k) d.root = d.m.sh_cons(d.root, d.root);
  d.conses = static_cast<std::size_t>(depth);
}

// The share-miss DAG of n conses, under the list of those no cons refers to.
void share_miss_dag(Dag& d, std::size_t n) {
  std::vector<vorn::Sexp> nodes;
  nodes.reserve(bench::leaf_count + n);
  for (std::uint32_t i = 0; i < bench::leaf_count; ++i)
    nodes.push_back(d.m.sh_sym(d.m.make_symbol(("leaf" + std::to_string(i)).c_str())));
  std::vector<bool> referred(bench::leaf_count + n, false);
  for (const auto& [a, b] : bench::share_pairs(n)) {
    nodes.push_back(d.m.sh_cons(nodes[a], nodes[b]));
    referred[a] = referred[b] = true;
  }
  d.root = d.m.nil();
  d.conses = n;
  for (std::size_t i = bench::leaf_count; i < nodes.size(); ++i) {
    if (referred[i]) continue;
    d.root = d.m.sh_cons(nodes[i], d.root);
    ++d.conses;
  }
}

void make(Dag& d, const benchmark::State& state, bool share_miss) {
  if (share_miss) {
    share_miss_dag(d, static_cast<std::size_t>(state.range(0)));
  } else {
    depth_dag(d, static_cast<int>(state.range(0)));
  }
}

void count(benchmark::State& state, const Dag& d, std::size_t text_bytes) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * d.conses));
  state.counters["text_bytes_per_cons"] =
      static_cast<double>(text_bytes) / static_cast<double>(d.conses);
}

void write(benchmark::State& state, bool share_miss, const vorn::WriteOptions& options) {
  Dag d;
  make(d, state, share_miss);
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string text = vorn::to_text(d.root, options);
    bytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  count(state, d, bytes);
}

void read(benchmark::State& state, bool share_miss) {
  Dag d;
  make(d, state, share_miss);
  const std::string text = vorn::to_text(d.root, labelled);
  for (auto _ : state) {
    vorn::SexpManager fresh;
    const vorn::Sexp e = vorn::parse(fresh, text);
    benchmark::DoNotOptimize(e.get());
  }
  count(state, d, text.size());
}

void BM_WriteLabelledDepth(benchmark::State& state) { write(state, false, labelled); }
void BM_WritePlainDepth(benchmark::State& state) { write(state, false, {}); }
void BM_ReadLabelledDepth(benchmark::State& state) { read(state, false); }
void BM_WriteLabelledShareMiss(benchmark::State& state) { write(state, true, labelled); }
void BM_ReadLabelledShareMiss(benchmark::State& state) { read(state, true); }

}  // namespace

BENCHMARK(BM_WriteLabelledDepth)->Arg(20)->Arg(60)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WritePlainDepth)->Arg(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadLabelledDepth)->Arg(20)->Arg(60)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WriteLabelledShareMiss)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadLabelledShareMiss)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
