#include "vorn/support/memory_pool.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using vorn::MemoryPool;

TEST(MemoryPool, FreeListIsLastInFirstOut) {
  MemoryPool<32, false> pool(4, 1.0f, 0);
  const std::vector<void*> slots{pool.allocate(), pool.allocate()};
  for (void* slot : slots) pool.deallocate(slot);
  EXPECT_EQ((std::vector<void*>{pool.allocate(), pool.allocate()}),
            (std::vector<void*>{slots[1], slots[0]}));
}

// Chunks of 1, 2, 4, 8 slots (chunk sizes are worked out again from the first one); every
// third slot given back. The visit sees exactly the slots in use, and leaves the free list.
TEST(MemoryPool, VisitsTheSlotsInUse) {
  MemoryPool<16, false> pool(1, 2.0f, 0);
  std::vector<void*> used, seen;
  for (int i = 0; i < 15; ++i) {
    used.push_back(pool.allocate());
    static_cast<void**>(used.back())[1] = &used;  // a slot in use has its second word set
  }
  for (int i = 14; i >= 0; i -= 3) pool.deallocate(used[i]), used.erase(used.begin() + i);
  pool.for_each_in_use([&seen](void* slot) { seen.push_back(slot); });
  std::sort(used.begin(), used.end()), std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, used);
  EXPECT_EQ(pool.slots_in_use(), 10u);
  EXPECT_TRUE(pool.has_free_slot());
  for (int i = 0; i < 5; ++i) pool.allocate();
  EXPECT_FALSE(pool.has_free_slot());
}

}  // namespace
