// Matching patterns with variables against expressions.
#include "vorn/expr/matcher.hpp"

namespace vorn {

SexpMatcher::SexpMatcher(const std::vector<Sexp>& variables) {
  for (const Sexp& v : variables) add_var(v);
}

SexpMatcher::~SexpMatcher() { release_stack(); }

// Pops from the top: each pair releases its expression side, then its pattern side.
void SexpMatcher::release_stack() noexcept {
  while (!stack.empty()) stack.pop_back();
}

void SexpMatcher::add_var(const Sexp& v) {
  assert(!v.is_null() && "add_var of a null handle");
  assert(v.is_symbol() && "add_var of a cons: only symbols are variables");
  vars.insert(v.get()->value);
}

Sexp SexpMatcher::get(const Sexp& key) const {
  assert(!key.is_null() && "get with a null key");
  const Bindings::Node* entry = bindings.find(key);
  return entry != nullptr ? entry->entry.second : Sexp();
}

void SexpMatcher::put(const Sexp& key, const Sexp& expr) {
  assert(!key.is_null() && "put with a null key");
  bindings.find_or_insert(key).first->entry.second = expr;
}

void SexpMatcher::erase(const Sexp& key) {
  assert(!key.is_null() && "erase with a null key");
  bindings.erase(key);
}

// A cons pattern whose head is a symbol that is no variable can only match an
// expression with the same head symbol; checking that first spares the stack.
bool SexpMatcher::heads_differ(const Sexp_* pattern, const Sexp_* expr) {
  if (pattern->is_symbol != 0) return false;
  if (expr->is_symbol != 0) return true;
  const Sexp_* head = pattern->car;
  if (head->is_symbol == 0 || is_var(head)) return false;
  return expr->car->is_symbol == 0 || expr->car->value != head->value;
}

bool SexpMatcher::match(const Sexp& pattern, const Sexp& expr) {
  assert(!pattern.is_null() && !expr.is_null() && "match of a null handle");
  bindings.clear();
  if (heads_differ(pattern.get(), expr.get())) return false;
  release_stack();
  stack.emplace_back(pattern, expr);
  while (!stack.empty()) {
    // Read the top pair and drop it. The nodes stay alive without a reference of our
    // own: the caller's handles hold both roots, and every node below a root is held
    // by its parent for the whole call.
    Sexp_* p = stack.back().first.get();
    Sexp_* e = stack.back().second.get();
    stack.pop_back();

    if (is_var(p)) {
      auto bound = bindings.find_or_insert(Sexp(p));
      if (bound.second) {
        bound.first->entry.second = Sexp(e);
      } else if (bound.first->entry.second.get()->id != e->id) {
        return false;
      }
      continue;
    }
    if (p->is_symbol != e->is_symbol) return false;
    if (p->is_symbol != 0) {
      if (p->value != e->value) return false;
      continue;
    }
    stack.emplace_back(p->cdr, e->cdr);
    stack.emplace_back(p->car, e->car);
  }
  return true;
}

std::uint64_t SexpMatcher::match(const std::vector<Sexp>& patterns, const Sexp& expr) {
  for (std::size_t i = 0; i < patterns.size(); ++i) {
    if (match(patterns[i], expr)) return i;
  }
  return patterns.size();
}

}  // namespace vorn
