// vorn: print, match and rewrite S-expressions from the command line, convert them between
// text, labelled text and the binary format, and show what files cost as trees and as
// canonical nodes.
//
// Exit status 0 on success (for `match`: a match), 1 when `match` finds none, 2 on any
// error. Errors go to standard error as "vorn: WHERE:LINE:COLUMN: message", where WHERE is
// a file's path, `<arg N>` for the N-th operand of the command, `<stdin>` or `<builtin>`;
// every position comes from the TextReader that read the input. Operands (and the rules)
// are read and checked before any result is written; files and standard input are read one
// expression at a time, `rewrite` writing each result before reading on, so an error there
// comes after the results of the terms before it. A term that exceeds --max-steps stops
// the command with no line for it. Binary data that does not load is reported as
// "vorn: WHERE: byte OFFSET: message", the offset counted from the input's first byte.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "builtin_rules.hpp"
#include "stats.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/io/binary.hpp"
#include "vorn/rewrite/load.hpp"
#include "vorn/rewrite/rewriter.hpp"
#include "vorn/rewrite/variables.hpp"
#include "vorn/text/reader.hpp"
#include "vorn/text/write.hpp"

namespace {

using vorn::Sexp;
using vorn::SexpManager;
using vorn::TextPosition;

constexpr std::uint64_t kDefaultMaxSteps = 1000000;
// `rewrite` collects its manager between terms once this many node ids have been handed
// out since it last did, and within a long term as the rewriter does (vorn::Rewriter): at
// most this much garbage (512 KiB of node slots, plus the table's entries) waits between
// terms, and each collection is paid for by the nodes made since.
constexpr std::uint64_t kCollectEvery = std::uint64_t{1} << 14;

// What `vorn --help` says before and after the list of commands, which comes from the table
// of commands (kCommands).
const char* const kMainUsage = "usage: vorn COMMAND [OPTION...] [OPERAND...]\n";
const char* const kMainHelpEnd = R"(
Options:
  --dialect NAME  (every command) read text, and write results, in dialect NAME: vorn
                  (the default), smtlib or scheme
  -f FILE         (print, match, rewrite, convert) the expressions of FILE ('-':
                  standard input) where the command takes expressions: all of them for
                  print, rewrite and convert, exactly one for match; files and operands
                  count in the order given
  --shared        (match, rewrite) write results with labels: #N= before a subexpression
                  met again, #N# where it is met again

Expressions are written as text: (a b c) is a list, () is nil, (a . b) a pair, a word
is a symbol, |any text| the symbol of that name (with \| and \\ inside), #7 the symbol
of value 7, #0=(x) labels a subexpression that #0# stands for later, and ; starts a
comment. Symbols named ?NAME are pattern variables. Errors say where: "vorn:
WHERE:LINE:COLUMN: message", WHERE being a file, <arg N> for the N-th operand or
<stdin>, or "vorn: WHERE: byte OFFSET: message" in binary data.

Run 'vorn COMMAND --help' for more. Exit status: 0 success, 1 no match, 2 error.
)";

const char* const kPrintHelp = R"(usage: vorn print [OPTION...] EXPR...
       vorn print [OPTION...] -f FILE...

Writes the diagnostic text of each expression, one after another: one node per line, two
spaces of indentation per level, {id}[refcount] at the head of each node, <value>|name|
for a symbol, (cons CAR CDR) for a pair, @id for a node written before. Every node is
shared, so equal subexpressions are one node. Each EXPR is one expression; -f FILE gives
every expression of FILE ('-': standard input).

Options:
  --dialect NAME  read in dialect NAME: vorn (default), smtlib or scheme
  -f FILE         read the expressions of FILE
)";

const char* const kMatchHelp = R"(usage: vorn match [OPTION...] PATTERN EXPR

Matches EXPR against PATTERN, whose variables are the symbols named ?NAME; a variable met
again must meet an equal expression. Prints "match" and a line "?X = EXPR" per variable,
in order of first occurrence in PATTERN, or "no match". Exit status 0 on a match, 1 on
none, 2 on error. Either may be given as -f FILE, a file holding exactly one expression.

Options:
  --dialect NAME  read and write in dialect NAME: vorn (default), smtlib or scheme
  -f FILE         read PATTERN or EXPR from FILE ('-': standard input)
  --shared        write the bindings with labels (#N=, #N#) for shared subexpressions
)";

