// A pattern compiled into a short program that matches it against terms.
#ifndef VORN_SRC_REWRITE_PATTERN_HPP
#define VORN_SRC_REWRITE_PATTERN_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// Where a variable of a pattern is bound, which says what is known of its binding once
/// the pattern has matched a term whose elements are in normal form.
enum class BindingPlace : std::uint8_t {
  car,   // the car of some cell: an element, at some depth, so in normal form
  cdr,   // the cdr of some cell: the rest of a spine (cars in normal form, the end too)
  root,  // the whole term: the term a rule matches is no normal form
};

/// What a pattern asks of one element of a list: the symbol of `value`, a list headed by
/// that symbol, or nothing the index can use (a variable, a list headed otherwise, no
/// element there).
struct ElementKey {
  enum Kind : std::uint8_t { any, symbol, headed };
  Kind kind = any;
  std::uint64_t value = 0;
};

/// What a pattern asks of the head of a term, and of the first elements after it, which
/// is all the rule index looks at.
struct PatternHead {
  enum Kind : std::uint8_t {
    anything,     // a variable: every term
    symbol,       // the symbol of `value`
    headed_list,  // a cons whose car is the symbol of `value`
    any_list,     // any cons (the pattern's car is a variable)
    list_list,    // a cons whose car is a cons
  };
  static constexpr std::size_t keyed_elements = 3;
  Kind kind = anything;
  std::uint64_t value = 0;
  ElementKey elements[keyed_elements];  // of a list pattern: elements 1, 2, 3 after the head
};

/// A pattern as straight-line code over a register file of node pointers: register 0 is
/// the term, and each instruction checks one pattern node against the register that
/// stands for its place in the term. Matching then needs no stack, no table and no
/// reference counting: the registers borrow nodes held by the term.
///
/// The code visits the pattern in pre-order, car side first, so variables are bound in
/// SexpMatcher's order: slot k is the k-th distinct variable met. Its verdict and its
/// bindings are SexpMatcher's: a variable binds on its first occurrence and must meet a
/// node of the same id at the others, other symbols must have equal values, conses must
/// meet conses. The check of a symbol head that the rule index already made (kind
/// headed_list) is left out, so the code may only run on terms of its head's bucket.
class PatternCode {
 public:
  enum Op : std::uint32_t {
    cons,    // reg is a cons: its car goes to register `arg`, its cdr to `arg + 1`
    symbol,  // reg is the symbol of `value`
    bind,    // slot `arg` := reg (the variable's first occurrence)
    same,    // reg has the id of slot `arg`
  };
  struct Instr {
    std::uint64_t value;
    std::uint32_t reg;
    std::uint32_t op_arg;  // op in the low 2 bits, arg above
  };

  /// Compiles `pattern`, whose variables are the symbol nodes for which is_var holds.
  /// Iterative: any depth.
  PatternCode(const Sexp_* pattern, const std::function<bool(const Sexp_*)>& is_var);

  /// Whether `term` matches; on true, slots[k] holds the binding of variable k. `regs`
  /// needs room for registers() pointers. The term must be in this pattern's bucket of
  /// the rule index (see the class comment).
  bool run(const Sexp_* term, const Sexp_** regs, Sexp_** slots) const noexcept {
    regs[0] = term;
    return execute<false>(0, nullptr, 0, regs, slots);
  }

  /// run() on a list that is not made yet: the elements `elements[0 .. count)` (count at
  /// least 1) ending in `elements[count]`, as sh_cons would make it. Only for patterns that
  /// bind no variable at the place of a spine cell (see needs_node()).
  bool run_unmade(Sexp_* const* elements, std::size_t count, const Sexp_** regs,
                  Sexp_** slots) const noexcept {
    if (!element_registers_.empty()) {  // a list ending in nil: its spine is the list's
      const Sexp_* end = elements[count];
      if (count != element_registers_.size() || end->is_symbol == 0 || end->value != 0) return false;
      for (std::size_t k = 0; k < count; ++k) regs[element_registers_[k]] = elements[k];
      return execute<false>(element_code_, nullptr, 0, regs, slots);
    }
    regs[0] = unmade_cell(0);
    return execute<true>(0, elements, count, regs, slots);
  }

  /// Whether a variable of the pattern stands where a cdr or the whole term is: such a
  /// pattern matches only made lists.
  bool needs_node() const noexcept { return needs_node_; }
  const PatternHead& head() const noexcept { return head_; }
  std::uint32_t registers() const noexcept { return registers_; }
  /// The value of each slot's variable, in slot order.
  const std::vector<std::uint64_t>& variables() const noexcept { return variables_; }
  /// Where each slot's variable is bound.
  const std::vector<BindingPlace>& places() const noexcept { return places_; }

 private:
  // Registers name the cells of an unmade list by their index, tagged in the low bit
  // (nodes are 32-byte aligned, so a node's address never has it).
  static const Sexp_* unmade_cell(std::size_t k) noexcept {
    return reinterpret_cast<const Sexp_*>((k << 1) | 1);
  }
  static bool is_unmade(const Sexp_* n) noexcept { return (reinterpret_cast<std::uintptr_t>(n) & 1) != 0; }

  template <bool Unmade>
  bool execute(std::size_t from, Sexp_* const* elements, std::size_t count, const Sexp_** regs,
               Sexp_** slots) const noexcept {
    for (auto it = code_.begin() + static_cast<std::ptrdiff_t>(from); it != code_.end(); ++it) {
      const Instr& in = *it;
      const Sexp_* n = regs[in.reg];
      const std::uint32_t arg = in.op_arg >> 2;
      switch (in.op_arg & 3) {
        case cons:
          if (Unmade && is_unmade(n)) {
            const std::size_t k = reinterpret_cast<std::uintptr_t>(n) >> 1;
            regs[arg] = elements[k];
            regs[arg + 1] = k + 1 < count ? unmade_cell(k + 1) : elements[count];
            break;
          }
          if (n->is_symbol != 0) return false;
          regs[arg] = n->car;
          regs[arg + 1] = n->cdr;
          break;
        case symbol:
          if ((Unmade && is_unmade(n)) || n->is_symbol == 0 || n->value != in.value) return false;
          break;
        case bind:
          slots[arg] = const_cast<Sexp_*>(n);
          break;
        default:  // same
          if (slots[arg]->id != n->id) return false;
          break;
      }
    }
    return true;
  }

  std::vector<Instr> code_;
  // For a list pattern ending in nil: the register of each element, and where the code
  // of the elements starts (the code before it checks the spine).
  std::vector<std::uint32_t> element_registers_;
  std::size_t element_code_ = 0;
  std::uint32_t registers_ = 1;
  std::vector<std::uint64_t> variables_;
  std::vector<BindingPlace> places_;
  PatternHead head_;
  bool needs_node_ = false;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_PATTERN_HPP
