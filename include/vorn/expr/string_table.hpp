// StringTable: the interned contents of a manager's string atoms.
#ifndef VORN_EXPR_STRING_TABLE_HPP
#define VORN_EXPR_STRING_TABLE_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

namespace vorn {

/// Interns byte strings (any bytes, NUL included) to dense indices from 0, in order of
/// first sight, and gives each back by index.
///
/// Ownership: the table owns one copy of each content, packed end to end in chunks that
/// never move (a content longer than a chunk gets a chunk of its own), so a view it returns
/// stays valid for the table's life. Look-ups go through an open-addressing index of
/// power-of-two size, at most half full, whose slots hold an entry number and 32 bits of
/// its hash, so a probe compares bytes only on a likely match.
/// Failure: memory exhaustion throws std::bad_alloc and leaves the table as it was.
class StringTable {
 public:
  /// The index of `content`, copying it on first sight.
  std::uint64_t intern(std::string_view content) {
    const std::uint64_t h = hash(content);
    const auto tag = static_cast<std::uint32_t>(h >> 32);
    std::size_t mask = slots_.size() - 1;
    std::size_t i = slots_.empty() ? 0 : static_cast<std::size_t>(h) & mask;
    if (!slots_.empty()) {
      for (;; i = (i + 1) & mask) {
        const Slot s = slots_[i];
        if (s.entry == 0) break;
        if (s.tag == tag) {
          const std::string_view known = entries_[s.entry - 1];
          if (known.size() == content.size() &&
              (content.empty() || std::memcmp(known.data(), content.data(), content.size()) == 0))
            return s.entry - 1;
        }
      }
    }
    // Absent. Everything that can fail comes first; the table changes only after it.
    if (entries_.size() >= UINT32_MAX - 1) throw std::bad_alloc();
    room_for_one(entries_);
    if ((entries_.size() + 1) * 2 > slots_.size()) {
      grow();
      mask = slots_.size() - 1;
      for (i = static_cast<std::size_t>(h) & mask; slots_[i].entry != 0;) i = (i + 1) & mask;
    }
    const char* copy = store(content);
    entries_.emplace_back(copy, content.size());
    slots_[i] = {tag, static_cast<std::uint32_t>(entries_.size())};
    return entries_.size() - 1;
  }

  /// Whether `id` names an interned content.
  bool contains(std::uint64_t id) const noexcept { return id < entries_.size(); }
  /// The content of index `id`, which must be interned.
  std::string_view at(std::uint64_t id) const noexcept { return entries_[id]; }
  std::size_t size() const noexcept { return entries_.size(); }

 private:
  struct Slot {
    std::uint32_t tag;    // high half of the content's hash
    std::uint32_t entry;  // index + 1; 0 for an empty slot
  };
  static constexpr std::size_t kChunk = 4096;  // bytes of a shared chunk

  // 64-bit multiply-xor over 8-byte words; only this table sees it.
  static std::uint64_t hash(std::string_view s) noexcept {
    constexpr std::uint64_t k = 0x9E3779B97F4A7C15ull;
    std::uint64_t h = s.size() * k;
    const char* p = s.data();
    std::size_t n = s.size();
    for (; n >= 8; p += 8, n -= 8) {
      std::uint64_t w;
      std::memcpy(&w, p, 8);
      h = (h ^ w) * k;
      h ^= h >> 29;
    }
    if (n > 0) {
      std::uint64_t w = 0;
      std::memcpy(&w, p, n);
      h = (h ^ w) * k;
    }
    h ^= h >> 32;
    h *= k;
    return h ^ (h >> 29);
  }

  // Doubles the index (16 slots at first), rehashing every entry; the old index stays
  // until the new one is complete.
  void grow() {
    std::vector<Slot> bigger(slots_.empty() ? 16 : slots_.size() * 2, Slot{0, 0});
    const std::size_t mask = bigger.size() - 1;
    for (const Slot& s : slots_) {
      if (s.entry == 0) continue;
      const std::uint64_t h = hash(entries_[s.entry - 1]);
      std::size_t i = static_cast<std::size_t>(h) & mask;
      while (bigger[i].entry != 0) i = (i + 1) & mask;
      bigger[i] = s;
    }
    slots_.swap(bigger);
  }

  // Capacity for one more element, doubling (reserve alone would grow by one).
  template <class V>
  static void room_for_one(V& v) {
    if (v.size() == v.capacity()) v.reserve(v.size() < 8 ? 8 : v.size() * 2);
  }

  // A copy of `content` in the chunks; may throw before anything changes.
  const char* store(std::string_view content) {
    const std::size_t n = content.size();
    if (n > room_) {
      const std::size_t size = n > kChunk / 4 ? n : kChunk;
      room_for_one(chunks_);
      chunks_.emplace_back(new char[size]);
      if (size == n) {  // a chunk of its own: the shared one keeps its room
        if (n > 0) std::memcpy(chunks_.back().get(), content.data(), n);
        return chunks_.back().get();
      }
      free_ = chunks_.back().get();
      room_ = size;
    }
    char* copy = free_;
    if (n > 0) std::memcpy(copy, content.data(), n);
    free_ += n;
    room_ -= n;
    return copy;
  }

  std::vector<std::string_view> entries_;        // index -> content, in the chunks
  std::vector<Slot> slots_;                      // the index; empty until the first intern
  std::vector<std::unique_ptr<char[]>> chunks_;  // every copy lives in one of these
  char* free_ = nullptr;                         // first free byte of the shared chunk
  std::size_t room_ = 0;                         // bytes left there
};

}  // namespace vorn

#endif  // VORN_EXPR_STRING_TABLE_HPP
