// Reading S-expression text from a std::istream one top-level expression at a time:
// vorn::TextReader.
#ifndef VORN_TEXT_READER_HPP
#define VORN_TEXT_READER_HPP

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"
#include "vorn/text/dialect.hpp"
#include "vorn/text/parse.hpp"

namespace vorn {

/// A place in a text: 1-based line and column (counted in bytes) and the 0-based byte offset.
struct TextPosition {
  std::size_t line = 1;
  std::size_t column = 1;
  std::uint64_t offset = 0;
};

/// Reads the top-level expressions of a stream, one per call, into canonical nodes,
/// with where each begins; the grammar is that of parse in the chosen dialect, and a
/// stream reads as the same expressions as parse_all over its whole text would give.
///
///     vorn::TextReader reader(m, std::cin);
///     for (vorn::Sexp e; reader.next(e);)
///       std::cout << reader.start().line << ": " << vorn::to_text(e) << "\n";
///
/// Ownership: the reader refers to the manager and the stream, which must outlive it; it
/// owns only its buffer. Expressions it returns are the manager's canonical nodes and stay
/// when the reader goes.
///
/// Memory: the buffer holds the unread part of the expression (or comment) being read,
/// never what has been returned, so it grows to about twice the largest expression plus
/// one 64 KiB chunk, whatever the stream's length. Time is linear in the stream: while an
/// expression of more than 4 KiB is incomplete, the reader reads at least as many new
/// bytes as it already holds before looking at it again, so a single huge expression is
/// scanned a bounded number of times per byte on average.
///
/// The stream is read through its buffer, taking what it has ready (waiting for at least
/// one byte). A smaller unfinished expression is looked at again as soon as the stream
/// has nothing more ready, so expressions typed at a terminal or written to a pipe are
/// returned once complete. Reading stops at the stream's end or first failure; which of
/// the two it was is the stream's to say (`in.bad()`). An expression cut short there is a
/// ParseError like any unfinished text. A stream set to throw on failure passes its
/// exception through, and the reader can go on from where it was.
///
/// Errors: bad text throws ParseError with the line and column in the whole stream. The
/// manager is left exactly as it was before that call: no node of the bad expression is
/// made (expressions returned before stay). The reader is then finished: every later call
/// of next throws the same error again, since after bad text there is no telling where
/// the next expression would begin. Memory exhaustion throws std::bad_alloc and leaves the
/// reader where it was: the next call reads the same expression again.
class TextReader {
 public:
  TextReader(SexpManager& m, std::istream& in, const ReadOptions& options = {});
  ~TextReader();
  TextReader(const TextReader&) = delete;
  TextReader& operator=(const TextReader&) = delete;

  /// Reads the next expression into `e` and returns true, or returns false (leaving `e`
  /// alone) when only white space and comments remain before the end of the stream.
  bool next(Sexp& e);

  /// Where the expression last returned by next begins (1:1, offset 0 before the first).
  const TextPosition& start() const noexcept { return start_; }

  /// Where reading stands: just after the expression last returned, or, once next has
  /// returned false, at the end of the stream.
  const TextPosition& position() const noexcept { return cursor_; }

 private:
  void fill(std::size_t at_least);
  void consume(std::size_t bytes) noexcept;
  [[noreturn]] void fail(const ParseError& e);

  SexpManager& m_;
  std::istream& in_;
  ReadOptions options_;
  // Stream bytes not yet consumed are buffer_[begin_, end_); cursor_ is the position of
  // buffer_[begin_]. Bytes before begin_ have been returned or skipped and may be dropped.
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool at_end_ = false;  // the stream has no more bytes to give
  bool fold_case_ = false;  // scheme: `#!fold-case` is in force at buffer_[begin_]
  TextPosition cursor_;
  TextPosition start_;
  std::unique_ptr<ParseError> error_;  // once set, the reader is finished
};

}  // namespace vorn

#endif  // VORN_TEXT_READER_HPP
