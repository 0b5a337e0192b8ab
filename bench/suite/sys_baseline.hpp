// The hand-written baseline: what a C++ user writes without a library. Nodes live in
// std::shared_ptr, sharing goes through a std::unordered_map keyed by the child pair, names
// through a std::unordered_map<std::string, id>. Each piece is the idiomatic one, with the
// usual care taken (one hash per request via try_emplace, a loop rather than recursion
// when a list is dropped, an explicit stack when a pattern is matched).
#ifndef VORN_BENCH_SUITE_SYS_BASELINE_HPP
#define VORN_BENCH_SUITE_SYS_BASELINE_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace bench {

struct BaselineNode {
  std::uint32_t id;
  std::uint64_t symbol;                       // a leaf's name id; 0 in a cons
  std::shared_ptr<BaselineNode> car, cdr;     // null in a leaf

  BaselineNode(std::uint32_t i, std::uint64_t s, std::shared_ptr<BaselineNode> a,
               std::shared_ptr<BaselineNode> d)
      : id(i), symbol(s), car(std::move(a)), cdr(std::move(d)) {}
  BaselineNode(const BaselineNode&) = delete;
  BaselineNode& operator=(const BaselineNode&) = delete;

  // Drops the chain of cdr cells that only this node holds one cell at a time, so that
  // a long list does not recurse once per cell (only car subtrees recurse).
  ~BaselineNode() {
    std::shared_ptr<BaselineNode> next = std::move(cdr);
    while (next && next.use_count() == 1) {
      std::shared_ptr<BaselineNode> after = std::move(next->cdr);
      next = std::move(after);
    }
  }
  bool is_leaf() const noexcept { return car == nullptr; }
};

struct BaselineSystem {
  static constexpr const char* name = "baseline";
  using Ref = std::shared_ptr<BaselineNode>;

  struct PairHash {
    std::size_t operator()(const std::pair<const BaselineNode*, const BaselineNode*>& p) const noexcept {
      std::size_t h = std::hash<const BaselineNode*>()(p.first);
      return h ^ (std::hash<const BaselineNode*>()(p.second) + 0x9E3779B9u + (h << 6) + (h >> 2));
    }
  };

  std::uint32_t next_id = 0;
  std::unordered_map<std::string, std::uint64_t> ids;
  std::vector<const std::string*> names;  // id -> name (keys of `ids` do not move)
  std::unordered_map<std::uint64_t, Ref> leaves;
  std::unordered_map<std::pair<const BaselineNode*, const BaselineNode*>, Ref, PairHash> shared;
  Ref nil_node;

  BaselineSystem() {
    intern("");
    nil_node = symbol_node(0);
  }

  std::uint64_t intern(const char* s) {
    auto r = ids.try_emplace(std::string(s), names.size());
    if (r.second) names.push_back(&r.first->first);
    return r.first->second;
  }

  Ref symbol_node(std::uint64_t symbol) {
    Ref& slot = leaves[symbol];
    if (!slot) slot = std::make_shared<BaselineNode>(next_id++, symbol, nullptr, nullptr);
    return slot;
  }

  Ref leaf(std::uint32_t i) { return symbol_node(intern(("leaf" + std::to_string(i)).c_str())); }

  Ref share(const Ref& car, const Ref& cdr) {
    auto r = shared.try_emplace({car.get(), cdr.get()});
    if (r.second) r.first->second = std::make_shared<BaselineNode>(next_id++, 0, car, cdr);
    return r.first->second;
  }
  Ref cons(const Ref& car, const Ref& cdr) {
    return std::make_shared<BaselineNode>(next_id++, 0, car, cdr);
  }
  Ref nil() { return nil_node; }
  static bool same(const Ref& a, const Ref& b) { return a == b; }

  // ---- matching and printing -----------------------------------------------------------
  Ref symbol(const std::string& name) { return symbol_node(intern(name.c_str())); }
  Ref list(const std::vector<Ref>& xs) {
    Ref tail = nil();
    for (auto it = xs.rbegin(); it != xs.rend(); ++it) tail = share(*it, tail);
    return tail;
  }

  // Same rules as vorn's matcher: declared symbols are variables, bound on first sight and
  // compared by identity afterwards; other symbols must be equal; conses meet conses.
  struct Matcher {
    std::unordered_set<std::uint64_t> vars;
    std::unordered_map<std::uint64_t, const BaselineNode*> bindings;
    std::vector<std::pair<const BaselineNode*, const BaselineNode*>> stack;

    explicit Matcher(const std::vector<Ref>& variables) {
      for (const Ref& v : variables) vars.insert(v->symbol);
    }
    bool match(const Ref& pattern, const Ref& expr) {
      bindings.clear();
      stack.clear();
      stack.emplace_back(pattern.get(), expr.get());
      while (!stack.empty()) {
        const auto [p, e] = stack.back();
        stack.pop_back();
        if (p->is_leaf() && vars.count(p->symbol) != 0) {
          auto r = bindings.try_emplace(p->symbol, e);
          if (!r.second && r.first->second != e) return false;
          continue;
        }
        if (p->is_leaf() != e->is_leaf()) return false;
        if (p->is_leaf()) {
          if (p->symbol != e->symbol) return false;
          continue;
        }
        stack.emplace_back(p->cdr.get(), e->cdr.get());
        stack.emplace_back(p->car.get(), e->car.get());
      }
      return true;
    }
    std::uint64_t match(const std::vector<Ref>& patterns, const Ref& expr) {
      for (std::size_t i = 0; i < patterns.size(); ++i) {
        if (match(patterns[i], expr)) return i;
      }
      return patterns.size();
    }
  };

  // The same diagnostic text as vorn's (ids, counts, names, back-references), written the
  // way one writes it by hand: recursion and one stream insertion per piece.
  void print(const Ref& e, std::ostream& os) {
    std::unordered_set<const BaselineNode*> printed;
    write(e, 0, printed, os);
  }

 private:
  static void indent(std::ostream& os, unsigned depth) {
    for (unsigned i = 0; i < depth; ++i) os << "  ";
  }
  void write(const Ref& n, unsigned depth, std::unordered_set<const BaselineNode*>& printed,
             std::ostream& os) {
    if (printed.count(n.get()) != 0) {
      indent(os, depth);
      os << '@' << n->id;
      return;
    }
    indent(os, depth);
    os << '{' << n->id << "}[" << n.use_count() << ']';  // holders, the map's included
    if (n->is_leaf()) {
      os << '<' << n->symbol << ">|";
      for (char c : *names[n->symbol]) {
        if (c == '|') os << '\\';
        os << c;
      }
      os << '|';
      printed.insert(n.get());
      return;
    }
    os << "(cons\n";
    write(n->car, depth + 1, printed, os);
    indent(os, depth);
    os << '\n';
    write(n->cdr, depth + 1, printed, os);
    os << '\n';
    indent(os, depth);
    os << ')';
    printed.insert(n.get());
  }
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_SYS_BASELINE_HPP
