// NodeMap: a flat map from node addresses to nodes, for walks and caches keyed by node.
#ifndef VORN_SRC_SUPPORT_NODE_MAP_HPP
#define VORN_SRC_SUPPORT_NODE_MAP_HPP

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// Node address -> node, in one array with open addressing (linear probing), so that a
/// look-up reads one or two cache lines and an insert into a warm map allocates nothing.
///
/// Keys are addresses, never dereferenced: any non-null pointer (node addresses are
/// 32-byte aligned, so the low five bits are free for a caller's tag). Entries are only
/// added, or all removed at once; the map holds no reference, so whoever keeps entries
/// keeps their nodes alive. The array doubles when an insert would fill it past half (a
/// look-up that misses then reads about two entries; first size 16 entries); clear()
/// keeps it, release_memory() frees it.
class NodeMap {
 public:
  struct Entry {
    const void* key;  // null: a free entry
    Sexp_* value;
  };

  NodeMap() = default;
  NodeMap(const NodeMap&) = delete;
  NodeMap& operator=(const NodeMap&) = delete;
  NodeMap(NodeMap&& other) noexcept { swap(other); }
  NodeMap& operator=(NodeMap&& other) noexcept {
    swap(other);
    return *this;
  }
  ~NodeMap() { std::free(entries_); }

  void swap(NodeMap& other) noexcept {
    std::swap(entries_, other.entries_);
    std::swap(mask_, other.mask_);
    std::swap(size_, other.size_);
  }

  /// The entry of `key`, or null.
  Entry* find(const void* key) const noexcept {
    if (size_ == 0) return nullptr;
    for (std::size_t i = slot_of(key);; i = (i + 1) & mask_) {
      Entry* e = &entries_[i];
      if (e->key == key) return e;
      if (e->key == nullptr) return nullptr;
    }
  }

  /// Adds (key, value) for a key that is absent; returns its entry, valid until the next
  /// insert. Throws std::bad_alloc, changing nothing, when the array must grow and cannot.
  Entry* insert_absent(const void* key, Sexp_* value) {
    if (grows_on_next_insert()) grow();
    std::size_t i = slot_of(key);
    while (entries_[i].key != nullptr) i = (i + 1) & mask_;
    entries_[i] = Entry{key, value};
    ++size_;
    return &entries_[i];
  }

  /// Whether the next insert_absent grows the array.
  bool grows_on_next_insert() const noexcept { return size_ + 1 > (mask_ + 1) / 2; }

  /// Calls visit(entry) for every entry, in array order.
  template <class Visit>
  void for_each(Visit visit) const {
    if (size_ == 0) return;
    for (std::size_t i = 0; i <= mask_; ++i) {
      if (entries_[i].key != nullptr) visit(entries_[i]);
    }
  }

  /// Removes every entry; the array stays.
  void clear() noexcept {
    if (size_ == 0) return;
    for (std::size_t i = 0; i <= mask_; ++i) entries_[i].key = nullptr;
    size_ = 0;
  }

  /// Removes every entry and frees the array.
  void release_memory() noexcept {
    std::free(entries_);
    entries_ = nullptr;
    mask_ = 0;
    size_ = 0;
  }

  std::size_t size() const noexcept { return size_; }
  /// Bytes of the array.
  std::size_t bytes() const noexcept { return entries_ == nullptr ? 0 : (mask_ + 1) * sizeof(Entry); }

 private:
  // Fibonacci hashing of the address without its five zero bits: consecutive slots of a
  // node pool land far apart, and the top bits of the product pick the entry.
  std::size_t slot_of(const void* key) const noexcept {
    const auto a = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(key)) >> 5;
    return static_cast<std::size_t>((a * 0x9E3779B97F4A7C15ull) >> 32) & mask_;
  }

  void grow() {
    const std::size_t capacity = entries_ == nullptr ? 16 : 2 * (mask_ + 1);
    auto* grown = static_cast<Entry*>(std::calloc(capacity, sizeof(Entry)));
    if (grown == nullptr) throw std::bad_alloc();
    Entry* old = entries_;
    const std::size_t old_capacity = old == nullptr ? 0 : mask_ + 1;
    entries_ = grown;
    mask_ = capacity - 1;
    for (std::size_t i = 0; i < old_capacity; ++i) {
      if (old[i].key == nullptr) continue;
      std::size_t j = slot_of(old[i].key);
      while (entries_[j].key != nullptr) j = (j + 1) & mask_;
      entries_[j] = old[i];
    }
    std::free(old);
  }

  Entry* entries_ = nullptr;
  std::size_t mask_ = 0;  // capacity - 1 (capacity a power of two), 0 while there is no array
  std::size_t size_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_SUPPORT_NODE_MAP_HPP
