// Writing expressions as S-expression text, compact or laid out for people.
#include "vorn/text/write.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "../expr/open_marks.hpp"
#include "../support/decimal.hpp"
#include "cons_labels.hpp"
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

// A list being written, plainly: `head` is its first cons, `at` the cons whose car was
// written last. Every cons from `head` to `at` along the cdrs is open (see open_marks.hpp);
// one reached again is a cycle. The marks are removed as the list closes.
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

// A list being written with shared conses labelled: `at` is the cons whose car was written
// last. Nothing is marked: a cons reached again is shared, and is written as its label.
// `tail`: the list's cdr is a shared cons written for the first time, after " . ", as an
// element of its own; the list ends when that element does.
struct LabelledFrame {
  const Sexp_* at;
  bool tail;

  void unmark() const noexcept {}
};

// Writes one expression. Shared: every cons that ConsLabels finds shared is written in
// full once, after `#N=`, and as `#N#` wherever else it stands, a tail included (after a
// dot). The plain writer (Shared false) is the one that writes `#cycle`.
template <bool Shared>
class Writer {
  using Entry = std::conditional_t<Shared, LabelledFrame, Frame>;

 public:
  Writer(Out& out, const WriteOptions& options, detail::ConsLabels* labels) noexcept
      : out_(out),
        options_(options),
        syntax_(detail::syntax_of(options.dialect)),
        labels_(labels) {}

  void write(const Sexp_* root) {
    if (options_.pretty) {
      write_pretty(root);
    } else {
      write_flat<false>(out_, root, 0);
    }
  }

 private:
  static constexpr std::uint64_t no_label = ~std::uint64_t{0};

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

  // An element that is not written as a list here: a symbol, a cycle (plain) or the label
  // of a shared cons already written (shared).
  void atom(Out& out, const Sexp_* n) {
    if (n->is_symbol != 0) {
      symbol(out, n);
    } else if constexpr (Shared) {
      out.put('#');
      out.number(labels_->label(n));
      out.put('#');
    } else {
      out.put("#cycle");
    }
  }

  // Whether element `n` is written as a list where it stands: a cons that is not open
  // (plain), or one not written yet (shared).
  bool opens_list(const Sexp_* n) {
    if (n->is_symbol != 0) return false;
    if constexpr (Shared) {
      return labels_->label(n) == no_label;
    } else {
      return !detail::is_open(n);
    }
  }

  // Whether `next`, the cdr of the innermost list's last cons, goes on with the list: a
  // cons that is not open (plain), or not shared (shared).
  bool continues(const Sexp_* next) {
    if (next->is_symbol != 0) return false;
    if constexpr (Shared) {
      return !labels_->shared(next);
    } else {
      return !detail::is_open(next);
    }
  }

  // Whether cons `c` on the spine of a scheme form keeps the form from being written in its
  // own syntax, which has no place for a dotted tail nor for a label inside the spine.
  bool blocks_form(const Sexp_* c) {
    if constexpr (Shared) {
      return labels_->shared(c);
    } else {
      return detail::is_open(c);
    }
  }

  // Shared: `#N=` before the first occurrence of a shared cons, which takes the next label.
  // A trial's labels are noted, to be taken back if the trial is given up.
  template <bool Limited>
  void label_if_shared(Out& out, const Sexp_* n) {
    if constexpr (Shared) {
      if (!labels_->shared(n)) return;
      if (Limited) trial_labels_.push_back(n);
      out.put('#');
      out.number(labels_->define(n));
      out.put('=');
    }
  }

