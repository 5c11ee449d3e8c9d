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

// Runs `body` on a fresh thread, so that priority, name and affinity changes do not leak into
// the rest of the test program, and joins it.
void onFreshThread(const std::function<void()>& body) {
  std::thread worker(body);
  worker.join();
}

std::vector<int> cpusIn(const cpu_set_t* set, size_t setsize) {
  std::vector<int> cpus;
  for (size_t cpu = 0; cpu < 8 * setsize; ++cpu) {
    if (CPU_ISSET_S(cpu, setsize, set)) cpus.push_back(static_cast<int>(cpu));
  }
  return cpus;
}

struct ParseResult {
  int code;
  std::vector<int> cpus;
};

ParseResult parse(const char* list, size_t setsize = sizeof(cpu_set_t), int fail = 0) {
  std::vector<unsigned char> storage(setsize + 16, 0xAB);
  auto* set = reinterpret_cast<cpu_set_t*>(storage.data());
  const int code = cpulist_parse(list, set, setsize, fail);
  for (size_t i = setsize; i < storage.size(); ++i) EXPECT_EQ(storage[i], 0xAB) << "overrun";
  return {code, cpusIn(set, setsize)};
}

using Cpus = std::vector<int>;

TEST(CpulistParseTest, RangeWithStride) {
  const ParseResult r = parse("0-7:2");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.cpus, (Cpus{0, 2, 4, 6}));
}

TEST(CpulistParseTest, SingleCpu) {
  const ParseResult r = parse("3");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.cpus, (Cpus{3}));
}

TEST(CpulistParseTest, TrailingNewlineSetsTheCpuButReportsTrailingText) {
  const ParseResult r = parse("3\n");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.cpus, (Cpus{3}));
}

TEST(CpulistParseTest, TrailingCommaIsAnEmptyItem) { EXPECT_EQ(parse("1,2,").code, 1); }

TEST(CpulistParseTest, EmptyStringIsAnError) { EXPECT_EQ(parse("").code, 1); }

TEST(CpulistParseTest, NullStringClearsTheSetAndSucceeds) {
  cpu_set_t set;
  std::memset(&set, 0xFF, sizeof(set));
  EXPECT_EQ(cpulist_parse(nullptr, &set, sizeof(set), 1), 0);
  EXPECT_EQ(CPU_COUNT(&set), 0);
}

TEST(CpulistParseTest, DescendingRangeIsAnError) { EXPECT_EQ(parse("5-3").code, 1); }

TEST(CpulistParseTest, ZeroStrideIsAnError) { EXPECT_EQ(parse("0-4:0").code, 1); }

TEST(CpulistParseTest, StrideWithoutRangeIsIgnoredWhenNotLast) {
  const ParseResult r = parse("0:2,4");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.cpus, (Cpus{0, 4}));
}

TEST(CpulistParseTest, StrideWithoutRangeAloneIsTrailingText) {
  const ParseResult r = parse("0:2");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.cpus, (Cpus{0}));
}

TEST(CpulistParseTest, OutOfSetWithFailStopsAfterSettingWhatFits) {
  const ParseResult r = parse("60-70", 8, 1);
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.cpus, (Cpus{60, 61, 62, 63}));
}

TEST(CpulistParseTest, OutOfSetWithoutFailSkipsSilently) {
  const ParseResult r = parse("60-70", 8, 0);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.cpus, (Cpus{60, 61, 62, 63}));
}

TEST(CpulistParseTest, SeveralItems) {
  const ParseResult r = parse("0-2,8,10-14:2");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.cpus, (Cpus{0, 1, 2, 8, 10, 12, 14}));
}

TEST(CpulistParseTest, NonNumericItemIsAnError) {
  EXPECT_EQ(parse("x").code, 1);
  EXPECT_EQ(parse("1-x").code, 1);
  EXPECT_EQ(parse("1-4:x").code, 1);
}

