#include "vorn/expr/string_table.hpp"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/string_samples.hpp"

namespace vorn {
namespace {

TEST(StringTable, IndicesAreDenseInFirstSightAndViewsStayValid) {
  StringTable t;
  const std::vector<std::string> contents = test::string_samples();
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

}  // namespace
}  // namespace vorn
