// Periodic threads seen from their owner: whether the thread exists, when removed tasks are
// gone for good, and tasks prepared before their first run.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"
#include "thread_test_support.h"

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

TEST(CreationErrorTest, ImpossibleCpuIsReportedAsInvalid) {
  PeriodicThread thread(1000, "kelvo-badcpu", ScheduleMethod::Sequential, 100000, 10);
  EXPECT_EQ(thread.getCreationError(), EINVAL);
  EXPECT_EQ(thread.getTid(), 0);
  thread.waitForNextCycle();  // no thread: returns at once
  thread.stop();
  thread.join();
}

TEST(CreationErrorTest, PriorityOutsideTheFifoRangeIsReportedAsInvalid) {
  PeriodicThread thread(1000, "kelvo-badprio", ScheduleMethod::Sequential, -1, 150);
  EXPECT_EQ(thread.getCreationError(), EINVAL);
  thread.stop();
  thread.join();
}

TEST(CreationErrorTest, ZeroWhenTheThreadExists) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  EXPECT_EQ(t->getCreationError(), 0);
}

TEST(WaitForNextCycleTest, ARemovedTaskNeverRunsOnceItReturns) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(1000);
  auto data = std::make_unique<std::atomic<int>>(0);
  std::atomic<std::atomic<int>*> shared{data.get()};
  std::atomic<bool> inside{false};
  std::atomic<int> runs{0};
  t->addTask(
      "reader",
      [&] {
        inside = true;
        // Long enough for the test to remove the task while this run is still going.
        const uint64_t until = Cycles::rdtsc() + Cycles::fromMicroseconds(3000);
        while (Cycles::rdtsc() < until) {
        }
        shared.load()->fetch_add(1);  // would be a use after free without the wait below
        runs.fetch_add(1);
      },
      0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 2; }));
  inside = false;
  ASSERT_TRUE(waitFor([&] { return inside.load(); }));
  ASSERT_EQ(t->deleteTask("reader"), 1);
  t->waitForNextCycle();
  const int runsAtRemoval = runs.load();
  data.reset();  // the task's data may go now
  shared = nullptr;
  t->waitForNextCycle();
  t->waitForNextCycle();
  EXPECT_EQ(runs.load(), runsAtRemoval);
  EXPECT_EQ(t->tasksSize(), 0u);
}

TEST(WaitForNextCycleTest, WorksAfterCleanTaskAndOnAPausedThread) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(1000);
  std::atomic<int> runs{0};
  t->addTask(
      "counter", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 2; }));
  t->cleanTask();
  t->waitForNextCycle();
  const int runsAtRemoval = runs.load();
  t->waitForNextCycle();
  EXPECT_EQ(runs.load(), runsAtRemoval);
  t->pause();
  t->waitForNextCycle();  // a paused thread still begins its cycles
}

TEST(WaitForNextCycleTest, ReturnsAtOnceOnceTheThreadHasEnded) {
  KELVO_REQUIRE_SCHED_FIFO();
  PeriodicThread thread(1000000, "kelvo-ended", ScheduleMethod::Sequential, -1, 10);
  thread.stop();
  thread.join();
  const auto start = std::chrono::steady_clock::now();
  thread.waitForNextCycle();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);  // not a one-second period
}

TEST(WaitForNextCycleTest, ReturnsAtOnceFromTheThreadsOwnTask) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(1000);
  std::atomic<int> runs{0};
  PeriodicThread* thread = &t.thread;
  t->addTask(
      "self",
      [&] {
        thread->waitForNextCycle();
        runs.fetch_add(1);
      },
      0, 1000000, false);
  t->start(0);
  EXPECT_TRUE(waitFor([&] { return runs.load() >= 3; }));
}

// Records the wrapper the thread made for it, to look at its coroutine.
class InspectedTask : public RealTimeTask {
 public:
  void init(std::shared_ptr<RealTimeTaskApi> api) override {
    wrapper = std::dynamic_pointer_cast<RealTimeTaskWrapper>(api);
  }
  std::string getName() const override { return "inspected"; }
  int getPriority() const override { return 0; }
  unsigned long getExpectedMaxRuntime() override { return 1000000; }
  void execute() override {
    // Floating point inside the prepared coroutine behaves as on the loop thread.
    volatile double third = 1.0;
    third /= 3.0;
    if (third > 0.33 && third < 0.34) runs.fetch_add(1);
    PeriodicThread::yield();  // continues in the next period
    runs.fetch_add(1);
  }
  std::weak_ptr<RealTimeTaskWrapper> wrapper;
  std::atomic<int> runs{0};
};

TEST(PrepareTasksTest, DefaultCreatesTheCoroutineAtTheFirstRun) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(1000);
  auto task = std::make_shared<InspectedTask>();
  t->addTask(task);
  auto wrapper = task->wrapper.lock();
  ASSERT_NE(wrapper, nullptr);
  EXPECT_EQ(wrapper->co, nullptr);
}

TEST(PrepareTasksTest, PreparedTaskHasItsCoroutineBeforeItsFirstRunAndRunsNormally) {
  KELVO_REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(1000);
  t->setPrepareTasksOnAdd(true);
  auto task = std::make_shared<InspectedTask>();
  t->addTask(task);
  {
    auto wrapper = task->wrapper.lock();
    ASSERT_NE(wrapper, nullptr);
    EXPECT_NE(wrapper->co, nullptr);
    EXPECT_NE(wrapper->shareStack, nullptr);
  }
  t->start(0);
  EXPECT_TRUE(waitFor([&] { return task->runs.load() >= 6; }));
  t->stop();
  t->join();
}

}  // namespace
}  // namespace mosk::kelvo