const char* const kConvertHelp = R"(usage: vorn convert [OPTION...] EXPR...
       vorn convert [OPTION...] -f FILE...
       vorn convert [OPTION...]

Reads expressions and writes them as plain text, labelled text or binary data. Each EXPR
is one expression; -f FILE gives every expression of FILE, or standard input when
neither is given ('-': standard input). A file is binary data when it starts with the
binary magic number (one saved file or several, one after another), and text in the
chosen dialect otherwise; labels (#N= and #N#) are read in every dialect. Everything is
read and checked before anything is written, so bad input writes nothing and leaves
-o FILE as it was.

Text output is one expression per line. Labelled text writes #N= before a cons met again
and #N# where it is met again, N counting from 0 in each line: its size is linear in
the distinct nodes, where plain text can grow exponentially with them; a tree without
sharing comes out the same either way. Binary output is one saved file holding every
expression, with its sharing, in order; it is not written to a terminal.

Options:
  --to FORMAT     write FORMAT: shared (labelled text, the default), text (plain text)
                  or binary
  -o FILE         write to FILE ('-': standard output, the default)
  --dialect NAME  read text, and write it, in dialect NAME: vorn (default), smtlib or
                  scheme
  -f FILE         read the expressions of FILE
)";

const char* const kRewriteHelp = R"(usage: vorn rewrite [OPTION...] RULES-FILE [TERM...]
       vorn rewrite [OPTION...] --builtin [TERM...]
       vorn rewrite [OPTION...]

Rewrites each TERM, and each expression of each -f FILE, or each expression on standard
input when none is given, to normal form and prints "TERM => NORMAL-FORM". RULES-FILE
holds (rule PATTERN REPLACEMENT) forms; the symbols named ?NAME in a pattern are its
variables. Innermost first: the elements of a list are normalised before the list, the
first rule that matches wins, and its replacement is normalised again.

RULES-FILE and every TERM operand are read and checked before the first result is
written. Files and standard input are read one expression at a time, and each result is
written before the next expression is read: memory stays bounded however many terms
come, and a bad expression stops the command after the results of those before it.

With no operand at all, the built-in rules (differentiation, written (d x E), and
simplification) rewrite the built-in sample terms, and the statistics line follows.

Options:
  --builtin       use the built-in rules; every operand is a TERM
  --shared        write terms and results with labels, each shared subexpression in
                  full once (#N=...) and as #N# after: linear in the distinct nodes
  --trace         print each rule application: "rule N: BEFORE -> AFTER"
  --max-steps N   allow N rule applications per term (default 1000000); a term that
                  needs more is an error
  --stats         end with a line of statistics: terms, rule applications, nodes made
                  while rewriting (collected ones included), rebuilt list cells found
                  already made, subterms found already rewritten, and the time spent
                  rewriting
  --dialect NAME  read RULES-FILE and the terms, and write results, in dialect NAME:
                  vorn (default), smtlib or scheme
  -f FILE         rewrite every expression of FILE ('-': standard input)
  --              end of options
)";

const char* const kStatsHelp = R"(usage: vorn stats [OPTION...] FILE...

Reads each FILE ('-': standard input) into canonical nodes, a fresh manager for each, as
a program that opens one file would, and prints a table, one row per file and a total
that adds them up:
  bytes      the size of the text
  elements   the nodes of the expressions as plain trees (cons cells and atoms, each list
             with its closing nil), every repeated subexpression counted again
  distinct   the canonical nodes that make them: each shape once
  sharing    elements per distinct node
  heap       the heap bytes the manager holds once the file is read: node slots, the
             table of shapes, names and strings (measured with the C library's
             mallinfo2; '-' where it has none)
  heap/node  heap per distinct node
  read       the time spent reading and building, and MB/s the bytes read per second

Options:
  --dialect NAME  read in dialect NAME: vorn (default), smtlib or scheme
)";

// An error to report as "vorn: <what()>", exit status 2.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A command line vorn does not accept; reported with the usage lines of `help`, the text
// up to its first blank line.
struct Usage : std::runtime_error {
  Usage(const std::string& message, std::string help)
      : std::runtime_error(message), help(std::move(help)) {}
  std::string help;
};

