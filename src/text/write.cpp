// Writing expressions as S-expression text, compact or laid out for people.
#include "vorn/text/write.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "../expr/open_marks.hpp"
#include "../support/decimal.hpp"
#include "syntax.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn {

namespace {

// Collects the text and hands it to the stream in pieces of about `chunk` bytes; with no
// stream it just collects (to_text, and the pretty writer's trial lines).
class Out {
 public:
  static constexpr std::size_t chunk = 16 * 1024;

  explicit Out(std::ostream* os) : os_(os) {
    if (os_ != nullptr) buf_.reserve(chunk + 64);
  }
  void put(char c) { buf_.push_back(c); }
  void put(const char* s, std::size_t n) { buf_.append(s, n); }
  void put(const char* s) { buf_.append(s); }
  void put(std::string_view s) { buf_.append(s.data(), s.size()); }
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
    flushed_ += buf_.size();
    buf_.clear();
  }
  std::size_t size() const noexcept { return buf_.size(); }
  std::size_t written() const noexcept { return flushed_ + buf_.size(); }
  void clear() noexcept { buf_.clear(); }
  std::string& text() noexcept { return buf_; }

 private:
  std::ostream* os_;
  std::string buf_;
  std::size_t flushed_ = 0;
};

constexpr char hex_digits[] = "0123456789abcdef";

// `s` between `delim`s with the escapes of `style`: bytes that need none are copied in runs.
void put_quoted(Out& out, std::string_view s, char delim, detail::Escapes style) {
  out.put(delim);
  if (style == detail::Escapes::none) {  // the caller made sure `s` holds no delimiter
    out.put(s);
    out.put(delim);
    return;
  }
  std::size_t run = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const bool special = c == static_cast<unsigned char>(delim) || c == '\\' || c < 0x20 || c == 0x7F;
    if (!special) continue;
    if (style == detail::Escapes::doubled) {  // only the quote itself is escaped
      if (c != static_cast<unsigned char>(delim)) continue;
      out.put(s.data() + run, i + 1 - run);
      out.put(delim);
      run = i + 1;
      continue;
    }
    if (style == detail::Escapes::bar_only && c != '|' && c != '\\') continue;
    out.put(s.data() + run, i - run);
    run = i + 1;
    out.put('\\');
    const char* letter = std::strchr("\a\b\t\n\r", c);
    if (c == static_cast<unsigned char>(delim) || c == '\\') {
      out.put(static_cast<char>(c));
    } else if (c != 0 && letter != nullptr && (style == detail::Escapes::r7rs || c >= '\t')) {
      out.put("abtnr"[letter - "\a\b\t\n\r"]);
    } else {
      out.put('x');
      out.put(hex_digits[c >> 4]);
      out.put(hex_digits[c & 15]);
      if (style == detail::Escapes::r7rs) out.put(';');
    }
  }
  out.put(s.data() + run, s.size() - run);
  out.put(delim);
}

// How a scheme list is written when it is one of the forms the reader makes from other
// syntax: a vector, a bytevector or an abbreviation. Its head symbol is then implied.
struct Form {
  const char* opener;  // "(" for a plain list
  const char* closer;
  bool implied_head;
};
constexpr Form plain_list{"(", ")", false};

// How an open list is written, beside its Frame: kept only when writing scheme or
// pretty text, so the compact writer of the other dialects allocates as it always has.
struct Shape {
  const char* closer;
  std::size_t indent;  // pretty: the column of elements on lines of their own
  std::size_t line;    // pretty: the line the list opened on
};

class Writer {
 public:
  Writer(Out& out, const WriteOptions& options) noexcept
      : out_(out), options_(options), syntax_(detail::syntax_of(options.dialect)) {}

  void write(const Sexp_* root) {
    if (options_.pretty) {
      write_pretty(root);
    } else {
      write_flat<false>(out_, root, 0);
    }
  }

 private:
  // A list being written: `head` is its first cons, `at` the cons whose car was written
  // last. Every cons from `head` to `at` along the cdrs is open (see open_marks.hpp); one
  // reached again is a cycle. The marks are removed as the list closes.
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

