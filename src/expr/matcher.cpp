// Matching patterns with variables against expressions.
#include "vorn/expr/matcher.hpp"

namespace vorn {

SexpMatcher::SexpMatcher(const std::vector<Sexp>& variables) {
  for (const Sexp& v : variables) add_var(v);
}

SexpMatcher::~SexpMatcher() { release_stack(); }

// Pops from the top: each pair releases its expression side, then its pattern side.
void SexpMatcher::release_stack() noexcept {
  for (; !stack.empty(); stack.pop_back()) {
    if (!stack_owns) continue;
    stack.back().second.get()->release();
    stack.back().first.get()->release();
  }
  stack_owns = false;
}

void SexpMatcher::add_var(const Sexp& v) {
  assert(!v.is_null() && "add_var of a null handle");
  assert(v.is_symbol() && "add_var of a cons: only symbols are variables");
  vars.insert(v.get()->value);
  var_filter |= std::uint64_t{1} << (v.get()->value & 63);
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
bool SexpMatcher::heads_differ(const Sexp_* pattern, const Sexp_* expr) const {
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
  bool matched;
  try {
    matched = walk(pattern.get(), expr.get());
  } catch (...) {
    own_stack();
    throw;
  }
  own_stack();
  return matched;
}

// How the stack is kept during a walk. The pairs the walk pushes borrow their nodes: every
// node they name is held by its parent, up to the two roots the caller holds, for the whole
// call. When the call ends with pairs left on the stack (a mismatch or an exception),
// own_stack() gives each of them its two references, so that the stack then holds exactly
// the references that pushing and popping counted pairs would have left. In between,
// nothing outside the call can look at a count, so only the add/release traffic of the
// pairs the walk consumed is saved.
void SexpMatcher::push_borrowed(Sexp_* pattern, Sexp_* expr) {
  stack.emplace_back(detail::SexpRef::borrow(pattern), detail::SexpRef::borrow(expr));
}

void SexpMatcher::own_stack() noexcept {
  for (const Pair& pair : stack) pair.first.own(), pair.second.own();
  stack_owns = true;
}

bool SexpMatcher::walk(Sexp_* pattern, Sexp_* expr) {
  push_borrowed(pattern, expr);
  while (!stack.empty()) {
    Sexp_* p = stack.back().first.get();
    Sexp_* e = stack.back().second.get();
    stack.pop_back();

    if (is_var(p)) {
      // A new entry's key and value take their own references, as put() would.
      auto bound = bindings.find_or_insert(detail::SexpRef::borrow(p).handle());
      if (bound.second) {
        bound.first->entry.second = detail::SexpRef::borrow(e).handle();
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
    push_borrowed(p->cdr, e->cdr);
    push_borrowed(p->car, e->car);
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
