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
/// Normal forms are memoised by node (every node is canonical, so a node met again, in
/// this term or a later one, is not rewritten twice). The memo holds both its keys and
/// its values, so collecting the manager never leaves an entry naming a dead node. Within
/// a term it only grows; between terms (at the start of normalize) it is bounded by
/// set_memo_limit, in two generations: once the current one holds more than half the
/// limit, the older one is dropped and the current one becomes the older. An entry found
/// in the older generation moves back into the current one, so the terms a session keeps
/// meeting stay known. Across terms the memo thus keeps at most the limit plus the entries
/// of one term. The work is done with an explicit stack: any depth runs in constant native
/// stack.
///
/// With set_collect_every(n), the rewriter also collects the manager between terms, once n
/// node ids have been handed out since it last did (by anyone: reading the terms makes
/// nodes too), so a host that rewrites terms one after another holds the memo, the rules
/// and the term at hand, plus at most about n nodes of garbage, however many terms come;
/// each collection, linear in the live nodes plus that garbage, is paid for by the n nodes
/// made before it.
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
    // Node ids the manager handed out during the calls of normalize that returned (a
    // sharing hit gives its id back). Ids are not reused until the manager's id counter
    // first wraps (2^32 ids), so until then this is exactly the nodes made, those
    // collected since included; after it, the ids of live nodes the counter skips are
    // counted too.
    std::uint64_t nodes_made = 0;
    std::uint64_t collections = 0;  // times the rewriter collected the manager
  };

  /// Entries the memo keeps from one term to the next (see the class comment).
  static constexpr std::size_t kDefaultMemoLimit = std::size_t{1} << 16;

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
  /// Bounds the memo between terms (default kDefaultMemoLimit entries).
  void set_memo_limit(std::size_t entries) noexcept { memo_limit_ = entries; }
  /// Collect the manager between terms once `ids` node ids have been handed out since the
  /// last collection (0, the default: never).
  void set_collect_every(std::uint64_t ids) noexcept { collect_every_ = ids; }

  /// The normal form of `term`. Throws StepLimitExceeded when it takes more rule
  /// applications than allowed; nothing is memoised for the unfinished terms.
  Sexp normalize(const Sexp& term);

  /// Counts since construction.
  const Stats& stats() const noexcept { return stats_; }
  /// Entries the memo holds now, both generations.
  std::size_t memo_size() const noexcept { return memo_.size() + older_memo_.size(); }

 private:
  struct Frame;
  struct NodeHash {
    std::size_t operator()(const Sexp& s) const noexcept {
      return std::hash<const Sexp_*>()(s.get());
    }
  };
  using Memo = std::unordered_map<Sexp, Sexp, NodeHash>;

  void between_terms();
  const Sexp* known(const Sexp& term);
  void visit(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& term);
  Sexp rebuild(const Frame& f, std::vector<Sexp>& done);
  void finish(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& nf);

  SexpManager& m_;
  SexpMatcher matcher_;
  std::vector<Sexp> patterns_;
  std::vector<Sexp> replacements_;
  // Term -> normal form, both held: current generation and older one (see the class comment).
  Memo memo_;
  Memo older_memo_;
  std::size_t memo_limit_ = kDefaultMemoLimit;
  std::uint64_t collect_every_ = 0;
  std::uint32_t collected_at_id_ = 0;  // the manager's next id after the last collection
  bool collected_once_ = false;        // collected_at_id_ is set
  std::uint32_t expected_id_ = 0;      // the id the manager hands out next; see rebuild()
  std::uint64_t max_steps_ = UINT64_MAX;
  Trace trace_;
  Stats stats_;
};

}  // namespace vorn::tool

#endif  // VORN_TOOLS_REWRITER_HPP
