// Making the canonical nodes of a listed shape in a manager.
#include "build.hpp"

#include <cassert>
#include <cstdint>
#include <vector>

#include "io_access.hpp"

namespace vorn::detail {

Builder::Builder(SexpManager& m, std::size_t atoms, std::size_t conses)
    : m_(m), hold_(m.auto_collect()), atoms_(atoms), planned_(atoms + conses), ids_before_(m.ids_handed_out()) {
  nodes_.reserve(planned_);
}

Builder::~Builder() {
  if (hold_)
    for (const Entry& e : nodes_) e.node->release();
}

void Builder::grow_table_ahead() {
  if (!hold_) IoAccess::grow_shared_table_for(m_, planned_ - nodes_.size());
}

void Builder::atom(std::uint64_t value) {
  Sexp_* n = IoAccess::symbol(m_, value);
  nodes_.push_back({n, n->id});  // reserved: cannot throw
  if (hold_) n->add_ref();
}

void Builder::conses(const std::uint32_t* refs, std::size_t n) {
  assert(nodes_.size() == atoms_ && "every atom comes before the conses");
  const std::size_t made = all_new() ? conses_all_new(refs, n) : 0;
  conses_looked_up(refs, made, n);
}

// Each cons needs its children's entries (their ids hash its shape), then the bucket its
// shape hashes to and, for a cons that is looked up, the chain there: for nodes drawn from
// all over memory, misses that sh_cons one call at a time pays one after another, and
// that count writes in each child would add to. The references are known ahead, so each
// cons's lines are asked of memory in stages, a few conses apart: the entries, the bucket,
// the first chain node, the node it holds. A stage whose entries are younger than the
// stage's distance is skipped: they are in the cache anyway.
std::size_t Builder::conses_all_new(const std::uint32_t* refs, std::size_t n) {
  constexpr std::size_t step = 4;  // conses between stages
  // Per entry, its parents among the n conses: a reference is to an earlier node, so no
  // entry has more than 2n - 2 < 2^32 and a count is 0 only before its first parent. Per
  // cons, whether both children had a parent before it: it may then be in the table.
  std::vector<std::uint32_t> parents(atoms_ + n, 0);
  std::vector<std::uint8_t> look_up(n, 0);
  for (std::size_t k = 0; k < n; ++k) {
    std::uint32_t& a = parents[index(refs[2 * k])];
    std::uint32_t& d = parents[index(refs[2 * k + 1])];
    look_up[k] = a != 0 && d != 0;
    ++a;
    ++d;
  }
  const std::uint32_t own = hold_ ? 2 : 1;  // the table's reference and the builder's
  std::size_t k = 0;
  try {
    for (; k < n; ++k) {
      prefetch_entries(refs, k + 4 * step, n);
      for (int stage = 0; stage < 3; ++stage) {
        const std::size_t j = k + (3 - stage) * step;
        if (j >= n || (stage > 0 && look_up[j] == 0)) continue;
        const std::size_t a = index(refs[2 * j]), d = index(refs[2 * j + 1]);
        if (a >= nodes_.size() || d >= nodes_.size()) continue;
        IoAccess::prefetch_hash(m_, Shape::cons_hash(nodes_[a].id, nodes_[d].id), stage);
      }
      const std::size_t ia = index(refs[2 * k]), id = index(refs[2 * k + 1]);
      const Entry a = nodes_[ia], d = nodes_[id];
      const std::uint64_t h = Shape::cons_hash(a.id, d.id);
      if (look_up[k] != 0 && IoAccess::has_cons(m_, a.node, d.node, a.id, d.id, h)) break;
      Sexp_* c = IoAccess::new_cons_counted(m_, a.node, d.node, h, own + parents[atoms_ + k]);
      if (ia < atoms_) a.node->add_ref();
      if (id < atoms_) d.node->add_ref();
      nodes_.push_back({c, c->id});  // reserved: cannot throw
    }
  } catch (...) {
    // A cons made but not entered in the table stays alive holding its children.
    const bool stranded = m_.ids_handed_out() - ids_before_ != nodes_.size();
    if (stranded) {
      const std::size_t ia = index(refs[2 * k]), id = index(refs[2 * k + 1]);
      if (ia < atoms_) nodes_[ia].node->add_ref();
      if (id < atoms_) nodes_[id].node->add_ref();
    }
    settle(refs, stranded ? k + 1 : k, n, k);
    throw;
  }
  settle(refs, k, n, k);
  return k;
}

void Builder::settle(const std::uint32_t* refs, std::size_t from, std::size_t n, std::size_t made) noexcept {
  for (std::size_t i = 2 * from; i < 2 * n; ++i) {
    const std::uint32_t r = refs[i];
    if ((r & Listing::atom_tag) != 0 || r >= made) continue;
    Sexp_* c = nodes_[atoms_ + r].node;
    c->refcount = (c->refcount + 0x7FFFFFFFu) & 0x7FFFFFFFu;  // one less, never to 0
  }
}

// As conses_all_new(), staged the same way, with every cons looked up: the nodes made,
// their order and every count are sh_cons's.
void Builder::conses_looked_up(const std::uint32_t* refs, std::size_t k, std::size_t n) {
  constexpr std::size_t step = 4;
  for (; k < n; ++k) {
    prefetch_entries(refs, k + 4 * step, n);
    for (int stage = 0; stage < 3; ++stage) {
      const std::size_t j = k + (3 - stage) * step;
      if (j >= n) continue;
      const std::size_t a = index(refs[2 * j]), d = index(refs[2 * j + 1]);
      if (a >= nodes_.size() || d >= nodes_.size()) continue;
      if (stage == 0) {
        __builtin_prefetch(nodes_[a].node);
        __builtin_prefetch(nodes_[d].node);
      }
      IoAccess::prefetch_hash(m_, Shape::cons_hash(nodes_[a].id, nodes_[d].id), stage);
    }
    Sexp_* c = IoAccess::cons(m_, node(refs[2 * k]), node(refs[2 * k + 1]));
    nodes_.push_back({c, c->id});  // reserved: cannot throw
    if (hold_) c->add_ref();
  }
}

std::vector<Sexp> Builder::roots(const std::uint32_t* refs, std::size_t n) const {
  std::vector<Sexp> out;
  out.reserve(n);
  for (std::size_t i = 0; i < n; ++i) out.emplace_back(node(refs[i]));
  return out;
}

}  // namespace vorn::detail
