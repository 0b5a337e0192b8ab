// Reading S-expression text from a stream, one top-level expression at a time.
#include "vorn/text/reader.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <istream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "scan.hpp"

namespace vorn {

namespace {

// What the buffer makes room for at least before each read of the stream.
constexpr std::size_t kChunk = 64 * 1024;
// Up to this many bytes held, the reader looks at what it has as soon as the stream has
// nothing more ready, rather than wait for as much again: typed or piped expressions are
// returned once complete, and rescanning costs at most this much per read.
constexpr std::size_t kLookEarly = 4 * 1024;

// `p` moved past `bytes`.
TextPosition advanced(TextPosition p, std::string_view bytes) noexcept {
  if (bytes.empty()) return p;
  p.offset += bytes.size();
  const char* const end = bytes.data() + bytes.size();
  const char* line = nullptr;  // just after the last newline, if any
  for (const char* s = bytes.data(); s != end;) {
    const void* nl = std::memchr(s, '\n', static_cast<std::size_t>(end - s));
    if (nl == nullptr) break;
    ++p.line;
    s = line = static_cast<const char*>(nl) + 1;
  }
  p.column = line != nullptr ? static_cast<std::size_t>(end - line) + 1 : p.column + bytes.size();
  return p;
}

// The line and column, in the whole stream, of `line`:`column` counted in a text that
// begins at `origin`.
std::pair<std::size_t, std::size_t> in_stream(const TextPosition& origin, std::size_t line,
                                              std::size_t column) noexcept {
  if (line <= 1) return {origin.line, origin.column + column - 1};
  return {origin.line + line - 1, column};
}

// The digits of `s` from `i`, as a number; `i` is left after them. False when there are
// none or they overflow.
bool read_count(const std::string& s, std::size_t& i, std::size_t& value) {
  const auto [end, error] = std::from_chars(s.data() + i, s.data() + s.size(), value);
  if (error != std::errc() || end == s.data() + i) return false;
  i = static_cast<std::size_t>(end - s.data());
  return true;
}

// `e`, raised over a text that begins at `origin`, with its positions made the stream's:
// its line and column, and every " at LINE:COLUMN" its message refers to (such as where
// an unterminated list was opened).
ParseError in_stream(const ParseError& e, const TextPosition& origin) {
  const std::string& from = e.message();
  std::string message;
  std::size_t copied = 0;
  for (std::size_t at = from.find(" at "); at != std::string::npos;
       at = from.find(" at ", at + 1)) {
    std::size_t i = at + 4, line = 0, column = 0;
    if (!read_count(from, i, line) || i == from.size() || from[i] != ':') continue;
    ++i;
    if (!read_count(from, i, column)) continue;
    const auto [l, c] = in_stream(origin, line, column);
    message.append(from, copied, at + 4 - copied) += std::to_string(l) + ":" + std::to_string(c);
    copied = i;
  }
  message.append(from, copied, std::string::npos);
  const auto [line, column] = in_stream(origin, e.line(), e.column());
  return ParseError(message, line, column);
}

// Takes what `in` has ready, waiting for one byte at least; 0 at its end or failure.
std::size_t read_some(std::istream& in, char* to, std::size_t room) {
  using traits = std::istream::traits_type;
  if (traits::eq_int_type(in.peek(), traits::eof())) return 0;
  const std::streamsize ready = in.readsome(to, static_cast<std::streamsize>(room));
  if (ready > 0) return static_cast<std::size_t>(ready);
  // A stream buffer that cannot tell what it holds: wait for a full read or the end.
  in.read(to, static_cast<std::streamsize>(room));
  return static_cast<std::size_t>(in.gcount());
}

}  // namespace

TextReader::TextReader(SexpManager& m, std::istream& in, const ReadOptions& options)
    : m_(m), in_(in), options_(options) {}

TextReader::~TextReader() = default;

bool TextReader::next(Sexp& e) {
  if (error_ != nullptr) throw ParseError(*error_);
  std::size_t wanted = 0;  // new bytes to read before looking at the buffer again
  for (;;) {
    if (wanted > 0) fill(wanted);
    const std::string_view text(buffer_.data() + begin_, end_ - begin_);
    detail::Scan scan{};
    try {
      scan = detail::scan_first(text, options_.dialect, at_end_,
                                {cursor_.offset == 0, fold_case_});
    } catch (const ParseError& x) {
      fail(in_stream(x, cursor_));
    }
    if (scan.kind == detail::Scan::expression) {
      const TextPosition at = advanced(cursor_, text.substr(0, scan.begin));
      const std::string_view slice = text.substr(scan.begin, scan.end - scan.begin);
      // Checked by the scan, and built in the fold-case state the scan found at its start.
      e = detail::build_scanned(m_, slice, options_.dialect, scan.fold_case_at_begin);
      fold_case_ = scan.fold_case_at_end;
      start_ = cursor_ = at;
      begin_ += scan.begin;
      consume(slice.size());
      return true;
    }
    fold_case_ = scan.fold_case_at_begin;  // the state where what is consumed ends
    if (scan.kind == detail::Scan::none) {
      consume(text.size());
      if (at_end_) return false;
      wanted = 1;
    } else {
      // Only white space and comments come before the unfinished part: drop them, and read
      // as much again as is held, which keeps the rescanning linear overall.
      consume(scan.begin);
      wanted = std::max<std::size_t>(1, end_ - begin_);
    }
  }
}

// Reads until `at_least` new bytes have come, the stream has ended, or (while little is
// held) the stream has nothing more ready. Growing the buffer builds a new one before
// dropping the old, so std::bad_alloc leaves the reader as it was.
void TextReader::fill(std::size_t at_least) {
  std::size_t got = 0;
  while (got < at_least && !at_end_) {
    // Room for what must still come, and for a reasonable read; a new buffer has room for
    // a whole chunk more, so that it is not outgrown again by a few bytes.
    const std::size_t need = at_least - got, room = std::max(need, kChunk / 2);
    if (buffer_.size() - end_ < room) {
      const std::size_t held = end_ - begin_;
      if (buffer_.size() - held < room) {
        std::vector<char> bigger(held + std::max(need, kChunk));
        if (held > 0) std::memcpy(bigger.data(), buffer_.data() + begin_, held);
        buffer_.swap(bigger);
      } else if (held > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, held);
      }
      begin_ = 0;
      end_ = held;
    }
    const std::size_t n = read_some(in_, buffer_.data() + end_, buffer_.size() - end_);
    if (n == 0) at_end_ = true;
    end_ += n;
    got += n;
    if (end_ - begin_ <= kLookEarly && in_.rdbuf() != nullptr && in_.rdbuf()->in_avail() <= 0)
      break;
  }
}

void TextReader::consume(std::size_t bytes) noexcept {
  cursor_ = advanced(cursor_, std::string_view(buffer_.data() + begin_, bytes));
  begin_ += bytes;
  if (begin_ == end_) begin_ = end_ = 0;
}

void TextReader::fail(const ParseError& e) {
  error_ = std::make_unique<ParseError>(e);
  throw ParseError(e);
}

}  // namespace vorn
