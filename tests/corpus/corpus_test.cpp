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
#include <cstdint>
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

// An atom's text; sfsexp counts the terminating NUL in val_used.
std::string_view atom_text(const sexp_t* e) {
  return std::string_view(e->val, e->val_used > 0 ? e->val_used - 1 : 0);
}

// Whether a double-quoted atom that sfsexp reports as `v` is the string vorn read as `c`.
// sfsexp turns `\"` and `\\` into the byte and keeps `\n` as backslash, n; vorn decodes all
// three. The corpus spells no other escape, so each backslash left in `v` is either vorn's
// backslash (written `\\`) or, before an n, vorn's line feed (written `\n`): which one is
// read off `c`. Any other escape makes the contents differ, and the file fail.
bool same_string_content(std::string_view v, std::string_view c) {
  std::size_t i = 0, j = 0;
  for (; i < v.size() && j < c.size(); ++i, ++j) {
    if (v[i] == '\\' && c[j] == '\n' && i + 1 < v.size() && v[i + 1] == 'n') {
      ++i;
    } else if (v[i] != c[j]) {
      return false;
    }
  }
  return i == v.size() && j == c.size();
}

// ---- comparing the two readings ---------------------------------------------------------

struct Counts {
  std::size_t files = 0;
  std::size_t bytes = 0;
  std::size_t elements = 0;  // sfsexp elements compared: atoms and lists
  std::size_t strings = 0;   // of which double-quoted atoms
};

std::string shown(std::string_view text) {
  std::string s(text.substr(0, 60));
  if (text.size() > 60) s += "...";
  return s;
}

std::string describe(const vorn::SexpManager& m, const vorn::Sexp_* n) {
  if (n->is_symbol == 0) return "a list";
  if (n->value == 0) return "nil";
  if (const auto s = m.get_string(n->value)) return "the string \"" + shown(*s) + "\"";
  if (const char* name = m.get_symbol_value(n->value))
    return std::string("the symbol ") + shown(name);
  return "#" + std::to_string(n->value);
}

std::string describe(const sexp_t* e) {
  if (e->ty == SEXP_LIST) return e->list == nullptr ? "an empty list" : "a list";
  const std::string text = shown(atom_text(e));
  switch (e->aty) {
    case SEXP_DQUOTE:
      return "the quoted atom \"" + text + "\"";
    case SEXP_SQUOTE:
      return "the quote-prefixed atom '" + text;
    default:
      return "the atom " + text;
  }
}

// Whether vorn's node `n` is what sfsexp's element `e` reads as, for an atom or the empty
// list; lists with elements are matched element by element by the caller.
bool same_leaf(const vorn::SexpManager& m, const vorn::Sexp_* n, const sexp_t* e) {
  if (e->ty == SEXP_LIST) return n->is_symbol != 0 && n->value == 0;  // () is nil
  if (n->is_symbol == 0) return false;
  const std::string_view text = atom_text(e);
  if (e->aty == SEXP_DQUOTE) {
    const auto content = m.get_string(n->value);
    return content && same_string_content(text, *content);
  }
  if (e->aty != SEXP_BASIC || (n->value & vorn::SexpManager::string_tag) != 0) return false;
  const char* name = m.get_symbol_value(n->value);
  return name != nullptr && text == name;
}

