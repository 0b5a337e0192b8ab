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
  auto known = symbol_table.find(name);
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
  symbol_table.insert({copy, id});
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

Sexp SexpManager::sh_cons(const Sexp& car, const Sexp& cdr) {
  Sexp made = cons(car, cdr);
  strhash(made);
  return made;
}

Sexp SexpManager::sh_sym(unsigned long value) {
  Sexp made = sym(value);
  strhash(made);
  return made;
}

}  // namespace vorn