// The dialects by name: all the command knows of them, since reading, positions and
// writing are the library's. (Should the dialects' syntax definitions carry their names,
// this table is the one line to take from them.)
constexpr std::pair<const char*, vorn::Dialect> kDialects[] = {{"vorn", vorn::Dialect::vorn},
                                                               {"smtlib", vorn::Dialect::smtlib},
                                                               {"scheme", vorn::Dialect::scheme}};

vorn::Dialect dialect_named(const std::string& name) {
  for (const auto& [known, dialect] : kDialects) {
    if (name == known) return dialect;
  }
  throw std::invalid_argument("--dialect needs vorn, smtlib or scheme, not '" + name + "'");
}

// Where expressions come from.
struct Input {
  enum Kind {
    operand,         // a command-line operand: one expression
    text,            // built-in text: any number
    file,            // any number
    standard_input,  // any number
  };
  Kind kind;
  std::string name;     // what errors call it: "<arg N>", "<builtin>", the path, "<stdin>"
  std::string content;  // the text of an operand or built-in text; a file's path
};

Input file_input(const std::string& path) {
  if (path == "-") return {Input::standard_input, "<stdin>", ""};
  return {Input::file, path, path};
}

std::string at(const Input& input, std::size_t line, std::size_t column) {
  return input.name + ":" + std::to_string(line) + ":" + std::to_string(column);
}
std::string at(const Input& input, const TextPosition& p) { return at(input, p.line, p.column); }

// An input's stream, open for reading.
class InputStream {
 public:
  explicit InputStream(const Input& input) {
    if (input.kind == Input::operand || input.kind == Input::text) {
      text_.str(input.content);
      in_ = &text_;
    } else if (input.kind == Input::file) {
      file_.open(input.content, std::ios::binary);
      if (!file_) throw Failure(input.name + ": cannot open: " + std::strerror(errno));
      in_ = &file_;
    }
  }
  std::istream& get() noexcept { return *in_; }

 private:
  std::istringstream text_;
  std::ifstream file_;
  std::istream* in_ = &std::cin;
};

// Reads the expressions of `input` from `in` one at a time, calling take(expression,
// where it begins) for each as soon as it is read; returns where the input ended.
template <class Take>
TextPosition read_stream(SexpManager& m, const Input& input, std::istream& in,
                         vorn::Dialect dialect, Take&& take) {
  vorn::ReadOptions options;
  options.dialect = dialect;
  vorn::TextReader reader(m, in, options);
  try {
    for (Sexp e; reader.next(e);) take(e, reader.start());
  } catch (const vorn::ParseError& e) {
    if (in.bad()) throw Failure(input.name + ": cannot read");
    throw Failure(at(input, e.line(), e.column()) + ": " + e.message());
  }
  if (in.bad()) throw Failure(input.name + ": cannot read");
  return reader.position();
}

template <class Take>
TextPosition read_input(SexpManager& m, const Input& input, vorn::Dialect dialect, Take&& take) {
  InputStream in(input);
  return read_stream(m, input, in.get(), dialect, take);
}

// The one expression of `input` and where it begins; none, or more than one, is an error
// said as parse says it.
std::pair<Sexp, TextPosition> read_one(SexpManager& m, const Input& input, vorn::Dialect dialect) {
  std::size_t count = 0;
  std::pair<Sexp, TextPosition> first;
  TextPosition second;
  const TextPosition end = read_input(m, input, dialect, [&](const Sexp& e, const TextPosition& p) {
    if (++count == 1) first = {e, p};
    if (count == 2) second = p;
  });
  if (count == 0) throw Failure(at(input, end) + ": expected an expression, found end of input");
  if (count > 1) {
    throw Failure(at(input, second) + ": expected one expression, found " + std::to_string(count));
  }
  return first;
}

// An operand is one expression; other inputs give all of their own.
template <class Take>
void read_each(SexpManager& m, const Input& input, vorn::Dialect dialect, Take&& take) {
  if (input.kind != Input::operand) {
    read_input(m, input, dialect, take);
    return;
  }
  const auto [e, where] = read_one(m, input, dialect);
  take(e, where);
}

struct Options {
  std::vector<std::string> operands;
  // Each -f FILE, with the number of operands given before it.
  std::vector<std::pair<std::size_t, std::string>> files;
  vorn::Dialect dialect = vorn::Dialect::vorn;
  bool help = false, builtin = false, trace = false, stats = false;
  bool shared = false;  // results as labelled text
  enum class Format { text, shared, binary } to = Format::shared;  // convert's output
  std::string output;                                             // convert's -o FILE
  std::uint64_t max_steps = kDefaultMaxSteps;
};

