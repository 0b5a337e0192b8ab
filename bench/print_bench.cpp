// Throughput of the diagnostic printer on a large shared expression.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <iomanip>
#include <locale>
#include <string>
#include <vector>
#include <ostream>
#include <sstream>
#include <streambuf>

#include <vorn/vorn.hpp>

namespace {

// A stream buffer that counts bytes and keeps none: measures the printer, not memory.
class CountingBuf : public std::streambuf {
 public:
  std::uint64_t bytes = 0;

 protected:
  int_type overflow(int_type c) override {
    ++bytes;
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char*, std::streamsize n) override {
    bytes += static_cast<std::uint64_t>(n);
    return n;
  }
};

// A canonical binary tree over `leaves` names, `levels` deep, each level's nodes
// drawn from a small pool so that subtrees are shared many times.
vorn::Sexp shared_tree(vorn::SexpManager& m, int levels, int leaves) {
  std::vector<vorn::Sexp> layer;
  for (int i = 0; i < leaves; ++i) {
    layer.push_back(m.sh_sym(m.make_symbol(("leaf" + std::to_string(i)).c_str())));
  }
  std::uint64_t seed = 42;
  auto next = [&seed] {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<std::size_t>(seed >> 33);
  };
  for (int level = 0; level < levels; ++level) {
    std::vector<vorn::Sexp> up;
    const std::size_t width = level + 1 == levels ? 1 : layer.size();
    for (std::size_t i = 0; i < width; ++i) {
      up.push_back(m.sh_cons(layer[next() % layer.size()], layer[next() % layer.size()]));
    }
    layer.swap(up);
  }
  return layer.front();
}

void print_shared(benchmark::State& state, bool plain_stream) {
  vorn::SexpManager m;
  const vorn::Sexp tree = shared_tree(m, static_cast<int>(state.range(0)), 4096);
  std::uint64_t total = 0;
  for (auto _ : state) {
    CountingBuf buf;
    std::ostream os(&buf);
    if (!plain_stream) os << std::dec << std::setw(0);
    if (!plain_stream) os.imbue(std::locale(std::locale::classic(), new std::numpunct<char>()));
    tree.print(os);
    total += buf.bytes;
    benchmark::DoNotOptimize(buf.bytes);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(total));
  state.counters["bytes_per_print"] = static_cast<double>(total) / state.iterations();
}

// Default streams: the printer fills its own buffer and writes large pieces.
void BM_PrintShared(benchmark::State& state) { print_shared(state, true); }
// A stream with a non-classic locale: one insertion per piece, as a reference.
void BM_PrintSharedPerInsertion(benchmark::State& state) { print_shared(state, false); }

void BM_DebugToStr(benchmark::State& state) {
  vorn::SexpManager m;
  const vorn::Sexp tree = shared_tree(m, static_cast<int>(state.range(0)), 4096);
  std::uint64_t total = 0;
  for (auto _ : state) {
    const std::string text = tree.debug_to_str();
    total += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(total));
}

}  // namespace

BENCHMARK(BM_PrintShared)->Arg(12)->Arg(16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PrintSharedPerInsertion)->Arg(12)->Arg(16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DebugToStr)->Arg(16)->Unit(benchmark::kMillisecond);
