// TimeTrace under concurrency: resets racing merges, and the lifetime of rings whose threads
// have ended.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "memory_probe.h"
#include "mosk/kelvo/time_trace.h"

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

using test_support::kSanitized;
using test_support::registeredRings;
using test_support::residentBytes;

TEST(TimeTraceConcurrencyTest, ResetRecordAndPrintMayRunTogether) {
  std::atomic<bool> stop{false};
  std::thread recorder([&] {
    TimeTrace::createThreadBuffer();
    for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
      TimeTrace::record("event %u", i);
    }
    TimeTrace::deleteThreadBuffer();
  });
  std::thread resetter([&] {
    while (!stop.load(std::memory_order_relaxed)) TimeTrace::reset();
  });
  TimeTrace::setOutputFileName("/dev/null");
  const auto end = std::chrono::steady_clock::now() + 1500ms;
  int merges = 0;
  while (std::chrono::steady_clock::now() < end) {
    const std::string trace = TimeTrace::getTrace();
    EXPECT_FALSE(trace.empty());
    TimeTrace::print();
    ++merges;
  }
  stop = true;
  recorder.join();
  resetter.join();
  TimeTrace::setOutputFileName("");
  TimeTrace::getTrace();  // frees the recorder's ring
  EXPECT_GT(merges, 0);
}

TEST(TimeTraceLifetimeTest, ARingWithoutEventsIsFreedWithItsThread) {
  const size_t before = registeredRings();
  std::thread([] {
    TimeTrace::createThreadBuffer();
    TimeTrace::deleteThreadBuffer();
  }).join();
  EXPECT_EQ(registeredRings(), before);
}

TEST(TimeTraceLifetimeTest, ARingWithEventsStaysPrintableUntilMerged) {
  const size_t before = registeredRings();
  std::thread([] {
    TimeTrace::createThreadBuffer();
    TimeTrace::record("from a thread that has ended");
    TimeTrace::deleteThreadBuffer();
  }).join();
  EXPECT_EQ(registeredRings(), before + 1);
  EXPECT_NE(TimeTrace::getTrace().find("from a thread that has ended"), std::string::npos);
  EXPECT_EQ(registeredRings(), before);
  EXPECT_EQ(TimeTrace::getTrace().find("from a thread that has ended"), std::string::npos);
}

TEST(TimeTraceLifetimeTest, ThousandThreadsLeaveMemoryAndRegistryFlat) {
  auto oneThread = [](bool records) {
    std::thread([records] {
      TimeTrace::createThreadBuffer();
      if (records) TimeTrace::record("short life");
      TimeTrace::deleteThreadBuffer();
    }).join();
  };
  for (int i = 0; i < 20; ++i) oneThread(false);
  const long residentBefore = residentBytes();
  const size_t ringsBefore = registeredRings();
  for (int i = 0; i < 1000; ++i) {
    oneThread(i % 2 == 0);
    if (i % 10 == 9) TimeTrace::getTrace();  // merged: the dead rings go
  }
  EXPECT_LE(registeredRings(), ringsBefore);
  if (!kSanitized) {
    EXPECT_LT(residentBytes() - residentBefore, 8L << 20);
  }
}

TEST(TimeTraceLifetimeTest, MergingWhileThreadsEndIsSafe) {
  std::atomic<bool> stop{false};
  std::thread printer([&] {
    while (!stop.load()) TimeTrace::getTrace();
  });
  for (int i = 0; i < 300; ++i) {
    std::thread([i] {
      TimeTrace::createThreadBuffer();
      for (uint32_t n = 0; n < 100; ++n) TimeTrace::record("thread %d event %u", i, n);
      TimeTrace::deleteThreadBuffer();
    }).join();
  }
  stop = true;
  printer.join();
  TimeTrace::getTrace();
}

}  // namespace
}  // namespace mosk::kelvo
