// Fixed-size slot pools: MemoryPool<Size, false> and ObjectPool<T, false>.
#ifndef VORN_SUPPORT_MEMORY_POOL_HPP
#define VORN_SUPPORT_MEMORY_POOL_HPP

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define VORN_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VORN_ASAN 1
#endif
#endif

#ifdef VORN_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace vorn {

namespace detail {

// A free slot's first word is its free-list link; AddressSanitizer builds poison
// the rest of the slot so that a use after release is reported.
inline void poison_free_slot(void* slot, std::size_t size) noexcept {
#ifdef VORN_ASAN
  ASAN_POISON_MEMORY_REGION(static_cast<char*>(slot) + sizeof(void*), size - sizeof(void*));
#else
  (void)slot;
  (void)size;
#endif
}

inline void unpoison_slot(void* slot, std::size_t size) noexcept {
#ifdef VORN_ASAN
  ASAN_UNPOISON_MEMORY_REGION(slot, size);
#else
  (void)slot;
  (void)size;
#endif
}

}  // namespace detail

/// A pool of fixed-size slots of `Size` bytes, carved out of chunks taken from `malloc`.
///
/// Ownership: the pool owns its chunks and frees them all, with `free`, when it is
/// destroyed; it never runs a destructor on what a slot holds, and never gives a
/// chunk back earlier. Whoever owns the pool makes sure nothing uses its slots after.
///
/// Hand-out order: a new chunk's slots go out in ascending address order; a slot given
/// back is the next one handed out (the free list is last in, first out).
///
/// Chunk sizes: the first chunk holds `first_chunk_slots` slots; after each chunk the
/// count is multiplied by `growth_factor` in single precision and truncated, then
/// capped at `max_chunk_slots` (0 means no cap). A chunk is one `malloc` of
/// 8 + slots * Size bytes: the link to the previous chunk, then the slots.
///
/// Not thread-safe; it belongs to one owner.
///
/// The second parameter selects a checked variant that the library does not provide;
/// only `false` is defined.
template <std::size_t Size, bool Checked = false>
class MemoryPool;

template <std::size_t Size>
class MemoryPool<Size, false> {
  static_assert(Size >= sizeof(void*), "a free slot must hold the free-list link");

 public:
  static constexpr std::size_t slot_size = Size;

  /// Takes no memory yet. Requires `first_chunk_slots` >= 1 and `growth_factor` >= 1.
  MemoryPool(std::uint64_t first_chunk_slots, float growth_factor,
             std::uint64_t max_chunk_slots) noexcept
      : chunk_slots(first_chunk_slots),
        growth_factor(growth_factor),
        max_chunk_slots(max_chunk_slots),
        oldest_chunk_slots(first_chunk_slots) {}

  MemoryPool(const MemoryPool&) = delete;
  MemoryPool& operator=(const MemoryPool&) = delete;

  /// Frees every chunk, newest first; runs no destructor on any slot.
  ~MemoryPool() {
    while (chunk_list != nullptr) {
      void* previous = *static_cast<void**>(chunk_list);
      std::free(chunk_list);
      chunk_list = previous;
    }
  }

  /// One slot of `Size` uninitialised bytes; never null. Throws `std::bad_alloc`
  /// (and leaves the pool unchanged) when a new chunk cannot be had.
  void* allocate() {
    if (free_list == nullptr) take_chunk();
    void* slot = free_list;
    detail::unpoison_slot(slot, Size);
    free_list = *static_cast<void**>(slot);
    return slot;
  }

  /// Gives back a slot this pool handed out; it becomes the next one handed out.
  /// Runs no destructor.
  void deallocate(void* slot) noexcept {
    *static_cast<void**>(slot) = free_list;
    free_list = slot;
    detail::poison_free_slot(slot, Size);
  }

  /// True when the next `allocate()` is served without taking a chunk.
  bool has_free_slot() const noexcept { return free_list != nullptr; }

  /// Slots handed out and not given back. Walks the free list; allocates nothing.
  std::uint64_t slots_in_use() const noexcept {
    std::uint64_t free_slots = 0;
    for (void* s = free_list; s != nullptr; s = *static_cast<void**>(s)) ++free_slots;
    return slots_in_chunks - free_slots;
  }

  /// Calls `visit(slot)` for every slot handed out and not given back, chunk by chunk from
  /// the oldest, each chunk in address order. Allocates nothing; `visit` must not allocate
  /// from or give back to this pool.
  ///
  /// Free slots are told apart by the pool's own address, written in their second word for
  /// the duration of the call: every slot in use must have its second word set, to anything
  /// but that address.
  template <class Visit>
  void for_each_in_use(Visit visit) noexcept {
    static_assert(Size >= 2 * sizeof(void*), "a free slot must hold its link and a mark");
    mark_free_slots(this);
    // Chunk sizes follow from the first one, so the chunks are walked oldest first: their
    // list (newest first) is reversed for the walk and restored after it.
    reverse_chunks();
    std::uint64_t n = oldest_chunk_slots;
    for (void* chunk = chunk_list; chunk != nullptr; chunk = *static_cast<void**>(chunk)) {
      char* slot = static_cast<char*>(chunk) + sizeof(void*);
      for (std::uint64_t i = 0; i < n; ++i, slot += Size) {
        if (reinterpret_cast<void**>(slot)[1] != this) visit(static_cast<void*>(slot));
      }
      n = next_chunk_slots(n);
    }
    reverse_chunks();
    mark_free_slots(nullptr);
  }

