// The periodic thread: construction, control, deadlines, and what its loop allocates.
#include "mosk/kelvo/thread.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/time_trace.h"
#include "thread_test_support.h"

// The replacement below pairs malloc with free on purpose; GCC cannot see that through inlining.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// Counts the allocations made on threads that asked for it (the periodic loop thread, from
// inside a task), to show that the loop allocates nothing once its tasks have run.
namespace {
thread_local bool countAllocationsHere = false;
std::atomic<long> countedAllocations{0};
}  // namespace

void* operator new(size_t size) {
  if (countAllocationsHere) countedAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

// --- Construction and control ----------------------------------------------------------------

TEST(PeriodicThreadTest, CpuOutsideTheSetFailsCreationAndSaysSo) {
  for (int cpu : {2048, -7}) {
    testing::internal::CaptureStdout();
    {
      PeriodicThread thread(1000, "bad-cpu", ScheduleMethod::Sequential, cpu, 10);
      EXPECT_EQ(thread.getTid(), 0);
      EXPECT_EQ(CPU_COUNT(&static_cast<const cpu_set_t&>(thread.getCpuAffinity())), 0);
      thread.stop();
      thread.join();  // no thread: returns at once
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "pthread_create FAILED(22): Invalid argument\n");
  }
}

TEST(PeriodicThreadTest, PoolThreadWakesEveryFiveMillisecondsUnpinned) {
  REQUIRE_SCHED_FIFO();
  RunClock clock;
  PeriodicThread pool(5000, "ThreadInPoolWithPeriodOf5ms", ScheduleMethod::Sequential, -1, 80);
  pool.addTask(
      "pooled", [&] { clock.tick(); }, 0, 1000000, false);
  cpu_set_t process;
  ASSERT_EQ(sched_getaffinity(0, sizeof(process), &process), 0);
  const cpu_set_t affinity = pool.getCpuAffinity();
  EXPECT_TRUE(CPU_EQUAL(&process, &affinity)) << "an unpinned thread keeps the process's CPUs";
  pool.start(0);
  ASSERT_TRUE(waitFor([&] { return clock.runs.load() >= 11; }));
  pool.stop();
  pool.join();
  // Ten periods between the first and the eleventh run: about 50 ms.
  EXPECT_GE(clock.spanUs(), 40000u * (clock.runs.load() - 1) / 10);  // room for a late start
}

TEST(PeriodicThreadTest, PinnedThreadRunsOnItsCpu) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> cpuSeen{-1};
  ThreadUnderTest t(1000, ScheduleMethod::Sequential, 0);
  t->addTask(
      "where", [&] { cpuSeen = sched_getcpu(); }, 0, 1000000, false);
  const cpu_set_t affinity = t->getCpuAffinity();
  EXPECT_EQ(CPU_COUNT(&affinity), 1);
  EXPECT_TRUE(CPU_ISSET(0, &affinity));
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return cpuSeen.load() != -1; }));
  EXPECT_EQ(cpuSeen.load(), 0);
}

TEST(PeriodicThreadTest, ThreadIdAndCoroutineModeAreVisibleFromTasks) {
  REQUIRE_SCHED_FIFO();
  std::atomic<long> tidSeen{0};
  std::atomic<bool> coSeen{false};
  ThreadUnderTest t;
  t->addTask(
      "who",
      [&] {
        coSeen = PeriodicThread::check_co();
        tidSeen = gettid();
      },
      0, 1000000, false);
  EXPECT_NE(t->getTid(), 0) << "the loop has started once addTask returns";
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return tidSeen.load() != 0; }));
  EXPECT_EQ(tidSeen.load(), t->getTid());
  EXPECT_TRUE(coSeen.load());
  EXPECT_FALSE(PeriodicThread::check_co());
}

TEST(PeriodicThreadTest, PausedThreadKeepsWakingButRunsNoTask) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0};
  ThreadUnderTest t;
  t->addTask(
      "idle", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= 5; }));
  EXPECT_EQ(runs.load(), 0);
  const WakeStatistics paused = t->getWakeStatistics();
  EXPECT_GT(paused.sumInterval, 0u);
  EXPECT_GE(paused.maxInterval, paused.minInterval == UINT64_MAX ? 0 : paused.minInterval);

  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 3; }));
  t->pause();
  const int runsWhenPaused = runs.load();
  const uint64_t wakes = t->getWakeStatistics().wakeCount;
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= wakes + 5; }));
  EXPECT_LE(runs.load(), runsWhenPaused + 1) << "at most the pass already under way";
}

