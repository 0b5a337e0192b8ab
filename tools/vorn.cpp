// vorn: print, match and rewrite S-expressions from the command line.
//
// Exit status 0 on success (for `match`: a match), 1 when `match` finds none, 2 on any
// error. Errors go to standard error as "vorn: WHERE:LINE:COLUMN: message", where WHERE is
// the rules file, `<arg N>` for the N-th operand of the command, `<stdin>` or `<builtin>`.
// Every input is parsed and checked before any result is written, so an input error
// writes no result; a term that exceeds --max-steps stops the command with no line for it.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "builtin_rules.hpp"
#include "rewriter.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"

namespace {

using vorn::Sexp;
using vorn::SexpManager;

constexpr std::uint64_t kDefaultMaxSteps = 1000000;

const char* const kMainHelp = R"(usage: vorn COMMAND [OPTION...] [OPERAND...]

Commands:
  print EXPR...                   the diagnostic text of each expression
  match PATTERN EXPR              whether EXPR matches PATTERN, and the bindings
  rewrite [RULES-FILE] [TERM...]  rewrite terms to normal form with rules

Expressions are written as text: (a b c) is a list, () is nil, (a . b) a pair, a word
is a symbol, |any text| the symbol of that name (with \| and \\ inside), #7 the symbol
of value 7, and ; starts a comment. Symbols named ?NAME are pattern variables.

Run 'vorn COMMAND --help' for more. Exit status: 0 success, 1 no match, 2 error.
)";

const char* const kPrintHelp = R"(usage: vorn print EXPR...

Writes the diagnostic text of each EXPR, one after another: one node per line, two
spaces of indentation per level, {id}[refcount] at the head of each node, <value>|name|
for a symbol, (cons CAR CDR) for a pair, @id for a node written before. Every node is
shared, so equal subexpressions are one node.
)";

const char* const kMatchHelp = R"(usage: vorn match PATTERN EXPR

Matches EXPR against PATTERN, whose variables are the symbols named ?NAME; a variable met
again must meet an equal expression. Prints "match" and a line "?X = EXPR" per variable,
in order of first occurrence in PATTERN, or "no match". Exit status 0 on a match, 1 on
none, 2 on error.
)";

const char* const kRewriteHelp = R"(usage: vorn rewrite [OPTION...] RULES-FILE [TERM...]
       vorn rewrite [OPTION...] --builtin [TERM...]
       vorn rewrite [OPTION...]

Rewrites each TERM, or each expression on standard input when no TERM is given, to
normal form and prints "TERM => NORMAL-FORM". RULES-FILE holds (rule PATTERN
REPLACEMENT) forms; the symbols named ?NAME in a pattern are its variables. Innermost
first: the elements of a list are normalised before the list, the first rule that
matches wins, and its replacement is normalised again.

With no operand at all, the built-in rules (differentiation, written (d x E), and
simplification) rewrite the built-in sample terms, and the statistics line follows.

Options:
  --builtin      use the built-in rules; every operand is a TERM
  --trace        print each rule application: "rule N: BEFORE -> AFTER"
  --max-steps N  allow N rule applications per term (default 1000000); a term that
                 needs more is an error
  --stats        end with a line of statistics: terms, rule applications, nodes made,
                 rebuilt list cells found already made, subterms found already rewritten,
                 and the time spent rewriting
  --             end of options
)";

// An error to report as "vorn: <what()>", exit status 2.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A command line vorn does not accept; reported with the usage of `command`.
struct Usage : std::runtime_error {
  Usage(const std::string& message, const char* help) : std::runtime_error(message), help(help) {}
  const char* help;
};

// Text to read, with the name errors give it.
struct Source {
  std::string name;
  std::string text;
};

