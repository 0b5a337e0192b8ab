// The reader on arbitrary bytes, in the dialect the first byte picks: it never crashes;
// rejected text leaves the manager as it was; every expression it accepts is written back,
// compact and pretty, and re-read to the same node; scan_first agrees with parse on the
// whole text and on every prefix of it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/internals.hpp"
#include "text/scan.hpp"
#include "vorn/vorn.hpp"

#define CHECK(c) \
  ((c) ? (void)0 : (std::fprintf(stderr, "failed, line %d: %s\n", __LINE__, #c), std::abort()))

namespace {

using vorn::detail::Scan;

// scan_first on the whole text, or nothing when it throws.
std::optional<Scan> scan(std::string_view text, vorn::Dialect d, bool final) {
  try {
    return vorn::detail::scan_first(text, d, final);
  } catch (const vorn::ParseError&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using I = vorn::detail::SexpManagerInternals;
  if (size == 0) return 0;
  const auto d = static_cast<vorn::Dialect>(data[0] % 3);
  const vorn::ReadOptions in{d};
  const vorn::WriteOptions pretty{d, true, data[0] / 3u % 50u, data[0] / 150u};
  vorn::SexpManager m;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto state = [&m] {
    return std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m),
                           m.get_string(vorn::SexpManager::string_tag).has_value());
  };
  const auto before = state();
  std::vector<vorn::Sexp> all;
  const std::optional<Scan> whole = scan(text, d, true);
  try {
    all = vorn::parse_all(m, text, in);
  } catch (const vorn::ParseError&) {
    CHECK(state() == before);
    // What scan_first accepts is a well-formed first expression, found before the error.
    if (whole && whole->kind == Scan::expression) {
      vorn::parse(m, text.substr(0, whole->end), in);
    } else {
      CHECK(!whole);
    }
    return 0;
  }
  for (const vorn::Sexp& e : all) {
    CHECK(vorn::parse(m, vorn::to_text(e, {d}), in) == e);
    CHECK(vorn::parse(m, vorn::to_text(e, pretty), in) == e);
  }
  CHECK(vorn::parse_all(m, text, in) == all);
  try {  // parse takes exactly one expression
    const vorn::Sexp e = vorn::parse(m, text, in);
    CHECK(all.size() == 1 && e == all[0]);
  } catch (const vorn::ParseError&) {
    CHECK(all.size() != 1);
  }
  // scan_first: none for no expression; otherwise the first one, which the text up to its
  // end reads as. A prefix of the text gives the same expression, asks for more, or has
  // only comments so far.
  CHECK(whole && (whole->kind == Scan::none) == all.empty() && whole->kind != Scan::incomplete);
  if (all.empty()) return 0;
  CHECK(vorn::parse(m, text.substr(0, whole->end), in) == all[0]);
  const std::size_t step = text.size() < 200 ? 1 : text.size() / 100;
  for (std::size_t cut = 0; cut <= text.size(); cut += step) {
    const std::optional<Scan> part = scan(text.substr(0, cut), d, false);
    CHECK(part);
    if (part->kind == Scan::expression) CHECK(part->begin == whole->begin && part->end == whole->end);
    if (part->kind == Scan::none) CHECK(cut <= whole->begin);
  }
  return 0;
}