// The inputs of expressions the command line names, in its order: the operands from
// `first` on and the -f files.
std::vector<Input> expression_inputs(const Options& o, std::size_t first) {
  std::vector<Input> inputs;
  std::size_t f = 0;
  for (std::size_t i = first;; ++i) {
    while (f < o.files.size() && o.files[f].first <= i)
      inputs.push_back(file_input(o.files[f++].second));
    if (i >= o.operands.size()) return inputs;
    inputs.push_back({Input::operand, "<arg " + std::to_string(i + 1) + ">", o.operands[i]});
  }
}

// The (rule PATTERN REPLACEMENT) forms of `input`, added to `rewriter` in order. The
// whole input is read and checked before any rule is added, so a syntax error anywhere is
// the one reported.
void load_rules(vorn::Rewriter& rewriter, const Input& input, vorn::Dialect dialect) {
  InputStream in(input);
  std::string text;
  char chunk[1 << 16];
  while (in.get().read(chunk, sizeof chunk) || in.get().gcount() > 0) {
    text.append(chunk, static_cast<std::size_t>(in.get().gcount()));
  }
  if (in.get().bad()) throw Failure(input.name + ": cannot read");
  vorn::ReadOptions options;
  options.dialect = dialect;
  try {
    vorn::load_rules(rewriter, text, options);
  } catch (const vorn::ParseError& e) {
    throw Failure(at(input, e.line(), e.column()) + ": " + e.message());
  }
}

// One option of a command: its names, whether it takes a value, and what it does. A value is
// the next argument or, after a long name, follows '=' (--dialect=smtlib).
struct Option {
  const char* name;   // "--dialect", "-f"
  const char* alias;  // another name for it, or nullptr
  bool takes_value;
  // Records the option in `o`; throws std::invalid_argument, with the message for the user,
  // for a value the option does not take.
  void (*apply)(Options& o, const std::string& value);
};

// A command: its line in `vorn --help`, the options it takes, its help and what runs it.
struct Command {
  const char* name;
  const char* operands;  // as `vorn --help` shows them
  const char* summary;   // what `vorn --help` says of it
  std::vector<Option> options;
  const char* help;  // `vorn NAME --help`; its usage lines come first, then a blank line
  int (*run)(const Options&);
};

