// Writing expressions as compact S-expression text.
#include "vorn/text/write.hpp"

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "../expr/open_marks.hpp"
#include "../support/decimal.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn {

namespace {

// Collects the text and hands it to the stream in pieces of about `chunk` bytes; with no
// stream it just collects (to_text).
class Out {
 public:
  static constexpr std::size_t chunk = 16 * 1024;

  explicit Out(std::ostream* os) : os_(os) {
    if (os_ != nullptr) buf_.reserve(chunk + 64);
  }
  void put(char c) { buf_.push_back(c); }
  void put(const char* s, std::size_t n) { buf_.append(s, n); }
  void put(const char* s) { buf_.append(s); }
  void number(std::uint64_t v) {
    char digits[detail::max_decimal_digits];
    const char* p = detail::decimal_digits(v, digits + sizeof digits);
    put(p, static_cast<std::size_t>(digits + sizeof digits - p));
  }
  void maybe_flush() {
    if (os_ != nullptr && buf_.size() >= chunk) flush();
  }
  void flush() {
    os_->write(buf_.data(), static_cast<std::streamsize>(buf_.size()));
    buf_.clear();
  }
  std::string& text() noexcept { return buf_; }

 private:
  std::ostream* os_;
  std::string buf_;
};

// The reader ends a bare word at these bytes (white space, parentheses, ';', '|').
bool ends_word(char c) noexcept {
  static const char delimiters[] = " \t\n\v\f\r();|";
  return std::memchr(delimiters, c, sizeof delimiters - 1) != nullptr;
}

// Whether reading `name` bare gives it back: not empty, not a lone '.', not starting
// with '#' (a number), and no byte that ends a word. A backslash is an ordinary byte in
// a bare word, so it needs no bars.
bool reads_back_bare(const char* name, std::size_t len) noexcept {
  if (len == 0 || name[0] == '#' || (len == 1 && name[0] == '.')) return false;
  for (std::size_t i = 0; i < len; ++i) {
    if (ends_word(name[i])) return false;
  }
  return true;
}

void write_symbol(Out& out, const Sexp_* n) {
  const std::uint64_t v = n->value;
  if (v == 0) {
    out.put("()", 2);
    return;
  }
  const char* name = n->mgr != nullptr ? n->mgr->get_symbol_value(v) : nullptr;
  if (name == nullptr) {
    out.put('#');
    out.number(v);
    return;
  }
  const std::size_t len = std::strlen(name);
  if (reads_back_bare(name, len)) {
    out.put(name, len);
    return;
  }
  out.put('|');
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p == '|' || *p == '\\') out.put('\\');
    out.put(*p);
  }
  out.put('|');
}

// A list being written: `head` is its first cons, `at` the cons whose car was written last.
// Every cons from `head` to `at` along the cdrs is open (see open_marks.hpp); one reached
// again is a cycle. The marks are removed as the list closes.
struct Frame {
  const Sexp_* head;
  const Sexp_* at;

  void unmark() const noexcept {
    for (const Sexp_* p = head;; p = p->cdr) {
      detail::toggle_open(p);
      if (p == at) break;
    }
  }
};

void write_expr(Out& out, const Sexp_* root) {
  std::vector<Frame> stack;
  detail::OpenMarks<Frame> marks(stack);
  const Sexp_* n = root;  // the next element to write
  for (;;) {
    out.maybe_flush();
    if (n->is_symbol == 0 && !detail::is_open(n)) {
      out.put('(');
      stack.push_back({n, n});
      detail::toggle_open(n);
      n = n->car;
      continue;
    }
    if (n->is_symbol != 0) {
      write_symbol(out, n);
    } else {
      out.put("#cycle");
    }
    // The element is written: go on with the innermost list, closing those that end here.
    for (;;) {
      if (stack.empty()) return;
      Frame& f = stack.back();
      const Sexp_* next = f.at->cdr;
      if (next->is_symbol == 0 && !detail::is_open(next)) {
        out.put(' ');
        f.at = next;
        detail::toggle_open(next);
        n = next->car;
        break;
      }
      if (next->is_symbol == 0) {
        out.put(" . #cycle");
      } else if (next->value != 0) {
        out.put(" . ", 3);
        write_symbol(out, next);
      }
      out.put(')');
      f.unmark();
      stack.pop_back();
    }
  }
}

}  // namespace

void write_text(std::ostream& os, const Sexp& e, const WriteOptions& /*options*/) {
  Out out(&os);
  write_expr(out, e.get());
  out.flush();
}

std::string to_text(const Sexp& e, const WriteOptions& /*options*/) {
  Out out(nullptr);
  write_expr(out, e.get());
  return std::move(out.text());
}

}  // namespace vorn
