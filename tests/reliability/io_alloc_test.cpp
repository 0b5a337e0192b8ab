// What loading binary data allocates when its header lies: nothing in proportion to a claim.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

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

}  // namespace
}  // namespace vorn
