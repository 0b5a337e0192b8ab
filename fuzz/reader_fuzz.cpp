// The reader on arbitrary bytes: it never crashes; rejected text leaves the manager as it
// was; every expression it accepts is written back and re-read to the same node.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/internals.hpp"
#include "vorn/vorn.hpp"

#define CHECK(c) \
  ((c) ? (void)0 : (std::fprintf(stderr, "failed, line %d: %s\n", __LINE__, #c), std::abort()))

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using I = vorn::detail::SexpManagerInternals;
  vorn::SexpManager m;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto state = [&m] {
    return std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m));
  };
  const auto before = state();
  std::vector<vorn::Sexp> all;
  try {
    all = vorn::parse_all(m, text);
  } catch (const vorn::ParseError&) {
    CHECK(state() == before);
    return 0;
  }
  for (const vorn::Sexp& e : all) CHECK(vorn::parse(m, vorn::to_text(e)) == e);
  CHECK(vorn::parse_all(m, text) == all);
  try {  // parse takes exactly one expression
    const vorn::Sexp e = vorn::parse(m, text);
    CHECK(all.size() == 1 && e == all[0]);
  } catch (const vorn::ParseError&) {
    CHECK(all.size() != 1);
  }
  return 0;
}
