#include "vorn/support/memory_pool.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <tuple>
#include <vector>

#include "support/malloc_probe.hpp"

namespace {

using vorn::MemoryPool;

// A chunk is one malloc of 8 + slots * 16 bytes: a link to the older chunk, then its slots,
// handed out in ascending order. Each chunk serves exactly its slot count before the next (so
// the 1025th slot takes a second chunk of 1024); slot counts grow by truncated products
// (1 * 1.5 stays 1) of single-precision floats (5 * 1.4 is 7, 10 * 1.9 is 19: one less in
// double precision, as 1.4f and 1.9f fall just short of 1.4 and 1.9). Each chunk is first refused
// once: that leaves the pool as it was, so the retry asks for the same size and links to the same
// older chunk (LeakSanitizer checks that every chunk taken is freed at destruction).
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
    vorn::test::MallocProbe probe;
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

TEST(MemoryPool, FreeListIsLastInFirstOut) {
  MemoryPool<32, false> pool(4, 1.0f, 0);
  const std::vector<void*> slots{pool.allocate(), pool.allocate()};
  for (void* slot : slots) pool.deallocate(slot);
  EXPECT_EQ((std::vector<void*>{pool.allocate(), pool.allocate()}),
            (std::vector<void*>{slots[1], slots[0]}));
}

// Chunks of 1, 2, 4, 8 slots, or of 5, 7, 9 (chunk sizes are worked out again from the first
// one, in single precision too); every third slot given back, none of them a chunk's last. The
// visit sees exactly the slots in use, and leaves the free list.
TEST(MemoryPool, VisitsTheSlotsInUse) {
  for (const auto& [first, factor, slots] :
       {std::make_tuple(1, 2.0f, 15), std::make_tuple(5, 1.4f, 21)}) {
    MemoryPool<16, false> pool(first, factor, 0);
    std::vector<void*> used, seen;
    for (int i = 0; i < slots; ++i) {
      used.push_back(pool.allocate());
      static_cast<void**>(used.back())[1] = &used;  // a slot in use has its second word set
    }
    for (int i = slots - 2; i >= 0; i -= 3) pool.deallocate(used[i]), used.erase(used.begin() + i);
    pool.for_each_in_use([&seen](void* slot) { seen.push_back(slot); });
    std::sort(used.begin(), used.end()), std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, used) << first;
    EXPECT_EQ(pool.slots_in_use(), used.size());
    EXPECT_TRUE(pool.has_free_slot());
    for (int i = 0; i < slots / 3; ++i) pool.allocate();
    EXPECT_FALSE(pool.has_free_slot());
  }
}

}  // namespace
