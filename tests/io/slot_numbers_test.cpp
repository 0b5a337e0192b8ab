#include "io/slot_numbers.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace vorn::detail {
namespace {

// A pool's chunks lie a few bytes apart in memory, so most buckets of the look-up meet two
// of them: every slot must still map to its own number, and a byte inside a slot, the end
// of a chunk or an address outside the pool to none.
TEST(SlotNumbers, EverySlotToItsNumberAndNothingElseToAny) {
  // Chunks of one size, which a fresh heap lays side by side. A heap that spreads them far
  // apart (an instrumented allocator, or one fragmented by earlier tests) makes build()
  // refuse the table, rightly: such a pool has nothing to map.
  int mapped = 0;
  for (const std::uint64_t chunk_slots : {1024, 100, 40}) {
    SCOPED_TRACE(chunk_slots);
    MemoryPool<32, false> pool(chunk_slots, 1.0f, 0);
    for (int i = 0; i < 5000; ++i) pool.allocate();
    SlotNumbers numbers;
    if (!numbers.build(pool)) continue;
    ++mapped;
    ASSERT_EQ(numbers.slots(), pool.slots_taken());

    std::vector<const char*> newest_first;
    pool.for_each_chunk([&](const void* first) { newest_first.push_back(static_cast<const char*>(first)); });
    std::uint64_t number = 0, slots = pool.first_chunk_slots();
    for (auto chunk = newest_first.rbegin(); chunk != newest_first.rend(); ++chunk) {
      for (std::uint64_t k = 0; k < slots; ++k, ++number) {
        bool bad = false;
        ASSERT_EQ(numbers.of(*chunk + 32 * k, bad), number);
        ASSERT_FALSE(bad);
        numbers.of(*chunk + 32 * k + 16, bad);
        ASSERT_TRUE(bad) << "inside slot " << number;
      }
      bool bad = false;
      numbers.of(*chunk + 32 * slots, bad);
      EXPECT_TRUE(bad) << "the end of a chunk";
      slots = pool.next_chunk_slots(slots);
    }
    const int local = 0;
    for (const void* outside : {static_cast<const void*>(&local), static_cast<const void*>(nullptr)}) {
      bool bad = false;
      numbers.of(outside, bad);
      EXPECT_TRUE(bad);
    }
  }
  if (mapped == 0) GTEST_SKIP() << "the heap laid every pool's chunks too far apart";
}

}  // namespace
}  // namespace vorn::detail
