// Rewriting canonical terms to normal form with an ordered list of rules: vorn::Rewriter.
#ifndef VORN_REWRITE_REWRITER_HPP
#define VORN_REWRITE_REWRITER_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

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
///     vorn::SexpManager m;
///     vorn::Rewriter rw(m);
///     vorn::load_rules(rw, "(rule (+ z ?n) ?n)  (rule (+ (s ?m) ?n) (s (+ ?m ?n)))");
///     vorn::Sexp nf = rw.normalize(vorn::parse(m, "(+ (s (s z)) (s z))"));
///     assert(nf == vorn::parse(m, "(s (s (s z)))"));
///
/// Rules. A rule is a pattern and a replacement; the variables of a pattern are its
/// symbols named `?NAME` (see variables.hpp). A pattern matches a term as SexpMatcher
/// matches it: a variable binds on its first occurrence (car side first) and must meet a
/// node of the same id at the others, other symbols must have equal values, conses must
/// meet conses. The replacement is then built canonically, each variable replaced by its
/// binding, as vorn::instantiate builds it (nodes made in post-order, car side first).
///
/// Strategy: innermost first. A term's subterms are the elements of its lists (the head
/// included) and the tail of a dotted list; the cells of a list's spine are not subterms
/// of their own. The elements of a list are normalised, left to right, before the list
/// (rebuilt from them with sh_cons) is tried against the rules; the first rule whose
/// pattern matches wins, and its replacement is normalised again. A term is in normal
/// form when no rule matches it and its subterms are in normal form.
///
/// Memo. Normal forms are memoised by node: every node is canonical, so a node met again,
/// in this term or a later one, is not rewritten twice (the term as given and the list
/// rebuilt from its normalised elements are both recorded). The memo holds both its keys
/// and its values, so collecting the manager never leaves an entry naming a dead node.
/// Within a term it only grows; between terms (at the start of normalize) it is bounded
/// by set_memo_limit, in two generations: once the current one holds more than half the
/// limit, the older one is dropped and the current one becomes the older. An entry found
/// in the older generation moves back into the current one, so the terms a session keeps
/// meeting stay known. Across terms the memo thus keeps at most the limit plus the
/// entries of one term.
///
/// Collection. With set_collect_every(n), the rewriter also collects the manager between
/// terms, once n node ids have been handed out since it last did (by anyone: reading the
/// terms makes nodes too), so a host that rewrites terms one after another holds the
/// memo, the rules and the term at hand, plus at most about n nodes of garbage, however
/// many terms come; each collection, linear in the live nodes plus that garbage, is paid
/// for by the n nodes made before it.
///
/// Cost. A term meets only the rules that can match its head symbol; patterns run as
/// compiled code and replacements as compiled templates, with no table built per step.
/// The memo is one flat array per generation and the work stacks are kept from call to
/// call, so once they have grown a step allocates nothing but the nodes it makes. All
/// the work is done on explicit stacks: any depth runs in constant native stack.
///
/// Terms should be canonical (made with sh_sym/sh_cons, as parse makes them): the memo
/// and matching take a node for its shape. All nodes must belong to the manager given at
/// construction, which must outlive the rewriter. Memory exhaustion throws
/// std::bad_alloc; the memo then holds only complete normal forms, as after
/// StepLimitExceeded. Not thread-safe.
class Rewriter {
 public:
  /// Called after each rule application: rule index (0-based), the term the rule
  /// matched, the instantiated replacement.
  using Trace = std::function<void(std::size_t rule, const Sexp& before, const Sexp& after)>;

  /// Counts since construction, kept as the work goes: reading them costs nothing.
  struct Stats {
    std::uint64_t steps = 0;         // rule applications
    std::uint64_t memo_hits = 0;     // subterms whose normal form was already known
    std::uint64_t sharing_hits = 0;  // rebuilt list cells that already existed
    // Nodes the manager made during the calls of normalize that returned, by its count of
    // ids handed out (SexpManager::ids_handed_out): those collected since included.
    std::uint64_t nodes_made = 0;
    std::uint64_t collections = 0;  // times the rewriter collected the manager
  };

  /// Entries the memo keeps from one term to the next (see the class comment).
  static constexpr std::size_t default_memo_limit = std::size_t{1} << 16;

  explicit Rewriter(SexpManager& m);
  ~Rewriter();

  Rewriter(const Rewriter&) = delete;
  Rewriter& operator=(const Rewriter&) = delete;

  /// Appends the rule `pattern -> replacement`. Throws std::invalid_argument, adding
  /// nothing, when `replacement` uses a variable that `pattern` does not bind.
  void add_rule(const Sexp& pattern, const Sexp& replacement);
  std::size_t rule_count() const noexcept;

  /// Rule applications allowed per call of normalize (default: no bound).
  void set_max_steps(std::uint64_t n) noexcept;
  void set_trace(Trace trace);
  /// Bounds the memo between terms (default default_memo_limit entries).
  void set_memo_limit(std::size_t entries) noexcept;
  /// Collect the manager between terms once `ids` node ids have been handed out since the
  /// last collection (0, the default: never).
  void set_collect_every(std::uint64_t ids) noexcept;

  /// The normal form of `term`. Throws StepLimitExceeded when it takes more rule
  /// applications than allowed; nothing is memoised for the unfinished terms.
  Sexp normalize(const Sexp& term);

  const Stats& stats() const noexcept;
  /// Entries the memo holds now, both generations.
  std::size_t memo_size() const noexcept;
  SexpManager& manager() const noexcept;

 private:
  class Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace vorn

#endif  // VORN_REWRITE_REWRITER_HPP
