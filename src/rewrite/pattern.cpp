// Compiling patterns into matching code.
#include "pattern.hpp"

#include <unordered_map>
#include <utility>

namespace vorn::detail {

PatternCode::PatternCode(const Sexp_* pattern, const std::function<bool(const Sexp_*)>& is_var) {
  const auto var_here = [&is_var](const Sexp_* n) { return n->is_symbol != 0 && is_var(n); };
  if (var_here(pattern)) {
    head_.kind = PatternHead::anything;
  } else if (pattern->is_symbol != 0) {
    head_.kind = PatternHead::symbol;
    head_.value = pattern->value;
  } else if (pattern->car->is_symbol == 0) {
    head_.kind = PatternHead::list_list;
  } else if (var_here(pattern->car)) {
    head_.kind = PatternHead::any_list;
  } else {
    head_.kind = PatternHead::headed_list;
    head_.value = pattern->car->value;
  }

  if (pattern->is_symbol == 0) {
    const Sexp_* cell = pattern->cdr;
    for (ElementKey& key : head_.elements) {
      if (cell->is_symbol != 0) break;  // the spine ends (or a variable takes the rest)
      const Sexp_* e = cell->car;
      if (e->is_symbol != 0 && !var_here(e)) {
        key = {ElementKey::symbol, e->value};
      } else if (e->is_symbol == 0 && e->car->is_symbol != 0 && !var_here(e->car)) {
        key = {ElementKey::headed, e->car->value};
      }
      cell = cell->cdr;
    }
  }

  // Pre-order, car side first: (pattern node, its register). A list ending in nil has the
  // cells of its spine checked first, then its elements in order, each in pre-order: the
  // variables meet their occurrences in the same order, and a list not made yet can skip
  // the spine's code (see run_unmade).
  std::vector<std::pair<const Sexp_*, std::uint32_t>> todo;
  std::unordered_map<std::uint64_t, std::uint32_t> slots;  // variable value -> its slot
  const auto emit = [this](Op op, std::uint32_t reg, std::uint32_t arg, std::uint64_t value) {
    code_.push_back(Instr{value, reg, (arg << 2) | op});
  };
  const auto compile = [&]() {
    while (!todo.empty()) {
      const auto [n, reg] = todo.back();
      todo.pop_back();
      if (var_here(n)) {
        const auto known = slots.emplace(n->value, static_cast<std::uint32_t>(variables_.size()));
        if (known.second) {
          variables_.push_back(n->value);
          // Register 0 is the term; a cons puts its car in an odd register, its cdr in the next.
          places_.push_back(reg == 0       ? BindingPlace::root
                            : reg % 2 == 1 ? BindingPlace::car
                                           : BindingPlace::cdr);
        }
        emit(known.second ? bind : same, reg, known.first->second, 0);
        if (reg % 2 == 0) needs_node_ = true;  // the whole term, or a cdr
      } else if (n->is_symbol != 0) {
        // The index has checked the head symbol of a headed_list pattern already.
        if (!(reg == 1 && head_.kind == PatternHead::headed_list)) emit(symbol, reg, 0, n->value);
      } else {
        const std::uint32_t car = registers_;
        registers_ += 2;
        emit(cons, reg, car, 0);
        todo.emplace_back(n->cdr, car + 1);
        todo.emplace_back(n->car, car);
      }
    }
  };
  const Sexp_* end = pattern;
  while (end->is_symbol == 0) end = end->cdr;
  if (pattern->is_symbol != 0 || end->value != 0 || var_here(end)) {
    todo.emplace_back(pattern, 0);
    compile();
    return;
  }
  std::uint32_t reg = 0;
  for (const Sexp_* cell = pattern; cell->is_symbol == 0; cell = cell->cdr) {
    const std::uint32_t car = registers_;
    registers_ += 2;
    emit(cons, reg, car, 0);
    element_registers_.push_back(car);
    reg = car + 1;
  }
  emit(symbol, reg, 0, 0);
  element_code_ = code_.size();
  std::size_t k = 0;
  for (const Sexp_* cell = pattern; cell->is_symbol == 0; cell = cell->cdr) {
    todo.emplace_back(cell->car, element_registers_[k++]);
    compile();
  }
}

}  // namespace vorn::detail
