// The lexical syntax of each dialect, in one place: which bytes end a word, open a list,
// a string or a |name|, start a comment or a prefix, and which names can be written bare.
// The reader, the writer and the command all decide through these tables, so a dialect
// is one table here (plus the few constructs of its own that the reader dispatches on).
#ifndef VORN_SRC_TEXT_SYNTAX_HPP
#define VORN_SRC_TEXT_SYNTAX_HPP

#include <array>
#include <cstddef>
#include <string_view>

#include "vorn/text/dialect.hpp"

namespace vorn::detail {

/// What a byte does where a token may begin. Classes before `space` continue a word
/// (a word runs over such bytes only); the others end one.
enum ByteClass : unsigned char {
  word,     // part of a word
  hash,     // `#`: starts a #-form where a token begins, part of a word elsewhere
  prefix,   // ' ` , (scheme): an abbreviation where a token begins, part of a word elsewhere
  space,    // white space
  open,     // ( and, in scheme, [
  close,    // ) and, in scheme, ]
  comment,  // ; to the end of the line
  bar,      // |name|
  quote,    // "string"
};

/// How the inside of a "string" or a |name| is escaped.
enum class Escapes : unsigned char {
  none,      // every byte stands for itself (smtlib |names|)
  doubled,   // "" stands for " and nothing else is special (smtlib strings)
  vorn,      // \" \\ \| \/ \' \a \b \f \n \r \t \v \0 \xHH (HH a byte)
  bar_only,  // \| \\ (vorn |names|)
  r7rs,      // \a \b \t \n \r \" \\ \| \xH...; (a code point, as UTF-8), line continuations
};

/// One dialect's syntax.
struct Syntax {
  std::array<unsigned char, 256> classes;  // ByteClass of each byte
  Escapes string_escapes;
  Escapes bar_escapes;
  bool dotted_tails;  // a lone `.` in a list introduces its tail (otherwise it is rejected)
};

constexpr std::array<unsigned char, 256> make_classes(std::string_view word_bytes_special,
                                                      unsigned char special_class,
                                                      std::string_view opens,
                                                      std::string_view closes) {
  std::array<unsigned char, 256> c{};  // all `word`
  for (const char b : std::string_view(" \t\n\v\f\r")) c[static_cast<unsigned char>(b)] = space;
  for (const char b : opens) c[static_cast<unsigned char>(b)] = open;
  for (const char b : closes) c[static_cast<unsigned char>(b)] = close;
  for (const char b : word_bytes_special) c[static_cast<unsigned char>(b)] = special_class;
  c['#'] = hash;
  c[';'] = comment;
  c['|'] = bar;
  c['"'] = quote;
  return c;
}

// The tables. NUL is a word byte everywhere, so that a name holding one is reported
// rather than cut short.
inline constexpr Syntax vorn_syntax{make_classes("", word, "(", ")"), Escapes::vorn,
                                    Escapes::bar_only, true};
inline constexpr Syntax smtlib_syntax{make_classes("", word, "(", ")"), Escapes::doubled,
                                      Escapes::none, false};
inline constexpr Syntax scheme_syntax{make_classes("'`,", prefix, "([", ")]"), Escapes::r7rs,
                                      Escapes::r7rs, true};

/// The syntax of `dialect`.
constexpr const Syntax& syntax_of(Dialect dialect) noexcept {
  return dialect == Dialect::smtlib   ? smtlib_syntax
         : dialect == Dialect::scheme ? scheme_syntax
                                      : vorn_syntax;
}

/// Whether byte `c` ends a bare word in `dialect` (white space, parentheses, a comment,
/// a string or a |name| begins). What a command scanning text by hand should use.
inline bool ends_word(Dialect dialect, char c) noexcept {
  return syntax_of(dialect).classes[static_cast<unsigned char>(c)] >= space;
}

/// Whether reading `name` as a bare word in `dialect` gives the symbol of that name back
/// (otherwise the writer puts it between bars). Never true for the empty name.
bool reads_back_bare(Dialect dialect, std::string_view name) noexcept;

// ---- scheme characters ------------------------------------------------------------------
//
// A scheme character is the symbol named `#\` plus its canonical spelling, so each
// character is one node however it is written: the R7RS name where it has one (space,
// newline, tab, return, null, alarm, backspace, delete, escape), else the character itself
// for printable ASCII, else `x` and its code point in lower-case hex.

/// The longest canonical spelling (`x10ffff`, `backspace`), with room to spare.
constexpr std::size_t max_char_spelling = 12;

/// The canonical spelling of the character written `token` after `#\` (a single UTF-8
/// character, a name, or `x` and hex digits), stored at `out`; its length, or 0 when
/// `token` names no character.
std::size_t canonical_char(std::string_view token, char* out) noexcept;

/// The byte length of the UTF-8 sequence starting with lead byte `c` (1 for ASCII and for
/// bytes that start no sequence).
inline std::size_t utf8_length(unsigned char c) noexcept {
  return c < 0xC0 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : c < 0xF8 ? 4 : 1;
}

}  // namespace vorn::detail

#endif  // VORN_SRC_TEXT_SYNTAX_HPP
