#include "mosk/kelvo/cycles.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace {
// Calls of gettimeofday left before one fails with EFAULT; -1 means it never fails.
std::atomic<int> callsBeforeClockFailure{-1};
}  // namespace

// The library's calls to gettimeofday bind to this definition (the executable's symbol takes
// precedence over the C library's), so a test can make the wall clock fail. Until it does, this
// is the real clock; calibration at load time goes through it too.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict tz) noexcept {
  const int remaining = callsBeforeClockFailure.load();
  if (remaining == 0) {
    errno = EFAULT;
    return -1;
  }
  if (remaining > 0) callsBeforeClockFailure.store(remaining - 1);
  return static_cast<int>(syscall(SYS_gettimeofday, tv, tz));
}

namespace mosk::kelvo {
namespace {

constexpr uint64_t kTwoToThe63 = UINT64_C(1) << 63;

TEST(CyclesTest, CalibratedAtLoad) {
  EXPECT_GT(Cycles::cyclesPerSec, 1e8);
  EXPECT_LT(Cycles::cyclesPerSec, 1e11);
  EXPECT_NE(Cycles::startTick, 0u);
  EXPECT_LE(Cycles::startTick, Cycles::rdtsc());
}

TEST(CyclesTest, SecondInitChangesNothing) {
  const double rate = Cycles::cyclesPerSec;
  const uint64_t start = Cycles::startTick;
  Cycles::init();
  EXPECT_EQ(Cycles::cyclesPerSec, rate);
  EXPECT_EQ(Cycles::startTick, start);
}

// Recalibrates with a wall clock that fails after `successfulCalls` reads; never returns.
void calibrateWithFailingClock(int successfulCalls) {
  Cycles::cyclesPerSec = 0;
  callsBeforeClockFailure.store(successfulCalls);
  Cycles::init();
}

TEST(CyclesDeathTest, ClockFailureAtTheStartOfAMeasurementAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(calibrateWithFailingClock(0),
               "^Cycles::init couldn't read clock: Bad addresssrc/cycles:136\n$");
}

TEST(CyclesDeathTest, ClockFailureAtTheEndOfAMeasurementAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(calibrateWithFailingClock(1),
               "^Cycles::init couldn't read clock: Bad addresssrc/cycles:142\n$");
}

TEST(CyclesTest, MockFieldsStartAtZeroAndAreNotConsulted) {
  EXPECT_EQ(Cycles::mockCyclesPerSec, 0.0);
  EXPECT_EQ(Cycles::mockTscValue, 0u);
  Cycles::mockCyclesPerSec = 1.0;
  Cycles::mockTscValue = 42;
  EXPECT_EQ(Cycles::toNanoseconds(1000, 1e9), 1000u);
  EXPECT_NE(Cycles::rdtsc(), 42u);
  EXPECT_NEAR(Cycles::toSeconds(static_cast<uint64_t>(Cycles::cyclesPerSec)), 1.0, 1e-9);
  Cycles::mockCyclesPerSec = 0;
  Cycles::mockTscValue = 0;
}

TEST(CyclesTest, OneCyclePerNanosecond) {
  EXPECT_EQ(Cycles::toNanoseconds(1234, 1e9), 1234u);
  EXPECT_EQ(Cycles::toMicroseconds(1999, 1e9), 1u);
  EXPECT_EQ(Cycles::toMilliseconds(1999999, 1e9), 1u);
  EXPECT_EQ(Cycles::fromMicroseconds(3, 1e9), 3000u);
  EXPECT_EQ(Cycles::fromMilliseconds(3, 1e9), 3000000u);
  EXPECT_EQ(Cycles::fromNanoseconds(3, 1e9), 3u);
  EXPECT_EQ(Cycles::fromSeconds(2.5, 1e9), 2500000000u);
  EXPECT_DOUBLE_EQ(Cycles::toSeconds(500000000, 1e9), 0.5);
}

TEST(CyclesTest, RoundsToNearestOrTruncatesAsDocumented) {
  EXPECT_EQ(Cycles::toNanoseconds(1, 3), 333333333u);
  EXPECT_EQ(Cycles::fromNanoseconds(1, 3), 0u);
  // 1.5 ns and 2.5 ns round up; micro- and milliseconds truncate the rounded nanoseconds.
  EXPECT_EQ(Cycles::toMicroseconds(1999999, 2e9), 1000u);  // 999999.5 ns rounds up first
  EXPECT_EQ(Cycles::toNanoseconds(3, 2e9), 2u);
  EXPECT_EQ(Cycles::toNanoseconds(5, 2e9), 3u);
  EXPECT_EQ(Cycles::toMicroseconds(1999997, 2e9), 999u);
  EXPECT_EQ(Cycles::toMilliseconds(3999999997, 2e9), 1999u);
  EXPECT_EQ(Cycles::fromSeconds(0.4999999999, 1), 0u);
  EXPECT_EQ(Cycles::fromSeconds(0.5, 1), 1u);
  EXPECT_EQ(Cycles::fromMicroseconds(1, 1.4e6), 1u);
  EXPECT_EQ(Cycles::fromMicroseconds(1, 1.5e6), 2u);
}

TEST(CyclesTest, MillisecondsTruncateTheRoundedNanosecondsAtEveryMagnitude) {
  // The fast integer path and the floating-point definition agree on both sides of 2^53.
  for (uint64_t ns : {UINT64_C(0), UINT64_C(999999), UINT64_C(1000000), UINT64_C(1999999),
                      (UINT64_C(1) << 53) - 1, UINT64_C(1) << 53, (UINT64_C(1) << 53) + 2,
                      UINT64_C(123456789012345678), UINT64_C(1) << 63}) {
    const double asDouble = static_cast<double>(Cycles::toNanoseconds(ns, 1e9)) / 1e6;
    EXPECT_EQ(Cycles::toMilliseconds(ns, 1e9), static_cast<uint64_t>(asDouble)) << ns;
  }
}

TEST(CyclesTest, ZeroFactorMeansCalibratedRate) {
  const uint64_t oneSecond = static_cast<uint64_t>(Cycles::cyclesPerSec);
  EXPECT_EQ(Cycles::toNanoseconds(oneSecond, 0),
            Cycles::toNanoseconds(oneSecond, Cycles::cyclesPerSec));
  EXPECT_NEAR(static_cast<double>(Cycles::toMicroseconds(oneSecond)), 1e6, 1.0);
  EXPECT_EQ(Cycles::fromMilliseconds(1000), Cycles::fromSeconds(1.0));
}

TEST(CyclesTest, CountsAtOrAboveTwoToThe63AreUnsigned) {
  EXPECT_DOUBLE_EQ(Cycles::toSeconds(kTwoToThe63, 1), 9223372036854775808.0);
  EXPECT_EQ(Cycles::toNanoseconds(kTwoToThe63, 1e9), kTwoToThe63);
  EXPECT_EQ(Cycles::toNanoseconds(UINT64_MAX - 4095, 1e9), UINT64_MAX - 4095);
  EXPECT_EQ(Cycles::fromNanoseconds(kTwoToThe63 + (UINT64_C(1) << 20), 1e9),
            kTwoToThe63 + (UINT64_C(1) << 20));
  EXPECT_EQ(Cycles::fromSeconds(1.5 * 9223372036854775808.0, 1), kTwoToThe63 + (kTwoToThe63 >> 1));
  EXPECT_EQ(Cycles::toMicroseconds(kTwoToThe63, 1e9), kTwoToThe63 / 1000);
}

TEST(CyclesTest, SleepZeroReturnsAtOnce) {
  const uint64_t before = Cycles::rdtsc();
  Cycles::sleep(0);
  EXPECT_GE(Cycles::rdtsc(), before);
}

TEST(CyclesTest, SleepWaitsAtLeastTheRequestedTime) {
  const auto before = std::chrono::steady_clock::now();
  const uint64_t start = Cycles::rdtsc();
  Cycles::sleep(2000);
  const uint64_t spent = Cycles::rdtsc() - start;
  EXPECT_GE(spent, Cycles::fromMicroseconds(2000));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::microseconds(1900));
}

TEST(CyclesTest, ElapseIsSmallAfterLoadAndMonotonic) {
  const uint64_t first = Cycles::elapse();
  EXPECT_LT(first, 600u * 1000 * 1000);  // well under the test's time limit
  uint64_t previous = first;
  for (int i = 0; i < 1000; ++i) {
    const uint64_t now = Cycles::elapse();
    EXPECT_GE(now, previous);
    previous = now;
  }
  Cycles::sleep(1000);
  EXPECT_GE(Cycles::elapse(), first + 1000);
}

TEST(CyclesTest, CalibrationAgreesWithTheMonotonicClock) {
  const auto before = std::chrono::steady_clock::now();
  const uint64_t start = Cycles::rdtsc();
  Cycles::sleep(20000);
  const uint64_t cycles = Cycles::rdtsc() - start;
  const double wallUs =
      std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - before).count();
  // Generous: a descheduled process inflates the wall-clock side only.
  EXPECT_GT(static_cast<double>(Cycles::toMicroseconds(cycles)), wallUs * 0.9);
}

}  // namespace
}  // namespace mosk::kelvo
