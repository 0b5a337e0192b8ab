// Reading real S-expression files: vorn beside the tree readers a user already has.
//
// A corpus (default: the KiCad footprint library as Debian installs it, every file ending
// in .kicad_mod under /usr/share/kicad/footprints) is read into memory before anything is
// timed. Then, side by side in one run:
//
//   read-small/SYSTEM  every file on its own with fresh reader state, as a tool that opens
//                      one file would: vorn a new SexpManager per file, sfsexp a new
//                      continuation per file (its tree freed after), Guile a new port per
//                      file (Guile itself is started once, before any timing);
//   read-large/SYSTEM  the same files joined into a few large texts (--large_texts), one
//                      manager, continuation or port per text.
//
// Both cases read the files that every compiled-in system reads without an error; what each
// system rejects in the whole corpus is counted and printed before the runs. sfsexp and Guile
// are compiled in when their packages were found at configure time (libsexp-dev,
// guile-3.0-dev); otherwise their rows say they were skipped.
//
// Counters: bytes_per_second (of input text), and for vorn, measured once outside the
// timing: tree nodes (what a plain tree of conses would hold: one per cons and one per atom
// occurrence, the nil that ends a list not counted), distinct canonical nodes (nil
// included), sharing = tree / distinct, and heap bytes per distinct node: the C heap's
// growth (mallinfo2) from before the manager is made to after the text is read, so the
// manager's own start-up, the table, the node chunks and every name copy are in it.
//
// Flags (before Google Benchmark's own): --corpus=DIR (default $VORN_READ_CORPUS, else the
// footprint library), --ext=SUFFIX (default .kicad_mod; --ext= takes every file),
// --max_files=N (an evenly spaced sample of N files), --large_texts=K (default 4).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vorn/vorn.hpp>

#ifdef VORN_BENCH_HAVE_SFSEXP
#include <sexp.h>
#endif
#ifdef VORN_BENCH_HAVE_GUILE
#include <libguile.h>
#endif

