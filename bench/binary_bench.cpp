// The binary format: saving, loading into a fresh manager, and copying between managers, on
// the share-miss DAG of the comparison suite, side by side with text on a real corpus.
//
// The DAG (bench/suite/inputs.hpp, share_pairs): n conses over 1024 named leaves, each cons
// over two nodes drawn uniformly from all made before it, no pair twice. The roots saved are
// the nodes that nothing refers to (about a third of them), in the order they were made, so
// every node is in the file. Written as plain text, each root would be written as its whole
// tree: the counter tree_nodes says how many nodes that text would hold.
//
// The corpus (default: every .kicad_mod file under /usr/share/kicad/footprints; --corpus=DIR
// and --ext=SUFFIX before Google Benchmark's own flags choose another) is read into one
// manager; its files' roots are then written as text (to_text, one after another) and as one
// binary file, and read back from each into a fresh manager.
//
// Times are CPU time of the thread (bench::Clock), each iteration one whole save, load or
// copy; making and dropping the managers is outside it. Run with --benchmark_repetitions=5
// and read the medians. Counters: nodes_per_s (distinct nodes, atoms included),
// bytes_per_node and beyond_names (the file without its atom section, per node).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "suite/inputs.hpp"
#include "support/internals.hpp"
#include "vorn/vorn.hpp"

namespace {

using vorn::Sexp;
using vorn::SexpManager;

// An output buffer that keeps its bytes (and its capacity from one save to the next).
class StringBuf : public std::streambuf {
 public:
  std::string bytes;

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) bytes.push_back(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    bytes.append(s, static_cast<std::size_t>(n));
    return n;
  }
};

// An input buffer over bytes it does not own.
class ViewBuf : public std::streambuf {
 public:
  explicit ViewBuf(const std::string& s) {
    char* p = const_cast<char*>(s.data());
    setg(p, p, p + s.size());
  }
};

// The atom section's size, from the file's header.
std::uint64_t atom_bytes(const std::string& data) {
  std::size_t at = vorn::binary_magic.size() + 1;
  std::uint64_t v = 0;
  for (int field = 0; field < 4; ++field) {
    v = 0;
    for (unsigned shift = 0;; shift += 7) {
      const auto b = static_cast<unsigned char>(data[at++]);
      v |= std::uint64_t{b & 0x7Fu} << shift;
      if ((b & 0x80) == 0) break;
    }
  }
  return v;
}

std::string saved(const std::vector<Sexp>& roots) {
  StringBuf buf;
  std::ostream os(&buf);
  vorn::save(os, roots);
  return buf.bytes;
}

// ---- the share-miss DAG ------------------------------------------------------------------

struct Dag {
  SexpManager m;
  std::vector<Sexp> roots;
  double nodes = 0;       // distinct: leaves and conses
  double tree_nodes = 0;  // in the plain trees of the roots
  std::string data;       // the roots saved
};

const Dag& dag(std::size_t n) {
  static std::map<std::size_t, std::unique_ptr<Dag>> made;
  if (made.count(n) != 0) return *made[n];
  made.clear();  // one DAG at a time: 10^7 nodes take a few hundred MB
  std::unique_ptr<Dag>& d = made[n];
  d = std::make_unique<Dag>();
  const std::vector<bench::IndexPair>& pairs = bench::share_pairs(n);
  std::vector<Sexp> all;
  all.reserve(bench::leaf_count + n);
  for (std::uint32_t i = 0; i < bench::leaf_count; ++i)
    all.push_back(d->m.sh_sym(d->m.make_symbol(("leaf" + std::to_string(i)).c_str())));
  std::vector<double> tree(bench::leaf_count, 1.0);
  std::vector<bool> has_parent(bench::leaf_count + n, false);
  for (const bench::IndexPair& p : pairs) {
    all.push_back(d->m.sh_cons(all[p.first], all[p.second]));
    tree.push_back(1 + tree[p.first] + tree[p.second]);
    has_parent[p.first] = has_parent[p.second] = true;
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (has_parent[i]) continue;
    d->roots.push_back(all[i]);
    d->tree_nodes += tree[i];
  }
  d->nodes = static_cast<double>(all.size());
  d->data = saved(d->roots);
  return *d;
}

void size_counters(benchmark::State& state, const std::string& data, double nodes) {
  state.counters["bytes_per_node"] = static_cast<double>(data.size()) / nodes;
  state.counters["beyond_names"] = static_cast<double>(data.size() - atom_bytes(data)) / nodes;
}

