// The rewrite engine of the vorn command: innermost-first normalisation of canonical terms.
#ifndef VORN_TOOLS_REWRITER_HPP
#define VORN_TOOLS_REWRITER_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::tool {

/// Whether `node` is a pattern variable: a symbol whose name starts with `?`.
bool is_variable(const SexpManager& m, const Sexp_* node);

/// The distinct variables of `e`, in order of first occurrence (car side first, which is
/// the order of the text). Iterative: any depth.
std::vector<Sexp> variables_of(const SexpManager& m, const Sexp& e);

/// The number of nodes `m` has made besides nil, for a manager that has only ever made
/// canonical nodes (sh_sym, sh_cons, parse, instantiate). Canonical nodes live as long as
/// the manager and a sharing hit gives back the id its discarded node took, so the ids
/// 1 .. next-1 are exactly the canonical nodes made. Reading `next` makes no node.
std::uint64_t canonical_nodes_made(SexpManager& m);

/// Thrown by Rewriter::normalize when a term needs more rule applications than allowed.
class StepLimitExceeded : public std::runtime_error {
 public:
  explicit StepLimitExceeded(std::uint64_t limit);
  std::uint64_t limit() const noexcept { return limit_; }

 private:
  std::uint64_t limit_;
};

/// Rewrites canonical terms to normal form with an ordered list of rules.
///
/// A term's subterms are the elements of its lists (the head included) and the tail of a
/// dotted list; the cells of a list's spine are not subterms of their own. Strategy:
/// innermost first. The elements of a list are normalised, left to right, before the list
/// (rebuilt from them with sh_cons) is tried against the rules; the first rule whose
/// pattern matches wins, and its instantiated replacement is normalised again. A term is
/// in normal form when no rule matches it and its subterms are in normal form.
///
/// Normal forms are memoised by node for the rewriter's life (every node is canonical, so
/// a node met again, in this term or a later one, is not rewritten twice). The work is
/// done with an explicit stack: any depth runs in constant native stack.
///
/// All nodes must belong to the manager given at construction, which must outlive the
/// rewriter. Memory exhaustion throws std::bad_alloc; the memo then holds only complete
/// normal forms, as after StepLimitExceeded.
class Rewriter {
 public:
  /// Called after each rule application: rule index (0-based), the term the rule
  /// matched, the instantiated replacement.
  using Trace = std::function<void(std::size_t rule, const Sexp& before, const Sexp& after)>;

  struct Stats {
    std::uint64_t steps = 0;         // rule applications
    std::uint64_t memo_hits = 0;     // subterms whose normal form was already known
    std::uint64_t sharing_hits = 0;  // rebuilt list cells that already existed
  };

  explicit Rewriter(SexpManager& m) : m_(m) {}

  Rewriter(const Rewriter&) = delete;
  Rewriter& operator=(const Rewriter&) = delete;

  /// Appends the rule `pattern -> replacement`; its variables are the names starting with
  /// `?` in `pattern`. Throws std::invalid_argument, adding nothing, when `replacement`
  /// uses a variable that `pattern` does not bind.
  void add_rule(const Sexp& pattern, const Sexp& replacement);
  std::size_t rule_count() const noexcept { return patterns_.size(); }

  /// Rule applications allowed per call of normalize (default: no bound).
  void set_max_steps(std::uint64_t n) noexcept { max_steps_ = n; }
  void set_trace(Trace trace) { trace_ = std::move(trace); }

  /// The normal form of `term`. Throws StepLimitExceeded when it takes more rule
  /// applications than allowed; nothing is memoised for the unfinished terms.
  Sexp normalize(const Sexp& term);

  /// Counts since construction.
  const Stats& stats() const noexcept { return stats_; }

 private:
  struct Frame;
  void visit(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& term);
  Sexp rebuild(const Frame& f, std::vector<Sexp>& done);
  void finish(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& nf);

  SexpManager& m_;
  SexpMatcher matcher_;
  std::vector<Sexp> patterns_;
  std::vector<Sexp> replacements_;
  // Keys are canonical nodes, which the manager keeps alive for its life, so a key never
  // dangles nor names another node; the values are held.
  std::unordered_map<const Sexp_*, Sexp> memo_;
  std::uint32_t newest_id_ = 0;  // the largest node id seen; see rebuild()
  std::uint64_t max_steps_ = UINT64_MAX;
  Trace trace_;
  Stats stats_;
};

}  // namespace vorn::tool

#endif  // VORN_TOOLS_REWRITER_HPP