namespace {

// ---- vorn -------------------------------------------------------------------------------

// The one place where vorn reads a text: the vorn dialect, whose strings KiCad files use.
std::vector<vorn::Sexp> vorn_read(vorn::SexpManager& m, std::string_view text) {
  return vorn::parse_all(m, text, vorn::ReadOptions{vorn::Dialect::vorn});
}

// A fresh manager per text, as a tool that opens one file has. False when the text does not read.
bool vorn_read_fresh(std::string_view text) {
  try {
    vorn::SexpManager m;
    const std::vector<vorn::Sexp> exprs = vorn_read(m, text);
    benchmark::DoNotOptimize(exprs.data());
    return true;
  } catch (const vorn::ParseError&) {
    return false;
  }
}

double heap_in_use() {
  const struct mallinfo2 mi = mallinfo2();
  return static_cast<double>(mi.uordblks) + static_cast<double>(mi.hblkhd);
}

struct SharingFigures {
  double tree_nodes = 0;
  double distinct_nodes = 0;
  double heap_bytes = 0;
  void add(const SharingFigures& o) {
    tree_nodes += o.tree_nodes;
    distinct_nodes += o.distinct_nodes;
    heap_bytes += o.heap_bytes;
  }
};

// Reads `text` with a fresh manager and measures what it holds. Walks the result without
// recursion: every child of a canonical cons was made before it, so its id is smaller, and
// tree sizes are summed in id order.
SharingFigures vorn_figures(std::string_view text) {
  SharingFigures f;
  const double before = heap_in_use();
  vorn::SexpManager m;
  const std::vector<vorn::Sexp> exprs = vorn_read(m, text);
  f.heap_bytes = heap_in_use() - before;

  std::vector<const vorn::Sexp_*> nodes, stack;
  std::unordered_map<const vorn::Sexp_*, double> tree;
  for (const vorn::Sexp& e : exprs) stack.push_back(e.get());
  while (!stack.empty()) {
    const vorn::Sexp_* n = stack.back();
    stack.pop_back();
    if (!tree.emplace(n, 0.0).second) continue;
    nodes.push_back(n);
    if (n->is_symbol == 0) {
      stack.push_back(n->car);
      stack.push_back(n->cdr);
    }
  }
  std::sort(nodes.begin(), nodes.end(),
            [](const vorn::Sexp_* a, const vorn::Sexp_* b) { return a->id < b->id; });
  for (const vorn::Sexp_* n : nodes) {
    double size;
    if (n->is_symbol != 0) {
      size = n->id == 0 ? 0.0 : 1.0;  // nil ends a list; it is no node of a plain tree
    } else {
      size = 1.0 + tree.at(n->car) + tree.at(n->cdr);
    }
    tree[n] = size;
  }
  for (const vorn::Sexp& e : exprs) f.tree_nodes += tree.at(e.get());
  f.distinct_nodes = static_cast<double>(nodes.size());
  return f;
}

// ---- sfsexp -----------------------------------------------------------------------------

#ifdef VORN_BENCH_HAVE_SFSEXP
// Every expression of `text` parsed into sfsexp's tree and the tree freed, with a fresh
// continuation. sfsexp keeps freed elements in a process-wide cache that it reuses; that is
// how the library is meant to run, so it is left warm. The text is not written to.
bool sfsexp_read_fresh(std::string_view text) {
  char* s = const_cast<char*>(text.data());
  reset_sexp_errno();
  pcont_t* pc = init_continuation(s);
  std::size_t exprs = 0;
  while (sexp_t* e = iparse_sexp(s, text.size(), pc)) {
    destroy_sexp(e);
    ++exprs;
  }
  // Reaching the end is reported as "incomplete"; anything else, or a list still open, failed.
  const bool ok = (sexp_errno == SEXP_ERR_OK || sexp_errno == SEXP_ERR_INCOMPLETE) &&
                  pc->depth == 0 && exprs != 0;
  destroy_continuation(pc);
  return ok;
}
#endif

// ---- Guile ------------------------------------------------------------------------------

#ifdef VORN_BENCH_HAVE_GUILE
struct GuileText {
  std::string_view text;
  std::size_t exprs = 0;
};

// Guile's `read` over a port on the text's bytes, decoded as UTF-8 as the files are written.
// A bytevector port takes the bytes as they are; a string port would first decode them into
// a Scheme string and encode that again.
SCM guile_read_all(void* data) {
  auto* t = static_cast<GuileText*>(data);
  SCM bytes = scm_c_make_bytevector(t->text.size());
  std::memcpy(SCM_BYTEVECTOR_CONTENTS(bytes), t->text.data(), t->text.size());
  SCM port = scm_open_bytevector_input_port(bytes, SCM_UNDEFINED);
  scm_set_port_encoding_x(port, scm_from_latin1_string("UTF-8"));
  for (;;) {
    SCM x = scm_read(port);
    if (scm_is_true(scm_eof_object_p(x))) break;
    ++t->exprs;
  }
  scm_close_port(port);
  return SCM_BOOL_T;
}

SCM guile_failed(void*, SCM, SCM) { return SCM_BOOL_F; }

bool guile_read_fresh(std::string_view text) {
  GuileText t{text};
  return scm_is_true(scm_c_catch(SCM_BOOL_T, guile_read_all, &t, guile_failed, nullptr, nullptr,
                                 nullptr)) &&
         t.exprs != 0;
}
#endif

// ---- corpus -----------------------------------------------------------------------------

struct Options {
  std::string corpus;
  std::string ext = ".kicad_mod";
  std::size_t max_files = 0;  // 0: all
  std::size_t large_texts = 4;
};

struct Corpus {
  std::vector<std::string> names;
  std::vector<std::string> texts;
  std::size_t bytes = 0;
};

Corpus load(const Options& o) {
  namespace fs = std::filesystem;
  std::vector<std::string> paths;
  for (const auto& entry : fs::recursive_directory_iterator(o.corpus)) {
    if (!entry.is_regular_file()) continue;
    const std::string p = entry.path().string();
    if (o.ext.empty() || (p.size() >= o.ext.size() && p.compare(p.size() - o.ext.size(), o.ext.size(), o.ext) == 0)) {
      paths.push_back(p);
    }
  }
  std::sort(paths.begin(), paths.end());
  if (o.max_files != 0 && paths.size() > o.max_files) {
    std::vector<std::string> sample;
    for (std::size_t i = 0; i < o.max_files; ++i) sample.push_back(paths[i * paths.size() / o.max_files]);
    paths.swap(sample);
  }
  Corpus c;
  for (const std::string& p : paths) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    c.names.push_back(p);
    c.texts.push_back(text.str());
    c.bytes += c.texts.back().size();
  }
  return c;
}

using ReadFn = bool (*)(std::string_view);

struct System {
  const char* name;
  ReadFn read;  // null: not compiled in
  const char* package;
};

const std::vector<System>& systems() {
  static const std::vector<System> all = {
      {"vorn", vorn_read_fresh, ""},
#ifdef VORN_BENCH_HAVE_SFSEXP
      {"sfsexp", sfsexp_read_fresh, "libsexp-dev"},
#else
      {"sfsexp", nullptr, "libsexp-dev"},
#endif
#ifdef VORN_BENCH_HAVE_GUILE
      {"guile", guile_read_fresh, "guile-3.0-dev"},
#else
      {"guile", nullptr, "guile-3.0-dev"},
#endif
  };
  return all;
}

// The texts a case reads, with their total size and what vorn makes of them.
struct Workload {
  std::vector<std::string_view> texts;
  std::size_t bytes = 0;
  SharingFigures vorn;
};

