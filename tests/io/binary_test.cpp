#include "vorn/io/binary.hpp"

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <sstream>

#include "io/bit_code.hpp"
#include "io/checksum.hpp"
#include "support/bit_instructions.hpp"
#include "support/internals.hpp"
#include "support/small_stack.hpp"
#include "vorn/io/copy.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace vorn {
namespace {

using namespace std::string_literals;
using I = detail::SexpManagerInternals;
using namespace detail::binary;

std::string saved(const std::vector<Sexp>& roots) {
  std::ostringstream os;
  save(os, roots);
  return os.str();
}
std::vector<Sexp> loaded(SexpManager& m, const std::string& data) {
  std::istringstream is(data);
  return load(m, is);
}
std::vector<std::string> texts(const std::vector<Sexp>& es) {
  std::vector<std::string> out;
  for (const Sexp& e : es) out.push_back(to_text(e));
  return out;
}

// x0 = a, x(k+1) = (x(k) . x(k)): k + 1 distinct nodes, a tree of 2^(k+1) - 1.
Sexp doubling(SexpManager& m, int k) {
  Sexp x = m.sh_sym(m.make_symbol("a"));
  while (k-- > 0) x = m.sh_cons(x, x);
  return x;
}

// n conses over `leaves` names, children drawn from all nodes before (as the benchmarks').
std::vector<Sexp> random_dag(SexpManager& m, int n, int leaves, std::uint64_t seed) {
  std::vector<Sexp> all;
  for (int i = 0; i < leaves; ++i) all.push_back(m.sh_sym(m.make_symbol(("n" + std::to_string(i)).c_str())));
  for (int i = 0; i < n; ++i) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    const auto a = (seed >> 33) % all.size(), d = (seed >> 13) % all.size();
    all.push_back(m.sh_cons(all[a], all[d]));
  }
  return all;
}

// 12000 conses, the later half collected, then 8000 made again over the nodes kept (and,
// if `over_new`, over each other too).
std::vector<Sexp> after_reuse(SexpManager& m, bool over_new) {
  std::vector<Sexp> all = random_dag(m, 12000, 30, 13);
  all.resize(6000);
  m.collect();  // their slots come back in the order of collection, not of address
  const std::size_t kept = all.size();
  for (std::uint64_t seed = 17; all.size() < kept + 8000;) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    const std::size_t from = over_new ? all.size() : kept;
    all.push_back(m.sh_cons(all[(seed >> 33) % from], all[(seed >> 13) % from]));
  }
  return all;
}

struct Generated {
  const char* name;
  std::function<std::vector<Sexp>(SexpManager&)> make;
  bool small_trees = true;  // as text
};

const Generated generated[] = {
    {"nothing", [](SexpManager&) { return std::vector<Sexp>{}; }},
    {"atoms", [](SexpManager& m) {
       // nil, a name, strings (one with NUL bytes), raw values naming nothing, one with the
       // string tag, and a root twice
       return std::vector<Sexp>{m.nil(), m.sh_sym(m.make_symbol("x")), m.sh_string(std::string("s\0t", 3)),
                                m.sh_string(""), m.sh_sym(12345), m.sh_sym(SexpManager::string_tag | 77),
                                m.sh_sym(m.make_symbol("x"))};
     }},
    {"text", [](SexpManager& m) { return parse_all(m, "(a b . c) (f (g \"x y\" #42) (a b . c) ()) |u v|"); }},
    {"doubling60", [](SexpManager& m) { return std::vector<Sexp>{doubling(m, 60)}; }, false},
    {"random dag, roots backwards", [](SexpManager& m) {
       auto all = random_dag(m, 3000, 40, 7);
       return std::vector<Sexp>(all.rbegin(), all.rend());
     }},
    {"many atoms", [](SexpManager& m) { return random_dag(m, 20000, 9000, 11); }},
    {"plain nodes", [](SexpManager& m) {  // not canonical: loading gives their canonical forms
       const Sexp a = m.sym(m.make_symbol("a")), b = m.sym(m.make_symbol("a"));
       return std::vector<Sexp>{m.cons(a, m.cons(b, a)), m.cons(a, b)};
     }},
    // Slots freed, then taken by younger conses: over older nodes only, slot order is an
    // order for the file though not id order; over each other, it is none.
    {"reused slots, children older", [](SexpManager& m) { return after_reuse(m, false); }},
    {"reused slots, children anywhere", [](SexpManager& m) { return after_reuse(m, true); }},
    {"child made after its parent", [](SexpManager& m) {  // ids give no order: depth first
       Sexp e = parse(m, "(a (b c) d)");
       e.cdr().setcar(parse(m, "(new list)"));
       return std::vector<Sexp>{e, e.cdr()};
     }},
};

