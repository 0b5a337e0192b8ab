// SexpManager: owner of node memory, ids, symbol names and the table of shared nodes.
#ifndef VORN_EXPR_MANAGER_HPP
#define VORN_EXPR_MANAGER_HPP

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "vorn/expr/sexp.hpp"
#include "vorn/expr/shape.hpp"
#include "vorn/expr/string_table.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/memory_pool.hpp"

namespace vorn {

namespace detail {
struct SexpManagerInternals;  // white-box access for the library's own tests
struct ReaderAccess;          // the text reader's entry points (src/text/text_pass.hpp)
struct IoAccess;              // the binary loader's and copy's entry points (src/io/io_access.hpp)
struct RewriteAccess;         // the rewriting engine's (src/rewrite/rewrite_access.hpp)
}  // namespace detail

/// Makes every node, stamps it with an id, interns symbol names and keeps one
/// canonical node per shape.
///
/// Ownership: the manager owns all node memory (1024-slot chunks of 32 bytes) and every
/// interned name copy, and frees them at once when destroyed, without visiting any node.
/// It must therefore outlive every handle and matcher that refers to its nodes, and it
/// keeps one address for its life: it is neither copied nor moved.
///
/// Sharing: build bottom-up with `sh_sym` and `sh_cons` and equal shapes are one node,
/// so comparing two such expressions is comparing two pointers:
///
///     vorn::SexpManager m;
///     vorn::Sexp f = m.sh_sym(m.make_symbol("f"));        // 1. intern names, share symbols
///     vorn::Sexp x = m.sh_sym(m.make_symbol("x"));
///     vorn::Sexp fx = m.sh_cons(f, m.sh_cons(x, m.nil()));   // 2. share conses over shared children
///     assert(fx == m.sh_cons(f, m.sh_cons(x, m.nil())));   // 3. same shape, same node
///
/// A cons's shape is the pair of its children's ids (detail::Shape), so `cons` and `sym`
/// (which always make a new node) and a `sh_cons` over such plain children do not share
/// with the canonical forms.
///
/// Collection: the shared table holds one reference on every canonical node, so by
/// default canonical nodes live as long as the manager. `collect()` gives back those that
/// nothing else holds; `set_auto_collect(true)` makes the manager do so by itself before
/// its shared table would grow. A host that never calls either sees no difference.
///
/// Ids: handed out in increasing order from 0 (nil) and not reused, except that a
/// sharing hit gives back the id its discarded node took. When the counter reaches its
/// end (2^32 ids handed out), the manager takes a snapshot of the ids of its live nodes,
/// sorted (4 bytes per live node, the only memory this takes, and only from then on), and
/// hands out the ids missing from it in increasing order from 0; when those run out it
/// takes a new snapshot. So a new node always gets an id no live node has, the id of a
/// live node never changes, and a sharing hit still gives its id to the next node made.
/// Only when every id is in use does making a node throw a `std::bad_alloc` whose what()
/// says so, changing nothing; a snapshot that cannot be allocated throws plain
/// `std::bad_alloc`, also changing nothing, and the next call tries again.
///
/// Failure: exhaustion of memory is the only failure, reported as `std::bad_alloc`.
/// Not thread-safe: even a constant read changes a count.
class SexpManager {
 public:
  /// Name equality by content.
  struct CStr_eq {
    // strcmp's verdict; names that differ in their first byte are told apart without the call.
    bool operator()(const char* a, const char* b) const noexcept {
      return a[0] == b[0] && std::strcmp(a, b) == 0;
    }
  };

  /// Hash and equality of the shared table: those of detail::Shape. The null key hashes
  /// to 0 and equals only itself.
  struct Sexp_strhash_eq {
    std::uint64_t operator()(const Sexp_* n) const noexcept {
      return n == nullptr ? 0 : detail::Shape::hash(n);
    }
    /// Hashing reads the node (stage 0), then a cons's two children (stage 1).
    static void prefetch(const Sexp_* n, int stage) noexcept {
      if (stage == 0) {
        hsh::detail::prefetch(n);
      } else if (n != nullptr && !n->is_symbol) {
        hsh::detail::prefetch(n->car);
        hsh::detail::prefetch(n->cdr);
      }
    }
    bool operator()(const Sexp_* a, const Sexp_* b) const noexcept {
      if (a == nullptr || b == nullptr) return a == b;
      return detail::Shape::same(a, b);
    }
  };

  /// Makes nil (id 0, symbol of value 0) and interns the empty name as symbol 0.
  SexpManager();
  /// Frees all chunks and name copies; runs no node destructor.
  ~SexpManager();

