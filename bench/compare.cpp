// vorn side by side with what a user would pick instead, on the workloads the library
// exists for: building shared expressions (share-miss), asking for them again (share-hit),
// plain lists, interning names, matching, printing, and dropping a very long list.
//
// Systems: vorn; a hand-written baseline (std::shared_ptr nodes, std::unordered_map
// sharing and names); Boost.Flyweight and Z3's C API where their headers were found at
// configure time (otherwise their rows say why they were skipped); and a floor, the least
// work the same operation can be done with (see suite/sys_floor.hpp).
//
// Every run prints Google Benchmark's usual lines and then one table: per workload and
// size, each system's median over the repetitions, with its cost relative to vorn and to
// the floor. `bench/compare` builds in Release and runs this with 3 repetitions.
//
// Extra flags (before Google Benchmark's own): --max_exp=K runs sizes 10^3 .. 10^K only
// (default 7); --table_out=FILE also writes the table to FILE.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "suite/inputs.hpp"
#include "suite/sys_baseline.hpp"
#include "suite/sys_floor.hpp"
#include "suite/sys_vorn.hpp"
#include "suite/table.hpp"
#ifdef VORN_BENCH_HAVE_BOOST
#include "suite/sys_flyweight.hpp"
#endif
#ifdef VORN_BENCH_HAVE_Z3
#include "suite/sys_z3.hpp"
#endif

