// Listing the distinct nodes under some roots, children before parents.
#include "listing.hpp"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "io_access.hpp"
#include "listing_by_slot.hpp"

namespace vorn::detail {

const char* const cycle_message =
    "vorn: the expression holds a cycle (made with setcar/setcdr), which canonical nodes "
    "cannot hold";

namespace {

constexpr std::uint32_t atom_tag = Listing::atom_tag;
constexpr std::size_t max_count = atom_tag - 1;  // atoms and conses each: 2^31 - 1

void check_count(std::size_t n) {
  if (n > max_count) throw std::length_error("vorn: more than 2^31 - 1 distinct atoms or conses");
}


/// A map from 64-bit keys to 32-bit values: open addressing with linear probing, at most
/// half full, so a look-up is about one cache line.
class OpenMap {
 public:
  OpenMap() : slots_(16), shift_(60) {}

  std::uint32_t* find(std::uint64_t key) noexcept {
    for (std::size_t i = home(key);; i = (i + 1) & (slots_.size() - 1)) {
      Slot& s = slots_[i];
      if (s.key == key + 1) return &s.value;
      if (s.key == 0) return nullptr;
    }
  }
  /// Enters `key`, which must be absent, with `value`.
  void insert(std::uint64_t key, std::uint32_t value) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    place(key, value);
    ++size_;
  }

 private:
  struct Slot {
    std::uint64_t key;  // key + 1; 0 for an empty slot
    std::uint32_t value;
  };
  std::size_t home(std::uint64_t key) const noexcept {
    return static_cast<std::size_t>(((key + 1) * 0x9E3779B97F4A7C15ull) >> shift_);
  }
  void place(std::uint64_t key, std::uint32_t value) noexcept {
    std::size_t i = home(key);
    while (slots_[i].key != 0) i = (i + 1) & (slots_.size() - 1);
    slots_[i] = {key + 1, value};
  }
  void grow() {
    std::vector<Slot> old(slots_.size() * 2, Slot{0, 0});
    old.swap(slots_);
    --shift_;
    for (const Slot& s : old)
      if (s.key != 0) place(s.key - 1, s.value);
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
  unsigned shift_;  // 64 - log2(slots)
};

/// A set of 32-bit ids: a bitmap in pages of 2^16 ids, each page made when an id of its
/// range first arrives. Once complete, index() prepares rank(id): the members below id.
class IdSet {
 public:
  bool insert(std::uint32_t id) {
    std::uint64_t& w = page(id).words[(id >> 6) & (page_words - 1)];
    const std::uint64_t bit = std::uint64_t{1} << (id & 63);
    const bool added = (w & bit) == 0;
    w |= bit;
    return added;
  }
  /// Whether `id` is a member; its page must exist (an id inserted once).
  bool contains(std::uint32_t id) const noexcept {
    return (pages_[id >> page_shift]->words[(id >> 6) & (page_words - 1)] >> (id & 63) & 1) != 0;
  }
  void erase(std::uint32_t id) noexcept {
    pages_[id >> page_shift]->words[(id >> 6) & (page_words - 1)] &= ~(std::uint64_t{1} << (id & 63));
  }
  /// Bytes held.
  std::size_t bytes() const noexcept { return pages_.capacity() * sizeof(void*) + made_ * sizeof(Page); }

  void index() noexcept {
    std::uint32_t count = 0;
    for (const auto& p : pages_) {
      if (!p) continue;
      p->base = count;
      std::uint32_t in_page = 0;
      for (std::size_t w = 0; w < page_words; ++w) {
        p->before[w] = static_cast<std::uint16_t>(in_page);
        in_page += popcount(p->words[w]);
      }
      count += in_page;
    }
  }
  std::uint32_t rank(std::uint32_t id) const noexcept {
    const Page& p = *pages_[id >> page_shift];
    const std::size_t w = (id >> 6) & (page_words - 1);
    return p.base + p.before[w] + popcount(p.words[w] & ((std::uint64_t{1} << (id & 63)) - 1));
  }

 private:
  static constexpr unsigned page_shift = 16;
  static constexpr std::size_t page_words = (std::size_t{1} << page_shift) / 64;
  struct Page {
    std::uint64_t words[page_words];
    std::uint32_t base;                 // members in earlier pages
    std::uint16_t before[page_words];   // members in this page before each word
  };

  Page& page(std::uint32_t id) {
    const std::size_t i = id >> page_shift;
    if (i >= pages_.size()) pages_.resize(i + 1);
    if (!pages_[i]) {
      pages_[i].reset(new Page());
      ++made_;
    }
    return *pages_[i];
  }

