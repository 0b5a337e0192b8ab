// The rules a term can meet, found by the term's head.
#ifndef VORN_SRC_REWRITE_RULE_INDEX_HPP
#define VORN_SRC_REWRITE_RULE_INDEX_HPP

#include <cstdint>
#include <vector>

#include "pattern.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// For each term, the rules whose patterns can match its head, in rule order: a symbol
/// meets the rules for that symbol and the bare variables; a list headed by a symbol meets
/// the rules for lists with that head, those with a variable head and the bare variables;
/// a list headed by a list, those for such lists, those with a variable head and the bare
/// variables. The lists are laid out once, in one array; finding one is a look-up in a
/// small table keyed by symbol value.
class RuleIndex {
 public:
  struct Span {
    const std::uint32_t* begin;
    const std::uint32_t* end;
    std::uint32_t head;  // lists headed by a symbol that rules name: that symbol's number
  };

  /// No number: a span for no head symbol the rules name.
  static constexpr std::uint32_t no_head = UINT32_MAX;

  /// Head symbols the rules name, numbered from 0.
  std::uint32_t head_count() const noexcept { return head_count_; }

  /// Lays out the lists for the rules whose heads these are (one per rule, rule order).
  void build(const std::vector<PatternHead>& heads);

  /// The rules `term` can meet.
  Span candidates(const Sexp_* term) const noexcept {
    if (term->is_symbol != 0) return find(symbols_, symbol_shift_, term->value, for_symbols_);
    return list_candidates(term->car);
  }

  /// The rules a list whose first element is `head` can meet.
  Span list_candidates(const Sexp_* head) const noexcept {
    if (head->is_symbol != 0) return find(heads_, head_shift_, head->value, for_lists_);
    return for_list_heads_;
  }

 private:
  struct Entry {
    std::uint64_t value;
    Span rules;  // begin == null: a free entry
  };

  // Linear probing from the top bits of a Fibonacci hash.
  static std::size_t slot_of(std::uint64_t value, unsigned shift) noexcept {
    return static_cast<std::size_t>((value * 0x9E3779B97F4A7C15ull) >> shift);
  }
  static Span find(const std::vector<Entry>& table, unsigned shift, std::uint64_t value,
                   Span otherwise) noexcept {
    if (table.empty()) return otherwise;
    const std::size_t mask = table.size() - 1;
    for (std::size_t i = slot_of(value, shift);; i = (i + 1) & mask) {
      const Entry& e = table[i];
      if (e.rules.begin == nullptr) return otherwise;
      if (e.value == value) return e.rules;
    }
  }

  std::vector<std::uint32_t> lists_;
  std::vector<Entry> symbols_, heads_;  // keyed by a symbol's value, by a list head's value
  unsigned symbol_shift_ = 64, head_shift_ = 64;
  Span for_symbols_{nullptr, nullptr, no_head}, for_lists_{nullptr, nullptr, no_head},
      for_list_heads_{nullptr, nullptr, no_head};  // terms no key names
  std::uint32_t head_count_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_RULE_INDEX_HPP