namespace bench {
namespace {

std::vector<std::int64_t> sizes(int max_exp, int min_exp = 3) {
  std::vector<std::int64_t> out;
  std::int64_t n = 1;
  for (int e = 0; e <= max_exp; ++e, n *= 10) {
    if (e >= min_exp) out.push_back(n);
  }
  return out;
}

// Iterations per repetition: about `work` operations in all, at least one.
benchmark::IterationCount iterations_for(std::int64_t n, double work) {
  return std::max<benchmark::IterationCount>(1, static_cast<benchmark::IterationCount>(work / n));
}

// Sets a per-iteration figure; Google Benchmark averages it over the iterations and takes
// the median over the repetitions.
void add_figure(benchmark::State& state, const char* row, double value) {
  auto& c = state.counters[row];
  c = benchmark::Counter(c.value + value, benchmark::Counter::kAvgIterations);
}

// ---- share-miss, share-hit, bytes per node ----------------------------------------------

template <class S>
void share(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const std::vector<IndexPair>& pairs = share_pairs(n);
  bool measured_heap = false;
  for (auto _ : state) {
    auto sys = std::make_unique<S>();
    {
      std::vector<typename S::Ref> all;
      all.reserve(leaf_count + n);
      for (std::uint32_t i = 0; i < leaf_count; ++i) all.emplace_back(sys->leaf(i));

      const double heap_before = measured_heap ? 0 : heap_in_use();
      const auto t0 = Clock::now();
      for (const IndexPair& p : pairs) all.emplace_back(sys->share(all[p.first], all[p.second]));
      const auto t1 = Clock::now();
      if (!measured_heap) {
        state.counters["bytes/node"] = (heap_in_use() - heap_before) / static_cast<double>(n);
        measured_heap = true;
      }

      std::size_t wrong = 0;
      const auto t2 = Clock::now();
      for (std::size_t i = 0; i < n; ++i) {
        const typename S::Ref r = sys->share(all[pairs[i].first], all[pairs[i].second]);
        wrong += S::same(r, all[leaf_count + i]) ? 0 : 1;
      }
      const auto t3 = Clock::now();
      if (wrong != 0) state.SkipWithError("a repeated request did not return the first node");

      state.SetIterationTime(seconds(t0, t1));
      add_figure(state, "share-miss", seconds(t0, t1) * 1e9 / static_cast<double>(n));
      add_figure(state, "share-hit", seconds(t2, t3) * 1e9 / static_cast<double>(n));
    }  // handles go before their system
  }
}

// ---- plain: a list of n cells made with cons, then dropped ------------------------------

template <class S>
void plain(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  auto sys = std::make_unique<S>();
  {
    const typename S::Ref x = sys->leaf(0);
    for (auto _ : state) {
      const auto t0 = Clock::now();
      {
        typename S::Ref list = sys->nil();
        for (std::size_t i = 0; i < n; ++i) list = sys->cons(x, list);
      }
      const auto t1 = Clock::now();
      state.SetIterationTime(seconds(t0, t1));
      add_figure(state, "plain", seconds(t0, t1) * 1e9 / static_cast<double>(n));
    }
  }
}

// ---- intern: n new names, then each again -----------------------------------------------

template <class S, bool FreshNamesEachRound>
void intern(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  static unsigned round = 0;
  for (auto _ : state) {
    const std::vector<std::string>& input = names(n, FreshNamesEachRound ? ++round : 0);
    auto sys = std::make_unique<S>();
    {
      std::vector<decltype(sys->intern(""))> ids;
      ids.reserve(n);
      const auto t0 = Clock::now();
      for (const std::string& s : input) ids.push_back(sys->intern(s.c_str()));
      const auto t1 = Clock::now();
      std::size_t wrong = 0;
      for (std::size_t i = 0; i < n; ++i) wrong += sys->intern(input[i].c_str()) == ids[i] ? 0 : 1;
      const auto t2 = Clock::now();
      if (wrong != 0) state.SkipWithError("a known name got another id");
      state.SetIterationTime(seconds(t0, t1));
      add_figure(state, "intern-new", seconds(t0, t1) * 1e9 / static_cast<double>(n));
      add_figure(state, "intern-known", seconds(t1, t2) * 1e9 / static_cast<double>(n));
    }
  }
}

// ---- match --------------------------------------------------------------------------------

// (f X (g X Y) Y) against (f t (g t u) u) (matches) or (f t (g t u) t) (fails at the last
// occurrence of Y), t and u small shared subtrees; 1000 matches per iteration.
template <class S>
void match_nonlinear(benchmark::State& state) {
  const bool succeed = state.range(0) == 1;
  S sys;
  using Ref = typename S::Ref;
  const Ref X = sys.symbol("X"), Y = sys.symbol("Y"), f = sys.symbol("f"), g = sys.symbol("g");
  const Ref pattern = sys.list({f, X, sys.list({g, X, Y}), Y});
  const Ref t = sys.list({sys.symbol("h"), sys.symbol("a"), sys.symbol("b")});
  const Ref u = sys.list({sys.symbol("k"), sys.symbol("c")});
  const Ref expr = sys.list({f, t, sys.list({g, t, u}), succeed ? u : t});
  typename S::Matcher matcher({X, Y});
  for (auto _ : state) {
    std::size_t wrong = 0;
    const auto t0 = Clock::now();
    for (int i = 0; i < 1000; ++i) wrong += matcher.match(pattern, expr) == succeed ? 0 : 1;
    const auto t1 = Clock::now();
    if (wrong != 0) state.SkipWithError("unexpected match result");
    state.SetIterationTime(seconds(t0, t1));
    add_figure(state, succeed ? "match (f X (g X Y) Y), matching" : "match (f X (g X Y) Y), failing",
               seconds(t0, t1) * 1e9 / 1000);
  }
}

// 100 patterns (op_i X Y), each with its own head, against (op_99 a b): the list form finds
// the last one. 1000 list matches per iteration.
template <class S>
void match_first_of_many(benchmark::State& state) {
  S sys;
  using Ref = typename S::Ref;
  const Ref X = sys.symbol("X"), Y = sys.symbol("Y");
  std::vector<Ref> patterns;
  for (int i = 0; i < 100; ++i) patterns.push_back(sys.list({sys.symbol("op" + std::to_string(i)), X, Y}));
  const Ref expr = sys.list({sys.symbol("op99"), sys.symbol("a"), sys.symbol("b")});
  typename S::Matcher matcher({X, Y});
  for (auto _ : state) {
    std::size_t wrong = 0;
    const auto t0 = Clock::now();
    for (int i = 0; i < 1000; ++i) wrong += matcher.match(patterns, expr) == 99 ? 0 : 1;
    const auto t1 = Clock::now();
    if (wrong != 0) state.SkipWithError("wrong pattern chosen");
    state.SetIterationTime(seconds(t0, t1));
    add_figure(state, "match, first of 100 patterns", seconds(t0, t1) * 1e9 / 1000);
  }
}

// (e0 e1 ... e[n-2] X) against (e0 e1 ... e[n-1]), elements from 64 names: one match walks
// 2n pairs. Figure: ns per list element.
template <class S>
void match_list(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  S sys;
  using Ref = typename S::Ref;
  const Ref X = sys.symbol("X");
  std::vector<Ref> elements;
  for (std::size_t i = 0; i < n; ++i) elements.push_back(sys.symbol("e" + std::to_string(i % 64)));
  const Ref expr = sys.list(elements);
  elements.back() = X;
  const Ref pattern = sys.list(elements);
  elements.clear();
  typename S::Matcher matcher({X});
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const bool ok = matcher.match(pattern, expr);
    const auto t1 = Clock::now();
    if (!ok) state.SkipWithError("the list did not match");
    state.SetIterationTime(seconds(t0, t1));
    add_figure(state, "match, list", seconds(t0, t1) * 1e9 / static_cast<double>(n));
  }
}

// ---- print ----------------------------------------------------------------------------------

// Counts the bytes written and folds them into a checksum; keeps none.
class CountingBuf : public std::streambuf {
 public:
  std::uint64_t bytes = 0;
  std::uint64_t sum = 0;

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) take(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    for (std::streamsize i = 0; i < n; ++i) take(s[i]);
    return n;
  }

