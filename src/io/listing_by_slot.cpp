// Listing the nodes under some roots in the order of their slots in one manager's pool.
#include "listing_by_slot.hpp"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <vector>

#include "../support/bit_instructions.hpp"
#include "io_access.hpp"
#include "slot_numbers.hpp"

namespace vorn::detail {

namespace {

constexpr std::uint32_t atom_tag = Listing::atom_tag;
constexpr std::size_t slot_size = SlotNumbers::slot_size;

/// A bit per slot, 64 slots to a word; once index() has run, each word also has the count
/// of set bits before it, and rank() is two look-ups and a population count.
class SlotBits {
 public:
  explicit SlotBits(std::uint64_t slots) : bits_(static_cast<std::size_t>(slots / 64 + 1), 0) {}

  void set(std::uint32_t s) noexcept { bits_[s >> 6] |= bit(s); }
  void clear(std::uint32_t s) noexcept { bits_[s >> 6] &= ~bit(s); }
  bool test(std::uint32_t s) const noexcept { return (bits_[s >> 6] & bit(s)) != 0; }
  /// The set bits of word `w` at or below position `top` (0 .. 63).
  std::uint64_t bits_to(std::size_t w, unsigned top) const noexcept {
    return bits_[w] & (~std::uint64_t{0} >> (63 - top));
  }
  void prefetch(std::uint32_t s) const noexcept { __builtin_prefetch(&bits_[s >> 6], 1); }

  void index() {
    before_.resize(bits_.size());
    std::uint32_t count = 0;
    for (std::size_t w = 0; w < bits_.size(); ++w) {
      before_[w] = count;
      count += popcount(bits_[w]);
    }
  }
  VORN_INLINE_INTO_CALLER std::uint32_t rank(std::uint32_t s) const noexcept {
    return before_[s >> 6] + popcount(bits_[s >> 6] & (bit(s) - 1));
  }
  void prefetch_rank(std::uint32_t s) const noexcept {
    __builtin_prefetch(&bits_[s >> 6]);
    __builtin_prefetch(&before_[s >> 6]);
  }

 private:
  static std::uint64_t bit(std::uint32_t s) noexcept { return std::uint64_t{1} << (s & 63); }

  std::vector<std::uint64_t> bits_;
  std::vector<std::uint32_t> before_;  // by word, once indexed
};

/// The listing. A first sweep goes down the slots from the last: a slot marked reached is
/// read (they come in falling address order within a chunk, which memory streams well);
/// an atom is noted, a cons marks its children, which must be in earlier slots, and leaves
/// their slot numbers in the references. A cons's position is then the rank of its slot
/// among the conses', and a second pass turns slot numbers into references.
///
/// The marks land all over the bitmap, which the stream of nodes pushes out of the caches:
/// so each mark's word is asked of memory when the mark is known, and the mark is set a few
/// conses later, from a short queue. The sweep never passes a mark still queued: when the
/// next marked slot it finds is below the highest queued mark, it sets them all first.
class SlotListing {
 public:
  SlotListing(const SlotNumbers& numbers, Listing& out)
      : numbers_(numbers), out_(out), reached_(numbers.slots()), atoms_(numbers.slots()) {}

  VORN_INLINE_INTO_CALLER bool run(const Sexp* roots, std::size_t n) {
    std::vector<std::uint32_t> root_slots(n);
    bool bad = false;
    for (std::size_t i = 0; i < n; ++i) {
      assert(roots[i].get() != nullptr && "save or copy of a null handle");
      root_slots[i] = numbers_.of(roots[i].get(), bad);
      reached_.set(root_slots[i]);
    }
    if (bad) return false;
    // Room for every slot's two references, so they are never copied as they grow; only
    // the pages written are ever touched.
    out_.refs.reserve(static_cast<std::size_t>(2 * numbers_.slots()));
    const auto& chunks = numbers_.chunks();
    for (auto c = chunks.rbegin(); c != chunks.rend(); ++c)
      if (!sweep(*c)) return false;
    assert(queued_ == 0 && "the sweep sets every mark before it ends");
    number();  // fewer than 2^31 slots: the counts are within a listing's limits
    out_.roots.reserve(n);
    for (const std::uint32_t s : root_slots) out_.roots.push_back(reference(s));
    return true;
  }

 private:
  static constexpr unsigned queue_size = 16;  // marks, two a cons

