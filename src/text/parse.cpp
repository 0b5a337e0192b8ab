// Reading S-expression text into canonical nodes.
#include "vorn/text/parse.hpp"

#include "scan.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

ParseError::ParseError(const std::string& message, std::size_t line, std::size_t column)
    : std::runtime_error(std::to_string(line) + ":" + std::to_string(column) + ": " + message),
      message_(message),
      line_(line),
      column_(column) {}

namespace {

// What a byte does between and inside tokens. A word runs over word bytes only; NUL is
// a word byte here so that a name holding one is reported rather than cut short.
enum ByteClass : unsigned char { word, space, open, close, comment, bar };

constexpr std::array<unsigned char, 256> make_classes() {
  std::array<unsigned char, 256> c{};  // all `word`
  for (unsigned char b : {' ', '\t', '\n', '\v', '\f', '\r'}) c[b] = space;
  c['('] = open;
  c[')'] = close;
  c[';'] = comment;
  c['|'] = bar;
  return c;
}
constexpr std::array<unsigned char, 256> byte_class = make_classes();

inline unsigned char class_of(char c) noexcept { return byte_class[static_cast<unsigned char>(c)]; }

// Errors are rare: the position is worked out from the byte offset only when one is thrown.
struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
};

Position position_of(std::string_view text, std::size_t offset) noexcept {
  Position p;
  std::size_t line_start = 0;
  for (std::size_t i = 0; i < offset; ++i) {
    if (text[i] == '\n') {
      ++p.line;
      line_start = i + 1;
    }
  }
  p.column = offset - line_start + 1;
  return p;
}

std::string where(std::string_view text, std::size_t offset) {
  const Position p = position_of(text, offset);
  return std::to_string(p.line) + ":" + std::to_string(p.column);
}

[[noreturn]] void fail(std::string_view text, std::size_t offset, const std::string& message) {
  const Position p = position_of(text, offset);
  throw ParseError(message, p.line, p.column);
}

std::string bad_escape_message(char c) {
  if (c > ' ' && c < 0x7F) return std::string("unknown escape '\\") + c + "' in |name|";
  static const char hex[] = "0123456789ABCDEF";
  const auto b = static_cast<unsigned char>(c);
  return std::string("unknown escape: '\\' followed by byte 0x") + hex[b >> 4] + hex[b & 15] +
         " in |name|";
}

// Progress of one open list.
enum class ListState : unsigned char {
  no_items,   // just after '('
  items,      // one element or more
  after_dot,  // '.' read, its expression not yet begun
  tail,       // the expression after '.' begun: only ')' may follow it
};

struct Frame {
  std::size_t open;   // offset of the '('
  std::size_t dot;    // offset of the '.', once the state has reached after_dot
  std::size_t first;  // building: index in `items` of the list's first element
  ListState state;
};

// One pass over the text with the grammar's state kept on the heap (any depth).
//
// The checking pass (Build = false) makes no node and interns no name; it finds every
// error and counts the top-level expressions. The building pass (Build = true) runs
// only over text the checking pass accepted, so nothing it does can fail but memory.
// That split is what lets a failed call leave the manager exactly as it was: canonical
// nodes live as long as their manager, so a node made before an error is discovered
// could never be taken back.
template <bool Build>
class Reader {
 public:
  Reader(SexpManager* m, std::string_view text) noexcept : m_(m), text_(text) {}

  // Checking only: stop once the first top-level expression is complete, leaving its end
  // in `first_end` (0 when there is none).
  void stop_after_first() noexcept { stop_after_first_ = true; }
  std::size_t first_end = 0;

