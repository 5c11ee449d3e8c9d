// Helpers shared by the periodic-thread test files: privilege checks, condition waits and a
// thread that is always stopped and joined.
#ifndef KELVO_TESTS_THREAD_TEST_SUPPORT_H_
#define KELVO_TESTS_THREAD_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"

namespace mosk::kelvo::test_support {

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
  if (!::mosk::kelvo::test_support::mayUseSchedFifo())                                     \
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
class ThreadUnderTest {
 public:
  explicit ThreadUnderTest(unsigned periodUs = 1000,
                           ScheduleMethod method = ScheduleMethod::Sequential, int cpu = -1,
                           int priority = 10)
      : thread(periodUs, "kelvo-test", method, cpu, priority) {}
  ~ThreadUnderTest() {
    thread.stop();
    thread.join();
  }
  PeriodicThread* operator->() { return &thread; }
  PeriodicThread thread;
};

// A log shared between tasks (on the loop thread) and the test.
class EventLog {
 public:
  void add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

// Counts a task's runs and keeps the counter values of its first and latest run.
struct RunClock {
  void tick() {
    const uint64_t now = Cycles::rdtsc();
    if (runs.load() == 0) first = now;
    last = now;
    runs.fetch_add(1);
  }
  uint64_t spanUs() const { return Cycles::toMicroseconds(last.load() - first.load()); }

  std::atomic<int> runs{0};
  std::atomic<uint64_t> first{0};
  std::atomic<uint64_t> last{0};
};

// A user task implemented directly on the interface.
class CountingTask : public RealTimeTask {
 public:
  CountingTask(std::string name, int priority) : name_(std::move(name)), priority_(priority) {}
  void init(std::shared_ptr<RealTimeTaskApi> api) override {
    api_ = api;
    initialised = api != nullptr;
  }
  std::string getName() const override { return name_; }
  int getPriority() const override { return priority_; }
  unsigned long getExpectedMaxRuntime() override { return 1000000; }
  void execute() override { runs.fetch_add(1); }

  std::shared_ptr<RealTimeTaskApi> api() const { return api_.lock(); }
  std::atomic<int> runs{0};
  std::atomic<bool> initialised{false};

 private:
  std::string name_;
  int priority_;
  std::weak_ptr<RealTimeTaskApi> api_;  // a shared_ptr here would make a reference cycle
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

}  // namespace mosk::kelvo::test_support

// The periodic-thread test files use these names unqualified.
namespace mosk::kelvo {
using test_support::CountingTask;
using test_support::EventLog;
using test_support::RunClock;
using test_support::ThreadUnderTest;
using test_support::waitFor;
}  // namespace mosk::kelvo
#define REQUIRE_SCHED_FIFO() KELVO_REQUIRE_SCHED_FIFO()

#endif  // KELVO_TESTS_THREAD_TEST_SUPPORT_H_
