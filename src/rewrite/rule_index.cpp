// Laying out the rule lists of the index.
#include "rule_index.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

namespace vorn::detail {

void RuleIndex::build(const std::vector<PatternHead>& heads) {
  // Rules every term of a class meets, and the rules of each key, in rule order.
  std::vector<std::uint32_t> any, any_list, list_list;
  std::map<std::uint64_t, std::vector<std::uint32_t>> by_symbol, by_head;
  for (std::uint32_t i = 0; i < heads.size(); ++i) {
    switch (heads[i].kind) {
      case PatternHead::anything: any.push_back(i); any_list.push_back(i); list_list.push_back(i); break;
      case PatternHead::any_list: any_list.push_back(i); list_list.push_back(i); break;
      case PatternHead::list_list: list_list.push_back(i); break;
      case PatternHead::symbol: by_symbol[heads[i].value].push_back(i); break;
      case PatternHead::headed_list: by_head[heads[i].value].push_back(i); break;
    }
  }

  // The lists are laid out as offsets first: spans point into lists_ once it has stopped
  // growing.
  using Range = std::pair<std::size_t, std::size_t>;
  lists_.clear();
  const auto add = [this](const std::vector<std::uint32_t>& rules) {
    const std::size_t begin = lists_.size();
    lists_.insert(lists_.end(), rules.begin(), rules.end());
    return Range{begin, lists_.size()};
  };
  const auto merged = [](const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    std::vector<std::uint32_t> out;
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
    return out;
  };

  // For some rules of one head symbol: the element position, among those not used yet,
  // that splits them best (the largest share of any one key smallest), with each key's
  // rules and the rest; each share split again the same way, as long as that helps.
  struct Split {
    std::size_t position = 0;
    std::map<std::pair<unsigned, std::uint64_t>, std::pair<Range, std::unique_ptr<Split>>> keyed;
    Range otherwise;
  };
  std::function<std::unique_ptr<Split>(const std::vector<std::uint32_t>&, unsigned)> split =
      [&](const std::vector<std::uint32_t>& rules, unsigned used) -> std::unique_ptr<Split> {
    std::size_t best_position = 0, best_largest = rules.size();
    std::map<std::pair<unsigned, std::uint64_t>, std::vector<std::uint32_t>> best_keyed;
    std::vector<std::uint32_t> best_rest;
    for (std::size_t p = 0; p < PatternHead::keyed_elements; ++p) {
      if ((used >> p & 1) != 0) continue;
      std::map<std::pair<unsigned, std::uint64_t>, std::vector<std::uint32_t>> keyed;
      std::vector<std::uint32_t> rest;
      for (std::uint32_t r : rules) {
        const ElementKey& k = heads[r].elements[p];
        if (heads[r].kind == PatternHead::anything || k.kind == ElementKey::any) {
          rest.push_back(r);
        } else {
          keyed[{k.kind, k.value}].push_back(r);
        }
      }
      std::size_t largest = rest.size();
      for (auto& [key, list] : keyed) {
        list = merged(list, rest);
        largest = std::max(largest, list.size());
      }
      if (keyed.empty() || largest >= best_largest) continue;
      best_position = p + 1, best_largest = largest;
      best_keyed = std::move(keyed), best_rest = std::move(rest);
    }
    if (best_position == 0) return nullptr;
    auto out = std::make_unique<Split>();
    out->position = best_position;
    for (const auto& [key, list] : best_keyed) {
      out->keyed[key] = {add(list), split(list, used | 1u << (best_position - 1))};
    }
    out->otherwise = add(best_rest);
    return out;
  };

  const Range symbols_at = add(any), lists_at = add(any_list), list_heads_at = add(list_list);
  std::vector<std::pair<std::uint64_t, Range>> symbol_keys;
  std::vector<std::tuple<std::uint64_t, Range, std::unique_ptr<Split>>> head_keys;
  for (const auto& [value, rules] : by_symbol) symbol_keys.emplace_back(value, add(merged(any, rules)));
  for (const auto& [value, rules] : by_head) {
    const std::vector<std::uint32_t> all = merged(any_list, rules);
    const Range at = add(all);
    head_keys.emplace_back(value, at, split(all, 0));
  }

  const auto span = [this](Range at) {
    return Span{lists_.data() + at.first, lists_.data() + at.second, no_head, nullptr};
  };
  for_symbols_ = span(symbols_at);
  for_lists_ = span(lists_at);
  for_list_heads_ = span(list_heads_at);
  const auto table_for = [](std::vector<Entry>& table, unsigned& shift, std::size_t keys) {
    table.clear();
    shift = 64;
    if (keys == 0) return;
    std::size_t capacity = 2;
    while (capacity < 2 * keys) capacity *= 2;
    table.assign(capacity, Entry{0, ElementKey::any, Span{nullptr, nullptr, no_head, nullptr}});
    shift = 64 - static_cast<unsigned>(__builtin_ctzll(capacity));
  };
  const auto put = [](std::vector<Entry>& table, unsigned shift, std::uint64_t value,
                      ElementKey::Kind kind, Span rules) {
    std::size_t i = slot_of(value, kind, shift);
    while (table[i].rules.begin != nullptr) i = (i + 1) & (table.size() - 1);
    table[i] = Entry{value, kind, rules};
  };
  table_for(symbols_, symbol_shift_, symbol_keys.size());
  for (const auto& [value, at] : symbol_keys) put(symbols_, symbol_shift_, value, ElementKey::any, span(at));
  table_for(heads_, head_shift_, head_keys.size());
  refinements_.clear();
  // The refinements of a split, deepest first; returns the one for `how`.
  std::function<const Refinement*(const Split&)> refinement_for = [&](const Split& how) {
    auto r = std::make_unique<Refinement>();
    r->position = how.position;
    table_for(r->table, r->shift, how.keyed.size());
    for (const auto& [key, sub] : how.keyed) {
      Span rules = span(sub.first);
      if (sub.second != nullptr) rules.refinement = refinement_for(*sub.second);
      put(r->table, r->shift, key.second, static_cast<ElementKey::Kind>(key.first), rules);
    }
    r->otherwise = span(how.otherwise);
    refinements_.push_back(std::move(r));
    return refinements_.back().get();
  };
  head_count_ = 0;
  for (const auto& [value, at, how] : head_keys) {
    Span s = span(at);
    s.head = head_count_++;
    if (how != nullptr) s.refinement = refinement_for(*how);
    put(heads_, head_shift_, value, ElementKey::any, s);
  }
}

}  // namespace vorn::detail