  /// Calls `visit(first_slot)` for every chunk taken, newest first; its slot count is the
  /// count of the chunk after it in the other direction: the oldest has first_chunk_slots(),
  /// and each later one next_chunk_slots() of the one before. Reads the chunks' links only.
  template <class Visit>
  void for_each_chunk(Visit visit) const {
    for (const void* chunk = chunk_list; chunk != nullptr; chunk = *static_cast<void* const*>(chunk))
      visit(static_cast<const void*>(static_cast<const char*>(chunk) + sizeof(void*)));
  }
  std::uint64_t first_chunk_slots() const noexcept { return oldest_chunk_slots; }
  /// Slots in all chunks taken, in use or not.
  std::uint64_t slots_taken() const noexcept { return slots_in_chunks; }

  /// The size of the chunk taken after one of `n` slots.
  std::uint64_t next_chunk_slots(std::uint64_t n) const noexcept {
    auto next = static_cast<std::uint64_t>(static_cast<float>(n) * growth_factor);
    return max_chunk_slots != 0 && max_chunk_slots < next ? max_chunk_slots : next;
  }

 private:
  // The single place that calls malloc; kept out of line so that allocate() stays small.
  __attribute__((noinline)) void take_chunk() {
    const std::uint64_t n = chunk_slots;
    void* chunk = std::malloc(sizeof(void*) + n * Size);
    if (chunk == nullptr) throw std::bad_alloc();
    *static_cast<void**>(chunk) = chunk_list;
    chunk_list = chunk;
    slots_in_chunks += n;
    chunk_slots = next_chunk_slots(n);

    char* first = static_cast<char*>(chunk) + sizeof(void*);
    char* last = first + (n - 1) * Size;
    for (char* slot = first; slot != last; slot += Size) {
      *reinterpret_cast<void**>(slot) = slot + Size;
      detail::poison_free_slot(slot, Size);
    }
    *reinterpret_cast<void**>(last) = nullptr;
    detail::poison_free_slot(last, Size);
    free_list = first;
  }

  // Writes `mark` in the second word of every free slot (unpoisoned while it is not null).
  void mark_free_slots(void* mark) noexcept {
    for (void* s = free_list; s != nullptr; s = *static_cast<void**>(s)) {
      if (mark != nullptr) detail::unpoison_slot(s, Size);
      static_cast<void**>(s)[1] = mark;
      if (mark == nullptr) detail::poison_free_slot(s, Size);
    }
  }

  void reverse_chunks() noexcept {
    void* reversed = nullptr;
    while (chunk_list != nullptr) {
      void* older = *static_cast<void**>(chunk_list);
      *static_cast<void**>(chunk_list) = reversed;
      reversed = chunk_list;
      chunk_list = older;
    }
    chunk_list = reversed;
  }

  std::uint64_t chunk_slots;      // slots in the next chunk taken
  float growth_factor;            // applied to chunk_slots after each chunk
  std::uint64_t max_chunk_slots;  // cap on chunk_slots; 0 = none
  std::uint64_t oldest_chunk_slots;  // slots in the first chunk
  void* chunk_list = nullptr;     // newest chunk; each chunk's first word links to the older one
  void* free_list = nullptr;      // first free slot; each free slot's first word links to the next
  std::uint64_t slots_in_chunks = 0;  // slots in all chunks taken
};

/// A MemoryPool whose slots hold one `T` each, with `alloc` to construct one in place.
template <class T, bool Checked = false>
class ObjectPool;

template <class T>
class ObjectPool<T, false> : public MemoryPool<(sizeof(T) < sizeof(void*) ? sizeof(void*) : sizeof(T)), false> {
  using Base = MemoryPool<(sizeof(T) < sizeof(void*) ? sizeof(void*) : sizeof(T)), false>;
  static_assert(alignof(T) <= alignof(void*), "slots are aligned to a pointer only");

 public:
  using Base::Base;

  /// Takes a slot as `allocate()` does and constructs a `T` from `arg` in it.
  template <class A>
  T* alloc(A arg) {
    void* slot = this->allocate();
    try {
      return ::new (slot) T(std::move(arg));
    } catch (...) {
      this->deallocate(slot);
      throw;
    }
  }
};

}  // namespace vorn

#endif  // VORN_SUPPORT_MEMORY_POOL_HPP
