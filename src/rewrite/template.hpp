// A replacement compiled for the engine: the lists it normalises in place, and the cells
// that build it whole.
#ifndef VORN_SRC_REWRITE_TEMPLATE_HPP
#define VORN_SRC_REWRITE_TEMPLATE_HPP

#include <cstdint>
#include <functional>
#include <vector>

#include "pattern.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

struct TemplateList;

/// One piece of a replacement: a variable, a constant (a maximal part without variables,
/// canonical), or a list of the replacement that holds a variable.
struct TemplateItem {
  enum Kind : std::uint8_t { binding, constant, list };
  Kind kind;
  bool normal;               // its normal form is the node itself: taken without a visit
  std::uint32_t index;       // binding: the slot; list: the index in TemplateCode::lists()
  Sexp_* node;               // constant: the node (held by the TemplateCode)
  const TemplateList* sub;   // list: the list
};

/// A list of the replacement: its elements in order and what ends its spine (nil, a
/// symbol, or a variable whose binding's spine continues it).
struct TemplateList {
  const TemplateItem* items;
  std::uint32_t count;
  TemplateItem tail;
};

/// A replacement compiled twice over.
///
/// As lists: the replacement's root, and each list in it that holds a variable, as its
/// items. The engine normalises such a list from its items (the bindings and constants
/// that are normal forms already taken as they are) and builds each of its cells once,
/// from normal forms; the replacement as a whole is never built.
///
/// As builds: the sh_cons calls that make the replacement whole, over an operand array laid
/// out as [variable slots | constants | cells built], in the order vorn::instantiate makes
/// them (post-order, car side first, each distinct node once). The engine builds it so
/// only where it must show it (a trace) or where the lists would repeat a shared part of
/// the replacement too often (see eager()).
class TemplateCode {
 public:
  struct Build {
    std::uint32_t car, cdr;  // operand indices
  };

  /// Compiles `replacement`, whose variables are the symbol nodes for which is_var holds;
  /// `variables` gives the value of each slot's variable and `places` where the pattern
  /// binds it; every variable of the replacement must be among them. Makes the constants
  /// canonical in `m` (nodes it makes stay, as canonical nodes do). Iterative: any depth.
  TemplateCode(SexpManager& m, const Sexp_* replacement,
               const std::vector<std::uint64_t>& variables,
               const std::vector<BindingPlace>& places,
               const std::function<bool(const Sexp_*)>& is_var);

  TemplateCode(const TemplateCode&) = delete;
  TemplateCode& operator=(const TemplateCode&) = delete;

  /// The replacement itself: a binding, a constant, or lists()[root().index].
  const TemplateItem& root() const noexcept { return root_; }
  const std::vector<TemplateList>& lists() const noexcept { return lists_; }
  /// True when the replacement must be built whole and normalised as a term: its lists,
  /// expanded as a tree, would be much larger than its distinct nodes (a replacement made
  /// with much sharing), or a variable bound to the whole term continues one of its lists.
  bool eager() const noexcept { return eager_; }

  /// Marks each constant symbol for which `normal(node)` holds as its own normal form.
  template <class IsNormal>
  void mark_normal_constants(IsNormal normal) {
    if (eager_) return;
    for (TemplateItem& item : items_) mark(item, normal);
    for (TemplateList& list : lists_) mark(list.tail, normal);
    mark(root_, normal);
  }

  /// Operands in all: slots, constants, cells built.
  std::uint32_t operands() const noexcept {
    return first_built_ + static_cast<std::uint32_t>(builds_.size());
  }
  /// Fills the constants into `ops`, which has room for operands().
  void load_constants(Sexp_** ops) const noexcept {
    for (std::size_t i = 0; i < constants_.size(); ++i) ops[slots_ + i] = constants_[i].get();
  }
  const std::vector<Build>& builds() const noexcept { return builds_; }
  std::uint32_t first_built() const noexcept { return first_built_; }
  /// The operand that holds the replacement built whole.
  std::uint32_t built_root() const noexcept { return built_root_; }

 private:
  template <class IsNormal>
  static void mark(TemplateItem& item, IsNormal normal) {
    if (item.kind == TemplateItem::constant && item.node->is_symbol != 0) item.normal = normal(item.node);
  }

  std::uint32_t slots_;
  std::vector<Sexp> constants_;  // every constant node, held
  std::vector<TemplateItem> items_;
  std::vector<TemplateList> lists_;
  TemplateItem root_{};
  bool eager_ = false;
  std::vector<Build> builds_;
  std::uint32_t first_built_ = 0;
  std::uint32_t built_root_ = 0;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_TEMPLATE_HPP