 private:
  void take(char c) {
    ++bytes;
    sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
  }
};

template <class S>
void print(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const std::vector<IndexPair>& pairs = print_pairs(n);
  auto sys = std::make_unique<S>();
  {
    std::vector<typename S::Ref> all;
    all.reserve(leaf_count + pairs.size());
    for (std::uint32_t i = 0; i < leaf_count; ++i) all.emplace_back(sys->leaf(i));
    for (const IndexPair& p : pairs) all.emplace_back(sys->share(all[p.first], all[p.second]));
    const typename S::Ref root = all.back();
    for (auto _ : state) {
      CountingBuf buf;
      std::ostream os(&buf);
      const auto t0 = Clock::now();
      sys->print(root, os);
      const auto t1 = Clock::now();
      state.SetIterationTime(seconds(t0, t1));
      add_figure(state, "print", static_cast<double>(buf.bytes) / seconds(t0, t1) / 1e6);
      state.counters["text bytes"] = static_cast<double>(buf.bytes);
      state.counters["text checksum"] = static_cast<double>(buf.sum % 1000000007u);
    }
  }
}

// ---- deep drop ------------------------------------------------------------------------------

// Builds an n-cell list in a child process and times releasing it there, so a system whose
// release recurses once per cell fails alone: its row then says how the child ended. A
// child that has not finished within `deep_drop_limit` seconds is stopped, and later
// repetitions of that system are not tried again. Systems without plain cells (Z3,
// Boost.Flyweight) build the list from shared cells.
constexpr unsigned deep_drop_limit = 120;

template <class S, bool SharedCells>
void deep_drop(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  static std::string failed;  // why an earlier repetition of this system failed
  if (!failed.empty()) {
    for (auto _ : state) state.SkipWithError(failed.c_str());
    return;
  }
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0) {
      state.SkipWithError("pipe failed");
      break;
    }
    std::cout.flush();
    const pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      alarm(deep_drop_limit);
      auto sys = std::make_unique<S>();
      const typename S::Ref x = sys->leaf(0);
      typename S::Ref list = sys->nil();
      for (std::size_t i = 0; i < n; ++i) {
        if constexpr (SharedCells) {
          list = sys->share(x, list);
        } else {
          list = sys->cons(x, list);
        }
      }
      const auto t0 = Clock::now();
      list = typename S::Ref();
      const auto t1 = Clock::now();
      const double secs = seconds(t0, t1);
      const ssize_t written = write(fds[1], &secs, sizeof secs);
      _exit(written == sizeof secs ? 0 : 1);  // no teardown: the process ends here
    }
    close(fds[1]);
    double secs = -1;
    const ssize_t got = read(fds[0], &secs, sizeof secs);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != sizeof secs) {
      std::string why = "the child process ended without reporting";
      if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        why = "timed out: building and releasing the list took more than " +
              std::to_string(deep_drop_limit) + " s";
      } else if (WIFSIGNALED(status)) {
        why = std::string("crashed: ") + strsignal(WTERMSIG(status)) +
              (WTERMSIG(status) == SIGSEGV ? " (release recurses once per cell)" : "");
      }
      failed = why;
      state.SkipWithError(why.c_str());
      break;
    }
    state.SetIterationTime(secs);
    add_figure(state, "deep drop", secs * 1e3);
  }
}

// ---- registration ---------------------------------------------------------------------------

