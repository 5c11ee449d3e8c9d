// Deadlines on a shared grid (PeriodicThread::setGridOffset): the deadlines the loop computes
// lie on the multiples of the period plus the offset, and without the grid nothing changes.
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstdint>

#include "mosk/kelvo/thread.h"
#include "periodic_thread_parts.h"
#include "thread_test_support.h"

namespace mosk::kelvo::internal {
namespace {

int64_t toNs(const timespec& t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

timespec fromNs(int64_t ns) {
  return timespec{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

TEST(GridTest, GridPointsAreMultiplesOfThePeriodPlusTheOffset) {
  const timespec deadline = fromNs(10'000'000'000);  // on a 1 ms multiple
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(deadline, 1000, 300)), 10'000'300'000);
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(fromNs(10'000'300'000), 1000, 300)),
            10'001'300'000);  // from a grid point: one period on
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(fromNs(10'000'299'999), 1000, 300)),
            10'000'300'000);
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(deadline, 1000, 2300)), 10'000'300'000);
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(deadline, 1000, -100)), 10'000'900'000);
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(deadline, 1000, 0)), 10'001'000'000);
  EXPECT_EQ(toNs(DeadlineKeeper::gridPointAfter(fromNs(10'999'999'999), 2000, 500)),
            11'000'500'000);  // a carry into the seconds
}

TEST(GridTest, AlignedDeadlinesLandOnTheGridAndStayThere) {
  DeadlineKeeper deadlines(1000);
  deadlines.gridOffsetUs = 300;
  deadlines.onGrid = true;
  int64_t previous = toNs(deadlines.nextWakeup());
  for (int cycle = 0; cycle < 5; ++cycle) {
    EXPECT_EQ(deadlines.advanceFrom(deadlines.nextWakeup()), 0u);  // woken on time
    const int64_t next = toNs(deadlines.nextWakeup());
    EXPECT_EQ((next - 300'000) % 1'000'000, 0) << next;
    EXPECT_GT(next, previous);
    EXPECT_LE(next - previous, 1'000'000);  // the aligning period is shortened, never longer
    if (cycle > 0) {
      EXPECT_EQ(next - previous, 1'000'000);
    }
    previous = next;
  }
}

TEST(GridTest, SkippedDeadlinesKeepTheGrid) {
  DeadlineKeeper deadlines(1000);
  deadlines.gridOffsetUs = 300;
  deadlines.onGrid = true;
  deadlines.advanceFrom(deadlines.nextWakeup());
  const int64_t onGrid = toNs(deadlines.nextWakeup());
  EXPECT_EQ(deadlines.advanceFrom(fromNs(onGrid + 3'500'000)), 3u);  // a pass of 3.5 periods
  EXPECT_EQ(toNs(deadlines.nextWakeup()), onGrid + 4'000'000);
}

TEST(GridTest, WithoutTheGridDeadlinesArePeriodsApartFromWhereTheyStarted) {
  DeadlineKeeper deadlines(1000);
  const int64_t start = toNs(deadlines.nextWakeup());
  for (int cycle = 1; cycle <= 5; ++cycle) {
    EXPECT_EQ(deadlines.advanceFrom(deadlines.nextWakeup()), 0u);
    EXPECT_EQ(toNs(deadlines.nextWakeup()), start + cycle * 1'000'000);
  }
  deadlines.gridOffsetUs = 300;  // an offset alone changes nothing
  deadlines.advanceFrom(deadlines.nextWakeup());
  EXPECT_EQ(toNs(deadlines.nextWakeup()), start + 6'000'000);
}

TEST(GridTest, LeavingTheGridGoesOnOnePeriodAtATime) {
  DeadlineKeeper deadlines(1000);
  deadlines.onGrid = true;
  deadlines.gridOffsetUs = 250;
  deadlines.advanceFrom(deadlines.nextWakeup());
  const int64_t onGrid = toNs(deadlines.nextWakeup());
  deadlines.onGrid = false;
  deadlines.periodUs = 1500;
  deadlines.advanceFrom(deadlines.nextWakeup());
  EXPECT_EQ(toNs(deadlines.nextWakeup()), onGrid + 1'500'000);
}

TEST(GridTest, ANewPeriodKeepsTheGrid) {
  DeadlineKeeper deadlines(1000);
  deadlines.onGrid = true;
  deadlines.gridOffsetUs = 100;
  deadlines.advanceFrom(deadlines.nextWakeup());
  deadlines.periodUs = 2000;
  deadlines.advanceFrom(deadlines.nextWakeup());
  EXPECT_EQ((toNs(deadlines.nextWakeup()) - 100'000) % 2'000'000, 0);
}

// The thread-level switch: tasks keep running on the grid, and after leaving it.
TEST(GridTest, APeriodicThreadRunsOnTheGridAndOffIt) {
  KELVO_REQUIRE_SCHED_FIFO();
  test_support::ThreadUnderTest thread(1000);
  std::atomic<int> runs{0};
  thread->addTask(
      "count", [&] { runs.fetch_add(1); }, 1, 1000000);
  thread->setGridOffset(300);
  thread->start(0);
  ASSERT_TRUE(test_support::waitFor([&] { return runs.load() >= 5; }));
  thread->clearGridOffset();
  const int seen = runs.load();
  ASSERT_TRUE(test_support::waitFor([&] { return runs.load() >= seen + 5; }));
}

}  // namespace
}  // namespace mosk::kelvo::internal
