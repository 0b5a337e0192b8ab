// Allocation-failure injection. Each workload below is run again and again, with its N-th
// allocation failing for N = 1, 2, ... (every malloc call of the library and every call
// of operator new, the standard library's included), once with that call alone failing and
// once with it and every later call failing. After each failure it checks that the
// exception is std::bad_alloc, that the state is what the failed operation defines, that
// the failed step then succeeds and asks for the same memory again, and that the workload
// finishes with the same results. Once the handles are gone, the slots still in use must
// be exactly the canonical nodes and those defined to stay held; a leak once the manager
// is destroyed is LeakSanitizer's and memcheck's to report.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/internals.hpp"
#include "support/malloc_probe.hpp"
#include "vorn/vorn.hpp"

namespace vorn {
namespace {

using I = detail::SexpManagerInternals;
using test::MallocProbe;
constexpr std::size_t node_chunk_bytes = 8 + 1024 * 32;  // no other allocation here has this size

// Expressions of another manager, and their binary data, made before any call is counted.
struct Elsewhere {
  SexpManager m;
  std::vector<Sexp> roots;
  std::string saved;
};
const Elsewhere& elsewhere();

// What a workload holds. Its own containers are reserved before any call is counted.
struct World {
  std::optional<SexpManager> m;
  std::vector<Sexp> h;
  std::vector<unsigned long> ids;
  std::optional<SexpMatcher> mt;
  std::string out;  // what the steps produced, with ids and counts masked
  std::string saved;  // binary data
  std::size_t k = 0;
  World() { h.reserve(1200), ids.reserve(100), out.reserve(1 << 20), saved.reserve(1 << 16), elsewhere(); }