// Reads a command's arguments: an argument that is not an option (among them "-", standard
// input, and every argument after "--") is an operand, kept in order; --help and -h ask for
// the command's help; any other option must be one of the command's.
Options parse_options(const Command& command, const std::vector<std::string>& args) {
  Options o;
  bool options_end = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (options_end || a.size() < 2 || a[0] != '-') {
      o.operands.push_back(a);
      continue;
    }
    if (a == "--" || a == "--help" || a == "-h") {
      (a == "--" ? options_end : o.help) = true;
      continue;
    }
    const Option* option = nullptr;
    std::string name;  // as given; the value, if any, follows its '='
    for (const Option& candidate : command.options) {
      for (const char* spelling : {candidate.name, candidate.alias}) {
        if (spelling == nullptr || a.rfind(spelling, 0) != 0) continue;
        const std::size_t n = std::strlen(spelling);
        if (a.size() == n || (candidate.takes_value && spelling[1] == '-' && a[n] == '=')) {
          option = &candidate;
          name = spelling;
        }
      }
    }
    if (option == nullptr) throw Usage("unknown option '" + a + "'", command.help);
    std::string value;
    if (a.size() > name.size()) {
      value = a.substr(name.size() + 1);
    } else if (option->takes_value) {
      if (i + 1 == args.size()) throw Usage(name + " needs a value", command.help);
      value = args[++i];
    }
    try {
      option->apply(o, value);
    } catch (const std::invalid_argument& e) {
      throw Usage(e.what(), command.help);
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

vorn::WriteOptions output(const Options& o) {
  vorn::WriteOptions w;
  w.dialect = o.dialect;
  w.shared = o.shared;
  return w;
}

int print_command(const Options& o) {
  const std::vector<Input> inputs = expression_inputs(o, 0);
  if (inputs.empty()) throw Usage("print needs at least one EXPR or -f FILE", kPrintHelp);
  SexpManager m;
  std::vector<Sexp> exprs;
  for (const Input& input : inputs) {
    read_each(m, input, o.dialect, [&](const Sexp& e, const TextPosition&) { exprs.push_back(e); });
  }
  for (const Sexp& e : exprs) std::cout << e << '\n';
  return flushed(0);
}

int match_command(const Options& o) {
  const std::vector<Input> inputs = expression_inputs(o, 0);
  if (inputs.size() != 2) throw Usage("match needs a PATTERN and an EXPR", kMatchHelp);
  SexpManager m;
  const Sexp pattern = read_one(m, inputs[0], o.dialect).first;
  const Sexp expr = read_one(m, inputs[1], o.dialect).first;
  const std::vector<Sexp> variables = vorn::variables_of(m, pattern);
  vorn::SexpMatcher matcher(variables);
  if (!matcher.match(pattern, expr)) {
    std::cout << "no match\n";
    return flushed(1);
  }
  std::cout << "match\n";
  for (const Sexp& v : variables) {
    std::cout << vorn::to_text(v, output(o)) << " = " << vorn::to_text(matcher.get(v), output(o))
              << '\n';
  }
  return flushed(0);
}

int rewrite_command(const Options& o) {
  const bool demo = o.operands.empty() && o.files.empty() && !o.builtin;
  const bool builtin = demo || o.builtin;
  if (!builtin && o.operands.empty()) {
    throw Usage("rewrite needs a RULES-FILE or --builtin", kRewriteHelp);
  }
  SexpManager m;
  vorn::Rewriter rewriter(m);
  // The built-in rules and samples are vorn text, whatever the dialect.
  if (builtin) {
    load_rules(rewriter, {Input::text, "<builtin>", vorn::tool::builtin_rules}, vorn::Dialect::vorn);
  } else {
    load_rules(rewriter, file_input(o.operands[0]), o.dialect);
  }

  // The terms: operands are read and checked before the first result is written; files
  // and standard input are read one expression at a time, each rewritten
  // and written before the next is read, so what the command holds between terms is the
  // rules, the rewriter's memo (bounded) and what it has not collected yet (bounded).
  std::vector<Input> inputs = expression_inputs(o, builtin ? 0 : 1);
  vorn::Dialect dialect = o.dialect;
  if (demo) {
    inputs.push_back({Input::text, "<builtin>", vorn::tool::builtin_samples});
    dialect = vorn::Dialect::vorn;
  } else if (inputs.empty()) {
    inputs.push_back(file_input("-"));
  }
  // Operands and built-in text are read first: what they hold is on hand already.
  const auto read_first = [](const Input& input) {
    return input.kind == Input::operand || input.kind == Input::text;
  };
  std::vector<std::vector<std::pair<Sexp, TextPosition>>> read_before(inputs.size());
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    if (!read_first(inputs[i])) continue;
    read_each(m, inputs[i], dialect,
              [&](const Sexp& e, const TextPosition& p) { read_before[i].emplace_back(e, p); });
  }

  rewriter.set_max_steps(o.max_steps);
  rewriter.set_collect_every(kCollectEvery);
  if (o.trace) {
    rewriter.set_trace([&o](std::size_t rule, const Sexp& before, const Sexp& after) {
      std::cout << "rule " << rule + 1 << ": " << vorn::to_text(before, output(o)) << " -> "
                << vorn::to_text(after, output(o)) << '\n';
    });
  }
  std::uint64_t terms = 0;
  std::chrono::steady_clock::duration spent{};
  const auto rewrite = [&](const Input& input, const Sexp& term, const TextPosition& where) {
    const auto start = std::chrono::steady_clock::now();
    Sexp normal;
    try {
      normal = rewriter.normalize(term);
    } catch (const vorn::StepLimitExceeded& e) {
      throw Failure(at(input, where) + ": " + e.what() + " (see --max-steps)");
    }
    spent += std::chrono::steady_clock::now() - start;
    ++terms;
    std::cout << vorn::to_text(term, output(o)) << " => " << vorn::to_text(normal, output(o))
              << '\n';
  };
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    if (read_first(inputs[i])) {
      const auto terms_read = std::move(read_before[i]);
      for (const auto& [term, where] : terms_read) rewrite(inputs[i], term, where);
    } else {
      read_input(m, inputs[i], dialect, [&](const Sexp& term, const TextPosition& where) {
        rewrite(inputs[i], term, where);
      });
    }
  }
  if (demo || o.stats) {
    const auto& s = rewriter.stats();
    const double ms = std::chrono::duration<double, std::milli>(spent).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.3f ms", ms);
    std::cout << "stats: " << terms << " terms, " << s.steps << " steps, " << s.nodes_made
              << " nodes made, " << s.sharing_hits << " sharing hits, " << s.memo_hits
              << " memo hits, " << time << '\n';
  }
  return flushed(0);
}