void PrintTo(const Generated& g, std::ostream* os) { *os << g.name; }

class RoundTrip : public testing::TestWithParam<Generated> {};

TEST_P(RoundTrip, LoadsTheSameNodesHereAndTheSameShapesElsewhere) {
  SexpManager m;
  const std::vector<Sexp> roots = GetParam().make(m);
  const std::string data = saved(roots);
  ASSERT_TRUE(is_binary(data));
  detail::turn_off_bit_instructions(true);  // the baseline loops, whatever the processor
  EXPECT_EQ(saved(roots), data);
  detail::turn_off_bit_instructions(false);
  std::vector<Sexp> canonical;
  for (const Sexp& r : roots) canonical.push_back(copy(m, r));
  EXPECT_EQ(loaded(m, data), canonical);  // the nodes themselves, in order
  SexpManager other;
  const std::vector<Sexp> there = loaded(other, data);
  if (GetParam().small_trees) {
    EXPECT_EQ(texts(there), texts(roots));
  }
  EXPECT_EQ(there, copy(other, roots));
  for (std::size_t i = 0; i < roots.size(); ++i) {  // raw values and string atoms kept as such
    if (!roots[i].is_symbol()) continue;
    EXPECT_EQ(other.get_string(there[i].value()).has_value(), m.get_string(roots[i].value()).has_value());
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, RoundTrip, testing::ValuesIn(generated), [](const auto& info) {
  std::string s = info.param.name;
  for (char& c : s) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return s;
});

TEST(Binary, TwoManagersAndOneFileEachInOneStream) {
  SexpManager m1, m2;
  const Sexp a = parse(m1, "(f x (g y))"), b = parse(m2, "(f x (g z))");
  const Sexp mixed = m1.cons(a, b);  // nodes of both managers
  std::stringstream s;
  save(s, {mixed});
  save(s, {b, a});
  SexpManager m;
  EXPECT_EQ(texts(load(m, s)), std::vector<std::string>{"((f x (g y)) f x (g z))"});
  EXPECT_EQ(texts(load(m, s)), (std::vector<std::string>{"(f x (g z))", "(f x (g y))"}));
  EXPECT_EQ(s.peek(), EOF);
}

// Entries that name one node twice (plain duplicates, a raw value equal to a name's value
// there), loaded or copied into a fresh manager and into one that holds some of the shapes:
// equal shapes give one node, and exactly the shapes that were missing are added, as
// reading the roots' text adds. (Under asserts, entering a shape that is present aborts.)
TEST(Binary, EntriesNamingOneNodeTwiceMakeItOnce) {
  const std::function<std::vector<Sexp>(SexpManager&)> sources[] = {
      [](SexpManager& m) {  // two plain atoms "a": the first hit is an atom
        const Sexp a1 = m.sym(m.make_symbol("a")), a2 = m.sym(m.make_symbol("a"));
        const Sexp c0 = m.cons(a1, a1), c1 = m.cons(a2, a2);
        return std::vector<Sexp>{m.cons(c1, a1), m.cons(c0, a1), c0, c1};
      },
      [](SexpManager& m) {  // two plain (a . b): the first hit is a cons, after which a
        const Sexp a = m.sh_sym(m.make_symbol("a")), b = m.sh_sym(m.make_symbol("b"));
        const Sexp c0 = m.cons(a, b), c1 = m.cons(a, b);  // cons over c0 has not been made
        return std::vector<Sexp>{m.cons(c1, a), m.cons(c0, a), m.cons(b, m.cons(c0, c1))};
      },
      [](SexpManager& m) {  // raw value 2 beside the name "b", which is name 2 where loaded
        const Sexp b = m.sh_sym(m.make_symbol("b")), raw = m.sh_sym(2);
        return std::vector<Sexp>{m.sh_cons(m.sh_cons(b, b), b), m.sh_cons(m.sh_cons(raw, raw), raw)};
      },
  };
  const auto prepare = [](SexpManager& m, bool holding) {
    m.make_symbol("x");
    m.make_symbol("b");  // name 2
    return holding ? parse_all(m, "(a . a) ((b . b) . b) (a . b)") : std::vector<Sexp>{};
  };
  for (std::size_t i = 0; i < std::size(sources); ++i) {
    SexpManager from;
    const std::vector<Sexp> roots = sources[i](from);
    for (const bool holding : {false, true}) {
      for (const bool by_copy : {false, true}) {
        SCOPED_TRACE("source " + std::to_string(i) + (holding ? ", holding" : ", fresh") + (by_copy ? ", copy" : ", load"));
        SexpManager to, by_text;
        const auto held = prepare(to, holding), held_too = prepare(by_text, holding);
        const std::size_t before = I::shared_size(to), text_before = I::shared_size(by_text);
        const std::vector<Sexp> got = by_copy ? copy(to, roots) : loaded(to, saved(roots));
        std::vector<Sexp> expected;
        for (const Sexp& r : roots) expected.push_back(parse(by_text, to_text(r)));
        EXPECT_EQ(I::shared_size(to) - before, I::shared_size(by_text) - text_before);
        ASSERT_EQ(texts(got), texts(expected));
        for (std::size_t a = 0; a < got.size(); ++a)
          for (std::size_t b = 0; b < got.size(); ++b) EXPECT_EQ(got[a] == got[b], expected[a] == expected[b]);
        for (std::size_t h = 0; h < held.size(); ++h) EXPECT_EQ(parse(to, to_text(held[h])), held[h]);
      }
    }
  }
}

TEST(Binary, RandomDagCodesCloseToItsEntropy) {
  SexpManager m;
  const auto all = random_dag(m, 100000, 1024, 3);
  // Each child names one of ~i earlier nodes: 2 (log2 i - 1.44) bits, 3.79 bytes a node on
  // average; every node is a root (about 1 bit each), and the names take 5 KB.
  EXPECT_LT(static_cast<double>(saved(all).size()) / all.size(), 4.1);
}

TEST(Binary, CyclesAreRefusedAndNothingIsWritten) {
  SexpManager m;
  Sexp e = parse(m, "(a b c)");
  e.cdr().setcdr(e);
  std::ostringstream os;
  EXPECT_THROW(save(os, {e}), std::invalid_argument);
  EXPECT_THROW(copy(m, e), std::invalid_argument);
  EXPECT_EQ(os.str(), "");
  e.cdr().setcdr(m.nil());  // no leak
}

TEST(Binary, IsBinaryByTheMagicNumber) {
  EXPECT_TRUE(is_binary("\x89"));
  EXPECT_TRUE(is_binary(std::string(binary_magic) + "anything"));
  EXPECT_FALSE(is_binary(""));
  EXPECT_FALSE(is_binary("(a b)"));
  EXPECT_FALSE(is_binary(std::string(binary_magic.substr(0, 7)) + "x"));
}

TEST(Binary, MillionLongAndMillionDeepOnASmallStack) {
  test::run_on_small_stack([] {
    SexpManager m, other;
    const Sexp x = m.sh_sym(m.make_symbol("x"));
    Sexp holder = m.cons(x, x), deep = m.nil(), list = m.nil();
    for (int i = 0; i < 1000000; ++i) deep = m.sh_cons(deep, x), list = m.sh_cons(x, list);
    holder.setcar(deep);  // a child younger than its parent: everything is listed depth first
    const std::vector<Sexp> roots{holder, deep, list};
    const std::vector<Sexp> back = loaded(other, saved(roots));
    EXPECT_EQ(back, copy(other, roots));
    EXPECT_EQ(back[0].car(), back[1]);
    EXPECT_EQ(loaded(m, saved(roots)), (std::vector<Sexp>{m.sh_cons(deep, x), deep, list}));
  });
}

TEST(Binary, BuildsSafelyWhileCollectingByItself) {
  SexpManager m, other;
  const auto all = random_dag(m, 20000, 30, 5);
  other.set_auto_collect(true);
  const std::vector<Sexp> back = loaded(other, saved(all));
  other.collect();
  EXPECT_EQ(texts(back), texts(all));
  EXPECT_EQ(copy(other, all), back);
}

// ---- errors ----------------------------------------------------------------------------

// A file put together piece by piece: a header, atoms, and codes written by `codes`; the
// code size is what `codes` wrote plus `extra_code_bytes`.
struct Sink {
  std::string out;
  void bytes(const unsigned char* p, std::size_t n) { out.append(reinterpret_cast<const char*>(p), n); }
};
std::string number(std::uint64_t v) {
  std::string s;
  for (; v >= 0x80; v >>= 7) s += static_cast<char>(v | 0x80);
  return s + static_cast<char>(v);
}
std::string sealed(std::string s) {
  Checksum sum;
  sum.update(reinterpret_cast<const unsigned char*>(s.data()), s.size());
  for (int i = 0; i < 8; ++i) s += static_cast<char>(sum.value() >> (8 * i));
  return s;
}
using Codes = std::function<void(BitWriter<Sink>&)>;
std::string file(const std::string& atoms, int a, int c, int r, const Codes& codes, int extra_code_bytes = 0) {
  Sink sink;
  BitWriter<Sink> w(sink);
  codes(w);
  w.finish();
  return sealed(std::string(binary_magic) + '\1' + number(a) + number(c) + number(r) + number(atoms.size()) +
                number(sink.out.size() + extra_code_bytes) + atoms + sink.out + std::string(extra_code_bytes, '\0'));
}
// A code table where each symbol of `used` is one bit long (0, then 1).
void table(BitWriter<Sink>& w, unsigned size, std::map<unsigned, unsigned> used) {
  for (unsigned s = 0; s < size; ++s) w.put(used.count(s) ? 1 | used[s] << 1 : 0, used.count(s) ? 5 : 1);
}
// One atom "a", one cons whose car and cdr use the given child symbols, one root: a valid
// file with the default symbols (atom 0, atom 0, the cons right after no cons root).
Codes one_cons(unsigned car = 0, unsigned cdr = 0, unsigned root = 32, bool stray_bit = false) {
  return [=](BitWriter<Sink>& w) {
    table(w, child_symbols, {{car, 1}});
    table(w, child_symbols, {{cdr, 1}});
    table(w, root_symbols, {{root, 1}});
    w.put(0, 3);  // each symbol is the only one of its code: 0
    if (stray_bit) w.put(1, 1);
  };
}
const std::string atom_a = "\x04"
                           "a";
constexpr int codes_at = 16;  // header of one-byte counts (14) and atom_a

TEST(Binary, EveryErrorSaysWhatAndWhereAndLeavesNoTrace) {
  SexpManager m;
  const std::string good = file(atom_a, 1, 1, 1, one_cons());
  ASSERT_EQ(texts(loaded(m, good)), std::vector<std::string>{"(a . a)"});
  const std::string real = saved(parse_all(m, "(f \"s\" #7) (g)"));
  std::string bad_sum = real, nul = atom_a, version = real;
  bad_sum[20] ^= 4;
  version[8] = 2;
  // clang-format off
  const std::tuple<std::string, std::uint64_t, std::string> cases[] = {
      {"", 0, "unexpected end of data: expected the magic number"},
      {real.substr(0, 5), 5, "unexpected end of data: expected the magic number"},
      {"\x89vorX", 4, "not vorn binary data (wrong magic number)"},
      {"(a b)", 0, "not vorn binary data (wrong magic number)"},
      {sealed(version.substr(0, version.size() - 8)), 8, "unsupported format version 2 (this library reads version 1)"},
      {real.substr(0, 11), 11, "unexpected end of data: expected the root count"},
      {real.substr(0, real.size() - 1), real.size() - 1, "unexpected end of data: expected the " + std::to_string(real.size()) + " bytes the header announces"},
      {bad_sum, real.size() - 8, "checksum mismatch: the data is corrupted"},
      {std::string(binary_magic) + "\1\x80\x80", 11, "unexpected end of data: expected the atom count"},
      {std::string(binary_magic) + "\1\x80\x00"s, 9, "malformed number (a needless last zero byte) in the atom count"},
      {std::string(binary_magic) + "\1" + std::string(9, '\xff') + "\x02", 9, "malformed number (over 64 bits) in the atom count"},
      {std::string(binary_magic) + "\1\x02\0\0\x01\0"s, 9, "2 atoms cannot fit in the 1 bytes of the atoms"},
      {std::string(binary_magic) + "\1\0\x05\0\0\x01"s, 10, "5 conses cannot fit in the 1 bytes of the codes"},
      {std::string(binary_magic) + "\1\0\0\x09\0\x01"s, 11, "9 roots cannot fit in the 1 bytes of the codes"},
      {std::string(binary_magic) + "\1\0\0\0"s + number(1000000000) + number(1000000000), 22, "unexpected end of data: expected the 2000000030 bytes the header announces"},
      {std::string(binary_magic) + "\1" + number(std::uint64_t{1} << 31) + "\0\0"s + number(std::uint64_t{1} << 40) + "\0"s, 9, "2147483648 atoms: at most 2^31 - 1 can be read"},
      {file("\x07", 1, 0, 0, [](auto&) {}), 14, "atom 0: unknown kind 3"},
      {file("\x06\x01", 1, 0, 0, [](auto&) {}), 14, "atom 0: a raw value has no bytes"},
      {file("\x0c" "a", 1, 0, 0, [](auto&) {}), 14, "atom 0: its 3 bytes run past the end of the atoms"},
      {file(std::string("\x0c" "a\0b", 4), 1, 0, 0, [](auto&) {}), 16, "atom 0: NUL byte in name"},
      {file("\x02\x80", 1, 0, 0, [](auto&) {}), 16, "atom 0 runs past the end of its section"},
      {file(atom_a + "xy", 1, 1, 1, one_cons()), codes_at, "2 bytes left over after the atoms"},
      {file(atom_a, 1, 1, 1, [](auto& w) { table(w, child_symbols, {{0, 1}, {1, 1}, {2, 1}}); }), codes_at, "invalid car code lengths (0 or over 11 bits, or more codes than bit patterns)"},
      {file(atom_a, 1, 1, 1, [](auto& w) { w.put(1, 5); w.put(0, 32); w.put(0, 32); w.put(0, 11); }), codes_at, "invalid car code lengths (0 or over 11 bits, or more codes than bit patterns)"},
      {file(atom_a, 1, 1, 1, [](auto& w) { table(w, child_symbols, {{0, 1}}); }), codes_at + 10, "the code lengths run past the end of the codes"},
      {file(atom_a, 1, 1, 1, [](auto& w) { table(w, child_symbols, {{0, 1}}); table(w, child_symbols, {{0, 1}}); table(w, root_symbols, {{32, 1}}); w.put(1, 3); }), codes_at + 32, "cons 0: car reference: invalid code"},
      {file(atom_a, 1, 1, 1, one_cons(1)), codes_at + 32, "cons 0: car reference: out of range: an atom past the 1 atoms"},
      {file(atom_a, 1, 1, 1, one_cons(0, 32)), codes_at + 32, "cons 0: cdr reference: out of range: a cons before the first (of the 0 conses before this one; a cons refers only to atoms and earlier conses)"},
      {file(atom_a, 1, 1, 1, one_cons(0, 0, 33)), codes_at + 32, "root 0: out of range: a cons after cons -1 by 2 or more, of 1 conses"},
      {file(atom_a, 1, 1, 1, one_cons(0, 0, 64)), codes_at + 32, "root 0: out of range: a cons at or before cons -1 by 1 or more, of 1 conses"},
      {file(atom_a, 1, 1, 1, one_cons(), 1), codes_at + 33, "1 bytes left over after the roots"},
      {file(atom_a, 1, 1, 1, one_cons(0, 0, 32, true)), codes_at + 32, "nonzero bits after the roots"},
      {file(atom_a, 1, 3, 1, one_cons()), codes_at + 33, "cons 2 runs past the end of the codes"},
  };
  // clang-format on
  const Sexp held = m.sh_sym(m.make_symbol("held"));
  const auto state = [&] {
    return std::vector<std::size_t>{std::size_t(m.sym(0).get()), --I::next_id(m), I::shared_size(m), I::name_count(m),
                                    held.get()->refcount};
  };
  for (const auto& [data, offset, message] : cases) {
    const auto before = state();
    try {
      loaded(m, data);
      ADD_FAILURE() << "no error for: " << message;
    } catch (const FormatError& e) {
      EXPECT_EQ(e.message(), message);
      EXPECT_EQ(e.offset(), offset) << message;
      EXPECT_EQ(e.what(), "byte " + std::to_string(offset) + ": " + message);
    }
    EXPECT_EQ(state(), before) << message;
  }
}

}  // namespace
}  // namespace vorn
