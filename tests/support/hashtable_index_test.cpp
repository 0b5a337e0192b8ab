// The table's division-free arithmetic: bucket indices by constant divisors and growth by a
// precomputed count must agree with the plain definitions for every bucket count.
#include "vorn/support/hashtable.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace vorn::hsh {
namespace {

// Hashes near the edges of every divisor and of 64 bits, plus a spread of arbitrary ones
// (shared-node hashes reach 2^56, string hashes all 64 bits).
std::vector<std::uint64_t> sample_hashes(std::uint64_t p) {
  std::vector<std::uint64_t> hs = {0, 1, p - 1, p, p + 1, 2 * p - 1, 0xFFFFFFFFull, 1ull << 56,
                                   (1ull << 56) + 12345, ~0ull, ~0ull - p};
  std::uint64_t x = 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < 200; ++i) hs.push_back(x = x * 6364136223846793005ull + 1442695040888963407ull);
  return hs;
}

TEST(HashtableArithmetic, BucketIndexIsTheRemainderForEveryPrime) {
  for (std::size_t k = 0; k < 28; ++k) {
    for (std::uint64_t h : sample_hashes(primes[k])) {
      ASSERT_EQ(detail::bucket_index(h, k), h % primes[k]) << "prime " << primes[k] << ", hash " << h;
    }
  }
}

// The first count at which an insert grows the table: 22 for 31 buckets, 52, 106, 220, 451,
// 904 for the next, floor(0.7 p) + 1 up to 10798093 buckets, and above that wherever the
// single-precision quotient first exceeds 0.7 (the count before it must not).
TEST(HashtableArithmetic, GrowthThresholdIsTheFirstLoadedCount) {
  const std::uint64_t first[] = {22, 52, 106, 220, 451, 904};
  for (std::size_t k = 0; k < 6; ++k) EXPECT_EQ(detail::growth_threshold(primes[k]), first[k]);
  for (std::size_t k = 0; k < 28; ++k) {
    const std::uint64_t p = primes[k], t = detail::growth_threshold(p);
    if (p <= 10798093) {
      EXPECT_EQ(t, static_cast<std::uint64_t>(std::floor(0.7 * p)) + 1) << p;
    }
    const auto loaded = [p](std::uint64_t c) {
      return static_cast<double>(static_cast<float>(c) / static_cast<float>(p)) > 0.7;
    };
    EXPECT_TRUE(loaded(t) && !loaded(t - 1)) << p;
  }
}

// The single pass that hashes a name also measures it.
TEST(HashtableArithmetic, StringHashGivesTheLength) {
  const std::pair<const char*, std::pair<std::uint64_t, std::size_t>> cases[] = {
      {"", {0, 0}}, {"abc", {3014, 3}}, {"\xE9", {0ull - 23, 1}}, {"a|b\\c", {hash<char*>()("a|b\\c"), 5}}};
  for (const auto& [s, want] : cases) {
    std::size_t length = 99;
    EXPECT_EQ(hash<char*>::of(s, length), want.first) << s;
    EXPECT_EQ(length, want.second) << s;
  }
}

}  // namespace
}  // namespace vorn::hsh
