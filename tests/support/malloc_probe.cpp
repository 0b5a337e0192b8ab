#include "support/malloc_probe.hpp"

#include <cassert>

extern "C" void* __real_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)

namespace {
bool active = false;
std::size_t failures_left = 0;
std::size_t call_count = 0;
std::size_t sizes[vorn::test::MallocProbe::capacity];
}  // namespace

extern "C" void* __wrap_malloc(std::size_t size) {  // NOLINT(bugprone-reserved-identifier)
  if (active) {
    if (call_count < vorn::test::MallocProbe::capacity) sizes[call_count] = size;
    ++call_count;
    if (failures_left > 0) {
      --failures_left;
      return nullptr;
    }
  }
  return __real_malloc(size);
}

namespace vorn::test {

MallocProbe::MallocProbe() noexcept {
  assert(!active && "one MallocProbe at a time");
  reset();
  active = true;
}

MallocProbe::~MallocProbe() {
  active = false;
  failures_left = 0;
}

void MallocProbe::fail_next(std::size_t n) noexcept { failures_left = n; }
std::size_t MallocProbe::calls() const noexcept { return call_count; }
std::size_t MallocProbe::size(std::size_t i) const noexcept {
  return i < capacity && i < call_count ? sizes[i] : 0;
}
void MallocProbe::reset() noexcept {
  call_count = 0;
  failures_left = 0;
}

}  // namespace vorn::test
