// The diagnostic text of an expression.
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <locale>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "../support/decimal.hpp"
#include "open_marks.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

namespace {

constexpr const char* null_text = "<NIL>";

// Writes the text's pieces into a local buffer and hands it to the stream in large
// writes. Used only when the stream would format every number as plain decimal (no
// width pending, decimal base, the classic locale), so the bytes are exactly those of
// one insertion per piece.
class BufferedSink {
 public:
  explicit BufferedSink(std::ostream& os) noexcept : os_(os) {}
  BufferedSink(const BufferedSink&) = delete;
  BufferedSink& operator=(const BufferedSink&) = delete;
  ~BufferedSink() = default;  // flush() is explicit: a destructor must not throw

  static bool suits(const std::ostream& os) {
    const auto base = os.flags() & std::ios_base::basefield;
    return os.width() == 0 && base != std::ios_base::hex && base != std::ios_base::oct &&
           os.getloc() == std::locale::classic();
  }

  void text(const char* s, std::size_t n) {
    while (n > 0) {
      if (used_ == sizeof buf_) flush();
      const std::size_t k = n < sizeof buf_ - used_ ? n : sizeof buf_ - used_;
      std::memcpy(buf_ + used_, s, k);
      used_ += k;
      s += k;
      n -= k;
    }
  }
  void text(const char* s) { text(s, std::strlen(s)); }
  void ch(char c) {
    if (used_ == sizeof buf_) flush();
    buf_[used_++] = c;
  }
  void number(std::uint64_t v) {
    char digits[detail::max_decimal_digits];
    const char* p = detail::decimal_digits(v, digits + sizeof digits);
    text(p, static_cast<std::size_t>(digits + sizeof digits - p));
  }
  void indent(std::uint32_t depth) {
    static const char spaces[] =
        "                                                                ";  // 64
    std::uint64_t n = 2 * std::uint64_t{depth};
    while (n > 0) {
      const std::size_t k = n < sizeof spaces - 1 ? static_cast<std::size_t>(n) : sizeof spaces - 1;
      text(spaces, k);
      n -= k;
    }
  }
  void flush() {
    os_.write(buf_, static_cast<std::streamsize>(used_));
    used_ = 0;
  }

 private:
  std::ostream& os_;
  std::size_t used_ = 0;
  char buf_[8192];
};

// One stream insertion per piece: honours whatever format the caller set on the
// stream (a pending width, hexadecimal numbers, a locale's digit grouping).
class InsertingSink {
 public:
  explicit InsertingSink(std::ostream& os) noexcept : os_(os) {}
  void text(const char* s) { os_ << s; }
  void ch(char c) { os_ << c; }
  void number(std::uint32_t v) { os_ << v; }
  void number(std::uint64_t v) { os_ << v; }
  void indent(std::uint32_t depth) {
    for (std::uint32_t i = 0; i < depth; ++i) os_ << "  ";
  }
  void flush() {}

 private:
  std::ostream& os_;
};

using PrintedSet = hsh::Hashtable<const Sexp_*, hsh::GetKey_identity<const Sexp_*>, const Sexp_*,
                                  hsh::hash<const Sexp_*>, std::equal_to<const Sexp_*>>;

// A cons is open (see open_marks.hpp) from its header to its closing line; an open cons
// met again is a cycle, which only setcar/setcdr can make.
struct WalkEntry {
  const Sexp_* node;
  std::uint32_t depth : 30;  // nesting level: two spaces each
  std::uint32_t phase : 2;   // cons progress: 0 nothing written, 1 car written, 2 cdr written

