// Real files read end to end: every file of the KiCad footprint library (and of the symbol
// library, when installed) is read by vorn and by sfsexp, a plain-tree reader written
// independently of vorn, and both must give the same structure:
//
//   - the same lists, element for element, every vorn list proper (no dotted tail) and an
//     empty sfsexp list exactly where vorn has nil;
//   - a string atom exactly where sfsexp reports a double-quoted atom, with the same content,
//     and elsewhere a symbol named by exactly the atom's text.
//
// Then every expression is written back by vorn, compact and pretty, and must read again as
// the very same canonical node; and each file's expressions are saved in the binary format,
// which must load back to the same nodes, and into another manager to nodes that copy back
// to them. A fresh manager per file, as a tool that opens one file has.
//
// The corpus is found under $VORN_KICAD_DIR (default /usr/share/kicad): footprints/**/
// *.kicad_mod (Debian package kicad-footprints) and symbols/**/*.kicad_sym (kicad-symbols).
// A missing footprint library fails the test when CI is "true" in the environment (the CI
// script installs it) and skips it elsewhere; a missing symbol library always skips.
// Sanitizer builds define VORN_CORPUS_STRIDE and read only every that-many-th file of the
// sorted list, the same files every run; $VORN_CORPUS_STRIDE overrides it (1 reads all).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <sexp.h>
#include <vorn/vorn.hpp>

#ifndef VORN_CORPUS_STRIDE
#define VORN_CORPUS_STRIDE 1
#endif

namespace {

namespace fs = std::filesystem;

// ---- the corpus -------------------------------------------------------------------------

std::size_t stride() {
  const char* s = std::getenv("VORN_CORPUS_STRIDE");
  const long n = s != nullptr ? std::strtol(s, nullptr, 10) : 0;
  return n > 0 ? static_cast<std::size_t>(n) : VORN_CORPUS_STRIDE;
}

// The files under `dir` whose names end in `ext`, sorted by path, then every stride()-th.
std::vector<fs::path> corpus_files(const fs::path& dir, const std::string& ext) {
  std::vector<fs::path> all, sample;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (entry.is_regular_file() && name.size() > ext.size() &&
        name.compare(name.size() - ext.size(), ext.size(), ext) == 0)
      all.push_back(entry.path());
  }
  std::sort(all.begin(), all.end());
  for (std::size_t i = 0; i < all.size(); i += stride()) sample.push_back(all[i]);
  return sample;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---- sfsexp -----------------------------------------------------------------------------

// Every top-level expression of a text as sfsexp reads it, freed on destruction. sfsexp
// does not write to the text it reads.
struct SfsexpForest {
  explicit SfsexpForest(const std::string& text) {
    char* s = const_cast<char*>(text.data());
    reset_sexp_errno();
    pcont_t* pc = init_continuation(s);
    while (sexp_t* e = iparse_sexp(s, text.size(), pc)) exprs.push_back(e);
    // The end of the text is reported as "incomplete"; an open list is not the end.
    error = sexp_errno;
    complete = (error == SEXP_ERR_OK || error == SEXP_ERR_INCOMPLETE) && pc->depth == 0;
    destroy_continuation(pc);
  }
  ~SfsexpForest() {
    for (sexp_t* e : exprs) destroy_sexp(e);
  }
  SfsexpForest(const SfsexpForest&) = delete;
  SfsexpForest& operator=(const SfsexpForest&) = delete;

