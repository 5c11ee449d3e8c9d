// Tasks on a periodic thread: the task model, the registry and cooperative yielding.
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
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "thread_test_support.h"

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

// --- Task model ------------------------------------------------------------------------------

TEST(RealTimeTaskTest, InternalTaskWithEmptyCallableRunsWithoutEffect) {
  RealTimeTaskInternal task("empty", std::function<void()>(), 3, 250);
  task.execute();
  task.init(nullptr);
  EXPECT_EQ(task.getName(), "empty");
  EXPECT_EQ(task.getPriority(), 3);
  EXPECT_EQ(task.getExpectedMaxRuntime(), 250u);
}

TEST(RealTimeTaskTest, InternalTaskCallsItsBody) {
  int calls = 0;
  RealTimeTaskInternal task(
      "body", [&] { ++calls; }, 0, 0);
  task.execute();
  task.execute();
  EXPECT_EQ(calls, 2);
}

TEST(RealTimeTaskTest, WrapperStartsDoneWithZeroCounters) {
  auto task = std::make_shared<RealTimeTaskInternal>("t", nullptr, 0, 0);
  RealTimeTaskWrapper wrapper(task, nullptr, true);
  EXPECT_TRUE(wrapper.useCoroutine);
  EXPECT_EQ(wrapper.runState.load(), RealTimeTaskWrapper::kDone);
  EXPECT_EQ(wrapper.task, task);
  EXPECT_EQ(wrapper.totalRuntimeUs.load(), 0u);
  EXPECT_EQ(wrapper.overshootCount.load(), 0u);
  EXPECT_EQ(wrapper.maxRuntimeUs.load(), 0u);
  EXPECT_EQ(wrapper.runCount.load(), 0u);
  EXPECT_TRUE(wrapper.runOnce);
  EXPECT_EQ(wrapper.shareStack, nullptr);
  EXPECT_EQ(wrapper.co, nullptr);
  EXPECT_FALSE(wrapper.deleteFlag.load());
  EXPECT_EQ(wrapper.getMaxRuntime(), 0u);
  EXPECT_EQ(wrapper.getErrorString(), "");
}

TEST(CooperativeTaskDeathTest, CoroutineBodyRefusesAMainCoroutine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        aco_thread_init(nullptr);
        aco_gtls_co = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
        RealTimeTaskWrapper::execute_aco();
      },
      "Assertion error: !aco_is_main_co\\(this_co\\) \\(src/thread:302\\)");
}

TEST(CooperativeTaskDeathTest, CoroutineBodyRefusesAnEndedCoroutine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        aco_thread_init(nullptr);
        aco_coroutine* main = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
        aco_share_stack* stack = aco_share_stack_new(0);
        aco_coroutine* co = aco_create(main, stack, 0, RealTimeTaskWrapper::execute_aco, nullptr);
        co->is_end = 1;
        aco_gtls_co = co;
        RealTimeTaskWrapper::execute_aco();
      },
      "Assertion error: this_co->is_end == 0 \\(src/thread:303\\)");
}

// --- Registry --------------------------------------------------------------------------------

TEST(TaskRegistryTest, PriorityOrderKeepsEqualsInInsertionOrder) {
  REQUIRE_SCHED_FIFO();
  EventLog log;
  ThreadUnderTest t(1000, ScheduleMethod::Priority);
  for (const auto& [name, priority] :
       std::vector<std::pair<std::string, int>>{{"a5", 5}, {"b9", 9}, {"c5", 5}, {"d7", 7}}) {
    t->addTask(
        name, [&log, name = name] { log.add(name); }, priority, 1000000, false);
  }
  EXPECT_EQ(t->getTaskNames(), "Task names: \nTask 0: b9\nTask 1: d7\nTask 2: a5\nTask 3: c5\n");
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return log.size() >= 4; }));
  const std::vector<std::string> events = log.events();
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 4),
            (std::vector<std::string>{"b9", "d7", "a5", "c5"}));
}

TEST(TaskRegistryTest, SequentialAppends) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  t->addTask("first", nullptr, 1, 1000000, false);
  t->addTask("second", nullptr, 9, 1000000, false);
  EXPECT_EQ(t->getTaskNames(), "Task names: \nTask 0: first\nTask 1: second\n");
  EXPECT_EQ(t->tasksSize(), 2u);
}

TEST(TaskRegistryTest, UnknownScheduleMethodDropsTasksButStillInitsThem) {
  REQUIRE_SCHED_FIFO();
  auto task = std::make_shared<CountingTask>("dropped", 0);
  ThreadUnderTest t(1000, static_cast<ScheduleMethod>(7));
  t->addTask(task, false);
  EXPECT_EQ(t->tasksSize(), 0u);
  EXPECT_TRUE(task->initialised.load());
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= 5; }));
  EXPECT_EQ(task->runs.load(), 0);
}