  void symbol(Out& out, const Sexp_* n) {
    const std::uint64_t v = n->value;
    if (v == 0) {
      out.put("()", 2);
      return;
    }
    const char* name = n->mgr != nullptr ? n->mgr->get_symbol_value(v) : nullptr;
    if (name != nullptr) {
      const std::string_view s(name);
      if (detail::reads_back_bare(options_.dialect, s)) {
        out.put(s);
      } else if (syntax_.bar_escapes == detail::Escapes::none &&
                 s.find_first_of("|\\") != s.npos) {
        // Not expressible between smtlib bars: written as vorn writes it, which the smtlib
        // reader rejects rather than misreads.
        put_quoted(out, s, '|', detail::Escapes::bar_only);
      } else {
        put_quoted(out, s, '|', syntax_.bar_escapes);
      }
      return;
    }
    if (const auto str = n->mgr != nullptr ? n->mgr->get_string(v) : std::nullopt) {
      put_quoted(out, *str, '"', syntax_.string_escapes);
      return;
    }
    out.put('#');
    out.number(v);
  }

  // The way list `n` is written: in scheme, a proper list headed by a reserved symbol is
  // written in the syntax that reads as it.
  Form form_of(const Sexp_* n) const noexcept {
    if (options_.dialect != Dialect::scheme) return plain_list;
    const Sexp_* head = n->car;
    if (head->is_symbol == 0 || head->mgr == nullptr) return plain_list;
    const char* name = head->mgr->get_symbol_value(head->value);
    if (name == nullptr) return plain_list;
    static constexpr struct {
      const char* name;
      Form form;
    } forms[] = {
        {"#vector", {"#(", ")", true}},   {"#u8", {"#u8(", ")", true}},
        {"quote", {"'", "", true}},       {"quasiquote", {"`", "", true}},
        {"unquote", {",", "", true}},     {"unquote-splicing", {",@", "", true}},
    };
    for (const auto& f : forms) {
      if (std::strcmp(name, f.name) != 0) continue;
      if (f.form.closer[0] == '\0') {  // exactly one datum follows
        const Sexp_* rest = n->cdr;
        const bool one = rest->is_symbol == 0 && !detail::is_open(rest) &&
                         rest->cdr->is_symbol != 0 && rest->cdr->value == 0;
        return one ? f.form : plain_list;
      }
      // A proper list whose spine meets no open cons and no cycle (Floyd's two walkers).
      const Sexp_* slow = n->cdr;
      for (const Sexp_* fast = n->cdr;;) {
        for (int step = 0; step < 2; ++step) {
          if (fast->is_symbol != 0) return fast->value == 0 ? f.form : plain_list;
          if (detail::is_open(fast)) return plain_list;
          fast = fast->cdr;
        }
        slow = slow->cdr;
        if (slow == fast) return plain_list;
      }
    }
    return plain_list;
  }

  // Opens list `n`: writes its opener and pushes its frame. Returns the element to write
  // next, or null when its head is implied and the next step is to advance.
  const Sexp_* open_list(Out& out, std::vector<Frame>& stack, const Sexp_* n, std::size_t col) {
    const Form form = form_of(n);
    out.put(form.opener);
    stack.push_back({n, n});
    if (shaped_) shapes_.push_back({form.closer, col + options_.indent, lines_});
    detail::toggle_open(n);
    return form.implied_head ? nullptr : n->car;
  }

  // The end of the innermost list: its dotted tail, if any, and its closer. (A trial
  // line closes only lists it opened, which are the last shapes.)
  void close_list(Out& out, std::vector<Frame>& stack) {
    const Frame& f = stack.back();
    const Sexp_* next = f.at->cdr;
    if (next->is_symbol == 0) {
      out.put(" . #cycle");
    } else if (next->value != 0) {
      out.put(" . ", 3);
      symbol(out, next);
    }
    if (shaped_) {
      out.put(shapes_.back().closer);
      shapes_.pop_back();
    } else {
      out.put(')');
    }
    f.unmark();
    stack.pop_back();
  }

  // Whether `next`, the cdr of the innermost list's last cons, goes on with the list.
  static bool continues(const Sexp_* next) noexcept {
    return next->is_symbol == 0 && !detail::is_open(next);
  }

