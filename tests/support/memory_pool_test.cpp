#include "vorn/support/memory_pool.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using vorn::MemoryPool;

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
