// Collects the medians of a Google Benchmark run and prints them as one table: per workload
// and size, each system's median with its cost relative to vorn and to the floor.
#ifndef VORN_BENCH_SUITE_TABLE_HPP
#define VORN_BENCH_SUITE_TABLE_HPP

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace bench {

class TableReporter : public benchmark::ConsoleReporter {
 public:
  TableReporter() : benchmark::ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& reports) override {
    benchmark::ConsoleReporter::ReportRuns(reports);
    for (const Run& run : reports) take(run);
  }

  /// The table, in Markdown, headed by `machine`.
  std::string table(const std::string& machine) const {
    std::ostringstream out;
    out << "Machine: " << machine << ".\n\n";
    out << "Medians of " << repetitions_ << " runs. Each cell: the median, then (its cost / vorn's, "
        << "its cost / the floor's); a ratio above 1 means slower (or bigger) than vorn or the "
        << "floor. n/a: the system has no such operation.\n\n";
    out << "| workload | unit | N |";
    for (const char* s : systems) out << ' ' << s << " |";
    out << "\n|---|---|---|";
    for (std::size_t i = 0; i < std::size(systems); ++i) out << "---|";
    out << '\n';
    for (const Row& row : rows) {
      auto found = values_.find(row.key);
      std::vector<std::int64_t> ns;
      if (found != values_.end()) {
        for (const auto& by_n : found->second) ns.push_back(by_n.first);
      } else {
        ns.push_back(-1);
      }
      for (std::int64_t n : ns) {
        out << "| " << row.key << " | " << row.unit << " | " << size_text(row, n) << " |";
        const std::map<std::string, double> none;
        const auto& cells = found != values_.end() ? found->second.at(n) : none;
        for (const char* s : systems) out << ' ' << cell(row, cells, s) << " |";
        out << '\n';
      }
    }
    if (!errors_.empty()) {
      out << "\nNot measured:\n\n";
      for (const auto& e : errors_) out << "- " << e.first.second << ", " << e.first.first << ": " << e.second << '\n';
    }
    return out.str();
  }

 private:
  struct Row {
    const char* key;    // the figure's name, as the workloads report it
    const char* group;  // the benchmark family that reports it
    const char* unit;
    bool sized;         // has one line per N
    bool higher_is_better;
  };
  static constexpr const char* systems[] = {"vorn", "baseline", "flyweight", "z3", "floor"};
  static constexpr Row rows[] = {
      {"share-miss", "share", "ns/node", true, false},
      {"share-hit", "share", "ns/request", true, false},
      {"bytes/node", "share", "B/node", true, false},
      {"plain", "plain", "ns/cell", true, false},
      {"intern-new", "intern", "ns/name", true, false},
      {"intern-known", "intern", "ns/name", true, false},
      {"match (f X (g X Y) Y), matching", "match-nonlinear", "ns/match", false, false},
      {"match (f X (g X Y) Y), failing", "match-nonlinear", "ns/match", false, false},
      {"match, first of 100 patterns", "match-first", "ns/match", false, false},
      {"match, list", "match-list", "ns/element", true, false},
      {"print", "print", "MB/s", true, true},
      {"deep drop", "deep-drop", "ms", true, false},
  };

  static std::string size_text(const Row& row, std::int64_t n) {
    if (!row.sized || n <= 0) return "";
    int e = 0;
    std::int64_t m = n;
    while (m % 10 == 0 && m > 1) {
      m /= 10;
      ++e;
    }
    return m == 1 ? "10^" + std::to_string(e) : std::to_string(n);
  }

  static std::string number(double v) {
    char buf[32];
    if (v >= 100) {
      std::snprintf(buf, sizeof buf, "%.0f", v);
    } else if (v >= 10) {
      std::snprintf(buf, sizeof buf, "%.1f", v);
    } else {
      std::snprintf(buf, sizeof buf, "%.2f", v);
    }
    return buf;
  }

  // Cost of `v` relative to `ref`: time ratio, or the inverse ratio for a throughput.
  static std::string ratio(const Row& row, double v, const double* ref) {
    if (ref == nullptr || *ref <= 0 || v <= 0) return "–";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", row.higher_is_better ? *ref / v : v / *ref);
    return buf;
  }

  std::string cell(const Row& row, const std::map<std::string, double>& cells, const char* system) const {
    auto own = cells.find(system);
    if (own == cells.end()) {
      auto e = errors_.find({row.group, system});
      if (e == errors_.end()) return "n/a";
      if (e->second.rfind("crashed", 0) == 0) return "crashed";
      if (e->second.rfind("timed out", 0) == 0) return "timed out";
      return "skipped";
    }
    auto vorn = cells.find("vorn");
    auto floor = cells.find("floor");
    return number(own->second) + " (" + ratio(row, own->second, vorn == cells.end() ? nullptr : &vorn->second) +
           ", " + ratio(row, own->second, floor == cells.end() ? nullptr : &floor->second) + ")";
  }

  void take(const Run& run) {
    const std::string& name = run.run_name.function_name;  // "group/system"
    const std::size_t slash = name.find('/');
    if (slash == std::string::npos) return;
    const std::string group = name.substr(0, slash), system = name.substr(slash + 1);
    if (run.error_occurred) {
      errors_[{group, system}] = run.error_message;
      return;
    }
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
    if (!median && !single) return;
    repetitions_ = run.repetitions;
    const std::int64_t n = std::atoll(run.run_name.args.c_str());
    for (const auto& counter : run.counters) {
      for (const Row& row : rows) {
        if (counter.first == row.key) values_[row.key][row.sized ? n : 0][system] = counter.second.value;
      }
    }
  }

  std::map<std::string, std::map<std::int64_t, std::map<std::string, double>>> values_;
  std::map<std::pair<std::string, std::string>, std::string> errors_;  // (group, system)
  std::int64_t repetitions_ = 1;
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_TABLE_HPP
