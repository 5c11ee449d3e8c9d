// Thread and real-time platform utilities: CPU lists, priorities, names, pinning, the
// PREEMPT RT check and the latency target.
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
