// Pattern variables.
#include "vorn/rewrite/variables.hpp"

#include <unordered_set>

namespace vorn {

bool is_variable(const SexpManager& m, const Sexp_* node) noexcept {
  if (node->is_symbol == 0) return false;
  const char* name = m.get_symbol_value(node->value);
  return name != nullptr && name[0] == '?';
}

// Each distinct node is entered once, so a shared subexpression costs once however many
// paths lead to it.
std::vector<Sexp> variables_of(const SexpManager& m, const Sexp& e) {
  std::vector<Sexp> vars;
  std::unordered_set<std::uint64_t> values;   // of the variables found
  std::unordered_set<const Sexp_*> entered;  // conses
  std::vector<const Sexp_*> todo{e.get()};   // nodes held by e
  while (!todo.empty()) {
    const Sexp_* n = todo.back();
    todo.pop_back();
    if (n->is_symbol == 0) {
      if (!entered.insert(n).second) continue;
      todo.push_back(n->cdr);
      todo.push_back(n->car);
    } else if (is_variable(m, n) && values.insert(n->value).second) {
      vars.push_back(Sexp(const_cast<Sexp_*>(n)));
    }
  }
  return vars;
}

}  // namespace vorn
