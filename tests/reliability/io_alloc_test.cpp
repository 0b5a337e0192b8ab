// What loading binary data allocates when its header lies: nothing in proportion to a claim.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "support/internals.hpp"
#include "support/malloc_probe.hpp"
#include "vorn/io/binary.hpp"
#include "vorn/text/parse.hpp"

namespace vorn {
namespace {

std::string number(std::uint64_t v) {  // as the header writes its counts
  std::string s;
  for (; v >= 0x80; v >>= 7) s += static_cast<char>(v | 0x80);
  return s + static_cast<char>(v);
}

// A header: version 1, then atoms, conses, roots, bytes of atoms, bytes of codes.
std::string header(std::uint64_t atoms, std::uint64_t conses, std::uint64_t roots, std::uint64_t atom_bytes,
                   std::uint64_t code_bytes) {
  return std::string(binary_magic) + '\1' + number(atoms) + number(conses) + number(roots) + number(atom_bytes) +
         number(code_bytes);
}

TEST(BinaryLoad, ALyingHeaderOrCountAllocatesNothingBig) {
  SexpManager m;
  std::ostringstream os;
  save(os, parse_all(m, "(f \"s\" #7) (g (f \"s\" #7))"));
  const std::string real = os.str();
  const std::string cases[] = {
      header(1000000000, 0, 0, 1000000000, 1000000000),                 // sections past the end
      header(0, 1000000000, 0, 0, 1),                                   // conses in one byte
      header(0, 0, 1000000000, 0, 1),                                   // roots in one byte
      header(1000000000, 0, 0, 1, 0) + "\x02",                          // atoms in one byte
      header(std::uint64_t{1} << 31, 0, 0, std::uint64_t{1} << 40, 0),  // over the atom limit
      real.substr(0, real.size() / 2),                                  // truncated
  };
  for (const std::string& data : cases) {
    std::istringstream in(data);
    test::MallocProbe probe(true);
    EXPECT_THROW(load(m, in), FormatError);
    for (std::size_t i = 0; i < probe.calls() && i < test::MallocProbe::capacity; ++i)
      EXPECT_LT(probe.size(i), std::size_t{1} << 20) << "allocation " << i << " of case " << &data - cases;
  }
}

// `n` plain conses over two names, children drawn from all nodes before; if `repeat`, cons
// n/2 has the shape of cons n/4, so a load makes only new nodes up to it and finds it.
std::string plain_dag(int n, bool repeat) {
  SexpManager m;
  std::vector<Sexp> all{m.sym(m.make_symbol("a")), m.sym(m.make_symbol("b"))};
  for (std::uint64_t seed = 5; all.size() < std::size_t(n) + 2;) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    const std::size_t a = (seed >> 33) % all.size(), d = (seed >> 13) % all.size();
    const bool again = repeat && all.size() == std::size_t(n) / 2;
    all.push_back(again ? m.cons(all[n / 4].car(), all[n / 4].cdr()) : m.cons(all[a], all[d]));
  }
  std::ostringstream os;
  save(os, all);
  return os.str();
}

// Counts after a load, a failed one included, are the ones making the nodes one sh_cons at
// a time leaves: what the table, the canonical conses and the handles hold, and no more but
// the two references of a cons made and left out of the table by a failed insert.
TEST(BinaryLoad, CountsAreRightAfterEveryFailureAndAtTheEnd) {
  using I = detail::SexpManagerInternals;
  for (const bool repeat : {false, true}) {
    const std::string data = plain_dag(3000, repeat);
    for (const bool collecting : {false, true}) {
      for (std::size_t call = 0;; ++call) {
        SCOPED_TRACE(std::string(repeat ? "repeat" : "all new") + (collecting ? ", collecting" : "") +
                     ", call " + std::to_string(call) + " fails");
        SexpManager m;
        m.set_auto_collect(collecting);
        std::istringstream in(data);
        std::vector<Sexp> got;
        bool failed = false;
        {
          test::MallocProbe probe(true);
          probe.fail_at(call);
          try {
            got = load(m, in);
          } catch (const std::bad_alloc&) {
            failed = true;
          }
        }
        std::int64_t excess = 0;
        for (const auto& [node, e] : I::count_excess(m, got)) {
          EXPECT_GT(e, 0) << "node " << node->id;
          excess += e;
        }
        EXPECT_EQ(excess, failed && excess != 0 ? 2 : 0);
        if (!failed) break;
      }
    }
  }
}

}  // namespace
}  // namespace vorn