// Appends the roots of every saved file in `in` (one, or several one after another) to
// `roots`. A FormatError is reported with its offset from the first byte of the input.
void load_binary(SexpManager& m, const Input& input, std::istream& in, std::vector<Sexp>& roots) {
  // The whole input in memory, as much as arrived: load needs its position for offsets
  // past the first file, which a pipe cannot tell.
  std::stringstream data;
  data << in.rdbuf();
  if (in.bad()) throw Failure(input.name + ": cannot read");
  while (data.peek() != EOF) {
    const std::uint64_t base = static_cast<std::uint64_t>(std::streamoff(data.tellg()));
    try {
      for (const Sexp& e : vorn::load(m, data)) roots.push_back(e);
    } catch (const vorn::FormatError& e) {
      throw Failure(input.name + ": byte " + std::to_string(base + e.offset()) + ": " +
                    e.message());
    }
  }
}

int convert_command(const Options& o) {
  using Format = Options::Format;
  const bool to_stdout = o.output.empty() || o.output == "-";
  if (o.to == Format::binary && to_stdout && isatty(STDOUT_FILENO)) {
    throw Failure("binary data is not written to a terminal: use -o FILE or redirect the output");
  }
  std::vector<Input> inputs = expression_inputs(o, 0);
  if (inputs.empty()) inputs.push_back(file_input("-"));
  SexpManager m;
  std::vector<Sexp> roots;
  for (const Input& input : inputs) {
    const auto take = [&](const Sexp& e, const TextPosition&) { roots.push_back(e); };
    if (input.kind == Input::operand) {
      read_each(m, input, o.dialect, take);
      continue;
    }
    InputStream in(input);
    const int first = in.get().peek();
    if (first != EOF && vorn::is_binary(std::string(1, static_cast<char>(first)))) {
      load_binary(m, input, in.get(), roots);
    } else {
      read_stream(m, input, in.get(), o.dialect, take);
    }
  }

  std::ofstream file;
  if (!to_stdout) {
    file.open(o.output, std::ios::binary);
    if (!file) throw Failure(o.output + ": cannot open for writing: " + std::strerror(errno));
  }
  std::ostream& out = to_stdout ? std::cout : file;
  if (o.to == Format::binary) {
    vorn::save(out, roots);
  } else {
    vorn::WriteOptions w = output(o);
    w.shared = o.to == Format::shared;
    for (const Sexp& e : roots) {
      vorn::write_text(out, e, w);
      out << '\n';
    }
  }
  if (to_stdout) return flushed(0);
  file.close();
  if (!file) throw Failure(o.output + ": cannot write");
  return 0;
}

// One row of `vorn stats`: the file read into a manager of its own, with the time spent
// reading and the heap the manager holds afterwards.
vorn::tool::StatsRow file_stats(const Input& input, vorn::Dialect dialect) {
  using Clock = std::chrono::steady_clock;
  InputStream in(input);
  in.get().peek();  // the stream takes its own buffer before the heap is measured
  const std::optional<std::size_t> heap_before = vorn::tool::heap_in_use();
  auto m = std::make_unique<SexpManager>();
  vorn::tool::TreeCounter counter;
  Clock::duration reading{};
  Clock::time_point mark = Clock::now();
  const TextPosition end =
      read_stream(*m, input, in.get(), dialect, [&](const Sexp& e, const TextPosition&) {
        const Clock::time_point read = Clock::now();
        reading += read - mark;
        counter.add(e);
        mark = Clock::now();
      });
  reading += Clock::now() - mark;
  const std::optional<std::size_t> heap_after = vorn::tool::heap_in_use();
  vorn::tool::StatsRow row;
  row.name = input.name;
  row.bytes = end.offset;
  row.elements = counter.elements();
  row.distinct = counter.distinct();
  if (heap_before && heap_after) row.heap = *heap_after - *heap_before - counter.own_bytes();
  row.seconds = std::chrono::duration<double>(reading).count();
  return row;
}