  std::vector<std::unique_ptr<Page>> pages_;  // by id >> page_shift; null until needed
  std::size_t made_ = 0;
};

// ---- in id order -----------------------------------------------------------------------

/// The conses reached, in order. push_if() writes its slot whether it keeps the node or
/// not, so that keeping it (a fresh id) takes no branch: a branch on a bitmap bit still on
/// its way from memory is mispredicted half the time, and each misprediction throws away
/// the loads in flight behind it.
class Queue {
 public:
  std::size_t size() const noexcept { return size_; }
  const Sexp_* operator[](std::size_t i) const noexcept { return slots_[i]; }
  /// Room for two more push_if() calls.
  void reserve_two() {
    if (size_ + 2 <= capacity_) return;
    capacity_ = capacity_ < 16 ? 16 : 2 * capacity_;
    std::unique_ptr<const Sexp_*[]> bigger(new const Sexp_*[capacity_]);
    std::copy(slots_.get(), slots_.get() + size_, bigger.get());
    slots_.swap(bigger);
  }
  void push_if(const Sexp_* x, bool keep) noexcept {
    slots_[size_] = x;
    size_ += keep ? 1 : 0;
  }

 private:
  std::unique_ptr<const Sexp_*[]> slots_;
  std::size_t size_ = 0, capacity_ = 0;
};

// Both cache lines a node may straddle (a slot starts 8 bytes past a 16-byte boundary).
inline void prefetch_node(const Sexp_* n) noexcept {
  __builtin_prefetch(n);
  __builtin_prefetch(reinterpret_cast<const char*>(n) + sizeof(Sexp_) - 1);
}

/// The listing in id order, for nodes of one manager whose ids are unique. Every node is
/// read once, breadth first: the queue of conses to read is known ahead, so their lines,
/// then their children's, are asked of memory several at a time instead of one after
/// another as a depth-first walk must. The loop that reads them does as little as it can,
/// so that many iterations, and their misses, fit in the processor's window at once; what
/// can wait (that each node is of this manager, that children's ids are the smaller) is
/// checked after it. run() gives up (refused) at a node of another manager, a
/// cons child whose id is not below its parent's (id order is then no order for the file),
/// or a bitmap heavier than 256 bytes a node reached; and (over_budget) once it has reached
/// more than `budget` nodes, give or take 1024.
class ListingById {
 public:
  enum Outcome { listed, refused, over_budget };

  ListingById(const SexpManager* m, Listing& out, std::size_t budget) : m_(m), out_(out), budget_(budget) {}

  Outcome run(const Sexp* roots, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      if (i + ahead < n) prefetch_node(roots[i + ahead].get());
      const Sexp_* r = roots[i].get();
      assert(r != nullptr && "save or copy of a null handle");
      queue_.reserve_two();
      see(r);
      root_ids_.push_back(r->id);
      if (i % 1024 == 0 && stop()) return stop_as();
    }
    for (std::size_t head = 0; head < queue_.size(); ++head) {
      if (head + 2 * ahead < queue_.size()) prefetch_node(queue_[head + 2 * ahead]);
      if (head + ahead < queue_.size()) {
        const Sexp_* later = queue_[head + ahead];
        prefetch_node(later->car);
        prefetch_node(later->cdr);
      }
      const Sexp_* v = queue_[head];
      const Sexp_* a = v->car;
      const Sexp_* d = v->cdr;
      queue_.reserve_two();
      see(a);
      see(d);
      records_.push_back({v->id, a->id, d->id});
      if (foreign_ || (head % 1024 == 0 && stop())) return stop_as();
    }
    if (foreign_) return refused;
    check_count(out_.atoms.size());
    check_count(queue_.size());
    return number() ? listed : refused;
  }

 private:
  static constexpr std::size_t ahead = 12;  // conses between asking for a line and using it
  struct Record {
    std::uint32_t id, car, cdr;
  };

  // Counts `x` as reached. Its id is taken for its name before its manager is known to be
  // m_ (the check costs no branch here); a node of another manager ends the listing anyway.
  void see(const Sexp_* x) {
    foreign_ |= x->mgr != m_;
    const bool fresh = ids_.insert(x->id), atom = x->is_symbol != 0;
    queue_.push_if(x, fresh & !atom);
    if (fresh & atom) new_atom(x);  // rare: a predictable branch
  }
  __attribute__((noinline)) void new_atom(const Sexp_* x) {
    atom_index_.insert(x->id, static_cast<std::uint32_t>(out_.atoms.size()));
    out_.atoms.push_back(x);
  }
  // The bitmap may cost 256 bytes a node reached, and 1 MiB more: roots spread over a
  // large manager make many pages at first, which the nodes found later fill.
  bool too_heavy() const noexcept {
    return ids_.bytes() > (std::size_t{1} << 20) + 256 * (queue_.size() + out_.atoms.size());
  }
  bool stop() const noexcept { return too_heavy() || queue_.size() + out_.atoms.size() > budget_; }
  Outcome stop_as() const noexcept { return foreign_ || too_heavy() ? refused : over_budget; }

  // A reached node's reference: an id that is no cons's is an atom's.
  std::uint32_t reference(std::uint32_t id) noexcept {
    return ids_.contains(id) ? ids_.rank(id) : atom_tag | *atom_index_.find(id);
  }

