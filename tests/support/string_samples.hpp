// Strings that exercise a string table: every length around its chunk sizes, NUL bytes, and
// near-duplicates.
#ifndef VORN_TESTS_SUPPORT_STRING_SAMPLES_HPP
#define VORN_TESTS_SUPPORT_STRING_SAMPLES_HPP

#include <string>
#include <vector>

namespace vorn::test {

inline std::vector<std::string> string_samples() {
  std::vector<std::string> out{"", std::string(1, '\0'), std::string("a\0b", 3), "a", "ab"};
  for (std::size_t n : {7u, 8u, 9u, 15u, 16u, 17u, 1023u, 1024u, 1025u, 4095u, 4096u, 5000u})
    out.push_back(std::string(n, 'x'));
  for (int i = 0; i < 3000; ++i) out.push_back("s" + std::to_string(i));  // past many growths
  out.push_back(std::string(5000, 'x') + "y");  // same prefix as an earlier one
  return out;
}

}  // namespace vorn::test

#endif  // VORN_TESTS_SUPPORT_STRING_SAMPLES_HPP