  SexpManager(const SexpManager&) = delete;
  SexpManager& operator=(const SexpManager&) = delete;

  // ---- plain nodes -----------------------------------------------------------------

  /// A fresh slot: id from the id counter, count 1, a symbol of value 0 owned by this
  /// manager. The caller owns its reference. The slot is taken before the id, so a
  /// failure leaves the counter alone.
  Sexp_* alloc_sexp() {
    ensure_free_id();
    Sexp_* n = ::new (sexp_pool.allocate()) Sexp_();
    n->id = id_counter++;
    ++ids_handed_out_count;
    n->mgr = this;
    return n;
  }

  /// Runs the node's destruction (children released, car side first) and gives its
  /// slot back; it is the next slot handed out. The caller held the last reference.
  void free_sexp(Sexp_* node) noexcept {
    assert(node->mgr == this && "free_sexp of another manager's node");
    detail::reclaim(node);
  }

  /// The nil node (id 0), with a new reference.
  Sexp nil() const noexcept { return Sexp(nil_node); }

  /// A new cons of the two nodes, each gaining a reference. Never shared.
  Sexp cons(const Sexp& car, const Sexp& cdr) {
    assert(!car.is_null() && !cdr.is_null() && "cons of a null handle");
    Sexp_* n = alloc_sexp();
    n->make_fresh_cons();
    car.get()->add_ref();
    n->car = car.get();
    cdr.get()->add_ref();
    n->cdr = cdr.get();
    return Sexp(n, Sexp::Adopt{});
  }

  /// A new symbol node carrying `value` unchanged. Never shared.
  Sexp sym(unsigned long value) {
    Sexp_* n = alloc_sexp();
    n->value = value;
    return Sexp(n, Sexp::Adopt{});
  }

  // ---- symbol names ----------------------------------------------------------------

  /// The id of `name` (NUL-terminated), interning a copy of it on first sight; ids are
  /// dense from 0 (the empty name). The caller keeps its buffer.
  unsigned long make_symbol(const char* name);

  /// The manager's copy of the name with id `id`, or null when no such id exists.
  /// Valid as long as the manager.
  const char* get_symbol_value(unsigned long id) const noexcept {
    return id < symbol_names.size() ? symbol_names[id] : nullptr;
  }

  // ---- string atoms ----------------------------------------------------------------
  //
  // A string atom is a symbol node whose value is `string_tag` plus the index of its
  // content in the manager's string table: it is never the symbol of the same bytes,
  // and equal contents share one canonical node through sh_sym like any symbol. The
  // string table is made on the first make_string, so a manager that never makes one
  // takes no memory for it.

  /// The bit that marks a symbol value as a string atom's.
  static constexpr std::uint64_t string_tag = std::uint64_t{1} << 63;

  /// The symbol value of the string atom with these contents (any bytes), interning a
  /// copy of them on first sight.
  std::uint64_t make_string(std::string_view content);

  /// The contents of the string atom of symbol value `value`, or nothing when `value`
  /// names no string of this manager. Valid as long as the manager.
  std::optional<std::string_view> get_string(std::uint64_t value) const noexcept {
    if ((value & string_tag) == 0 || strings == nullptr || !strings->contains(value & ~string_tag))
      return std::nullopt;
    return strings->at(value & ~string_tag);
  }

  /// The canonical string atom of `content`.
  Sexp sh_string(std::string_view content) { return sh_sym(make_string(content)); }

  // ---- shared nodes ----------------------------------------------------------------

  /// Makes `s`, which holds the node this manager made last, hold the canonical node
  /// of its shape; returns `s`. On a hit the fresh node's id is given back and its slot
  /// is the next one reused; on a miss the fresh node becomes canonical and the table
  /// takes a reference on it for the manager's life.
  Sexp& strhash(Sexp& s);

  /// The canonical cons of (car, cdr).
  ///
  /// Inline is the look-up and the hit; making and entering a new node is out of line.
  /// This has the effects of "make the node as cons() would, then strhash() it", in fewer
  /// steps: the shape is looked up before any node exists, so a hit makes no node and
  /// moves no count but the result's. Every observable effect is the same: a hit still
  /// needs a slot (a full pool takes its next chunk, as the discarded node would have made
  /// it do) and a usable id (exhausted ids still throw); the free list, the id counter and
  /// the children's counts end as the discarded node would have left them.
  Sexp sh_cons(const Sexp& car, const Sexp& cdr) {
    assert(!car.is_null() && !cdr.is_null() && "sh_cons of a null handle");
    return Sexp(shared_cons(car.get(), cdr.get()));
  }

