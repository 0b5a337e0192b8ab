// What a rule application costs the rewriting engine, on problems where the memo cannot
// help (Peano multiplication, naive list reversal, parity of a numeral) and on one where
// it does (Fibonacci on Peano numerals). Each iteration normalises the problem's term in a
// fresh manager with a fresh rewriter set as `vorn rewrite` sets it (collecting every 2^14
// ids); the counter "ns/step" is the time per rule application, "steps" the applications
// per term. BM_NumeralCells is the floor under all of them: what the manager alone takes to
// make the cells of a numeral's levels, the work a rewrite that builds one cannot avoid.
#include <benchmark/benchmark.h>

#include <ctime>
#include <cstdint>
#include <memory>
#include <functional>
#include <string>

#include <vorn/vorn.hpp>

namespace {

double thread_seconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// (s (s ... z)), n deep, without recursion.
std::string numeral(int n) {
  std::string s;
  for (int i = 0; i < n; ++i) s += "(s ";
  return s + "z" + std::string(static_cast<std::size_t>(n), ')');
}

const char* const kPeano = R"(
(rule (+ z ?n) ?n)
(rule (+ (s ?m) ?n) (s (+ ?m ?n)))
(rule (* z ?n) z)
(rule (* (s ?m) ?n) (+ ?n (* ?m ?n))))";

const char* const kReverse = R"(
(rule (app nil ?ys) ?ys)
(rule (app (cons ?x ?xs) ?ys) (cons ?x (app ?xs ?ys)))
(rule (rev nil) nil)
(rule (rev (cons ?x ?xs)) (app (rev ?xs) (cons ?x nil))))";

const char* const kParity = R"(
(rule (even z) true)
(rule (even (s ?n)) (odd ?n))
(rule (odd z) false)
(rule (odd (s ?n)) (even ?n)))";

const char* const kFibonacci = R"(
(rule (+ z ?n) ?n)
(rule (+ (s ?m) ?n) (s (+ ?m ?n)))
(rule (fib z) z)
(rule (fib (s z)) (s z))
(rule (fib (s (s ?n))) (+ (fib (s ?n)) (fib ?n))))";

// Times only normalize, in CPU time of the thread (the machines these run on are shared,
// and wall time counts the other programs too): the manager, the rules and the term are
// made, and the rewriter and the manager destroyed, outside the time measured.
void Normalise(benchmark::State& state, const char* rules, const std::function<std::string(int)>& term) {
  const std::string text = term(static_cast<int>(state.range(0)));
  std::uint64_t steps = 0;
  double seconds = 0;
  for (auto _ : state) {
    auto m = std::make_unique<vorn::SexpManager>();
    auto rw = std::make_unique<vorn::Rewriter>(*m);
    vorn::load_rules(*rw, rules);
    rw->set_collect_every(std::uint64_t{1} << 14);
    const vorn::Sexp t = vorn::parse(*m, text);
    const double start = thread_seconds();
    benchmark::DoNotOptimize(rw->normalize(t).get());
    const double spent = thread_seconds() - start;
    state.SetIterationTime(spent);
    seconds += spent;
    steps = rw->stats().steps;
  }
  state.counters["steps"] = static_cast<double>(steps);
  state.counters["ns/step"] = seconds * 1e9 / static_cast<double>(steps * state.iterations());
}

void BM_PeanoTimes(benchmark::State& state) {
  Normalise(state, kPeano, [](int n) { return "(* " + numeral(n) + " " + numeral(n) + ")"; });
}
BENCHMARK(BM_PeanoTimes)->Arg(100)->Arg(300)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_NaiveReverse(benchmark::State& state) {
  Normalise(state, kReverse, [](int n) {
    std::string list;
    for (int i = 0; i < n; ++i) list += "(cons e" + std::to_string(i) + " ";
    return "(rev " + list + "nil" + std::string(static_cast<std::size_t>(n), ')') + ")";
  });
}
BENCHMARK(BM_NaiveReverse)->Arg(400)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Parity(benchmark::State& state) {
  Normalise(state, kParity, [](int n) { return "(even " + numeral(n) + ")"; });
}
BENCHMARK(BM_Parity)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_FibonacciMemoised(benchmark::State& state) {
  Normalise(state, kFibonacci, [](int n) { return "(fib " + numeral(n) + ")"; });
}
BENCHMARK(BM_FibonacciMemoised)->Arg(20)->UseManualTime()->Unit(benchmark::kMillisecond);

// The manager alone, no rewriting: sh_cons makes (s R) for each level of a numeral of
// range(0) levels, two canonical cells a level, with range(0) * 2 other canonical nodes
// already in the table (as while a term that size is normalised). Arg 1: the cells are new
// (a sharing miss each); arg 0: they exist already (a sharing hit each). "ns/level" is
// the time per level, in thread CPU time.
void BM_NumeralCells(benchmark::State& state) {
  const int levels = static_cast<int>(state.range(0));
  const bool fresh = state.range(1) != 0;
  double seconds = 0;
  for (auto _ : state) {
    auto m = std::make_unique<vorn::SexpManager>();
    const vorn::Sexp s = m->sh_sym(m->make_symbol("s"));
    const vorn::Sexp z = m->sh_sym(m->make_symbol("z"));
    vorn::Sexp other = z;  // the nodes already there: a numeral over another base
    for (int i = 0; i < levels; ++i) other = m->sh_cons(s, m->sh_cons(other, m->nil()));
    vorn::Sexp n = fresh ? m->sh_cons(z, z) : z;
    const double start = thread_seconds();
    for (int i = 0; i < levels; ++i) n = m->sh_cons(s, m->sh_cons(n, m->nil()));
    const double spent = thread_seconds() - start;
    benchmark::DoNotOptimize(n.get());
    state.SetIterationTime(spent);
    seconds += spent;
  }
  state.counters["ns/level"] = seconds * 1e9 / (static_cast<double>(levels) * static_cast<double>(state.iterations()));
}
BENCHMARK(BM_NumeralCells)
    ->Args({640000, 1})
    ->Args({640000, 0})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
