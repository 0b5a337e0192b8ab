// Reading S-expression text into canonical nodes: the entry points over the reader.
#include "vorn/text/parse.hpp"

#include <string>
#include <string_view>
#include <vector>

#include "text_pass.hpp"
#include "scan.hpp"

namespace vorn {

ParseError::ParseError(const std::string& message, std::size_t line, std::size_t column)
    : std::runtime_error(std::to_string(line) + ":" + std::to_string(column) + ": " + message),
      message_(message),
      line_(line),
      column_(column) {}

namespace detail {

std::string bad_escape_message(char c, const char* in) {
  if (c > ' ' && c < 0x7F) return std::string("unknown escape '\\") + c + "' in " + in;
  static const char hex[] = "0123456789ABCDEF";
  const auto b = static_cast<unsigned char>(c);
  return std::string("unknown escape: '\\' followed by byte 0x") + hex[b >> 4] + hex[b & 15] +
         " in " + in;
}

const char* head_name(FrameKind kind) noexcept {
  switch (kind) {
    case FrameKind::vector: return "#vector";
    case FrameKind::bytevector: return "#u8";
    case FrameKind::quote: return "quote";
    case FrameKind::quasiquote: return "quasiquote";
    case FrameKind::unquote: return "unquote";
    case FrameKind::unquote_splicing: return "unquote-splicing";
    default: return "";
  }
}

const char* opener(FrameKind kind) noexcept {
  switch (kind) {
    case FrameKind::quote: return "'";
    case FrameKind::quasiquote: return "`";
    case FrameKind::unquote: return ",";
    case FrameKind::unquote_splicing: return ",@";
    case FrameKind::datum_comment: return "#;";
    default: return "(";
  }
}

namespace {

template <Dialect D>
Scan scan_in(std::string_view text, bool final, SliceStart from) {
  Reader<false, D, true> check(nullptr, text, from.input_start, from.fold_case);
  // Whether the word at `i` reaches the end of the text, so that more input would make it
  // another word. A scheme character takes its first character whatever its bytes (`#\|`
  // is one), and its name is the word after that: `#\|e` may become `#\|e4`.
  const auto reaches_end = [&](std::size_t i) {
    if (D == Dialect::scheme && text.compare(i, 2, "#\\") == 0 && i + 2 < text.size())
      i += 2 + utf8_length(static_cast<unsigned char>(text[i + 2]));
    while (i < text.size() && !ends_word(D, text[i])) ++i;
    return i >= text.size();
  };
  try {
    check.run();
  } catch (const ParseError&) {
    // An error at the very end (an unterminated list, string or comment), or in a word
    // that reaches the end (`#tr`, a lone `.` that may begin `.y`), is one that more
    // input could mend.
    if (final) throw;
    if (reaches_end(check.error_at) || reaches_end(check.token))
      return {Scan::incomplete, check.lead, text.size(), check.lead_fold_case, false};
    throw;
  }
  if (check.count == 0) {
    // A comment, or a scheme directive, that reaches the end may go on: `#!fold-case`
    // may become `#!fold-caseX`, an error.
    if (!final && (check.comment_at_end || (check.token < text.size() && reaches_end(check.token))))
      return {Scan::incomplete, check.lead, text.size(), check.lead_fold_case, false};
    return {Scan::none, text.size(), text.size(), check.fold_case(), check.fold_case()};
  }
  // A word that reaches the end might go on; so might an smtlib string (`""` is a quote)
  // and a scheme character (`#\(` is one, `#\(a` an error).
  if (!final && check.first_end == text.size() &&
      (!ends_word(D, text.back()) || (D == Dialect::smtlib && text.back() == '"') ||
       (D == Dialect::scheme && text.compare(check.token, 2, "#\\") == 0)))
    return {Scan::incomplete, check.first_begin, text.size(), check.lead_fold_case, false};
  // The first expression began at the last top-level token, where `lead` was set.
  return {Scan::expression, check.first_begin, check.first_end, check.lead_fold_case,
          check.fold_case()};
}

template <Dialect D>
std::vector<Sexp> read_all(SexpManager& m, std::string_view text, bool exactly_one) {
  Reader<false, D> check(nullptr, text);
  check.run();
  if (exactly_one && check.count == 0)
    throw_at(text, text.size(), "expected an expression, found end of input");
  if (exactly_one && check.count > 1)
    throw_at(text, check.second, "expected one expression, found " + std::to_string(check.count));
  Reader<true, D> build(&m, text);
  build.run();
  return build.take_items();
}

std::vector<Sexp> read_all(SexpManager& m, std::string_view text, Dialect dialect,
                           bool exactly_one) {
  switch (dialect) {
    case Dialect::smtlib: return read_all<Dialect::smtlib>(m, text, exactly_one);
    case Dialect::scheme: return read_all<Dialect::scheme>(m, text, exactly_one);
    default: return read_all<Dialect::vorn>(m, text, exactly_one);
  }
}

template <Dialect D>
Sexp build_in(SexpManager& m, std::string_view text, bool fold_case) {
  // Not the start of the input: no expression begins like a script header anyway.
  Reader<true, D> build(&m, text, false, fold_case);
  build.run();
  return build.take_items().front();
}

}  // namespace

Sexp build_scanned(SexpManager& m, std::string_view text, Dialect dialect, bool fold_case) {
  switch (dialect) {
    case Dialect::smtlib: return build_in<Dialect::smtlib>(m, text, fold_case);
    case Dialect::scheme: return build_in<Dialect::scheme>(m, text, fold_case);
    default: return build_in<Dialect::vorn>(m, text, fold_case);
  }
}

Scan scan_first(std::string_view text, Dialect dialect, bool final, SliceStart from) {
  switch (dialect) {
    case Dialect::smtlib: return scan_in<Dialect::smtlib>(text, final, from);
    case Dialect::scheme: return scan_in<Dialect::scheme>(text, final, from);
    default: return scan_in<Dialect::vorn>(text, final, from);
  }
}

}  // namespace detail

Sexp parse(SexpManager& m, std::string_view text, const ReadOptions& options) {
  return detail::read_all(m, text, options.dialect, true).front();
}

std::vector<Sexp> parse_all(SexpManager& m, std::string_view text, const ReadOptions& options) {
  return detail::read_all(m, text, options.dialect, false);
}

}  // namespace vorn