  std::vector<sexp_t*> exprs;
  sexp_errcode_t error = SEXP_ERR_OK;
  bool complete = false;
};

// ---- comparing the two readings ---------------------------------------------------------

struct Counts {
  std::size_t files = 0;
  std::size_t bytes = 0;
  std::size_t elements = 0;  // sfsexp elements compared: atoms and lists
  std::size_t strings = 0;   // of which double-quoted atoms
};

// Both readings are spelled out in one form that tells every difference apart: "()" for nil
// and for an empty list, "(" E " " E ... ")" for a list, "S<n>:" and the content for a string,
// "A<n>:" and the text for a symbol (the atom's text on sfsexp's side), and forms the other
// side never spells for the rest ("'" for sfsexp's quote-prefixed atoms, "#" and the value for
// a vorn value naming nothing, " . " and the tail for a dotted list). Recursive: the corpus
// nests a few dozen levels at most.
void tagged(std::string& out, char tag, std::string_view text) {
  out += tag + std::to_string(text.size()) + ":";
  out += text;
}

// sfsexp turns `\"` and `\\` into the byte and keeps `\n` as backslash, n; vorn decodes all
// three. The corpus spells no other escape, so vorn's content is spelled with each line feed
// as backslash, n: any other escape makes the spellings differ, and the file fail.
void spell(const vorn::SexpManager& m, const vorn::Sexp_* n, std::string& out) {
  if (n->is_symbol == 0) {
    const char* sep = "(";
    for (; n->is_symbol == 0; n = n->cdr, sep = " ") spell(m, n->car, out += sep);
    if (n->value != 0) spell(m, n, out += " . ");
    out += ")";
  } else if (n->value == 0) {
    out += "()";
  } else if (const auto content = m.get_string(n->value)) {
    std::string s;
    for (char c : *content) s += c == '\n' ? std::string("\\n") : std::string(1, c);
    tagged(out, 'S', s);
  } else if (const char* name = m.get_symbol_value(n->value)) {
    tagged(out, 'A', name);
  } else {
    out += "#" + std::to_string(n->value);
  }
}

// sfsexp counts the terminating NUL of an atom in val_used.
void spell(const sexp_t* e, std::string& out, Counts& counts) {
  ++counts.elements;
  if (e->ty == SEXP_LIST) {
    const char* sep = "(";
    for (const sexp_t* c = e->list; c != nullptr; c = c->next, sep = " ")
      spell(c, out += sep, counts);
    out += e->list == nullptr ? "()" : ")";
    return;
  }
  const std::string_view text(e->val, e->val_used > 0 ? e->val_used - 1 : 0);
  counts.strings += e->aty == SEXP_DQUOTE;
  tagged(out, e->aty == SEXP_DQUOTE ? 'S' : e->aty == SEXP_BASIC ? 'A' : '\'', text);
}

// The first place where the two readings differ, with some text of each around it; nothing
// when they agree.
std::optional<std::string> first_difference(const vorn::SexpManager& m,
                                            const std::vector<vorn::Sexp>& vorn_exprs,
                                            const std::vector<sexp_t*>& sfsexp_exprs,
                                            Counts& counts) {
  std::string mine, theirs;
  for (const vorn::Sexp& e : vorn_exprs) spell(m, e.get(), mine += " ");
  for (const sexp_t* e : sfsexp_exprs) spell(e, theirs += " ", counts);
  const std::size_t at = std::mismatch(mine.begin(), mine.end(), theirs.begin(), theirs.end())
                             .first - mine.begin();
  if (at == mine.size() && at == theirs.size()) return std::nullopt;
  const std::size_t from = at < 40 ? 0 : at - 40;
  return "at byte " + std::to_string(at) + " of the spelled readings: vorn has ..." +
         mine.substr(from, 80) + "..., sfsexp ..." + theirs.substr(from, 80) + "...";
}

// Why the expressions do not read back as themselves from vorn's own text (compact or
// pretty), or, saved in the binary format, do not load back as themselves here, or load
// elsewhere as nodes that copy back to others; nothing when they do all that.
std::optional<std::string> round_trip_failure(vorn::SexpManager& m,
                                              const std::vector<vorn::Sexp>& exprs) {
  for (std::size_t i = 0; i < exprs.size(); ++i) {
    for (const bool pretty : {false, true}) {
      const std::string text = vorn::to_text(exprs[i], {vorn::Dialect::vorn, pretty, 100, 2});
      const std::string which =
          "expression " + std::to_string(i) + " written " + (pretty ? "pretty" : "compact");
      try {
        if (vorn::parse(m, text, {vorn::Dialect::vorn}) != exprs[i])
          return which + " reads back as another node";
      } catch (const vorn::ParseError& error) {
        return which + " does not read back: " + error.what();
      }
    }
  }
  std::stringstream data;
  vorn::save(data, exprs);
  if (vorn::load(m, data) != exprs) return std::string("saved in binary, loads back as others");
  vorn::SexpManager elsewhere;
  data.seekg(0);
  if (vorn::copy(m, vorn::load(elsewhere, data)) != exprs)
    return std::string("saved in binary and loaded elsewhere, copies back as other nodes");
  return std::nullopt;
}

// Reads one file both ways and checks it; the reason when it fails.
std::optional<std::string> check_file(const fs::path& path, Counts& counts) {
  const std::string text = read_file(path);
  ++counts.files;
  counts.bytes += text.size();
  vorn::SexpManager m;
  std::vector<vorn::Sexp> exprs;
  std::optional<std::string> vorn_error;
  try {
    exprs = vorn::parse_all(m, text, vorn::ReadOptions{vorn::Dialect::vorn});
  } catch (const vorn::ParseError& error) {
    vorn_error = error.what();
  }
  const SfsexpForest forest(text);
  if (vorn_error || !forest.complete) {
    std::string why = vorn_error ? "vorn: " + *vorn_error : "vorn reads it";
    why += forest.complete ? "; sfsexp reads it"
                           : "; sfsexp fails (sexp_errno " +
                                 std::to_string(static_cast<int>(forest.error)) + ")";
    return why;
  }
  if (exprs.empty()) return std::string("no expression");
  if (auto d = first_difference(m, exprs, forest.exprs, counts)) return d;
  return round_trip_failure(m, exprs);
}

// ---- the tests --------------------------------------------------------------------------

struct Library {
  const char* dir;  // under $VORN_KICAD_DIR
  const char* ext;
  const char* package;
  bool required_in_ci;
};

class Kicad : public ::testing::TestWithParam<Library> {};

TEST_P(Kicad, ReadsAlikeAndRoundTrips) {
  const Library& lib = GetParam();
  const char* root = std::getenv("VORN_KICAD_DIR");
  const fs::path dir =
      fs::path(root != nullptr && *root != '\0' ? root : "/usr/share/kicad") / lib.dir;
  if (!fs::is_directory(dir)) {
    const char* ci = std::getenv("CI");
    if (lib.required_in_ci && ci != nullptr && std::strcmp(ci, "true") == 0)
      FAIL() << "missing at " << dir << " (" << lib.package << "; the CI script installs it)";
    GTEST_SKIP() << "nothing at " << dir << " (apt-get install " << lib.package << ")";
  }
  constexpr std::size_t kShownFailures = 20;
  Counts counts;
  std::size_t failures = 0;
  std::ostringstream report;
  for (const fs::path& path : corpus_files(dir, lib.ext)) {
    if (const auto why = check_file(path, counts)) {
      if (++failures <= kShownFailures) report << "  " << path.string() << ": " << *why << "\n";
    }
  }
  if (failures > kShownFailures) report << "  ... and " << failures - kShownFailures << " more\n";
  std::cout << lib.dir << ": " << counts.files << " files (every " << stride() << "), "
            << counts.bytes << " bytes, " << counts.elements << " elements, " << counts.strings
            << " strings, " << failures << " failing\n";
  EXPECT_GT(counts.files, 0u) << "no " << lib.ext << " file under " << dir;
  EXPECT_EQ(failures, 0u) << "files where vorn and sfsexp disagree or a round trip fails:\n"
                          << report.str();
}

INSTANTIATE_TEST_SUITE_P(
    Libraries, Kicad,
    ::testing::Values(Library{"footprints", ".kicad_mod", "kicad-footprints", true},
                      Library{"symbols", ".kicad_sym", "kicad-symbols", false}),
    [](const auto& info) { return std::string(info.param.dir); });

// sfsexp keeps the elements it frees for reuse, process-wide; give them back at exit so the
// leak checker sees a clean heap.
class SfsexpCleanup : public ::testing::Environment {
 public:
  void TearDown() override { sexp_cleanup(); }
};
[[maybe_unused]] const auto* const sfsexp_cleanup =
    ::testing::AddGlobalTestEnvironment(new SfsexpCleanup);

}  // namespace