TEST(PeriodicThreadTest, ResumeWithoutStartRunsTasksWithoutPassLimit) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0};
  ThreadUnderTest t;
  t->addTask(
      "slowish",
      [&] {
        Cycles::sleep(50);
        runs.fetch_add(1);
      },
      0, 1000000, false);
  t->resume();
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 5; }));
  EXPECT_EQ(t->getWakeStatistics().threadWarningTimes, 0u);
  EXPECT_EQ(t->getErrorString(), "");
}

TEST(PeriodicThreadTest, StopIsSeenAtTheNextCycleAndJoinReturns) {
  REQUIRE_SCHED_FIFO();
  PeriodicThread thread(2000, "stopper", ScheduleMethod::Sequential, -1, 10);
  std::atomic<int> runs{0};
  thread.addTask(
      "count", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  thread.start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 2; }));
  thread.stop();
  thread.join();
  const int finalRuns = runs.load();
  thread.join();  // a second join does nothing
  EXPECT_EQ(runs.load(), finalRuns);
}

TEST(PeriodicThreadTest, SetPeriodIgnoresValuesBelowOne) {
  REQUIRE_SCHED_FIFO();
  RunClock clock;
  ThreadUnderTest t(2000);
  EXPECT_EQ(t->setPeriod(0), 0);
  EXPECT_EQ(t->setPeriod(-5), 0);
  t->addTask(
      "tick", [&] { clock.tick(); }, 0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return clock.runs.load() >= 11; }));
  // Still a 2 ms period: ten intervals take about 20 ms. The bound leaves room for a late first
  // wake-up (other real-time threads share the machine); a period of 0 would take almost none.
  EXPECT_GE(clock.spanUs(), 12000u);
}

TEST(PeriodicThreadTest, SetPeriodTakesEffectAtTheNextDeadline) {
  REQUIRE_SCHED_FIFO();
  RunClock clock;
  std::atomic<bool> measuring{false};
  ThreadUnderTest t(1000);
  t->addTask(
      "tick",
      [&] {
        if (measuring.load()) clock.tick();
      },
      0, 1000000, false);
  t->start(0);
  EXPECT_EQ(t->setPeriod(5000), 0);
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= 3; }));
  measuring = true;
  ASSERT_TRUE(waitFor([&] { return clock.runs.load() >= 11; }));
  // Ten 5 ms intervals take about 50 ms (a 1 ms period: about 10 ms). The bound leaves room
  // for a late first sample (other real-time threads share the machine).
  EXPECT_GE(clock.spanUs(), 35000u);
}

TEST(PeriodicThreadTest, MissedDeadlinesAreSkippedAndCountedNotCaughtUp) {
  REQUIRE_SCHED_FIFO();
  std::mutex mutex;
  std::vector<uint64_t> starts;
  ThreadUnderTest t(2000);
  t->addTask(
      "long-once",
      [&] {
        const uint64_t now = Cycles::rdtsc();
        size_t count;
        {
          std::lock_guard<std::mutex> lock(mutex);
          starts.push_back(now);
          count = starts.size();
        }
        if (count == 3) Cycles::sleep(7000);  // a pass of three and a half periods
      },
      0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return starts.size() >= 6;
  }));
  EXPECT_GE(t->getWakeStatistics().missed, 3u);
  std::lock_guard<std::mutex> lock(mutex);
  // The runs after the long one come a period apart (4 ms for two), not in a burst catching up
  // the missed ones (which would take almost no time). Generous: the first may wake late.
  EXPECT_GE(Cycles::toMicroseconds(starts[5] - starts[3]), 2000u);
}