  /// The canonical symbol of `value`; sh_sym(0) is nil. Made as sh_cons() is.
  Sexp sh_sym(unsigned long value) { return Sexp(shared_symbol(value)); }

  // ---- collection ------------------------------------------------------------------

  /// Gives back every canonical node that nothing but the shared table holds, and every
  /// node (canonical or plain) whose last holder goes with it, in one call; nil stays.
  /// Returns the number of nodes whose slots went back to a node pool (a plain node of
  /// another manager, dying because a collected cons held it, goes back to its own).
  ///
  /// Order: the table is swept bucket by bucket in index order, each chain head to tail,
  /// dropping the table's hold on each node. A node whose last hold goes dies at that
  /// point and, in post-order (car side first), every node whose last holder it was: a
  /// canonical one among them dies there only if the sweep has dropped the table's hold
  /// on it already, and otherwise when the sweep reaches it. Surviving nodes get the
  /// table's hold back. The dead nodes' slots then go to the free list in the order the
  /// nodes died, so the last node to die takes the first slot handed out next; their
  /// table chain nodes go back in sweep order, so the last entry removed is reused first.
  /// Pools keep their chunks; the table keeps its bucket count.
  ///
  /// Collected ids are not handed out again (until the ids wrap; see the class comment);
  /// a collected shape built again is a new canonical node with a new id. A canonical cons
  /// changed in place (setcar/setcdr) is found by its entry, whatever its shape is now.
  /// Linear in the table's size plus the nodes given back; allocates nothing, recurses
  /// nowhere.
  std::size_t collect() noexcept;

  /// Automatic collection, off by default. While on, an insert into the shared table that
  /// would grow it collects first. The table then grows only when at least half of the
  /// entries at which it would have grown are still held after collecting, so each
  /// collection is paid for by as many inserts as it can free, and collecting never costs
  /// more than a constant factor over growing. A sharing hit never collects.
  ///
  /// When the last such collection found nothing to give back, the next growth looks for
  /// unheld nodes as it rehashes instead of in a pass of its own, and collects (then goes
  /// back to the old bucket count if too little is held) only if it saw one: the same
  /// nodes are given back and the table ends with the same bucket count, but their slots
  /// and chain nodes come back in the sweep order of the grown table.
  void set_auto_collect(bool on) noexcept {
    auto_collecting = on;
    all_held_at_last_look = false;
    collect_at = shared_table.growth_point();
  }
  bool auto_collect() const noexcept { return auto_collecting; }

  // ---- counters --------------------------------------------------------------------
  //
  // Read-only: they make no node, take no id and move no count, so a host (or a test)
  // can watch the manager without changing what it watches.

  /// The id the counter stands at: the next node made takes it, except that once the
  /// counter has reached its end (see Ids in the class comment) that node takes the first
  /// id from here on that the snapshot of live ids does not rule out.
  std::uint32_t next_id() const noexcept { return id_counter; }
  /// Ids handed out since construction, nil's included, less the one each sharing hit of
  /// strhash gave back: the nodes made, plain and canonical, those given back since
  /// included. Counts on in 64 bits when the 32-bit ids wrap.
  std::uint64_t ids_handed_out() const noexcept { return ids_handed_out_count; }
  /// Canonical nodes: the entries of the shared table, nil included.
  std::size_t canonical_count() const noexcept { return shared_table.size(); }
  /// Names interned, the empty name (symbol 0) included: the next make_symbol of a new
  /// name returns this number.
  std::size_t name_count() const noexcept { return symbol_names.size(); }

 private:
  friend void detail::reclaim(Sexp_*) noexcept;
  friend struct detail::SexpManagerInternals;
  friend struct detail::ReaderAccess;
  friend struct detail::IoAccess;
  friend struct detail::RewriteAccess;

  // make_symbol of a name the caller has measured and hashed: `len` bytes at `name`, none
  // of them NUL (no terminator needed), `h` their hash<char*>. Every effect is make_symbol's
  // on that name: the same look-up, one malloc(len + 1) for a new copy, the same insert.
  unsigned long intern_symbol(const char* name, std::size_t len, std::uint64_t h);

  using SymbolTable = hsh::Hashtable<std::pair<const char*, unsigned long>,
                                     hsh::GetKey_pair<const char*, unsigned long>, const char*,
                                     hsh::hash<char*>, CStr_eq>;
  using SharedTable = hsh::Hashtable<Sexp_*, hsh::GetKey_identity<Sexp_*>, Sexp_*,
                                     Sexp_strhash_eq, Sexp_strhash_eq>;

