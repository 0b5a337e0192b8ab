#include "vorn/text/reader.hpp"

#include <gmock/gmock.h>

#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <tuple>
#include <vector>

#include "support/internals.hpp"

namespace vorn {
namespace {

using I = detail::SexpManagerInternals;

// Hands out a text in the pieces between the given cut offsets, one piece per underflow,
// as a pipe would: the reader sees a chunk boundary at each cut.
class CutBuf : public std::streambuf {
 public:
  CutBuf(std::string text, std::vector<std::size_t> cuts) : text_(std::move(text)), cuts_(cuts) {
    cuts_.push_back(text_.size());
  }

 protected:
  int_type underflow() override {
    char* const base = text_.data();
    std::size_t at = egptr() == nullptr ? 0 : static_cast<std::size_t>(egptr() - base);
    while (next_ < cuts_.size() && cuts_[next_] <= at) ++next_;
    if (at == text_.size()) return traits_type::eof();
    setg(base + at, base + at, base + cuts_[next_]);
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string text_;
  std::vector<std::size_t> cuts_;  // ascending
  std::size_t next_ = 0;
};

using Read =
    std::tuple<Sexp, std::size_t, std::size_t, std::uint64_t>;  // node, line, column, offset

std::vector<Read> ReadAll(SexpManager& m, const std::string& text, std::vector<std::size_t> cuts,
                          TextPosition* end = nullptr) {
  CutBuf buf(text, std::move(cuts));
  std::istream in(&buf);
  TextReader reader(m, in);
  std::vector<Read> got;
  for (Sexp e; reader.next(e);)
    got.emplace_back(e, reader.start().line, reader.start().column, reader.start().offset);
  if (end != nullptr) *end = reader.position();
  return got;
}

TextPosition PositionOf(const std::string& text, std::size_t offset) {
  TextPosition p;
  for (; p.offset < offset; ++p.offset) {
    if (text[p.offset] == '\n') {
      ++p.line;
      p.column = 1;
    } else {
      ++p.column;
    }
  }
  return p;
}

// Random well-formed text: top-level expressions (nested lists, dotted tails, words,
// |names| with escapes, #numbers) between white space and comments, each start recorded.
struct TextGen {
  std::mt19937 rng;
  std::string text;
  std::vector<std::size_t> starts;
  bool after_word = false;  // the text ends in a word, which a word may not follow directly

  std::size_t pick(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng);
  }
  void gap(bool may_be_empty) {
    static const char* const gaps[] = {"", " ", "\n", " ; note (\n", "\t\n  ", "\r\n"};
    const std::size_t g = pick(6);
    if (g == 0 && !(may_be_empty && !after_word)) return gap(may_be_empty);
    text += gaps[g];
    if (g != 0) after_word = false;
  }
  void atom() {
    static const char* const atoms[] = {"a",      "foo", "x.y", "|a b|", "|\\|\\\\|", "||",
                                        "-1.5e3", "?v",  "a#",  "#7",    "#0"};
    const std::string a = atoms[pick(11)];
    if (after_word && a[0] != '|') text += ' ';
    text += a;
    after_word = a[0] != '|';
  }
  void expression(int depth) {
    if (depth > 3 || pick(3) == 0) return atom();
    text += '(';
    after_word = false;
    const std::size_t n = pick(4);
    for (std::size_t i = 0; i < n; ++i) {
      gap(true);
      expression(depth + 1);
    }
    if (n > 0 && pick(3) == 0) {
      gap(false);
      text += '.';
      gap(false);
      expression(depth + 1);
    }
    gap(true);
    text += ')';
    after_word = false;
  }
  TextGen(unsigned seed) : rng(seed) {
    for (std::size_t n = pick(6); n > 0; --n) {
      gap(true);
      starts.push_back(text.size());
      expression(0);
    }
    if (pick(2) == 0) text += pick(2) == 0 ? " ;end" : " ";
  }
};

TEST(TextReader, SameExpressionsAndPositionsAsParseAllAtEveryCut) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    const TextGen gen(seed);
    const std::string& text = gen.text;
    SexpManager m;
    std::vector<Read> want;
    SCOPED_TRACE(text);
    const std::vector<Sexp> all = parse_all(m, text);
    ASSERT_EQ(all.size(), gen.starts.size()) << text;
    for (std::size_t i = 0; i < all.size(); ++i) {
      const TextPosition p = PositionOf(text, gen.starts[i]);
      want.emplace_back(all[i], p.line, p.column, p.offset);
    }
    const TextPosition end_want = PositionOf(text, text.size());
    std::vector<std::vector<std::size_t>> cut_sets;
    for (std::size_t cut = 0; cut <= text.size(); ++cut) cut_sets.emplace_back(1, cut);
    for (std::size_t k : {1, 2, 5}) {  // random pieces of 1..k bytes
      std::vector<std::size_t> cuts;
      for (std::size_t at = 1 + gen.starts.size() % k; at < text.size();
           at += 1 + (at * 7919 + seed) % k)
        cuts.push_back(at);
      cut_sets.push_back(cuts);
    }
    for (const auto& cuts : cut_sets) {
      TextPosition end;
      ASSERT_EQ(ReadAll(m, text, cuts, &end), want) << text << " cut at " << cuts[0];
      EXPECT_EQ(std::tie(end.line, end.column, end.offset),
                std::tie(end_want.line, end_want.column, end_want.offset));
    }
  }
}

