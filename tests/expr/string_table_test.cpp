#include "vorn/expr/string_table.hpp"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "support/malloc_probe.hpp"

namespace vorn {
namespace {

// Contents of every length around the chunk sizes, NUL bytes and near-duplicates among them.
std::vector<std::string> sample_contents() {
  std::vector<std::string> out{"", std::string(1, '\0'), std::string("a\0b", 3), "a", "ab"};
  for (std::size_t n : {7u, 8u, 9u, 15u, 16u, 17u, 1023u, 1024u, 1025u, 4095u, 4096u, 5000u})
    out.push_back(std::string(n, 'x'));
  for (int i = 0; i < 3000; ++i) out.push_back("s" + std::to_string(i));  // past many growths
  out.push_back(std::string(5000, 'x') + "y");  // same prefix as an earlier one
  return out;
}

TEST(StringTable, IndicesAreDenseInFirstSightAndViewsStayValid) {
  StringTable t;
  const std::vector<std::string> contents = sample_contents();
  std::vector<std::string_view> views;
  for (std::size_t i = 0; i < contents.size(); ++i) {
    ASSERT_EQ(t.intern(contents[i]), i) << i;
    views.push_back(t.at(i));
  }
  EXPECT_EQ(t.size(), contents.size());
  EXPECT_FALSE(t.contains(contents.size()));
  for (std::size_t i = 0; i < contents.size(); ++i) {
    EXPECT_EQ(t.intern(std::string(contents[i])), i) << i;  // found again from another copy
    EXPECT_EQ(views[i], contents[i]) << i;                   // never moved
    EXPECT_EQ(views[i].data(), t.at(i).data()) << i;
  }
  EXPECT_EQ(t.size(), contents.size());
}

TEST(StringTable, AFailedAllocationLeavesTheTableAsItWas) {
  const std::vector<std::string> contents = sample_contents();
  for (std::size_t fail = 0;; ++fail) {
    StringTable t;
    std::size_t done = 0;
    bool failed = false;
    {
      test::MallocProbe probe(true);
      probe.fail_at(fail);
      for (; done < contents.size(); ++done) {
        try {
          t.intern(contents[done]);
        } catch (const std::bad_alloc&) {
          failed = true;
          break;
        }
      }
    }
    ASSERT_EQ(t.size(), done);
    for (std::size_t i = 0; i < done; ++i) ASSERT_EQ(t.at(i), contents[i]) << fail << " " << i;
    if (!failed) break;
    EXPECT_EQ(t.intern(contents[done]), done);  // the failed one goes in afterwards
  }
}

}  // namespace
}  // namespace vorn
