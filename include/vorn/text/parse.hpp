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

/// Exactly one expression, with white space and comments around it allowed.
///
/// Grammar: white space separates; `;` starts a comment to the end of the line;
/// `(a b c)` is a list ending in nil; `()` is nil; `(a b . c)` ends in c; a bare word
/// (any bytes but white space, `(`, `)`, `;`, `|`, not starting with `#`, not a lone
/// `.`) is the symbol of that name; `|...|` is the symbol of the bytes between the bars,
/// with `\|` for a bar and `\\` for a backslash (`||` is the empty name, i.e. nil);
/// `#` and decimal digits (`#7`) is the symbol whose value is that number.
///
/// Every node is canonical (sh_sym/sh_cons) and names are interned with make_symbol,
/// so equal texts give the same node. Nesting depth is limited by memory only: the
/// reader keeps its state on the heap, never on the call stack.
///
/// Errors: the whole text is checked before anything is built, so a ParseError leaves
/// the manager exactly as it was: no node made, no id used, no name interned. The
/// position is that of the offending byte; a list or `|name|` still open at the end is
/// reported at the end of the input, with where it was opened in the message; a
/// misplaced `.` is reported at that dot (the first dot of the list when more than one).
/// A name may not hold a NUL byte. For parse, a count other than one is reported only
/// once the text is known to be well formed: at the second expression's start, or at
/// the end when there is none. Memory exhaustion while building throws std::bad_alloc;
/// canonical nodes and names made before it stay, as canonical nodes always do.
Sexp parse(SexpManager& m, std::string_view text, const ReadOptions& options = {});

/// Zero or more expressions, in order; same grammar and guarantees as parse.
std::vector<Sexp> parse_all(SexpManager& m, std::string_view text,
                            const ReadOptions& options = {});

}  // namespace vorn

#endif  // VORN_TEXT_PARSE_HPP
