// Observes, and can fail, the malloc calls made by code linked into the test binary
// (the library included). The test binary is linked with -Wl,--wrap=malloc, so those
// calls reach __wrap_malloc below; the standard library's own calls (operator new
// inside libstdc++) are not seen.
#ifndef VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP
#define VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP

#include <cstddef>

namespace vorn::test {

/// While alive, records the size of every malloc call (up to `capacity`) and can make
/// chosen calls fail by returning null. One probe at a time.
class MallocProbe {
 public:
  static constexpr std::size_t capacity = 4096;

  MallocProbe() noexcept;
  ~MallocProbe();
  MallocProbe(const MallocProbe&) = delete;
  MallocProbe& operator=(const MallocProbe&) = delete;

  /// The next `n` calls return null (and are still counted).
  void fail_next(std::size_t n = 1) noexcept;
  /// Calls seen since construction or reset().
  std::size_t calls() const noexcept;
  /// Size asked for by call `i` (0-based).
  std::size_t size(std::size_t i) const noexcept;
  void reset() noexcept;
};

}  // namespace vorn::test

#endif  // VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP
