#include "support/small_stack.hpp"

#include <gtest/gtest.h>
#include <pthread.h>

namespace vorn::test {

void run_on_small_stack(const std::function<void()>& body, std::size_t stack_bytes) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, stack_bytes), 0);
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
