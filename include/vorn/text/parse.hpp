// Reading S-expression text into canonical nodes: vorn::parse, vorn::parse_all.
#ifndef VORN_TEXT_PARSE_HPP
#define VORN_TEXT_PARSE_HPP

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"
#include "vorn/text/dialect.hpp"

namespace vorn {

/// Bad input to parse/parse_all: what is wrong and where (1-based line and column, in
/// bytes). what() is "LINE:COLUMN: message"; message() is the message alone.
class ParseError : public std::runtime_error {
 public:
  ParseError(const std::string& message, std::size_t line, std::size_t column);
  std::size_t line() const noexcept { return line_; }
  std::size_t column() const noexcept { return column_; }
  const std::string& message() const noexcept { return message_; }

 private:
  std::string message_;
  std::size_t line_;
  std::size_t column_;
};

/// Exactly one expression, with white space and comments around it allowed, in the
/// dialect of `options` (vorn's own by default).
///
/// Every dialect: white space (space, tab, line feed, vertical tab, form feed, carriage
/// return) separates; `;` starts a comment to the end of the line; `(a b c)` is a list
/// ending in nil; `()` is nil; an empty |name| is nil too (nil is the symbol of the
/// empty name). A word runs to the next white space, parenthesis, `;`, `|` or `"`. A
/// name (word or |name|) is the symbol interned under it (make_symbol) and may not hold
/// a NUL byte. A "string" is a string atom (SexpManager::make_string) of its decoded
/// bytes, which may be any bytes: never the symbol of the same characters.
///
/// vorn: a bare word is the symbol of that name, except a lone `.` and a word starting
/// with `#`; `#` and decimal digits (`#7`, up to 2^64 - 1) is the symbol whose value is
/// that number; `(a b . c)` ends in c. `|...|` is the symbol of the bytes between the
/// bars, with `\|` for a bar and `\\` for a backslash. In a "string", a backslash
/// escapes: `\"` `\\` `\|` `\/` `\'` stand for themselves; `\a \b \f \n \r \t \v`
/// for the control characters; `\0` for NUL; `\xHH` (exactly two hex digits) for that
/// byte. Any other byte after a backslash is an error; other bytes, line ends included,
/// stand for themselves.
///
/// smtlib: every word is the symbol named by its text: numerals, decimals, `:keywords`,
/// `#x` with hex digits and `#b` with binary digits (any other word starting with `#`
/// is an error). `|...|` is the symbol of the bytes between the bars, which may not hold
/// `\`, so `|abc|` is `abc`. In a "string", `""` stands for one `"`; every other byte
/// stands for itself. There are no dotted tails: a lone `.` is an error (a symbol named
/// `.` is written `|.|`).
///
/// scheme: `[` `]` are parentheses too (each closes only its own kind); `(a b . c)` ends
/// in c. A word is the symbol named by its text: identifiers, numbers (`1.5`, and `#x`,
/// `#b`, `#o`, `#d`, `#e`, `#i` prefixed), keywords `#:key`. Reading as the list of a
/// symbol and the datum: `'x` (quote x), `` `x `` (quasiquote x), `,x` (unquote x),
/// `,@x` (unquote-splicing x). `#t`/`#true` is the symbol `#t` and `#f`/`#false` the
/// symbol `#f`, in any letter case. A character `#\c` is the symbol named `#\` and its
/// canonical spelling, so each character is one node however written: the name where
/// it has one (`space newline tab return null alarm backspace delete escape`; `nul`,
/// `linefeed` and `page` are read too), else the character itself for printable ASCII,
/// else `x` and the code point in lower-case hex (`#\x41` is `#\A`, `#\λ` is `#\x3bb`).
/// `#(a b)` is the list `(#vector a b)` and `#u8(1 2)` the list `(#u8 1 2)`, headed by
/// the symbols named `#vector` and `#u8`; the elements are not checked. Strings and
/// |names| take `\a \b \t \n \r \" \\ \|`, `\xH...;` (a code point up to 10FFFF,
/// stored as UTF-8) and line continuations (a backslash, blanks, a line end, blanks:
/// nothing). Comments: `;` to the line end, `#| ... |#` nesting, and `#;` which drops
/// the next datum. `#!fold-case` makes the bare words after it lower case (ASCII) and
/// `#!no-fold-case` stops that, to the end of the text given to one call; any other
/// `#!word` is an error, except a first line starting with `#!/` or `#! `, which is
/// skipped as a script header.
///
/// Datum labels, in every dialect: `#N=` (N decimal digits, up to 2^64 - 1; `#007` is
/// label 7) before a datum labels it, and `#N#` stands for that datum, the same node,
/// wherever a datum may stand: as an element, after a dot, after a scheme prefix, as
/// another label's datum. White space and comments may come between `#N=` and its
/// datum; `#N#` ends a word. A label is known from its definition to the end of its
/// top-level expression, and only there: each expression of parse_all (and of a
/// TextReader) has labels of its own. smtlib, which has no dotted tails, takes a dot
/// before a label (`(a . #0#)`), which is how the writer writes a shared tail. Inside a
/// scheme datum comment labels are read and dropped with the datum. A reference to a
/// label not defined before it, a label defined twice, and a reference inside the datum
/// it labels (a cycle, which canonical nodes cannot hold) are errors at the `#` of the
/// offending label. Label numbers are kept in a table of the labels defined, so a large
/// number costs no more than a small one.
///
/// Every node is canonical (sh_sym/sh_cons) and names are interned with make_symbol,
/// so equal texts give the same node. Nesting depth is limited by memory only: the
/// reader keeps its state on the heap, never on the call stack.
///
/// Errors: the whole text is checked before anything is built, so a ParseError leaves
/// the manager exactly as it was: no node made, no id used, no name or string interned.
/// The position is that of the offending byte (of the backslash, for a bad escape); a
/// list, string, |name| or block comment still open at the end is reported at the end of
/// the input, with where it was opened in the message, and so is a prefix or `#;` that
/// lacks its datum; a misplaced `.` is reported at that dot (the first dot of the list
/// when more than one). For parse, a count other than one is reported only once the
/// text is known to be well formed: at the second expression's start, or at the end
/// when there is none. A label defined twice, or referred to inside its own datum, is
/// reported with where it was first defined in the message. Memory exhaustion while
/// building throws std::bad_alloc;
/// canonical nodes and names made before it stay, as canonical nodes always do.
Sexp parse(SexpManager& m, std::string_view text, const ReadOptions& options = {});

/// Zero or more expressions, in order; same grammar and guarantees as parse.
std::vector<Sexp> parse_all(SexpManager& m, std::string_view text,
                            const ReadOptions& options = {});

}  // namespace vorn

#endif  // VORN_TEXT_PARSE_HPP