  // The way list `n` is written: in scheme, a proper list headed by a reserved symbol is
  // written in the syntax that reads as it.
  Form form_of(const Sexp_* n) {
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
        const bool one = rest->is_symbol == 0 && !blocks_form(rest) &&
                         rest->cdr->is_symbol != 0 && rest->cdr->value == 0;
        return one ? f.form : plain_list;
      }
      // A proper list whose spine meets no open (or shared) cons and no cycle (Floyd's two
      // walkers).
      const Sexp_* slow = n->cdr;
      for (const Sexp_* fast = n->cdr;;) {
        for (int step = 0; step < 2; ++step) {
          if (fast->is_symbol != 0) return fast->value == 0 ? f.form : plain_list;
          if (blocks_form(fast)) return plain_list;
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
  const Sexp_* open_list(Out& out, std::vector<Entry>& stack, const Sexp_* n, std::size_t col) {
    const Form form = form_of(n);
    out.put(form.opener);
    if constexpr (Shared) {
      stack.push_back({n, false});
    } else {
      stack.push_back({n, n});
    }
    if (shaped_) shapes_.push_back({form.closer, col + options_.indent, lines_});
    if (!Shared) detail::toggle_open(n);
    return form.implied_head ? nullptr : n->car;
  }

  // The end of the innermost list: its dotted tail, if any and not written already, and its
  // closer. (A trial line closes only lists it opened, which are the last shapes.)
  void close_list(Out& out, std::vector<Entry>& stack) {
    const Entry& f = stack.back();
    bool tail_written = false;
    if constexpr (Shared) tail_written = f.tail;
    const Sexp_* next = f.at->cdr;
    if (!tail_written) {
      if (next->is_symbol == 0) {  // plain: a cycle; shared: a shared cons already written
        if constexpr (Shared) {
          out.put(" . ", 3);
          atom(out, next);
        } else {
          out.put(" . #cycle");
        }
      } else if (next->value != 0) {
        out.put(" . ", 3);
        symbol(out, next);
      }
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

  // Shared: when the innermost list's cdr `next` is a shared cons not written yet, starts
  // writing it as the list's tail, " . " and then the element returned; null otherwise.
  const Sexp_* shared_tail(Out& out, Entry& f, const Sexp_* next) {
    if constexpr (Shared) {
      if (f.tail || next->is_symbol != 0 || labels_->label(next) != no_label) return nullptr;
      out.put(" . ", 3);
      f.tail = true;
      return next;
    } else {
      (void)out, (void)f, (void)next;
      return nullptr;
    }
  }

  // One line. Limited: gives up, returning false, once more than `limit` bytes are in
  // `out` (which has no stream); the marks set so far are removed either way.
  template <bool Limited>
  bool write_flat(Out& out, const Sexp_* root, std::size_t limit) {
    std::vector<Entry>& stack = Limited ? trial_stack_ : main_stack_;
    detail::OpenMarks<Entry> marks(stack);
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
        if (opens_list(n)) {
          label_if_shared<Limited>(out, n);
          n = open_list(out, stack, n, 0);
          fresh = n == nullptr;
          if (!fresh) continue;
        } else {
          if (Limited && too_wide(n, limit - std::min(limit, out.size()))) return give_up();
          atom(out, n);
        }
      }
      // The element is written: go on with the innermost list, closing those that end here.
      for (;;) {
        if (stack.empty()) return true;
        Entry& f = stack.back();
        const Sexp_* next = f.at->cdr;
        if (!tail_pending(f) && continues(next)) {
          if (!fresh) out.put(' ');
          fresh = false;
          f.at = next;
          if (!Shared) detail::toggle_open(next);
          n = next->car;
          break;
        }
        fresh = false;
        if ((n = shared_tail(out, f, next)) != nullptr) break;
        close_list(out, stack);
      }
    }
  }

  // Shared: whether the innermost list has its tail written already and ends with it.
  static bool tail_pending(const Entry& f) noexcept {
    if constexpr (Shared) {
      return f.tail;
    } else {
      (void)f;
      return false;
    }
  }

  // Lists that fit in what is left of the line are written flat; the others break, their
  // head and the atoms after it on the first line while they fit, every later element on
  // a line of its own, indented under the list. Each list is tried flat once, and a trial
  // stops as soon as the line is full, so the work is linear in the output.
  void write_pretty(const Sexp_* root) {
    std::vector<Entry>& stack = main_stack_;
    detail::OpenMarks<Entry> marks(stack);
    std::size_t line_start = out_.written();
    const auto col = [&] { return out_.written() - line_start; };
    const auto room = [&] { return options_.width > col() ? options_.width - col() : 0; };
    const Sexp_* n = root;
    bool fresh = false;
    for (;;) {
      out_.maybe_flush();
      if (n != nullptr) {
        trial_.clear();
        if (!opens_list(n)) {
          atom(out_, n);
        } else if (fits(n, room())) {  // the trial wrote the list's label too, if it has one
          out_.put(trial_.text());
        } else {
          label_if_shared<false>(out_, n);
          n = open_list(out_, stack, n, col());
          fresh = n == nullptr;
          if (!fresh) continue;
        }
      }
      for (;;) {
        if (stack.empty()) return;
        Entry& f = stack.back();
        Shape& shape = shapes_.back();
        const Sexp_* next = f.at->cdr;
        if (tail_pending(f) || !continues(next)) {
          fresh = false;
          if ((n = shared_tail(out_, f, next)) != nullptr) break;
          close_list(out_, stack);
          continue;
        }
        const Sexp_* e = next->car;
        bool same_line = fresh;
        if (!fresh && shape.line == lines_ && !opens_list(e)) {  // an atom: keep it up if it fits
          trial_.clear();
          atom(trial_, e);
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
        if (!Shared) detail::toggle_open(next);
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
  // Labels the trial gave are taken back when it does not fit: they are given again as the
  // list is written broken.
  bool fits(const Sexp_* n, std::size_t room) {
    trial_.clear();
    std::uint64_t next_label = 0;
    if constexpr (Shared) next_label = labels_->next();
    const bool whole = write_flat<true>(trial_, n, room);
    trial_stack_.clear();  // what a trial given up left open, its marks already removed
    const bool fit = whole && trial_.size() <= room;
    if constexpr (Shared) {
      if (!fit) {
        for (const Sexp_* c : trial_labels_) labels_->undefine(c);
        labels_->rewind(next_label);
      }
      trial_labels_.clear();
    }
    return fit;
  }

  Out& out_;
  const WriteOptions& options_;
  const detail::Syntax& syntax_;
  detail::ConsLabels* const labels_;  // shared: the conses to label and their labels
  const bool shaped_ = options_.pretty || options_.dialect == Dialect::scheme;
  Out trial_{nullptr};  // pretty: a list or atom written flat to be measured
  std::vector<Entry> main_stack_, trial_stack_;
  std::vector<Shape> shapes_;  // one per open list of both stacks, when shaped_
  std::size_t lines_ = 0;      // pretty: line breaks written so far
  std::vector<const Sexp_*> trial_labels_;  // shared: conses labelled by the current trial
};

// The text of `root` into `out`.
void write_to(Out& out, const Sexp_* root, const WriteOptions& options) {
  if (!options.shared) {
    Writer<false>(out, options, nullptr).write(root);
    return;
  }
  detail::ConsLabels labels(root);
  Writer<true>(out, options, &labels).write(root);
}

}  // namespace

void write_text(std::ostream& os, const Sexp& e, const WriteOptions& options) {
  Out out(&os);
  write_to(out, e.get(), options);
  out.flush();
}

std::string to_text(const Sexp& e, const WriteOptions& options) {
  Out out(nullptr);
  write_to(out, e.get(), options);
  return std::move(out.text());
}

}  // namespace vorn
