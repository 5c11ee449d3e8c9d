// Diagnostics of a periodic thread: overshoots, status and warning text, the task run last
// and the time trace.
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

// --- Diagnostics -----------------------------------------------------------------------------

TEST(DiagnosticsTest, TaskOvershootIsReportedOnceThenCleared) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  t->addTask(
      "zero-limit", [] {}, 0, 0, true);
  t->start(0);
  std::string message;
  ASSERT_TRUE(waitFor([&] { return !(message = t->getErrorString()).empty(); }));
  EXPECT_TRUE(std::regex_match(
      message, std::regex("Task kelvo-test:zero-limit overshoot: [0-9]+us\\(limit: 0us, avg: "
                          "[0-9]+us\\) cnt: 1")))
      << message;
  EXPECT_EQ(t->getErrorString(), "");
}

TEST(DiagnosticsTest, ZeroLimitCountsEveryRunAsAnOvershoot) {
  REQUIRE_SCHED_FIFO();
  auto task = std::make_shared<RealTimeTaskInternal>(
      "always", [] {}, 0, 0);
  std::shared_ptr<RealTimeTaskApi> api;
  struct Keeper : RealTimeTask {
    std::shared_ptr<RealTimeTask> inner;
    std::shared_ptr<RealTimeTaskApi>* api;
    void init(std::shared_ptr<RealTimeTaskApi> a) override { *api = a; }
    std::string getName() const override { return inner->getName(); }
    int getPriority() const override { return 0; }
    unsigned long getExpectedMaxRuntime() override { return inner->getExpectedMaxRuntime(); }
    void execute() override { inner->execute(); }
  };
  auto keeper = std::make_shared<Keeper>();
  keeper->inner = task;
  keeper->api = &api;
  ThreadUnderTest t;
  t->addTask(keeper, false);
  ASSERT_NE(api, nullptr);
  auto* wrapper = static_cast<RealTimeTaskWrapper*>(api.get());
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return wrapper->runCount.load() >= 5; }));
  t->pause();
  ASSERT_TRUE(waitFor([&] {
    const uint64_t runs = wrapper->runCount.load();
    return wrapper->overshootCount.load() == runs;
  }));
  EXPECT_TRUE(
      std::regex_search(t->getErrorString(), std::regex("Task kelvo-test:always overshoot")));
}

TEST(DiagnosticsTest, PassOvershootIsReportedAgainstTheLimit) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t(2000);
  t->addTask(
      "busy", [] { Cycles::sleep(200); }, 0, 1000000, false);
  t->start(50);
  std::string message;
  ASSERT_TRUE(waitFor([&] {
    message = t->getErrorString();
    return !message.empty();
  }));
  EXPECT_TRUE(std::regex_match(
      message, std::regex("Task kelvo-test overshoot: [0-9]+us\\(limit: 50us\\) cnt: [0-9]+")))
      << message;
  EXPECT_GE(t->getWakeStatistics().threadWarningTimes, 1u);
}

TEST(DiagnosticsTest, ZeroPassLimitNeverReportsAPassOvershoot) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0};
  ThreadUnderTest t(2000);
  t->addTask(
      "busy",
      [&] {
        Cycles::sleep(200);
        runs.fetch_add(1);
      },
      0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 10; }));
  EXPECT_EQ(t->getWakeStatistics().threadWarningTimes, 0u);
  EXPECT_EQ(t->getErrorString(), "");
}

TEST(DiagnosticsTest, WarningAppendsTwoLinesPerCall) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  const std::string before = t->getWarning();
  const std::string after = t->getWarning();
  EXPECT_EQ(before.substr(before.size() - 41), "taskwaringtimes: 0\nthreadwarningtimes: 0\n");
  EXPECT_EQ(after, before + "taskwaringtimes: 0\nthreadwarningtimes: 0\n");
}

TEST(DiagnosticsTest, StatusAppendsFourLinesPerCall) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->getWakeStatistics().wakeCount >= 3; }));
  const std::string first = t->getStatus();
  const std::string second = t->getStatus();
  ASSERT_EQ(second.compare(0, first.size(), first), 0) << "the buffer is never cleared";
  const std::string appended = second.substr(first.size());
  EXPECT_TRUE(std::regex_match(
      appended, std::regex("avg: [0-9]+\nmin: -?[0-9]+\nmax: [0-9]+\nmissed: [0-9]+\n")))
      << appended;
}

TEST(DiagnosticsDeathTest, StatusTextThatWouldOverflowTerminates) {
  REQUIRE_SCHED_FIFO();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        PeriodicThread thread(1000, "overflow", ScheduleMethod::Sequential, -1, 10);
        for (int i = 0; i < 100; ++i) thread.getStatus();
      },
      "buffer overflow detected");
}

TEST(DiagnosticsTest, ExecuteTaskIsTheTaskRunLast) {
  REQUIRE_SCHED_FIFO();
  ThreadUnderTest t;
  EXPECT_EQ(t->getExecuteTask(), nullptr);
  std::shared_ptr<RealTimeTask> task = t->addTask(
      "only", [] {}, 0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return t->getExecuteTask() != nullptr; }));
  EXPECT_EQ(t->getExecuteTask(), task);
}

TEST(DiagnosticsTest, TraceRecordsPassesAndTaskRuns) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0};
  ThreadUnderTest t;
  t->addTask(
      "traced", [&] { runs.fetch_add(1); }, 0, 1000000, false);
  t->setTraceEnabled(true);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 5; }));
  const std::string trace = t->getTrace();
  EXPECT_NE(trace.find("Task FRAME ++++++++++ started, 1 tasks"), std::string::npos) << trace;
  EXPECT_NE(trace.find("Task[0] >>>>>>>> started"), std::string::npos);
  EXPECT_TRUE(std::regex_search(trace, std::regex("Task\\[0\\] <<<<<<<< end [0-9]+")));

  char directory[] = "/tmp/kelvo-trace-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string path = std::string(directory) + "/trace.txt";
  t->printTrace(path.c_str());
  TimeTrace::setOutputFileName("");
  std::ifstream file(path);
  std::stringstream contents;
  contents << file.rdbuf();
  EXPECT_EQ(contents.str().rfind("Task names: \nTask 0: traced\nCYCLES_PER_SECOND ", 0), 0u)
      << contents.str().substr(0, 200);
  std::remove(path.c_str());
  rmdir(directory);
}

}  // namespace
}  // namespace mosk::kelvo