  // Positions are the ranks of the conses' ids; each cons's references go to its position.
  // False when a cons child's id is not below its parent's.
  bool number() {
    for (const Sexp_* a : out_.atoms) ids_.erase(a->id);
    ids_.index();
    out_.refs.resize(2 * records_.size());
    for (const Record& r : records_) {
      const bool car_cons = ids_.contains(r.car), cdr_cons = ids_.contains(r.cdr);
      if ((car_cons && r.car >= r.id) || (cdr_cons && r.cdr >= r.id)) return false;
      const std::uint32_t at = 2 * ids_.rank(r.id);
      out_.refs[at] = car_cons ? ids_.rank(r.car) : atom_tag | *atom_index_.find(r.car);
      out_.refs[at + 1] = cdr_cons ? ids_.rank(r.cdr) : atom_tag | *atom_index_.find(r.cdr);
    }
    out_.roots.reserve(root_ids_.size());
    for (const std::uint32_t id : root_ids_) out_.roots.push_back(reference(id));
    return true;
  }

  const SexpManager* m_;
  Listing& out_;
  std::size_t budget_;
  bool foreign_ = false;                // a node of another manager (or of none) was reached
  IdSet ids_;                           // of every node reached; of the conses, once numbered
  OpenMap atom_index_;                  // atom id -> index
  Queue queue_;                         // conses reached, in the order they were
  std::vector<Record> records_;         // of queue_[k], once read
  std::vector<std::uint32_t> root_ids_;
};

// ---- depth first -----------------------------------------------------------------------

/// The listing in post-order, car side first: any nodes, any managers. A cons is `open`
/// from when it is first reached until its children are listed; reaching it again while
/// open is a cycle.
class ListingByWalk {
 public:
  explicit ListingByWalk(Listing& out) : out_(out) {}

  void run(const Sexp* roots, std::size_t n) {
    out_.roots.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
      const Sexp_* r = roots[i].get();
      assert(r != nullptr && "save or copy of a null handle");
      std::uint32_t ref;
      if (!child(r, ref)) ref = walk(r);
      out_.roots.push_back(ref);
    }
  }

 private:
  static constexpr std::uint32_t open = 0xFFFFFFFF;  // no reference: atom indices stop below

  // The reference of `x` if it is listed already or is an atom (listed now); false when x
  // is a cons not yet reached, which is then open and the caller's to walk.
  bool child(const Sexp_* x, std::uint32_t& ref) {
    if (const std::uint32_t* known = index_.find(key(x))) {
      if (*known == open) throw std::invalid_argument(cycle_message);
      ref = *known;
      return true;
    }
    if (x->is_symbol != 0) {
      check_count(out_.atoms.size() + 1);
      ref = atom_tag | static_cast<std::uint32_t>(out_.atoms.size());
      index_.insert(key(x), ref);
      out_.atoms.push_back(x);
      return true;
    }
    index_.insert(key(x), open);
    return false;
  }

  // Lists the open cons `root` and every cons under it not listed yet; returns its position.
  std::uint32_t walk(const Sexp_* root) {
    stack_.push_back(root);
    while (!stack_.empty()) {
      const Sexp_* v = stack_.back();
      std::uint32_t car, cdr;
      if (!child(v->car, car)) {
        stack_.push_back(v->car);
        continue;
      }
      if (!child(v->cdr, cdr)) {
        stack_.push_back(v->cdr);
        continue;
      }
      check_count(out_.conses() + 1);
      *index_.find(key(v)) = static_cast<std::uint32_t>(out_.conses());
      out_.refs.push_back(car);
      out_.refs.push_back(cdr);
      stack_.pop_back();
    }
    return static_cast<std::uint32_t>(out_.conses() - 1);
  }

  static std::uint64_t key(const Sexp_* x) noexcept {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(x));
  }

  Listing& out_;
  OpenMap index_;                     // node address -> reference, or open
  std::vector<const Sexp_*> stack_;   // open conses, innermost last
};

}  // namespace

// Listing in id order reads nodes one by one, from wherever they are; listing by slot
// streams through the whole pool. So the first goes on while the nodes it reached are few
// beside the pool, and the second takes over past that; each steps aside for the next when
// its order does not fit (the depth-first walk fits every input).
Listing list_nodes(const Sexp* roots, std::size_t n) {
  Listing out;
  if (n == 0) return out;
  const SexpManager* m = roots[0].get()->mgr;
  if (m != nullptr && IoAccess::ids_are_unique(*m)) {
    auto outcome = ListingById(m, out, slot_listing_threshold(*m)).run(roots, n);
    if (outcome == ListingById::over_budget) {
      out = Listing();
      if (list_by_slot(*m, roots, n, out)) {
        outcome = ListingById::listed;
      } else {
        out = Listing();
        outcome = ListingById(m, out, SIZE_MAX).run(roots, n);
      }
    }
    if (outcome == ListingById::listed) {
      out.manager = m;
      return out;
    }
    out = Listing();
  }
  ListingByWalk(out).run(roots, n);
  return out;
}

}  // namespace vorn::detail
