// Runs the vorn command as a process and checks its exit status and output.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Scratch files of this process: the standard streams and the rules files.
std::string Path(const char* name) { return "/tmp/vorn_cli_" + std::to_string(getpid()) + name; }
std::string Write(const char* name, const std::string& text) {
  std::ofstream(Path(name), std::ios::binary) << text;
  return Path(name);
}
std::string Take(const char* name) {  // reads the file and removes it
  std::ostringstream text;
  text << std::ifstream(Path(name), std::ios::binary).rdbuf();
  std::remove(Path(name).c_str());
  return text.str();
}

// Exit status (-1 when the process did not exit normally), standard output, standard error.
using Result = std::tuple<int, std::string, std::string>;

// Runs vorn with `args` (none holds a single quote) and `input` on standard input.
Result Vorn(const std::vector<std::string>& args, const std::string& input) {
  std::string command = "'" VORN_CLI_PATH "' <" + Write(".in", input);
  for (const std::string& arg : args) command += " '" + arg + "'";
  const int status = std::system((command + " >" + Path(".out") + " 2>" + Path(".err")).c_str());
  Take(".in");
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Take(".out"), Take(".err")};
}

TEST(VornCli, ExitStatusOutputAndErrors) {
  const std::string rules = Write(".rules", "; comment\n(rule (f ?x) (g ?x ?x))\n(rule a b)\n"),
                    bad = Write(".bad", "(rule a b)\n  (rul a b)"),
                    terms = Write(".terms", "(f x x)\n; c\n  (g (f x x) y)\n"),
                    escape = Write(".escape", "(a b\n (c |x\\q|))");
  using Text = ::testing::Matcher<const std::string&>;
  const std::tuple<std::vector<std::string>, const char*, int, Text, Text> cases[] = {
      // clang-format off
      {{"print", "(f x)", "x"}, "", 0,  // each text on its own lines
       AllOf(StartsWith("{4}[2](cons\n  {1}[2]<1>|f|\n"),
             ContainsRegex("\n\\{2\\}\\[[0-9]+\\]<2>\\|x\\|\n$")), ""},
      {{"match", "(f ?y (g ?x))", "(f a (g (h |b c|)))"}, "", 0,
       "match\n?y = a\n?x = (h |b c|)\n", ""},
      {{"match", "(f ?x ?x)", "(f a b)"}, "", 1, "no match\n", ""},
      {{"rewrite", rules, "(f (f a))", "c"}, "", 0,
       "(f (f a)) => (g (g b b) (g b b))\nc => c\n", ""},
      {{"rewrite", "--trace", rules}, "(h a)\n(f a)", 0,
       "rule 2: a -> b\n(h a) => (h b)\nrule 1: (f b) -> (g b b)\n(f a) => (g b b)\n", ""},
      {{"rewrite", "--max-steps", "2", "--trace", rules, "(q)", "(f (f a))"}, "", 2,
       "(q) => (q)\nrule 2: a -> b\nrule 1: (f b) -> (g b b)\n",
       "vorn: <arg 3>:1:1: no normal form within 2 rule applications (see --max-steps)\n"},
      {{"rewrite", bad, "a"}, "", 2, "", StartsWith("vorn: " + bad + ":2:3: expected (rule ")},
      {{"rewrite", rules, "a", "(f a))"}, "", 2, "", StartsWith("vorn: <arg 3>:1:6: ")},
      {{"rewrite", "--builtin"}, "(d x x)\n (f\n", 2, "(d x x) => 1\n",  // results as terms come
       StartsWith("vorn: <stdin>:3:1: ")},
      // Each command takes its own options; --, --help and -h are every command's.
      {{"--help"}, "", 0, AllOf(StartsWith("usage: vorn"),
       HasSubstr("\n  rewrite [RULES-FILE] [TERM...]  rewrite terms to")), ""},
      {{}, "", 2, "", StartsWith("vorn: ")},
      {{"match", "-h"}, "", 0, StartsWith("usage: vorn"), ""},
      {{"frob"}, "", 2, "", StartsWith("vorn: ")},
      {{"rewrite", "--max-steps", "x"}, "", 2, "", StartsWith("vorn: ")},
      {{"rewrite", "--max-steps"}, "", 2, "",
       StartsWith("vorn: --max-steps needs a value\nusage: vorn rewrite")},
      {{"rewrite", "--trace=1", rules}, "", 2, "",
       StartsWith("vorn: unknown option '--trace=1'\n")},
      {{"stats", "-f", terms}, "", 2, "",
       StartsWith("vorn: unknown option '-f'\nusage: vorn stats")},
      {{"match", "--file=" + terms, "--", "-f"}, "", 2, "",
       StartsWith("vorn: " + terms + ":3:3: expected one")},
      {{"print", "--dialect=scheme", "--", "-h"}, "", 0, HasSubstr("|-h|"), ""},
      // Files and standard input through the stream reader, positions from it.
      {{"print", "-f", escape}, "", 2, "", "vorn: " + escape + ":2:7: unknown escape '\\q' in |name|\n"},
      {{"match", "--dialect=vorn", "(f ?a ?a)", "-f", terms}, "", 2, "",
       "vorn: " + terms + ":3:3: expected one expression, found 2\n"},
      {{"match", "(f ?a ?a)", "--file", "-"}, " (f\n x x)", 0, "match\n?a = x\n", ""},
      {{"rewrite", "--builtin", "-f", "-", "(* 1 b)"}, "(+ 0 a)", 0, "(+ 0 a) => a\n(* 1 b) => b\n", ""},
      {{"stats", terms, "-"}, "(f x x)", 0,
       ContainsRegex("^file +bytes +elements +distinct +sharing +heap +heap/node +read +MB/s\n" +
                     terms + " +28 B +20 +11 +1.82 .*\n<stdin> +7 B +7 +6 +1.17 .*\n"
                     "total +35 B +27 +17 +1.59 [^\n]*\n$"), ""},
      {{"stats", "/nonexistent"}, "", 2, "", "vorn: /nonexistent: cannot open: No such file or directory\n"},
      {{"stats", "/"}, "", 2, "", "vorn: /: cannot read\n"},  // a directory opens, but does not read
      {{"stats", "--dialect", "lisp", "x"}, "", 2, "",
       StartsWith("vorn: --dialect needs vorn, smtlib or scheme, not 'lisp'\nusage: vorn stats")},
      // Labels: written when asked, read everywhere; binary data reported by byte.
      {{"rewrite", "--shared", "--trace", rules, "(f (f a))"}, "", 0,
       "rule 2: a -> b\nrule 1: (f b) -> (g b b)\nrule 1: (f (g b b)) -> (g #0=(g b b) #0#)\n"
       "(f (f a)) => (g #0=(g b b) #0#)\n", ""},
      {{"match", "--shared", "(f ?x)", "(f ((a) (a)))"}, "", 0, "match\n?x = (#0=(a) #0#)\n", ""},
      {{"convert", "(a (b) (b))", "--to", "text", "#0=(c)", "(#1=(x) #1# #1#)"}, "", 0,
       "(a (b) (b))\n(c)\n((x) (x) (x))\n", ""},
      {{"convert", "--dialect=scheme"}, "(a . #0=(b c)) (#1=(x) #1#)", 0, "(a b c)\n(#0=(x) #0#)\n", ""},
      {{"convert", "-f", "-"}, "\x89vorn\r\n\x1a\x02", 2, "",
       "vorn: <stdin>: byte 8: unsupported format version 2 (this library reads version 1)\n"},
      {{"convert", "--to", "bin"}, "", 2, "",
       StartsWith("vorn: --to needs shared, text or binary, not 'bin'\n")},
      {{"rewrite"}, "", 0,  // the built-in demonstration
       AllOf(StartsWith("(d x (* x x)) => (* 2 x)\n"),
             ContainsRegex("\nstats: 7 terms, [1-9][0-9]* steps, [1-9][0-9]* nodes made, "
                           "[0-9]+ sharing hits, [0-9]+ memo hits, [0-9.]+ ms\n$")), ""},
      // clang-format on
  };
  for (const auto& [args, input, status, out, err] : cases) {
    EXPECT_THAT(Vorn(args, input), ::testing::FieldsAre(status, out, err))
        << ::testing::PrintToString(args);
  }
  for (const char* name : {".rules", ".bad", ".terms", ".escape"}) Take(name);
}

