#include "rewriter.hpp"

#include <algorithm>
#include <string>

#include "vorn/expr/instantiate.hpp"

namespace vorn::tool {

namespace {

// The id the manager hands out next, taken without using it up: a fresh node has the
// shape of nil (a symbol of value 0), so sharing it is a hit, which gives its id and its
// slot back.
std::uint32_t next_id(SexpManager& m) {
  Sexp_* fresh = m.alloc_sexp();
  const std::uint32_t id = fresh->id;
  Sexp probe(fresh);  // the handle takes a reference ...
  fresh->release();   // ... and now holds the only one
  m.strhash(probe);
  return id;
}

}  // namespace

bool is_variable(const SexpManager& m, const Sexp_* node) {
  if (node->is_symbol == 0) return false;
  const char* name = m.get_symbol_value(node->value);
  return name != nullptr && name[0] == '?';
}

std::vector<Sexp> variables_of(const SexpManager& m, const Sexp& e) {
  std::vector<Sexp> vars;
  std::vector<Sexp> todo{e};
  while (!todo.empty()) {
    Sexp n = todo.back();
    todo.pop_back();
    if (!n.is_symbol()) {
      todo.push_back(n.cdr());
      todo.push_back(n.car());
    } else if (is_variable(m, n.get()) && std::find(vars.begin(), vars.end(), n) == vars.end()) {
      vars.push_back(n);  // patterns have few variables: a linear search is the cheapest
    }
  }
  return vars;
}

StepLimitExceeded::StepLimitExceeded(std::uint64_t limit)
    : std::runtime_error("no normal form within " + std::to_string(limit) + " rule applications"),
      limit_(limit) {}

void Rewriter::add_rule(const Sexp& pattern, const Sexp& replacement) {
  const std::vector<Sexp> bound = variables_of(m_, pattern);
  for (const Sexp& v : variables_of(m_, replacement)) {
    if (std::find(bound.begin(), bound.end(), v) == bound.end()) {
      throw std::invalid_argument(std::string(m_.get_symbol_value(v.value())) +
                                  " in the replacement is not bound by the pattern");
    }
  }
  patterns_.push_back(pattern);
  replacements_.push_back(replacement);
  for (const Sexp& v : bound) matcher_.add_var(v);
}

// One term being normalised. Stages: Elements walks the spine of a list, visiting each
// element and a dotted tail; Match tries the rules on the term rebuilt from their normal
// forms (on the term itself for a symbol); Replaced waits for the normal form of the
// replacement of the rule that fired.
struct Rewriter::Frame {
  enum Stage { Elements, Match, Replaced };
  Sexp term;         // the node this frame normalises
  Sexp current;      // Match, Replaced: the term the rules are tried on
  Sexp rest;         // Elements: the rest of the spine
  std::size_t base;  // size of the done stack when the frame began
  Stage stage;
  bool dotted;  // the list ends in a dotted tail, whose normal form is last on `done`
};

// Between terms: the memo brought within its limit, then the manager collected when due.
// Dropping memo entries first lets the collection take what only they held.
void Rewriter::between_terms() {
  if (memo_.size() > memo_limit_ / 2) {
    older_memo_ = std::move(memo_);
    memo_ = Memo();
  }
  if (collect_every_ == 0) return;
  const std::uint32_t id = next_id(m_);
  if (!collected_once_) {
    collected_once_ = true;
    collected_at_id_ = id;
  }
  // Modulo 2^32: right across one wrap of the counter; a second one, or a new snapshot
  // of live ids sending it back, at worst makes this collection come early.
  if (static_cast<std::uint32_t>(id - collected_at_id_) < collect_every_) return;
  m_.collect();
  ++stats_.collections;
  collected_at_id_ = id;  // collecting hands out no id
}

// The known normal form of `term`, or null. A hit in the older generation is copied into
// the current one, so that what keeps being met outlives the next retirement.
const Sexp* Rewriter::known(const Sexp& term) {
  auto hit = memo_.find(term);
  if (hit != memo_.end()) return &hit->second;
  auto older = older_memo_.find(term);
  if (older == older_memo_.end()) return nullptr;
  return &memo_.emplace(term, older->second).first->second;
}

void Rewriter::visit(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& term) {
  if (const Sexp* nf = known(term)) {
    ++stats_.memo_hits;
    done.push_back(*nf);
    return;
  }
  const bool list = !term.is_symbol();
  work.push_back(
      Frame{term, term, term, done.size(), list ? Frame::Elements : Frame::Match, false});
}

// The top frame's list rebuilt from the normal forms of its elements (and dotted tail),
// which are on `done` above its base; pops them. Every cell is made with sh_cons, so a
// result that took expected_id_, the id the manager was to hand out next, is a new node
// and any other is a sharing hit: the manager's next id is one no live node has, a hit
// gives back the id its discarded node took, and collecting hands out no id. This holds
// after the id counter wraps too (new ids then need not increase). expected_id_ is read
// again after each new node and after anything else that may make nodes (instantiating,
// tracing). Unchanged elements give back the list itself, without building.
Sexp Rewriter::rebuild(const Frame& f, std::vector<Sexp>& done) {
  bool same = true;
  std::size_t k = f.base;
  Sexp p = f.term;
  for (; !p.is_symbol(); p = p.cdr()) same = same && done[k++] == p.car();
  if (f.dotted) same = same && done[k] == p;
  Sexp list = f.term;
  if (!same) {
    std::size_t end = done.size();
    list = f.dotted ? done[--end] : m_.nil();
    while (end > f.base) {
      list = m_.sh_cons(done[--end], list);
      if (list.id() == expected_id_) {
        expected_id_ = next_id(m_);
      } else {
        ++stats_.sharing_hits;
      }
    }
  }
  done.erase(done.begin() + static_cast<std::ptrdiff_t>(f.base), done.end());
  return list;
}

// Records `nf` as the normal form of the top frame's term and of the term the rules were
// tried on, pops the frame and hands `nf` to the frame below.
void Rewriter::finish(std::vector<Frame>& work, std::vector<Sexp>& done, const Sexp& nf) {
  Frame& f = work.back();
  memo_[f.term] = nf;
  memo_[f.current] = nf;
  work.pop_back();
  done.push_back(nf);
}

Sexp Rewriter::normalize(const Sexp& term) {
  between_terms();
  const std::uint32_t first_id = next_id(m_);
  expected_id_ = first_id;
  std::uint64_t steps = 0;
  std::vector<Frame> work;
  std::vector<Sexp> done;  // normal forms of finished subterms, in visiting order
  visit(work, done, term);
  while (!work.empty()) {
    Frame& f = work.back();
    if (f.stage == Frame::Elements) {
      if (!f.rest.is_symbol()) {
        Sexp element = f.rest.car();
        f.rest = f.rest.cdr();
        visit(work, done, element);
        continue;
      }
      if (f.rest.value() != 0 && !f.dotted) {
        f.dotted = true;
        Sexp tail = f.rest;
        visit(work, done, tail);
        continue;
      }
      f.current = rebuild(f, done);
      f.stage = Frame::Match;
    }
    if (f.stage == Frame::Match) {
      const std::uint64_t rule = matcher_.match(patterns_, f.current);
      if (rule == patterns_.size()) {
        finish(work, done, f.current);
        continue;
      }
      if (steps == max_steps_) throw StepLimitExceeded(max_steps_);
      ++steps;
      ++stats_.steps;
      Sexp next = instantiate(m_, replacements_[rule], matcher_);
      if (trace_) trace_(rule, f.current, next);
      expected_id_ = next_id(m_);
      f.stage = Frame::Replaced;
      visit(work, done, next);
      continue;
    }
    Sexp nf = done.back();  // Replaced: the replacement is normalised
    done.pop_back();
    finish(work, done, nf);
  }
  stats_.nodes_made += static_cast<std::uint32_t>(next_id(m_) - first_id);  // see Stats
  return done.back();
}

}  // namespace vorn::tool
