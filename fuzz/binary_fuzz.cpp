// The binary loader on arbitrary bytes, taken as they are and with a correct checksum in
// place of their last eight bytes (so that the checks behind the checksum are reached too):
// it never crashes; data it rejects leaves the manager as it was, with an offset inside the
// data; data it accepts saves again, and what that saves loads to the very same nodes, here
// and in a fresh manager (where copying the first roots gives them too).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "io/checksum.hpp"
#include "support/internals.hpp"
#include "vorn/vorn.hpp"

#define CHECK(c) \
  ((c) ? (void)0 : (std::fprintf(stderr, "failed, line %d: %s\n", __LINE__, #c), std::abort()))

namespace {

using I = vorn::detail::SexpManagerInternals;

std::vector<std::size_t> state(vorn::SexpManager& m) {
  return {I::next_id(m), I::shared_size(m), I::name_count(m), I::slots_in_use(m)};
}

std::string saved(const std::vector<vorn::Sexp>& roots) {
  std::ostringstream os;
  vorn::save(os, roots);
  return os.str();
}

void try_load(vorn::SexpManager& m, const std::string& bytes) {
  const auto before = state(m);
  std::istringstream is(bytes);
  std::vector<vorn::Sexp> roots;
  try {
    roots = vorn::load(m, is);
  } catch (const vorn::FormatError& e) {
    CHECK(state(m) == before);
    CHECK(e.offset() <= bytes.size());
    return;
  }
  const std::string again = saved(roots);
  std::istringstream here(again);
  CHECK(vorn::load(m, here) == roots);
  vorn::SexpManager other;
  std::istringstream there(again);
  const std::vector<vorn::Sexp> loaded = vorn::load(other, there);
  CHECK(loaded == vorn::copy(other, roots));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vorn::SexpManager m;
  const std::vector<vorn::Sexp> held = vorn::parse_all(m, "(a \"b\" #3) x");
  std::string bytes(reinterpret_cast<const char*>(data), size);
  try_load(m, bytes);
  if (size >= 8) {
    vorn::detail::binary::Checksum sum;
    sum.update(data, size - 8);
    const std::uint64_t v = sum.value();
    for (int i = 0; i < 8; ++i) bytes[size - 8 + i] = static_cast<char>(v >> (8 * i));
    try_load(m, bytes);
  }
  return 0;
}
