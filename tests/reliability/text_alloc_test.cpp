// What a refused allocation leaves in the stream reader, and what reading asks for.
// Built into vorn_alloc_tests, whose malloc and operator new calls go through
// support/malloc_probe.hpp, which counts them and can make any of them fail.
#include <gtest/gtest.h>

#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "support/internals.hpp"
#include "support/malloc_probe.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/reader.hpp"

namespace vorn {
namespace {

using I = detail::SexpManagerInternals;

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

// An atom met again in one text is a sharing hit, and needs what sh_sym's hit needs: at the
// counter's end a snapshot of the live ids, and on a full node pool a chunk.
TEST(Parse, RepeatedAtomNeedsAnIdAndASlotAsSharingHitsDo) {
  for (const bool ids_run_out : {true, false}) {
    SexpManager m;
    std::vector<Sexp> fill;
    if (ids_run_out) I::set_next_id(m, 0xFFFFFFFFu);  // the first `fresh` takes the last id
    while (!ids_run_out && I::slots_in_use(m) < 1023) fill.push_back(m.sym(1));  // one slot left
    test::MallocProbe probe;
    EXPECT_EQ(parse_all(m, "fresh fresh").size(), 2u);
    EXPECT_EQ(ids_run_out ? I::snapshot_size(m) : probe.granted(8 + 1024 * 32),
              ids_run_out ? 2u : 1u)
        << ids_run_out;
  }
}

}  // namespace
}  // namespace vorn