// Runs a loop with every kind of task and counts what the loop thread allocates once they have
// run a few times, until the last measured run (the loop's exit is not part of it: a traced
// loop hands its ring over then). Traced, the loop records each task's identifier too, and a
// task comes and goes while it is measured.
void expectLoopAllocatesNothingOnceTasksHaveRun(bool traced) {
  std::atomic<int> runs{0};
  std::atomic<long> allocationsAtStart{-1};
  std::atomic<long> allocationsAtEnd{-1};
  constexpr int kWarmUp = 3;
  constexpr int kMeasured = 50;
  ThreadUnderTest t;
  t->addTask(
      "plain", [] {}, 0, 1000000, false);
  t->addTask(
      "yielding",
      [] {
        PeriodicThread::yield1();
        PeriodicThread::yield();
      },
      0, 1000000, false);
  t->addTask(
      "overshoot", [] {}, 0, 0, false);  // formats an error message every run
  t->addTask(
      "counter",
      [&] {
        const int run = runs.fetch_add(1) + 1;
        if (run == kWarmUp) {
          allocationsAtStart = countedAllocations.load();
          countAllocationsHere = true;
        } else if (run == kWarmUp + kMeasured) {
          countAllocationsHere = false;
          allocationsAtEnd = countedAllocations.load();
        }
      },
      0, 1000000, false);
  t->setTraceEnabled(traced);
  t->start(0);
  if (traced) {
    ASSERT_TRUE(waitFor([&] { return allocationsAtStart.load() >= 0; }));
    t->setPrepareTasksOnAdd(true);  // its coroutine is made here, not in its first run
    t->addTask(
        "comes and goes", [] {}, 0, 1000000, false);  // short: longer names allocate per run
    ASSERT_TRUE(waitFor([&] { return runs.load() >= kWarmUp + kMeasured / 2; }));
    EXPECT_EQ(t->deleteTask("comes and goes"), 1);
  }
  ASSERT_TRUE(waitFor([&] { return allocationsAtEnd.load() >= 0; }));
  t->stop();
  t->join();
  EXPECT_EQ(allocationsAtEnd.load() - allocationsAtStart.load(), 0);
}

TEST(PeriodicThreadTest, LoopAllocatesNothingOnceTasksHaveRun) {
  REQUIRE_SCHED_FIFO();
  expectLoopAllocatesNothingOnceTasksHaveRun(false);
}

TEST(PeriodicThreadTest, TracedLoopAllocatesNothingOnceTasksHaveRun) {
  REQUIRE_SCHED_FIFO();
  expectLoopAllocatesNothingOnceTasksHaveRun(true);
}

// The loop asks each task for its name before every run (and again for an overshoot message):
// a name longer than the string's short capacity costs one allocation per run, two when the
// run overshoots.
TEST(PeriodicThreadTest, LongTaskNameCostsOneAllocationPerRunAndTwoPerOvershoot) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0}, longRuns{0}, overshootRuns{0};
  std::atomic<int> longRunsAtStart{0}, overshootRunsAtStart{0};
  std::atomic<long> allocationsAtStart{-1};
  constexpr int kWarmUp = 3;
  constexpr int kMeasured = 50;
  ThreadUnderTest t;
  t->addTask(
      "counter",
      [&] {
        const int run = runs.fetch_add(1) + 1;
        if (run == kWarmUp) {
          longRunsAtStart = longRuns.load();
          overshootRunsAtStart = overshootRuns.load();
          allocationsAtStart = countedAllocations.load();
          countAllocationsHere = true;
        }
      },
      0, 1000000, false);
  const std::string longName = "a-task-name-longer-than-the-short-capacity";
  ASSERT_GT(longName.size(), std::string().capacity());
  t->addTask(
      longName, [&] { longRuns.fetch_add(1); }, 0, 1000000, false);
  t->addTask(
      longName + "-overshooting", [&] { overshootRuns.fetch_add(1); }, 0, 0, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= kWarmUp + kMeasured; }));
  t->stop();
  t->join();
  const long longCount = longRuns.load() - longRunsAtStart.load();
  const long overshootCount = overshootRuns.load() - overshootRunsAtStart.load();
  EXPECT_GE(longCount, kMeasured);
  EXPECT_EQ(countedAllocations.load() - allocationsAtStart.load(), longCount + 2 * overshootCount);
}

}  // namespace
}  // namespace mosk::kelvo
