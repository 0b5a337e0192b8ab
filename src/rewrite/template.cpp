// Compiling replacements.
#include "template.hpp"

#include <unordered_map>
#include <utility>

#include "vorn/expr/instantiate.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/sexp_ref.hpp"

namespace vorn::detail {

namespace {

// Records in `value` a value for each distinct node under `root`: `leaf(n)` where
// `is_leaf(n)`, otherwise `inner(n)` once both children have theirs. Post-order, car side
// first (`inner` sees the nodes in that order); iterative.
template <class Value, class IsLeaf, class Leaf, class Inner>
void post_order(const Sexp_* root, std::unordered_map<const Sexp_*, Value>& value,
                IsLeaf is_leaf, Leaf leaf, Inner inner) {
  std::vector<std::pair<const Sexp_*, bool>> todo{{root, false}};  // (node, expanded)
  while (!todo.empty()) {
    auto [n, expanded] = todo.back();
    if (value.count(n) != 0) {
      todo.pop_back();
    } else if (is_leaf(n)) {
      value.emplace(n, leaf(n));
      todo.pop_back();
    } else if (!expanded) {
      todo.back().second = true;
      todo.emplace_back(n->cdr, false);
      todo.emplace_back(n->car, false);
    } else {
      value.emplace(n, inner(n));
      todo.pop_back();
    }
  }
}

// Which nodes of `replacement` hold no variable.
std::unordered_map<const Sexp_*, bool> ground_nodes(const Sexp_* replacement,
                                                    const std::function<bool(const Sexp_*)>& is_var) {
  std::unordered_map<const Sexp_*, bool> ground;
  post_order(
      replacement, ground, [](const Sexp_* n) { return n->is_symbol != 0; },
      [&](const Sexp_* n) { return !is_var(n); },
      [&](const Sexp_* n) { return ground.at(n->car) && ground.at(n->cdr); });
  return ground;
}

}  // namespace

TemplateCode::TemplateCode(SexpManager& m, const Sexp_* replacement,
                           const std::vector<std::uint64_t>& variables,
                           const std::vector<BindingPlace>& places,
                           const std::function<bool(const Sexp_*)>& is_var)
    : slots_(static_cast<std::uint32_t>(variables.size())) {
  std::unordered_map<std::uint64_t, std::uint32_t> slot_of;
  for (std::uint32_t i = 0; i < slots_; ++i) slot_of.emplace(variables[i], i);
  const std::unordered_map<const Sexp_*, bool> ground = ground_nodes(replacement, is_var);

  // Each ground node the lists or the builds use, made canonical once.
  std::unordered_map<const Sexp_*, std::uint32_t> constant_of;
  const SexpMatcher no_bindings;
  const auto constant = [&](const Sexp_* n) {
    const auto known = constant_of.find(n);
    if (known != constant_of.end()) return known->second;
    const auto k = static_cast<std::uint32_t>(constants_.size());
    constants_.push_back(instantiate(m, SexpRef::borrow(const_cast<Sexp_*>(n)).handle(), no_bindings));
    constant_of.emplace(n, k);
    return k;
  };

  // The lists, breadth first from the root. Items are numbered as they come and linked
  // to their lists at the end, once items_ has stopped growing. A replacement whose lists
  // would hold many more items than it has distinct nodes is built eagerly instead.
  const std::size_t item_budget = 4 * ground.size() + 64;
  std::vector<std::pair<std::size_t, std::uint32_t>> spans;  // first item, count
  std::vector<const Sexp_*> pending;                          // list nodes, by list index
  const auto item_for = [&](const Sexp_* n, bool element) {
    TemplateItem item{TemplateItem::constant, false, 0, nullptr, nullptr};
    if (n->is_symbol != 0 && !ground.at(n)) {
      const std::uint32_t slot = slot_of.at(n->value);
      const BindingPlace place = places[slot];
      item = {TemplateItem::binding,
              element ? place == BindingPlace::car : place != BindingPlace::root, slot, nullptr,
              nullptr};
      if (!element && place == BindingPlace::root) eager_ = true;
    } else if (ground.at(n)) {
      item.index = constant(n);
    } else {
      item = {TemplateItem::list, false, static_cast<std::uint32_t>(pending.size()), nullptr, nullptr};
      pending.push_back(n);
    }
    return item;
  };
  root_ = item_for(replacement, true);
  if (root_.kind == TemplateItem::binding) {
    root_.normal = places[root_.index] == BindingPlace::car;
  }
  std::vector<TemplateItem> tails;
  for (std::size_t k = 0; k < pending.size() && !eager_; ++k) {
    const std::size_t first = items_.size();
    const Sexp_* cell = pending[k];
    for (; cell->is_symbol == 0; cell = cell->cdr) items_.push_back(item_for(cell->car, true));
    spans.emplace_back(first, static_cast<std::uint32_t>(items_.size() - first));
    tails.push_back(item_for(cell, false));
    if (items_.size() > item_budget) eager_ = true;
  }
  if (!eager_) {
    for (std::size_t k = 0; k < spans.size(); ++k) {
      lists_.push_back(TemplateList{items_.data() + spans[k].first, spans[k].second, tails[k]});
    }
  } else {
    items_.clear();
    root_ = {TemplateItem::constant, false, 0, nullptr, nullptr};
  }

  // The builds: post-order, car side first, not entering ground nodes.
  enum Kind : std::uint32_t { slot, fixed, built };
  using Operand = std::pair<Kind, std::uint32_t>;
  std::unordered_map<const Sexp_*, Operand> operand;
  std::vector<std::pair<Operand, Operand>> cells;
  post_order(
      replacement, operand,
      [&](const Sexp_* n) { return ground.at(n) || n->is_symbol != 0; },
      [&](const Sexp_* n) {
        return ground.at(n) ? Operand{fixed, constant(n)} : Operand{slot, slot_of.at(n->value)};
      },
      [&](const Sexp_* n) {
        const Operand o{built, static_cast<std::uint32_t>(cells.size())};
        cells.emplace_back(operand.at(n->car), operand.at(n->cdr));
        return o;
      });
  first_built_ = slots_ + static_cast<std::uint32_t>(constants_.size());
  const auto index = [this](const Operand& o) {
    return o.first == slot ? o.second : o.first == fixed ? slots_ + o.second : first_built_ + o.second;
  };
  for (const auto& [car, cdr] : cells) builds_.push_back(Build{index(car), index(cdr)});
  built_root_ = index(operand.at(replacement));

  // Constant items name their nodes once constants_ has stopped growing.
  const auto name = [this](TemplateItem& item) {
    if (eager_) return;
    if (item.kind == TemplateItem::constant) item.node = constants_[item.index].get();
    if (item.kind == TemplateItem::list) item.sub = &lists_[item.index];
  };
  for (TemplateItem& item : items_) name(item);
  for (TemplateList& list : lists_) name(list.tail);
  name(root_);
}

}  // namespace vorn::detail
