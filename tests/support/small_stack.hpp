// Runs test code on a thread with a small stack, where per-level recursion over a deep
// expression would overflow.
#ifndef VORN_TESTS_SUPPORT_SMALL_STACK_HPP
#define VORN_TESTS_SUPPORT_SMALL_STACK_HPP

#include <cstddef>
#include <functional>

namespace vorn::test {

/// Runs `body` to completion on a new thread whose stack is `stack_bytes` (256 KiB by
/// default). GoogleTest assertions inside `body` report as usual.
void run_on_small_stack(const std::function<void()>& body, std::size_t stack_bytes = 256 * 1024);

}  // namespace vorn::test

#endif  // VORN_TESTS_SUPPORT_SMALL_STACK_HPP
