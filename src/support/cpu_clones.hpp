// Compiling a hot function twice, for the baseline processor and for a newer one.
#ifndef VORN_SRC_SUPPORT_CPU_CLONES_HPP
#define VORN_SRC_SUPPORT_CPU_CLONES_HPP

#include <cstdint>  // defines __GLIBC__ where the C library is glibc

/// Marks a function to be compiled twice on x86-64 with glibc: once for the processor the
/// build targets, once for processors with the x86-64-v3 instructions (hardware population
/// and leading-zero counts, shifts by a register without the flags, ...). The dynamic
/// loader picks one when the program starts; the two compute the same results bit for bit.
///
/// Meant for the few loops that spend their time in bit arithmetic (the listing and coding
/// of a binary save), where those instructions make a measurable difference; nothing else
/// in the library depends on them. Empty where the compiler or the C library cannot do it
/// (no ifunc), where the build targets such a processor already, or when VORN_NO_CPU_CLONES
/// is defined.
#if defined(__x86_64__) && defined(__ELF__) && defined(__GLIBC__) && !defined(__AVX2__) && \
    !defined(VORN_NO_CPU_CLONES) &&                                                        \
    ((defined(__clang__) && __clang_major__ >= 14) || (!defined(__clang__) && defined(__GNUC__) && __GNUC__ >= 12))
#define VORN_CPU_CLONES __attribute__((target_clones("default", "arch=x86-64-v3")))
#else
#define VORN_CPU_CLONES
#endif

#endif  // VORN_SRC_SUPPORT_CPU_CLONES_HPP
