// The S-expression dialects vorn reads and writes, and the options that choose them.
#ifndef VORN_TEXT_DIALECT_HPP
#define VORN_TEXT_DIALECT_HPP

#include <cstddef>

namespace vorn {

/// A text syntax. Every dialect reads into the same nodes: symbols, string atoms
/// (SexpManager::make_string) and canonical conses.
enum class Dialect : unsigned char {
  vorn,    ///< vorn's own: words, |names|, #value, "strings" with backslash escapes
  smtlib,  ///< SMT-LIB 2.6 lexical syntax
  scheme,  ///< R7RS datum syntax as written in the wild
};

/// How to read text (an optional last argument of parse and parse_all).
struct ReadOptions {
  Dialect dialect = Dialect::vorn;
};

/// How to write text (an optional last argument of to_text and write_text).
struct WriteOptions {
  Dialect dialect = Dialect::vorn;
  /// False: the compact form, one line. True: laid out for people, breaking lists that
  /// do not fit in `width` columns and indenting their elements by `indent` spaces.
  bool pretty = false;
  std::size_t width = 80;
  std::size_t indent = 2;
  /// False: every occurrence of a sub-expression is written in full. True: a cons that
  /// more than one place refers to is written in full once, after a datum label `#N=`,
  /// and as `#N#` everywhere else, so the text grows with the distinct nodes rather than
  /// with the tree (see write_text). Last, so that `{dialect, pretty, width, indent}` keeps
  /// meaning what it did.
  bool shared = false;
};

}  // namespace vorn

#endif  // VORN_TEXT_DIALECT_HPP