TEST(TaskRegistryTest, EmptyRegistryListsOnlyTheHeader) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  EXPECT_EQ(t->getTaskNames(), "Task names: \n");
  EXPECT_EQ(t->tasksSize(), 0u);
  EXPECT_EQ(t->deleteTask("anything"), -1);
}

TEST(TaskRegistryTest, DeleteFlagsTheFirstMatchAndTheLoopPurgesIt) {
  REQUIRE_SCHED_FIFO();
  auto first = std::make_shared<CountingTask>("twin", 0);
  auto second = std::make_shared<CountingTask>("twin", 0);
  ThreadUnderTest t;
  t->addTask(first, false);
  t->addTask(second, false);
  EXPECT_EQ(t->deleteTask("nobody"), -1);
  EXPECT_EQ(t->deleteTask("twin"), 1);
  EXPECT_EQ(t->deleteTask("twin"), 1) << "flags the same wrapper again while present";
  EXPECT_EQ(t->tasksSize(), 2u) << "paused: nothing is purged yet";
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->tasksSize() == 1; }));
  ASSERT_TRUE(waitFor([&] { return second->runs.load() >= 3; }));
  EXPECT_EQ(first->runs.load(), 0);
  EXPECT_EQ(t->getTaskNames(), "Task names: \nTask 0: twin\n");
}

// A task that asks its thread for the task count while it is destroyed.
class AsksItsThreadWhenDestroyed : public CountingTask {
 public:
  AsksItsThreadWhenDestroyed(PeriodicThread* thread, std::atomic<int>* seen)
      : CountingTask("asks", 0), thread_(thread), seen_(seen) {}
  ~AsksItsThreadWhenDestroyed() override { seen_->store(static_cast<int>(thread_->tasksSize())); }

 private:
  PeriodicThread* thread_;
  std::atomic<int>* seen_;
};

// A deleted task is freed by a later call on its thread, after that call has let go of the
// thread's task list: its destructor may call the thread (and never runs while the list is
// locked against a task's getExecuteTask()).
TEST(TaskRegistryTest, ADeletedTasksDestructorMayCallItsThread) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> seen{-1};
  ThreadUnderTest t;
  {
    auto task = std::make_shared<AsksItsThreadWhenDestroyed>(&t.thread, &seen);
    t->addTask(task, false);
    t->start(0);
    ASSERT_TRUE(waitFor([&] { return task->runs.load() >= 1; }));
    EXPECT_EQ(t->deleteTask("asks"), 1);
  }
  ASSERT_TRUE(waitFor([&] {
    t->deleteTask("nobody");  // frees what the loop has let go of
    return seen.load() >= 0;
  }));
  EXPECT_EQ(seen.load(), 0);
}

TEST(TaskRegistryTest, FunctionOverloadsReturnTheCreatedTask) {
  REQUIRE_SCHED_FIFO();
  const std::function<void()> body = [] {};
  ThreadUnderTest t;
  std::shared_ptr<RealTimeTask> byCopy = t->addTask("copied", body, 4, 100, false);
  std::shared_ptr<RealTimeTask> byMove =
      t->addTask("moved", std::function<void()>([] {}), 5, 200, false);
  EXPECT_EQ(byCopy->getName(), "copied");
  EXPECT_EQ(byCopy->getPriority(), 4);
  EXPECT_EQ(byCopy->getExpectedMaxRuntime(), 100u);
  EXPECT_EQ(byMove->getName(), "moved");
  EXPECT_EQ(byMove->getExpectedMaxRuntime(), 200u);
}

TEST(TaskRegistryTest, InitReceivesTheTasksOwnBookkeeping) {
  REQUIRE_SCHED_FIFO();
  auto task = std::make_shared<CountingTask>("kept", 0);
  ThreadUnderTest t;
  t->addTask(task, false);
  ASSERT_NE(task->api(), nullptr);
  EXPECT_EQ(task->api()->getErrorString(), "");
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return task->runs.load() >= 3; }));
  EXPECT_LT(task->api()->getMaxRuntime(), 1000000u);
}

TEST(TaskRegistryTest, CleanTaskEmptiesTheRegistryAtOnce) {
  REQUIRE_SCHED_FIFO();
  auto task = std::make_shared<CountingTask>("gone", 0);
  ThreadUnderTest t;
  t->addTask(task, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return task->runs.load() >= 2; }));
  t->cleanTask();
  EXPECT_EQ(t->tasksSize(), 0u);
  const uint64_t wakes = t->getWakeStatistics().wakeCount;
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= wakes + 3; }));
  const int runs = task->runs.load();
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= wakes + 6; }));
  EXPECT_EQ(task->runs.load(), runs);
}

