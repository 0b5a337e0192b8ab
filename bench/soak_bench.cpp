// Soak runs, not timings.
//
// Soak: a billion node creations and releases through a steady working set. Each step
// replaces one entry of a ring of expressions with a fresh list of plain nodes over a fixed
// alphabet of shared leaves, releasing the list it held. Because dead slots are reused, the
// process's peak memory must not grow once the ring is full; the run reports it after
// warm-up and at the end, and fails if it grew by more than 1 MiB.
//
// SoakCollecting: the same for a host that makes canonical nodes without end, 10^10 nodes
// in all, through a ring of 4096 expressions: every fourth step also makes two canonical
// nodes of a shape never seen before, and the manager collects after every round of 2^16
// steps. The id counter reaches its end
// twice on the way. Warm-up ends a little after the first wrap (whose snapshot of live ids
// is part of the steady state); from there to the end, after the second wrap, peak memory
// must not grow by more than 1 MiB.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdint>
#include <vector>

#include "support/internals.hpp"
#include "vorn/vorn.hpp"

namespace {

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Replaces one entry of `ring` by a fresh list of 1 to 4 plain conses of plain symbols
// ending in a shared cons of two leaves (at most 64 * 64 shapes, all made early on).
// Returns the number of nodes made.
unsigned step(vorn::SexpManager& m, const std::vector<vorn::Sexp>& leaves,
              std::vector<vorn::Sexp>& ring, std::uint64_t x) {
  vorn::Sexp list = m.sh_cons(leaves[x % 64], leaves[(x >> 6) % 64]);
  const unsigned n = 1 + static_cast<unsigned>(x >> 12) % 4;
  std::uint64_t bits = x >> 16;
  for (unsigned i = 0; i < n; ++i, bits >>= 8) list = m.cons(m.sym(bits & 255), list);
  ring[(x >> 48) % ring.size()] = list;
  return 2 * n;
}

void Soak(benchmark::State& state) {
  const auto total = static_cast<std::uint64_t>(state.range(0));  // nodes to make
  constexpr std::uint64_t ring_size = 1 << 16;
  for (auto _ : state) {
    vorn::SexpManager m;
    std::vector<vorn::Sexp> leaves;  // canonical, alive for the whole run
    for (unsigned long v = 0; v < 64; ++v) leaves.push_back(m.sh_sym(v));
    std::vector<vorn::Sexp> ring(ring_size);
    std::uint64_t x = total;  // xorshift64 state
    std::uint64_t made = 0;
    long warm = 0;
    while (made < total) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      made += step(m, leaves, ring, x);
      if (warm == 0 && made >= total / 100) warm = peak_rss_kib();
    }
    const long end = peak_rss_kib();
    state.counters["nodes_made"] = static_cast<double>(made);
    state.counters["peak_rss_warm_KiB"] = static_cast<double>(warm);
    state.counters["peak_rss_end_KiB"] = static_cast<double>(end);
    if (end > warm + 1024) state.SkipWithError("peak memory grew after warm-up");
  }
}
BENCHMARK(Soak)->Arg(1000000000)->Iterations(1)->Unit(benchmark::kSecond);

void SoakCollecting(benchmark::State& state) {
  const auto total = static_cast<std::uint64_t>(state.range(0));  // nodes to make
  // A ring and rounds small enough to stay in cache: 10^10 nodes take minutes, not hours.
  constexpr std::uint64_t ring_size = 1 << 12, round = 1 << 16;
  for (auto _ : state) {
    vorn::SexpManager m;
    std::vector<vorn::Sexp> leaves;
    for (unsigned long v = 0; v < 64; ++v) leaves.push_back(m.sh_sym(v));
    std::vector<vorn::Sexp> ring(ring_size);
    std::uint64_t x = total, made = 0, fresh_value = 1 << 20, collected = 0, wraps = 0;
    long early = 0, warm = 0;
    std::uint32_t last_id = 0;
    while (made < total) {
      for (std::uint64_t i = 0; i < round; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        made += step(m, leaves, ring, x);
        if (i % 4 == 0) {  // a new symbol value and a cons over it: two misses, two nodes
          ring[x % ring_size] = m.sh_cons(leaves[x % 64], m.sh_sym(fresh_value++));
          made += 2;
        }
      }
      collected += m.collect();
      const std::uint32_t id = vorn::detail::SexpManagerInternals::next_id(m);
      wraps += id < last_id;
      last_id = id;
      if (early == 0 && made >= total / 100) early = peak_rss_kib();
      if (warm == 0 && wraps == 1 && made >= (std::uint64_t{1} << 32) + total / 20)
        warm = peak_rss_kib();
    }
    const long end = peak_rss_kib();
    state.counters["nodes_made"] = static_cast<double>(made);
    state.counters["collected"] = static_cast<double>(collected);
    state.counters["id_wraps"] = static_cast<double>(wraps);
    state.counters["peak_rss_1pct_KiB"] = static_cast<double>(early);
    state.counters["peak_rss_warm_KiB"] = static_cast<double>(warm);
    state.counters["peak_rss_end_KiB"] = static_cast<double>(end);
    if (wraps < 2) state.SkipWithError("the id counter did not reach its end twice");
    if (warm == 0 || end > warm + 1024) state.SkipWithError("peak memory grew after warm-up");
  }
}
BENCHMARK(SoakCollecting)->Arg(10000000000)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
