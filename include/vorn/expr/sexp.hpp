// The expression node record Sexp_ and the counted handle Sexp.
#ifndef VORN_EXPR_SEXP_HPP
#define VORN_EXPR_SEXP_HPP

#include <cassert>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>

#include "vorn/support/hashtable.hpp"

namespace vorn {

class SexpManager;
struct Sexp_;
namespace detail {
class SexpRef;
}  // namespace detail

namespace detail {
/// Ends the life of `node`, whose last reference is gone and whose manager is set:
/// releases its `car` subtree, then its `cdr` subtree, then gives its slot back, so
/// slots return in post-order. Iterative and allocation-free: the dying nodes' own
/// words hold the work list, so any depth runs in constant stack space.
void reclaim(Sexp_* node) noexcept;
/// Tells manager `m` (if any) that one of its conses now has a child of another manager
/// or an unmanaged child; see SexpManager::child_ids_are_identities.
void note_foreign_child(SexpManager* m) noexcept;
}  // namespace detail

/// One expression node: a cons cell with two children or a symbol with a 64-bit value.
///
/// Four 64-bit words, in this order: `id` with the word holding `refcount` (low 31
/// bits) and `is_symbol` (bit 31); `mgr`; `car` or `value`; `cdr` (zero in a symbol).
/// A node fills one 32-byte slot of its manager's node pool; while the slot is free its
/// first word is the pool's free-list link.
///
/// Invariants: a cons's `car` and `cdr` are never null and each holds one reference on
/// its child; a symbol's `value` is plain data. `refcount` is the number of holders:
/// handles, parent conses and the manager's own holds (nil and the shared table).
///
/// Counting is plain arithmetic modulo 2^31 on non-atomic fields: nodes, their handles
/// and their manager are used from one thread at a time.
struct Sexp_ {
  std::uint32_t id;              // sequence number from the manager; distinct among live nodes
  std::uint32_t refcount : 31;   // holders of this node
  std::uint32_t is_symbol : 1;   // 1 = symbol, 0 = cons
  SexpManager* mgr;              // owning manager; null = unmanaged, never reclaimed
  union {
    Sexp_* car;                  // cons: first child
    std::uint64_t value;         // symbol: payload, normally a symbol id
  };
  Sexp_* cdr;                    // cons: second child; symbol: null

  /// The fresh state: id 0, one reference, a symbol of value 0 without manager.
  Sexp_() noexcept : id(0), mgr(nullptr), value(0), cdr(nullptr) { set_count_word(0x80000001u); }

  /// A cons releases its `car`, then its `cdr`; a symbol does nothing. The node's own
  /// count and slot are untouched. (Reclaiming a node does this same work iteratively,
  /// see detail::reclaim, and does not call the destructor.)
  ~Sexp_() {
    if (is_symbol == 0) {
      car->release();
      cdr->release();
    }
  }

  Sexp_(const Sexp_&) = delete;
  Sexp_& operator=(const Sexp_&) = delete;

  /// One more reference: refcount = (refcount + 1) mod 2^31; is_symbol unchanged.
  void add_ref() noexcept { refcount = (refcount + 1u) & 0x7FFFFFFFu; }

  /// One reference less: refcount = (refcount - 1) mod 2^31. At 0, a managed node
  /// releases its children and returns its slot to its manager; an unmanaged node
  /// stays as it is, children included.
  void release() noexcept {
    refcount = (refcount + 0x7FFFFFFFu) & 0x7FFFFFFFu;
    if (refcount == 0 && mgr != nullptr) detail::reclaim(this);
  }

  /// Writes the diagnostic text of the expression rooted here (no final newline).
  /// One node per line, two spaces of indentation per level; a node header is
  /// `{id}[refcount]`; a symbol line adds `<value>|name|` with a backslash before each
  /// bar of the name; a cons is `(cons`, its `car`, its `cdr`, `)`; a node already
  /// written in this call is written as `@id`. Never recurses; takes no reference.
  /// A symbol whose name cannot be found is written `<value>?` (no bars); a cons
  /// reached again while it is still open (a cycle made with setcar/setcdr) is
  /// written `@id!` and not entered again.
  void print(std::ostream& os) const;
  /// print() to standard output, then "\n" and a flush.
  void debug_print() const;
  /// The text print() writes.
  std::string debug_to_str() const;

 private:
  friend class SexpManager;

  // Makes a fresh node (count 1) a cons. Same effect as `is_symbol = 0`, but written as
  // the whole 32-bit word that holds refcount and is_symbol: a one-byte store there would
  // make the next count operation's 32-bit load wait until the store reaches the cache.
  void make_fresh_cons() noexcept { set_count_word(1u); }

