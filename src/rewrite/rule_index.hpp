// The rules a term can meet, found by the term's head and one of its elements.
#ifndef VORN_SRC_REWRITE_RULE_INDEX_HPP
#define VORN_SRC_REWRITE_RULE_INDEX_HPP

#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "pattern.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// For each term, the rules whose patterns can match it as far as its head and one of its
/// elements tell, in rule order.
///
/// By head: a symbol meets the rules for that symbol and the bare variables; a list headed
/// by a symbol meets the rules for lists with that head, those with a variable head and
/// the bare variables; a list headed by a list, those for such lists, those with a
/// variable head and the bare variables. Then, for a list headed by a symbol, by one
/// element: where the rules for that head ask for particular symbols, or lists with
/// particular heads, at one of the first three elements after the head, the position that
/// splits them best is chosen, and a list meets only the rules that ask for what it has
/// there, and those that ask for nothing there (see ElementKey); the rules so met may be
/// split again by another of those elements.
///
/// The lists are laid out once, in one array; finding one is a look-up in a small table
/// keyed by symbol value, and for the element one more.
class RuleIndex {
 public:
  struct Refinement;

  struct Span {
    const std::uint32_t* begin;
    const std::uint32_t* end;
    std::uint32_t head;            // lists headed by a symbol the rules name: its number
    const Refinement* refinement;  // how the element splits these rules further, or null
  };

  /// No number: a span for no head symbol the rules name.
  static constexpr std::uint32_t no_head = UINT32_MAX;

  /// Head symbols the rules name, numbered from 0.
  std::uint32_t head_count() const noexcept { return head_count_; }

  /// Lays out the lists for the rules whose heads these are (one per rule, rule order).
  void build(const std::vector<PatternHead>& heads);

  /// The rules `term` can meet by its head (a list's: see refine()).
  Span candidates(const Sexp_* term) const noexcept {
    if (term->is_symbol != 0) return find(symbols_, symbol_shift_, term->value, 0, for_symbols_);
    return list_candidates(term->car);
  }

  /// The rules a list whose first element is `head` can meet by its head.
  Span list_candidates(const Sexp_* head) const noexcept {
    if (head->is_symbol != 0) return find(heads_, head_shift_, head->value, 0, for_lists_);
    return for_list_heads_;
  }

  /// The element of a list with these candidates that refine() wants (1: the first after
  /// the head), or 0 for none.
  static std::size_t refining_position(const Span& s) noexcept {
    return s.refinement != nullptr ? s.refinement->position : 0;
  }

  /// candidates() narrowed by refine() for a made term: all the index can tell of it.
  Span all_candidates(const Sexp_* term) const noexcept {
    Span s = candidates(term);
    while (s.refinement != nullptr) {
      const Sexp_* cell = term;
      for (std::size_t k = 0; k < s.refinement->position && cell->is_symbol == 0; ++k) cell = cell->cdr;
      s = refine(s, cell->is_symbol == 0 ? cell->car : nullptr);
    }
    return s;
  }

  /// The candidates narrowed by the list's element at refining_position(s), or by its lack
  /// of one (null).
  Span refine(const Span& s, const Sexp_* element) const noexcept {
    const Refinement& r = *s.refinement;
    Span out = r.otherwise;
    if (element != nullptr) {
      if (element->is_symbol != 0) {
        out = find(r.table, r.shift, element->value, ElementKey::symbol, r.otherwise);
      } else if (element->car->is_symbol != 0) {
        out = find(r.table, r.shift, element->car->value, ElementKey::headed, r.otherwise);
      }
    }
    out.head = s.head;
    return out;
  }

 private:
  struct Entry {
    std::uint64_t value;
    ElementKey::Kind kind;
    Span rules;  // begin == null: a free entry
  };

 public:
  struct Refinement {
    std::size_t position;
    std::vector<Entry> table;  // by what the element is (kind, value)
    unsigned shift = 64;
    Span otherwise;            // the rules that ask for nothing there
  };

 private:
  // Linear probing from the top bits of a Fibonacci hash of the value and kind.
  static std::size_t slot_of(std::uint64_t value, unsigned kind, unsigned shift) noexcept {
    return static_cast<std::size_t>(((value + kind) * 0x9E3779B97F4A7C15ull) >> shift);
  }
  static Span find(const std::vector<Entry>& table, unsigned shift, std::uint64_t value,
                   unsigned kind, Span otherwise) noexcept {
    if (table.empty()) return otherwise;
    const std::size_t mask = table.size() - 1;
    for (std::size_t i = slot_of(value, kind, shift);; i = (i + 1) & mask) {
      const Entry& e = table[i];
      if (e.rules.begin == nullptr) return otherwise;
      if (e.value == value && e.kind == kind) return e.rules;
    }
  }

  std::vector<std::uint32_t> lists_;
  std::vector<Entry> symbols_, heads_;  // keyed by a symbol's value, by a list head's value
  unsigned symbol_shift_ = 64, head_shift_ = 64;
  Span for_symbols_{nullptr, nullptr, no_head, nullptr}, for_lists_{nullptr, nullptr, no_head, nullptr},
      for_list_heads_{nullptr, nullptr, no_head, nullptr};  // terms no key names
  std::vector<std::unique_ptr<Refinement>> refinements_;
  std::uint32_t head_count_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_RULE_INDEX_HPP
