// The parts of a periodic thread on their own, without a real-time thread: the task registry's
// snapshot exchange with the loop, the wake-up counters and the deadline keeping.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/thread.h"
#include "periodic_thread_parts.h"
#include "thread_test_support.h"

namespace mosk::kelvo::internal {
namespace {

WrapperPtr wrap(const std::string& name, int priority = 0) {
  auto task = std::make_shared<RealTimeTaskInternal>(name, nullptr, priority, 1000);
  return std::make_shared<RealTimeTaskWrapper>(task, nullptr, false);
}

std::vector<std::string> namesOf(const std::vector<WrapperPtr>& tasks) {
  std::vector<std::string> names;
  for (const WrapperPtr& wrapper : tasks) names.push_back(wrapper->task->getName());
  return names;
}

void add(TaskRegistry& registry, const WrapperPtr& wrapper) {
  TaskRegistry::Released released;
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.maintainLocked(&released);
  if (registry.insertLocked(wrapper)) registry.publishLocked();
}

TEST(TaskRegistrySnapshotTest, TheLoopSeesAChangeOnlyOnceItPicksItUp) {
  TaskRegistry registry(ScheduleMethod::Sequential);
  EXPECT_TRUE(registry.loopTasks().empty());
  add(registry, wrap("a"));
  add(registry, wrap("b"));
  EXPECT_TRUE(registry.loopTasks().empty());
  registry.pickUpSnapshot();
  EXPECT_EQ(namesOf(registry.loopTasks()), (std::vector<std::string>{"a", "b"}));
  registry.pickUpSnapshot();  // nothing new: the same snapshot stays
  EXPECT_EQ(registry.loopTasks().size(), 2u);
}

TEST(TaskRegistrySnapshotTest, PriorityOrderPutsANewcomerAfterItsEquals) {
  TaskRegistry registry(ScheduleMethod::Priority);
  add(registry, wrap("low", 1));
  add(registry, wrap("high", 9));
  add(registry, wrap("high2", 9));
  registry.pickUpSnapshot();
  EXPECT_EQ(namesOf(registry.loopTasks()), (std::vector<std::string>{"high", "high2", "low"}));
}

TEST(TaskRegistrySnapshotTest, UnknownMethodDropsTheTask) {
  TaskRegistry registry(static_cast<ScheduleMethod>(7));
  std::lock_guard<std::mutex> lock(registry.mutex);
  EXPECT_FALSE(registry.insertLocked(wrap("lost")));
  EXPECT_TRUE(registry.tasks.empty());
}

TEST(TaskRegistrySnapshotTest, DroppedSnapshotsAreFreedByTheNextCaller) {
  TaskRegistry registry(ScheduleMethod::Sequential);
  const WrapperPtr wrapper = wrap("a");
  add(registry, wrapper);
  registry.pickUpSnapshot();
  {
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.tasks.clear();
    registry.publishLocked();
  }
  EXPECT_EQ(wrapper.use_count(), 2);  // here and in the loop's snapshot
  registry.pickUpSnapshot();          // the loop drops its snapshot but does not free it
  EXPECT_EQ(registry.loopTasks().size(), 0u);
  EXPECT_EQ(wrapper.use_count(), 2);
  {
    TaskRegistry::Released released;
    {
      std::lock_guard<std::mutex> lock(registry.mutex);
      registry.collectRetiredLocked(&released);
    }
    EXPECT_EQ(wrapper.use_count(), 2);  // taken out, freed only with `released`
  }
  EXPECT_EQ(wrapper.use_count(), 1);
}

TEST(TaskRegistrySnapshotTest, FlaggedTasksArePurgedByTheLoopAndForgottenByCallers) {
  TaskRegistry registry(ScheduleMethod::Sequential);
  add(registry, wrap("a"));
  add(registry, wrap("b"));
  registry.pickUpSnapshot();
  registry.loopTasks()[0]->deleteFlag = true;
  registry.purgeFlaggedTasks();
  EXPECT_TRUE(registry.loopTasks()[0]->purged.load());
  EXPECT_FALSE(registry.loopTasks()[1]->purged.load());
  std::weak_ptr<RealTimeTaskWrapper> purged = registry.loopTasks()[0];
  {
    TaskRegistry::Released released;
    {
      std::lock_guard<std::mutex> lock(registry.mutex);
      registry.maintainLocked(&released);
      EXPECT_EQ(namesOf(registry.tasks), std::vector<std::string>{"b"});
    }
    registry.pickUpSnapshot();  // drops the last snapshot that held "a"
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.collectRetiredLocked(&released);
    EXPECT_FALSE(purged.expired());  // still held by `released`, so never freed under the lock
  }
  EXPECT_TRUE(purged.expired());
  registry.pickUpSnapshot();
  EXPECT_EQ(namesOf(registry.loopTasks()), std::vector<std::string>{"b"});
}

TEST(TaskRegistrySnapshotTest, LoopAndCallersExchangeSnapshotsConcurrently) {
  TaskRegistry registry(ScheduleMethod::Sequential);
  std::atomic<bool> stop{false};
  std::atomic<size_t> largestSeen{0};
  std::thread loop([&] {
    while (!stop.load()) {
      registry.pickUpSnapshot();
      registry.purgeFlaggedTasks();
      registry.makeEveryTaskReady();
      size_t live = 0;
      for (const WrapperPtr& wrapper : registry.loopTasks()) {
        if (!wrapper->purged.load()) ++live;
      }
      if (live > largestSeen.load()) largestSeen = live;
    }
  });
  for (int i = 0; i < 2000; ++i) {
    add(registry, wrap("t" + std::to_string(i)));
    if (i % 2 == 1) {
      std::lock_guard<std::mutex> lock(registry.mutex);
      registry.tasks.front()->deleteFlag = true;
    }
  }
  // The loop may not have been scheduled yet on a busy machine.
  EXPECT_TRUE(waitFor([&] { return largestSeen.load() > 0; }));  // then stop and join anyway
  stop = true;
  loop.join();
  registry.pickUpSnapshot();
  registry.purgeFlaggedTasks();
  TaskRegistry::Released released;
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.maintainLocked(&released);
  EXPECT_GE(registry.tasks.size(), 1000u);
  EXPECT_GT(largestSeen.load(), 0u);
}

TEST(WakeCountersTest, FirstWakeUpOnlyStartsTheMeasurement) {
  WakeCounters counters;
  counters.addMissed(3);  // before the first wake-up: not counted
  counters.recordLatency(500);
  EXPECT_EQ(counters.missed.load(), 0u);
  EXPECT_EQ(counters.maxLatencyNs.load(), 0);
  EXPECT_EQ(counters.lastLatencyNs.load(), 500);
  counters.recordWakeUp();
  EXPECT_EQ(counters.wakeCount.load(), 0u);
  counters.recordWakeUp();
  EXPECT_EQ(counters.wakeCount.load(), 1u);
  EXPECT_EQ(counters.minInterval.load(), UINT64_MAX);  // the first sample raises the maximum
  EXPECT_EQ(counters.sumInterval.load(), counters.maxInterval.load());
  counters.addMissed(2);
  counters.recordLatency(700);
  EXPECT_EQ(counters.missed.load(), 2u);
  EXPECT_EQ(counters.maxLatencyNs.load(), 700);
}

TEST(DeadlineKeeperTest, PastDeadlinesAreSkippedAndCounted) {
  DeadlineKeeper deadlines(1000);  // the first deadline is "now"
  timespec pause{0, 5500000};      // 5.5 periods
  nanosleep(&pause, nullptr);
  EXPECT_GE(deadlines.advance(), 5u);
  EXPECT_GT(deadlines.load.load(), 5.0);
  EXPECT_GE(deadlines.sleepUntilDeadline(), 0);  // never woken before the deadline
}

TEST(DeadlineKeeperTest, ZeroPeriodRunsBackToBackAndReadsNoLoad) {
  DeadlineKeeper deadlines(0);
  EXPECT_EQ(deadlines.advance(), 0u);
  EXPECT_EQ(deadlines.load.load(), 0.0);
  EXPECT_GE(deadlines.sleepUntilDeadline(), 0);
}

}  // namespace
}  // namespace mosk::kelvo::internal