  // A node left behind by a failure shifts later ids and counts: (hex) digits are masked.
  // A step's output goes out whole or not at all, since a failed step is run again.
  void put(const std::string& text) {
    for (char c : text) {
      const bool digit = std::isxdigit(static_cast<unsigned char>(c)) != 0;
      if (!digit || out.empty() || out.back() != '#') out += digit ? '#' : c;
    }
  }
  // put() of what `write` writes to a stream, which reports a failed write by its state.
  template <class Write>
  void write(Write write) {
    std::ostringstream os;
    write(os);
    if (os.bad()) throw std::bad_alloc();
    put(os.str());
  }
  void build(const std::string& text) {
    for (const Sexp& e : parse_all(*m, text)) h.push_back(e);
  }
};

// What a failed step may leave behind; everything else must be as before it:
// new canonical nodes (they live as long as the manager); one node whose entry in the
// shared table failed (it keeps its slot and id); new names, one of them listed without
// a table entry; changed counts on the handles held (a matcher holds references); fewer
// canonical nodes (automatic collection ran before the failure).
enum Allow : unsigned {
  fixed = 0,
  canonical = 1,
  strand = 2,
  names = 4,
  counts = 8,
  collected = 16
};
constexpr unsigned sharing = strand | counts, building = 15;

struct Step {
  unsigned allow;
  void (*run)(World&);
  int times = 1;
};
struct Workload {
  const char* name;
  std::vector<Step> steps;  // after the manager's construction, which is the first step
};
void PrintTo(const Workload& wl, std::ostream* os) { *os << wl.name; }

void intern(World& w) {
  static const char* const stems[] = {"a", "bar|s", "x y", "\\", "#", "(", "a-rather-longer-name-"};
  char name[64];
  std::snprintf(name, sizeof name, "%s%zu", stems[w.ids.size() % 7], w.ids.size());
  w.ids.push_back(w.m->make_symbol(name));
}
void extend(World& w) {  // the list of h[0], ... h[k % 60], ... over and over
  w.h.push_back(w.m->sh_cons(w.h[w.k % 60], w.k != 0 ? w.h.back() : w.m->nil()));
  ++w.k;
}
std::string texts(const std::vector<Sexp>& es) {
  std::string s;
  for (const Sexp& e : es) s += to_text(e);
  return s;
}
void write_all(World& w) { w.put(texts(w.h)); }  // every expression held, as text
void put_error(World& w, const std::string& text) {  // the message of reading `text`
  try {
    parse(*w.m, text);
  } catch (const ParseError& e) {
    w.put(e.what());
  }
}
std::string words(const char* before, int from, int to, const char* after) {
  std::string s;
  for (int i = from; i < to; ++i) s += before + std::to_string(i) + after;
  return s;
}
const std::string deep = words("(n", 0, 40, " (p q) ") + std::string(40, ')');
const std::string pattern = "(f X0 (g X1 X1) " + words("X", 3, 30, " ") + words("(k", 0, 30, " ") +
                            "X0" + std::string(31, ')');
const std::string expr =
    "(f a (g b b) " + words("c", 3, 30, " ") + words("(k", 0, 30, " ") + "a" + std::string(31, ')');
const std::string matched =
    words("X", 0, 30, " ") + pattern + expr + "(f X0 X0 X0) (g X1) X2 (r X1 (s X2))";
std::string labelled() {  // a list of 24 shared lists, each labelled and referred to once
  std::string s = "(";
  for (int i = 0; i < 24; ++i) {
    const std::string n = std::to_string(i);
    s += "#" + n + "=(x" + n + ") #" + n + "# ";
  }
  return s + ")";
}
const std::string assorted = "; note\n(a b . c) () |x\\|y| #42 (|| |#7| \\\\z)" + pattern;

const Elsewhere& elsewhere() {
  static Elsewhere e;
  if (e.roots.empty()) {
    e.roots = parse_all(e.m, "(other \"s\" #5 |x y|) (a (b c)) " + deep);
    std::ostringstream os;
    save(os, e.roots);
    e.saved = os.str();
  }
  return e;
}

const std::vector<Workload> workloads = {
    {"PlainNodes",
     {{fixed, [](World& w) { w.h.push_back(w.m->sym(w.h.size() + 1)); }, 1023},
      {fixed, [](World& w) { w.h.push_back(w.m->cons(w.h[0], w.h[1])); }},  // a second chunk
      // The second chunk has room: no allocation until the text is written.
      {fixed, [](World& w) { w.h.push_back(w.m->cons(w.h.back(), w.m->nil())); }},
      {fixed, [](World& w) { w.h.back().setcar(w.h[2]); }},
      {fixed, [](World& w) { w.h[1023].setcdr(w.h[3]); }},
      {fixed, [](World& w) { w.m->free_sexp(w.m->alloc_sexp()); }},
      {fixed, [](World& w) { w.h.resize(900); }},
      {fixed, [](World& w) { w.h.push_back(w.m->cons(w.h[5], w.m->cons(w.h[6], w.h[7]))); }},
      {fixed, [](World& w) { w.put(to_text(w.h.back())); }}}},
    {"Interning",
     {{names, intern, 80},
      {fixed, [](World& w) { w.out += w.m->get_symbol_value(w.ids[w.k++]); }, 80}}},
    {"SharedNodes",  // past the first chunk's 1024 nodes: sh_cons then needs a slot
     {{sharing, [](World& w) { w.h.push_back(w.m->sh_sym(w.h.size() + 1)); }, 1000},
      {sharing, extend, 70},
      {fixed, [](World& w) { w.k = 0; }},
      {sharing, extend, 70},
      {fixed, [](World& w) { w.put(w.h[1069] == w.h.back() ? "same" : "new"); }},
      {fixed, [](World& w) { w.put(w.m->sh_sym(9) == w.h[8] ? "same" : "new"); }}}},
    {"Printing",
     {{building, [](World& w) { w.build(deep); }},
      {fixed, [](World& w) { w.write([&](std::ostream& os) { os << w.h[0]; }); }},
      {fixed, [](World& w) { w.write([&](std::ostream& os) { w.h[0].print(os << std::hex); }); }},
      {fixed, [](World& w) { w.put(w.h[0].debug_to_str()); }},
      {fixed, [](World& w) { w.put(to_text(w.h[0])); }},
      {fixed, [](World& w) { w.write([&](std::ostream& os) { write_text(os, w.h[0]); }); }}}},
    {"MatchingAndInstantiation",
     {{building, [](World& w) { w.build(matched); }},
      {counts, [](World& w) { w.mt.emplace(std::vector<Sexp>(w.h.begin(), w.h.begin() + 20)); }},
      {counts, [](World& w) { w.mt->add_var(w.h[20 + w.k]), ++w.k; }, 10},  // k on success
      {counts, [](World& w) { w.mt->put(w.h[3], w.h[31]); }},
      {counts, [](World& w) { w.put(to_text(w.mt->get(w.h[3]))); }},
      {counts, [](World& w) { w.mt->erase(w.h[3]); }},
      {counts, [](World& w) { w.put(w.mt->match(w.h[32], w.h[31]) ? "T" : "F"); }},
      {counts,
       [](World& w) {
         w.out += "ABCDE"[w.mt->match({w.h.end() - 4, w.h.end()}, w.h[31])];
       }},
      {counts, [](World& w) { w.put(w.mt->match(w.h[30], w.h[31]) ? "T" : "F"); }},
      {building, [](World& w) { w.put(instantiate(*w.m, w.h[30], *w.mt) == w.h[31] ? "=" : "!"); }},
      {building, [](World& w) { w.put(to_text(instantiate(*w.m, w.h[35], *w.mt))); }}}},
    {"Collecting",  // collect, rebuild, then build and churn across growth points in automatic mode
     {{sharing, [](World& w) { w.h.push_back(w.m->sh_sym(w.h.size() + 1)); }, 100},
      {sharing, extend, 70},
      {fixed, [](World& w) { w.h.resize(50), w.k = 0; }},
      {fixed, [](World& w) { w.put(std::to_string(w.m->collect())); }},
      {sharing, extend, 70},
      {fixed, [](World& w) { w.m->set_auto_collect(true); }},
      {sharing | collected,  // a growth point with every entry held
       [](World& w) { w.h.push_back(w.m->sh_sym(w.h.size() + 1000)); }, 150},
      {sharing | collected,
       [](World& w) {
         w.h.push_back(w.m->sh_cons(w.h[w.k % 50], w.h[w.k / 50 % 50]));
         if (++w.k % 4 != 0) w.h.pop_back();
       },
       1000},
      {fixed, write_all}}},
    {"WrappingIds",  // the counter reaches its end twice: two snapshots of the live ids
     {{sharing, [](World& w) { w.h.push_back(w.m->sh_sym(w.h.size() + 1)); }, 10},
      {fixed, [](World& w) { I::set_next_id(*w.m, 0xFFFFFFF0u); }},
      {sharing, extend, 40},
      {fixed, [](World& w) { w.h.resize(20), w.k = 0; }},
      {fixed, [](World& w) { I::set_next_id(*w.m, 0xFFFFFFF0u); }},
      {sharing, extend, 40},
      {fixed, write_all}}},
    // Text read and written, then new nodes from another manager's data and nodes, then our own.
    {"ParsingBinaryAndCopy",
     {{building, [](World& w) { w.build(assorted); }},
      {fixed, write_all},
      {building, [](World& w) { w.put(to_text(parse(*w.m, deep))); }},
      {fixed, [](World& w) { put_error(w, "(a (b"); }},
      {building,
       [](World& w) {
         std::istringstream is(elsewhere().saved);
         w.put(texts(load(*w.m, is)));
       }},
      {building, [](World& w) { w.put(texts(copy(*w.m, elsewhere().roots))); }},
      {fixed,
       [](World& w) {
         std::ostringstream os;
         save(os, w.h);
         if (os.bad()) throw std::bad_alloc();
         w.saved = os.str();
       }},
      {building,
       [](World& w) {
         std::istringstream is(w.saved);
         w.put(load(*w.m, is) == w.h ? "same" : "other");
       }},
      {building, [](World& w) { w.put(copy(*w.m, w.h) == w.h ? "same" : "other"); }}}},
    {"Labels",
     {{building, [](World& w) { w.build(labelled()); }},
      {fixed, [](World& w) { w.put(to_text(w.h[0], {Dialect::scheme, true, 9, 1, true})); }},
      // A label's scope ends with its expression.
      {fixed, [](World& w) { put_error(w, labelled() + "#0#"); }}}},
};

// The state a failed step may change only as its Allow says: the next id, the canonical nodes,
// the entries and the names of the name table, then the counts of the first 32 handles held.
using Snap = std::array<std::int64_t, 36>;
Snap snap(World& w) {
  Snap s{};
  if (!w.m) return s;
  s = {I::next_id(*w.m), std::int64_t(I::shared_size(*w.m)), std::int64_t(I::symbol_size(*w.m)),
       std::int64_t(I::name_count(*w.m))};
  for (std::size_t i = 0; i < 32 && i < w.h.size(); ++i) s[4 + i] = w.h[i].get()->refcount;
  return s;
}

// Checks the state a failed step left against `before`; returns the nodes it stranded.
std::size_t check_failed(World& w, const Snap& before, unsigned allow) {
  if (!w.m) return 0;  // construction failed: no manager exists
  const Snap after = snap(w);
  const std::int64_t canonical = after[1] - before[1];
  const auto ids_taken =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(after[0] - before[0]));
  const std::int64_t stranded = ids_taken - std::max<std::int64_t>(canonical, 0);
  const std::int64_t entries = after[2] - before[2], listed = after[3] - before[3] - entries;
  EXPECT_TRUE((allow & Allow::canonical && canonical >= 0) ||
              (allow & collected && canonical <= 0) || canonical == 0)
      << canonical << " canonical";
  EXPECT_TRUE(stranded == 0 || (allow & strand && stranded == 1)) << stranded << " ids taken";
  EXPECT_TRUE(allow & names ? entries >= 0 && (listed == 0 || listed == 1)
                            : entries == 0 && listed == 0)
      << entries << " names entered, " << listed << " more listed";
  EXPECT_TRUE(allow & counts || std::equal(&after[4], after.end(), &before[4])) << "counts changed";
  for (unsigned long id : w.ids) EXPECT_EQ(w.m->make_symbol(w.m->get_symbol_value(id)), id);
  return stranded > 0 ? std::size_t(stranded) : 0;
}

// Runs `wl` with call `fail` (0-based) failing, alone or with every later one; returns the
// number of calls made and the workload's output.
std::pair<std::size_t, std::string> run(const Workload& wl, std::size_t fail, bool onwards) {
  World w;
  std::vector<Step> steps{{fixed, [](World& w) { w.m.emplace(); }}};
  steps.insert(steps.end(), wl.steps.begin(), wl.steps.end());
  MallocProbe probe(true);
  probe.fail_at(fail, onwards ? MallocProbe::forever : 1);
  std::size_t stranded = 0, dead_chunks = 0;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    for (int t = 0; t < steps[i].times; ++t) {
      const Snap before = snap(w);
      const std::size_t failures = probe.failures();
      bool threw = false;
      try {
        steps[i].run(w);
      } catch (const std::bad_alloc&) {  // any other exception fails the test as it passes
        threw = true;
      }
      const bool failed = probe.failures() != failures;
      if (!threw && !failed) continue;
      probe.fail_at(0, 0);  // everything from here on succeeds
      EXPECT_EQ(threw, failed) << "step " << i << (threw ? " threw unprompted" : " hid a failure");
      if (!threw) continue;
      SCOPED_TRACE("failed in step " + std::to_string(i) + " (" + std::to_string(t) + ")");
      stranded += check_failed(w, before, steps[i].allow);
      if (!w.m) dead_chunks = probe.granted(node_chunk_bytes);  // freed with the failed manager
      const std::size_t retry = probe.calls();
      steps[i].run(w);  // the manager is fully usable: the step now succeeds
      bool asked_again = false;
      for (auto c = retry; c < probe.calls(); ++c) asked_again |= probe.size(c) == probe.size(fail);
      EXPECT_TRUE(asked_again) << "the retry never asked for " << probe.size(fail) << " bytes";
    }
  }
  w.mt.reset(), w.h.clear();
  const std::size_t in_use =
      (probe.granted(node_chunk_bytes) - dead_chunks) * 1024 - I::free_slots(*w.m);
  EXPECT_EQ(in_use, I::shared_size(*w.m) + stranded) << "slots in use once every handle is gone";
  return {probe.calls(), w.out};
}

class AllocFailure : public testing::TestWithParam<Workload> {};

TEST_P(AllocFailure, EveryAllocationFailsInTurn) {
  run(GetParam(), MallocProbe::forever, false);  // the standard library's one-time set-up
  const auto clean = run(GetParam(), MallocProbe::forever, false);
  ASSERT_LT(clean.first, MallocProbe::capacity / 2);
  std::printf("[ points   ] %s: %zu allocation calls\n", GetParam().name, clean.first);
  for (std::size_t n = 0; n < clean.first && !HasFailure(); ++n) {
    for (bool onwards : {false, true}) {
      SCOPED_TRACE("call " + std::to_string(n) + (onwards ? " and later ones fail" : " fails"));
      EXPECT_EQ(run(GetParam(), n, onwards).second, clean.second) << "results after recovering";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Workloads, AllocFailure, testing::ValuesIn(workloads),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace vorn