// The line and column (1-based, in bytes) where each top-level expression of `text`
// begins. `text` has already been parsed, so this only follows its tokens.
std::vector<std::pair<std::size_t, std::size_t>> expression_starts(std::string_view text) {
  std::vector<std::pair<std::size_t, std::size_t>> starts;
  std::size_t line = 1, column = 1, depth = 0;
  bool comment = false, bars = false, escaped = false, word = false;
  for (const char c : text) {
    if (comment) {
      comment = c != '\n';
    } else if (bars) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else
        bars = c != '|';
    } else if (std::strchr(" \t\n\r\f\v;)", c) != nullptr && c != '\0') {
      word = false;
      comment = c == ';';
      if (c == ')') --depth;
    } else {
      if (depth == 0 && (c == '(' || c == '|' || !word)) starts.emplace_back(line, column);
      depth += c == '(';
      bars = c == '|';
      word = c != '(' && c != '|';
    }
    if (c == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return starts;
}

// "NAME:LINE:COLUMN" of each of the `count` top-level expressions of `src`.
std::vector<std::string> locations(const Source& src, std::size_t count) {
  std::vector<std::string> at;
  for (const auto& [line, column] : expression_starts(src.text)) {
    at.push_back(src.name + ":" + std::to_string(line) + ":" + std::to_string(column));
  }
  at.resize(count, src.name);  // never short, even where the scan and the reader disagree
  return at;
}

std::vector<Sexp> parse_source(SexpManager& m, const Source& src, bool exactly_one) {
  try {
    if (exactly_one) return {vorn::parse(m, src.text)};
    return vorn::parse_all(m, src.text);
  } catch (const vorn::ParseError& e) {
    throw Failure(src.name + ":" + std::to_string(e.line()) + ":" + std::to_string(e.column()) +
                  ": " + e.message());
  }
}

Source read_stream(std::FILE* file, std::string name) {
  Source src{std::move(name), {}};
  char buffer[1 << 16];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) src.text.append(buffer, n);
  if (std::ferror(file)) throw Failure(src.name + ": cannot read: " + std::strerror(errno));
  return src;
}

Source read_file(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw Failure(path + ": cannot open: " + std::strerror(errno));
  try {
    Source src = read_stream(file, path);
    std::fclose(file);
    return src;
  } catch (...) {
    std::fclose(file);
    throw;
  }
}

// Each (rule PATTERN REPLACEMENT) form of `src`, added to `rewriter` in order.
void load_rules(SexpManager& m, vorn::tool::Rewriter& rewriter, const Source& src) {
  const std::vector<Sexp> forms = parse_source(m, src, false);
  const Sexp rule = m.sh_sym(m.make_symbol("rule"));
  for (std::size_t i = 0; i < forms.size(); ++i) {
    Sexp form = forms[i];
    const bool three = !form.is_symbol() && form.car() == rule && !form.cdr().is_symbol() &&
                       !form.cdr().cdr().is_symbol() && form.cdr().cdr().cdr() == m.nil();
    try {
      if (!three) throw std::invalid_argument("expected (rule PATTERN REPLACEMENT)");
      rewriter.add_rule(form.cdr().car(), form.cdr().cdr().car());
    } catch (const std::invalid_argument& e) {
      throw Failure(locations(src, forms.size())[i] + ": " + e.what());
    }
  }
}

struct Options {
  std::vector<std::string> operands;
  bool help = false, builtin = false, trace = false, stats = false;
  std::uint64_t max_steps = kDefaultMaxSteps;
};

Options parse_options(const std::vector<std::string>& args, bool rewrite, const char* help) {
  Options o;
  bool options_end = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (options_end || a.size() < 2 || a[0] != '-') {
      o.operands.push_back(a);
    } else if (a == "--") {
      options_end = true;
    } else if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (rewrite && (a == "--builtin" || a == "--trace" || a == "--stats")) {
      (a == "--builtin" ? o.builtin : a == "--trace" ? o.trace : o.stats) = true;
    } else if (rewrite && (a == "--max-steps" || a.rfind("--max-steps=", 0) == 0)) {
      std::string n;
      if (a.size() > 11)
        n = a.substr(12);
      else if (i + 1 < args.size())
        n = args[++i];
      errno = 0;
      o.max_steps = std::strtoull(n.c_str(), nullptr, 10);
      if (n.empty() || n.find_first_not_of("0123456789") != std::string::npos || errno != 0) {
        throw Usage("--max-steps needs a whole number, not '" + n + "'", help);
      }
    } else {
      throw Usage("unknown option '" + a + "'", help);
    }
  }
  return o;
}

// Writes what is buffered and fails when standard output took it not whole.
int flushed(int status) {
  std::cout.flush();
  if (!std::cout) throw Failure("cannot write to standard output");
  return status;
}

int print_command(const Options& o) {
  if (o.operands.empty()) throw Usage("print needs at least one EXPR", kPrintHelp);
  SexpManager m;
  std::vector<Sexp> exprs;
  for (std::size_t i = 0; i < o.operands.size(); ++i) {
    exprs.push_back(
        parse_source(m, {"<arg " + std::to_string(i + 1) + ">", o.operands[i]}, true)[0]);
  }
  for (const Sexp& e : exprs) std::cout << e << '\n';
  return flushed(0);
}

