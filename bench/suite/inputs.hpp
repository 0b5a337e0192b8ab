// Inputs shared by every system of the comparison, made once per size and never inside a
// timed region, plus the clock and the heap meter the workloads use.
#ifndef VORN_BENCH_SUITE_INPUTS_HPP
#define VORN_BENCH_SUITE_INPUTS_HPP

#include <malloc.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace bench {

/// Leaves of the built expressions: interned names leaf0 .. leaf1023.
constexpr std::uint32_t leaf_count = 1024;

/// splitmix64: a fixed-seed generator, so every system and every run sees the same inputs.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) noexcept : state_(seed) {}
  std::uint64_t next() noexcept {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  /// Uniform enough in [0, bound) for bench inputs.
  std::uint32_t below(std::uint64_t bound) noexcept {
    return static_cast<std::uint32_t>(((next() >> 32) * bound) >> 32);
  }

 private:
  std::uint64_t state_;
};

using IndexPair = std::pair<std::uint32_t, std::uint32_t>;

/// The share workloads' requests: pair i names the two children of node i by their index
/// among the nodes made before it (0 .. 1023 are the leaves, 1024 + j is node j). Children
/// are drawn uniformly, so the expression is a random DAG of logarithmic depth, and no pair
/// repeats, so each of the n requests of a first build makes a new node.
inline const std::vector<IndexPair>& share_pairs(std::size_t n) {
  static std::map<std::size_t, std::vector<IndexPair>> cache;
  auto found = cache.find(n);
  if (found != cache.end()) return found->second;
  std::vector<IndexPair>& pairs = cache[n];
  pairs.reserve(n);
  // Open-addressing set of the pairs drawn so far (key + 1, so 0 means empty).
  std::size_t cap = 1;
  while (cap < 2 * n) cap <<= 1;
  std::vector<std::uint64_t> seen(cap, 0);
  Rng rng(0x5EED0001 + n);
  while (pairs.size() < n) {
    const std::uint64_t made = leaf_count + pairs.size();
    const std::uint32_t a = rng.below(made), b = rng.below(made);
    const std::uint64_t key = ((std::uint64_t{a} << 32) | b) + 1;
    std::size_t i = (key * 0x9E3779B97F4A7C15ull) & (cap - 1);
    while (seen[i] != 0 && seen[i] != key) i = (i + 1) & (cap - 1);
    if (seen[i] == key) continue;  // drawn before: draw again
    seen[i] = key;
    pairs.emplace_back(a, b);
  }
  return pairs;
}

/// A large shared expression of about n nodes for the print workload, as requests in the
/// form of share_pairs (repeats allowed): 16 layers, each node built over two random
/// nodes of the layer below, then the top layer folded pairwise into one root, which is
/// the last request. Most nodes are reachable from the root, many of them several times.
inline const std::vector<IndexPair>& print_pairs(std::size_t n) {
  static std::map<std::size_t, std::vector<IndexPair>> cache;
  auto found = cache.find(n);
  if (found != cache.end()) return found->second;
  std::vector<IndexPair>& pairs = cache[n];
  Rng rng(0x5EED0002 + n);
  const std::uint32_t width = static_cast<std::uint32_t>(n / 16 < 64 ? 64 : n / 16);
  std::uint32_t below_first = 0, below_width = leaf_count;  // the layer the next one draws from
  for (int layer = 0; layer < 16; ++layer) {
    const std::uint32_t first = leaf_count + static_cast<std::uint32_t>(pairs.size());
    for (std::uint32_t i = 0; i < width; ++i) {
      pairs.emplace_back(below_first + rng.below(below_width), below_first + rng.below(below_width));
    }
    below_first = first;
    below_width = width;
  }
  std::vector<std::uint32_t> top;
  for (std::uint32_t i = 0; i < below_width; ++i) top.push_back(below_first + i);
  while (top.size() > 1) {
    std::vector<std::uint32_t> up;
    for (std::size_t i = 0; i + 1 < top.size(); i += 2) {
      up.push_back(leaf_count + static_cast<std::uint32_t>(pairs.size()));
      pairs.emplace_back(top[i], top[i + 1]);
    }
    if (top.size() % 2 != 0) up.push_back(top.back());
    top.swap(up);
  }
  return pairs;
}

/// n distinct names of 6 to 14 letters and digits (short enough for every string type's
/// inline buffer). `round` selects another, equally distributed set, for systems whose
/// name table outlives the context and so cannot meet the same names as new twice.
inline const std::vector<std::string>& names(std::size_t n, unsigned round = 0) {
  static std::map<std::pair<std::size_t, unsigned>, std::vector<std::string>> cache;
  auto found = cache.find({n, round});
  if (found != cache.end()) return found->second;
  // Fresh rounds are used once: keep only the shared set (round 0) of each size.
  for (auto it = cache.begin(); it != cache.end();) it = it->first.second != 0 ? cache.erase(it) : std::next(it);
  std::vector<std::string>& out = cache[{n, round}];
  out.reserve(n);
  std::unordered_set<std::string_view> seen;
  seen.reserve(n);
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz_0123456789";
  Rng rng(0x5EED0003 + n * 1000003 + round);
  std::string candidate;
  while (out.size() < n) {
    candidate.assign(6 + rng.below(9), ' ');
    for (char& c : candidate) c = alphabet[rng.below(26 + (&c == &candidate[0] ? 0 : 11))];
    if (seen.count(candidate) != 0) continue;
    out.push_back(candidate);  // no reallocation (reserved), so the view below stays valid
    seen.insert(out.back());
  }
  return out;
}

/// The clock of every timed region: CPU time of the calling thread (user and system, so
/// page faults count), not wall time. The machines this runs on are shared, and time spent
/// waiting for a core would otherwise be charged to whichever system was running.
struct Clock {
  struct time_point {
    std::int64_t ns;
  };
  static time_point now() noexcept {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return {std::int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec};
  }
};

inline double seconds(Clock::time_point a, Clock::time_point b) {
  return static_cast<double>(b.ns - a.ns) * 1e-9;
}

/// Bytes the C heap has handed out and not taken back (including malloc's own headers and
/// large blocks served by mmap).
inline double heap_in_use() {
  const struct mallinfo2 mi = mallinfo2();
  return static_cast<double>(mi.uordblks) + static_cast<double>(mi.hblkhd);
}

}  // namespace bench

#endif  // VORN_BENCH_SUITE_INPUTS_HPP