TEST(TextReader, ErrorsCarryStreamPositionsLeaveTheManagerAndStick) {
  // clang-format off
  const std::tuple<const char*, std::size_t, const char*> cases[] = {  // text, read before, error
      {"(a)\n(b\n  c))", 2, "3:5: unexpected ')'"},
      {"a b\n  (c\n (d)", 2, "3:5: unterminated list opened at 2:3"},
      {"x ; c\n y |p\\q|", 2, "2:6: unknown escape '\\q' in |name|"},
      {"ok\n(a . b c)", 1, "2:4: misplaced '.'"},
      {"p\n  q |open", 2, "2:10: unterminated |name| opened at 2:5"},
      {"(a) (b) ) (c)", 2, "1:9: unexpected ')'"},
      {"u (v\n\n #x1)", 1, "3:2: invalid number after '#'"},
  };
  // clang-format on
  for (const auto& [text, before, error] : cases) {
    const std::string s = text;
    for (std::size_t cut = 0; cut <= s.size(); ++cut) {
      SexpManager m;
      CutBuf buf(s, std::vector<std::size_t>(1, cut));
      std::istream in(&buf);
      TextReader reader(m, in);
      Sexp e;
      for (std::size_t i = 0; i < before; ++i) ASSERT_TRUE(reader.next(e)) << text;
      const auto state = std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m));
      for (int again = 0; again < 2; ++again) {
        try {
          reader.next(e);
          ADD_FAILURE() << text << ": no error";
        } catch (const ParseError& x) {
          EXPECT_STREQ(x.what(), error) << text << " cut at " << cut;
        }
      }
      EXPECT_EQ(std::make_tuple(I::next_id(m), I::shared_size(m), I::name_count(m)), state);
    }
  }
}

// Scheme state that lasts across expressions (`#!fold-case`), forms whose reading depends
// on bytes still to come (character names, directives) and a script header, which only
// the start of the stream may hold: read whole, at every single cut and in one-byte
// pieces, the stream gives what parse_all gives, nodes or error.
TEST(TextReader, SchemeReadsLikeParseAllAtEveryCut) {
  const char* const texts[] = {
      "#!fold-case (A B)\nFOO ; c\n#!no-fold-case (BAR #!fold-case Baz) QUX #| x |# Zed",
      "#!fold-case\n#| Note |#\nAbc",
      "(a #\\x3bb #\\|e4 b)",
      "(#\\space #\\( #\\xCE) \xCE\xBB",
      "a #!no-fold-caseX b",
      "#!/usr/bin/env vorn\n(A)",
      "  #!/usr/bin/env vorn\n(A)",
      "(a)\n#! /bin/sh\n",
  };
  const ReadOptions scheme{Dialect::scheme};
  for (const std::string text : texts) {
    SexpManager m;
    std::vector<Sexp> want;
    std::string error;
    try {
      want = parse_all(m, text, scheme);
    } catch (const ParseError& x) {
      error = x.what();
    }
    std::vector<std::vector<std::size_t>> cut_sets{{}};
    for (std::size_t cut = 1; cut < text.size(); ++cut) {
      cut_sets.emplace_back(1, cut);
      cut_sets[0].push_back(cut);  // one-byte pieces
    }
    for (const auto& cuts : cut_sets) {
      CutBuf buf(text, cuts);
      std::istream in(&buf);
      TextReader reader(m, in, scheme);
      std::vector<Sexp> got;
      std::string got_error;
      try {
        for (Sexp e; reader.next(e);) got.push_back(e);
      } catch (const ParseError& x) {
        got_error = x.what();
      }
      const std::size_t first = cuts.empty() ? 0 : cuts[0];
      EXPECT_EQ(got_error, error) << text << " cut at " << first << " of " << cuts.size();
      if (error.empty()) {
        EXPECT_EQ(got, want) << text << " cut at " << first;
      }
    }
  }
}

}  // namespace
}  // namespace vorn
