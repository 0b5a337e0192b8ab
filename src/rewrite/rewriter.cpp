// The rewriting engine: innermost-first normalisation over compiled rules.
#include "vorn/rewrite/rewriter.hpp"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "memo.hpp"
#include "pattern.hpp"
#include "rule_index.hpp"
#include "rewrite_access.hpp"
#include "template.hpp"
#include "vorn/expr/sexp_ref.hpp"
#include "vorn/rewrite/variables.hpp"

namespace vorn {

using detail::SexpRef;

StepLimitExceeded::StepLimitExceeded(std::uint64_t limit)
    : std::runtime_error("no normal form within " + std::to_string(limit) + " rule applications"),
      limit_(limit) {}

namespace {

// A rule as given and as compiled, with the operand array its replacement is built in
// when it is built whole: matching writes the bindings into its first slots, the
// constants follow, then the cells as they are built.
struct Rule {
  Rule(SexpManager& m, const Sexp& p, const Sexp& r,
       const std::function<bool(const Sexp_*)>& is_var)
      : pattern(p),
        replacement(r),
        match(p.get(), is_var),
        build(m, r.get(), match.variables(), match.places(), is_var),
        ops(build.operands()) {
    build.load_constants(ops.data());
  }
  Sexp pattern;
  Sexp replacement;
  detail::PatternCode match;
  detail::TemplateCode build;
  std::vector<Sexp_*> ops;
};

}  // namespace

class Rewriter::Engine {
 public:
  explicit Engine(SexpManager& m) : m_(m) {}
  ~Engine() { unwind(); }

  void add_rule(const Sexp& pattern, const Sexp& replacement);
  Sexp normalize(const Sexp& term);

  SexpManager& m_;
  std::vector<std::unique_ptr<Rule>> rules_;
  detail::RuleIndex index_;
  bool index_stale_ = false;
  std::vector<const Sexp_*> registers_;  // the matching code's, sized for the largest pattern
  detail::Memo memo_;
  std::size_t memo_limit_ = default_memo_limit;
  std::uint64_t collect_every_ = 0;
  std::uint64_t collected_at_ = 0;   // the manager's ids_handed_out() at the last collection
  std::uint64_t collect_after_ = 0;  // ids to hand out within a term before collecting again
  bool collected_once_ = false;      // collected_at_ is set
  std::uint64_t max_steps_ = UINT64_MAX;
  Trace trace_;
  Stats stats_;

 private:
  // One place of the term being normalised, and the chain of rule applications there.
  //
  // A frame starts from a term (term_elements: the elements of a list are visited) or
  // from a list of a replacement (list_elements: its items are taken or visited). Either
  // way the normal forms of the elements, then what ends the list, gather on done_ from
  // `base`: the list to try against the rules (match). A term's list is made with sh_cons
  // (it is the term itself when no element changed); a replacement's list is made only
  // where it must be a node: when the memo records it, when it is a normal form, or when
  // a rule's pattern needs it; otherwise the rules are tried on the elements as they lie.
  // When a rule fires, the frame goes on with its replacement in place of the list: a list
  // of the replacement is gathered by the frame itself, so a chain of rule applications at
  // one place, however long, takes one frame; any other replacement is visited and the
  // frame waits for its normal form (replaced). The bindings of the last rule are subterms
  // of what it matched, which the frame holds: the node (redex), or the elements of an
  // unmade list, kept on done_ between `start` and `base`. The frame ends with a normal
  // form, which the memo records for the term it started from and the first list it made.
  enum Stage : unsigned char { term_elements, list_elements, match, replaced };
  struct Frame {
    Sexp_* term;     // held or null: the term the frame started from
    Sexp_* key;      // held or null: the first list tried, made and recorded
    Sexp_* current;  // held or null: the list being tried, when it is made
    Sexp_* redex;    // held or null: what the last rule matched, when it was made
    union {
      const Sexp_* rest;                 // term_elements: the rest of term's spine
      const detail::TemplateList* list;  // list_elements: the list being gathered
    };
    std::size_t start;           // size of done_ when the frame began
    std::size_t base;            // where the elements being gathered start on done_
    std::uint32_t item;          // list_elements: the next item of list
    std::uint32_t bindings;      // list_elements: where the bindings of list's rule start
    std::uint32_t own_bindings;  // size of bindings_ when the frame began
    std::uint64_t ids_at_start;  // the manager's ids_handed_out() when the frame began
    std::uint32_t key_head;      // the number of key's head symbol (RuleIndex::Span::head)
    Stage stage;
    bool dotted;   // term_elements, list_elements: the dotted tail is being visited
    bool chained;  // a rule has fired here
    bool sampled;  // the key is recorded as a sample (see samples_key)
  };

