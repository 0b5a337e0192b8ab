#include "vorn/support/hashtable.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "support/malloc_probe.hpp"

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
// under 73.
TEST(Hashtable, ChainsAndPositions) {
  Table t;
  CountingHash::calls = 0;
  EXPECT_TRUE(t.find(3) == t.end());
  EXPECT_EQ(CountingHash::calls, 0);  // an empty table answers without hashing
  for (unsigned long k : {3, 2266, 10, 76}) t.insert(k);
  EXPECT_EQ(Chain(t, 3), (Keys{2266, 3}));  // newest at the chain head
  const auto miss = t.find(34);
  EXPECT_TRUE(miss == t.end() && miss.bucket_index == 31 && miss.bucket_count == 31);
  t.rehash(31);  // already 31 buckets: nothing is relinked
  EXPECT_EQ(Chain(t, 3), (Keys{2266, 3}));
  // Growth walks old buckets from 0, each chain head to tail, linking at the new heads.
  t.rehash(32);
  EXPECT_EQ(Chain(t, 3), (Keys{76, 3, 2266}));
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

// A request picks the first prime not below it, unless the table has that many buckets already.
TEST(Hashtable, RehashPicksPrimesAndNeverShrinks) {
  Table t;
  std::vector<std::size_t> got;
  for (auto n : {5, 31, 73, 74, 152, 644, 100}) t.rehash(n), got.push_back(t.bucket_count());
  EXPECT_EQ(got, (std::vector<std::size_t>{31, 31, 73, 151, 313, 1291, 1291}));
}

// h = 5h + c over signed bytes, modulo 2^64.
TEST(Hashtable, StringHash) {
  const std::pair<const char*, std::uint64_t> cases[] = {
      {"", 0}, {"abc", 3014}, {"\xE9", 0ull - 23}, {"\x80", 0ull - 128}};
  for (const auto& [s, h] : cases) EXPECT_EQ(hash<char*>()(s), h) << s;
}

// clear() returns the nodes bucket by bucket, head to tail; later inserts take them back
// last-returned first, and malloc only once they run out.
TEST(Hashtable, ClearKeepsBucketsAndReusesNodes) {
  Table t;
  std::vector<const Table::Bucket*> nodes;
  for (unsigned long k = 0; k < 48; ++k) nodes.push_back(t.insert(k).first.node);
  t.clear();  // 73 buckets; the 48 nodes fill the 16- and 32-slot chunks
  EXPECT_EQ(std::make_pair(t.bucket_count(), t.size()), std::make_pair(73ul, 0ul));
  test::MallocProbe probe;
  for (unsigned long k = 0; k < 48; ++k) ASSERT_EQ(t.insert(100 + k).first.node, nodes[47 - k]);
  t.insert(200);
  ASSERT_EQ(probe.calls(), 1u);
  EXPECT_EQ(probe.size(0), 8 + 64 * sizeof(Table::Bucket));
  EXPECT_TRUE(Chain(t, 5).empty());  // no stale chains left by clear()
}

}  // namespace
}  // namespace vorn::hsh
