// SexpManager: construction, symbol names and shared nodes.
#include "vorn/expr/manager.hpp"

#include <cstdlib>
#include <cstring>

namespace vorn {

namespace {

class NodeIdsExhausted final : public std::bad_alloc {
 public:
  const char* what() const noexcept override {
    return "vorn: node ids exhausted: this manager has made 2^32 nodes";
  }
};

}  // namespace

void SexpManager::throw_ids_exhausted() { throw NodeIdsExhausted(); }

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
  // The name is hashed once and serves both the look-up and the insertion.
  const std::uint64_t h = hsh::hash<char*>()(name);
  auto known = symbol_table.find_hashed(
      h, [name](const std::pair<const char*, unsigned long>& e) { return CStr_eq()(e.first, name); });
  if (known != symbol_table.end()) return known->second;

  const std::size_t len = std::strlen(name);
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

Sexp& SexpManager::strhash(Sexp& s) {
  Sexp_* fresh = s.node;
  auto found = shared_table.find(fresh);
  if (found != shared_table.end()) {
    Sexp_* canonical = *found;
    --next_id;  // fresh was the last node made: its id is handed out again next
    canonical->add_ref();
    s.node = canonical;
    fresh->release();  // its slot becomes the next one handed out
    return s;
  }
  // The table's reference is taken first: if the insert fails the node stays alive,
  // keeping its slot and its children, rather than leaving the table a dangling entry.
  fresh->add_ref();
  shared_table.insert(fresh);
  return s;
}

// sh_cons and sh_sym have the effects of "make the node as cons/sym would, then
// strhash it", with fewer steps: the shape is looked up before any node exists, so a
// hit makes no node and moves no count but the result's. Every observable effect is
// the same: a hit still needs a slot (a full pool takes its next chunk, as the
// discarded node would have made it do) and a usable id (exhausted ids still throw);
// the free list, the id counter and the children's counts end as the discarded node
// would have left them; on a miss the node takes the next id and slot, and if entering
// it in the table fails it keeps one reference (the table's) and stays alive.
void SexpManager::reserve_node() {
  if (next_id == 0 && nil_node != nullptr) throw_ids_exhausted();
  if (!sexp_pool.has_free_slot()) sexp_pool.deallocate(sexp_pool.allocate());
}

Sexp SexpManager::enter_canonical(Sexp_* fresh, std::uint64_t h) {
  shared_table.insert_absent(h, fresh);  // on failure `fresh` keeps the table's reference
  fresh->add_ref();                      // the caller's
  return Sexp(fresh, Sexp::Adopt{});
}

Sexp SexpManager::sh_cons(const Sexp& car, const Sexp& cdr) {
  assert(!car.is_null() && !cdr.is_null() && "sh_cons of a null handle");
  Sexp_* a = car.get();
  Sexp_* d = cdr.get();
  reserve_node();
  const std::uint64_t h = (static_cast<std::uint64_t>(a->id) << 24) + d->id;
  auto found = shared_table.find_hashed(h, [a, d](const Sexp_* n) {
    return n->is_symbol == 0 && n->car->id == a->id && n->cdr->id == d->id;
  });
  if (found != shared_table.end()) return Sexp(*found);
  Sexp_* n = alloc_sexp();
  n->is_symbol = 0;
  a->add_ref();
  n->car = a;
  d->add_ref();
  n->cdr = d;
  return enter_canonical(n, h);
}

Sexp SexpManager::sh_sym(unsigned long value) {
  reserve_node();
  auto found = shared_table.find_hashed(
      value, [value](const Sexp_* n) { return n->is_symbol != 0 && n->value == value; });
  if (found != shared_table.end()) return Sexp(*found);
  Sexp_* n = alloc_sexp();
  n->value = value;
  return enter_canonical(n, value);
}

}  // namespace vorn
