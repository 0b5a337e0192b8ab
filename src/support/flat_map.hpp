// A map from 64-bit keys to nonzero 64-bit values in one flat array: what the text writer
// and reader use to keep a number per cons or per label without an allocation per entry.
#ifndef VORN_SRC_SUPPORT_FLAT_MAP_HPP
#define VORN_SRC_SUPPORT_FLAT_MAP_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn::detail {

/// Open addressing with linear probing over a power-of-two array of {key, value} pairs,
/// never more than half full. Memory is one array, allocated when the first entry comes
/// and reallocated (doubled) as entries come: nothing per entry, and never more than
/// about 32 bytes per entry held. Each value is nonzero once stored: a zero value marks a
/// free slot, which is why a caller of at() stores a nonzero value in a new entry before
/// it calls anything else.
///
/// Keys are mixed with `seed` before they are hashed. A map whose keys come from outside
/// (label numbers in a text) takes a seed the text's author cannot know, so that a text
/// cannot be made of keys that all fall on one run of the array; for keys the library
/// chooses itself (node addresses) any seed will do.
class FlatMap {
 public:
  explicit FlatMap(std::uint64_t seed = 0) noexcept : seed_(seed) {}

  bool empty() const noexcept { return size_ == 0; }
  std::size_t size() const noexcept { return size_; }

  /// The value of `key`, or null when it has none.
  std::uint64_t* find(std::uint64_t key) noexcept {
    if (size_ == 0) return nullptr;
    for (std::size_t i = index(key);; i = (i + 1) & mask_) {
      Entry& e = slots_[i];
      if (e.value == 0) return nullptr;
      if (e.key == key) return &e.value;
    }
  }

  /// The value of `key`, entered with the value 0 when it had none; the caller then stores
  /// a nonzero value before any other call. Throws std::bad_alloc, changing nothing, when
  /// the array must grow and cannot.
  std::uint64_t& at(std::uint64_t key) {
    if ((size_ + 1) * 2 > slots_.size()) grow();
    for (std::size_t i = index(key);; i = (i + 1) & mask_) {
      Entry& e = slots_[i];
      if (e.value == 0) {
        e.key = key;
        ++size_;
        return e.value;
      }
      if (e.key == key) return e.value;
    }
  }

  /// Forgets every entry. The array is kept for the entries to come unless it is far larger
  /// than what it held, so clearing costs no more than the entries cleared did to enter.
  void clear() noexcept {
    if (size_ == 0) return;
    if (slots_.size() > 8 * size_ + 64) {
      std::vector<Entry>().swap(slots_);
      mask_ = 0;
    } else {
      for (Entry& e : slots_) e.value = 0;
    }
    size_ = 0;
  }

 private:
  struct Entry {
    std::uint64_t key;
    std::uint64_t value;  // 0: the slot is free
  };

  // A full 64-bit mix (every key bit reaches every hash bit), then the top bits.
  std::size_t index(std::uint64_t key) const noexcept {
    std::uint64_t h = key ^ seed_;
    h = (h ^ (h >> 33)) * 0xFF51AFD7ED558CCDull;
    h = (h ^ (h >> 33)) * 0xC4CEB9FE1A85EC53ull;
    return static_cast<std::size_t>(h ^ (h >> 33)) & mask_;
  }

  void grow() {
    std::vector<Entry> old(slots_.size() < 16 ? 16 : 2 * slots_.size());  // all free
    old.swap(slots_);
    mask_ = slots_.size() - 1;
    for (const Entry& e : old) {
      if (e.value == 0) continue;
      std::size_t i = index(e.key);
      while (slots_[i].value != 0) i = (i + 1) & mask_;
      slots_[i] = e;
    }
  }

  std::vector<Entry> slots_;  // size: 0 or a power of two, at least twice size_
  std::size_t mask_ = 0;      // slots_.size() - 1 (0 while there is no array)
  std::size_t size_ = 0;
  std::uint64_t seed_;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_SUPPORT_FLAT_MAP_HPP
