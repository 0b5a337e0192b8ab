// Finding where the first top-level expression of a text ends, without building it: what
// a reader over a stream needs to cut its input into expressions.
#ifndef VORN_SRC_TEXT_SCAN_HPP
#define VORN_SRC_TEXT_SCAN_HPP

#include <cstddef>
#include <string_view>

#include "vorn/expr/manager.hpp"
#include "vorn/text/dialect.hpp"

namespace vorn::detail {

struct Scan {
  enum Kind : unsigned char {
    expression,  ///< text[begin, end) is the first expression, complete and well formed
    none,        ///< only white space and comments: no expression begins in the text
    incomplete,  ///< an expression, string or comment begins at `begin` and runs past the
                 ///< end of the text; more input may complete it (never when `final`)
  };
  Kind kind;
  std::size_t begin;  ///< where the expression (or the unfinished part) starts
  std::size_t end;    ///< expression: one past its last byte; otherwise text.size()
  /// Scheme: whether names are folded (`#!fold-case`) at `begin` and, for an expression,
  /// at `end`: what a text that goes on from there starts with.
  bool fold_case_at_begin;
  bool fold_case_at_end;
};

/// Where a slice of an input stands in the state the grammar carries from one expression
/// to the next: a scheme script header opens only the input itself, and `#!fold-case`
/// lasts until `#!no-fold-case` or the end of the input, across expressions.
struct SliceStart {
  bool input_start = true;  ///< the slice begins the input
  bool fold_case = false;   ///< names are folded from its start
};

/// The first top-level expression of `text` in `dialect`. With `final` false the text may
/// be continued by more input, so an expression, token or comment that reaches its end
/// is reported incomplete rather than read or rejected. Bad text throws ParseError, with
/// the line and column counted from the start of `text`. Makes no node: needs no manager.
Scan scan_first(std::string_view text, Dialect dialect, bool final, SliceStart from = {});

/// parse() of `text`, which must be the slice [begin, end) of a text that scan_first found
/// to be an expression: the node parse() would give, built without checking the text again
/// (scan_first has checked exactly these bytes). `fold_case` is the state the scan
/// reported at `begin`, the only state the grammar carries into an expression from what
/// comes before it. Throws only std::bad_alloc.
Sexp build_scanned(SexpManager& m, std::string_view text, Dialect dialect,
                   bool fold_case = false);

}  // namespace vorn::detail

#endif  // VORN_SRC_TEXT_SCAN_HPP
