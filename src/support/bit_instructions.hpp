// Running a hot loop with the processor's bit instructions where it has them.
#ifndef VORN_SRC_SUPPORT_BIT_INSTRUCTIONS_HPP
#define VORN_SRC_SUPPORT_BIT_INSTRUCTIONS_HPP

/// Baseline x86-64 has no instruction for a population count or a count of leading zeros,
/// and shifts by a register go through one register and the flags; the processors of the
/// last decade have them (popcnt, lzcnt, the BMI1 and BMI2 sets). A loop that spends its
/// time there is written once as an inlined function and called through two entries:
///
///     VORN_INLINE_INTO_CALLER R loop(...) { ... }          // and what its loop calls
///     VORN_WITH_BIT_INSTRUCTIONS R loop_with_bits(...) { return loop(...); }
///     ... has_bit_instructions() ? loop_with_bits(...) : loop(...) ...
///
/// Both compute the same results bit for bit. Whatever the inliner leaves out of line is
/// compiled for the baseline, so no other code of the library ever uses these instructions.
/// (Not the compilers' function cloning with ifunc dispatch: some compilers wrongly take such
/// a function to throw nothing, and an exception from it ends the program.)
#if (defined(__GNUC__) || defined(__clang__)) && defined(__x86_64__) && !defined(VORN_NO_BIT_INSTRUCTIONS)
#define VORN_WITH_BIT_INSTRUCTIONS __attribute__((target("popcnt,lzcnt,bmi,bmi2")))
#define VORN_BIT_INSTRUCTIONS_ARE_CHECKED 1
#else
#define VORN_WITH_BIT_INSTRUCTIONS
#define VORN_BIT_INSTRUCTIONS_ARE_CHECKED 0
#endif

#define VORN_INLINE_INTO_CALLER [[gnu::always_inline]] inline
#define VORN_INLINE_LAMBDA __attribute__((always_inline))  // after a lambda's parameters

namespace vorn::detail {

/// True when the entries marked VORN_WITH_BIT_INSTRUCTIONS may run here: the processor has
/// the instructions (asked once), or they are not compiled in. Thread-safe.
bool has_bit_instructions() noexcept;

/// Makes has_bit_instructions() false while `off`, so that tests and measurements can run
/// the baseline entries on any processor. Thread-safe.
void turn_off_bit_instructions(bool off) noexcept;

}  // namespace vorn::detail

#endif  // VORN_SRC_SUPPORT_BIT_INSTRUCTIONS_HPP