  // The reached slots of chunk `c`, last first. A queued mark is always below the cons
  // that made it, so none is left in the chunk once its first slot is done.
  VORN_INLINE_INTO_CALLER bool sweep(const SlotNumbers::Chunk& c) {
    const std::uint64_t first = c.first;
    for (std::uint64_t top = first + (c.end - c.base) / slot_size;;) {  // slots below top are left
      std::uint64_t s;
      const bool found = top > first && next_reached(top - 1, first, s);
      // A queued mark above the slot found, or on it (set after an atom's bit is cleared,
      // it would make the atom a cons): set them all and look again.
      if (queued_ != 0 && highest_queued_ >= (found ? s : first)) {
        set_queued();
        continue;
      }
      if (!found) return true;
      const auto* x = reinterpret_cast<const Sexp_*>(c.base + (s - first) * slot_size);
      const auto at = static_cast<std::uint32_t>(s);
      if (x->is_symbol != 0) {
        new_atom(x, at);  // rare: a predictable branch
      } else {
        bool bad = false;
        const std::uint32_t car = numbers_.of(x->car, bad), cdr = numbers_.of(x->cdr, bad);
        if (bad | (car >= at) | (cdr >= at)) return false;
        queue(car);
        queue(cdr);
        out_.refs.push_back(car);
        out_.refs.push_back(cdr);
      }
      top = s;
    }
  }

  // The highest marked slot in [first, s], in `next`; false if none.
  VORN_INLINE_INTO_CALLER bool next_reached(std::uint64_t s, std::uint64_t first, std::uint64_t& next) const noexcept {
    for (;;) {
      const std::uint64_t word = s & ~std::uint64_t{63};
      const std::uint64_t bits = reached_.bits_to(static_cast<std::size_t>(s >> 6), static_cast<unsigned>(s & 63));
      if (bits != 0) {
        next = word + 63 - static_cast<unsigned>(__builtin_clzll(bits));
        return next >= first;
      }
      if (word <= first) return false;
      s = word - 1;
    }
  }

  VORN_INLINE_INTO_CALLER void queue(std::uint32_t mark) noexcept {
    reached_.prefetch(mark);
    highest_queued_ = queued_ == 0 ? mark : std::max(highest_queued_, mark);
    std::uint32_t& place = queue_[tail_++ % queue_size];
    if (queued_ == queue_size) reached_.set(place);  // the oldest, asked for long enough ago
    else ++queued_;
    place = mark;
  }
  void set_queued() noexcept {
    for (; queued_ != 0; --queued_) reached_.set(queue_[(tail_ - queued_) % queue_size]);
  }

  __attribute__((noinline)) void new_atom(const Sexp_* x, std::uint32_t at) {
    reached_.clear(at);
    atoms_.set(at);
    out_.atoms.push_back(x);
  }

  // Conses and atoms were met last first: both are turned round, and each slot number
  // becomes a reference.
  VORN_INLINE_INTO_CALLER void number() {
    constexpr std::size_t ahead = 8;  // pairs between asking for a rank's lines and using them
    reached_.index();
    atoms_.index();
    std::reverse(out_.atoms.begin(), out_.atoms.end());
    std::uint32_t* refs = out_.refs.data();
    for (std::size_t i = 0, j = out_.conses(); i < j--; ++i) {
      if (i + ahead < j) {
        for (const std::size_t k : {2 * (i + ahead), 2 * (i + ahead) + 1, 2 * (j - ahead), 2 * (j - ahead) + 1})
          reached_.prefetch_rank(refs[k]);
      }
      const std::uint32_t car = refs[2 * i], cdr = refs[2 * i + 1];
      refs[2 * i] = reference(refs[2 * j]);
      refs[2 * i + 1] = reference(refs[2 * j + 1]);
      if (i != j) {
        refs[2 * j] = reference(car);
        refs[2 * j + 1] = reference(cdr);
      }
    }
  }

  // The reference of reached slot `s`: a cons's position or an atom's index, the rank of
  // its slot among the conses' or the atoms'.
  VORN_INLINE_INTO_CALLER std::uint32_t reference(std::uint32_t s) const noexcept {
    return reached_.test(s) ? reached_.rank(s) : atom_tag | atoms_.rank(s);
  }

  const SlotNumbers& numbers_;
  Listing& out_;
  SlotBits reached_;  // of every node reached; of the conses once swept
  SlotBits atoms_;    // of the atoms reached, once swept
  std::uint32_t queue_[queue_size] = {};  // marks not yet set: the last `queued_` before tail_
  unsigned tail_ = 0, queued_ = 0;
  std::uint32_t highest_queued_ = 0;  // of the marks queued since the queue was last empty
};

}  // namespace

std::size_t slot_listing_threshold(const SexpManager& m) noexcept {
  return std::max<std::size_t>(4096, static_cast<std::size_t>(IoAccess::node_pool(m).slots_taken() / 256));
}

namespace {

// The sweep and the ranks are counts, shifts and bit scans on every node.
VORN_WITH_BIT_INSTRUCTIONS bool list_with_bit_instructions(const SlotNumbers& numbers, const Sexp* roots,
                                                           std::size_t n, Listing& out) {
  return SlotListing(numbers, out).run(roots, n);
}

}  // namespace

bool list_by_slot(const SexpManager& m, const Sexp* roots, std::size_t n, Listing& out) {
  SlotNumbers numbers;
  if (!numbers.build(IoAccess::node_pool(m))) return false;
  return has_bit_instructions() ? list_with_bit_instructions(numbers, roots, n, out)
                                : SlotListing(numbers, out).run(roots, n);
}

}  // namespace vorn::detail
