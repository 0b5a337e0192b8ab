// White-box access to a manager's private state, for the library's own tests only.
#ifndef VORN_TESTS_SUPPORT_INTERNALS_HPP
#define VORN_TESTS_SUPPORT_INTERNALS_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <vector>

#include "vorn/expr/manager.hpp"

namespace vorn::detail {

struct SexpManagerInternals {
  static std::uint32_t& next_id(SexpManager& m) { return m.id_counter; }
  /// Moves the id counter to `id` as if the ids below it had been handed out since the last
  /// snapshot of live ids (or since construction): ids of that snapshot are still skipped.
  static void set_next_id(SexpManager& m, std::uint32_t id) {
    m.id_counter = id;
    m.live_at = static_cast<std::size_t>(
        std::lower_bound(m.live_ids.begin(), m.live_ids.end(), id) - m.live_ids.begin());
    m.id_stop = m.live_at < m.live_ids.size() ? m.live_ids[m.live_at] : 0;
  }
  /// Ids in the snapshot of live ids (0 until the counter first reaches its end).
  static std::size_t snapshot_size(const SexpManager& m) { return m.live_ids.size(); }
  static std::size_t shared_buckets(const SexpManager& m) { return m.shared_table.bucket_count(); }
  static std::size_t slots_in_use(const SexpManager& m) { return m.sexp_pool.slots_in_use(); }
  static std::size_t shared_size(const SexpManager& m) { return m.shared_table.size(); }
  static std::size_t symbol_size(const SexpManager& m) { return m.symbol_table.size(); }
  static std::size_t symbol_buckets(const SexpManager& m) { return m.symbol_table.bucket_count(); }
  static std::size_t name_count(const SexpManager& m) { return m.symbol_names.size(); }
  /// Per canonical node but nil, its count less the references the table, the canonical
  /// conses and `held` have on it; only the nodes where that is not zero.
  static std::map<const Sexp_*, std::int64_t> count_excess(SexpManager& m, const std::vector<Sexp>& held) {
    std::map<const Sexp_*, std::int64_t> excess;
    m.shared_table.for_each([&](Sexp_* n) {
      excess[n] += std::int64_t{n->refcount} - 1;
      if (n->is_symbol == 0) --excess[n->car], --excess[n->cdr];
    });
    for (const Sexp& h : held) --excess[h.get()];
    excess.erase(m.nil_node);
    for (auto i = excess.begin(); i != excess.end();) i = i->second == 0 ? excess.erase(i) : std::next(i);
    return excess;
  }
  /// Slots on the node pool's free list. Takes them all and gives them back in reverse,
  /// so the free list ends exactly as it was; allocates nothing.
  static std::size_t free_slots(SexpManager& m) noexcept {
    void* taken = nullptr;
    std::size_t n = 0;
    for (; m.sexp_pool.has_free_slot(); ++n) {
      void* slot = m.sexp_pool.allocate();
      *static_cast<void**>(slot) = taken;
      taken = slot;
    }
    while (taken != nullptr) {
      void* next = *static_cast<void**>(taken);
      m.sexp_pool.deallocate(taken);
      taken = next;
    }
    return n;
  }
};

}  // namespace vorn::detail

#endif  // VORN_TESTS_SUPPORT_INTERNALS_HPP
