// Helpers shared by the periodic-thread test files: privilege checks, condition waits and a
// thread that is always stopped and joined.
#ifndef KELVO_TESTS_THREAD_TEST_SUPPORT_H_
#define KELVO_TESTS_THREAD_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <thread>

#include "mosk/kelvo/thread.h"

namespace mosk::kelvo::testing {

// Whether this process may create SCHED_FIFO threads (root, CAP_SYS_NICE or RLIMIT_RTPRIO).
inline bool mayUseSchedFifo() {
  static const bool allowed = [] {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
    sched_param param{};
    param.sched_priority = 1;
    pthread_attr_setschedparam(&attributes, &param);
    pthread_t thread;
    const int result = pthread_create(
        &thread, &attributes, [](void*) -> void* { return nullptr; }, nullptr);
    pthread_attr_destroy(&attributes);
    if (result == 0) pthread_join(thread, nullptr);
    return result == 0;
  }();
  return allowed;
}

#define KELVO_REQUIRE_SCHED_FIFO()                                                         \
  if (!::mosk::kelvo::testing::mayUseSchedFifo())                                          \
  GTEST_SKIP() << "this process may not create SCHED_FIFO threads (run as root, or grant " \
                  "CAP_SYS_NICE / RLIMIT_RTPRIO)"

// Polls `condition` until it holds or a generous time-out passes.
template <typename Condition>
bool waitFor(Condition condition,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(20000)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A periodic thread at a modest priority that is always stopped and joined.
class StoppedOnExit {
 public:
  explicit StoppedOnExit(unsigned periodUs = 1000, int cpu = -1, int priority = 10)
      : thread(periodUs, "kelvo-test", ScheduleMethod::Sequential, cpu, priority) {}
  ~StoppedOnExit() {
    thread.stop();
    thread.join();
  }
  PeriodicThread* operator->() { return &thread; }
  PeriodicThread thread;
};

// The CPU the calling thread may run on with the highest number.
inline int lastAllowedCpu() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof(set), &set);
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (CPU_ISSET(cpu, &set)) return cpu;
  }
  return 0;
}

}  // namespace mosk::kelvo::testing

#endif  // KELVO_TESTS_THREAD_TEST_SUPPORT_H_
