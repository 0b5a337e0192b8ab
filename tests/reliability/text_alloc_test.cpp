// What a refused allocation leaves in the stream reader.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them and can make any of them fail.
#include <gtest/gtest.h>

#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "support/malloc_probe.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/reader.hpp"

namespace vorn {
namespace {

TEST(TextReader, OutOfMemoryLeavesTheReaderWhereItWas) {
  std::string text = "(a b) ; c\n(|x y| (a b) . z)\n(";  // the last one outgrows the first chunk
  for (int i = 0; i < 40000; ++i) text += " a";
  text += ")";
  SexpManager m;
  const std::vector<Sexp> want = parse_all(m, text);
  for (std::size_t fail = 0, failures = 1; failures > 0; ++fail) {
    std::istringstream in(text);
    TextReader reader(m, in);
    std::vector<Sexp> got;
    got.reserve(want.size());
    {
      test::MallocProbe probe(true);
      probe.fail_at(fail);
      for (Sexp e;;) {
        try {
          if (!reader.next(e)) break;
          got.push_back(e);
        } catch (const std::bad_alloc&) {  // once: the next call goes on
        }
      }
      failures = probe.failures();
    }
    EXPECT_TRUE(got == want) << "allocation " << fail << " failed";  // no 40000-cell printout
  }
}

}  // namespace
}  // namespace vorn
