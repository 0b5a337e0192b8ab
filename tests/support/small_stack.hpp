// Runs test code on a thread with a small stack, where per-level recursion over a deep
// expression would overflow.
#ifndef VORN_TESTS_SUPPORT_SMALL_STACK_HPP
#define VORN_TESTS_SUPPORT_SMALL_STACK_HPP

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>

namespace vorn::test {

/// Runs `body` to completion on a new thread whose stack is 256 KiB. GoogleTest assertions
/// inside `body` report as usual.
inline void run_on_small_stack(const std::function<void()>& body) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
  pthread_t thread;
  auto run = [](void* f) -> void* {
    (*static_cast<const std::function<void()>*>(f))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&body)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

}  // namespace vorn::test

#endif  // VORN_TESTS_SUPPORT_SMALL_STACK_HPP
