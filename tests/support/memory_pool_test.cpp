#include "vorn/support/memory_pool.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <tuple>
#include <utility>
#include <vector>

#include "support/malloc_probe.hpp"

namespace vorn {
namespace {

using test::MallocProbe;

// A chunk is one malloc: a link word to the older chunk, then its slots in ascending order.
TEST(MemoryPool, FirstChunkLayout) {
  MemoryPool<32, false> pool(1024, 1.0f, 0);
  MallocProbe probe;
  char* first = static_cast<char*>(pool.allocate());
  EXPECT_EQ(*reinterpret_cast<void**>(first - 8), nullptr);
  for (std::size_t i = 1; i < 1024; ++i) ASSERT_EQ(pool.allocate(), first + 32 * i) << i;
  ASSERT_EQ(probe.calls(), 1u);
  char* second = static_cast<char*>(pool.allocate());
  EXPECT_EQ(*reinterpret_cast<void**>(second - 8), first - 8);
  ASSERT_EQ(probe.calls(), 2u);
  EXPECT_EQ(probe.size(0), 32776u);
  EXPECT_EQ(probe.size(1), 32776u);
}

// Every chunk serves exactly its slot count before the next malloc of 8 + slots * 16 bytes.
TEST(MemoryPool, ChunksGrowAndCap) {
  using Chunks = std::vector<std::uint64_t>;
  const std::tuple<std::uint64_t, float, std::uint64_t, Chunks> cases[] = {
      {16, 2.0f, 8192, {16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 8192, 8192}},
      {16, 2.0f, 10, {16, 10, 10, 10}},
      {1, 1.0f, 0, {1, 1, 1, 1}}};
  for (const auto& [first, factor, bound, chunks] : cases) {
    SCOPED_TRACE(testing::Message() << "first " << first << " bound " << bound);
    MemoryPool<16, false> pool(first, factor, bound);
    MallocProbe probe;
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      for (std::uint64_t j = 0; j < chunks[i]; ++j) pool.allocate();
      ASSERT_EQ(probe.calls(), i + 1) << "chunk " << i;
      EXPECT_EQ(probe.size(i), 8 + chunks[i] * 16) << "chunk " << i;
    }
  }
}

TEST(MemoryPool, FreeListIsLastInFirstOut) {
  MemoryPool<32, false> pool(4, 1.0f, 0);
  void* a = pool.allocate();
  void* b = pool.allocate();
  pool.deallocate(a);
  pool.deallocate(b);
  EXPECT_EQ(pool.allocate(), b);
  EXPECT_EQ(pool.allocate(), a);
}

// A failed malloc leaves the pool as it was: the retry asks for the same chunk, and the
// chunk taken before is still freed at destruction (LeakSanitizer checks that).
TEST(MemoryPool, MallocFailureLeavesPoolUnchanged) {
  const std::pair<int, std::size_t> cases[] = {{0, 8 + 16 * 16}, {16, 8 + 32 * 16}};
  for (const auto& [in_use, bytes] : cases) {
    MemoryPool<16, false> pool(16, 2.0f, 8192);
    for (int i = 0; i < in_use; ++i) pool.allocate();
    MallocProbe probe;
    probe.fail_next(1);
    EXPECT_THROW(pool.allocate(), std::bad_alloc);
    EXPECT_NE(pool.allocate(), nullptr);
    ASSERT_EQ(probe.calls(), 2u);
    EXPECT_EQ(probe.size(0), bytes) << in_use;
    EXPECT_EQ(probe.size(1), bytes) << in_use;
  }
}

// alloc takes a slot as allocate() does and builds the object from its argument.
TEST(ObjectPool, AllocConstructsFromArgument) {
  using Entry = std::pair<const char*, unsigned long>;
  static const char kName[] = "x";
  ObjectPool<Entry, false> pool(2, 1.0f, 0);
  MallocProbe probe;
  Entry* e = pool.alloc(std::make_pair(kName, 7));  // a pair<const char*, int> converts
  EXPECT_EQ(probe.size(0), 8 + 2 * sizeof(Entry));
  EXPECT_EQ(e->first, kName);
  EXPECT_EQ(e->second, 7u);
  pool.deallocate(e);
  EXPECT_EQ(pool.alloc(Entry(kName, 8)), e);
  EXPECT_EQ(probe.calls(), 1u);
}

}  // namespace
}  // namespace vorn
