// Laying out the rule lists of the index.
#include "rule_index.hpp"

#include <algorithm>
#include <iterator>
#include <map>

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

  // Offsets first: spans point into lists_ once it has stopped growing.
  lists_.clear();
  const auto add = [this](const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    const std::size_t begin = lists_.size();
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(lists_));
    return std::make_pair(begin, lists_.size());
  };
  const std::vector<std::uint32_t> none;
  const auto symbols_at = add(any, none), lists_at = add(any_list, none),
             list_heads_at = add(list_list, none);
  std::vector<std::pair<std::uint64_t, std::pair<std::size_t, std::size_t>>> symbol_keys, head_keys;
  for (const auto& [value, rules] : by_symbol) symbol_keys.emplace_back(value, add(any, rules));
  for (const auto& [value, rules] : by_head) head_keys.emplace_back(value, add(any_list, rules));

  const auto span = [this](std::pair<std::size_t, std::size_t> at) {
    return Span{lists_.data() + at.first, lists_.data() + at.second, no_head};
  };
  for_symbols_ = span(symbols_at);
  for_lists_ = span(lists_at);
  for_list_heads_ = span(list_heads_at);
  const auto fill = [&span](std::vector<Entry>& table, unsigned& shift, const auto& keys) {
    table.clear();
    shift = 64;
    if (keys.empty()) return;
    std::size_t capacity = 2;
    while (capacity < 2 * keys.size()) capacity *= 2;
    table.assign(capacity, Entry{0, Span{nullptr, nullptr, no_head}});
    shift = 64 - static_cast<unsigned>(__builtin_ctzll(capacity));
    for (const auto& [value, at] : keys) {
      std::size_t i = slot_of(value, shift);
      while (table[i].rules.begin != nullptr) i = (i + 1) & (capacity - 1);
      table[i] = Entry{value, span(at)};
    }
  };
  fill(symbols_, symbol_shift_, symbol_keys);
  fill(heads_, head_shift_, head_keys);
  head_count_ = 0;
  for (Entry& e : heads_) {
    if (e.rules.begin != nullptr) e.rules.head = head_count_++;
  }
}

}  // namespace vorn::detail
