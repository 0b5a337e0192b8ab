// SexpManager: construction, symbol names and shared nodes.
#include "vorn/expr/manager.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dismantle.hpp"

namespace vorn {

namespace {

class NodeIdsExhausted final : public std::bad_alloc {
 public:
  const char* what() const noexcept override {
    return "vorn: node ids exhausted: every one of the 2^32 ids is in use";
  }
};

}  // namespace

void SexpManager::throw_ids_exhausted() { throw NodeIdsExhausted(); }

// Reached when id_counter == id_stop. Skips the run of snapshot ids starting at id_counter; at
// the counter's end takes a new snapshot first. Throws only where no id is free, or where
// a snapshot cannot be allocated; then the counter is put back where it was, with a
// note that it stands at its end (the spent snapshot is gone), so the next call comes
// back here and hands out exactly the id this one would have.
void SexpManager::skip_live_ids() {
  if (nil_node == nullptr) return;  // the constructor: nil takes id 0
  const std::uint32_t start = id_counter;
  if (snapshot_lost) id_counter = 0;
  try {
    for (bool fresh_snapshot = false;;) {
      if (id_counter == 0 && live_at == live_ids.size()) {  // every id has been handed out
        if (fresh_snapshot) throw_ids_exhausted();       // and every one is in use
        take_live_ids();
        fresh_snapshot = true;
      }
      while (live_at < live_ids.size() && live_ids[live_at] == id_counter) ++id_counter, ++live_at;
      if (id_counter != 0 || live_at != live_ids.size()) break;
    }
  } catch (...) {
    std::vector<std::uint32_t>().swap(live_ids);
    live_at = 0;
    id_counter = id_stop = start;
    snapshot_lost = true;
    throw;
  }
  snapshot_lost = false;
  id_stop = live_at < live_ids.size() ? live_ids[live_at] : 0;
}

// The ids of every node in the pool, sorted and without repeats (strhash can leave two
// live nodes with one id). The spent snapshot is freed first, so at most one is held: one
// allocation of 4 bytes per live node. If that fails, nothing else has changed and the
// counter is still at its end, so the next node made tries again.
void SexpManager::take_live_ids() {
  std::vector<std::uint32_t>().swap(live_ids);
  live_at = 0;
  std::vector<std::uint32_t> ids;
  ids.reserve(sexp_pool.slots_in_use());
  // A node's second word is its manager, never the address of the pool (a member of it).
  sexp_pool.for_each_in_use([&ids](void* slot) { ids.push_back(static_cast<Sexp_*>(slot)->id); });
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  live_ids.swap(ids);
}

std::size_t SexpManager::collect() noexcept {
  // The common answer first: no canonical node is held by the table alone.
  if (!shared_table.any_of([](const Sexp_* n) { return n->refcount == 1; })) return 0;

  // Nodes that died, in the order they died, linked through their free `car` words. Their
  // slots stay taken until the table no longer names them: the sweep below reads counts.
  Sexp_* dead = nullptr;
  Sexp_** dead_end = &dead;
  const auto died = [&dead_end](Sexp_* n) {
    *dead_end = n;
    dead_end = &n->car;
  };
  // Dropping the table's hold on every entry first would find the same dead nodes; doing
  // it in the sweep lets a cascade reach a canonical node the sweep has not dropped yet,
  // which then dies when the sweep gets to it (it still has the table's hold till then).
  shared_table.for_each([&died](Sexp_* n) {
    if (detail::drop(n)) detail::dismantle(n, died);
  });
  *dead_end = nullptr;
  shared_table.remove_if([](Sexp_* n) {
    if (n->refcount == 0) return true;
    n->add_ref();  // the table's hold, back
    return false;
  });
  std::size_t freed = 0;
  while (dead != nullptr) {
    Sexp_* next = dead->car;
    dead->mgr->sexp_pool.deallocate(dead);
    dead = next;
    ++freed;
  }
  return freed;
}

// Grows anyway when at least half of the growth point is still held after collecting:
// the next collection then waits for the next growth point, so inserts pay for it. A
// growth that fails is tried again by the next insert, without collecting again.
//
// Looking for a node to give back reads every entry's count, a pass over the table as long
// as the growth's own. So when the last look found every entry held (as while a host
// builds), the growth comes first and looks at each count as it hashes the entry, where
// the node is in the cache already. Only if it saw an unheld node does the collection run,
// on the grown table, and if less than half the growth point is then held the table goes
// back to its old bucket array, kept for that. Either way the same nodes are given back and
// the table ends with the same bucket count as collecting first; only the order in which
// slots and chain nodes come back follows the sweep of the grown table instead. A growth
// that fails there has collected nothing and changed nothing; the next insert tries again.
void SexpManager::collect_before_growth() {
  if (shared_table.grows_on_next_insert() && all_held_at_last_look) {
    const std::uint64_t old_growth_point = shared_table.growth_point();
    SharedTable::BucketArray old;
    collect_at = shared_table.size();  // if the growth fails, the next insert tries it again
    const std::size_t unheld = shared_table.rehash_counting(
        shared_table.bucket_count() + 1, [](const Sexp_* n) { return n->refcount == 1; }, old);
    if (unheld != 0) {
      collect();
      all_held_at_last_look = false;
      if (shared_table.size() < old_growth_point / 2) shared_table.return_to(old);
    }
    collect_at = shared_table.growth_point();
    return;
  }
  if (shared_table.grows_on_next_insert()) all_held_at_last_look = collect() == 0;
  if (shared_table.size() >= shared_table.growth_point() / 2) {
    collect_at = shared_table.size();
    shared_table.rehash(shared_table.bucket_count() + 1);
  }
  collect_at = shared_table.growth_point();
}

SexpManager::SexpManager() {
  try {
    nil_node = alloc_sexp();  // id 0; takes the node pool's first chunk
    nil_node->is_symbol = 1;
    nil_node->value = make_symbol("");  // always symbol id 0
    nil_node->add_ref();                // the shared table's reference
    shared_table.insert(nil_node);
  } catch (...) {
    // Members are destroyed by the language; the name copies are ours to free.
    free_names();
    throw;
  }
}

SexpManager::~SexpManager() {
  symbol_table.clear();
  free_names();
}

void SexpManager::free_names() noexcept {
  for (char* name : symbol_names) std::free(name);
}

unsigned long SexpManager::make_symbol(const char* name) {
  // The name is measured and hashed once, for the look-up, the copy and the insertion.
  std::size_t len;
  const std::uint64_t h = hsh::hash<char*>::of(name, len);
  return intern_symbol(name, len, h);
}

unsigned long SexpManager::intern_symbol(const char* name, std::size_t len, std::uint64_t h) {
  // Equal to CStr_eq on the terminated name: strncmp stops at the stored copy's NUL, and a
  // stored copy that matches all `len` bytes is the name only if it ends there.
  const auto* known = symbol_table.find_item(h, [name, len](const auto& entry) {
    return (len == 0 || entry.first[0] == name[0]) && std::strncmp(entry.first, name, len) == 0 &&
           entry.first[len] == '\0';
  });
  if (known != nullptr) return known->second;

  auto* copy = static_cast<char*>(std::malloc(len + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, name, len);
  copy[len] = '\0';

  const unsigned long id = symbol_names.size();
  try {
    symbol_names.push_back(copy);
  } catch (...) {
    std::free(copy);  // not yet owned by symbol_names: nothing changed
    throw;
  }
  // If this throws, the name keeps its slot in symbol_names (freed with the manager)
  // but is not in the table, so interning it again gives a new id.
  symbol_table.insert_absent(h, {copy, id});
  return id;
}

std::uint64_t SexpManager::make_string(std::string_view content) {
  if (strings == nullptr) strings = std::make_unique<StringTable>();
  return string_tag | strings->intern(content);
}

Sexp& SexpManager::strhash(Sexp& s) {
  Sexp_* fresh = s.node;
  auto found = shared_table.find(fresh);
  if (found != shared_table.end()) {
    Sexp_* canonical = *found;
    --id_counter;  // fresh was the last node made: its id is handed out again next
    --ids_handed_out_count;
    // If another handle keeps fresh alive, two live nodes will share that id.
    if (fresh->refcount != 1) child_ids_are_identities = false;
    canonical->add_ref();
    s.node = canonical;
    fresh->release();  // its slot becomes the next one handed out
    return s;
  }
  if (fresh->is_symbol == 0) check_children(fresh);
  // The table's reference is taken first: if the insert fails the node stays alive,
  // keeping its slot and its children, rather than leaving the table a dangling entry.
  fresh->add_ref();
  before_shared_insert();
  shared_table.insert(fresh);
  return s;
}

// A hit of sh_cons or sh_sym makes no node, yet it must fail where making the discarded
// node would have failed, and leave the pool as that node would have: with a chunk taken.
void SexpManager::take_node_chunk() { sexp_pool.deallocate(sexp_pool.allocate()); }

// On a miss the node takes the next id and slot. If entering it in the table fails, it
// keeps one reference (the table's) and stays alive, as strhash's miss would leave it.
Sexp_* SexpManager::enter_canonical(Sexp_* fresh, std::uint64_t h) {
  shared_table.insert_absent(h, fresh);  // on failure `fresh` keeps the table's reference
  return fresh;
}

// In automatic mode a collection comes before the node is made, so it may take a slot just
// given back; the shape is still absent (collecting only removes).
Sexp_* SexpManager::enter_cons(Sexp_* a, Sexp_* d, std::uint64_t h) {
  before_shared_insert();
  Sexp_* n = alloc_sexp();
  n->make_fresh_cons();
  a->add_ref();
  n->car = a;
  d->add_ref();
  n->cdr = d;
  check_children(n);
  return enter_canonical(n, h);
}

Sexp_* SexpManager::enter_symbol(unsigned long value) {
  before_shared_insert();
  Sexp_* n = alloc_sexp();
  n->value = value;
  return enter_canonical(n, detail::Shape::symbol_hash(value));
}

namespace detail {
void note_foreign_child(SexpManager* m) noexcept {
  if (m != nullptr) m->child_ids_are_identities = false;
}
}  // namespace detail

}  // namespace vorn