void BM_DagSave(benchmark::State& state) {
  const Dag& d = dag(static_cast<std::size_t>(state.range(0)));
  StringBuf buf;
  buf.bytes.reserve(d.data.size());
  for (auto _ : state) {
    buf.bytes.clear();
    std::ostream os(&buf);
    const auto t0 = bench::Clock::now();
    vorn::save(os, d.roots);
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
  }
  if (buf.bytes != d.data) state.SkipWithError("two saves of one DAG differ");
  state.counters["nodes_per_s"] = benchmark::Counter(d.nodes, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["tree_nodes"] = d.tree_nodes;
  size_counters(state, d.data, d.nodes);
}

void BM_DagLoad(benchmark::State& state) {
  const Dag& d = dag(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto m = std::make_unique<SexpManager>();
    ViewBuf buf(d.data);
    std::istream is(&buf);
    const auto t0 = bench::Clock::now();
    std::vector<Sexp> roots = vorn::load(*m, is);
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
    if (roots.size() != d.roots.size()) state.SkipWithError("lost roots");
  }
  state.counters["nodes_per_s"] = benchmark::Counter(d.nodes, benchmark::Counter::kIsIterationInvariantRate);
  size_counters(state, d.data, d.nodes);
}

void BM_DagCopy(benchmark::State& state) {
  const Dag& d = dag(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto m = std::make_unique<SexpManager>();
    const auto t0 = bench::Clock::now();
    std::vector<Sexp> roots = vorn::copy(*m, d.roots);
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
    if (roots.size() != d.roots.size()) state.SkipWithError("lost roots");
  }
  state.counters["nodes_per_s"] = benchmark::Counter(d.nodes, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_DagSave)->Arg(1000000)->Arg(10000000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DagLoad)->Arg(1000000)->Arg(10000000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DagCopy)->Arg(1000000)->Arg(10000000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- a corpus: text and binary -----------------------------------------------------------

std::string corpus_dir = "/usr/share/kicad/footprints";
std::string corpus_ext = ".kicad_mod";

struct Corpus {
  std::string error;            // why there is none
  std::vector<std::string> texts;
  double text_bytes = 0;
  SexpManager m;
  std::vector<Sexp> roots;      // of every file, in order
  std::string data;             // all roots in one binary file
  double nodes = 0;             // distinct nodes of the binary file
  double each_bytes = 0;        // every file saved on its own, in all
};

const Corpus& corpus() {
  static Corpus c;
  if (!c.texts.empty() || !c.error.empty()) return c;
  std::error_code ec;
  std::vector<std::filesystem::path> files;
  for (auto it = std::filesystem::recursive_directory_iterator(corpus_dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().string();
    if (it->is_regular_file() && name.size() >= corpus_ext.size() &&
        name.compare(name.size() - corpus_ext.size(), corpus_ext.size(), corpus_ext) == 0)
      files.push_back(it->path());
  }
  if (files.empty()) {
    c.error = "no " + corpus_ext + " file under " + corpus_dir + " (--corpus=DIR, --ext=SUFFIX)";
    return c;
  }
  std::sort(files.begin(), files.end());
  for (const auto& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    try {
      for (const Sexp& e : vorn::parse_all(c.m, text.str())) c.roots.push_back(e);
    } catch (const vorn::ParseError&) {
      continue;  // not read as text, so not compared
    }
    c.texts.push_back(text.str());
    c.text_bytes += static_cast<double>(c.texts.back().size());
    c.each_bytes += static_cast<double>(saved({c.roots.end() - 1, c.roots.end()}).size());
  }
  c.data = saved(c.roots);
  SexpManager fresh;
  ViewBuf buf(c.data);
  std::istream is(&buf);
  vorn::load(fresh, is);
  c.nodes = static_cast<double>(vorn::detail::SexpManagerInternals::shared_size(fresh)) - 1;
  return c;
}

void corpus_counters(benchmark::State& state, const Corpus& c) {
  state.counters["text_bytes"] = c.text_bytes;
  state.counters["binary_bytes"] = static_cast<double>(c.data.size());
  state.counters["binary_bytes_each"] = c.each_bytes;
  state.counters["nodes"] = c.nodes;
}

void BM_CorpusParseText(benchmark::State& state) {
  const Corpus& c = corpus();
  if (!c.error.empty()) return state.SkipWithError(c.error.c_str());
  for (auto _ : state) {
    auto m = std::make_unique<SexpManager>();
    const auto t0 = bench::Clock::now();
    std::size_t n = 0;
    for (const std::string& t : c.texts) n += vorn::parse_all(*m, t).size();
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
    benchmark::DoNotOptimize(n);
  }
  corpus_counters(state, c);
}

void BM_CorpusLoadBinary(benchmark::State& state) {
  const Corpus& c = corpus();
  if (!c.error.empty()) return state.SkipWithError(c.error.c_str());
  for (auto _ : state) {
    auto m = std::make_unique<SexpManager>();
    ViewBuf buf(c.data);
    std::istream is(&buf);
    const auto t0 = bench::Clock::now();
    std::vector<Sexp> roots = vorn::load(*m, is);
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
  }
  corpus_counters(state, c);
}

// Times `write(os, c)` into an in-memory stream, the buffer kept from one iteration to the next.
template <class Write>
void CorpusWrite(benchmark::State& state, Write write) {
  const Corpus& c = corpus();
  if (!c.error.empty()) return state.SkipWithError(c.error.c_str());
  StringBuf buf;
  for (auto _ : state) {
    buf.bytes.clear();
    std::ostream os(&buf);
    const auto t0 = bench::Clock::now();
    write(os, c);
    state.SetIterationTime(bench::seconds(t0, bench::Clock::now()));
  }
  corpus_counters(state, c);
}

void BM_CorpusWriteText(benchmark::State& state) {
  CorpusWrite(state, [](std::ostream& os, const Corpus& c) {
    for (const Sexp& e : c.roots) vorn::write_text(os, e);
  });
}

void BM_CorpusSaveBinary(benchmark::State& state) {
  CorpusWrite(state, [](std::ostream& os, const Corpus& c) { vorn::save(os, c.roots); });
}

BENCHMARK(BM_CorpusParseText)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CorpusLoadBinary)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CorpusWriteText)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CorpusSaveBinary)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--corpus=", 0) == 0) {
      corpus_dir = arg.substr(9);
    } else if (arg.rfind("--ext=", 0) == 0) {
      corpus_ext = arg.substr(6);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
