// The manager's entry points for loading and copying, which make canonical nodes in bulk.
#ifndef VORN_SRC_IO_IO_ACCESS_HPP
#define VORN_SRC_IO_IO_ACCESS_HPP

#include <cstddef>
#include <cstdint>

#include "vorn/expr/manager.hpp"

namespace vorn::detail {

struct IoAccess {
  /// Whether no two live nodes of `m` share an id, so that an id names one node.
  static bool ids_are_unique(const SexpManager& m) noexcept { return m.child_ids_are_identities; }

  /// The pool every node of `m` lives in.
  static const MemoryPool<sizeof(Sexp_), false>& node_pool(const SexpManager& m) noexcept { return m.sexp_pool; }

  /// make_symbol of the `len` bytes at `name` (none NUL), without a terminated copy.
  static unsigned long intern(SexpManager& m, const char* name, std::size_t len) {
    return m.intern_symbol(name, len, hsh::hash<char*>::of_bytes(name, len));
  }

  /// sh_sym and sh_cons without the caller's reference (see SexpManager::shared_cons).
  static Sexp_* symbol(SexpManager& m, std::uint64_t value) { return m.shared_symbol(value); }
  static Sexp_* cons(SexpManager& m, Sexp_* car, Sexp_* cdr) { return m.shared_cons(car, cdr); }
  /// cons() of a shape the caller knows is absent from the table: the same effects as
  /// cons()'s miss, without the look-up (see SexpManager::shared_cons_absent).
  static Sexp_* new_cons(SexpManager& m, Sexp_* car, Sexp_* cdr) { return m.shared_cons_absent(car, cdr); }

  /// new_cons() of children of `m` whose shape hashes to `h`, made with count `count`
  /// and adding no reference to the children (see SexpManager::shared_cons_absent_counted).
  static Sexp_* new_cons_counted(SexpManager& m, Sexp_* car, Sexp_* cdr, std::uint64_t h, std::uint32_t count) {
    return m.shared_cons_absent_counted(car, cdr, h, count);
  }
  /// Whether the shape (car, cdr) of nodes of `m` with ids car_id and cdr_id, hashing to
  /// `h`, is in the table; changes nothing and reads neither child.
  static bool has_cons(SexpManager& m, const Sexp_* car, const Sexp_* cdr, std::uint32_t car_id,
                       std::uint32_t cdr_id, std::uint64_t h) {
    return m.has_shared_cons_of_own(car, cdr, car_id, cdr_id, h);
  }

  /// prefetch_cons() of a shape known by its hash.
  __attribute__((always_inline)) static void prefetch_hash(const SexpManager& m, std::uint64_t h,
                                                           int stage) noexcept {
    m.shared_table.prefetch(h, stage);
  }
  /// Asks memory, in stage `stage` (0, 1, 2: see Hashtable::prefetch), for what looking up
  /// the shape (car, cdr) in the shared table will read; changes nothing.
  /// Always inlined, as hsh::detail::prefetch is.
  __attribute__((always_inline)) static void prefetch_cons(const SexpManager& m, const Sexp_* car,
                                                           const Sexp_* cdr, int stage) noexcept {
    m.shared_table.prefetch(Shape::cons_hash(car, cdr), stage);
  }

  /// Grows the shared table of `m` now to the bucket count that `more` inserts one by one
  /// would leave it with, so that they need no growth. Nothing else changes; on
  /// std::bad_alloc the table is as it was.
  static void grow_shared_table_for(SexpManager& m, std::size_t more) {
    if (more == 0) return;
    const std::uint64_t last_check = m.shared_table.size() + more - 1;  // count seen by the last insert
    std::uint64_t buckets = m.shared_table.bucket_count();
    for (const std::uint64_t p : hsh::primes) {
      if (p < buckets) continue;
      buckets = p;
      if (hsh::detail::growth_threshold(p) > last_check) break;
    }
    m.shared_table.rehash(buckets);
  }
};

}  // namespace vorn::detail

#endif  // VORN_SRC_IO_IO_ACCESS_HPP