  // Removes the open mark this entry set, if any.
  void unmark() const noexcept {
    if (phase != 0 && detail::is_open(node)) detail::toggle_open(node);
  }
};

template <class Sink>
void write_symbol(Sink& out, const Sexp_* n) {
  out.ch('<');
  out.number(std::uint64_t{n->value});
  out.ch('>');
  const char* name = n->mgr != nullptr ? n->mgr->get_symbol_value(n->value) : nullptr;
  if (name == nullptr) {
    // A string atom shows its contents between double quotes, `"` and `\` escaped.
    if (const auto str = n->mgr != nullptr ? n->mgr->get_string(n->value) : std::nullopt) {
      out.ch('"');
      for (const char c : *str) {
        if (c == '"' || c == '\\') out.ch('\\');
        out.ch(c);
      }
      out.ch('"');
      return;
    }
    out.ch('?');
    return;
  }
  out.ch('|');
  for (; *name != '\0'; ++name) {
    if (*name == '|') out.ch('\\');
    out.ch(*name);
  }
  out.ch('|');
}

template <class Sink>
void write_header(Sink& out, const Sexp_* n) {
  out.ch('{');
  out.number(std::uint32_t{n->id});
  out.ch('}');
  out.ch('[');
  out.number(std::uint32_t{n->refcount});
  out.ch(']');
}

template <class Sink>
void write_backref(Sink& out, const Sexp_* n, std::uint32_t depth) {
  out.indent(depth);
  out.ch('@');
  out.number(std::uint32_t{n->id});
}

// Depth first, car before cdr, each node's header before its children; a node written
// in full once is written as a back-reference afterwards. The walk stack lives on the
// heap, so depth costs no call stack.
template <class Sink>
void write_text(Sink& out, const Sexp_* root) {
  PrintedSet printed;
  std::vector<WalkEntry> stack;
  detail::OpenMarks<WalkEntry> marks(stack);
  stack.push_back({root, 0, 0});
  while (!stack.empty()) {
    WalkEntry& top = stack.back();
    const Sexp_* n = top.node;
    const std::uint32_t depth = top.depth;
    if (printed.find(n) != printed.end()) {
      write_backref(out, n, depth);
      stack.pop_back();
    } else if (n->is_symbol != 0) {
      stack.pop_back();
      out.indent(depth);
      write_header(out, n);
      write_symbol(out, n);
      printed.insert(n);
    } else if (top.phase == 0) {
      if (detail::is_open(n)) {  // a cycle: refer back to the open cons, do not enter it
        write_backref(out, n, depth);
        out.ch('!');
        stack.pop_back();
        continue;
      }
      out.indent(depth);
      write_header(out, n);
      out.text("(cons\n");
      stack.push_back({n->car, depth + 1, 0});  // may move `top`
      stack[stack.size() - 2].phase = 1;
      detail::toggle_open(n);
    } else if (top.phase == 1) {
      out.indent(depth);
      out.ch('\n');
      top.phase = 2;
      stack.push_back({n->cdr, depth + 1, 0});
    } else {
      out.ch('\n');
      out.indent(depth);
      out.ch(')');
      detail::toggle_open(n);
      stack.pop_back();
      printed.insert(n);
    }
  }
  out.flush();
}

void print_node(const Sexp_* root, std::ostream& os) {
  if (BufferedSink::suits(os)) {
    BufferedSink out(os);
    try {
      write_text(out, root);
    } catch (...) {
      // What was written before the failure reaches the stream, as it would have
      // without the buffer; the walk's own memory is already released here.
      try {
        out.flush();
      } catch (...) {  // the stream itself failed: the first exception is the one to report
      }
      throw;
    }
  } else {
    InsertingSink out(os);
    write_text(out, root);
  }
}

}  // namespace

void Sexp_::print(std::ostream& os) const { print_node(this, os); }

void Sexp_::debug_print() const {
  print(std::cout);
  std::cout << '\n';
  std::cout.flush();
}

std::string Sexp_::debug_to_str() const {
  std::ostringstream out;
  print(out);
  // A string stream swallows a failed allocation and only sets badbit; a truncated text
  // must not pass for the whole one.
  if (out.bad()) throw std::bad_alloc();
  return out.str();
}

void Sexp::print(std::ostream& os) const {
  if (node == nullptr) {
    os << null_text;
  } else {
    node->print(os);
  }
}

void Sexp::debug_print() const {
  if (node == nullptr) {
    std::cout << null_text << '\n';
    std::cout.flush();
  } else {
    node->debug_print();
  }
}

std::string Sexp::debug_to_str() const { return node == nullptr ? null_text : node->debug_to_str(); }

std::ostream& operator<<(std::ostream& os, const Sexp& s) {
  s.print(os);
  return os;
}

}  // namespace vorn
