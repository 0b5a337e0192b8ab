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
#include "vorn/expr/string_table.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/memory_pool.hpp"

namespace vorn {

namespace detail {
struct SexpManagerInternals;  // white-box access for the library's own tests
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
/// A cons's shape is the pair of its children's ids, so `cons` and `sym` (which always
/// make a new node) and a `sh_cons` over such plain children do not share with the
/// canonical forms. Canonical nodes live as long as the manager.
///
/// Ids: handed out in increasing order from 0 (nil) and not reused, except that a
/// sharing hit gives back the id its discarded node took. When all 2^32 ids are used,
/// making a node throws a `std::bad_alloc` whose what() says so, and changes nothing.
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

  /// Hash and equality of the shared table. The hash of a symbol is its value; of a
  /// cons, (car id << 24) + cdr id; of null, 0. Two nodes are equal when both are
  /// symbols of one value, or both conses whose children have pairwise equal ids.
  struct Sexp_strhash_eq {
    std::uint64_t operator()(const Sexp_* n) const noexcept {
      if (n == nullptr) return 0;
      if (n->is_symbol) return n->value;
      return (static_cast<std::uint64_t>(n->car->id) << 24) + n->cdr->id;
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
      if (a->is_symbol != b->is_symbol) return false;
      if (a->is_symbol) return a->value == b->value;
      return a->car->id == b->car->id && a->cdr->id == b->cdr->id;
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
    if (next_id == 0 && nil_node != nullptr) throw_ids_exhausted();
    Sexp_* n = ::new (sexp_pool.allocate()) Sexp_();
    n->id = next_id++;
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
    Sexp_* a = car.get();
    Sexp_* d = cdr.get();
    reserve_node();
    const std::uint64_t h = (static_cast<std::uint64_t>(a->id) << 24) + d->id;
    Sexp_** found;
    if (child_ids_are_identities && a->mgr == this && d->mgr == this) {
      // Same answer as the id comparison below (see child_ids_are_identities), without
      // reading the stored node's children.
      found = shared_table.find_item(
          h, [a, d](const Sexp_* n) { return n->is_symbol == 0 && n->car == a && n->cdr == d; });
    } else {
      found = shared_table.find_item(h, [a, d](const Sexp_* n) {
        return n->is_symbol == 0 && n->car->id == a->id && n->cdr->id == d->id;
      });
    }
    if (found != nullptr) return Sexp(*found);
    return enter_cons(a, d, h);
  }

  /// The canonical symbol of `value`; sh_sym(0) is nil. Made as sh_cons() is.
  Sexp sh_sym(unsigned long value) {
    reserve_node();
    Sexp_** found = shared_table.find_item(
        value, [value](const Sexp_* n) { return n->is_symbol != 0 && n->value == value; });
    if (found != nullptr) return Sexp(*found);
    return enter_symbol(value);
  }

 private:
  friend void detail::reclaim(Sexp_*) noexcept;
  friend struct detail::SexpManagerInternals;

  using SymbolTable = hsh::Hashtable<std::pair<const char*, unsigned long>,
                                     hsh::GetKey_pair<const char*, unsigned long>, const char*,
                                     hsh::hash<char*>, CStr_eq>;
  using SharedTable = hsh::Hashtable<Sexp_*, hsh::GetKey_identity<Sexp_*>, Sexp_*,
                                     Sexp_strhash_eq, Sexp_strhash_eq>;

  friend void detail::note_foreign_child(SexpManager*) noexcept;

  [[noreturn]] static void throw_ids_exhausted();
  void free_names() noexcept;
  // Fails exactly as alloc_sexp would, without making a node.
  void reserve_node() {
    if (next_id == 0 && nil_node != nullptr) throw_ids_exhausted();
    if (!sexp_pool.has_free_slot()) take_node_chunk();
  }
  void take_node_chunk();
  // The misses of sh_cons and sh_sym: make the node, enter it as canonical (its shape
  // hashes to `h` and is absent from the table), return a handle on it.
  Sexp enter_cons(Sexp_* car, Sexp_* cdr, std::uint64_t h);
  Sexp enter_symbol(unsigned long value);
  Sexp enter_canonical(Sexp_* fresh, std::uint64_t h);
  // Records that a canonical cons may get (or has got) a child of another manager.
  void check_children(const Sexp_* cons) noexcept {
    if (cons->car->mgr != this || cons->cdr->mgr != this) child_ids_are_identities = false;
  }

  // Declaration order is construction order.
  std::uint32_t next_id = 0;          // id of the next node made
  SymbolTable symbol_table;           // name copy -> symbol id
  std::vector<char*> symbol_names;    // symbol id -> owned name copy
  MemoryPool<32, false> sexp_pool{1024, 1.0f, 0};  // every node of this manager
  Sexp_* nil_node = nullptr;          // id 0, value 0; never null once constructed
  SharedTable shared_table;           // canonical nodes, each holding one reference
  std::unique_ptr<StringTable> strings;  // string atom contents; made on first use

  // True while, for every canonical cons, comparing its children with two nodes of this
  // manager by address gives the same answer as comparing them by id (the shape's
  // definition). That holds as long as (1) every canonical cons's children belong to this
  // manager and (2) no two live nodes of this manager share an id: ids are handed out
  // once, never wrap, and the one id given back (strhash's) belongs to a node that dies.
  // Cleared for good when a canonical cons is entered with, or set (setcar/setcdr) to, a
  // child of another manager or an unmanaged node, or when strhash gives back the id of a
  // node that another handle keeps alive. Assumed, as everywhere in the manager: strhash
  // is given the node made last, and a node's `id`, `car` and `cdr` change only through
  // the manager and the handle operations.
  bool child_ids_are_identities = true;
};

}  // namespace vorn

#endif  // VORN_EXPR_MANAGER_HPP
