// Asking the processor once whether it has the bit instructions.
#include "bit_instructions.hpp"

#include <atomic>

#if VORN_BIT_INSTRUCTIONS_ARE_CHECKED
#include <cpuid.h>
#endif

namespace vorn::detail {

namespace {

std::atomic<bool> turned_off{false};

#if VORN_BIT_INSTRUCTIONS_ARE_CHECKED
bool ask_processor() noexcept {
  unsigned a, b, c, d;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return false;
  const bool popcnt = (c >> 23) & 1;
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return false;
  const bool bmi1 = (b >> 3) & 1, bmi2 = (b >> 8) & 1;
  if (__get_cpuid(0x80000001u, &a, &b, &c, &d) == 0) return false;
  const bool lzcnt = (c >> 5) & 1;
  return popcnt && bmi1 && bmi2 && lzcnt;
}
#endif

}  // namespace

bool has_bit_instructions() noexcept {
  if (turned_off.load(std::memory_order_relaxed)) return false;
#if VORN_BIT_INSTRUCTIONS_ARE_CHECKED
  static const bool has = ask_processor();
  return has;
#else
  return true;
#endif
}

void turn_off_bit_instructions(bool off) noexcept { turned_off.store(off, std::memory_order_relaxed); }

}  // namespace vorn::detail
