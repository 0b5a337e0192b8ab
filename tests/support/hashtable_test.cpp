#include "vorn/support/hashtable.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

namespace vorn::hsh {
namespace {

struct CountingHash {
  static inline int calls = 0;
  std::uint64_t operator()(unsigned long v) const noexcept { return ++calls, v; }
};
using Table = Hashtable<unsigned long, GetKey_identity<unsigned long>, unsigned long, CountingHash,
                        std::equal_to<unsigned long>>;
using Keys = std::vector<unsigned long>;

// Keys in bucket `i`, head to tail.
Keys Chain(Table& t, std::size_t i) {
  Keys keys;
  for (auto* b = (*t.end().table_buckets)[i]; b != nullptr; b = b->next) keys.push_back(b->item);
  return keys;
}

// 3 and 2266 = 3 + 31 * 73 share bucket 3 under 31 and under 73 buckets; 76 joins them there
// under 73. A rehash request picks the first prime not below it, unless the table has that many
// buckets already; growth walks the old buckets from 0, each chain head to tail, linking every
// node at the head of its new chain.
TEST(Hashtable, ChainsPositionsAndRehash) {
  Table t;
  CountingHash::calls = 0;
  EXPECT_TRUE(t.find(3) == t.end());
  EXPECT_EQ(CountingHash::calls, 0);  // an empty table answers without hashing
  for (unsigned long k : {3, 2266, 10, 76}) t.insert(k);
  const auto miss = t.find(34);
  EXPECT_TRUE(miss == t.end() && miss.bucket_index == 31 && miss.bucket_count == 31);
  using Shape = std::vector<std::pair<std::size_t, Keys>>;  // buckets, and the chain of bucket 3
  Shape got{{t.bucket_count(), Chain(t, 3)}};
  for (auto n : {5, 31, 73, 74, 152, 644, 100}) {
    t.rehash(n);
    got.emplace_back(t.bucket_count(), Chain(t, 3));
  }
  // clang-format off
  EXPECT_EQ(got, (Shape{{31, {2266, 3}}, {31, {2266, 3}}, {31, {2266, 3}}, {73, {76, 3, 2266}},
                        {151, {3}}, {313, {3}}, {1291, {3}}, {1291, {3}}}));
  // clang-format on
}

// remove_if unlinks in sweep order (bucket 3's chain is 34, 2266, 3, head first) and gives
// the chain nodes back in that order: the last one removed (10's) is the next one reused.
TEST(Hashtable, RemoveIfSweepsInOrder) {
  Table t;
  for (unsigned long k : {3, 2266, 34, 10}) t.insert(k);
  auto* const node_of_10 = (*t.end().table_buckets)[10];
  Keys visited;
  EXPECT_EQ(t.remove_if([&visited](unsigned long k) { return visited.push_back(k), k != 2266; }), 3u);
  EXPECT_EQ(visited, (Keys{34, 2266, 3, 10}));
  EXPECT_EQ(std::make_pair(t.size(), Chain(t, 3)), std::make_pair(std::size_t{1}, Keys{2266}));
  EXPECT_EQ(t.insert(5).first.node, node_of_10);
  EXPECT_TRUE(t.grows_on_next_insert() == (t.size() >= t.growth_point()));
}

// Every insert checks the load first, also for a present key (call 22 inserts 1000 again into
// 22 elements): the call that grows places its key by the new bucket count.
TEST(Hashtable, GrowthChain) {
  Table t;
  std::vector<std::pair<unsigned long, std::size_t>> growths;  // (call, buckets after)
  for (unsigned long k = 0; t.size() <= 451; ++k) {
    const std::size_t buckets = t.bucket_count();
    const unsigned long key = k == 22 ? 1000 : 1000 + k;
    const auto [pos, inserted] = t.insert(key);
    ASSERT_EQ(inserted, k != 22) << k;
    ASSERT_EQ(pos.bucket_index, key % t.bucket_count()) << k;
    if (t.bucket_count() != buckets) growths.emplace_back(k, t.bucket_count());
  }
  // Call k finds k elements up to call 22 and k - 1 after it.
  EXPECT_EQ(growths, (decltype(growths){{22, 73}, {53, 151}, {107, 313}, {221, 643}, {452, 1291}}));
  for (unsigned long k = 0; k <= 452; ++k) ASSERT_EQ(t.find(1000 + k) == t.end(), k == 22) << k;
}

// h = 5h + c over signed bytes, modulo 2^64; the single pass that hashes a name also measures it.
TEST(Hashtable, StringHashAndLength) {
  // clang-format off
  const std::tuple<const char*, std::uint64_t, std::size_t> cases[] = {
      {"", 0, 0}, {"abc", 3014, 3}, {"\xE9", 0ull - 23, 1}, {"\x80", 0ull - 128, 1},
      {"a|b\\c", 79134, 5}};
  // clang-format on
  for (const auto& [s, h, n] : cases) {
    std::size_t length = 99;
    const std::uint64_t measured = hash<char*>::of(s, length);
    EXPECT_EQ(std::make_tuple(hash<char*>()(s), measured, length), std::make_tuple(h, h, n)) << s;
  }
}

// The division-free arithmetic agrees with the plain definitions for every bucket count p:
// the bucket index by a constant divisor, for hashes near the edges of p and of 64 bits and a
// spread of others (shared-node hashes reach 2^56, string hashes all 64 bits); and the growth
// threshold, the first count at which an insert grows the table: floor(0.7 p) + 1 up to
// 10798093 buckets, and above that wherever the single-precision quotient first exceeds 0.7
// (the count before it must not).
TEST(Hashtable, BucketIndexAndGrowthThresholdForEveryPrime) {
  for (std::size_t k = 0; k < 28; ++k) {
    const std::uint64_t p = primes[k], t = detail::growth_threshold(p);
    // clang-format off
    std::vector<std::uint64_t> hs = {0, 1, p - 1, p, p + 1, 2 * p - 1, 0xFFFFFFFFull, 1ull << 56,
                                     (1ull << 56) + 12345, ~0ull, ~0ull - p};
    // clang-format on
    for (std::uint64_t x = 0x9E3779B97F4A7C15ull; hs.size() < 211;) {
      hs.push_back(x = x * 6364136223846793005ull + 1442695040888963407ull);
    }
    for (std::uint64_t h : hs) ASSERT_EQ(detail::bucket_index(h, k), h % p) << p << ", hash " << h;
    if (p <= 10798093) {
      EXPECT_EQ(t, static_cast<std::uint64_t>(std::floor(0.7 * p)) + 1) << p;
    }
    const auto loaded = [p](std::uint64_t c) {
      return static_cast<double>(static_cast<float>(c) / static_cast<float>(p)) > 0.7;
    };
    EXPECT_TRUE(loaded(t) && !loaded(t - 1)) << p;
  }
}

}  // namespace
}  // namespace vorn::hsh