// A set of a few bytes (not a whole number of 64-bit words) is written byte by byte: nothing
// outside `setsize` bytes is read or written (AddressSanitizer checks the exact-size buffer).
TEST(CpulistParseTest, SetOfOneByteIsTouchedOnlyWithinItsSize) {
  std::unique_ptr<unsigned char[]> one(new unsigned char[1]);
  auto* set = reinterpret_cast<cpu_set_t*>(one.get());
  EXPECT_EQ(cpulist_parse("0,3,7,8-20", set, 1, 0), 0);
  EXPECT_EQ(one[0], 0x89);  // bits 0, 3 and 7
  EXPECT_EQ(cpulist_parse("6", set, 1, 1), 0);
  EXPECT_EQ(one[0], 0x40);

  std::unique_ptr<unsigned char[]> twelve(new unsigned char[12]);
  set = reinterpret_cast<cpu_set_t*>(twelve.get());
  EXPECT_EQ(cpulist_parse("70,95", set, 12, 1), 0);
  for (size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(twelve[i], i == 8 ? 0x40 : i == 11 ? 0x80 : 0) << "byte " << i;
  }
  EXPECT_EQ(cpulist_parse("96", set, 12, 1), 2);
}

TEST(CpulistParseTest, RangeEndingAtTheLargestNumberTerminates) {
  const ParseResult r = parse("4294967290-4294967295", 8, 0);
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(r.cpus.empty());
}

TEST(ThreadUtilitiesTest, GettidIsTheKernelThreadId) {
  EXPECT_EQ(gettid(), syscall(SYS_gettid));
  long other = 0;
  onFreshThread([&] { other = gettid(); });
  EXPECT_NE(other, 0);
  EXPECT_NE(other, gettid());
}

TEST(ThreadUtilitiesTest, SetThreadNameRejectsNull) { EXPECT_EQ(setThreadName(nullptr), -1); }

TEST(ThreadUtilitiesTest, SetThreadNameNamesTheCallingThread) {
  onFreshThread([] {
    ASSERT_EQ(setThreadName("kelvo-worker"), 0);
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    EXPECT_STREQ(name, "kelvo-worker");
  });
}

TEST(ThreadUtilitiesTest, SetPriorityGivesSchedFifo) {
  onFreshThread([] {
    if (setPriority(10) != 0) {
      GTEST_SKIP() << "this process may not use SCHED_FIFO (needs root, CAP_SYS_NICE or "
                      "RLIMIT_RTPRIO >= 10)";
    }
    sched_param param{};
    EXPECT_EQ(sched_getscheduler(0), SCHED_FIFO);
    ASSERT_EQ(sched_getparam(0, &param), 0);
    EXPECT_EQ(param.sched_priority, 10);
  });
}

TEST(ThreadUtilitiesTest, SetPriorityOutOfRangeFails) {
  onFreshThread([] { EXPECT_EQ(setPriority(1000), -1); });
}

TEST(ThreadUtilitiesTest, PinThreadToCorePinsTheCallingThread) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
  const int core = cpusIn(&allowed, sizeof(allowed)).front();
  onFreshThread([core] {
    ASSERT_EQ(pinThreadToCore(core), 0);
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof(set), &set), 0);
    EXPECT_EQ(cpusIn(&set, sizeof(set)), (Cpus{core}));
  });
}

TEST(ThreadUtilitiesTest, PinThreadToCoreOutsideTheSetFails) {
  onFreshThread([] {
    EXPECT_EQ(pinThreadToCore(-7), -1);
    EXPECT_EQ(pinThreadToCore(2048), -1);
  });
}

// The expected PREEMPT RT verdict, worked out independently of the library.
bool expectedPreemptRt() {
  utsname names{};
  if (uname(&names) != 0) return false;
  std::string version = names.version;
  for (char& c : version) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  if (version.find("PREEMPT RT") == std::string::npos) return false;
  FILE* file = std::fopen("/sys/kernel/realtime", "r");
  if (file == nullptr) return false;
  int value = 0;
  const bool one = std::fscanf(file, "%d", &value) == 1 && value == 1;
  std::fclose(file);
  return one;
}