// The first place where the two readings differ, as "at PATH: vorn has X, sfsexp has Y"
// with PATH the 1-based element positions from the top level down; nothing when they agree. Walks
// with an explicit stack of open lists: any depth.
std::optional<std::string> first_difference(const vorn::SexpManager& m,
                                            const std::vector<vorn::Sexp>& vorn_exprs,
                                            const std::vector<sexp_t*>& sfsexp_exprs,
                                            Counts& counts) {
  if (vorn_exprs.size() != sfsexp_exprs.size())
    return "vorn reads " + std::to_string(vorn_exprs.size()) + " expressions, sfsexp " +
           std::to_string(sfsexp_exprs.size());
  struct Open {
    const vorn::Sexp_* rest;  // the vorn elements not yet compared (a cons chain)
    const sexp_t* next;       // the same, on sfsexp's side (a sibling chain)
    std::size_t index;        // elements taken so far: the position of the current one
  };
  std::vector<Open> open;
  auto where = [&open](std::size_t top) {
    std::string path = std::to_string(top + 1);
    for (const Open& o : open) path += "/" + std::to_string(o.index);
    return path;
  };
  for (std::size_t top = 0; top < vorn_exprs.size(); ++top) {
    const vorn::Sexp_* n = vorn_exprs[top].get();
    const sexp_t* e = sfsexp_exprs[top];
    // Compares one pair; a pair of lists with elements opens a level.
    auto visit = [&](const vorn::Sexp_* vn, const sexp_t* se) -> std::optional<std::string> {
      ++counts.elements;
      if (se->ty == SEXP_VALUE && se->aty == SEXP_DQUOTE) ++counts.strings;
      if (se->ty == SEXP_LIST && se->list != nullptr && vn->is_symbol == 0) {
        open.push_back(Open{vn, se->list, 0});
        return std::nullopt;
      }
      if (same_leaf(m, vn, se)) return std::nullopt;
      return "at " + where(top) + ": vorn has " + describe(m, vn) + ", sfsexp " + describe(se);
    };
    if (auto d = visit(n, e)) return d;
    while (!open.empty()) {
      Open& o = open.back();
      const bool vorn_done = o.rest->is_symbol != 0;
      if (vorn_done && o.rest->value != 0)
        return "at " + where(top) + ": vorn has a dotted tail, " + describe(m, o.rest);
      if (vorn_done || o.next == nullptr) {
        if (vorn_done != (o.next == nullptr))
          return "at " + where(top) + ": the list ends in " + (vorn_done ? "vorn" : "sfsexp") +
                 " only";
        open.pop_back();
        continue;
      }
      const vorn::Sexp_* vn = o.rest->car;
      const sexp_t* se = o.next;
      // Advance before visiting: visiting may push and invalidate `o`.
      o.rest = o.rest->cdr;
      o.next = o.next->next;
      ++o.index;
      if (auto d = visit(vn, se)) return d;
    }
  }
  return std::nullopt;
}

// The first expression that does not read back as itself from vorn's own text, compact or
// pretty; nothing when all do.
std::optional<std::string> first_round_trip_failure(vorn::SexpManager& m,
                                                    const std::vector<vorn::Sexp>& exprs) {
  const vorn::ReadOptions read{vorn::Dialect::vorn};
  const vorn::WriteOptions compact{vorn::Dialect::vorn};
  const vorn::WriteOptions pretty{vorn::Dialect::vorn, true, 100, 2};
  for (std::size_t i = 0; i < exprs.size(); ++i) {
    for (const vorn::WriteOptions* options : {&compact, &pretty}) {
      const std::string text = vorn::to_text(exprs[i], *options);
      const char* form = options->pretty ? "pretty" : "compact";
      try {
        if (vorn::parse(m, text, read) != exprs[i])
          return "expression " + std::to_string(i) + " written " + form +
                 " reads back as another node";
      } catch (const vorn::ParseError& error) {
        return "expression " + std::to_string(i) + " written " + form +
               " does not read back: " + error.what();
      }
    }
  }
  return std::nullopt;
}

// Why the expressions, saved in the binary format, do not load back as themselves here, or
// load elsewhere as nodes that copy back to others; nothing when they do.
std::optional<std::string> binary_round_trip_failure(vorn::SexpManager& m,
                                                     const std::vector<vorn::Sexp>& exprs) {
  std::stringstream data;
  vorn::save(data, exprs);
  if (vorn::load(m, data) != exprs) return std::string("saved in binary, loads back as other nodes");
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
  if (auto f = first_round_trip_failure(m, exprs)) return f;
  return binary_round_trip_failure(m, exprs);
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
