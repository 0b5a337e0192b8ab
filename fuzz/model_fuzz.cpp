// Model-based fuzzing: the input is decoded into operations on one manager (names, plain
// and shared nodes, handle copies and drops, setcar/setcdr on plain conses, printing,
// matching, writing and reading back, collecting), and every result is checked against a model that
// keeps the same expressions as plain records: equal shapes give one canonical node,
// every count equals the holders the model counts, the printed text is the model's, and
// a naive recursive matcher gives the same verdicts and bindings.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/internals.hpp"
#include "vorn/vorn.hpp"

namespace {

using namespace vorn;
using I = detail::SexpManagerInternals;

#define CHECK(c) \
  ((c) ? (void)0 \
       : (std::fprintf(stderr, "model mismatch, line %d: %s\n", __LINE__, #c), std::abort()))

struct Node {
  bool sym;
  std::uint64_t value;
  int car, cdr;  // model indices
  Sexp_* real;
  bool canonical;
};
using Shape = std::tuple<bool, std::uint64_t, int, int>;
constexpr int slots = 8;

struct Model {
  SexpManager m;
  std::vector<Node> nodes{{true, 0, -1, -1, m.nil().get(), true}};
  std::map<Shape, int> canon{{Shape{true, 0, -1, -1}, 0}};
  std::vector<std::string> names{""};
  int slot[slots] = {-1, -1, -1, -1, -1, -1, -1, -1};
  Sexp h[slots];

  // Expected counts: a node is held by each handle, by the shared table when canonical
  // (and by the manager itself for nil), and by every live cons that has it as a child.
  std::vector<std::uint32_t> holders() {
    std::vector<std::uint32_t> want(nodes.size(), 0);
    std::vector<char> live(nodes.size(), 0);
    std::vector<int> todo{0};
    want[0] = 1;
    for (const auto& c : canon) todo.push_back(c.second), ++want[c.second];
    for (int s : slot)
      if (s >= 0) todo.push_back(s), ++want[s];
    while (!todo.empty()) {
      const int n = todo.back();
      todo.pop_back();
      if (live[n]++ || nodes[n].sym) continue;
      ++want[nodes[n].car], ++want[nodes[n].cdr];
      todo.push_back(nodes[n].car), todo.push_back(nodes[n].cdr);
    }
    for (std::size_t n = 0; n < nodes.size(); ++n) {
      if (live[n]) CHECK(nodes[n].real->refcount == want[n] && nodes[n].real->mgr == &m);
    }
    return want;
  }

  void text(int n, unsigned depth, std::set<int>& done, const std::vector<std::uint32_t>& want,
            std::string& out) {
    const Node x = nodes[n];
    const std::string indent(2 * depth, ' ');
    out += indent + (done.count(n) ? "@" : "{") + std::to_string(x.real->id);
    if (done.count(n)) return;
    out += "}[" + std::to_string(want[n]) + "]";
    if (x.sym) {
      const bool named = x.value < names.size();
      out += "<" + std::to_string(x.value) + (named ? ">|" : ">?");
      for (char c : named ? names[x.value] : "") out += c == '|' ? "\\|" : std::string(1, c);
      if (named) out += "|";
    } else {
      out += "(cons\n";
      text(x.car, depth + 1, done, want, out);
      out += indent + "\n";
      text(x.cdr, depth + 1, done, want, out);
      out += "\n" + indent + ")";
    }
    done.insert(n);
  }

  // Whether `to` lies in `from`'s graph; with `cap`, whether `from` written out as a tree
  // (shared parts repeated) has more than `cap` nodes.
  bool reaches(int from, int to, std::size_t cap = 0) {
    std::vector<char> seen(nodes.size(), 0);
    std::vector<int> todo{from};
    for (std::size_t k = 0; !todo.empty(); ++k) {
      const int n = todo.back();
      todo.pop_back();
      if (n == to || (cap != 0 && k > cap)) return true;
      if ((cap == 0 && seen[n]++) || nodes[n].sym) continue;
      todo.push_back(nodes[n].car), todo.push_back(nodes[n].cdr);
    }
    return false;
  }

  // Which nodes are alive: reachable from nil, the handles and, with `table`, the
  // canonical nodes. Returns how many.
  std::size_t live(bool table, std::vector<char>& seen) {
    seen.assign(nodes.size(), 0);
    std::vector<int> todo{0};
    if (table)
      for (const auto& c : canon) todo.push_back(c.second);
    for (int s : slot)
      if (s >= 0) todo.push_back(s);
    std::size_t n = 0;
    while (!todo.empty()) {
      const int x = todo.back();
      todo.pop_back();
      if (seen[x]++) continue;
      ++n;
      if (!nodes[x].sym) todo.push_back(nodes[x].car), todo.push_back(nodes[x].cdr);
    }
    return n;
  }

  bool naive(int p, int e, const std::set<std::uint64_t>& vars,
             std::map<std::uint64_t, int>& bound) {
    const Node &P = nodes[p], &E = nodes[e];
    if (P.sym && vars.count(P.value)) return bound.emplace(P.value, e).first->second == e;
    if (P.sym || E.sym) return P.sym == E.sym && P.value == E.value;
    return naive(P.car, E.car, vars, bound) && naive(P.cdr, E.cdr, vars, bound);
  }

  // The index of `x`, which is node `x.real`: for a canonical `x` whose shape the model has,
  // that shape's node (which `x.real` must be), else a new entry.
  int enter(const Node& x) {
    const Shape shape{x.sym, x.value, x.car, x.cdr};
    const auto found = x.canonical ? canon.find(shape) : canon.end();
    if (found != canon.end()) return CHECK(nodes[found->second].real == x.real), found->second;
    nodes.push_back(x);
    const int n = int(nodes.size() - 1);
    if (x.canonical) canon[shape] = n;
    return n;
  }

  // The canonical node of `n`'s shape, which `r` must be; enters shapes the model lacks.
  int intern(int n, Sexp_* r) {
    const Node x = nodes[n];
    CHECK(r->is_symbol == x.sym && (!x.sym || r->value == x.value));
    const int car = x.sym ? -1 : intern(x.car, r->car), cdr = x.sym ? -1 : intern(x.cdr, r->cdr);
    return enter({x.sym, x.sym ? x.value : 0, car, cdr, r, true});
  }

  // Puts a node made by `make` (plain, or shared when `x.canonical`) into slot d. Only a
  // new node takes an id.
  template <class Make>
  void made(int d, Node x, Make make) {
    const std::uint32_t id = I::next_id(m);
    const bool hit = x.canonical && canon.count(Shape{x.sym, x.value, x.car, x.cdr}) != 0;
    x.real = (h[d] = make()).get();
    CHECK(hit ? I::next_id(m) == id : x.real->id == id && I::next_id(m) == id + 1);
    slot[d] = enter(x);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Model md;
  std::size_t at = 0;
  const auto next = [&] { return at < size ? data[at++] : std::uint8_t{0}; };
  while (at < size) {
    const int op = next() % 13, a = next() % slots, b = next() % slots, d = next() % slots;
    const int pa = md.slot[a], pb = md.slot[b];
    const std::uint64_t v = next() % 12;
    // Matching and writing walk expressions as trees: keep those small.
    const auto small = [&md](int n) { return n >= 0 && !md.reaches(n, -1, 5000); };
    if (op == 0) {
      std::string name;
      for (int n = next() % 5; n > 0; --n) name += "ab|\\ (#.)x;"[next() % 11];
      auto& names = md.names;
      const unsigned long want = std::find(names.begin(), names.end(), name) - names.begin();
      if (want == names.size()) names.push_back(name);
      CHECK(md.m.make_symbol(name.c_str()) == want && md.m.get_symbol_value(want) == names[want]);
    } else if (op == 1 || op == 3) {
      md.made(d, {true, v, -1, -1, nullptr, op == 3},
              [&] { return op == 3 ? md.m.sh_sym(v) : md.m.sym(v); });
    } else if ((op == 2 || op == 4) && pa >= 0 && pb >= 0) {
      md.made(d, {false, 0, pa, pb, nullptr, op == 4}, [&] {
        return op == 4 ? md.m.sh_cons(md.h[a], md.h[b]) : md.m.cons(md.h[a], md.h[b]);
      });
    } else if (op == 5) {
      md.h[d] = md.h[a], md.slot[d] = pa;
    } else if (op == 6) {
      md.h[a] = Sexp(), md.slot[a] = -1;
    } else if (op == 7 && pa >= 0 && pb >= 0 && !md.nodes[pa].sym && !md.nodes[pa].canonical &&
               !md.reaches(pb, pa)) {  // setcar/setcdr are for plain conses only, making no cycle
      if (v % 2 == 0) md.h[a].setcar(md.h[b]), md.nodes[pa].car = pb;
      if (v % 2 == 1) md.h[a].setcdr(md.h[b]), md.nodes[pa].cdr = pb;
    } else if (op == 8 && pa >= 0 && md.nodes.size() < 400) {
      std::set<int> done;
      std::string want;
      md.text(pa, 0, done, md.holders(), want);
      CHECK(md.h[a].debug_to_str() == want);
    } else if (op == 9 && small(pa)) {
      const Sexp back = parse(md.m, to_text(md.h[a]));
      md.intern(pa, back.get());
    } else if ((op == 10 || op == 11) && small(pa) && small(pb) &&
               (md.slot[d] < 0 || small(md.slot[d]))) {
      std::set<std::uint64_t> vars;
      std::vector<Sexp> keys, patterns{md.h[a]};
      for (std::uint64_t i = 0; i < 8; ++i) {
        keys.push_back(md.m.sym(i));
        if (v >> (i % 4) & 1 && (i < 4) == (d % 2 == 0)) vars.insert(i);
      }
      SexpMatcher mt;
      for (std::uint64_t var : vars) mt.add_var(keys[var]);
      if (op == 11 && md.slot[d] >= 0) patterns.push_back(md.h[d]);
      std::map<std::uint64_t, int> bound;  // the naive bindings of the last pattern tried
      std::size_t want = 0;
      for (; want < patterns.size(); ++want) {
        bound.clear();
        if (md.naive(md.slot[want == 0 ? a : d], pb, vars, bound)) break;
      }
      CHECK((op == 11 ? mt.match(patterns, md.h[b]) : !mt.match(md.h[a], md.h[b])) == want);
      for (std::uint64_t i = 0; i < 8; ++i)
        CHECK(mt.get(keys[i]).get() == (bound.count(i) ? md.nodes[bound[i]].real : nullptr));
    } else if (op == 12) {  // gives back what only the table holds, and what only that held
      std::vector<char> before, after;
      const std::size_t dying = md.live(true, before) - md.live(false, after);
      CHECK(md.m.collect() == dying);
      for (auto c = md.canon.begin(); c != md.canon.end();)
        c = after[c->second] ? std::next(c) : md.canon.erase(c);
    }
    md.holders();
  }
  return 0;
}
