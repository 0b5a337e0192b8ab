// Compiling patterns into matching code.
#include "pattern.hpp"

#include <unordered_map>
#include <utility>

namespace vorn::detail {

PatternCode::PatternCode(const Sexp_* pattern, const std::function<bool(const Sexp_*)>& is_var) {
  const auto var_here = [&is_var](const Sexp_* n) { return n->is_symbol != 0 && is_var(n); };
  if (var_here(pattern)) {
    head_ = {PatternHead::anything, 0};
  } else if (pattern->is_symbol != 0) {
    head_ = {PatternHead::symbol, pattern->value};
  } else if (pattern->car->is_symbol == 0) {
    head_ = {PatternHead::list_list, 0};
  } else if (var_here(pattern->car)) {
    head_ = {PatternHead::any_list, 0};
  } else {
    head_ = {PatternHead::headed_list, pattern->car->value};
  }

  // Pre-order, car side first: (pattern node, its register).
  std::vector<std::pair<const Sexp_*, std::uint32_t>> todo{{pattern, 0}};
  std::unordered_map<std::uint64_t, std::uint32_t> slots;  // variable value -> its slot
  const auto emit = [this](Op op, std::uint32_t reg, std::uint32_t arg, std::uint64_t value) {
    code_.push_back(Instr{value, reg, (arg << 2) | op});
  };
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
}

}  // namespace vorn::detail
