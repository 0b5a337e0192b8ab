// The reader behind parse, parse_all and scan_first: one pass over a text in one dialect,
// with the grammar's state kept on the heap.
#ifndef VORN_SRC_TEXT_TEXT_PASS_HPP
#define VORN_SRC_TEXT_TEXT_PASS_HPP

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "../support/flat_map.hpp"
#include "syntax.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/text/parse.hpp"

#if defined(__GNUC__)
#define VORN_ALWAYS_INLINE [[gnu::always_inline]] inline
#else
#define VORN_ALWAYS_INLINE inline
#endif

namespace vorn::detail {

// The manager's entry points for the reader, which has the text but no terminated copy.
struct ReaderAccess {
  // make_symbol of the `len` bytes at `name` (none NUL, len > 0), without a terminated copy:
  // the same hash, look-up, malloc(len + 1) and insert as make_symbol on that name.
  static unsigned long intern(SexpManager& m, const char* name, std::size_t len,
                              std::uint64_t h) {
    return m.intern_symbol(name, len, h);
  }
  // What a sharing hit of sh_sym does besides the look-up: make sure a node could be made.
  static void reserve_node(SexpManager& m) { m.reserve_node(); }
  // sh_cons and sh_sym without the caller's reference (see SexpManager::shared_cons).
  static Sexp_* cons(SexpManager& m, Sexp_* a, Sexp_* d) { return m.shared_cons(a, d); }
  static Sexp_* symbol(SexpManager& m, unsigned long value) { return m.shared_symbol(value); }
  static Sexp_* string(SexpManager& m, std::string_view content) {
    return m.shared_symbol(m.make_string(content));
  }
};

// Errors are rare: the position is worked out from the byte offset only when one is thrown.
struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
};

