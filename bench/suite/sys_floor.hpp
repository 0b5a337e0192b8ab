// The floor: the least work that the same operations can be done with on this machine,
// as a measure of how close a system comes to the limit. A bare free-list pool of 24-byte
// nodes, move-enabled counted handles, and open-addressing tables (linear probing, power-of-
// two capacity, load at most 1/2, full 64-bit hash stored beside each entry, a strong
// multiplicative hash). Names are copied into a bump arena. It keeps nothing it does not
// need: no ids, no per-table pools, no fixed growth points, no name list.
#ifndef VORN_BENCH_SUITE_SYS_FLOOR_HPP
#define VORN_BENCH_SUITE_SYS_FLOOR_HPP

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace bench {

struct FloorNode {
  FloorNode* car;  // null in a leaf
  FloorNode* cdr;  // null in a leaf
  std::uint32_t refs;
  std::uint32_t symbol;
};

class FloorSystem {
 public:
  static constexpr const char* name = "floor";

  /// A counted handle that can also be moved (one count operation fewer per hand-over).
  /// One pointer wide: nodes are returned to the one live floor system.
  class Ref {
   public:
    Ref() noexcept = default;
    explicit Ref(FloorNode* n) noexcept : node_(n) { ++n->refs; }
    Ref(const Ref& o) noexcept : node_(o.node_) {
      if (node_ != nullptr) ++node_->refs;
    }
    Ref(Ref&& o) noexcept : node_(o.node_) { o.node_ = nullptr; }
    Ref& operator=(Ref o) noexcept {
      std::swap(node_, o.node_);
      return *this;
    }
    ~Ref() {
      if (node_ != nullptr) current->release(node_);
    }
    FloorNode* get() const noexcept { return node_; }

   private:
    FloorNode* node_ = nullptr;
  };

  FloorSystem() {
    current = this;
    nil_ = make(nullptr, nullptr, 0);
  }
  FloorSystem(const FloorSystem&) = delete;
  FloorSystem& operator=(const FloorSystem&) = delete;
  ~FloorSystem() {
    for (void* c : chunks_) std::free(c);
    for (char* b : arena_blocks_) std::free(b);
  }

  Ref leaf(std::uint32_t i) {
    if (leaves_.size() <= i) leaves_.resize(i + 1, nullptr);
    if (leaves_[i] == nullptr) leaves_[i] = make(nullptr, nullptr, i + 1);  // held for good
    return Ref(leaves_[i]);
  }

  Ref share(const Ref& car, const Ref& cdr) {
    FloorNode* a = car.get();
    FloorNode* d = cdr.get();
    const std::uint64_t h = mix(reinterpret_cast<std::uintptr_t>(a), reinterpret_cast<std::uintptr_t>(d));
    std::uint64_t i = h >> shift_;
    for (;; i = (i + 1) & (table_.size() - 1)) {
      Slot& s = table_[i];
      if (s.node == nullptr) break;
      if (s.hash == h && s.node->car == a && s.node->cdr == d) return Ref(s.node);
    }
    FloorNode* n = make(a, d, 0);  // held by the table for good
    ++a->refs;
    ++d->refs;
    table_[i] = {h, n};
    if (++count_ * 2 > table_.size()) grow(table_, shift_, &Slot::node);
    return Ref(n);
  }

  Ref cons(const Ref& car, const Ref& cdr) {
    FloorNode* n = alloc();
    n->car = car.get();
    n->cdr = cdr.get();
    ++n->car->refs;
    ++n->cdr->refs;
    n->refs = 0;
    n->symbol = 0;
    return Ref(n);
  }

  Ref nil() { return Ref(nil_); }
  static bool same(const Ref& a, const Ref& b) { return a.get() == b.get(); }

  /// Interning: the id of `s`, copying it into the arena on first sight.
  std::uint64_t intern(const char* s) {
    const std::size_t len = std::strlen(s);
    const std::uint64_t h = hash_bytes(s, len);
    std::uint64_t i = h >> name_shift_;
    for (;; i = (i + 1) & (names_.size() - 1)) {
      NameSlot& slot = names_[i];
      if (slot.text == nullptr) break;
      if (slot.hash == h && std::memcmp(slot.text, s, len + 1) == 0) return slot.id;
    }
    char* copy = arena(len + 1);
    std::memcpy(copy, s, len + 1);
    names_[i] = {h, copy, name_count_};
    if (++name_count_ * 2 > names_.size()) grow(names_, name_shift_, &NameSlot::text);
    return name_count_ - 1;
  }

  void release(FloorNode* n) noexcept {
    // A dying cell's cdr is released in this loop, its car by recursion (lists nest in cdr).
    while (n != nullptr && --n->refs == 0) {
      FloorNode* next = n->cdr;
      if (n->car != nullptr) release(n->car);
      n->car = free_;
      free_ = n;
      n = next;
    }
  }

 private:
  struct Slot {
    std::uint64_t hash;
    FloorNode* node;
  };
  struct NameSlot {
    std::uint64_t hash;
    const char* text;
    std::uint64_t id;
  };

  static std::uint64_t mix(std::uint64_t a, std::uint64_t d) noexcept {
    return (a * 0x9E3779B97F4A7C15ull) ^ (d * 0xC2B2AE3D27D4EB4Full);  // index = top bits
  }
  // Eight bytes at a time, one multiply each.
  static std::uint64_t hash_bytes(const char* s, std::size_t len) noexcept {
    std::uint64_t h = len * 0x9E3779B97F4A7C15ull;
    while (len >= 8) {
      std::uint64_t w;
      std::memcpy(&w, s, 8);
      h = (h ^ w) * 0xC2B2AE3D27D4EB4Full;
      h ^= h >> 31;
      s += 8;
      len -= 8;
    }
    std::uint64_t w = 0;
    std::memcpy(&w, s, len);
    h = (h ^ w) * 0xC2B2AE3D27D4EB4Full;
    return h ^ (h >> 29);
  }

  FloorNode* alloc() {
    if (free_ == nullptr) {
      constexpr std::size_t per_chunk = 4096;
      auto* chunk = static_cast<FloorNode*>(std::malloc(per_chunk * sizeof(FloorNode)));
      if (chunk == nullptr) throw std::bad_alloc();
      chunks_.push_back(chunk);
      for (std::size_t k = 0; k + 1 < per_chunk; ++k) chunk[k].car = &chunk[k + 1];
      chunk[per_chunk - 1].car = nullptr;
      free_ = chunk;
    }
    FloorNode* n = free_;
    free_ = n->car;
    return n;
  }
  FloorNode* make(FloorNode* a, FloorNode* d, std::uint32_t symbol) {
    FloorNode* n = alloc();
    *n = {a, d, 1, symbol};
    return n;
  }

  // Doubles an open-addressing table of slots whose `hash` picks the start (top bits) and
  // whose `Occupied` member is null when the slot is free.
  template <class Slot, class Occupied>
  static void grow(std::vector<Slot>& table, unsigned& shift, Occupied Slot::*occupied) {
    std::vector<Slot> old(table.size() * 2, Slot{});
    old.swap(table);
    --shift;
    for (const Slot& s : old) {
      if (s.*occupied == nullptr) continue;
      std::uint64_t i = s.hash >> shift;
      while (table[i].*occupied != nullptr) i = (i + 1) & (table.size() - 1);
      table[i] = s;
    }
  }
  char* arena(std::size_t n) {
    if (arena_left_ < n) {
      constexpr std::size_t block = 1 << 20;
      char* b = static_cast<char*>(std::malloc(block));
      if (b == nullptr) throw std::bad_alloc();
      arena_blocks_.push_back(b);
      arena_next_ = b;
      arena_left_ = block;
    }
    char* p = arena_next_;
    arena_next_ += n;
    arena_left_ -= n;
    return p;
  }

  static inline FloorSystem* current = nullptr;  // the live system (one at a time)

  std::vector<void*> chunks_;
  FloorNode* free_ = nullptr;
  FloorNode* nil_ = nullptr;
  std::vector<FloorNode*> leaves_;
  std::vector<Slot> table_ = std::vector<Slot>(64, Slot{0, nullptr});
  unsigned shift_ = 64 - 6;
  std::uint64_t count_ = 0;
  std::vector<NameSlot> names_ = std::vector<NameSlot>(64, NameSlot{0, nullptr, 0});
  unsigned name_shift_ = 64 - 6;
  std::uint64_t name_count_ = 0;
  std::vector<char*> arena_blocks_;
  char* arena_next_ = nullptr;
  std::size_t arena_left_ = 0;
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_SYS_FLOOR_HPP