int stats_command(const Options& o) {
  if (o.operands.empty()) throw Usage("stats needs at least one FILE", kStatsHelp);
  std::vector<vorn::tool::StatsRow> rows;
  for (const std::string& path : o.operands)
    rows.push_back(file_stats(file_input(path), o.dialect));
  std::cout << vorn::tool::stats_table(rows);
  return flushed(0);
}

// The options more than one command takes.
constexpr Option kDialectOption{
    "--dialect", nullptr, true,
    [](Options& o, const std::string& name) { o.dialect = dialect_named(name); }};
constexpr Option kSharedOption{"--shared", nullptr, false,
                                [](Options& o, const std::string&) { o.shared = true; }};
constexpr Option kFileOption{"-f", "--file", true, [](Options& o, const std::string& path) {
                               o.files.emplace_back(o.operands.size(), path);
                             }};

// Every command, in the order `vorn --help` lists them, each with the options it takes
// besides --help.
// clang-format off
const Command kCommands[] = {
    {"print", "EXPR... | -f FILE...", "the diagnostic text of each expression",
     {kDialectOption, kFileOption}, kPrintHelp, print_command},
    {"match", "PATTERN EXPR", "whether EXPR matches PATTERN, and the bindings",
     {kDialectOption, kFileOption, kSharedOption}, kMatchHelp, match_command},
    {"rewrite", "[RULES-FILE] [TERM...]", "rewrite terms to normal form with rules",
     {kDialectOption, kFileOption, kSharedOption,
      {"--builtin", nullptr, false, [](Options& o, const std::string&) { o.builtin = true; }},
      {"--trace", nullptr, false, [](Options& o, const std::string&) { o.trace = true; }},
      {"--stats", nullptr, false, [](Options& o, const std::string&) { o.stats = true; }},
      {"--max-steps", nullptr, true,
       [](Options& o, const std::string& n) {
         errno = 0;
         o.max_steps = std::strtoull(n.c_str(), nullptr, 10);
         if (n.empty() || n.find_first_not_of("0123456789") != std::string::npos || errno != 0)
           throw std::invalid_argument("--max-steps needs a whole number, not '" + n + "'");
       }}},
     kRewriteHelp, rewrite_command},
    {"convert", "[EXPR...] [-f FILE...]", "between text, labelled text and binary data",
     {kDialectOption, kFileOption,
      {"--to", nullptr, true,
       [](Options& o, const std::string& format) {
         using Format = Options::Format;
         constexpr std::pair<const char*, Format> kFormats[] = {
             {"shared", Format::shared}, {"text", Format::text}, {"binary", Format::binary}};
         for (const auto& [name, f] : kFormats) {
           if (format == name) return void(o.to = f);
         }
         throw std::invalid_argument("--to needs shared, text or binary, not '" + format + "'");
       }},
      {"-o", "--output", true, [](Options& o, const std::string& path) { o.output = path; }}},
     kConvertHelp, convert_command},
    {"stats", "FILE...", "what files cost as trees and as canonical nodes", {kDialectOption},
     kStatsHelp, stats_command},
};
// clang-format on

// `vorn --help`: the usage line, the commands with their operands, then the options.
std::string main_help() {
  std::string text = std::string(kMainUsage) + "\nCommands:\n";
  for (const Command& c : kCommands) {
    std::string line = std::string("  ") + c.name + " " + c.operands + "  ";
    if (line.size() < 34) line.resize(34, ' ');
    text += line + c.summary + "\n";
  }
  return text + kMainHelpEnd;
}

int run(const std::vector<std::string>& args) {
  const std::string name = args.empty() ? "" : args[0];
  const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
  for (const Command& c : kCommands) {
    if (name != c.name) continue;
    const Options o = parse_options(c, rest);
    if (!o.help) return c.run(o);
    std::cout << c.help;
    return flushed(0);
  }
  if (name == "--help" || name == "-h") {
    std::cout << main_help();
    return flushed(0);
  }
  throw Usage(name.empty() ? "no command given" : "unknown command '" + name + "'", main_help());
}

}  // namespace

int main(int argc, char** argv) {
  // Standard input is then read through a buffer of its own, in the pieces it has ready.
  std::ios::sync_with_stdio(false);
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
