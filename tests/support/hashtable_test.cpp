#include "vorn/support/hashtable.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <tuple>
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

struct CStrEq {
  bool operator()(const char* a, const char* b) const { return std::strcmp(a, b) == 0; }
};
using Names = Hashtable<std::pair<const char*, unsigned long>,
                        GetKey_pair<const char*, unsigned long>, const char*, hash<char*>, CStrEq>;

// Keys 3 and 3 + 31 * 73 share bucket 3 under 31 and under 73 buckets; 76 joins them
// there under 73. Key 10 is alone.
TEST(Hashtable, LookupsAndPositions) {
  Table t;
  EXPECT_EQ(t.bucket_count(), 31u);
  EXPECT_EQ(t.size(), 0u);
  CountingHash::calls = 0;
  EXPECT_TRUE(t.find(3) == t.end());
  EXPECT_EQ(CountingHash::calls, 0);
  const auto a = t.insert(3).first;
  const auto b = t.insert(3 + 31 * 73).first;
  const auto c = t.insert(10).first;
  const auto d = t.insert(76).first;
  EXPECT_EQ(CountingHash::calls, 4);
  EXPECT_EQ(b.bucket_index, 3u);
  EXPECT_EQ(b.node->next, a.node);  // newest at the chain head
  EXPECT_EQ(a.node->next, nullptr);
  const auto miss = t.find(34);
  EXPECT_TRUE(miss == t.end());
  EXPECT_EQ(miss.bucket_index, miss.bucket_count);
  EXPECT_EQ(miss.bucket_count, 31u);
  const std::tuple<std::uint64_t, std::uint64_t, const Table::Bucket*> from_to[] = {
      {0, 3, b.node}, {3, 10, c.node}, {9, 10, c.node}, {10, 14, d.node}, {14, 31, nullptr}};
  for (const auto& [from, index, node] : from_to) {
    const Table::iterator pos(miss.table_buckets, 31, from, nullptr);
    EXPECT_EQ(pos.bucket_index, index) << from;
    EXPECT_EQ(pos.node, node) << from;
  }
  t.rehash(31);  // already 31 buckets: nothing is relinked
  EXPECT_EQ(b.node->next, a.node);
  // Growth walks old buckets from 0, each chain head to tail, linking at the new heads.
  t.rehash(32);
  EXPECT_EQ(d.node->next, a.node);
  EXPECT_EQ(a.node->next, b.node);
  EXPECT_EQ(b.node->next, nullptr);
}

// The load check comes first in every insert call: the call at each growth count places
// its key by the new bucket count.
TEST(Hashtable, GrowthChain) {
  const std::pair<unsigned long, std::size_t> growth[] = {
      {22, 73}, {52, 151}, {106, 313}, {220, 643}, {451, 1291}};
  Table t;
  std::size_t next = 0;
  for (unsigned long count = 0; count <= 451; ++count) {
    const bool grows = next < 5 && growth[next].first == count;
    const std::size_t after = grows ? growth[next++].second : t.bucket_count();
    ASSERT_EQ(t.insert(1000 + count).first.bucket_index, (1000 + count) % after) << count;
    ASSERT_EQ(t.bucket_count(), after) << "count " << count;
  }
  EXPECT_EQ(next, 5u);
  for (unsigned long k = 1000; k <= 1451; ++k) ASSERT_EQ(*t.find(k), k);
}

TEST(Hashtable, InsertOfPresentKeyStillGrows) {
  Table t;
  for (unsigned long k = 0; k < 22; ++k) t.insert(k);
  const Table::Bucket* existing = t.find(5).node;
  const auto [pos, inserted] = t.insert(5);
  EXPECT_FALSE(inserted);
  EXPECT_EQ(pos.node, existing);
  EXPECT_EQ(t.bucket_count(), 73u);
  EXPECT_EQ(t.size(), 22u);
}

TEST(Hashtable, RehashPicksNextPrimeAndNeverShrinks) {
  const std::pair<std::size_t, std::size_t> cases[] = {{5, 31},   {31, 31},   {32, 73},   {73, 73},
                                                       {74, 151}, {100, 151}, {644, 1291}};
  for (const auto& [request, buckets] : cases) {
    Table t;
    const Table::Bucket* node = t.insert(40).first.node;
    t.rehash(request);
    EXPECT_EQ(t.bucket_count(), buckets) << request;
    EXPECT_EQ(t.find(40).node, node) << request;
    t.rehash(32);
    EXPECT_EQ(t.bucket_count(), buckets == 31 ? 73 : buckets) << request;
  }
}

TEST(Hashtable, StringHash) {
  Names t;
  const std::tuple<const char*, std::uint64_t, std::uint64_t> cases[] = {
      {"", 0, 0},
      {"abc", 3014, 7},
      {"\xE9", 18446744073709551593ull, 24},
      {"\x80", 0ull - 128, 12}};
  for (const auto& [s, h, bucket] : cases) {
    EXPECT_EQ(hash<char*>()(s), h) << s;
    EXPECT_EQ(t.insert({s, 0}).first.bucket_index, bucket) << s;
  }
}

// clear() returns the nodes bucket by bucket, head to tail; later inserts take them back
// last-returned first, and malloc only once they run out.
TEST(Hashtable, ClearKeepsBucketsAndReusesNodes) {
  Table t;
  std::vector<const Table::Bucket*> nodes;
  for (unsigned long k = 0; k < 48; ++k) nodes.push_back(t.insert(k).first.node);
  ASSERT_EQ(t.bucket_count(), 73u);  // the 48 nodes fill the 16- and 32-slot chunks
  t.clear();
  EXPECT_EQ(t.bucket_count(), 73u);
  EXPECT_EQ(t.size(), 0u);
  test::MallocProbe probe;
  for (unsigned long k = 0; k < 48; ++k) ASSERT_EQ(t.insert(100 + k).first.node, nodes[47 - k]);
  EXPECT_EQ(probe.calls(), 0u);
  t.insert(200);
  ASSERT_EQ(probe.calls(), 1u);
  EXPECT_EQ(probe.size(0), 8 + 64 * sizeof(Table::Bucket));
  EXPECT_TRUE(t.find(5) == t.end());
}

}  // namespace
}  // namespace vorn::hsh
