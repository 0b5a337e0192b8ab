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
  // The name is measured and hashed once, for the look-up, the copy and the insertion.
  std::size_t len;
  const std::uint64_t h = hsh::hash<char*>::of(name, len);
  const auto* known = symbol_table.find_item(
      h, [name](const auto& entry) { return CStr_eq()(entry.first, name); });
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
    --next_id;  // fresh was the last node made: its id is handed out again next
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
  shared_table.insert(fresh);
  return s;
}

// A hit of sh_cons or sh_sym makes no node, yet it must fail where making the discarded
// node would have failed, and leave the pool as that node would have: with a chunk taken.
void SexpManager::take_node_chunk() { sexp_pool.deallocate(sexp_pool.allocate()); }

// On a miss the node takes the next id and slot. If entering it in the table fails, it
// keeps one reference (the table's) and stays alive, as strhash's miss would leave it.
Sexp SexpManager::enter_canonical(Sexp_* fresh, std::uint64_t h) {
  shared_table.insert_absent(h, fresh);  // on failure `fresh` keeps the table's reference
  fresh->add_ref();                      // the caller's
  return Sexp(fresh, Sexp::Adopt{});
}

Sexp SexpManager::enter_cons(Sexp_* a, Sexp_* d, std::uint64_t h) {
  Sexp_* n = alloc_sexp();
  n->make_fresh_cons();
  a->add_ref();
  n->car = a;
  d->add_ref();
  n->cdr = d;
  check_children(n);
  return enter_canonical(n, h);
}

Sexp SexpManager::enter_symbol(unsigned long value) {
  Sexp_* n = alloc_sexp();
  n->value = value;
  return enter_canonical(n, value);
}

namespace detail {
void note_foreign_child(SexpManager* m) noexcept {
  if (m != nullptr) m->child_ids_are_identities = false;
}
}  // namespace detail

}  // namespace vorn