  void run() {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t i = 0;
    for (;;) {
      if (stop_after_first_ && count == 1 && frames_.empty()) {
        first_end = i;
        return;
      }
      while (i < n && class_of(s[i]) == space) ++i;
      if (i == n) break;
      switch (class_of(s[i])) {
        case space:  // handled above
          break;
        case comment: {
          const void* nl = std::memchr(s + i, '\n', n - i);
          i = nl != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nl) - s) + 1 : n;
          break;
        }
        case open:
          begin_item(i);
          frames_.push_back({i, 0, items.size(), ListState::no_items});
          ++i;
          break;
        case close:
          close_list(i);
          ++i;
          break;
        case bar:
          begin_item(i);
          i = read_barred(i);
          break;
        default: {
          std::size_t end = i + 1;
          while (end < n && class_of(s[end]) == word) ++end;
          if (end - i == 1 && s[i] == '.') {
            read_dot(i);
          } else {
            begin_item(i);
            if (s[i] == '#') {
              read_number(i, end);
            } else {
              read_name(i, end);
            }
          }
          i = end;
        }
      }
    }
    if (!frames_.empty()) {
      fail(text_, n, "unterminated list opened at " + where(text_, frames_.back().open));
    }
  }

  // Building: the finished top-level expressions, once run() has returned.
  std::vector<Sexp> items;
  std::size_t count = 0;   // top-level expressions
  std::size_t second = 0;  // offset where the second top-level expression begins

 private:
  // An expression (atom or list) begins at `at`.
  void begin_item(std::size_t at) {
    if (frames_.empty()) {
      if (++count == 2) second = at;
      return;
    }
    Frame& f = frames_.back();
    switch (f.state) {
      case ListState::no_items:
        f.state = ListState::items;
        break;
      case ListState::items:
        break;
      case ListState::after_dot:
        f.state = ListState::tail;
        break;
      case ListState::tail:
        fail(text_, f.dot, "misplaced '.'");
    }
  }

  // A lone '.': legal only after one element or more of an open list, and only once.
  // A dot that stands where none can is reported where it stands; once a list has its
  // dot, whatever goes wrong after it (no expression, or more than one) is reported at
  // that dot.
  void read_dot(std::size_t at) {
    if (frames_.empty() || frames_.back().state == ListState::no_items)
      fail(text_, at, "misplaced '.'");
    Frame& f = frames_.back();
    if (f.state != ListState::items) fail(text_, f.dot, "misplaced '.'");
    f.state = ListState::after_dot;
    f.dot = at;
  }

  void close_list(std::size_t at) {
    if (frames_.empty()) fail(text_, at, "unexpected ')'");
    const Frame& f = frames_.back();
    if (f.state == ListState::after_dot) fail(text_, f.dot, "misplaced '.'");
    if constexpr (Build) {
      // Bottom-up from the end, so every cons is made over canonical children.
      Sexp list = f.state == ListState::tail ? items.back() : m_->nil();
      if (f.state == ListState::tail) items.pop_back();
      while (items.size() > f.first) {
        list = m_->sh_cons(items.back(), list);
        items.pop_back();
      }
      items.push_back(list);
    }
    frames_.pop_back();
  }

  // `#` and decimal digits, up to 2^64 - 1.
  void read_number(std::size_t begin, std::size_t end) {
    if (end - begin < 2) fail(text_, begin, "invalid number after '#'");
    std::uint64_t v = 0;
    for (std::size_t i = begin + 1; i < end; ++i) {
      const char c = text_[i];
      if (c < '0' || c > '9') fail(text_, begin, "invalid number after '#'");
      const auto digit = static_cast<std::uint64_t>(c - '0');
      if (v > (UINT64_MAX - digit) / 10) fail(text_, begin, "invalid number after '#'");
      v = v * 10 + digit;
    }
    if constexpr (Build) items.push_back(m_->sh_sym(v));
  }

  void read_name(std::size_t begin, std::size_t end) {
    const char* const s = text_.data();
    if (const void* nul = std::memchr(s + begin, '\0', end - begin)) {
      fail(text_, static_cast<std::size_t>(static_cast<const char*>(nul) - s), "NUL byte in name");
    }
    if constexpr (Build) {
      name_.assign(s + begin, end - begin);
      items.push_back(m_->sh_sym(m_->make_symbol(name_.c_str())));
    }
  }

  // `|...|` opened at `begin`; returns the offset after the closing bar.
  std::size_t read_barred(std::size_t begin) {
    const std::size_t n = text_.size();
    if constexpr (Build) name_.clear();
    std::size_t i = begin + 1;
    for (;;) {
      if (i == n) fail(text_, n, "unterminated |name| opened at " + where(text_, begin));
      char c = text_[i];
      if (c == '|') break;
      if (c == '\\') {
        if (i + 1 == n) fail(text_, n, "unterminated |name| opened at " + where(text_, begin));
        c = text_[i + 1];
        if (c != '|' && c != '\\') fail(text_, i, bad_escape_message(c));
        i += 2;
      } else {
        if (c == '\0') fail(text_, i, "NUL byte in name");
        ++i;
      }
      if constexpr (Build) name_.push_back(c);
    }
    if constexpr (Build) {
      items.push_back(name_.empty() ? m_->nil() : m_->sh_sym(m_->make_symbol(name_.c_str())));
    }
    return i + 1;
  }

  bool stop_after_first_ = false;
  SexpManager* m_;  // null in the checking pass
  std::string_view text_;
  std::vector<Frame> frames_;  // open lists, innermost last
  std::string name_;           // NUL-terminated copy of the name being interned
};

}  // namespace

namespace detail {

// An error reported at the very end of the text (an unterminated list or |name|) is one
// that more input could mend; so is a word that reaches the end, which might go on.
Scan scan_first(std::string_view text, Dialect /*dialect*/, bool final) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const unsigned char c = class_of(text[begin]);
    if (c == space) {
      ++begin;
    } else if (c == comment) {
      const void* nl = std::memchr(text.data() + begin, '\n', text.size() - begin);
      if (nl == nullptr) return {final ? Scan::none : Scan::incomplete, final ? text.size() : begin,
                                 text.size()};
      begin = static_cast<std::size_t>(static_cast<const char*>(nl) - text.data()) + 1;
    } else {
      break;
    }
  }
  if (begin == text.size()) return {Scan::none, begin, text.size()};
  Reader<false> check(nullptr, text);
  check.stop_after_first();
  try {
    check.run();
  } catch (const ParseError& e) {
    if (final) throw;
    const Position end = position_of(text, text.size());
    if (e.line() == end.line && e.column() == end.column) return {Scan::incomplete, begin, text.size()};
    throw;
  }
  if (!final && check.first_end == text.size() && class_of(text.back()) == word)
    return {Scan::incomplete, begin, text.size()};
  return {Scan::expression, begin, check.first_end};
}

}  // namespace detail

Sexp parse(SexpManager& m, std::string_view text, const ReadOptions& /*options*/) {
  Reader<false> check(nullptr, text);
  check.run();
  if (check.count == 0) fail(text, text.size(), "expected an expression, found end of input");
  if (check.count > 1) {
    fail(text, check.second, "expected one expression, found " + std::to_string(check.count));
  }
  Reader<true> build(&m, text);
  build.run();
  return build.items.front();
}

std::vector<Sexp> parse_all(SexpManager& m, std::string_view text,
                            const ReadOptions& /*options*/) {
  Reader<false> check(nullptr, text);
  check.run();
  Reader<true> build(&m, text);
  build.run();
  return std::move(build.items);
}

}  // namespace vorn