  friend void detail::note_foreign_child(SexpManager*) noexcept;

  [[noreturn]] static void throw_ids_exhausted();
  void free_names() noexcept;

  // Makes `id_counter` an id that no live node has, the one the next node made takes. Only
  // the end of the counter or the next id of the snapshot needs a look (out of line).
  void ensure_free_id() {
    if (id_counter == id_stop) skip_live_ids();
  }
  void skip_live_ids();
  void take_live_ids();
  // Fails exactly as alloc_sexp would, without making a node.
  void reserve_node() {
    ensure_free_id();
    if (!sexp_pool.has_free_slot()) take_node_chunk();
  }
  // Before an insert into the shared table: in automatic mode, collect rather than grow.
  // May throw `std::bad_alloc` from a growth, once it has collected.
  void before_shared_insert() {
    if (auto_collecting && shared_table.size() >= collect_at) collect_before_growth();
  }
  void collect_before_growth();
  void take_node_chunk();
  // sh_cons and sh_sym but for the caller's reference: the canonical node, whose only new
  // reference on a miss is the table's. The handle they return is taken after the node is
  // in the table, as it always was, so every observable effect is the same.
  Sexp_* shared_cons(Sexp_* a, Sexp_* d) {
    reserve_node();
    const std::uint64_t h = detail::Shape::cons_hash(a, d);
    Sexp_** found;
    if (children_by_address(a, d)) {
      found = shared_table.find_item(h, [a, d](const Sexp_* n) {
        const bool same = n->is_symbol == 0 && n->car == a && n->cdr == d;
        assert(same == detail::Shape::is_cons_of(n, a, d) &&
               "children by address disagree with ids");
        return same;
      });
    } else {
      found = shared_table.find_item(
          h, [a, d](const Sexp_* n) { return detail::Shape::is_cons_of(n, a, d); });
    }
    if (found != nullptr) return *found;
    return enter_cons(a, d, h);
  }
  // shared_cons of a shape the caller knows is absent from the table (a child was made
  // after every node alive but itself, so nothing can have it as a child yet): the same
  // effects as shared_cons's miss, without walking the chain to find nothing.
  Sexp_* shared_cons_absent(Sexp_* a, Sexp_* d) {
    reserve_node();
    const std::uint64_t h = detail::Shape::cons_hash(a, d);
    assert(shared_table.find_item(h, [a, d](const Sexp_* n) {
      return detail::Shape::is_cons_of(n, a, d);
    }) == nullptr && "shared_cons_absent of a shape in the table");
    return enter_cons(a, d, h);
  }
  // shared_cons_absent for a builder that keeps the counts itself: the shape, hashing to
  // `h`, is absent, both children are nodes of this manager (so the cons leaves
  // child_ids_are_identities as it is), and the node is made with count `count` (mod 2^31)
  // while its children's counts are left alone: the caller answers for the references the
  // new cons holds on them. If entering it in the table fails, the node stays alive with
  // the one count shared_cons_absent's miss would leave it (the table's reference).
  Sexp_* shared_cons_absent_counted(Sexp_* a, Sexp_* d, std::uint64_t h, std::uint32_t count) {
    reserve_node();
    assert(a->mgr == this && d->mgr == this && "a counted cons over another manager's node");
    assert(h == detail::Shape::cons_hash(a, d) && "a counted cons given another hash");
    assert(shared_table.find_item(h, [a, d](const Sexp_* n) {
      return detail::Shape::is_cons_of(n, a, d);
    }) == nullptr && "shared_cons_absent_counted of a shape in the table");
    before_shared_insert();
    Sexp_* n = alloc_sexp();
    n->set_count_word(count & 0x7FFFFFFFu);  // a cons (is_symbol 0) of count `count`
    n->car = a;
    n->cdr = d;
    try {
      shared_table.insert_absent(h, n);
    } catch (...) {
      n->set_count_word(1u);
      throw;
    }
    return n;
  }
  // Whether the table holds a cons of `a` (id `a_id`) and `d` (id `d_id`), both nodes of
  // this manager, whose shape hashes to `h`: shared_cons's look-up without its reserve_node
  // (so it changes nothing and cannot fail), reading neither child.
  bool has_shared_cons_of_own(const Sexp_* a, const Sexp_* d, std::uint32_t a_id, std::uint32_t d_id,
                              std::uint64_t h) {
    assert(a->mgr == this && d->mgr == this && a->id == a_id && d->id == d_id);
    if (child_ids_are_identities)
      return shared_table.find_item(h, [a, d](const Sexp_* n) {
        const bool same = n->is_symbol == 0 && n->car == a && n->cdr == d;
        assert(same == detail::Shape::is_cons_of(n, a, d) && "children by address disagree with ids");
        return same;
      }) != nullptr;
    return shared_table.find_item(h, [a_id, d_id](const Sexp_* n) {
      return n->is_symbol == 0 && n->car->id == a_id && n->cdr->id == d_id;
    }) != nullptr;
  }
  Sexp_* shared_symbol(unsigned long value) {
    reserve_node();
    Sexp_** found = shared_table.find_item(
        detail::Shape::symbol_hash(value),
        [value](const Sexp_* n) { return detail::Shape::is_symbol_of(n, value); });
    if (found != nullptr) return *found;
    return enter_symbol(value);
  }

