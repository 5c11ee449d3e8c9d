// Periodic threads under hostile conditions: signal storms, a null task, a high-priority reader
// of the error text on the loop's CPU, and many short-lived threads.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "memory_probe.h"
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "thread_test_support.h"

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

using test_support::kSanitized;
using test_support::registeredRings;
using test_support::residentBytes;

// Installs a do-nothing SIGUSR1 handler without SA_RESTART for the test's lifetime.
class QuietSignalHandler {
 public:
  QuietSignalHandler() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, &previous_);
  }
  ~QuietSignalHandler() { sigaction(SIGUSR1, &previous_, nullptr); }

 private:
  struct sigaction previous_ {};
};

TEST(SignalTest, SignalStormNeitherAddsCyclesNorDelaysTheThread) {
  KELVO_REQUIRE_SCHED_FIFO();
  QuietSignalHandler handler;
  std::atomic<int> runs{0};
  auto t = std::make_unique<ThreadUnderTest>(10000);  // 100 Hz
  (*t)->addTask(
      "counter", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  (*t)->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 3 && (*t)->getTid() != 0; }));

  // SIGUSR1 to the loop thread every 0.5 ms for one second.
  const pid_t tid = (*t)->getTid();
  const int before = runs.load();
  const auto stormEnd = std::chrono::steady_clock::now() + 1s;
  int sent = 0;
  while (std::chrono::steady_clock::now() < stormEnd) {
    syscall(SYS_tgkill, getpid(), tid, SIGUSR1);
    ++sent;
    std::this_thread::sleep_for(500us);
  }
  const int duringStorm = runs.load() - before;
  EXPECT_GT(sent, 100);
  // One second at 100 Hz is 100 runs; a loaded machine may run fewer, never many more.
  EXPECT_LE(duringStorm, 130) << sent << " signals";

  // The thread keeps its period at once: five more runs come well within two seconds.
  const int afterStorm = runs.load();
  EXPECT_TRUE(waitFor([&] { return runs.load() >= afterStorm + 5; }, 2s))
      << "no run for two seconds after the storm";

  // And it stops within about a period (a generous bound for a loaded machine).
  const auto stopStart = std::chrono::steady_clock::now();
  (*t)->stop();
  (*t)->join();
  EXPECT_LT(std::chrono::steady_clock::now() - stopStart, 1s);
  t.reset();
}

TEST(TaskRegistryTest, NullTaskIsRefusedOnEitherScheduleMethod) {
  for (ScheduleMethod method : {ScheduleMethod::Sequential, ScheduleMethod::Priority}) {
    PeriodicThread thread(1000, "kelvo-null", method, -1, 10);
    thread.addTask(std::shared_ptr<RealTimeTask>(), false);  // returns, even without a thread
    thread.addTask(nullptr, true);
    EXPECT_EQ(thread.tasksSize(), 0u);
    EXPECT_EQ(thread.getTaskNames(), "Task names: \n");
    thread.stop();
    thread.join();
  }
}

// Pins the calling thread to `cpu` at SCHED_FIFO `priority`; false if refused.
bool becomeRealTimeOn(int cpu, int priority) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_param param{};
  param.sched_priority = priority;
  return pthread_setaffinity_np(pthread_self(), sizeof(set), &set) == 0 &&
         pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
}

TEST(DiagnosticsTest, HigherPriorityReaderOnTheLoopsCpuIsNeverStuck) {
  KELVO_REQUIRE_SCHED_FIFO();
  const int cpu = test_support::lastAllowedCpu();
  // Period 0: back-to-back cycles, and every run overshoots its limit of 0, so the loop is
  // publishing an error text most of the time.
  ThreadUnderTest t(0, ScheduleMethod::Sequential, cpu, 10);
  std::atomic<int> runs{0};
  t->addTask(
      "overshoot", [&] { runs.fetch_add(1); }, 0, 0, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() > 10; }));

  std::atomic<bool> done{false};
  std::atomic<bool> ready{false};
  std::atomic<int> messages{0};
  std::thread reader([&] {
    ready = becomeRealTimeOn(cpu, 20);
    if (ready) {
      // Short sleeps wake the reader while the loop is in the middle of a message.
      for (int i = 0; i < 3000; ++i) {
        if (!t->getErrorString().empty()) messages.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::microseconds(20 + i % 37));
      }
    }
    done = true;
  });
  const bool finished = waitFor([&] { return done.load(); }, 60s);
  if (!finished) {  // let the loop finish its message, so that the reader can end
    sched_param param{};
    pthread_setschedparam(reader.native_handle(), SCHED_OTHER, &param);
  }
  reader.join();
  EXPECT_TRUE(finished) << "the reader spun while the loop could not run";
  if (ready) {
    EXPECT_GT(messages.load(), 0);
  }
}

TEST(TaskExceptionDeathTest, AnExceptionEscapingATaskEndsTheProcess) {
  KELVO_REQUIRE_SCHED_FIFO();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        PeriodicThread thread(1000, "kelvo-throw", ScheduleMethod::Sequential, -1, 10);
        thread.addTask(
            "thrower", [] { throw std::runtime_error("escaped"); }, 0, 1000000, false);
        thread.start(0);
        std::this_thread::sleep_for(30s);  // the loop ends the process long before
      },
      "terminate called after throwing an instance of 'std::runtime_error'");
}

TEST(TraceMemoryTest, ThousandThreadLifetimesLeaveMemoryFlat) {
  KELVO_REQUIRE_SCHED_FIFO();
  auto cycle = [] {
    PeriodicThread thread(1000, "kelvo-cycle", ScheduleMethod::Sequential, -1, 10);
    ASSERT_EQ(thread.getTid(), thread.getTid());
    thread.start(0);
    thread.stop();
    thread.join();
  };
  for (int i = 0; i < 20; ++i) cycle();
  const long residentBefore = residentBytes();
  const size_t ringsBefore = registeredRings();
  for (int i = 0; i < 1000; ++i) cycle();
  EXPECT_LE(registeredRings(), ringsBefore);
  // Sanitizers keep freed memory in quarantine and shadow: only the registry says anything there.
  if (!kSanitized) {
    EXPECT_LT(residentBytes() - residentBefore, 8L << 20);
  }
}

}  // namespace
}  // namespace mosk::kelvo