  // Stores the 32-bit word that holds refcount (low 31 bits) and is_symbol (bit 31), the
  // four bytes after `id`.
  void set_count_word(std::uint32_t w) noexcept {
    std::memcpy(reinterpret_cast<unsigned char*>(&id) + sizeof id, &w, sizeof w);
  }
};

static_assert(sizeof(Sexp_) == 32, "a node fills exactly one 32-byte pool slot");
static_assert(sizeof(unsigned long) == 8, "symbol ids and values are 64-bit");

/// A counted reference to a node, or null. One pointer wide.
///
/// A non-null handle owns one reference: copying adds one, destruction and assignment
/// release one, and the last release reclaims the node. There is no move: a handle
/// that is relocated is copied and the old one destroyed, which leaves counts as they
/// were. The node's manager must outlive every handle (releasing writes to its pool).
///
/// Preconditions (null handle, symbol where a cons is needed) are checked by assert in
/// debug builds only.
class Sexp {
 public:
  /// A null handle.
  Sexp() noexcept : node(nullptr) {}
  /// A handle on `n`, taking a new reference. `n` must not be null.
  Sexp(Sexp_* n) noexcept : node(n) {  // NOLINT(google-explicit-constructor)
    assert(n != nullptr && "Sexp(Sexp_*) needs a node");
    n->add_ref();
  }
  Sexp(const Sexp& other) noexcept : node(other.node) {
    if (node != nullptr) node->add_ref();
  }
  /// Takes the source's reference before dropping its own, so assigning a handle to
  /// itself, or to another handle of the same node, never ends the node's life.
  Sexp& operator=(const Sexp& other) noexcept {
    if (other.node != nullptr) other.node->add_ref();
    Sexp_* old = node;
    node = other.node;
    if (old != nullptr) old->release();
    return *this;
  }
  ~Sexp() {
    if (node != nullptr) node->release();
  }

  /// The node held (null for a null handle); no count changes. Identity is pointer identity.
  Sexp_* get() const noexcept { return node; }
  bool is_null() const noexcept { return node == nullptr; }
  bool is_symbol() const noexcept { return checked()->is_symbol != 0; }
  std::uint64_t value() const noexcept {
    assert(checked()->is_symbol && "value() of a cons");
    return node->value;
  }
  /// A new handle on the first child. The handle must hold a cons.
  Sexp car() const noexcept { return Sexp(checked_cons()->car); }
  /// A new handle on the second child. The handle must hold a cons.
  Sexp cdr() const noexcept { return Sexp(checked_cons()->cdr); }
  std::uint32_t id() const noexcept { return checked()->id; }

  /// Replaces the `car` of the cons held: releases the old child first, then takes a
  /// reference on `x` (safe when `x` is the old child: `x` holds its own reference).
  /// The shared table is not consulted: a canonical cons changed here keeps its entry.
  void setcar(const Sexp& x) noexcept { replace(checked_cons(), node->car, x); }
  /// As setcar, for the `cdr`.
  void setcdr(const Sexp& x) noexcept { replace(checked_cons(), node->cdr, x); }

  /// Diagnostic text of the node held (see Sexp_::print); a null handle writes "<NIL>".
  void print(std::ostream& os) const;
  /// Diagnostic text to standard output with a newline and a flush; "<NIL>" when null.
  void debug_print() const;
  /// Diagnostic text as a string; "<NIL>" when null.
  std::string debug_to_str() const;

  friend bool operator==(const Sexp& a, const Sexp& b) noexcept { return a.node == b.node; }
  friend bool operator!=(const Sexp& a, const Sexp& b) noexcept { return a.node != b.node; }

 private:
  friend class SexpManager;
  friend class detail::SexpRef;
  struct Adopt {};
  // Takes over the reference a freshly made node already carries (count 1).
  Sexp(Sexp_* n, Adopt) noexcept : node(n) {}

  Sexp_* checked() const noexcept {
    assert(node != nullptr && "operation on a null Sexp handle");
    return node;
  }
  Sexp_* checked_cons() const noexcept {
    assert(checked()->is_symbol == 0 && "cons operation on a symbol node");
    return node;
  }
  static void replace(Sexp_* cons, Sexp_*& slot, const Sexp& x) noexcept {
    assert(!x.is_null() && "setcar/setcdr with a null handle");
    if (x.node->mgr != cons->mgr) detail::note_foreign_child(cons->mgr);
    slot->release();
    x.node->add_ref();
    slot = x.node;
  }

  Sexp_* node;
};

/// print() of `s`; "<NIL>" for a null handle. Returns `os`.
std::ostream& operator<<(std::ostream& os, const Sexp& s);

namespace hsh {
/// A node's address as a number.
template <>
struct hash<const Sexp_*> {
  std::uint64_t operator()(const Sexp_* p) const noexcept {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(p));
  }
};
}  // namespace hsh

}  // namespace vorn

#endif  // VORN_EXPR_SEXP_HPP