TEST(TaskRegistryTest, ChangingTheRegistryWhileTheLoopRunsIsSafe) {
  REQUIRE_SCHED_FIFO();
  std::atomic<long> runs{0};
  ThreadUnderTest t(500);
  t->addTask(
      "resident", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  t->start(0);
  auto churn = [&](int id) {
    for (int i = 0; i < 150; ++i) {
      const std::string name = "churn" + std::to_string(id) + "-" + std::to_string(i % 5);
      t->addTask(
          name, [&] { runs.fetch_add(1); }, i % 3, 1000000, i % 4 == 0);
      t->deleteTask(name);
      if (i % 50 == 49) t->cleanTask();
      (void)t->tasksSize();
      (void)t->getTaskNames();
      (void)t->getExecuteTask();
    }
  };
  std::thread a(churn, 1), b(churn, 2);
  a.join();
  b.join();
  const long before = runs.load();
  t->addTask(
      "after", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  EXPECT_TRUE(waitFor([&] { return runs.load() > before + 3; }));
}

// --- Cooperative tasks -----------------------------------------------------------------------

TEST(CooperativeTaskTest, YieldContinuesInTheNextPeriod) {
  REQUIRE_SCHED_FIFO();
  EventLog log;
  ThreadUnderTest t;
  t->addTask(
      "tick", [&] { log.add("tick"); }, 0, 1000000, false);
  t->addTask(
      "planner",
      [&] {
        log.add("plan-1");
        PeriodicThread::yield();
        log.add("plan-2");
      },
      0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return log.size() >= 6; }));
  const std::vector<std::string> events = log.events();
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 6),
            (std::vector<std::string>{"tick", "plan-1", "tick", "plan-2", "tick", "plan-1"}));
}

TEST(CooperativeTaskTest, Yield1GivesAnotherPassInTheSamePeriod) {
  REQUIRE_SCHED_FIFO();
  EventLog log;
  ThreadUnderTest t;
  for (const char* name : {"A", "B"}) {
    t->addTask(
        name,
        [&log, name] {
          log.add(std::string(name) + "1");
          PeriodicThread::yield1();
          log.add(std::string(name) + "2");
        },
        0, 1000000, false);
  }
  t->addTask(
      "C", [&] { log.add("C"); }, 0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return log.size() >= 10; }));
  const std::vector<std::string> events = log.events();
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 10),
            (std::vector<std::string>{"A1", "B1", "C", "A2", "B2", "A1", "B1", "C", "A2", "B2"}));
}

TEST(CooperativeTaskTest, OvershootingTaskGetsNoFurtherPassEvenAfterYield1) {
  REQUIRE_SCHED_FIFO();
  EventLog log;
  ThreadUnderTest t(2000);
  t->addTask(
      "greedy",
      [&] {
        log.add("g1");
        PeriodicThread::yield1();
        log.add("g2");
      },
      0, 0, false);  // a limit of 0: every run overshoots
  t->addTask(
      "tick", [&] { log.add("tick"); }, 0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return log.size() >= 4; }));
  const std::vector<std::string> events = log.events();
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 4),
            (std::vector<std::string>{"g1", "tick", "g2", "tick"}));
}

TEST(CooperativeTaskTest, YieldOutsideAPeriodicThreadReturns) {
  PeriodicThread::yield();
  PeriodicThread::yield1();
  EXPECT_FALSE(PeriodicThread::check_co());
  std::thread other([] {
    PeriodicThread::yield();
    EXPECT_FALSE(PeriodicThread::check_co());
  });
  other.join();
}

TEST(CooperativeTaskTest, RunOnceTaskRunsOnceAndLeavesTheRegistry) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> onceRuns{0}, tickRuns{0};
  ThreadUnderTest t;
  t->addTask(
      "init", [&] { onceRuns.fetch_add(1); }, 0, 1000000, true);
  t->addTask(
      "tick", [&] { tickRuns.fetch_add(1); }, 0, 1000000, false);
  EXPECT_EQ(t->getTaskNames(), "Task names: \nTask 0: init\nTask 1: tick\n");
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->tasksSize() == 1; }));
  EXPECT_EQ(t->getTaskNames(), "Task names: \nTask 0: tick\n");
  ASSERT_TRUE(waitFor([&] { return tickRuns.load() >= 5; }));
  EXPECT_EQ(onceRuns.load(), 1);
}

TEST(CooperativeTaskTest, RunOnceTaskMaySpanSeveralPeriods) {
  REQUIRE_SCHED_FIFO();
  EventLog log;
  ThreadUnderTest t;
  t->addTask(
      "setup",
      [&] {
        log.add("step-1");
        PeriodicThread::yield();
        log.add("step-2");
      },
      0, 1000000, true);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->tasksSize() == 0; }));
  EXPECT_EQ(log.events(), (std::vector<std::string>{"step-1", "step-2"}));
}

}  // namespace
}  // namespace mosk::kelvo
