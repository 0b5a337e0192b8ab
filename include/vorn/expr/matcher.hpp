// SexpMatcher: pattern variables, bindings, and matching patterns against expressions.
#ifndef VORN_EXPR_MATCHER_HPP
#define VORN_EXPR_MATCHER_HPP

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "vorn/expr/sexp.hpp"
#include "vorn/expr/sexp_ref.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/ordered_map.hpp"

namespace vorn {

/// Matches patterns containing variables against expressions and keeps the bindings.
///
/// A variable is a number: every symbol node whose value was declared (constructor or
/// `add_var`) is that variable, whichever node it is. Only symbol nodes are variables:
/// a cons is never taken for one, whatever its words hold.
///
/// Matching walks pattern and expression together, `car` side first, with the
/// matcher's own stack (no recursion, any depth). A variable is bound on its first
/// occurrence in that order; a later occurrence must meet a node with the same id,
/// which for expressions built with `sh_sym`/`sh_cons` means the same shape. Other
/// symbols must have equal values; conses must meet conses.
///
///     vorn::SexpMatcher m({x});                // x: a symbol node declared as variable
///     if (m.match(pattern, expr)) use(m.get(x));
///
/// Ownership: the matcher holds references in its bindings and, after a failed match,
/// in its work stack (released by the next match that gets past the head check, or by
/// destruction). Destroy it before the manager of those nodes. It makes no nodes.
/// Not thread-safe: even `get` changes a count.
class SexpMatcher {
 public:
  /// Orders binding keys by the value word of their nodes.
  struct Match_key_lt {
    bool operator()(const Sexp& a, const Sexp& b) const noexcept {
      return a.get()->value < b.get()->value;
    }
  };

  /// No variables, no bindings.
  SexpMatcher() = default;
  /// Declares each element's value as a variable, in index order.
  explicit SexpMatcher(const std::vector<Sexp>& variables);
  /// Releases the stack's pairs (last first; expression side before pattern side), then
  /// the variable set, then the bindings (each value before its key).
  ~SexpMatcher();

  SexpMatcher(const SexpMatcher&) = delete;
  SexpMatcher& operator=(const SexpMatcher&) = delete;

  /// Declares the value of `v`'s node a variable (no reference is kept). Variables are
  /// never removed; they affect later matches only.
  void add_var(const Sexp& v);

  /// A new handle on what the variable of `key`'s value is bound to, or null.
  Sexp get(const Sexp& key) const;

  /// Binds the variable of `key`'s value to `expr` (which may be null). An existing
  /// entry keeps its key node.
  void put(const Sexp& key, const Sexp& expr);

  /// Removes the binding of `key`'s value, if any: value released, then key.
  void erase(const Sexp& key);

  /// Whether `expr` is an instance of `pattern`. Starts by emptying the bindings. On
  /// true they hold one entry per distinct variable of the pattern (key: its first
  /// occurrence; value: the node met there). On false they hold what was bound before
  /// the mismatch (nothing when the heads already differ).
  bool match(const Sexp& pattern, const Sexp& expr);

  /// The index of the first pattern that matches `expr`, or `patterns.size()`. An empty
  /// list matches nothing and leaves the bindings alone.
  std::uint64_t match(const std::vector<Sexp>& patterns, const Sexp& expr);

 private:
  using VarSet = hsh::Hashtable<unsigned long, hsh::GetKey_identity<unsigned long>, unsigned long,
                                hsh::hash<unsigned long>, std::equal_to<unsigned long>>;
  using Bindings = OrderedMap<Sexp, Sexp, Match_key_lt>;

  // The answer of `vars`; most symbols are no variable, and the filter says so first.
  bool is_var(const Sexp_* n) const {
    return n->is_symbol != 0 && ((var_filter >> (n->value & 63)) & 1) != 0 &&
           vars.contains(n->value);
  }
  bool heads_differ(const Sexp_* pattern, const Sexp_* expr) const;
  void release_stack() noexcept;
  bool walk(Sexp_* pattern, Sexp_* expr);
  void push_borrowed(Sexp_* pattern, Sexp_* expr);
  void own_stack() noexcept;

  using Pair = std::pair<detail::SexpRef, detail::SexpRef>;  // (pattern node, expression node)

  Bindings bindings;  // variable value -> bound expression; ordered by value
  VarSet vars;        // declared variable values; only grows
  std::vector<Pair> stack;  // pairs still to visit
  // Whether every pair on the stack holds one reference on each of its nodes: false during
  // a walk (pairs borrow), true once a walk has ended with pairs left over.
  bool stack_owns = false;
  std::uint64_t var_filter = 0;  // bit v % 64 set for every value v in `vars`
};

}  // namespace vorn

#endif  // VORN_EXPR_MATCHER_HPP
