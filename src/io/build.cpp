// Making the canonical nodes of a listed shape in a manager.
#include "build.hpp"

#include <cassert>
#include <cstdint>

#include "io_access.hpp"

namespace vorn::detail {

Builder::Builder(SexpManager& m, std::size_t atoms, std::size_t conses)
    : m_(m), hold_(m.auto_collect()), atoms_(atoms), planned_(atoms + conses), ids_before_(m.ids_handed_out()) {
  nodes_.reserve(planned_);
}

Builder::~Builder() {
  if (hold_)
    for (std::size_t i = 0; i < nodes_.size(); ++i) node_at(i)->release();
}

void Builder::grow_table_ahead() {
  if (!hold_) IoAccess::grow_shared_table_for(m_, planned_ - nodes_.size());
}

void Builder::atom(std::uint64_t value) {
  Sexp_* n = IoAccess::symbol(m_, value);
  nodes_.push_back(reinterpret_cast<std::uintptr_t>(n));  // reserved: cannot throw
  if (hold_) n->add_ref();
}

// Each cons needs its children's ids (to hash its shape), then the bucket and chain its
// shape hashes to: for nodes drawn from all over memory, misses that sh_cons one call at a
// time pays one after another. The references are known ahead, so each cons's lines are
// asked of memory in stages, a few conses apart: the children's entries in nodes_, the
// children, the bucket, the first chain node, the node it holds (the last two only for a
// cons that looks as if it will be looked up). A stage whose children are younger than the
// stage's distance is skipped: they are in the cache anyway. Only prefetches are added, and
// look-ups that would miss are left out (see the class comment): the nodes made, their
// order and every count are sh_cons's.
void Builder::conses(const std::uint32_t* refs, std::size_t n) {
  constexpr std::size_t step = 4;  // conses between stages
  assert(nodes_.size() == atoms_ && "every atom comes before the conses");
  bool all_new_so_far = all_new();
  for (std::size_t k = 0; k < n; ++k) {
    if (k + 5 * step < n) {
      __builtin_prefetch(nodes_.data() + index(refs[2 * (k + 5 * step)]));
      __builtin_prefetch(nodes_.data() + index(refs[2 * (k + 5 * step) + 1]));
    }
    if (k + 4 * step < n) {
      const std::size_t a = index(refs[2 * (k + 4 * step)]), d = index(refs[2 * (k + 4 * step) + 1]);
      if (a < nodes_.size()) __builtin_prefetch(node_at(a));
      if (d < nodes_.size()) __builtin_prefetch(node_at(d));
    }
    for (int stage = 0; stage < 3; ++stage) {
      const std::size_t j = k + (3 - stage) * step;
      if (j >= n) continue;
      const std::size_t a = index(refs[2 * j]), d = index(refs[2 * j + 1]);
      if (a >= nodes_.size() || d >= nodes_.size()) continue;
      const bool look_up = !all_new_so_far || (nodes_[a] & nodes_[d] & has_parent) != 0;
      if (stage == 0 || look_up) IoAccess::prefetch_cons(m_, node_at(a), node_at(d), stage);
    }
    std::uintptr_t& a = nodes_[index(refs[2 * k])];
    std::uintptr_t& d = nodes_[index(refs[2 * k + 1])];
    Sexp_* car = reinterpret_cast<Sexp_*>(a & ~has_parent);
    Sexp_* cdr = reinterpret_cast<Sexp_*>(d & ~has_parent);
    Sexp_* c = all_new_so_far && (a & d & has_parent) == 0 ? IoAccess::new_cons(m_, car, cdr)
                                                           : IoAccess::cons(m_, car, cdr);
    a |= has_parent;
    d |= has_parent;
    nodes_.push_back(reinterpret_cast<std::uintptr_t>(c));  // reserved: cannot throw
    if (hold_) c->add_ref();
    all_new_so_far = all_new_so_far && all_new();
  }
}

std::vector<Sexp> Builder::roots(const std::uint32_t* refs, std::size_t n) const {
  std::vector<Sexp> out;
  out.reserve(n);
  for (std::size_t i = 0; i < n; ++i) out.emplace_back(node(refs[i]));
  return out;
}

}  // namespace vorn::detail