  // The misses of sh_cons and sh_sym: make the node, enter it as canonical (its shape
  // hashes to `h` and is absent from the table), return it (the table's reference only).
  Sexp_* enter_cons(Sexp_* car, Sexp_* cdr, std::uint64_t h);
  Sexp_* enter_symbol(unsigned long value);
  Sexp_* enter_canonical(Sexp_* fresh, std::uint64_t h);
  // Records that a canonical cons may get (or has got) a child of another manager.
  void check_children(const Sexp_* cons) noexcept {
    if (cons->car->mgr != this || cons->cdr->mgr != this) child_ids_are_identities = false;
  }
  // Whether the shape (car, cdr) may be looked up comparing children by address; see
  // child_ids_are_identities. Debug builds check each such comparison against the ids.
  bool children_by_address(const Sexp_* car, const Sexp_* cdr) const noexcept {
    return child_ids_are_identities && car->mgr == this && cdr->mgr == this;
  }

  // Declaration order is construction order.
  std::uint32_t id_counter = 0;  // id of the next node made, once ensure_free_id() ran
  std::uint64_t ids_handed_out_count = 0;  // see ids_handed_out()
  // id_counter == id_stop sends ensure_free_id() the slow way: 0 (the counter's end, where it
  // wraps) until the first snapshot, then the next id in live_ids at or above id_counter, or
  // 0 past the last one. Nil's id is 0, so the constructor takes that way once too.
  std::uint32_t id_stop = 0;
  // Sorted distinct ids of the nodes alive when the counter last reached its end; empty
  // until then. Ids below id_counter are used up; those from live_ids[live_at] on are skipped.
  std::vector<std::uint32_t> live_ids;
  std::size_t live_at = 0;
  bool snapshot_lost = false;         // a snapshot failed: id_counter stands for the counter's end
  SymbolTable symbol_table;           // name copy -> symbol id
  std::vector<char*> symbol_names;    // symbol id -> owned name copy
  MemoryPool<32, false> sexp_pool{1024, 1.0f, 0};  // every node of this manager
  Sexp_* nil_node = nullptr;          // id 0, value 0; never null once constructed
  SharedTable shared_table;           // canonical nodes, each holding one reference
  std::unique_ptr<StringTable> strings;  // string atom contents; made on first use

  // True while, for every canonical cons, comparing its children with two nodes of this
  // manager by address gives the same answer as comparing them by id (the shape's
  // definition). That holds as long as (1) every canonical cons's children belong to this
  // manager and (2) no two live nodes of this manager share an id: a new node takes an id
  // no live node has (also after the counter wraps), and the one id given back
  // (strhash's) belongs to a node that dies. Collection keeps both: it only removes.
  // Cleared for good when a canonical cons is entered with, or set (setcar/setcdr) to, a
  // child of another manager or an unmanaged node, or when strhash gives back the id of a
  // node that another handle keeps alive. Assumed, as everywhere in the manager: strhash
  // is given the node made last, and a node's `id`, `car` and `cdr` change only through
  // the manager and the handle operations.
  bool child_ids_are_identities = true;
  bool auto_collecting = false;  // see set_auto_collect
  // In automatic mode, whether the last look for nodes to give back at a growth point
  // found none: the next growth then looks as it hashes (see collect_before_growth).
  bool all_held_at_last_look = false;
  // In automatic mode, the table size at which an insert first calls collect_before_growth:
  // the table's growth point, or the size at which a growth it decided on failed.
  std::uint64_t collect_at = 0;
};

}  // namespace vorn

#endif  // VORN_EXPR_MANAGER_HPP
