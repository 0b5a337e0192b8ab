// Numbering the slots of a node pool, and finding a slot's number from its address.
#ifndef VORN_SRC_IO_SLOT_NUMBERS_HPP
#define VORN_SRC_IO_SLOT_NUMBERS_HPP

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../support/bit_instructions.hpp"
#include "vorn/expr/sexp.hpp"
#include "vorn/support/memory_pool.hpp"

namespace vorn::detail {

/// The slots of one pool, numbered from 0 in pool order (chunks oldest first, each in
/// address order), and the way back from a node's address to its number without reading
/// the node. Memory from the lowest chunk to the end of the highest is cut into buckets no
/// longer than the shortest chunk (and at most 32 KiB), so a bucket meets at most two
/// chunks; its one 16-byte entry says where in the bucket the slots of each begin and end,
/// and the number of the first. A look-up is one read of a table of a few bytes per
/// thousand slots, which the caches keep.
class SlotNumbers {
 public:
  static constexpr std::size_t slot_size = sizeof(Sexp_);
  static_assert(slot_size == 32, "slot numbers are address offsets over 32");

  /// False when the chunks lie too far apart for a bucket table of modest size, or there
  /// are 2^31 slots or more.
  bool build(const MemoryPool<slot_size, false>& pool) {
    std::vector<const char*> newest_first;
    pool.for_each_chunk([&newest_first](const void* first) { newest_first.push_back(static_cast<const char*>(first)); });
    if (newest_first.empty() || pool.slots_taken() >= (std::uint64_t{1} << 31)) return false;
    in_order_.reserve(newest_first.size());
    std::uint64_t slots = pool.first_chunk_slots(), number = 0, shortest = slots;
    for (auto it = newest_first.rbegin(); it != newest_first.rend(); ++it) {
      const auto base = reinterpret_cast<std::uintptr_t>(*it);
      in_order_.push_back({base, base + slots * slot_size, static_cast<std::uint32_t>(number)});
      number += slots;
      shortest = std::min(shortest, slots);
      slots = pool.next_chunk_slots(slots);
    }
    slots_ = number;
    std::vector<Chunk> by_address = in_order_;
    if (!std::is_sorted(by_address.begin(), by_address.end(), by_base))
      std::sort(by_address.begin(), by_address.end(), by_base);
    lo_ = by_address.front().base;
    span_ = by_address.back().end - lo_;
    shift_ = 0;
    while (shift_ < max_shift && (std::uint64_t{2} << shift_) <= shortest * slot_size) ++shift_;
    const std::uint64_t buckets = ((span_ - 1) >> shift_) + 1;
    if (buckets > 4 * by_address.size() + slots_ / 64 + 1024) return false;
    bucket_.resize(static_cast<std::size_t>(buckets));
    const std::uintptr_t width = std::uintptr_t{1} << shift_;
    std::size_t c = 0;  // the first chunk by address that ends past the bucket's start
    for (std::size_t b = 0; b < bucket_.size(); ++b) {
      const std::uintptr_t start = lo_ + (static_cast<std::uintptr_t>(b) << shift_), end = start + width;
      while (c < by_address.size() && by_address[c].end <= start) ++c;
      Bucket& e = bucket_[b];
      unsigned met = 0;
      for (std::size_t k = c; k < by_address.size() && k < c + 2; ++k) {
        const Chunk& chunk = by_address[k];
        // The chunk's first slot at or after the bucket's start.
        const std::uintptr_t first = chunk.base >= start ? chunk.base : chunk.base + (start - chunk.base + slot_size - 1) / slot_size * slot_size;
        if (first >= end || first >= chunk.end) continue;
        e.start[met] = static_cast<std::uint16_t>(first - start);
        e.end[met] = static_cast<std::uint16_t>(std::min(chunk.end, end) - start);
        e.first[met] = chunk.first + static_cast<std::uint32_t>((first - chunk.base) / slot_size);
        ++met;
      }
      assert((c + 2 >= by_address.size() || by_address[c + 2].base >= end) && "a bucket meets at most two chunks");
    }
    return true;
  }

  std::uint64_t slots() const noexcept { return slots_; }
  /// The chunks in pool order: their slot addresses [base, end) and first slot number.
  struct Chunk {
    std::uintptr_t base, end;
    std::uint32_t first;
  };
  const std::vector<Chunk>& chunks() const noexcept { return in_order_; }

  /// The number of the slot at `p`; when `p` is no slot of the pool, 0 and `bad` set.
  /// No branch depends on the address.
  VORN_INLINE_INTO_CALLER std::uint32_t of(const void* p, bool& bad) const noexcept {
    const std::uintptr_t off = reinterpret_cast<std::uintptr_t>(p) - lo_;  // wraps below lo_
    const bool inside = off < span_;
    const Bucket& e = bucket_[inside ? off >> shift_ : 0];
    const auto o = static_cast<std::uint32_t>(off & ((std::uintptr_t{1} << shift_) - 1));
    const unsigned i = o >= e.start[1] ? 1 : 0;
    const std::uint32_t at = o - e.start[i];  // wraps below the chunk's first slot
    const bool ok = inside & (at < static_cast<std::uint32_t>(e.end[i] - e.start[i])) & ((at & (slot_size - 1)) == 0);
    bad |= !ok;
    return ok ? e.first[i] + at / slot_size : 0;
  }

 private:
  static constexpr unsigned max_shift = 15;  // buckets of at most 32 KiB: offsets fit 16 bits
  static bool by_base(const Chunk& a, const Chunk& b) noexcept { return a.base < b.base; }

  /// The chunks a bucket meets, in address order: the offsets in the bucket of the first
  /// slot of each and of the end of its slots, and the number of that first slot. A chunk
  /// not met has both offsets at `none`, past any offset in a bucket.
  struct Bucket {
    static constexpr std::uint16_t none = 0xFFFF;
    std::uint16_t start[2] = {none, none};
    std::uint16_t end[2] = {none, none};
    std::uint32_t first[2] = {0, 0};
  };
  static_assert(sizeof(Bucket) == 16, "a bucket is read in one piece");

  std::vector<Chunk> in_order_;  // pool order
  std::vector<Bucket> bucket_;   // by (address - lo_) >> shift_
  std::uintptr_t lo_ = 0, span_ = 0;
  unsigned shift_ = 0;
  std::uint64_t slots_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_SLOT_NUMBERS_HPP