// One set of files, read one by one (read-small) and joined into a few texts (read-large),
// by the systems `reads` names.
struct FileSet {
  std::string suffix;  // of the case names: "" or "-every"
  Workload small, large;
  std::vector<std::string> joined;  // the large texts
  std::vector<bool> reads;          // per entry of systems()
};

std::vector<FileSet> file_sets;

// A system that rejects more than this share of the corpus does not decide which files
// the main cases read; it reads them in the "-every" cases, over the files every system reads.
constexpr double most_files = 0.9;

void fill(FileSet& set, const Corpus& c, const std::vector<bool>& keep, std::size_t k) {
  for (std::size_t i = 0; i < c.texts.size(); ++i) {
    if (!keep[i]) continue;
    set.small.texts.push_back(c.texts[i]);
    set.small.bytes += c.texts[i].size();
  }
  if (set.small.texts.empty()) return;
  k = std::max<std::size_t>(1, std::min(k, set.small.texts.size()));
  set.joined.assign(k, std::string());
  for (std::size_t i = 0; i < set.small.texts.size(); ++i) {
    std::string& j = set.joined[i * k / set.small.texts.size()];
    j.append(set.small.texts[i]);
    j.push_back('\n');
  }
  for (const std::string& j : set.joined) {
    set.large.texts.push_back(j);
    set.large.bytes += j.size();
  }
  for (Workload* w : {&set.small, &set.large}) {
    for (std::string_view t : w->texts) w->vorn.add(vorn_figures(t));
  }
  std::fprintf(stderr, "read-small%s, read-large%s: %zu of %zu files (%.1f of %.1f MB), the large "
               "ones joined into %zu texts\n", set.suffix.c_str(), set.suffix.c_str(),
               set.small.texts.size(), c.texts.size(), static_cast<double>(set.small.bytes) / 1e6,
               static_cast<double>(c.bytes) / 1e6, k);
}

// Reads the corpus once with every compiled-in system, prints what each rejects, and makes
// the file sets: the files that every system reading most of the corpus reads, and, when
// a system reads less, the files every system reads.
void choose_files(const Corpus& c, const Options& o) {
  const std::size_t n = c.texts.size();
  std::vector<bool> keep_main(n, true), keep_every(n, true), major;
  bool minor_seen = false;
  for (const System& s : systems()) {
    major.push_back(false);
    if (s.read == nullptr) continue;
    std::vector<bool> ok(n);
    std::size_t failed = 0;
    std::string first;
    for (std::size_t i = 0; i < n; ++i) {
      ok[i] = s.read(c.texts[i]);
      if (!ok[i] && failed++ == 0) first = c.names[i];
    }
    std::fprintf(stderr, "%-7s rejects %zu of %zu files%s%s\n", s.name, failed, n,
                 failed != 0 ? ", the first: " : "", first.c_str());
    major.back() = static_cast<double>(failed) <= (1 - most_files) * static_cast<double>(n);
    minor_seen = minor_seen || !major.back();
    for (std::size_t i = 0; i < n; ++i) {
      if (ok[i]) continue;
      keep_every[i] = false;
      if (major.back()) keep_main[i] = false;
    }
  }
  file_sets.emplace_back();
  file_sets.back().reads = major;
  fill(file_sets.back(), c, keep_main, o.large_texts);
  if (minor_seen) {
    file_sets.emplace_back();
    file_sets.back().suffix = "-every";
    for (const System& s : systems()) file_sets.back().reads.push_back(s.read != nullptr);
    fill(file_sets.back(), c, keep_every, o.large_texts);
  }
}

void run_reads(benchmark::State& state, ReadFn read, const Workload* w) {
  std::size_t failed = 0;
  for (auto _ : state) {
    for (std::string_view t : w->texts) failed += read(t) ? 0 : 1;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(w->bytes));
  state.counters["texts"] = static_cast<double>(w->texts.size());
  state.counters["failed"] = static_cast<double>(failed) / static_cast<double>(state.iterations());
}

void run_vorn(benchmark::State& state, const Workload* w) {
  run_reads(state, vorn_read_fresh, w);
  const SharingFigures& f = w->vorn;
  state.counters["tree_nodes"] = f.tree_nodes;
  state.counters["distinct"] = f.distinct_nodes;
  state.counters["sharing"] = f.tree_nodes / f.distinct_nodes;
  state.counters["heapB/distinct"] = f.heap_bytes / f.distinct_nodes;
}

void add_skipped(const std::string& name, const std::string& why) {
  benchmark::RegisterBenchmark(name.c_str(), [why](benchmark::State& state) {
    for (auto _ : state) state.SkipWithError(why.c_str());
  })->Iterations(1);
}

