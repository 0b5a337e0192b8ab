// Allocation behaviour of the memory pool and the hash table: what they ask of malloc, and
// what a refused allocation leaves.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them and can make any of them fail.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <new>
#include <tuple>
#include <utility>
#include <vector>

#include "support/malloc_probe.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/memory_pool.hpp"

namespace vorn {
namespace {

using test::MallocProbe;

// A chunk is one malloc of 8 + slots * 16 bytes: a link to the older chunk, then its slots,
// handed out in ascending order. Each chunk serves exactly its slot count before the next (so
// the 1025th slot takes a second chunk of 1024); slot counts grow by truncated products
// (1 * 1.5 stays 1) of single-precision floats (5 * 1.4 is 7, 10 * 1.9 is 19: one less in
// double precision, as 1.4f and 1.9f fall just short of 1.4 and 1.9). Each chunk is first
// refused once: that leaves the pool as it was, so the retry asks for the same size and links
// to the same older chunk (LeakSanitizer checks that every chunk taken is freed at destruction).
TEST(MemoryPool, ChunkLayoutGrowthCapAndMallocFailure) {
  const std::tuple<std::uint64_t, float, std::uint64_t, std::vector<std::uint64_t>> cases[] = {
      {16, 2.0f, 8192, {16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 8192, 8192}},
      {16, 2.0f, 10, {16, 10, 10, 10}},
      {1024, 1.0f, 0, {1024, 1024}},
      {1, 1.5f, 0, {1, 1, 1}},
      {5, 1.4f, 0, {5, 7, 9, 12}},
      {10, 1.9f, 40, {10, 19, 36, 40}}};
  for (const auto& [first, factor, cap, chunks] : cases) {
    MemoryPool<16, false> pool(first, factor, cap);
    MallocProbe probe;
    char* older = nullptr;
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "first " << first << " cap " << cap << " chunk " << i);
      probe.fail_at(2 * i);
      EXPECT_THROW(pool.allocate(), std::bad_alloc);
      char* start = static_cast<char*>(pool.allocate());
      const std::size_t bytes = 8 + chunks[i] * 16;
      ASSERT_EQ(std::make_tuple(probe.calls(), probe.size(2 * i), probe.size(2 * i + 1)),
                std::make_tuple(2 * i + 2, bytes, bytes));
      ASSERT_EQ(*reinterpret_cast<char**>(start - 8), older);
      for (std::uint64_t j = 1; j < chunks[i]; ++j) ASSERT_EQ(pool.allocate(), start + 16 * j);
      older = start - 8;
    }
  }
}

// A key is its own hash, so that the tests can say which keys share a bucket.
struct IdentityHash {
  std::uint64_t operator()(unsigned long v) const noexcept { return v; }
};
using Table = hsh::Hashtable<unsigned long, hsh::GetKey_identity<unsigned long>, unsigned long,
                             IdentityHash, std::equal_to<unsigned long>>;
using Keys = std::vector<unsigned long>;

// Keys in bucket `i`, head to tail.
Keys Chain(Table& t, std::size_t i) {
  Keys keys;
  for (auto* b = (*t.end().table_buckets)[i]; b != nullptr; b = b->next) keys.push_back(b->item);
  return keys;
}

// A growth that counts while it hashes sees every element once, and its old bucket array
// takes the elements back without allocating; chains end as a rehash to that count leaves
// them (3, 2266 and 76 share bucket 3 under 73 buckets).
TEST(Hashtable, CountingGrowthAndReturn) {
  Table t, plain;
  const Keys keys{3, 2266, 10, 76, 5, 41};
  for (unsigned long k : keys) t.insert(k), plain.insert(k);
  t.rehash(73), plain.rehash(73);
  Table::BucketArray old;
  EXPECT_EQ(t.rehash_counting(74, [](unsigned long k) { return k % 2 == 0; }, old), 3u);
  EXPECT_EQ(std::make_pair(t.bucket_count(), old.size()), std::make_pair(151ul, 73ul));
  EXPECT_EQ(t.rehash_counting(151, [](unsigned long) { return true; }, old), 0u);  // no growth
  plain.rehash(151);
  ASSERT_EQ(Chain(t, 3), Chain(plain, 3));
  MallocProbe probe;
  t.return_to(old);
  EXPECT_EQ(probe.calls(), 0u);
  EXPECT_EQ(std::make_pair(t.bucket_count(), t.size()), std::make_pair(73ul, keys.size()));
  EXPECT_EQ(Chain(t, 3), (Keys{76, 3, 2266}));  // the walk of 151 buckets meets 2266, 3, 76
  for (unsigned long k : keys) EXPECT_TRUE(t.find(k) != t.end()) << k;
  EXPECT_EQ(t.growth_point(), hsh::detail::growth_threshold(73));
}

// clear() returns the nodes bucket by bucket, head to tail; later inserts take them back
// last-returned first, and malloc only once they run out.
TEST(Hashtable, ClearKeepsBucketsAndReusesNodes) {
  Table t;
  std::vector<const Table::Bucket*> nodes;
  for (unsigned long k = 0; k < 48; ++k) nodes.push_back(t.insert(k).first.node);
  t.clear();  // 73 buckets; the 48 nodes fill the 16- and 32-slot chunks
  EXPECT_EQ(std::make_pair(t.bucket_count(), t.size()), std::make_pair(73ul, 0ul));
  MallocProbe probe;
  for (unsigned long k = 0; k < 48; ++k) ASSERT_EQ(t.insert(100 + k).first.node, nodes[47 - k]);
  t.insert(200);
  ASSERT_EQ(probe.calls(), 1u);
  EXPECT_EQ(probe.size(0), 8 + 64 * sizeof(Table::Bucket));
  EXPECT_TRUE(Chain(t, 5).empty());  // no stale chains left by clear()
}

}  // namespace
}  // namespace vorn