int match_command(const Options& o) {
  if (o.operands.size() != 2) throw Usage("match needs a PATTERN and an EXPR", kMatchHelp);
  SexpManager m;
  const Sexp pattern = parse_source(m, {"<arg 1>", o.operands[0]}, true)[0];
  const Sexp expr = parse_source(m, {"<arg 2>", o.operands[1]}, true)[0];
  const std::vector<Sexp> variables = vorn::tool::variables_of(m, pattern);
  vorn::SexpMatcher matcher(variables);
  if (!matcher.match(pattern, expr)) {
    std::cout << "no match\n";
    return flushed(1);
  }
  std::cout << "match\n";
  for (const Sexp& v : variables) {
    std::cout << vorn::to_text(v) << " = " << vorn::to_text(matcher.get(v)) << '\n';
  }
  return flushed(0);
}

int rewrite_command(const Options& o) {
  const bool demo = o.operands.empty() && !o.builtin;
  const bool builtin = demo || o.builtin;
  SexpManager m;
  vorn::tool::Rewriter rewriter(m);
  load_rules(m, rewriter,
             builtin ? Source{"<builtin>", vorn::tool::builtin_rules} : read_file(o.operands[0]));

  // The terms, each with where it came from.
  std::vector<std::pair<Sexp, std::string>> terms;
  const std::size_t first = builtin ? 0 : 1;
  if (demo || o.operands.size() == first) {
    const Source src =
        demo ? Source{"<builtin>", vorn::tool::builtin_samples} : read_stream(stdin, "<stdin>");
    const std::vector<Sexp> exprs = parse_source(m, src, false);
    const std::vector<std::string> at = locations(src, exprs.size());
    for (std::size_t i = 0; i < exprs.size(); ++i) terms.emplace_back(exprs[i], at[i]);
  }
  for (std::size_t i = first; i < o.operands.size(); ++i) {
    const Source src{"<arg " + std::to_string(i + 1) + ">", o.operands[i]};
    terms.emplace_back(parse_source(m, src, true)[0], locations(src, 1)[0]);
  }

  rewriter.set_max_steps(o.max_steps);
  if (o.trace) {
    rewriter.set_trace([](std::size_t rule, const Sexp& before, const Sexp& after) {
      std::cout << "rule " << rule + 1 << ": " << vorn::to_text(before) << " -> "
                << vorn::to_text(after) << '\n';
    });
  }
  const std::uint64_t nodes_before = vorn::tool::canonical_nodes_made(m);
  std::chrono::steady_clock::duration spent{};
  for (const auto& [term, from] : terms) {
    const auto start = std::chrono::steady_clock::now();
    Sexp normal;
    try {
      normal = rewriter.normalize(term);
    } catch (const vorn::tool::StepLimitExceeded& e) {
      throw Failure(from + ": " + e.what() + " (see --max-steps)");
    }
    spent += std::chrono::steady_clock::now() - start;
    std::cout << vorn::to_text(term) << " => " << vorn::to_text(normal) << '\n';
  }
  if (demo || o.stats) {
    const auto& s = rewriter.stats();
    const double ms = std::chrono::duration<double, std::milli>(spent).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.3f ms", ms);
    std::cout << "stats: " << terms.size() << " terms, " << s.steps << " steps, "
              << vorn::tool::canonical_nodes_made(m) - nodes_before << " nodes made, "
              << s.sharing_hits << " sharing hits, " << s.memo_hits << " memo hits, " << time
              << '\n';
  }
  return flushed(0);
}

int run(const std::vector<std::string>& args) {
  const std::string command = args.empty() ? "" : args[0];
  const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
  struct Command {
    const char* name;
    const char* help;
    int (*run)(const Options&);
  };
  static const Command commands[] = {{"print", kPrintHelp, print_command},
                                     {"match", kMatchHelp, match_command},
                                     {"rewrite", kRewriteHelp, rewrite_command}};
  for (const Command& c : commands) {
    if (command != c.name) continue;
    const Options o = parse_options(rest, command == "rewrite", c.help);
    if (!o.help) return c.run(o);
    std::cout << c.help;
    return flushed(0);
  }
  if (command == "--help" || command == "-h") {
    std::cout << kMainHelp;
    return flushed(0);
  }
  throw Usage(command.empty() ? "no command given" : "unknown command '" + command + "'",
              kMainHelp);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const Usage& u) {
    const std::string help = u.help;
    std::cerr << "vorn: " << u.what() << '\n' << help.substr(0, help.find("\n\n") + 1);
  } catch (const Failure& f) {
    std::cerr << "vorn: " << f.what() << '\n';
  } catch (const std::bad_alloc&) {
    std::cerr << "vorn: out of memory\n";
  } catch (const std::exception& e) {
    std::cerr << "vorn: " << e.what() << '\n';
  }
  return 2;
}