// Text to binary to labelled text to plain text, through files and pipes: the same
// expressions, and one saved file after another reads as both.
TEST(VornCli, ConvertRoundTrip) {
  const std::string text = "(f (g a b) (g a b) \"s t\" #700 |x y|)\n()\nz\n";
  const std::string binary = Path(".vb"), shared = Path(".shared");
  EXPECT_THAT(Vorn({"convert", "--to", "binary", "-o", binary, "-f", "-"}, text),
              ::testing::FieldsAre(0, "", ""));
  std::ifstream saved(binary, std::ios::binary);
  const std::string data{std::istreambuf_iterator<char>(saved), {}};
  EXPECT_THAT(data, StartsWith("\x89vorn"));
  EXPECT_THAT(Vorn({"convert", "-f", binary, "-o", shared}, ""), ::testing::FieldsAre(0, "", ""));
  EXPECT_EQ(Take(".shared"), "(f #0=(g a b) #0# \"s t\" #700 |x y|)\n()\nz\n");
  EXPECT_THAT(Vorn({"convert", "--to=text", "-f", "-", "(q)"}, data + data),
              ::testing::FieldsAre(0, text + text + "(q)\n", ""));
  // Bad input writes nothing: the output file keeps what it held.
  EXPECT_THAT(Vorn({"convert", "-o", binary, "-f", "-"}, data.substr(0, data.size() - 1)),
              ::testing::FieldsAre(2, "", StartsWith("vorn: <stdin>: byte ")));
  EXPECT_EQ(Take(".vb"), data);
}

}  // namespace
