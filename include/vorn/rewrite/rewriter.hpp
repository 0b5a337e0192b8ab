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
/// meet conses. The replacement stands for the term vorn::instantiate builds from it.
///
/// Strategy: innermost first. A term's subterms are the elements of its lists (the head
/// included) and the tail of a dotted list; the cells of a list's spine are not subterms
/// of their own. The elements of a list are normalised, left to right, before the list
/// (rebuilt from them) is tried against the rules; the first rule whose pattern matches
/// wins, and its replacement is normalised again. A term is in normal form when no rule
/// matches it and its subterms are in normal form. The normal form is canonical.
///
/// How. Patterns are compiled into straight-line matching code, and a term meets only the
/// rules that can match its head symbol and the elements after it (an index). A
/// replacement is not built and then taken apart again: its lists are normalised in
/// place, their variables' bindings (elements of normal forms already) and constants
/// taken as they are, and a list is tried against the rules where its elements lie; it is
/// made a node only where one is needed (a normal form, a memo key, a pattern that binds
/// a variable to a list's rest). A chain of rule applications at one place, however
/// long, takes constant memory. All the work is done on explicit stacks, kept from call
/// to call: any depth runs in constant native stack, and once the stacks have grown a
/// step allocates nothing but the nodes it makes.
///
/// Memo. Normal forms are kept by node (every node is canonical), so work already done is
/// not done twice: the memo records each subterm normalised and the list rebuilt from its
/// normalised elements, and the lists of a replacement that are tried against the rules
/// while the lists of their head symbol come back often enough (always the first 32 of a
/// head symbol, then while one record in 16 is met again, and a small sample after that,
/// so that the memo follows what pays: repeated calls such as (fib n) are kept, chains
/// of one-use calls such as Peano addition are not). The intermediate terms of a chain of
/// rule applications at one place are not recorded. The memo holds both its keys and its
/// values, so collecting the manager never leaves an entry naming a dead node. It is
/// bounded by set_memo_limit, in two generations: once the current one holds more than
/// half the limit (checked between terms, and within a term before each list is tried),
/// the older one is dropped and the current one becomes the older. An entry found in the
/// older generation moves back into the current one, so the terms a session keeps meeting
/// stay known. The memo is a cache: it changes how many rule applications a term takes,
/// never its normal form.
///
/// Collection. With set_collect_every(n), the rewriter collects the manager between
/// terms once n node ids have been handed out since it last did (by anyone: reading the
/// terms makes nodes too), and within a term once twice as many ids as there were
/// canonical nodes after the last collection (n at least) have been, retiring a memo
/// generation first. So a host that rewrites terms one after another, or one long term,
/// holds the memo, the rules and the term at hand, plus garbage bounded by what lives and
/// by n, however many terms and steps come; each collection, linear in the live nodes
/// plus that garbage, is paid for by the nodes made before it.
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
    std::uint64_t memo_hits = 0;     // terms and lists whose normal form the memo knew
    std::uint64_t sharing_hits = 0;  // list cells made from normal forms that already existed
    // Nodes the manager made during the calls of normalize that returned, by its count of
    // ids handed out (SexpManager::ids_handed_out): those collected since included.
    std::uint64_t nodes_made = 0;
    std::uint64_t collections = 0;  // times the rewriter collected the manager
  };

  /// Entries the memo keeps (see the class comment).
  static constexpr std::size_t default_memo_limit = std::size_t{1} << 14;

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
  /// Bounds the memo (default default_memo_limit entries).
  void set_memo_limit(std::size_t entries) noexcept;
  /// Collect the manager between terms once `ids` node ids have been handed out since the
  /// last collection, and within a term as the class comment says (0, the default: never).
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
