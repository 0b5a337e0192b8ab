// Writing expressions as compact S-expression text: vorn::to_text, vorn::write_text.
#ifndef VORN_TEXT_WRITE_HPP
#define VORN_TEXT_WRITE_HPP

#include <iosfwd>
#include <string>

#include "vorn/expr/sexp.hpp"
#include "vorn/text/dialect.hpp"

namespace vorn {

/// Writes `e` compactly: `(f a b)`, `(a . b)`, nil as `()`, a name between bars exactly
/// when reading it bare would not give it back, `#value` for a symbol whose value is no
/// interned id of its manager. Reading the text back with parse gives `e` itself for a
/// canonical `e`, and otherwise the canonical node of its shape. Iterative: any depth.
/// A cons met again while it is still being written (a cycle made with setcar/setcdr)
/// is written `#cycle`, which no reader accepts; a sub-expression merely shared is
/// written in full each time. `e` must not be null.
///
/// Bars are needed for an empty name, a lone `.`, a name starting with `#` and a name
/// holding white space, `(`, `)`, `;` or `|`; between bars `|` and `\` are escaped.
/// The text goes to the stream unformatted (width, base and locale do not apply) in
/// pieces of about 16 KiB. While writing, open conses carry a mark in their `mgr` word;
/// every mark is gone when the call returns or throws.
void write_text(std::ostream& os, const Sexp& e, const WriteOptions& options = {});

/// The text write_text writes.
std::string to_text(const Sexp& e, const WriteOptions& options = {});

}  // namespace vorn

#endif  // VORN_TEXT_WRITE_HPP