  // One line. Limited: gives up, returning false, once more than `limit` bytes are in
  // `out` (which has no stream); the marks set so far are removed either way.
  template <bool Limited>
  bool write_flat(Out& out, const Sexp_* root, std::size_t limit) {
    std::vector<Frame>& stack = Limited ? trial_stack_ : main_stack_;
    detail::OpenMarks<Frame> marks(stack);
    const std::size_t shapes_base = shapes_.size();
    const auto give_up = [&] {
      shapes_.resize(shapes_base);
      return false;
    };
    const Sexp_* n = root;  // the next element to write, null for none
    bool fresh = false;     // no element of the innermost list written yet
    for (;;) {
      if constexpr (Limited) {
        if (out.size() > limit) return give_up();
      } else {
        out.maybe_flush();
      }
      if (n != nullptr) {
        if (continues(n)) {
          n = open_list(out, stack, n, 0);
          fresh = n == nullptr;
          if (!fresh) continue;
        } else {
          if (Limited && too_wide(n, limit - std::min(limit, out.size()))) return give_up();
          n->is_symbol != 0 ? symbol(out, n) : out.put("#cycle");
        }
      }
      // The element is written: go on with the innermost list, closing those that end here.
      for (;;) {
        if (stack.empty()) return true;
        Frame& f = stack.back();
        const Sexp_* next = f.at->cdr;
        if (continues(next)) {
          if (!fresh) out.put(' ');
          fresh = false;
          f.at = next;
          detail::toggle_open(next);
          n = next->car;
          break;
        }
        close_list(out, stack);
        fresh = false;
      }
    }
  }

  // Lists that fit in what is left of the line are written flat; the others break, their
  // head and the atoms after it on the first line while they fit, every later element on
  // a line of its own, indented under the list. Each list is tried flat once, and a trial
  // stops as soon as the line is full, so the work is linear in the output.
  void write_pretty(const Sexp_* root) {
    std::vector<Frame>& stack = main_stack_;
    detail::OpenMarks<Frame> marks(stack);
    std::size_t line_start = out_.written();
    const auto col = [&] { return out_.written() - line_start; };
    const auto room = [&] { return options_.width > col() ? options_.width - col() : 0; };
    const Sexp_* n = root;
    bool fresh = false;
    for (;;) {
      out_.maybe_flush();
      if (n != nullptr) {
        trial_.clear();
        if (!continues(n)) {
          n->is_symbol != 0 ? symbol(out_, n) : out_.put("#cycle");
        } else if (fits(n, room())) {
          out_.put(trial_.text());
        } else {
          n = open_list(out_, stack, n, col());
          fresh = n == nullptr;
          if (!fresh) continue;
        }
      }
      for (;;) {
        if (stack.empty()) return;
        Frame& f = stack.back();
        Shape& shape = shapes_.back();
        const Sexp_* next = f.at->cdr;
        if (!continues(next)) {
          close_list(out_, stack);
          fresh = false;
          continue;
        }
        const Sexp_* e = next->car;
        bool same_line = fresh;
        if (!fresh && shape.line == lines_ && !continues(e)) {  // an atom: keep it up if it fits
          trial_.clear();
          e->is_symbol != 0 ? symbol(trial_, e) : trial_.put("#cycle");
          same_line = trial_.size() < room();
        }
        if (!fresh) {
          if (same_line) {
            out_.put(' ');
          } else {
            out_.put('\n');
            ++lines_;
            line_start = out_.written();
            for (std::size_t i = 0; i < shape.indent; ++i) out_.put(' ');
          }
        }
        fresh = false;
        f.at = next;
        detail::toggle_open(next);
        n = e;
        break;
      }
    }
  }

  // Whether atom `n` is a string wider than `room` bytes: a trial gives up before
  // copying it, so a long string costs its length once, not once per enclosing list.
  static bool too_wide(const Sexp_* n, std::size_t room) {
    if (n->is_symbol == 0 || n->mgr == nullptr) return false;
    const auto str = n->mgr->get_string(n->value);
    return str && str->size() > room;
  }

  // Whether list `n` written flat takes at most `room` bytes; its text is left in trial_.
  bool fits(const Sexp_* n, std::size_t room) {
    trial_.clear();
    const bool whole = write_flat<true>(trial_, n, room);
    trial_stack_.clear();  // what a trial given up left open, its marks already removed
    return whole && trial_.size() <= room;
  }

  Out& out_;
  const WriteOptions& options_;
  const detail::Syntax& syntax_;
  const bool shaped_ = options_.pretty || options_.dialect == Dialect::scheme;
  Out trial_{nullptr};  // pretty: a list or atom written flat to be measured
  std::vector<Frame> main_stack_, trial_stack_;
  std::vector<Shape> shapes_;  // one per open list of both stacks, when shaped_
  std::size_t lines_ = 0;      // pretty: line breaks written so far
};

}  // namespace

void write_text(std::ostream& os, const Sexp& e, const WriteOptions& options) {
  Out out(&os);
  Writer(out, options).write(e.get());
  out.flush();
}

std::string to_text(const Sexp& e, const WriteOptions& options) {
  Out out(nullptr);
  Writer(out, options).write(e.get());
  return std::move(out.text());
}

}  // namespace vorn