benchmark::internal::Benchmark* add(const std::string& group, const char* system,
                                    void (*fn)(benchmark::State&)) {
  return benchmark::RegisterBenchmark((group + "/" + system).c_str(), fn)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

[[maybe_unused]] void add_skipped(const std::string& group, const char* system, std::string why) {
  benchmark::RegisterBenchmark((group + "/" + system).c_str(),
                               [why](benchmark::State& state) {
                                 for (auto _ : state) state.SkipWithError(why.c_str());
                               })
      ->Iterations(1);
}

struct Plan {
  std::vector<std::int64_t> build, match, print;
  std::int64_t deep;
};

template <class S, bool WithPlain>
void add_building(const Plan& plan) {
  for (std::int64_t n : plan.build) {
    add("share", S::name, share<S>)->Arg(n)->Iterations(iterations_for(n, 1e6));
  }
  if constexpr (WithPlain) {
    for (std::int64_t n : plan.build) {
      add("plain", S::name, plain<S>)->Arg(n)->Iterations(iterations_for(n, 2e7));
    }
  }
}

template <class S, bool FreshNames>
void add_interning(const Plan& plan) {
  for (std::int64_t n : plan.build) {
    add("intern", S::name, intern<S, FreshNames>)->Arg(n)->Iterations(iterations_for(n, 1e6));
  }
}

template <class S>
void add_matching_and_printing(const Plan& plan) {
  add("match-nonlinear", S::name, match_nonlinear<S>)->Arg(1)->Iterations(2000);
  add("match-nonlinear", S::name, match_nonlinear<S>)->Arg(0)->Iterations(2000);
  add("match-first", S::name, match_first_of_many<S>)->Arg(100)->Iterations(200);
  for (std::int64_t n : plan.match) {
    add("match-list", S::name, match_list<S>)->Arg(n)->Iterations(iterations_for(n, 2e7));
  }
  for (std::int64_t n : plan.print) {
    add("print", S::name, print<S>)->Arg(n)->Iterations(iterations_for(n, 1e6));
  }
}

// A system without plain cells or a matcher: sharing, interning, and a deep drop of a list
// made of shared cells.
template <class S, bool FreshNames>
[[maybe_unused]] void add_shared_only(const Plan& plan) {
  add_building<S, false>(plan);
  add_interning<S, FreshNames>(plan);
  add("deep-drop", S::name, deep_drop<S, true>)->Arg(plan.deep)->Iterations(1);
}

// The rows of a comparator whose package was not found at configure time say so.
[[maybe_unused]] void add_missing(const char* system, const char* what, const char* package) {
  const std::string why = std::string("skipped: ") + what + " not found (Debian package " + package + ")";
  for (const char* group : {"share", "intern", "deep-drop"}) add_skipped(group, system, why);
}

void register_all(int max_exp) {
  Plan plan;
  plan.build = sizes(max_exp);
  plan.match = sizes(std::min(max_exp, 7));
  plan.print = sizes(std::min(max_exp, 6));
  plan.deep = 10000000;

  add_building<VornSystem, true>(plan);
  add_building<BaselineSystem, true>(plan);
  add_building<FloorSystem, true>(plan);
  add_interning<VornSystem, false>(plan);
  add_interning<BaselineSystem, false>(plan);
  add_interning<FloorSystem, false>(plan);
  add_matching_and_printing<VornSystem>(plan);
  add_matching_and_printing<BaselineSystem>(plan);
  add("deep-drop", VornSystem::name, deep_drop<VornSystem, false>)->Arg(plan.deep)->Iterations(1);
  add("deep-drop", BaselineSystem::name, deep_drop<BaselineSystem, false>)->Arg(plan.deep)->Iterations(1);
  add("deep-drop", FloorSystem::name, deep_drop<FloorSystem, false>)->Arg(plan.deep)->Iterations(1);

#ifdef VORN_BENCH_HAVE_BOOST
  add_shared_only<FlyweightSystem, false>(plan);
#else
  add_missing("flyweight", "Boost.Flyweight", "libboost-dev");
#endif
#ifdef VORN_BENCH_HAVE_Z3
  add_shared_only<Z3System, true>(plan);
#else
  add_missing("z3", "Z3", "libz3-dev");
#endif
}

std::string machine_description() {
  std::ostringstream out;
  std::string cpu = "unknown CPU";
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  }
  double mem_gib = 0;
  std::ifstream meminfo("/proc/meminfo");
  for (std::string line; std::getline(meminfo, line);) {
    if (line.rfind("MemTotal:", 0) == 0) mem_gib = std::atof(line.c_str() + 9) / (1024.0 * 1024.0);
  }
  out << cpu << ", " << std::thread::hardware_concurrency() << " cores, " << std::lround(mem_gib)
      << " GiB; g++ " << __VERSION__;
#ifdef VORN_BENCH_HAVE_BOOST
  out << "; Boost " << BOOST_LIB_VERSION;
#endif
#ifdef VORN_BENCH_HAVE_Z3
  out << "; Z3 " << Z3_get_full_version();
#endif
  return out.str();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  int max_exp = 7;
  std::string table_out;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--max_exp=", 0) == 0) {
      max_exp = std::atoi(arg.c_str() + 10);
    } else if (arg.rfind("--table_out=", 0) == 0) {
      table_out = arg.substr(12);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  bench::register_all(max_exp);

  bench::TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const std::string table = reporter.table(bench::machine_description());
  std::cout << "\n" << table;
  if (!table_out.empty()) std::ofstream(table_out) << table;
  benchmark::Shutdown();
  return 0;
}