inline Position position_of(std::string_view text, std::size_t offset) noexcept {
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

inline std::string where(std::string_view text, std::size_t offset) {
  const Position p = position_of(text, offset);
  return std::to_string(p.line) + ":" + std::to_string(p.column);
}

[[noreturn]] inline void throw_at(std::string_view text, std::size_t offset,
                                  const std::string& message) {
  const Position p = position_of(text, offset);
  throw ParseError(message, p.line, p.column);
}

std::string bad_escape_message(char c, const char* in);

// Progress of one open list.
enum class ListState : unsigned char {
  no_items,   // just after '('
  items,      // one element or more
  after_dot,  // '.' read, its expression not yet begun
  tail,       // the expression after '.' begun: only ')' may follow it
};

// What is open. Kinds from `quote` on take exactly one datum and close by themselves;
// `label` (a datum label's definition, `#N=`) is the one of them every dialect has.
enum class FrameKind : unsigned char {
  list, bracket_list, vector, bytevector,
  quote, quasiquote, unquote, unquote_splicing, datum_comment, label,
};

struct Frame {
  std::size_t open;   // offset of what opened it
  // A list: offset of its '.', once the state has reached after_dot. A label, checking in a
  // dialect whose tails must be lists: that '.' when the label's datum is such a tail, else
  // 0 (no list's '.' stands at offset 0, after its '(').
  std::size_t dot;
  std::size_t first;  // building: index in `items` of the first element
  ListState state;
  FrameKind kind;
};

// The symbol a scheme form reads as: the head of a vector, bytevector or abbreviation.
const char* head_name(FrameKind kind) noexcept;
// How the opening of a frame is spelled, for messages.
const char* opener(FrameKind kind) noexcept;

// One pass over the text.
//
// The checking pass (Build = false) makes no node and interns no name; it finds every
// error and counts the top-level expressions. The building pass (Build = true) runs
// only over text the checking pass accepted, so nothing it does can fail but memory.
// That split is what lets a failed call leave the manager exactly as it was: canonical
// nodes live as long as their manager, so a node made before an error is discovered
// could never be taken back.
//
// With FirstOnly (checking only, for scan_first) it stops once the first top-level
// expression is complete, and notes where things begin; parse and parse_all pay nothing
// for that.
template <bool Build, Dialect D, bool FirstOnly = false>
class Reader {
  static_assert(!(Build && FirstOnly), "only the checking pass stops after the first");
  static constexpr const Syntax& syntax = syntax_of(D);
  static constexpr bool scheme = D == Dialect::scheme;
  // Whether this pass makes sure that what follows a list's '.' is a list: the checking
  // pass of a dialect without dotted tails, whose '.' stands only before a shared tail.
  static constexpr bool list_tails = !Build && !syntax.dotted_tails;

 public:
  // `text_start`: the text is the start of the input, where a scheme script header may
  // stand (false for a slice from further on). `fold_case`: scheme names are folded from
  // the start, as after `#!fold-case` (the state an earlier slice of the input ended in).
  Reader(SexpManager* m, std::string_view text, bool text_start = true,
         bool fold_case = false) noexcept
      : lead_fold_case(fold_case),
        hold_(m != nullptr && m->auto_collect()),
        text_start_(text_start),
        fold_case_(fold_case),
        m_(m),
        text_(text) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() {
    if (hold_)
      for (Sexp_* n : items) n->release();
  }

  // Building: the finished top-level expressions, as handles; the reader keeps none.
  std::vector<Sexp> take_items() {
    std::vector<Sexp> out;
    out.reserve(items.size());
    for (Sexp_* n : items) {
      out.emplace_back(n);
      if (hold_) n->release();  // the handle has the reference the reader held
    }
    items.clear();
    return out;
  }

  void run() {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t i = 0;
    if constexpr (scheme) {  // a script header: `#!/...` or `#! ...` opening the input
      if (text_start_ && n >= 3 && s[0] == '#' && s[1] == '!' &&
          (s[2] == '/' || s[2] == ' ')) {
        i = skip_line(0);
      }
    }
    for (;;) {
      if (FirstOnly && frames_.empty() && count == 1) {
        first_end = i;
        return;
      }
      while (i < n && class_of(s[i]) == space) ++i;
      if (i == n) break;
      if constexpr (FirstOnly) {
        if (frames_.empty()) {
          lead = i;
          lead_fold_case = fold_case_;
        }
        token = i;
      }
      switch (class_of(s[i])) {
        case space:  // handled above
          break;
        case comment:
          i = skip_line(i);
          break;
        case open:
          begin_item(i);
          frames_.push_back({i, 0, items.size(), ListState::no_items,
                             s[i] == '[' ? FrameKind::bracket_list : FrameKind::list});
          ++i;
          break;
        case close:
          close_list(i);
          ++i;
          item_done();
          break;
        case bar:
          begin_item(i);
          i = read_barred(i);
          item_done();
          break;
        case quote:
          begin_item(i);
          i = read_string(i);
          item_done();
          break;
        case prefix:
          begin_item(i);
          i = open_prefix(i);
          break;
        case hash:
          if (i + 1 < n && s[i + 1] >= '0' && s[i + 1] <= '9') {
            if (const std::size_t end = read_label(i)) {
              i = end;
              break;
            }
          }
          if constexpr (scheme) {
            i = read_hash(i);
          } else {
            i = read_word(i);
          }
          break;
        default:
          i = read_word(i);
      }
    }
    if (!frames_.empty()) {
      const Frame& f = frames_.back();
      if (f.kind >= FrameKind::quote) missing_datum(n, f);
      fail(n, "unterminated list opened at " + where(text_, f.open));
    }
  }

  // Building: the nodes of the expressions read and not yet put in a list, innermost last
  // (the finished top-level expressions, once run() has returned). They are canonical, so
  // the shared table keeps them alive; the reader takes no reference on them unless the
  // manager collects by itself (hold_), when a collection in the middle of a read must not
  // take them. Either way every count ends where handles would have left it.
  std::vector<Sexp_*> items;
  std::size_t count = 0;        // top-level expressions
  std::size_t first_begin = 0;  // offset where the first top-level expression begins
  std::size_t second = 0;       // offset where the second top-level expression begins
  // With FirstOnly: where the first expression ends (0 when there is none); where the first top-level
  // thing not yet finished (expression or comment) began; whether a line comment ran to
  // the end of the text.
  std::size_t first_end = 0;
  std::size_t lead = 0;
  bool lead_fold_case;  // FirstOnly, scheme: whether names were folded at `lead`
  bool comment_at_end = false;
  std::size_t error_at = 0;  // the offset of the error thrown, if any
  std::size_t token = 0;     // FirstOnly: where the token read last (or being read) begins

  // Scheme: whether names are folded where the pass stands (where it stopped, once run()
  // has returned).
  bool fold_case() const noexcept { return fold_case_; }

 private:
  static unsigned char class_of(char c) noexcept {
    return syntax.classes[static_cast<unsigned char>(c)];
  }
  Sexp_* nil_node() const noexcept { return m_->nil().get(); }  // nil lives as long as m_

  // ---- recent atoms ------------------------------------------------------------------
  //
  // The canonical node of a short name or string content read before in this text, found
  // by the bytes alone. A hit skips the name's and the node's table look-ups, which would
  // both hit: it does only what such hits change, which is reserve_node() (a slot and an id
  // must be available). The node is still canonical: the shared table holds it, and only a
  // collection removes entries, which a read runs only in automatic mode (hold_), where the
  // cache is not used.
  static constexpr std::size_t max_cached = 19;  // bytes; an entry is 32
  struct RecentAtom {
    Sexp_* node = nullptr;
    std::uint32_t len = 0;
    bool string = false;
    char bytes[max_cached];
  };
  static constexpr std::size_t cache_bits = 9;

  // The canonical symbol of the name, or string atom of the content, of the `len` bytes at `p`.
  Sexp_* atom(const char* p, std::size_t len, bool string) {
    const std::uint64_t h = hsh::hash<char*>::of_bytes(p, len);
    if (hold_ || len > max_cached) return make_atom(p, len, string, h);
    if (recent_.empty()) recent_.resize(std::size_t{1} << cache_bits);
    RecentAtom& r = recent_[((h ^ len) * 0x9E3779B97F4A7C15ull) >> (64 - cache_bits)];
    if (r.node != nullptr && r.len == len && r.string == string &&
        std::memcmp(r.bytes, p, len) == 0) {
      ReaderAccess::reserve_node(*m_);
      return r.node;
    }
    Sexp_* n = make_atom(p, len, string, h);
    r.node = n;
    r.len = static_cast<std::uint32_t>(len);
    r.string = string;
    std::memcpy(r.bytes, p, len);
    return n;
  }
  Sexp_* make_atom(const char* p, std::size_t len, bool string, std::uint64_t h) {
    if (string) return ReaderAccess::string(*m_, std::string_view(p, len));
    return ReaderAccess::symbol(*m_, ReaderAccess::intern(*m_, p, len, h));
  }

  // Appends a node just found or made; with hold_, takes a reference on it once it is in.
  void push(Sexp_* n) {
    items.push_back(n);
    if (hold_) n->add_ref();
  }

  // Replaces the last two items with their cons: (last, second last) when `last_is_car`,
  // else (second last, last). Nothing changes before the cons exists, so a failure leaves
  // both items where they were.
  void cons_top(bool last_is_car) {
    Sexp_* const last = items.back();
    Sexp_* const before = items[items.size() - 2];
    Sexp_* c = last_is_car ? ReaderAccess::cons(*m_, last, before)
                           : ReaderAccess::cons(*m_, before, last);
    items.pop_back();
    items.back() = c;
    if (hold_) {
      c->add_ref();
      last->release();
      before->release();
    }
  }

  // Whether this pass makes nodes here: never while checking, nor inside a datum comment.
  bool building() const noexcept { return Build && (!scheme || muted_ == 0); }

  [[noreturn]] void fail(std::size_t at, const std::string& message) {
    error_at = at;
    throw_at(text_, at, message);
  }

  [[noreturn]] void missing_datum(std::size_t at, const Frame& f) {
    const std::string what =
        f.kind == FrameKind::label ? std::string(label_text(f.open)) : opener(f.kind);
    fail(at, "expected a datum after '" + what + "' at " + where(text_, f.open));
  }

  std::size_t skip_line(std::size_t i) noexcept {
    const char* const s = text_.data();
    const void* nl = std::memchr(s + i, '\n', text_.size() - i);
    if (nl != nullptr) return static_cast<std::size_t>(static_cast<const char*>(nl) - s) + 1;
    comment_at_end = true;
    return text_.size();
  }

  // An expression (atom or list) begins at `at`; `label`: with a datum label.
  void begin_item(std::size_t at, bool label = false) {
    if constexpr (list_tails) {
      tail_dot_ = 0;
      datum_is_list_ = false;
    }
    if (frames_.empty()) {
      if (++count == 1) first_begin = at;
      if (count == 2) second = at;
      labels_.clear();  // a label is known within its top-level expression only
      return;
    }
    Frame& f = frames_.back();
    switch (f.state) {
      case ListState::no_items:
        if constexpr (list_tails) {
          if (f.kind == FrameKind::label && f.dot != 0) {  // the datum of a label after a '.'
            if (!label && class_of(text_[at]) != open) fail(f.dot, lone_dot);
            tail_dot_ = f.dot;
          }
        }
        f.state = ListState::items;
        break;
      case ListState::items:
        break;
      case ListState::after_dot:
        if (!syntax.dotted_tails && !label) fail(f.dot, lone_dot);
        if constexpr (list_tails) tail_dot_ = f.dot;
        f.state = ListState::tail;
        break;
      case ListState::tail:
        fail(f.dot, "misplaced '.'");
    }
  }

  // An expression has just been read: close the one-datum frames it completes.
  void item_done() {
    while (!frames_.empty() && frames_.back().kind >= FrameKind::quote &&
           frames_.back().state == ListState::items) {
      const FrameKind kind = frames_.back().kind;
      const std::size_t open = frames_.back().open;
      frames_.pop_back();
      if (kind == FrameKind::label) {
        define_label(open);
        continue;
      }
      if constexpr (scheme) {
        if (kind == FrameKind::datum_comment) {
          --muted_;
          return;  // the datum is dropped: nothing was completed for the enclosing frame
        }
        if (building()) {  // (head x)
          push(nil_node());
          cons_top(false);
          push(ReaderAccess::symbol(*m_, m_->make_symbol(head_name(kind))));
          cons_top(true);
        }
      }
    }
  }

  // ---- datum labels --------------------------------------------------------------------
  //
  // `#N=` labels the datum after it and `#N#` stands for that datum, within one top-level
  // expression. The checking pass keeps, per label, where it was defined and whether its
  // datum is complete, and rejects a label defined twice, a reference to a label not
  // defined before it, and a reference inside the datum it stands for (a cycle, which
  // canonical nodes cannot hold). Where a '.' may stand only before a list, it also keeps
  // whether the datum is a list, and rejects a label of anything else after a '.', as the
  // lone '.' it then is. The building pass keeps, per label, its node. Both keep
  // them in a FlatMap whose seed is the reader's own address, which whoever wrote the text
  // cannot know. Labels inside a scheme datum comment are read and dropped with it.

  static constexpr const char* lone_dot = "a lone '.' is no symbol in this dialect (write |.|)";

  // Checking, a label's state: (offset of `#N=` + 1) << 2, with these bits.
  static constexpr std::uint64_t label_complete = 1;  // its datum has been read
  static constexpr std::uint64_t label_list = 2;      // and is a list (kept with list_tails only)
  static constexpr int label_offset_shift = 2;
  static std::size_t label_offset(std::uint64_t state) noexcept {
    return static_cast<std::size_t>((state >> label_offset_shift) - 1);
  }

  // Whether labels are kept where the pass stands (not inside a datum comment).
  bool tracking() const noexcept { return !scheme || muted_ == 0; }

  // The label `#N=` or `#N#` at `at`, as written.
  std::string_view label_text(std::size_t at) const noexcept {
    std::size_t end = at + 1;
    while (text_[end] >= '0' && text_[end] <= '9') ++end;
    return text_.substr(at, end + 1 - at);
  }

  // The number N of the label at `at`; fails when it is above 2^64 - 1.
  std::uint64_t label_number(std::size_t at) {
    std::uint64_t v = 0;
    for (std::size_t i = at + 1; text_[i] >= '0' && text_[i] <= '9'; ++i) {
      const auto digit = static_cast<std::uint64_t>(text_[i] - '0');
      if (v > (UINT64_MAX - digit) / 10)
        fail(at, "label number too large (at most 18446744073709551615)");
      v = v * 10 + digit;
    }
    return v;
  }

  // `#N=` or `#N#` at `at` (a `#` and a digit): opens the labelled datum, or reads the
  // datum labelled N. Returns the offset after it, or 0 when the digits are followed by
  // neither, which is no label (a vorn `#7`, or what the dialect reports).
  std::size_t read_label(std::size_t at) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t end = at + 1;
    while (end < n && s[end] >= '0' && s[end] <= '9') ++end;
    if (end == n || (s[end] != '=' && s[end] != '#')) return 0;
    const std::uint64_t number = label_number(at);
    ++end;
    if (s[end - 1] == '=') {
      begin_item(at, true);
      if (!Build && tracking()) {
        std::uint64_t& state = labels_.at(number);
        if (state != 0) {
          fail(at, "label '" + std::string(label_text(at)) + "' defined twice (first at " +
                       where(text_, label_offset(state)) + ")");
        }
        state = std::uint64_t{at + 1} << label_offset_shift;
      }
      frames_.push_back({at, tail_dot_, items.size(), ListState::no_items, FrameKind::label});
      return end;
    }
    if (end < n && class_of(s[end]) < space)
      fail(end, "expected a delimiter after '" + std::string(label_text(at)) + "'");
    begin_item(at, true);
    if (tracking()) {
      std::uint64_t* state = labels_.find(number);
      if constexpr (Build) {
        if (building()) push(reinterpret_cast<Sexp_*>(static_cast<std::uintptr_t>(*state)));
      } else {
        const std::string label(label_text(at));
        if (state == nullptr) {
          fail(at, "undefined label '" + label + "' (no '" + label.substr(0, label.size() - 1) +
                       "=' before it in this expression)");
        }
        if ((*state & label_complete) == 0) {
          fail(at, "'" + label + "' refers to the datum it stands in, labelled at " +
                       where(text_, label_offset(*state)) +
                       ": a cycle, which canonical nodes cannot hold");
        }
        if constexpr (list_tails) {
          datum_is_list_ = (*state & label_list) != 0;
          if (tail_dot_ != 0 && !datum_is_list_) fail(tail_dot_, lone_dot);
        }
      }
    }
    item_done();
    return end;
  }

  // The datum of the label opened at `open` is complete (and, building, the last item).
  void define_label(std::size_t open) {
    if (!tracking()) return;
    const std::uint64_t number = label_number(open);
    if constexpr (Build) {
      if (building()) labels_.at(number) = reinterpret_cast<std::uintptr_t>(items.back());
    } else {
      *labels_.find(number) |= list_tails && datum_is_list_ ? label_complete | label_list
                                                             : label_complete;
    }
  }

  // ' ` , ,@ at `at`: opens a frame that closes after one datum.
  std::size_t open_prefix(std::size_t at) {
    const char* const s = text_.data();
    FrameKind kind = s[at] == '\'' ? FrameKind::quote
                     : s[at] == '`' ? FrameKind::quasiquote
                                    : FrameKind::unquote;
    std::size_t len = 1;
    if (kind == FrameKind::unquote && at + 1 < text_.size() && s[at + 1] == '@') {
      kind = FrameKind::unquote_splicing;
      len = 2;
    }
    frames_.push_back({at, 0, items.size(), ListState::no_items, kind});
    return at + len;
  }

  // A lone '.': legal only after one element or more of an open list, and only once.
  // A dot that stands where none can is reported where it stands; once a list has its
  // dot, whatever goes wrong after it (no expression, or more than one) is reported at
  // that dot. A dialect without dotted tails (smtlib) still takes a dot before a datum
  // label of a list, where the writer puts a shared tail: the dot is taken here, and
  // whatever else follows it (begin_item and read_label see to a label of anything but a
  // list) is reported at it as the lone dot it is.
  void read_dot(std::size_t at) {
    if (frames_.empty() || frames_.back().state == ListState::no_items ||
        frames_.back().kind > FrameKind::bracket_list)
      fail(at, syntax.dotted_tails ? "misplaced '.'" : lone_dot);
    Frame& f = frames_.back();
    if (f.state != ListState::items) fail(f.dot, misplaced_dot(f));
    f.state = ListState::after_dot;
    f.dot = at;
  }

  // What is wrong with the dot of list `f`, when something other than its tail follows it.
  static const char* misplaced_dot(const Frame& f) noexcept {
    return !syntax.dotted_tails && f.state == ListState::after_dot ? lone_dot : "misplaced '.'";
  }

  void close_list(std::size_t at) {
    if (frames_.empty()) fail(at, std::string("unexpected '") + text_[at] + "'");
    const Frame& f = frames_.back();
    if (f.kind >= FrameKind::quote) missing_datum(at, f);
    if constexpr (scheme) {
      if ((f.kind == FrameKind::bracket_list) != (text_[at] == ']')) {
        fail(at, std::string("'") + text_[at] + "' closes the '" + text_[f.open] +
                     "' opened at " + where(text_, f.open));
      }
    }
    if (f.state == ListState::after_dot) fail(f.dot, misplaced_dot(f));
    if constexpr (list_tails) datum_is_list_ = true;  // what item_done() completes next
    if (building()) {
      // Bottom-up from the end, so every cons is made over canonical children.
      if (f.state != ListState::tail) push(nil_node());
      while (items.size() > f.first + 1) cons_top(false);
      if (scheme && (f.kind == FrameKind::vector || f.kind == FrameKind::bytevector)) {
        push(ReaderAccess::symbol(*m_, m_->make_symbol(head_name(f.kind))));
        cons_top(true);
      }
    }
    frames_.pop_back();
  }

  // A word starting at `at` (whose first byte may be `#`); returns its end. The commonest
  // token: kept inline in run(), as it was before the reader took dialects.
  VORN_ALWAYS_INLINE std::size_t read_word(std::size_t at) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t end = at + 1;
    while (end < n && class_of(s[end]) < space) ++end;
    if (end - at == 1 && s[at] == '.') {
      read_dot(at);
      return end;
    }
    begin_item(at);
    if (D == Dialect::vorn && s[at] == '#') {
      read_number(at, end);
    } else {
      if (D == Dialect::smtlib && s[at] == '#') check_literal(at, end);
      read_name(at, end);
    }
    item_done();
    return end;
  }

  // `#` and decimal digits, up to 2^64 - 1.
  void read_number(std::size_t begin, std::size_t end) {
    if (end - begin < 2) fail(begin, "invalid number after '#'");
    std::uint64_t v = 0;
    for (std::size_t i = begin + 1; i < end; ++i) {
      const char c = text_[i];
      if (c < '0' || c > '9') fail(begin, "invalid number after '#'");
      const auto digit = static_cast<std::uint64_t>(c - '0');
      if (v > (UINT64_MAX - digit) / 10) fail(begin, "invalid number after '#'");
      v = v * 10 + digit;
    }
    if (building()) push(ReaderAccess::symbol(*m_, v));
  }

  // `#x` and hex digits or `#b` and binary digits.
  void check_literal(std::size_t begin, std::size_t end) {
    const std::string_view w = text_.substr(begin, end - begin);
    const char* digits = w.size() > 2 && w[1] == 'x' ? "0123456789abcdefABCDEF"
                         : w.size() > 2 && w[1] == 'b' ? "01"
                                                       : nullptr;
    if (digits != nullptr && w.find_first_not_of(digits, 2) == w.npos) return;
    fail(begin, "invalid literal after '#' (#x and hex digits, or #b and binary digits)");
  }

  void read_name(std::size_t begin, std::size_t end) {
    const char* const s = text_.data();
    if constexpr (!Build) {
      if (const void* nul = std::memchr(s + begin, '\0', end - begin)) {
        fail(static_cast<std::size_t>(static_cast<const char*>(nul) - s), "NUL byte in name");
      }
    } else if (building()) {
      if (scheme && fold_case_) {
        name_.assign(s + begin, end - begin);
        for (char& c : name_) {
          if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
        intern_name();
      } else {  // interned straight from the text, which the checking pass found free of NUL
        push(atom(s + begin, end - begin, false));
      }
    }
  }

  void intern_name() {
    push(name_.empty() ? nil_node() : ReaderAccess::symbol(*m_, m_->make_symbol(name_.c_str())));
  }

  // ---- strings and |names| -------------------------------------------------------------

  // `"..."` opened at `begin`; returns the offset after the closing quote.
  std::size_t read_string(std::size_t begin) {
    if (Build && building()) {  // a string without escapes is interned straight from the text
      const char* const s = text_.data();
      const std::size_t n = text_.size();
      const void* found = std::memchr(s + begin + 1, '"', n - begin - 1);
      const std::size_t close =  // the checking pass found the string closed
          static_cast<std::size_t>(static_cast<const char*>(found) - s);
      const bool plain = syntax.string_escapes == Escapes::doubled
                             ? close + 1 == n || s[close + 1] != '"'
                             : std::memchr(s + begin + 1, '\\', close - begin - 1) == nullptr;
      if (plain) {
        push(atom(s + begin + 1, close - begin - 1, true));
        return close + 1;
      }
    }
    if (building()) name_.clear();
    const std::size_t end = read_quoted(begin, '"', syntax.string_escapes, "string");
    if (building()) push(ReaderAccess::string(*m_, name_));
    return end;
  }

  // `|...|` opened at `begin`; returns the offset after the closing bar.
  std::size_t read_barred(std::size_t begin) {
    if (building()) name_.clear();
    in_name_ = true;
    const std::size_t end = read_quoted(begin, '|', syntax.bar_escapes, "|name|");
    in_name_ = false;
    const char* const s = text_.data();
    if (const void* nul = std::memchr(s + begin, '\0', end - begin)) {
      fail(static_cast<std::size_t>(static_cast<const char*>(nul) - s), "NUL byte in name");
    }
    if (building()) intern_name();
    return end;
  }

  // The content between `delim` at `begin` and the matching one, decoded into `name_`
  // when building; returns the offset after the closing delimiter. Runs of plain bytes
  // are found with memchr and copied whole.
  std::size_t read_quoted(std::size_t begin, char delim, Escapes escapes, const char* what) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t i = begin + 1;
    for (;;) {
      const void* found = std::memchr(s + i, delim, n - i);
      const std::size_t close =
          found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - s) : n;
      std::size_t plain_end = close;
      if (escapes != Escapes::none && escapes != Escapes::doubled) {
        if (const void* bs = std::memchr(s + i, '\\', close - i))
          plain_end = static_cast<std::size_t>(static_cast<const char*>(bs) - s);
      }
      if (building()) name_.append(s + i, plain_end - i);
      if (plain_end == n) unterminated(begin, what);
      if (plain_end < close) {  // a backslash
        i = read_escape(begin, plain_end, escapes, what);
        continue;
      }
      if (escapes == Escapes::doubled && close + 1 < n && s[close + 1] == delim) {
        if (building()) name_.push_back(delim);
        i = close + 2;
        continue;
      }
      if (escapes == Escapes::none && delim == '|') {  // a quoted symbol holds no backslash
        if (const void* bs = std::memchr(s + begin, '\\', close - begin))
          fail(static_cast<std::size_t>(static_cast<const char*>(bs) - s),
               std::string("'\\' in ") + what);
      }
      return close + 1;
    }
  }

  [[noreturn]] void unterminated(std::size_t begin, const char* what) {
    fail(text_.size(), std::string("unterminated ") + what + " opened at " + where(text_, begin));
  }

  // The escape whose backslash is at `at`; appends what it stands for when building and
  // returns the offset after it.
  std::size_t read_escape(std::size_t begin, std::size_t at, Escapes escapes, const char* what) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    if (at + 1 == n) unterminated(begin, what);
    const char c = s[at + 1];
    if (escapes == Escapes::bar_only) {
      if (c != '|' && c != '\\') fail(at, bad_escape_message(c, what));
      put(c);
      return at + 2;
    }
    switch (c) {
      case '"': case '\\': case '|': put(c); return at + 2;
      case 'a': put('\a'); return at + 2;
      case 'b': put('\b'); return at + 2;
      case 'n': put('\n'); return at + 2;
      case 'r': put('\r'); return at + 2;
      case 't': put('\t'); return at + 2;
      case 'x': return escapes == Escapes::vorn ? read_hex_byte(begin, at, what)
                                                : read_code_point(begin, at, what);
      default: break;
    }
    if (escapes == Escapes::vorn) {
      const char* const from = "/'fv0";
      const char* const to = "/'\f\v";
      if (const char* p = std::strchr(from, c); p != nullptr && c != '\0') {
        put(p - from == 4 ? '\0' : to[p - from]);
        return at + 2;
      }
    } else {  // a line continuation: \ blanks, a line end, blanks
      std::size_t i = at + 1;
      while (i < n && (s[i] == ' ' || s[i] == '\t')) ++i;
      if (i < n && s[i] == '\r') ++i;
      if (i == n) unterminated(begin, what);
      if (s[i] == '\n') {
        for (++i; i < n && (s[i] == ' ' || s[i] == '\t');) ++i;
        return i;
      }
    }
    fail(at, bad_escape_message(c, what));
  }

  static int hex_value(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') return (c | 0x20) - 'a' + 10;
    return -1;
  }

  // `\xHH`: exactly two hex digits, one byte.
  std::size_t read_hex_byte(std::size_t begin, std::size_t at, const char* what) {
    if (at + 3 >= text_.size()) unterminated(begin, what);
    const int hi = hex_value(text_[at + 2]), lo = hex_value(text_[at + 3]);
    if (hi < 0 || lo < 0) fail(at, std::string("\\x takes two hex digits in ") + what);
    put(static_cast<char>(hi << 4 | lo));
    return at + 4;
  }

  // `\xH...;`: a code point up to 10FFFF, appended as UTF-8.
  std::size_t read_code_point(std::size_t begin, std::size_t at, const char* what) {
    std::uint32_t cp = 0;
    std::size_t i = at + 2;
    for (;; ++i) {
      if (i == text_.size()) unterminated(begin, what);
      const int d = hex_value(text_[i]);
      if (d < 0) break;
      cp = cp << 4 | static_cast<std::uint32_t>(d);
      if (cp > 0x10FFFF) break;
    }
    if (i == at + 2 || text_[i] != ';' || cp > 0x10FFFF)
      fail(at, std::string("\\x takes hex digits (at most 10FFFF) and ';' in ") + what);
    if (cp == 0 && in_name_) fail(at, "NUL byte in name");
    if (cp < 0x80) {
      put(static_cast<char>(cp));
    } else {
      const int len = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
      put(static_cast<char>((0xF00u >> len) | (cp >> (6 * (len - 1)))));
      for (int k = len - 2; k >= 0; --k) put(static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F)));
    }
    return i + 1;
  }

  void put(char c) {
    if (building()) name_.push_back(c);
  }

  // ---- scheme #-forms -----------------------------------------------------------------

  std::size_t read_hash(std::size_t at) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    const char c = at + 1 < n ? s[at + 1] : '\0';
    switch (c) {
      case '|':
        return skip_block_comment(at);
      case ';':
        frames_.push_back({at, 0, items.size(), ListState::no_items, FrameKind::datum_comment});
        ++muted_;
        return at + 2;
      case '(':
        begin_item(at);
        frames_.push_back({at, 0, items.size(), ListState::no_items, FrameKind::vector});
        return at + 2;
      case '\\':
        begin_item(at);
        return read_char(at);
      default:
        break;
    }
    std::size_t end = at + 1;
    while (end < n && class_of(s[end]) < space) ++end;
    const std::string_view w = text_.substr(at, end - at);
    if (c == '!') {
      if (w == "#!fold-case" || w == "#!no-fold-case") {
        fold_case_ = w.size() == 11;
        return end;
      }
      fail(at, "unknown directive '" + std::string(w) + "'");
    }
    if (w == "#u8" && end < n && s[end] == '(') {
      begin_item(at);
      frames_.push_back({at, 0, items.size(), ListState::no_items, FrameKind::bytevector});
      return end + 1;
    }
    const bool is_true = iequals(w, "#t") || iequals(w, "#true");
    if (is_true || iequals(w, "#f") || iequals(w, "#false")) {
      begin_item(at);
      if (building()) {
        name_ = is_true ? "#t" : "#f";
        intern_name();
      }
      item_done();
      return end;
    }
    if (w.size() > 2 && c != '\0' && std::strchr(":xXbBoOdDeEiI", c) != nullptr) {
      begin_item(at);  // a keyword or a number: the symbol of its text
      read_name(at, end);
      item_done();
      return end;
    }
    if (c >= '0' && c <= '9') fail(at, "a datum label is '#N=' or '#N#'");
    fail(at, "unknown '#' syntax");
  }

  static bool iequals(std::string_view w, const char* lower) noexcept {
    if (w.size() != std::strlen(lower)) return false;
    for (std::size_t i = 0; i < w.size(); ++i) {
      if ((w[i] >= 'A' && w[i] <= 'Z' ? w[i] - 'A' + 'a' : w[i]) != lower[i]) return false;
    }
    return true;
  }

  // `#\` at `at`: one character (any byte, even one that ends words), then word bytes.
  std::size_t read_char(std::size_t at) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    const std::size_t start = at + 2;
    if (start >= n) fail(n, "expected a character after '#\\'");
    std::size_t end = start + utf8_length(static_cast<unsigned char>(s[start]));
    if (end > n) end = n;
    while (end < n && class_of(s[end]) < space) ++end;
    char spelling[max_char_spelling + 2] = {'#', '\\'};
    const std::size_t len = canonical_char(text_.substr(start, end - start), spelling + 2);
    if (len == 0) fail(at, "unknown character '" + std::string(text_.substr(at, end - at)) + "'");
    if (building()) {
      name_.assign(spelling, len + 2);
      intern_name();
    }
    item_done();
    return end;
  }

  // `#|` at `at`, nesting; returns the offset after the matching `|#`. Every `#|` and
  // `|#` holds a bar, so the scan jumps from bar to bar.
  std::size_t skip_block_comment(std::size_t at) {
    const char* const s = text_.data();
    const std::size_t n = text_.size();
    std::size_t depth = 1;
    std::size_t i = at + 2;  // bytes before `i` are used up
    for (;;) {
      const void* found = std::memchr(s + i, '|', n - i);
      if (found == nullptr) {
        fail(n, "unterminated block comment opened at " + where(text_, at));
      }
      const auto bar = static_cast<std::size_t>(static_cast<const char*>(found) - s);
      if (bar > i && s[bar - 1] == '#') {
        ++depth;
        i = bar + 1;
      } else if (bar + 1 < n && s[bar + 1] == '#') {
        i = bar + 2;
        if (--depth == 0) return i;
      } else {
        i = bar + 1;
      }
    }
  }

  bool hold_;              // the reader holds a reference on each of `items`
  bool text_start_;         // the text starts the input: a script header may open it
  bool in_name_ = false;    // reading a |name|, which may not hold NUL
  bool fold_case_;          // scheme: #!fold-case in force (from the start, or seen since)
  std::size_t muted_ = 0;   // open datum comments: nothing is built inside one
  SexpManager* m_;          // null in the checking pass
  std::string_view text_;
  std::vector<Frame> frames_;  // open lists, innermost last
  std::string name_;           // the name or string content being read
  std::vector<RecentAtom> recent_;  // building: direct-mapped by the bytes' hash; made on first use
  // With list_tails: where the expression begun last stands after a list's '.' (directly, or
  // as a label's datum there), that '.', else 0; and whether the expression completed last
  // is a list (false when it begins; true once a list closes, or a label of a list is read).
  std::size_t tail_dot_ = 0;
  bool datum_is_list_ = false;
  // The labels of the top-level expression being read: checking, the state above
  // (label_complete...); building, the datum's node.
  FlatMap labels_{static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(this))};
};

}  // namespace vorn::detail

#endif  // VORN_SRC_TEXT_TEXT_PASS_HPP