  // How often the lists of one head symbol, once recorded, are met again: the memo
  // records a replacement's lists while that pays (see wants_key).
  struct HeadStats {
    std::uint64_t records = 0;
    std::uint64_t hits = 0;
    std::uint64_t turned_away = 0;
  };

  static constexpr std::uint32_t no_rule = UINT32_MAX;

  void between_terms();
  void maintain();
  void collect();
  void visit(Sexp_* term, bool fresh);
  void push_done(Sexp_* nf) {
    done_.push_back(nf);
    nf->add_ref();
  }
  void release_done(std::size_t from) noexcept {
    while (done_.size() > from) {
      done_.back()->release();
      done_.pop_back();
    }
  }
  void push_list(const detail::TemplateList* list, std::uint32_t bindings);
  bool make_current(Frame& f);
  bool wants_key(std::uint32_t head) const noexcept;
  bool samples_key(std::uint32_t head) noexcept;
  bool try_known(Frame& f, bool fresh);
  void count_hit(const Sexp_* node) noexcept;
  void finish(Sexp_* nf);
  std::uint32_t first_match(Frame& f);
  void apply(Frame& f, std::uint32_t rule);
  Sexp build_whole(Rule& rule, bool& fresh);
  void unwind() noexcept;
  void index_rules();

  // All kept from call to call, so that a warm rewriter allocates nothing for them.
  std::vector<Frame> work_;
  std::vector<Sexp_*> done_;      // held: normal forms of finished parts, in visiting order
  std::vector<Sexp_*> bindings_;  // bindings of the rules in use: subterms of frames' redexes
  std::vector<HeadStats> heads_;  // by head symbol number (RuleIndex::Span::head)
  // The last list cell make_current made new, and the manager's ids_handed_out() just
  // after; only compared, never followed (the node may be gone once the count moves).
  const Sexp_* newest_ = nullptr;
  std::uint64_t newest_at_ = UINT64_MAX;
};

void Rewriter::Engine::add_rule(const Sexp& pattern, const Sexp& replacement) {
  const std::vector<Sexp> bound = variables_of(m_, pattern);
  for (const Sexp& v : variables_of(m_, replacement)) {
    if (std::find(bound.begin(), bound.end(), v) == bound.end()) {
      throw std::invalid_argument(std::string(m_.get_symbol_value(v.value())) +
                                  " in the replacement is not bound by the pattern");
    }
  }
  SexpManager& m = m_;
  const auto is_var = [&m](const Sexp_* n) { return is_variable(m, n); };
  auto rule = std::make_unique<Rule>(m_, pattern, replacement, is_var);
  if (registers_.size() < rule->match.registers()) registers_.resize(rule->match.registers());
  rules_.push_back(std::move(rule));
  index_stale_ = true;
}

// The rule index, and which constant symbols of the replacements no rule can rewrite.
void Rewriter::Engine::index_rules() {
  std::vector<detail::PatternHead> heads;
  for (const auto& rule : rules_) heads.push_back(rule->match.head());
  index_.build(heads);
  for (const auto& rule : rules_) {
    rule->build.mark_normal_constants([this](const Sexp_* symbol) {
      const detail::RuleIndex::Span s = index_.candidates(symbol);
      return s.begin == s.end;
    });
  }
  index_stale_ = false;
}

void Rewriter::Engine::collect() {
  m_.collect();
  ++stats_.collections;
  collected_at_ = m_.ids_handed_out();  // collecting hands out no id
}

// Between terms: the memo brought within its limit, then the manager collected when due.
// Dropping memo entries first lets the collection take what only they held.
void Rewriter::Engine::between_terms() {
  memo_.retire_beyond(memo_limit_);
  if (collect_every_ == 0) return;
  const std::uint64_t now = m_.ids_handed_out();
  if (!collected_once_) {
    collected_once_ = true;
    collected_at_ = now;
  }
  if (now - collected_at_ >= collect_every_) collect();
  collect_after_ = std::max<std::uint64_t>(collect_every_, 2 * m_.canonical_count());
}

// Within a term, before a list is tried against the rules: the memo kept within its
// limit, and the manager collected once it has handed out twice as many ids since the
// last collection as it then held canonical nodes (collect_every_ at least), so that each
// collection, linear in the nodes alive plus the garbage, is paid for by the new ones.
// A collection retires a memo generation first: an entry not met again for two
// collections goes, and the collection takes what only it held.
void Rewriter::Engine::maintain() {
  if (memo_.current_size() > memo_limit_ / 2) memo_.retire(memo_limit_);
  if (collect_every_ != 0 && m_.ids_handed_out() - collected_at_ >= collect_after_) {
    memo_.retire(memo_limit_);
    collect();
    collect_after_ = std::max<std::uint64_t>(collect_every_, 2 * m_.canonical_count());
  }
}

// A memo hit on a list headed by a symbol the rules name counts for that symbol.
void Rewriter::Engine::count_hit(const Sexp_* node) noexcept {
  ++stats_.memo_hits;
  if (node->is_symbol != 0) return;
  const std::uint32_t head = index_.list_candidates(node->car).head;
  if (head != detail::RuleIndex::no_head) ++heads_[head].hits;
}

// The normal form of `term` on done_ if the memo knows it, else a frame for it. A fresh
// node (made by the call that gave it) cannot be a key: keys are held, so no key dies and
// leaves its slot to a new node.
void Rewriter::Engine::visit(Sexp_* term, bool fresh) {
  if (!fresh) {
    if (Sexp_* nf = memo_.find(term)) {
      count_hit(term);
      push_done(nf);
      return;
    }
  }
  const bool symbol = term->is_symbol != 0;
  const std::size_t at = done_.size();
  work_.push_back(Frame{term, nullptr, symbol ? term : nullptr, nullptr, {term}, at, at, 0, 0,
                        static_cast<std::uint32_t>(bindings_.size()), m_.ids_handed_out(),
                        detail::RuleIndex::no_head, symbol ? match : term_elements, false, false,
                        false});
  term->add_ref();
  if (symbol) term->add_ref();
}

void Rewriter::Engine::push_list(const detail::TemplateList* list, std::uint32_t bindings) {
  const std::size_t at = done_.size();
  Frame f{nullptr, nullptr, nullptr, nullptr, {nullptr}, at, at, 0, bindings,
          static_cast<std::uint32_t>(bindings_.size()), m_.ids_handed_out(), detail::RuleIndex::no_head,
          list_elements, false, false, false};
  f.list = list;
  work_.push_back(f);
}

// Makes f.current the list gathered on done_ from f.base (its last entry ends the list)
// and pops it. Each cell is made with sh_cons: a sharing hit when the manager's count of
// ids handed out does not move. Returns whether the list is a node made just now.
//
// A cell over the node the manager made last, before it has handed out another id, cannot
// be in the table (no node alive was made after that child), so it is entered without a
// look-up: the effects are those of sh_cons's miss. That holds for every cell after the
// first new one, and for the first one when the list's end or last element is the last
// node a list of this engine made (newest_). Not with a trace, whose callback could change
// a canonical cons's children without handing out an id.
bool Rewriter::Engine::make_current(Frame& f) {
  Sexp list = SexpRef::adopt(done_.back());  // the end's reference goes to the list
  done_.pop_back();
  bool fresh = false;
  bool absent = !trace_ && m_.ids_handed_out() == newest_at_ && newest_ == list.get();
  while (done_.size() > f.base) {
    Sexp_* car = done_.back();
    if (absent || (!trace_ && m_.ids_handed_out() == newest_at_ && newest_ == car)) {
      Sexp_* cell = detail::RewriteAccess::new_cons(m_, car, list.get());
      cell->add_ref();
      list = SexpRef::adopt(cell);
      fresh = absent = true;
    } else {
      const std::uint64_t before = m_.ids_handed_out();
      list = m_.sh_cons(SexpRef::borrow(car).handle(), list);
      fresh = absent = m_.ids_handed_out() != before;
      if (!fresh) ++stats_.sharing_hits;
    }
    car->release();
    done_.pop_back();
  }
  if (fresh) {
    newest_ = list.get();
    newest_at_ = m_.ids_handed_out();
  }
  f.current = SexpRef::take(list);
  return fresh;
}

// Whether the memo is to record a replacement's list headed by the symbol of number
// `head`: always while fewer than 32 lists of that head have been recorded, and after
// that while at least one in 16 of those records has been met again. Asked when the list
// is gathered (whether to make it, to look it up and record it) and again when its frame
// finishes (whether to record it after all): records are counted as they are made, and
// frames finish innermost first, so the first records of a recursion are its smallest.
bool Rewriter::Engine::wants_key(std::uint32_t head) const noexcept {
  if (head == detail::RuleIndex::no_head) return true;
  const HeadStats& h = heads_[head];
  return h.records < 32 || h.hits * 16 >= h.records;
}

// wants_key() when a list is gathered, except that one list in 64 that it turns away is
// recorded all the same, if its frame makes at most 64 nodes on the way to its normal form
// (a sample should not keep much alive): the records of a head symbol keep telling whether
// its lists come back, so its lists are recorded again once they do.
bool Rewriter::Engine::samples_key(std::uint32_t head) noexcept {
  if (wants_key(head)) return true;
  return ++heads_[head].turned_away % 64 == 0;
}

// The frame's list is made now and is its first: it becomes the key, and is looked up in
// the memo unless it is new; on a hit the frame finishes.
bool Rewriter::Engine::try_known(Frame& f, bool fresh) {
  if (!f.chained && f.current != f.term) {
    f.key = f.current;
    f.key->add_ref();
  }
  if (fresh || f.current == f.term) return false;
  Sexp_* nf = memo_.find(f.current);
  if (nf == nullptr) return false;
  count_hit(f.current);
  finish(nf);
  return true;
}

// Records `nf` as the normal form of the top frame's term and key, pops the frame and
// hands `nf` to the frame below.
void Rewriter::Engine::finish(Sexp_* nf) {
  Frame& f = work_.back();
  const bool small = m_.ids_handed_out() - f.ids_at_start <= 64;
  if (f.term != nullptr) memo_.record(f.term, nf);
  if (f.key != nullptr && (f.sampled ? small : wants_key(f.key_head))) {
    memo_.record(f.key, nf);
    if (f.key_head != detail::RuleIndex::no_head) ++heads_[f.key_head].records;
  }
  // nf is held first (it may be held only by what the frame lets go of), then takes the
  // place of the frame's part of done_; nothing below allocates.
  done_.push_back(nf);
  nf->add_ref();
  for (std::size_t k = f.start; k + 1 < done_.size(); ++k) done_[k]->release();
  done_[f.start] = nf;
  done_.resize(f.start + 1);
  for (Sexp_* held : {f.term, f.key, f.current, f.redex}) {
    if (held != nullptr) held->release();
  }
  bindings_.resize(f.own_bindings);
  work_.pop_back();
}

// The first rule that matches the frame's list, made or not. A pattern that needs a node
// has the list made first (and the rules after it then match the node).
std::uint32_t Rewriter::Engine::first_match(Frame& f) {
  detail::RuleIndex::Span candidates;
  if (f.current != nullptr) {
    candidates = index_.all_candidates(f.current);
  } else {
    candidates = index_.list_candidates(done_[f.base]);
    const std::size_t count = done_.size() - f.base - 1;
    for (std::size_t at; (at = detail::RuleIndex::refining_position(candidates)) != 0;) {
      candidates = index_.refine(candidates, at < count ? done_[f.base + at] : nullptr);
    }
  }
  for (const std::uint32_t* r = candidates.begin; r != candidates.end; ++r) {
    Rule& rule = *rules_[*r];
    if (f.current == nullptr) {
      if (!rule.match.needs_node()) {
        const std::size_t count = done_.size() - f.base - 1;
        if (rule.match.run_unmade(&done_[f.base], count, registers_.data(), rule.ops.data())) return *r;
        continue;
      }
      make_current(f);
    }
    if (rule.match.run(f.current, registers_.data(), rule.ops.data())) return *r;
  }
  return no_rule;
}

// The replacement of `rule` built whole, for the bindings in its operands. Every cell
// built is held until the last is made: a manager that collects by itself may collect
// while a later cell is made. `fresh`: the result is a node made just now.
Sexp Rewriter::Engine::build_whole(Rule& rule, bool& fresh) {
  Sexp_** ops = rule.ops.data();
  fresh = false;
  std::uint32_t at = rule.build.first_built();
  try {
    for (const detail::TemplateCode::Build& b : rule.build.builds()) {
      const std::uint64_t before = m_.ids_handed_out();
      Sexp cell = m_.sh_cons(SexpRef::borrow(ops[b.car]).handle(),
                             SexpRef::borrow(ops[b.cdr]).handle());
      fresh = m_.ids_handed_out() != before;
      ops[at++] = SexpRef::take(cell);
    }
  } catch (...) {
    while (at > rule.build.first_built()) ops[--at]->release();
    throw;
  }
  Sexp result(ops[rule.build.built_root()]);
  while (at > rule.build.first_built()) ops[--at]->release();
  return result;
}

// The top frame's list matched `rule`: the frame goes on with its replacement. The
// bindings move from the rule's operands to bindings_, where the frame's lists find them
// while other rules fire; what the rule matched stays held for as long as they are used,
// in place of what the rule before it matched.
void Rewriter::Engine::apply(Frame& f, std::uint32_t r) {
  Rule& rule = *rules_[r];
  const std::size_t slots = rule.match.variables().size();
  bindings_.resize(f.own_bindings + slots);
  for (std::size_t k = 0; k < slots; ++k) bindings_[f.own_bindings + k] = rule.ops[k];
  if (f.redex != nullptr) f.redex->release();
  f.redex = f.current;
  f.current = nullptr;
  if (f.redex != nullptr) {
    release_done(f.start);
  } else {  // the unmade list's elements take the place of the last redex's
    std::size_t to = f.start;
    for (std::size_t k = f.start; k < f.base; ++k) done_[k]->release();
    for (std::size_t k = f.base; k < done_.size(); ++k) done_[to++] = done_[k];
    done_.resize(to);
  }
  f.base = done_.size();
  f.chained = true;
  const detail::TemplateCode& code = rule.build;
  if (trace_ || code.eager()) {
    bool fresh;
    const Sexp whole = build_whole(rule, fresh);
    if (trace_) trace_(r, SexpRef::borrow(f.redex).handle(), whole);
    if (code.eager()) {
      work_.back().stage = replaced;  // the trace may not touch the frames, but f is not reread
      visit(whole.get(), fresh);
      return;
    }
  }
  Frame& top = work_.back();
  const detail::TemplateItem& root = code.root();
  if (root.kind == detail::TemplateItem::list) {
    top.list = root.sub;
    top.item = 0;
    top.bindings = top.own_bindings;
    top.dotted = false;
    top.stage = list_elements;
    return;
  }
  Sexp_* node = root.kind == detail::TemplateItem::binding ? bindings_[top.own_bindings + root.index]
                                                           : root.node;
  if (root.normal) {
    finish(node);
    return;
  }
  top.stage = replaced;
  visit(node, false);
}

void Rewriter::Engine::unwind() noexcept {
  for (const Frame& f : work_) {
    for (Sexp_* held : {f.term, f.key, f.current, f.redex}) {
      if (held != nullptr) held->release();
    }
  }
  work_.clear();
  release_done(0);
  bindings_.clear();
}

Sexp Rewriter::Engine::normalize(const Sexp& term) {
  between_terms();
  if (index_stale_) index_rules();
  heads_.assign(index_.head_count(), HeadStats{});
  const std::uint64_t first_id = m_.ids_handed_out();
  std::uint64_t steps = 0;
  Sexp result;
  try {
    visit(term.get(), false);
    while (!work_.empty()) {
      Frame& f = work_.back();
      switch (f.stage) {
        case term_elements: {
          if (f.rest->is_symbol == 0) {
            Sexp_* element = f.rest->car;
            f.rest = f.rest->cdr;
            visit(element, false);
            continue;
          }
          if (f.rest->value != 0 && !f.dotted) {
            f.dotted = true;
            visit(const_cast<Sexp_*>(f.rest), false);
            continue;
          }
          if (!f.dotted) push_done(const_cast<Sexp_*>(f.rest));  // the list's end, nil
          bool same = true;
          std::size_t k = f.base;
          const Sexp_* p = f.term;
          for (; p->is_symbol == 0 && same; p = p->cdr) same = done_[k++] == p->car;
          if (same && done_[k] == p) {
            release_done(f.base);
            f.current = f.term;
            f.term->add_ref();
          } else if (try_known(f, make_current(f))) {
            continue;
          }
          f.stage = match;
          break;
        }
        case list_elements: {
          const detail::TemplateList& list = *f.list;
          // Items in normal form go to done_; at the first that needs a frame of its own
          // the loop stops, since pushing one may move `f`.
          bool waiting = false;
          while (!waiting && f.item < list.count) {
            const detail::TemplateItem& item = list.items[f.item++];
            if (item.kind == detail::TemplateItem::list) {
              push_list(item.sub, f.bindings);
              waiting = true;
            } else {
              Sexp_* node = item.kind == detail::TemplateItem::binding ? bindings_[f.bindings + item.index]
                                                                        : item.node;
              if (item.normal) {
                push_done(node);
              } else {
                visit(node, false);
                waiting = true;
              }
            }
          }
          if (waiting) continue;
          if (!f.dotted) {
            const detail::TemplateItem& end = list.tail;
            Sexp_* node = end.kind == detail::TemplateItem::binding ? bindings_[f.bindings + end.index]
                                                                     : end.node;
            if (end.kind == detail::TemplateItem::constant && node->value != 0 && !end.normal) {
              f.dotted = true;
              visit(node, false);  // a dotted tail that rules rewrite
              continue;
            }
            push_done(node);
          }
          const detail::RuleIndex::Span candidates = index_.list_candidates(done_[f.base]);
          if (candidates.begin == candidates.end) {  // a normal form: no rule can match it
            make_current(f);
            finish(f.current);
            continue;
          }
          if (!f.chained && samples_key(candidates.head)) {
            f.key_head = candidates.head;
            f.sampled = !wants_key(candidates.head);
            if (try_known(f, make_current(f))) continue;
          }
          f.stage = match;
          break;
        }
        case match:
          break;
        case replaced: {
          Sexp_* nf = done_.back();  // the replacement is normalised
          done_.pop_back();
          try {
            finish(nf);
          } catch (...) {
            nf->release();
            throw;
          }
          nf->release();
          continue;
        }
      }
      // match
      Frame& g = work_.back();
      maintain();
      if (trace_ && g.current == nullptr) make_current(g);  // the trace shows it
      const std::uint32_t rule = first_match(g);
      if (rule == no_rule) {
        if (g.current == nullptr) make_current(g);
        finish(g.current);
        continue;
      }
      if (steps == max_steps_) throw StepLimitExceeded(max_steps_);
      ++steps;
      ++stats_.steps;
      apply(g, rule);
    }
    result = Sexp(done_.back());
  } catch (...) {
    unwind();
    throw;
  }
  unwind();
  stats_.nodes_made += m_.ids_handed_out() - first_id;
  return result;
}

Rewriter::Rewriter(SexpManager& m) : engine_(std::make_unique<Engine>(m)) {}
Rewriter::~Rewriter() = default;

void Rewriter::add_rule(const Sexp& pattern, const Sexp& replacement) {
  engine_->add_rule(pattern, replacement);
}
std::size_t Rewriter::rule_count() const noexcept { return engine_->rules_.size(); }
void Rewriter::set_max_steps(std::uint64_t n) noexcept { engine_->max_steps_ = n; }
void Rewriter::set_trace(Trace trace) { engine_->trace_ = std::move(trace); }
void Rewriter::set_memo_limit(std::size_t entries) noexcept { engine_->memo_limit_ = entries; }
void Rewriter::set_collect_every(std::uint64_t ids) noexcept { engine_->collect_every_ = ids; }
Sexp Rewriter::normalize(const Sexp& term) { return engine_->normalize(term); }
const Rewriter::Stats& Rewriter::stats() const noexcept { return engine_->stats_; }
std::size_t Rewriter::memo_size() const noexcept { return engine_->memo_.size(); }
SexpManager& Rewriter::manager() const noexcept { return engine_->m_; }

}  // namespace vorn
