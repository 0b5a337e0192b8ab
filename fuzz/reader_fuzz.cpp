// The reader on arbitrary bytes, in the dialect the first byte picks: it never crashes;
// rejected text leaves the manager as it was; every expression it accepts is written back,
// compact and pretty, plain and with datum labels, and re-read to the same node;
// scan_first agrees with parse on the whole text and on every prefix of it; TextReader,
// handed the text in chunks (one byte each for small inputs, and sizes taken from the
// input), gives what parse_all gives: the same nodes, starting where scan_first finds
// them, or the same error. The seeds named labels* hold datum labels, good and bad.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <optional>
#include <streambuf>
#include <string>
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
std::optional<Scan> scan(std::string_view text, vorn::Dialect d, bool final,
                         vorn::detail::SliceStart from = {}) {
  try {
    return vorn::detail::scan_first(text, d, final, from);
  } catch (const vorn::ParseError&) {
    return std::nullopt;
  }
}

// Hands out a text in chunks, one per underflow, as a pipe would: the reader meets a
// chunk boundary after each. Chunk k has 1 + sizes[k mod |sizes|] mod 61 bytes (1 when
// `sizes` is empty).
class ChunkBuf : public std::streambuf {
 public:
  ChunkBuf(std::string_view text, std::string_view sizes) : text_(text), sizes_(sizes) {}

 protected:
  int_type underflow() override {
    if (at_ == text_.size()) return traits_type::eof();
    std::size_t n = 1;
    if (!sizes_.empty()) n += static_cast<unsigned char>(sizes_[chunk_++ % sizes_.size()]) % 61u;
    n = std::min(n, text_.size() - at_);
    char* const from = text_.data() + at_;
    setg(from, from, from + n);
    at_ += n;
    return traits_type::to_int_type(*from);
  }

 private:
  std::string text_;
  std::string_view sizes_;
  std::size_t at_ = 0;
  std::size_t chunk_ = 0;
};

using Position = std::tuple<std::size_t, std::size_t, std::uint64_t>;  // line, column, offset

Position position_of(std::string_view text, std::size_t offset) {
  const std::size_t line =
      1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
  const std::size_t last = text.substr(0, offset).rfind('\n');
  return {line, offset - (last == std::string_view::npos ? 0 : last + 1) + 1, offset};
}

// Reads `text` through a TextReader in chunks as ChunkBuf cuts it: `all` and the starts
// `starts` when `error` is null, else the expressions before it and then `error` itself.
void check_stream(vorn::SexpManager& m, std::string_view text, std::string_view sizes,
                  const vorn::ReadOptions& in, const std::vector<vorn::Sexp>& all,
                  const std::vector<Position>& starts, const vorn::ParseError* error) {
  ChunkBuf buf(text, sizes);
  std::istream stream(&buf);
  vorn::TextReader reader(m, stream, in);
  std::size_t n = 0;
  try {
    for (vorn::Sexp e; reader.next(e); ++n) {
      CHECK(error != nullptr || (n < all.size() && e == all[n]));
      const vorn::TextPosition& p = reader.start();
      if (error == nullptr) CHECK(Position(p.line, p.column, p.offset) == starts[n]);
    }
  } catch (const vorn::ParseError& e) {
    CHECK(error != nullptr && e.line() == error->line() && e.column() == error->column());
    CHECK(std::string_view(e.what()) == error->what());
    return;
  }
  CHECK(error == nullptr && n == all.size());
  const vorn::TextPosition& end = reader.position();
  CHECK(Position(end.line, end.column, end.offset) == position_of(text, text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using I = vorn::detail::SexpManagerInternals;
  if (size == 0) return 0;
  const auto d = static_cast<vorn::Dialect>(data[0] % 3);
  const vorn::ReadOptions in{d};
  const vorn::WriteOptions pretty{d, true, data[0] / 3u % 50u, data[0] / 150u};
  vorn::WriteOptions shared = pretty;
  shared.shared = true;
  vorn::SexpManager m;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto state = [&m] {
    return std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m),
                           m.get_string(vorn::SexpManager::string_tag).has_value());
  };
  const auto before = state();
  std::vector<vorn::Sexp> all;
  const std::optional<Scan> whole = scan(text, d, true);
  const bool every_byte = text.size() <= 512;  // chunks of one byte: quadratic rescans
  try {
    all = vorn::parse_all(m, text, in);
  } catch (const vorn::ParseError& error) {
    CHECK(state() == before);
    if (every_byte) check_stream(m, text, {}, in, {}, {}, &error);
    check_stream(m, text, text, in, {}, {}, &error);
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
    CHECK(vorn::parse(m, vorn::to_text(e, {d, false, 80, 2, true}), in) == e);
    CHECK(vorn::parse(m, vorn::to_text(e, shared), in) == e);
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
  if (all.empty()) {
    if (every_byte) check_stream(m, text, {}, in, all, {}, nullptr);
    check_stream(m, text, text, in, all, {}, nullptr);
    return 0;
  }
  CHECK(vorn::parse(m, text.substr(0, whole->end), in) == all[0]);
  // Where each expression starts: scan_first after the end of the one before.
  std::vector<Position> starts;
  for (std::size_t from = 0; starts.size() < all.size();) {
    const std::optional<Scan> next = scan(text.substr(from), d, true, {from == 0, false});
    CHECK(next && next->kind == Scan::expression);
    starts.push_back(position_of(text, from + next->begin));
    from += next->end;
  }
  if (every_byte) check_stream(m, text, {}, in, all, starts, nullptr);
  check_stream(m, text, text, in, all, starts, nullptr);
  const std::size_t step = text.size() < 200 ? 1 : text.size() / 100;
  for (std::size_t cut = 0; cut <= text.size(); cut += step) {
    const std::optional<Scan> part = scan(text.substr(0, cut), d, false);
    CHECK(part);
    if (part->kind == Scan::expression)
      CHECK(part->begin == whole->begin && part->end == whole->end);
    if (part->kind == Scan::none) CHECK(cut <= whole->begin);
  }
  return 0;
}
