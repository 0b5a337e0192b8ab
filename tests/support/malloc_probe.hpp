// Observes, and can fail, allocations made while a probe is alive: every malloc call from
// code linked into the test binary (the library included; the binary is linked with
// -Wl,--wrap=malloc, so those calls reach __wrap_malloc), and, when asked, every call of
// the global operator new from anywhere in the process, standard library included (the
// replaceable forms are defined in malloc_probe.cpp). Calls are numbered from 0 in one
// sequence, malloc and new together.
#ifndef VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP
#define VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP

#include <cstddef>

namespace vorn::test {

/// While alive, records every call (size and outcome, for the first `capacity` calls)
/// and makes the calls of a chosen range fail: malloc returns null, operator new throws
/// std::bad_alloc. One probe at a time.
class MallocProbe {
 public:
  static constexpr std::size_t capacity = 16384;
  static constexpr std::size_t forever = static_cast<std::size_t>(-1);

  /// With `count_new`, calls of operator new are counted and failed too.
  explicit MallocProbe(bool count_new = false) noexcept;
  ~MallocProbe();
  MallocProbe(const MallocProbe&) = delete;
  MallocProbe& operator=(const MallocProbe&) = delete;

  /// Calls `first` .. `first + n - 1` (0-based) fail (and are still counted); `n` == forever
  /// fails all from `first` on; `n` == 0 fails none.
  void fail_at(std::size_t first, std::size_t n = 1) noexcept;
  /// Calls seen since construction.
  std::size_t calls() const noexcept;
  /// Calls made to fail since construction.
  std::size_t failures() const noexcept;
  /// Size asked for by call `i` (0-based).
  std::size_t size(std::size_t i) const noexcept;
  /// Number of recorded malloc calls (not operator new) of exactly `bytes` that succeeded.
  std::size_t granted(std::size_t bytes) const noexcept;
};

}  // namespace vorn::test

#endif  // VORN_TESTS_SUPPORT_MALLOC_PROBE_HPP
