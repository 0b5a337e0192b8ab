#include "support/malloc_probe.hpp"

#include <cassert>
#include <cstdlib>
#include <new>

extern "C" void* __real_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)

namespace {
using vorn::test::MallocProbe;

bool active = false;
bool count_new = false;
std::size_t fail_begin = 0, fail_end = 0;  // calls in [fail_begin, fail_end) fail
std::size_t call_count = 0, failure_count = 0;
std::size_t sizes[MallocProbe::capacity];
unsigned char kinds[MallocProbe::capacity];  // bit 0: failed; bit 1: operator new
constexpr unsigned char failed = 1, from_new = 2;

void* probed(std::size_t size, bool is_new) {
  if (!active || (is_new && !count_new)) return __real_malloc(size);
  const std::size_t i = call_count++;
  const bool fail = i >= fail_begin && i < fail_end;
  if (i < MallocProbe::capacity) {
    sizes[i] = size;
    kinds[i] = static_cast<unsigned char>((fail ? failed : 0) | (is_new ? from_new : 0));
  }
  if (!fail) return __real_malloc(size);
  ++failure_count;
  return nullptr;
}

void* new_or_null(std::size_t size) noexcept { return probed(size == 0 ? 1 : size, true); }
void* new_or_throw(std::size_t size) {
  void* p = new_or_null(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
}  // namespace

extern "C" void* __wrap_malloc(std::size_t size) {  // NOLINT(bugprone-reserved-identifier)
  return probed(size, false);
}

// The replaceable allocation functions the program uses (no over-aligned types), all on
// malloc and free, so that sanitizers and memcheck see matching pairs.
void* operator new(std::size_t size) { return new_or_throw(size); }
void* operator new[](std::size_t size) { return new_or_throw(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return new_or_null(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return new_or_null(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace vorn::test {

MallocProbe::MallocProbe(bool count_new_calls) noexcept {
  assert(!active && "one MallocProbe at a time");
  call_count = failure_count = fail_begin = fail_end = 0;
  count_new = count_new_calls;
  active = true;
}

MallocProbe::~MallocProbe() {
  active = false;
  fail_end = 0;
}

void MallocProbe::fail_at(std::size_t first, std::size_t n) noexcept {
  fail_begin = first;
  fail_end = n > forever - first ? forever : first + n;
}
std::size_t MallocProbe::calls() const noexcept { return call_count; }
std::size_t MallocProbe::failures() const noexcept { return failure_count; }
std::size_t MallocProbe::size(std::size_t i) const noexcept {
  return i < capacity && i < call_count ? sizes[i] : 0;
}
std::size_t MallocProbe::granted(std::size_t bytes) const noexcept {
  std::size_t n = 0;
  for (std::size_t i = 0; i < call_count && i < capacity; ++i)
    n += sizes[i] == bytes && kinds[i] == 0;
  return n;
}

}  // namespace vorn::test