TEST(PreemptRtTest, AgreesWithTheKernel) {
  EXPECT_EQ(PeriodicThread::detectPreemptRt(), expectedPreemptRt());
}

// Descriptors of this process that are open on /dev/cpu_dma_latency.
std::set<int> latencyDescriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* entry = readdir(dir)) {
    char target[256] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
        std::strcmp(target, "/dev/cpu_dma_latency") == 0) {
      fds.insert(std::atoi(entry->d_name));
    }
  }
  closedir(dir);
  return fds;
}

TEST(LatencyTargetTest, KeepsTheDescriptorOpenWhileTheRequestHolds) {
  if (access("/dev/cpu_dma_latency", F_OK) != 0) {
    const std::set<int> before = latencyDescriptors();
    EXPECT_EQ(PeriodicThread::setLatencyTarget(), -1);
    EXPECT_EQ(latencyDescriptors(), before);
    GTEST_SKIP() << "/dev/cpu_dma_latency does not exist on this machine";
  }
  const int probe = open("/dev/cpu_dma_latency", O_RDWR);
  if (probe < 0) {
    EXPECT_EQ(PeriodicThread::setLatencyTarget(), -1);
    GTEST_SKIP() << "/dev/cpu_dma_latency cannot be opened for writing (needs root): "
                 << std::strerror(errno);
  }
  close(probe);

  const std::set<int> before = latencyDescriptors();
  // The write reports its 4 bytes, not 0, so the call says -1 and keeps the request alive.
  EXPECT_EQ(PeriodicThread::setLatencyTarget(), -1);
  std::set<int> after = latencyDescriptors();
  for (int fd : before) after.erase(fd);
  ASSERT_EQ(after.size(), 1u) << "exactly one new descriptor holds the latency request";
  EXPECT_EQ(PeriodicThread::closeLatencyTarget(*after.begin()), 0);
  EXPECT_EQ(latencyDescriptors(), before);
}

TEST(LatencyTargetTest, CloseOfABadDescriptorFails) {
  EXPECT_EQ(PeriodicThread::closeLatencyTarget(-1), -1);
}

TEST(RtSystemInitTest, DoesNothing) { PeriodicThread::rt_system_init(); }

}  // namespace
}  // namespace mosk::kelvo

// ---------------------------------------------------------------------------------------------
// Periodic threads
// ---------------------------------------------------------------------------------------------

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;

// Whether this process may create SCHED_FIFO threads (root, CAP_SYS_NICE or RLIMIT_RTPRIO).
bool mayUseSchedFifo() {
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

#define REQUIRE_SCHED_FIFO()                                                               \
  if (!mayUseSchedFifo())                                                                  \
  GTEST_SKIP() << "this process may not create SCHED_FIFO threads (run as root, or grant " \
                  "CAP_SYS_NICE / RLIMIT_RTPRIO)"

// Polls `condition` until it holds or a generous time-out passes.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds timeout = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// A periodic thread at a modest priority that is always stopped and joined.
class ThreadUnderTest {
 public:
  explicit ThreadUnderTest(unsigned periodUs = 1000,
                           ScheduleMethod method = ScheduleMethod::Sequential, int cpu = -1)
      : thread(periodUs, "kelvo-test", method, cpu, 10) {}
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

TEST(PeriodicThreadTest, LoopAllocatesNothingOnceTasksHaveRun) {
  REQUIRE_SCHED_FIFO();
  std::atomic<int> runs{0};
  std::atomic<long> allocationsAtStart{-1};
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
        }
      },
      0, 1000000, false);
  t->start(0);
  ASSERT_TRUE(waitFor([&] { return runs.load() >= kWarmUp + kMeasured; }));
  t->stop();
  t->join();
  EXPECT_EQ(countedAllocations.load() - allocationsAtStart.load(), 0);
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
