// Writing expressions as S-expression text: vorn::to_text, vorn::write_text.
#ifndef VORN_TEXT_WRITE_HPP
#define VORN_TEXT_WRITE_HPP

#include <iosfwd>
#include <string>

#include "vorn/expr/sexp.hpp"
#include "vorn/text/dialect.hpp"

namespace vorn {

/// Writes `e` as text of `options.dialect`: `(f a b)`, `(a . b)`, nil as `()`, a name
/// between bars exactly when reading it bare would not give it back, a string atom as a
/// "string" with the dialect's escapes, `#value` for a symbol whose value is neither an
/// interned name nor a string of its manager. Reading the text back with parse in the
/// same dialect gives `e` itself for a canonical `e`, and otherwise the canonical node
/// of its shape. Iterative: any depth. A cons met again while it is still being written
/// (a cycle made with setcar/setcdr) is written `#cycle`, which no reader accepts; a
/// sub-expression merely shared is written in full each time. `e` must not be null.
///
/// Shared (`options.shared`): every cons that more than one place refers to (two parents,
/// one parent through both its car and its cdr, or the root reached again from inside)
/// is written in full at its first occurrence, after `#N=`, and as `#N#` at every later
/// one, N counting from 0 in the order of the text. A shared tail is written after a
/// dot: `(x . #0=(b c))`. Each distinct cons is thus written once, and a cycle made with
/// setcar/setcdr is written with a label too (`#0=(a . #0#)`), the one way text can hold
/// one, though no reader accepts it into canonical nodes. Finding the shared conses
/// walks the expression once beforehand, iteratively, keeping one table entry per
/// distinct cons. Conses referred to once are written as without the option, so a tree
/// without sharing gives the same text either way. Every dialect: smtlib writes a shared
/// tail after a dot too, which its reader takes before a label only; in scheme a
/// vector, bytevector or abbreviation with a shared cons on its spine is written as the
/// plain list.
///
/// vorn: bars are needed for an empty name, a lone `.`, a name starting with `#` and a
/// name holding white space, `(`, `)`, `;`, `|` or `"`; between bars `|` and `\` are
/// escaped. Strings escape `"`, `\`, line feed, tab and return as `\"` `\\` `\n` `\t`
/// `\r` and other bytes below 0x20 and 0x7F as `\xHH`; other bytes are written as they are.
///
/// smtlib: strings double their `"`; everything else is written as it is. What smtlib
/// cannot express is written as vorn writes it, which the smtlib reader rejects rather
/// than misreads: a dotted tail (` . x`), a `#value`, and a name that needs bars but
/// holds `|` or `\`.
///
/// scheme: a proper list headed by the symbol `#vector` or `#u8` is written `#(...)` or
/// `#u8(...)`, a two-element list headed by quote, quasiquote, unquote or
/// unquote-splicing as `'x`, `` `x ``, `,x`, `,@x`. `#t`, `#f` and characters in their
/// canonical spelling are written bare; a name starting with `@` takes bars (it would
/// join a preceding `,`). Strings and |names| escape `"` or `|`, `\`, and
/// `\a \b \t \n \r`, other bytes below 0x20 and 0x7F as `\xHH;`. A `#value` is
/// written as in vorn, which the scheme reader rejects.
///
/// Pretty (`options.pretty`): a list that fits in what is left of the line (`width`
/// columns) is written as in the compact form; one that does not keeps its head, and
/// the atoms that follow it while they fit, on its first line, then puts every later
/// element on a line of its own, indented `indent` columns from the list's opening
/// parenthesis; the closing parenthesis follows the last element. An atom wider than
/// the line still goes on one line. Linear in the output: each list is tried flat once,
/// and a trial stops where the line is full. No newline ends the text.
///
/// The text goes to the stream unformatted (width, base and locale do not apply) in
/// pieces of about 16 KiB. While writing, open conses carry a mark in their `mgr` word;
/// every mark is gone when the call returns or throws. Nothing but memory exhaustion
/// (std::bad_alloc) and the stream's own exceptions is thrown.
void write_text(std::ostream& os, const Sexp& e, const WriteOptions& options = {});

/// The text write_text writes.
std::string to_text(const Sexp& e, const WriteOptions& options = {});

}  // namespace vorn

#endif  // VORN_TEXT_WRITE_HPP
