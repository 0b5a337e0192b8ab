#include "vorn/support/memory_pool.hpp"

#include <gtest/gtest.h>

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
// (1 * 1.5 stays 1).
TEST(MemoryPool, ChunkLayoutGrowthAndCap) {
  const std::tuple<std::uint64_t, float, std::uint64_t, std::vector<std::uint64_t>> cases[] = {
      {16, 2.0f, 8192, {16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 8192, 8192}},
      {16, 2.0f, 10, {16, 10, 10, 10}},
      {1024, 1.0f, 0, {1024, 1024}},
      {1, 1.5f, 0, {1, 1, 1}}};
  for (const auto& [first, factor, cap, chunks] : cases) {
    MemoryPool<16, false> pool(first, factor, cap);
    vorn::test::MallocProbe probe;
    char* older = nullptr;
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "first " << first << " cap " << cap << " chunk " << i);
      char* start = static_cast<char*>(pool.allocate());
      ASSERT_EQ(std::make_tuple(probe.calls(), probe.size(i), *reinterpret_cast<char**>(start - 8)),
                std::make_tuple(i + 1, 8 + chunks[i] * 16, older));
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

// A failed malloc leaves the pool as it was: the retry asks for the same chunk, and the
// chunk taken before is still freed at destruction (LeakSanitizer checks that).
TEST(MemoryPool, MallocFailureLeavesPoolUnchanged) {
  using Case = std::pair<int, std::size_t>;  // slots in use, bytes of the chunk asked for
  for (const auto& [in_use, bytes] : {Case{0, 8 + 16 * 16}, Case{16, 8 + 32 * 16}}) {
    MemoryPool<16, false> pool(16, 2.0f, 8192);
    for (int i = 0; i < in_use; ++i) pool.allocate();
    vorn::test::MallocProbe probe;
    probe.fail_next(1);
    EXPECT_THROW(pool.allocate(), std::bad_alloc);
    EXPECT_NE(pool.allocate(), nullptr);
    EXPECT_EQ(std::make_tuple(probe.calls(), probe.size(0), probe.size(1)),
              std::make_tuple(std::size_t{2}, bytes, bytes));
  }
}

}  // namespace