// Case names, in the order of the runs and of the table.
std::vector<std::pair<std::string, const Workload*>> cases() {
  std::vector<std::pair<std::string, const Workload*>> out;
  for (const FileSet& set : file_sets) {
    if (set.small.texts.empty()) continue;
    out.emplace_back("read-small" + set.suffix, &set.small);
    out.emplace_back("read-large" + set.suffix, &set.large);
  }
  return out;
}

// Process CPU time: Guile's collector marks on threads of its own, and their time counts.
void register_all() {
  for (const FileSet& set : file_sets) {
    for (const auto& [group, w] : {std::pair<std::string, const Workload*>{"read-small", &set.small},
                                   {"read-large", &set.large}}) {
      if (w->texts.empty()) continue;
      for (std::size_t k = 0; k < systems().size(); ++k) {
        const System& s = systems()[k];
        const std::string name = group + set.suffix + "/" + s.name;
        if (s.read == nullptr) {
          add_skipped(name, std::string("skipped: not found at configure time (Debian package ") +
                                s.package + ")");
          continue;
        }
        if (!set.reads[k]) {
          add_skipped(name, std::string("skipped: rejects over a tenth of the corpus; see ") +
                                group + "-every/" + s.name);
          continue;
        }
        benchmark::internal::Benchmark* b =
            k == 0 ? benchmark::RegisterBenchmark(name.c_str(), run_vorn, w)
                   : benchmark::RegisterBenchmark(name.c_str(), run_reads, s.read, w);
        b->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
      }
    }
  }
}

// Prints Google Benchmark's usual lines, then one table of medians (or of the single run):
// MB/s per case and system and each system's time relative to vorn's.
class TableReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& reports) override {
    benchmark::ConsoleReporter::ReportRuns(reports);
    for (const Run& r : reports) {
      if (r.error_occurred || (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median")) continue;
      const auto it = r.counters.find("bytes_per_second");
      if (it == r.counters.end()) continue;
      rate_[r.run_name.function_name] = it->second.value;
    }
  }

  void print_table() const {
    std::printf("\n| case | system | MB/s | time vs vorn |\n|---|---|---:|---:|\n");
    for (const auto& c : cases()) {
      const auto v = rate_.find(c.first + "/vorn");
      for (const System& s : systems()) {
        const auto it = rate_.find(c.first + "/" + s.name);
        if (it == rate_.end()) {
          std::printf("| %s | %s | skipped | |\n", c.first.c_str(), s.name);
          continue;
        }
        const double ratio = v != rate_.end() ? v->second / it->second : 0.0;
        std::printf("| %s | %s | %.1f | %.2f |\n", c.first.c_str(), s.name, it->second / 1e6, ratio);
      }
    }
    std::printf("\n(MB = 10^6 bytes; time vs vorn > 1: slower than vorn)\n");
    for (const auto& c : cases()) {
      const SharingFigures& f = c.second->vorn;
      std::printf("%s, vorn: %zu texts, %.0f tree nodes, %.0f distinct canonical nodes "
                  "(sharing %.2f), %.1f heap bytes per distinct node\n",
                  c.first.c_str(), c.second->texts.size(), f.tree_nodes, f.distinct_nodes,
                  f.tree_nodes / f.distinct_nodes, f.heap_bytes / f.distinct_nodes);
    }
  }

 private:
  std::map<std::string, double> rate_;
};

}  // namespace

int main(int argc, char** argv) {
  Options o;
  const char* env = std::getenv("VORN_READ_CORPUS");
  o.corpus = env != nullptr && *env != '\0' ? env : "/usr/share/kicad/footprints";
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--corpus=", 0) == 0) {
      o.corpus = arg.substr(9);
    } else if (arg.rfind("--ext=", 0) == 0) {
      o.ext = arg.substr(6);
    } else if (arg.rfind("--max_files=", 0) == 0) {
      o.max_files = std::strtoull(arg.c_str() + 12, nullptr, 10);
    } else if (arg.rfind("--large_texts=", 0) == 0) {
      o.large_texts = std::strtoull(arg.c_str() + 14, nullptr, 10);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

#ifdef VORN_BENCH_HAVE_GUILE
  scm_init_guile();
#endif
  std::error_code ec;
  if (!std::filesystem::is_directory(o.corpus, ec)) {
    std::fprintf(stderr, "no corpus directory %s (install kicad-footprints, or pass --corpus=DIR)\n",
                 o.corpus.c_str());
    return 1;
  }
  const Corpus corpus = load(o);
  if (corpus.texts.empty()) {
    std::fprintf(stderr, "no file ending in '%s' under %s\n", o.ext.c_str(), o.corpus.c_str());
    return 1;
  }
  choose_files(corpus, o);
  if (cases().empty()) {
    std::fprintf(stderr, "no file is read by every system\n");
    return 1;
  }
  register_all();
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_table();
  benchmark::Shutdown();
  return 0;
}
